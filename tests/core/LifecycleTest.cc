// Start-up, shut-down and the refusals of the exported functions.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "talvo_proxy.h"

namespace {

using namespace testsupport;

constexpr const char kSelf[] = "org.velna.test.client";
constexpr int kRefused = -1073741825;

class LifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("VELNA_APP_ID", kSelf, 1); }

  testsupport::TempEnv env;
  testsupport::BusFixture bus;
  testsupport::LogCapture log;
};

TEST_F(LifecycleTest, EverythingIsRefusedBeforeInitialization) {
  Recorder recorder;
  BundlePtr data(bundle_create());

  EXPECT_EQ(talvo_proxy_deinitialize(), 0);
  EXPECT_TRUE(log.has("TalvoProxy is not initialized. Please initialize it first."));
  EXPECT_FALSE(log.has("TalvoProxyActionRequest"));

  EXPECT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), Recorder::Callback,
                                             &recorder),
            kRefused);
  EXPECT_EQ(talvo_proxy_app_state_request(kSelf, data.get(), Recorder::Callback, &recorder),
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
  EXPECT_EQ(recorder.calls(), 0);
}

TEST_F(LifecycleTest, SecondInitializeChangesNothingAndReinitializationStartsAllAgain) {
  ASSERT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_EQ(talvo_proxy_initialize(), 0);
  EXPECT_EQ(log.count("TalvoProxy is initialized"), 1);
  EXPECT_EQ(log.count("TalvoProxy has been already initialized"), 1);
  EXPECT_EQ(log.count("dbusOwnId : "), 1);

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
