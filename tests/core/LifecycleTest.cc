// Start-up, shut-down and the refusals of the exported functions.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "BusFixture.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "ResultRecorder.h"
#include "TempEnv.h"
#include "TestBundle.h"
#include "talvo_proxy.h"

namespace {

constexpr const char kSelf[] = "org.velna.test.client";
constexpr int kRefused = -1073741825;

class LifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("VELNA_APP_ID", kSelf, 1); }

  testsupport::TempEnv env;
  testsupport::BusFixture bus;
  testsupport::LogCapture log;
};

TEST_F(LifecycleTest, InitializeTwiceChangesNothingTheSecondTime) {
  EXPECT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_EQ(talvo_proxy_initialize(), 0);

  EXPECT_EQ(log.count("TalvoProxy is initialized"), 1);
  EXPECT_EQ(log.count("TalvoProxy has been already initialized"), 1);
  EXPECT_EQ(log.count("dbusOwnId : "), 1);
}

TEST_F(LifecycleTest, EverythingIsRefusedBeforeInitialization) {
  ResultRecorder recorder;
  BundlePtr data(bundle_create());

  EXPECT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_TRUE(log.has("TalvoProxy is not initialized. Please initialize it first."));
  EXPECT_FALSE(log.has("TalvoProxyActionRequest"));

  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), ResultRecorder::Callback,
                                             &recorder),
            kRefused);
  EXPECT_EQ(talvo_proxy_app_state_request(kSelf, data.get(), ResultRecorder::Callback, &recorder),
            kRefused);
  EXPECT_EQ(talvo_proxy_get_focused_app_id(), nullptr);
  EXPECT_EQ(log.count("Talvo Proxy is not initialized"), 3);
  EXPECT_EQ(bundle_get_count(data.get()), 0);

  // A null app id is refused first, whatever the state.
  EXPECT_EQ(talvo_proxy_app_action_execution(nullptr, nullptr, nullptr, nullptr), -22);
  EXPECT_EQ(talvo_proxy_app_state_request(nullptr, nullptr, nullptr, nullptr), -22);
  EXPECT_EQ(log.count("app_id is null"), 2);
  EXPECT_EQ(log.count("Talvo Proxy is not initialized"), 3);

  testsupport::RunLoopFor(50);
  EXPECT_EQ(recorder.calls, 0);
}

TEST_F(LifecycleTest, ComponentsStartAndStopInTheirFixedOrders) {
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  int action = log.find("TalvoProxyActionRequest is initialized");
  int state = log.find("TalvoProxyStateRequest is initialized");
  int common = log.find("TalvoProxyCommonData is initialized");
  int proxy = log.find("TalvoProxy is initialized");
  ASSERT_GE(action, 0) << log.dump();
  EXPECT_LT(action, state);
  EXPECT_LT(state, common);
  EXPECT_LT(common, proxy);

  log.clear();
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  action = log.find("TalvoProxyActionRequest is deinitialized");
  state = log.find("TalvoProxyStateRequest is deinitialized");
  proxy = log.find("TalvoProxy is deinitialized");
  ASSERT_GE(action, 0) << log.dump();
  EXPECT_LT(action, state);
  EXPECT_LT(state, proxy);
}

TEST_F(LifecycleTest, ReinitializationRunsTheWholeStartUpAgain) {
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, nullptr, nullptr, nullptr), kRefused);

  log.clear();
  EXPECT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_TRUE(log.has("TalvoProxy is initialized"));
  EXPECT_TRUE(log.has("TalvoProxyActionRequest is initialized"));
  EXPECT_TRUE(log.has("TalvoProxyStateRequest is initialized"));
  EXPECT_TRUE(log.has("dbusOwnId : "));
  EXPECT_FALSE(log.has("already initialized"));

  // A new ownership request is made; its acquisition hands over a connection again.
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000));
}

}  // namespace
