// The exported functions in one process: start-up, shut-down, refusals, the routing of
// answers to the request kind they answer, and the action-id registration check.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "core/TalvoProxy.h"
#include "ipc/TalvoProxyIpc.h"
#include "talvo_proxy.h"

namespace {

using namespace testsupport;

constexpr const char kSelf[] = "org.velna.test.client";
constexpr int kRefused = -1073741825;

class CoreTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("VELNA_APP_ID", kSelf, 1); }

  TempEnv env;
  BusFixture bus;
  LogCapture log;
  Recorder action, state;
};

// Start-up runs IPC, action request, state request, common data; shut-down runs both
// request components first, then IPC, then common data (which logs nothing when it stops).
const std::vector<LogRecord> kStartUp = {
    LogD("initialize", "TalvoProxyIpc is initialized"),
    LogD("initialize", "TalvoProxyActionRequest is initialized"),
    LogD("initialize", "TalvoProxyStateRequest is initialized"),
    LogD("initialize", "TalvoProxyCommonData is initialized"),
    LogD("initialize", "TalvoProxy is initialized")};
const std::vector<LogRecord> kShutDown = {
    LogD("deinitialize", "TalvoProxyActionRequest is deinitialized"),
    LogD("deinitialize", "TalvoProxyStateRequest is deinitialized"),
    LogD("deinitialize", "TalvoProxyIpc is deinitialized"),
    LogD("deinitialize", "TalvoProxy is deinitialized")};

TEST_F(CoreTest, EverythingIsRefusedUntilTheComponentsStartInTheirOrder) {
  BundlePtr data = MakeBundle();
  EXPECT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), Recorder::Callback, &action),
            kRefused);
  EXPECT_EQ(talvo_proxy_app_state_request(kSelf, data.get(), Recorder::Callback, &state),
            kRefused);
  EXPECT_EQ(talvo_proxy_get_focused_app_id(), nullptr);
  // A null app id is refused first, whatever the state.
  EXPECT_EQ(talvo_proxy_app_action_execution(nullptr, nullptr, nullptr, nullptr), -22);
  EXPECT_EQ(talvo_proxy_app_state_request(nullptr, nullptr, nullptr, nullptr), -22);
  EXPECT_TRUE(log.sequence(
      {LogE("deinitialize", "TalvoProxy is not initialized. Please initialize it first."),
       LogE("executeAction", "Talvo Proxy is not initialized"),
       LogE("requestAppState", "Talvo Proxy is not initialized"),
       LogE("getFocusedAppId", "Talvo Proxy is not initialized")}));
  EXPECT_EQ(log.count("Talvo Proxy is not initialized"), 3);
  EXPECT_EQ(log.count("app_id is null"), 2);
  EXPECT_FALSE(log.has("TalvoProxyActionRequest"));
  EXPECT_EQ(bundle_get_count(data.get()), 0);
  RunLoopFor(50);
  EXPECT_EQ(action.calls() + state.calls(), 0);

  log.clear();
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_TRUE(log.sequence(kStartUp));
  const int second = log.size();
  EXPECT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_TRUE(
      log.sequence({LogE("initialize", "TalvoProxy has been already initialized")}, second));
  EXPECT_EQ(log.size(), second + 1) << log.dump();

  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_TRUE(log.sequence(kShutDown, second));
  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, nullptr, nullptr, nullptr), kRefused);

  log.clear();
  EXPECT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_TRUE(log.sequence(kStartUp));
  EXPECT_TRUE(log.has("dbusOwnId : "));
  EXPECT_EQ(log.countFrom(""), 0) << log.dump();
  // A new ownership request is made; its acquisition hands over a connection again.
  EXPECT_TRUE(RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000));
}

// A process without an app id cannot own the library's port: the IPC component stays
// down, the rest starts, and the client is told success all the same.
TEST_F(CoreTest, PortRegistrationFailureLeavesOnlyTheIpcComponentDown) {
  unsetenv("VELNA_APP_ID");
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_TRUE(log.sequence({LogE("initialize", "message_port_register_local_port error: -22"),
                            LogD("initialize", "TalvoProxyActionRequest is initialized"),
                            LogD("initialize", "TalvoProxy is initialized")}));
  EXPECT_FALSE(log.has(LogD("initialize", "TalvoProxyIpc is initialized")));
  EXPECT_EQ(TalvoProxyIpc::getInstance()->initialize(), -1073741822);

  BundlePtr data = RequestWithMetadata("1.0.0", "cap.self", "1.0-alpha");
  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), Recorder::Callback, &action),
            kRefused);
  EXPECT_TRUE(log.has(LogE("sendData", "Talvo Proxy is not initialized")));
  EXPECT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_TRUE(log.has(
      LogE("deinitialize", "TalvoProxyIpc is not initialized. Please initialize at first.")));
}

// The test process is also the companion app: the answers are handed to the result
// handler as the IPC component does.
TEST_F(CoreTest, EachAnswerReachesTheRequestKindItAnswersUntilDeinitialization) {
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  RunLoopFor(10);
  auto deliver = [](const std::vector<std::pair<std::string, std::string>> &entries) {
    BundlePtr answer = MakeBundle(entries);
    TalvoProxy::_processResult(kSelf, answer.get(), TalvoProxy::getInstance());
  };
  // This process's own metadata, with an SDK version that selects the message port.
  BundlePtr actionData = RequestWithMetadata("1.0.0", "cap.self", "1.0-alpha");
  BundlePtr stateData = RequestWithMetadata("1.0.0", "cap.self", "1.0-alpha");
  auto execute = [&] {
    return talvo_proxy_app_action_execution(kSelf, actionData.get(), Recorder::Callback, &action);
  };
  ASSERT_EQ(execute(), 0);
  ASSERT_EQ(talvo_proxy_app_state_request(kSelf, stateData.get(), Recorder::Callback, &state), 0);

  deliver({{"status_code", "X"}, {"appContext", "{}"}, {"result", "r"}});
  EXPECT_EQ(action.calls(), 0);
  ASSERT_EQ(state.calls(), 1);
  EXPECT_EQ(state.last().str("appContext"),
            "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"1.0.0\","
            "\"capsuleId\":\"cap.self\"}");
  deliver({{"status_code", "ACTION_EXECUTION_SUCCESS"}, {"result", "done"}});
  ASSERT_EQ(action.calls(), 1);
  EXPECT_EQ(action.last().str("result"), "done");

  ASSERT_EQ(execute(), 0);
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  deliver({{"result", "late"}});
  EXPECT_EQ(action.calls() + state.calls(), 2);
  EXPECT_TRUE(log.has("No action execute callback registered by talvo client for app:"));
}

TEST(ActionRegistered, OnlyAWholeListElementMatchesWithBlanksAndCaseSignificant) {
  TempEnv env;
  LogCapture log;
  const char *app = "org.velna.test.app";
  struct Case {
    const char *actions;  // the action-id metadata; null: no such key
    const char *id;
    bool registered;
  };
  // An id holding the separator matches when its wrapped form occurs.
  for (const Case &c :
       {Case{"alpha,beta,gamma", "alpha", true}, Case{"alpha,beta,gamma", "beta", true},
        Case{"alpha,beta,gamma", "gamma", true}, Case{"alpha,beta,gamma", "beta,gamma", true},
        Case{"alpha,beta,gamma", "alpha,gamma", false}, Case{"alpha", "alp", false},
        Case{"alpha", "lpha", false}, Case{"alpha,beta", "alpha,be", false},
        Case{"alpha, beta", "beta", false}, Case{"alpha, beta", " beta", true},
        Case{"Play", "play", false}, Case{"alpha,beta", "", false}, Case{"alpha,,beta", "", true},
        Case{",alpha", "", true}, Case{"alpha,", "", true}, Case{nullptr, "alpha", false}}) {
    Manifest m{app, app, "", "", "", {{talvo::kMetadataVersionKey, "1.0.0"}}};
    if (c.actions) m.metadata.emplace_back(talvo::kMetadataActionIdKey, c.actions);
    m.metadata.emplace_back("http://velna.org/later", "x");
    env.install(m);
    log.clear();
    EXPECT_EQ(c.registered, talvo_proxy_is_action_registered(app, c.id))
        << (c.actions ? c.actions : "(no key)") << " / '" << c.id << "'";
    // The entries are read up to the first action-id entry, whatever its outcome.
    const std::string fn = "_talvo_metadata_cb";
    EXPECT_TRUE(log.has(LogD(fn, "metadata_key[" + std::string(talvo::kMetadataVersionKey) +
                                     "] metadata_value[1.0.0] metadataValueSize[5]")));
    EXPECT_EQ(!c.actions, log.has(LogD(fn,
                                       "metadata_key[http://velna.org/later] "
                                       "metadata_value[x] metadataValueSize[1]")));
    const std::string line = std::string("app[org.velna.test.app] has ") +
                             (c.registered ? "" : "not ") + "registered for Action[" + c.id + "]";
    EXPECT_TRUE(log.has(LogI("talvo_proxy_is_action_registered", line))) << log.dump();
  }
  EXPECT_FALSE(talvo_proxy_is_action_registered("org.velna.test.absent", "alpha"));
  EXPECT_TRUE(
      log.has(LogE("talvo_proxy_is_action_registered", "app_info_create failed ERROR[-2]")));
}

}  // namespace
