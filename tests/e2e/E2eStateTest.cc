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
  Call ask(const std::vector<std::pair<std::string, std::string>> &extra) {
    BundlePtr request = MakeBundle(extra);
    size_t before = calls.size();
    EXPECT_EQ(0, talvo_proxy_app_state_request(kPortApp, request.get(), onState, kLabel));
    EXPECT_TRUE(waitForCalls(before + 1, 5000)) << log.dump();
    return calls.size() > before ? calls[before] : Call{};
  }
};

TEST_F(E2eState, AppThatDoesNotRunIsRefusedAndTheRequestIsLeftAlone) {
  installPortApp();
  installRpcApp();
  for (const char *app : {kPortApp, kRpcApp}) {
    BundlePtr request = MakeBundle({{"query", "x"}});
    EXPECT_EQ(-1073741825, talvo_proxy_app_state_request(app, request.get(), onState, kLabel));
    EXPECT_EQ(1, bundle_get_count(request.get()));
  }
  EXPECT_FALSE(log.has("launch app"));
  testsupport::RunLoopFor(200);
  EXPECT_TRUE(calls.empty());
}

TEST_F(E2eState, ContextIsWrappedInTheEnvelope) {
  installPortApp();
  startApp(kPortApp, true);

  // With "concepts": four members, the app's text carried whole.
  Call call = ask({{"sample_context", "{\"concepts\":[1],\"capsuleId\":\"own\"}"}});
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", call.str("status_code"));
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.portcompanion\",\"appVersion\":\"1.0.0\","
      "\"capsuleId\":\"own\",\"contextBlob\":\"{\\\"concepts\\\":[1],\\\"capsuleId\\\":"
      "\\\"own\\\"}\"}",
      call.str("appContext"));

  // A numeric capsule id keeps its type.
  call = ask({{"sample_context", "{\"concepts\":[],\"capsuleId\":42}"}});
  EXPECT_NE(std::string::npos, call.str("appContext").find("\"capsuleId\":42,")) << call.str("appContext");

  // Without "concepts" and another status: three members from the metadata.
  call = ask({{"sample_context", "{\"screen\":1}"}, {"sample_status", "ACTION_EXECUTION_BUSY"}});
  EXPECT_EQ("ACTION_EXECUTION_BUSY", call.str("status_code"));
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.portcompanion\",\"appVersion\":\"1.0.0\","
      "\"capsuleId\":\"sample.port.capsule\"}",
      call.str("appContext"));

  // Not JSON, with another status: the same three members.
  call = ask({{"sample_context", "not json"}, {"sample_status", "ACTION_EXECUTION_BUSY"}});
  EXPECT_EQ(
      "{\"appId\":\"org.velna.sample.portcompanion\",\"appVersion\":\"1.0.0\","
      "\"capsuleId\":\"sample.port.capsule\"}",
      call.str("appContext"));

  // Success without "concepts": the failure answer.
  call = ask({{"sample_context", "{\"screen\":1}"}});
  EXPECT_EQ("ACTION_EXECUTION_FAILURE", call.str("status_code"));
  EXPECT_EQ("Json failure because of missing parameter", call.str("status_msg"));
  EXPECT_EQ("", call.str("appContext"));
}

TEST_F(E2eState, CallersOwnActionIdIsKept) {
  installPortApp();
  startApp(kPortApp, true);

  BundlePtr request = MakeBundle({{"actionId", "myContext"}, {"sample_echo", "1"}});
  ASSERT_EQ(0, talvo_proxy_app_state_request(kPortApp, request.get(), onState, kLabel));
  char *value = nullptr;
  ASSERT_EQ(0, bundle_get_str(request.get(), "actionId", &value));
  EXPECT_STREQ("myContext", value);
  ASSERT_EQ(0, bundle_get_str(request.get(), "type", &value));
  EXPECT_STREQ("PunchIn", value);

  ASSERT_TRUE(waitForCalls(1, 5000)) << log.dump();
  EXPECT_NE(std::string::npos, calls[0].str("echo").find("actionId:str:myContext\n"));
}

// An app that runs without a manifest has no metadata: its state request is refused with
// -12 but stays recorded, and an answer from it reaches nobody.
TEST_F(E2eState, AnswerWhileTheAppHasNoMetadataRecordIsNotDelivered) {
  const char unlisted[] = "org.velna.test.unlisted";
  gchar **envp = g_get_environ();
  envp = g_environ_setenv(envp, "VELNA_APP_ID", unlisted, TRUE);
  gchar *argv[] = {const_cast<gchar *>(PORT_COMPANION_EXEC), nullptr};
  ASSERT_TRUE(g_spawn_async(nullptr, argv, envp, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr,
                            nullptr));
  g_strfreev(envp);
  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] {
        bool exist = false;
        message_port_check_remote_port(unlisted, "TALVO_APP_SDK_PORT_516", &exist);
        return exist;
      },
      10000));

  BundlePtr request = MakeBundle({});
  EXPECT_EQ(-12, talvo_proxy_app_state_request(unlisted, request.get(), onState, kLabel));

  // The app answers whoever asks it; here the test asks it directly.
  BundlePtr direct = MakeBundle({{"actionId", "getAppContext"}});
  ASSERT_EQ(0, message_port_send_message(unlisted, "TALVO_APP_SDK_PORT_516", direct.get()));
  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return log.has("Request Execution Result Recieved from org.velna.test.unlisted"); },
      5000));
  testsupport::RunLoopFor(200);
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(log.has("MetaDataInfo is null"));
  app_manager_terminate_app(unlisted);
}

}  // namespace
}  // namespace e2e
