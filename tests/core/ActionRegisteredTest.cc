// talvo_proxy_is_action_registered against installed manifests, without initialising
// the library.
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "talvo_proxy.h"

namespace {

TEST(ActionRegistered, OnlyAWholeListElementMatchesWithBlanksAndCaseSignificant) {
  testsupport::TempEnv env;
  testsupport::LogCapture log;
  const char *app = "org.velna.test.app";
  struct Case {
    const char *actions;  // the action-id metadata; null: no such key
    const char *id;
    bool registered;
  };
  for (const Case &c : {Case{"alpha,beta,gamma", "alpha", true}, Case{"alpha,beta,gamma", "beta", true},
                        Case{"alpha,beta,gamma", "gamma", true},
                        // An id holding the separator matches when its wrapped form occurs.
                        Case{"alpha,beta,gamma", "beta,gamma", true},
                        Case{"alpha,beta,gamma", "alpha,gamma", false}, Case{"alpha", "alp", false},
                        Case{"alpha", "lpha", false}, Case{"alpha,beta", "alpha,be", false},
                        Case{"alpha, beta", "beta", false}, Case{"alpha, beta", " beta", true},
                        Case{"Play", "play", false}, Case{"alpha,beta", "", false},
                        Case{"alpha,,beta", "", true}, Case{",alpha", "", true},
                        Case{"alpha,", "", true}, Case{nullptr, "alpha", false}}) {
    testsupport::Manifest m{app, app, "", "", "", {{talvo::kMetadataVersionKey, "1.0.0"}}};
    if (c.actions) m.metadata.emplace_back(talvo::kMetadataActionIdKey, c.actions);
    env.install(m);
    EXPECT_EQ(c.registered, talvo_proxy_is_action_registered(app, c.id))
        << (c.actions ? c.actions : "(no key)") << " / '" << c.id << "'";
  }
  EXPECT_TRUE(log.has("app[org.velna.test.app] has registered for Action[gamma]"));
  EXPECT_TRUE(log.has("app[org.velna.test.app] has not registered for Action[alp]"));

  EXPECT_FALSE(talvo_proxy_is_action_registered("org.velna.test.absent", "alpha"));
  EXPECT_TRUE(log.has("app_info_create failed ERROR[-2]"));
}

}  // namespace
