// Action executions and app-state requests through the exported functions, answered by
// the sample apps running as real processes.
#include <talvo_proxy.h>

#include "E2eFixture.h"
#include "LoopUntil.h"

namespace e2e {
namespace {

using testsupport::RunLoopFor;

char kFirst[] = "first";
char kSecond[] = "second";
char kThird[] = "third";

class E2eMessagePort : public E2eFixture {};
class E2eRpcPort : public E2eFixture {};

// (A running app is sent to at once: the state requests of E2eState take that path.)
TEST_F(E2eMessagePort, AppThatDoesNotRunIsLaunchedAndAnswers) {
  env->installSample(kPortApp);

  BundlePtr request = MakeBundle({{"actionId", "playMusic"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kPortApp, request.get(), onAction, kFirst));
  EXPECT_TRUE(log.has(std::string("Sent app launch request for app:") + kPortApp));
  ASSERT_TRUE(waitForCalls(1, 8000)) << log.dump();

  EXPECT_EQ(kPortApp, calls[0].appId);
  EXPECT_EQ("action:first", calls[0].label);
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", calls[0].str("status_code"));
  EXPECT_EQ("{\"actionId\":\"playMusic\",\"done\":true}", calls[0].str("result"));
}

TEST_F(E2eRpcPort, EachAnswerReachesItsOwnCallbackWithItsUserData) {
  env->installSample(kRpcApp);
  BundlePtr connect = MakeBundle({{"actionId", "warmUp"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kRpcApp, connect.get(), onAction, kFirst));
  ASSERT_TRUE(waitForCalls(1, 8000)) << log.dump();

  // An action answered late and a state request answered at once, pending together.
  BundlePtr action = MakeBundle({{"actionId", "setAlarm"}, {"sample_delay_ms", "300"}});
  BundlePtr state = MakeBundle({});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kRpcApp, action.get(), onAction, kSecond));
  ASSERT_EQ(0, talvo_proxy_app_state_request(kRpcApp, state.get(), onState, kThird));
  ASSERT_TRUE(waitForCalls(3, 5000)) << log.dump();

  EXPECT_EQ("action:first", calls[0].label);
  EXPECT_EQ("state:third", calls[1].label);
  EXPECT_EQ(kRpcApp, calls[1].appId);
  // Routed by "appContext" and rewritten into the envelope.
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.rpccompanion\",\"appVersion\":\"1.1.0\","
      "\"capsuleId\":\"sample.capsule\",\"contextBlob\":"
      "\"{\\\"concepts\\\":[{\\\"type\\\":\\\"screen\\\",\\\"value\\\":\\\"home\\\"}],"
      "\\\"capsuleId\\\":\\\"sample.capsule\\\"}\"}",
      calls[1].str("appContext"));
  EXPECT_EQ("action:second", calls[2].label);
  EXPECT_EQ("{\"actionId\":\"setAlarm\",\"done\":true}", calls[2].str("result"));
}

TEST_F(E2eRpcPort, CallbackMayStartANewRequestForTheSameApp) {
  env->installSample(kRpcApp);
  static BundlePtr next;
  next = MakeBundle({{"actionId", "next"}});
  auto chain = [](const char *appId, bundle *result, void *userData) {
    onAction(appId, result, userData);
    EXPECT_EQ(0, talvo_proxy_app_action_execution(appId, next.get(), onAction, kSecond));
  };

  BundlePtr request = MakeBundle({{"actionId", "first"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kRpcApp, request.get(), chain, kFirst));
  ASSERT_TRUE(waitForCalls(2, 8000)) << log.dump();
  RunLoopFor(300);

  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ("action:first", calls[0].label);
  EXPECT_EQ("action:second", calls[1].label);
  EXPECT_EQ("{\"actionId\":\"next\",\"done\":true}", calls[1].str("result"));
  next.reset();
}

}  // namespace
}  // namespace e2e
