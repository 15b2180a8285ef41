// App-state requests: refusal for apps that do not run, and the rewriting of the app's
// context into the envelope the client receives.
#include <app_manager.h>
#include <glib.h>
#include <message_port.h>
#include <talvo_proxy.h>

#include "E2eFixture.h"
#include "LoopUntil.h"

namespace e2e {
namespace {

char kLabel[] = "ctx";

class E2eState : public E2eFixture {
 protected:
  // One state request to the running message-port app; the app reports context and
  // status as the extra entries ask.
  testsupport::Answer ask(const std::vector<std::pair<std::string, std::string>> &extra) {
    BundlePtr request = MakeBundle(extra);
    size_t before = calls.size();
    EXPECT_EQ(0, talvo_proxy_app_state_request(kPortApp, request.get(), onState, kLabel));
    EXPECT_TRUE(waitForCalls(before + 1, 5000)) << log.dump();
    return calls.size() > before ? calls[before] : testsupport::Answer{};
  }
};

TEST_F(E2eState, AppThatDoesNotRunIsRefusedAndTheRequestIsLeftAlone) {
  // Refused before the mechanism matters, so one installed app stands for both.
  env->installSample(kRpcApp);
  BundlePtr request = MakeBundle({{"query", "x"}});
  EXPECT_EQ(-1073741825, talvo_proxy_app_state_request(kRpcApp, request.get(), onState, kLabel));
  EXPECT_EQ(1, bundle_get_count(request.get()));
  EXPECT_FALSE(log.has("launch app"));
  testsupport::RunLoopFor(200);
  EXPECT_TRUE(calls.empty());
}

TEST_F(E2eState, ContextIsWrappedInTheEnvelope) {
  env->installSample(kPortApp);
  ASSERT_TRUE(env->launch(kPortApp, "TALVO_APP_SDK_PORT_516"));

  // With "concepts": four members, the app's text carried whole.
  testsupport::Answer call = ask({{"sample_context", "{\"concepts\":[1],\"capsuleId\":\"own\"}"}});
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", call.str("status_code"));
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.portcompanion\",\"appVersion\":\"1.0.0\","
      "\"capsuleId\":\"own\",\"contextBlob\":\"{\\\"concepts\\\":[1],\\\"capsuleId\\\":"
      "\\\"own\\\"}\"}",
      call.str("appContext"));

  // Without "concepts" and another status: three members from the metadata.
  call = ask({{"sample_context", "{\"screen\":1}"}, {"sample_status", "ACTION_EXECUTION_BUSY"}});
  EXPECT_EQ("ACTION_EXECUTION_BUSY", call.str("status_code"));
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.portcompanion\",\"appVersion\":\"1.0.0\","
      "\"capsuleId\":\"sample.port.capsule\"}",
      call.str("appContext"));
}

}  // namespace
}  // namespace e2e
