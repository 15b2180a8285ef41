// Answers reach the request that they answer. The test process is also the companion
// app: it owns the library's message port under its own app id, so an answer sent to
// that port comes back in as the app's answer.
#include <app_manager.h>
#include <gtest/gtest.h>
#include <message_port.h>
#include <stdlib.h>

#include "BusFixture.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "ResultRecorder.h"
#include "TempEnv.h"
#include "TestBundle.h"
#include "core/TalvoProxy.h"
#include "talvo_proxy.h"

namespace {

constexpr const char kSelf[] = "org.velna.test.client";
constexpr const char kPort[] = "TALVO_APP_SDK_PORT_516";

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
  void Deliver(std::initializer_list<std::pair<const char *, std::string>> entries) {
    BundlePtr answer = MakeBundle(entries);
    TalvoProxy::_processResult(kSelf, answer.get(), TalvoProxy::getInstance());
  }

  testsupport::TempEnv env;
  testsupport::BusFixture bus;
  testsupport::LogCapture log;
  ResultRecorder action, state;
};

TEST_F(RoutingTest, EachAnswerReachesTheRequestKindItAnswers) {
  BundlePtr actionData = SelfRequest();
  BundlePtr stateData = SelfRequest();
  ASSERT_EQ(talvo_proxy_app_action_execution(kSelf, actionData.get(), ResultRecorder::Callback,
                                             &action),
            0);
  ASSERT_EQ(talvo_proxy_app_state_request(kSelf, stateData.get(), ResultRecorder::Callback,
                                          &state),
            0);

  // "appContext" wins over "result".
  Deliver({{"status_code", "X"}, {"appContext", "{}"}, {"result", "r"}});
  EXPECT_EQ(action.calls, 0);
  ASSERT_EQ(state.calls, 1);
  EXPECT_EQ(state.at("appContext"),
            "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"1.0.0\","
            "\"capsuleId\":\"cap.self\"}");

  Deliver({{"status_code", "ACTION_EXECUTION_SUCCESS"}, {"result", "done"}});
  ASSERT_EQ(action.calls, 1);
  EXPECT_EQ(action.at("result"), "done");
  EXPECT_EQ(state.calls, 1);
}

TEST_F(RoutingTest, AnAnswerOnTheMessagePortReachesTheActionCallback) {
  BundlePtr data = SelfRequest();
  bundle_add_str(data.get(), "actionId", "ping");
  ASSERT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), ResultRecorder::Callback,
                                             &action),
            0);

  BundlePtr answer =
      MakeBundle({{"status_code", "ACTION_EXECUTION_SUCCESS"}, {"result", "{\"pong\":1}"}});
  ASSERT_EQ(message_port_send_message(kSelf, kPort, answer.get()), 0);

  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return action.calls > 0; }, 10000))
      << log.dump();
  EXPECT_EQ(action.appId, kSelf);
  EXPECT_EQ(action.at("result"), "{\"pong\":1}");
  testsupport::RunLoopFor(50);
  EXPECT_EQ(action.calls, 1);
}

TEST_F(RoutingTest, DeinitializeDropsPendingRequests) {
  BundlePtr data = SelfRequest();
  ASSERT_EQ(talvo_proxy_app_action_execution(kSelf, data.get(), ResultRecorder::Callback,
                                             &action),
            0);
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  ASSERT_EQ(talvo_proxy_initialize(), 0);

  Deliver({{"result", "late"}});
  EXPECT_EQ(action.calls, 0);
  EXPECT_TRUE(log.has("No action execute callback registered by talvo client for app:"));
}

}  // namespace
