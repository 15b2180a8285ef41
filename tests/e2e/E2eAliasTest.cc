// Alias apps: actions wait until the app's window has the focus.
#include <glib.h>
#include <stdlib.h>
#include <talvo_proxy.h>
#include <unistd.h>

#include "E2eFixture.h"
#include "LoopUntil.h"

namespace e2e {
namespace {

char kConnect[] = "connect";
char kAction[] = "action";
char kPort[] = "port";
char kRpc[] = "rpc";

class E2eAlias : public E2eFixture {};

TEST_F(E2eAlias, AppWithAClientIsServedOnceItHasTheFocus) {
  env->installSample(kAliasApp);
  ASSERT_TRUE(env->launch(kAliasApp));

  // A state request takes no alias path: it connects the app.
  BundlePtr state = MakeBundle({});
  ASSERT_EQ(0, talvo_proxy_app_state_request(kAliasApp, state.get(), onState, kConnect));
  ASSERT_TRUE(waitForCalls(1, 8000)) << log.dump();

  BundlePtr action = MakeBundle({{"actionId", "openGallery"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, action.get(), onAction, kAction));
  ASSERT_TRUE(waitForCalls(2, 5000)) << log.dump();
  EXPECT_EQ("action:action", calls[1].label);
  EXPECT_EQ("{\"actionId\":\"openGallery\",\"done\":true}", calls[1].str("result"));
  EXPECT_TRUE(log.has("is focused successfully.. Send data to app"));
}

TEST_F(E2eAlias, FirstActionWithoutAClientIsDroppedAtFocus) {
  env->installSample(kAliasApp);
  // This process's window has the focus until the app takes it when it starts.
  wm->addWindow(getpid(), true);
  BundlePtr action = MakeBundle({{"actionId", "openGallery"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, action.get(), onAction, kAction));
  EXPECT_TRUE(log.has("Alias app is existed, appid:org.velna.sample.aliascompanion"));

  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return log.has("_appFocusedMonitoringCb(): ClientsInfo is null"); },
      8000))
      << log.dump();
  testsupport::RunLoopFor(500);
  EXPECT_TRUE(calls.empty());
  EXPECT_FALSE(log.has("is focused successfully"));
}

// The slow waits share one test: both launch waits answer the library's failure at about
// 10 s while the focus wait goes on to 31 s and drops its request.
TEST_F(E2eAlias, FocusWaitRunsOutWhileLaunchWaitsOfBothMechanismsAnswerFailure) {
  // Every sample app starts but never becomes reachable or takes the focus.
  setenv("TALVO_SAMPLE_NO_FOCUS", "1", 1);
  setenv("TALVO_SAMPLE_NO_PORT", "1", 1);
  setenv("TALVO_SAMPLE_NO_LISTEN", "1", 1);
  env->installSample(kAliasApp);
  env->installSample(kRpcApp);
  env->installSample(kPortApp);
  wm->addWindow(getpid(), true);  // this process's window keeps the focus

  // The message-port request goes last: the ticks of all waits read the mechanism of the
  // latest send, and a message-port tick under the rpc-port mechanism would find no client
  // and drop its request.
  BundlePtr alias = MakeBundle({{"actionId", "openGallery"}});
  BundlePtr rpc = MakeBundle({{"actionId", "setAlarm"}});
  BundlePtr port = MakeBundle({{"actionId", "playMusic"}});
  gint64 start = g_get_monotonic_time();
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, alias.get(), onAction, kAction));
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kRpcApp, rpc.get(), onAction, kRpc));
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kPortApp, port.get(), onAction, kPort));

  ASSERT_TRUE(waitForCalls(2, 20000)) << log.dump();
  EXPECT_GE((g_get_monotonic_time() - start) / 1000, 9500);
  for (const auto &call : calls) {
    EXPECT_EQ("action:" + std::string(call.appId == kRpcApp ? kRpc : kPort), call.label);
    EXPECT_EQ("{\"result\":\"Failure\"}", call.str("result"));
  }
  // The rpc-port client went with its wait; the message-port app never had one.
  EXPECT_TRUE(log.has("Remove clientMap size(0)"));

  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return log.has("fail to connect after focused, cnt(61).."); }, 30000))
      << log.dump();
  EXPECT_GE((g_get_monotonic_time() - start) / 1000, 30500);
  EXPECT_EQ(62, log.count("_appFocusedMonitoringCb(): _appFocusedMonitoringCb"));
  testsupport::RunLoopFor(300);
  EXPECT_EQ(2u, calls.size());
}

}  // namespace
}  // namespace e2e
