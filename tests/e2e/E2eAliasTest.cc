// Alias apps: actions wait until the app's window has the focus.
#include <stdlib.h>
#include <talvo_proxy.h>
#include <unistd.h>

#include "E2eFixture.h"
#include "LoopUntil.h"

namespace e2e {
namespace {

char kConnect[] = "connect";
char kAction[] = "action";

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

TEST_F(E2eAlias, FocusWaitRunsOutAfterThirtyOneSeconds) {
  setenv("TALVO_SAMPLE_NO_FOCUS", "1", 1);
  env->installSample(kAliasApp);
  wm->addWindow(getpid(), true);  // this process's window keeps the focus

  BundlePtr action = MakeBundle({{"actionId", "openGallery"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kAliasApp, action.get(), onAction, kAction));
  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return log.has("fail to connect after focused, cnt(61).."); }, 40000))
      << log.dump();
  EXPECT_EQ(62, log.count("_appFocusedMonitoringCb(): _appFocusedMonitoringCb"));
  testsupport::RunLoopFor(300);
  EXPECT_TRUE(calls.empty());
}

}  // namespace
}  // namespace e2e
