// Answers reach the request that they answer. The test process is also the companion
// app: it owns the library's message port under its own app id, so an answer sent to
// that port comes back in as the app's answer.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "core/TalvoProxy.h"
#include "talvo_proxy.h"

namespace {

using namespace testsupport;

constexpr const char kSelf[] = "org.velna.test.client";

// This process's own metadata, with an SDK version that selects the message port.
BundlePtr SelfRequest() { return RequestWithMetadata("1.0.0", "cap.self", "1.0-alpha"); }

class RoutingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kSelf, 1);
    ASSERT_EQ(talvo_proxy_initialize(), 0);
    testsupport::RunLoopFor(10);
  }

  // Hands an answer to the result handler as the IPC component does.
  void Deliver(const std::vector<std::pair<std::string, std::string>> &entries) {
    BundlePtr answer = MakeBundle(entries);
    TalvoProxy::_processResult(kSelf, answer.get(), TalvoProxy::getInstance());
  }

  testsupport::TempEnv env;
  testsupport::BusFixture bus;
  testsupport::LogCapture log;
  Recorder action, state;
};

TEST_F(RoutingTest, EachAnswerReachesTheRequestKindItAnswers) {
  BundlePtr actionData = SelfRequest();
  BundlePtr stateData = SelfRequest();
  ASSERT_EQ(talvo_proxy_app_action_execution(kSelf, actionData.get(), Recorder::Callback,
                                             &action),
            0);
  ASSERT_EQ(talvo_proxy_app_state_request(kSelf, stateData.get(), Recorder::Callback,
                                          &state),
            0);

  // "appContext" wins over "result".
  Deliver({{"status_code", "X"}, {"appContext", "{}"}, {"result", "r"}});
  EXPECT_EQ(action.calls(), 0);
  ASSERT_EQ(state.calls(), 1);
  EXPECT_EQ(state.last().str("appContext"),
            "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"1.0.0\","
            "\"capsuleId\":\"cap.self\"}");

  Deliver({{"status_code", "ACTION_EXECUTION_SUCCESS"}, {"result", "done"}});
  ASSERT_EQ(action.calls(), 1);
  EXPECT_EQ(action.last().str("result"), "done");
  EXPECT_EQ(state.calls(), 1);
}

TEST_F(RoutingTest, DeinitializeDropsPendingRequests) {
  BundlePtr data = SelfRequest();
  ASSERT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), Recorder::Callback,
                                             &action),
            0);
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  ASSERT_EQ(talvo_proxy_initialize(), 0);

  Deliver({{"result", "late"}});
  EXPECT_EQ(action.calls(), 0);
  EXPECT_TRUE(log.has("No action execute callback registered by talvo client for app:"));
}

}  // namespace
