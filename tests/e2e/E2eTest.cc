// A client process using the library through its exported functions, with a private bus,
// the window-manager simulator and the sample apps as real processes.
#include <glib.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <talvo_proxy.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"

namespace {

using namespace testsupport;

// Every result callback's call in order, and its time; label: the kind and the user data.
std::vector<Answer> calls;
std::vector<gint64> callTimes;

void Record(const std::string &kind, const char *appId, bundle *result, void *label) {
  calls.push_back(CopyAnswer(appId, result, kind + static_cast<char *>(label)));
  callTimes.push_back(g_get_monotonic_time());
}
void OnAction(const char *appId, bundle *result, void *label) {
  Record("action:", appId, result, label);
}
void OnState(const char *appId, bundle *result, void *label) {
  Record("state:", appId, result, label);
}

char kFirst[] = "first", kSecond[] = "second", kThird[] = "third", kFourth[] = "fourth";

std::string S(const char *text) { return text; }

class E2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", "org.velna.test.client", 1);
    wm = std::make_unique<WmSim>(bus);
    ASSERT_EQ(0, velna_main_loop_init());
    ASSERT_EQ(0, talvo_proxy_initialize());
  }
  void TearDown() override { talvo_proxy_deinitialize(); }

  bool waitForCalls(size_t n, int timeoutMs = 8000) {
    return RunLoopUntil([&] { return calls.size() >= n; }, timeoutMs);
  }

  BusFixture bus;
  std::unique_ptr<WmSim> wm;
  TempEnv env;
  LogCapture log;
};

// The first action launches the app, which has no client yet when it takes the focus: the
// action is dropped. A state request takes no alias path and connects the app; from then on
// an action is sent once the app has the focus.
TEST_F(E2eTest, AliasAppsActionIsDroppedAtFocusWithoutAClientAndServedWithOne) {
  env.installSample(kAliasApp);
  wm->addWindow(getpid(), true);  // the focus is this process's until the app starts
  BundlePtr action = MakeBundle({{"actionId", "openGallery"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, action.get(), OnAction, kFirst));
  EXPECT_TRUE(log.has(LogD("sendData", "Alias app is existed, appid:" + S(kAliasApp))));
  ASSERT_TRUE(RunLoopUntil(
      [&] { return log.has(LogE("_appFocusedMonitoringCb", "ClientsInfo is null")); }, 8000))
      << log.dump();
  RunLoopFor(500);
  EXPECT_TRUE(calls.empty());
  EXPECT_FALSE(log.has("is focused successfully"));

  BundlePtr state = MakeBundle({});
  ASSERT_EQ(0, talvo_proxy_app_state_request(kAliasApp, state.get(), OnState, kSecond));
  ASSERT_TRUE(waitForCalls(1)) << log.dump();
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, action.get(), OnAction, kThird));
  ASSERT_TRUE(waitForCalls(2, 5000)) << log.dump();
  EXPECT_EQ("action:third", calls[1].label);
  EXPECT_EQ("{\"actionId\":\"openGallery\",\"done\":true}", calls[1].str("result"));
  EXPECT_TRUE(log.has(LogD("_appFocusedMonitoringCb",
                           S(kAliasApp) + " is focused successfully.. Send data to app")));
}

// The slow waits share one test: both launch waits answer the library's failure at about
// 10 s while the focus wait goes on to 31 s and drops its request. A second request to the
// message-port app replaces the waiting one and keeps its poll count: the wait still ends
// 102 polls of 0.1 s after the first request.
TEST_F(E2eTest, FocusWaitRunsOutWhileLaunchWaitsOfBothMechanismsAnswerFailure) {
  // Every sample app starts but never becomes reachable or takes the focus.
  setenv("TALVO_SAMPLE_NO_FOCUS", "1", 1);
  setenv("TALVO_SAMPLE_NO_PORT", "1", 1);
  setenv("TALVO_SAMPLE_NO_LISTEN", "1", 1);
  env.installSample(kAliasApp);
  env.installSample(kRpcApp);
  env.installSample(kPortApp);
  wm->addWindow(getpid(), true);  // this process's window keeps the focus

  // The message-port request goes last: the ticks of all waits read the mechanism of the
  // latest send, and a message-port tick under the rpc-port mechanism would find no client
  // and drop its request.
  BundlePtr alias = MakeBundle({{"actionId", "openGallery"}});
  BundlePtr rpc = MakeBundle({{"actionId", "setAlarm"}});
  BundlePtr port = MakeBundle({{"actionId", "playMusic"}});
  gint64 start = g_get_monotonic_time();
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, alias.get(), OnAction, kFirst));
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kRpcApp, rpc.get(), OnAction, kSecond));
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kPortApp, port.get(), OnAction, kThird));
  const LogRecord tick = LogI("_appLaunchMonitoringCb", "_appLaunchMonitoringCb");
  ASSERT_TRUE(RunLoopUntil([&] { return log.count(tick) >= 30; }, 8000)) << log.dump();
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kPortApp, port.get(), OnAction, kFourth));

  ASSERT_TRUE(waitForCalls(2, 20000)) << log.dump();
  for (size_t i = 0; i < calls.size(); ++i) {
    const Answer &call = calls[i];
    EXPECT_EQ(call.appId == kRpcApp ? "action:second" : "action:fourth", call.label);
    EXPECT_EQ("{\"result\":\"Failure\"}", call.str("result"));
    EXPECT_EQ(1u, call.strings.size());
    const gint64 ms = (callTimes[i] - start) / 1000;
    EXPECT_GE(ms, 9500) << call.appId;
    EXPECT_LE(ms, 14000) << call.appId;
  }
  // The rpc-port wait ticks once at 10 s, the message-port wait 102 times at 0.1 s, so
  // both end together (a loaded loop delays both alike).
  EXPECT_EQ(103, log.count(tick));
  EXPECT_LE(std::llabs(callTimes[1] - callTimes[0]) / 1000, 1500);

  const LogRecord focusGiveUp =
      LogD("_appFocusedMonitoringCb", S(kAliasApp) + " fail to connect after focused, cnt(61)..");
  ASSERT_TRUE(RunLoopUntil([&] { return log.has(focusGiveUp); }, 30000)) << log.dump();
  EXPECT_GE((g_get_monotonic_time() - start) / 1000, 30500);
  EXPECT_EQ(62, log.count(LogI("_appFocusedMonitoringCb", "_appFocusedMonitoringCb")));
  RunLoopFor(300);
  EXPECT_EQ(2u, calls.size());
}

}  // namespace
