// talvo_proxy_is_action_registered against installed manifests, without initialising
// the library.
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "talvo_proxy.h"

namespace {

class ActionRegisteredTest : public ::testing::Test {
 protected:
  // Installs appId whose action-id metadata is actions (no key at all when null).
  void Install(const std::string &appId, const char *actions) {
    testsupport::Manifest m;
    m.appId = appId;
    m.package = appId;
    m.metadata = {{talvo::kMetadataVersionKey, "1.0.0"}};
    if (actions) m.metadata.emplace_back(talvo::kMetadataActionIdKey, actions);
    env.install(m);
  }

  bool Registered(const char *actions, const char *actionId) {
    Install("org.velna.test.app", actions);
    return talvo_proxy_is_action_registered("org.velna.test.app", actionId);
  }

  testsupport::TempEnv env;
  testsupport::LogCapture log;
};

TEST_F(ActionRegisteredTest, WholeListElementsMatchAnywhereInTheList) {
  EXPECT_TRUE(Registered("alpha,beta,gamma", "alpha"));
  EXPECT_TRUE(Registered("alpha,beta,gamma", "beta"));
  EXPECT_TRUE(Registered("alpha,beta,gamma", "gamma"));
  EXPECT_TRUE(log.has("app[org.velna.test.app] has registered for Action[gamma]"));

  // An id that holds the separator matches when its wrapped form occurs in the list.
  EXPECT_TRUE(Registered("alpha,beta,gamma", "beta,gamma"));
  EXPECT_FALSE(Registered("alpha,beta,gamma", "alpha,gamma"));

  // Parts of an element do not match.
  EXPECT_FALSE(Registered("alpha", "alp"));
  EXPECT_FALSE(Registered("alpha", "lpha"));
  EXPECT_FALSE(Registered("alpha,beta", "alpha,be"));
  EXPECT_TRUE(log.has("app[org.velna.test.app] has not registered for Action[alp]"));
}

TEST_F(ActionRegisteredTest, BlanksAndCaseAreSignificant) {
  EXPECT_FALSE(Registered("alpha, beta", "beta"));
  EXPECT_TRUE(Registered("alpha, beta", " beta"));
  EXPECT_FALSE(Registered("Play", "play"));
}

TEST_F(ActionRegisteredTest, EmptyIdMatchesOnlyAnEmptyElement) {
  EXPECT_FALSE(Registered("alpha,beta", ""));
  EXPECT_TRUE(Registered("alpha,,beta", ""));
  EXPECT_TRUE(Registered(",alpha", ""));
  EXPECT_TRUE(Registered("alpha,", ""));
}

TEST_F(ActionRegisteredTest, AppWithoutTheKeyOrUnknownAppIsNotRegistered) {
  EXPECT_FALSE(Registered(nullptr, "alpha"));
  EXPECT_TRUE(log.has("app[org.velna.test.app] has not registered for Action[alpha]"));

  EXPECT_FALSE(talvo_proxy_is_action_registered("org.velna.test.absent", "alpha"));
  EXPECT_TRUE(log.has("app_info_create failed ERROR[-2]"));
}

TEST_F(ActionRegisteredTest, IterationStopsAtTheActionIdEntry) {
  testsupport::Manifest m;
  m.appId = "org.velna.test.app";
  m.package = m.appId;
  m.metadata = {{talvo::kMetadataVersionKey, "1.0.0"},
                {talvo::kMetadataActionIdKey, "play"},
                {"http://velna.org/after", "x"}};
  env.install(m);

  EXPECT_TRUE(talvo_proxy_is_action_registered("org.velna.test.app", "play"));
  EXPECT_TRUE(log.has("metadataValueSize[4]"));
  EXPECT_FALSE(log.has("metadata_key[http://velna.org/after]"));
}

}  // namespace
