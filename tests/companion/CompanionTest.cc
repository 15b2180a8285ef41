// The companion SDK seen from both sides: a client process using the library's exported
// functions against the test app in its SDK mode over each mechanism.
#include <glib.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <string>
#include <vector>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"

namespace {

using namespace testsupport;

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kApp[] = "org.velna.test.sdkapp";
const std::string kKey = "http://velna.org/velna/metadata/talvo/";

std::vector<Answer> calls;

// Each answer with its request's user data as the label, a string or none.
void OnAnswer(const char *appId, bundle *result, void *label) {
  calls.push_back(CopyAnswer(appId, result, label ? static_cast<char *>(label) : ""));
}
char kState[] = "state", kLate[] = "late";
BundlePtr lateRequest;  // sent from inside the first answer's callback

// The SDK test app installed with the SDK version that selects the mechanism under test.
class SdkAgainstLibrary : public ::testing::TestWithParam<bool /* rpc-port */> {
 protected:
  void SetUp() override {
    calls.clear();
    setenv("VELNA_APP_ID", kClientId, 1);
    setenv("SDK_TEST_REPORT", (env.root() + "/report").c_str(), 1);
    env.install({kApp, kApp, "", std::string(TEST_APP) + " sdk", "",
                 {{kKey + "companion-app/version", "3.0"},
                  {kKey + "companion-app/capsule-id", "sdk.capsule"},
                  {kKey + "sdk/version", GetParam() ? "1.1.0" : "1.0-alpha"}}});
    ASSERT_EQ(0, velna_main_loop_init());
    ASSERT_EQ(0, talvo_proxy_initialize());
  }
  void TearDown() override { talvo_proxy_deinitialize(); }

  Answer request(bool state, const std::vector<std::pair<std::string, std::string>> &entries) {
    BundlePtr b = MakeBundle(entries);
    size_t before = calls.size();
    int r = state ? talvo_proxy_app_state_request(kApp, b.get(), OnAnswer, nullptr)
                  : talvo_proxy_app_action_execution(kApp, b.get(), OnAnswer, nullptr);
    EXPECT_EQ(0, r);
    EXPECT_TRUE(RunLoopUntil([&] { return calls.size() > before; }, 9000)) << log.dump();
    return calls.size() > before ? calls[before] : Answer{};
  }

  BusFixture bus;
  TempEnv env;
  LogCapture log;
};

// An answer sent from a timer after the handler returned; a context asked meanwhile
// reaches its own callback first.
TEST_P(SdkAgainstLibrary, AnswersFollowTheRulesReachTheirOwnCallbacksAndMayComeLate) {
  lateRequest = MakeBundle({{"actionId", "second"}, {"delay_ms", "300"}});
  auto chain = [](const char *appId, bundle *result, void *) {
    OnAnswer(appId, result, nullptr);
    EXPECT_EQ(0, talvo_proxy_app_action_execution(appId, lateRequest.get(), OnAnswer, kLate));
  };
  BundlePtr action = MakeBundle({{"actionId", "first"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kApp, action.get(), chain, nullptr));
  ASSERT_TRUE(RunLoopUntil([&] { return calls.size() == 1; }, 9000)) << log.dump();
  BundlePtr context = MakeBundle({});
  ASSERT_EQ(0, talvo_proxy_app_state_request(kApp, context.get(), OnAnswer, kState));
  ASSERT_TRUE(RunLoopUntil([&] { return calls.size() == 3; }, 9000)) << log.dump();
  RunLoopFor(300);
  ASSERT_EQ(3u, calls.size());
  lateRequest.reset();

  const Answer &first = calls[0], &state = calls[1], &late = calls[2];
  EXPECT_EQ(kApp, first.appId);
  EXPECT_EQ("done:first", first.str("result"));
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", first.str("status_code"));
  EXPECT_EQ("-22", first.str("wrong_kind"));  // a context cannot answer an action
  EXPECT_EQ("-22", first.str("reserved"));    // nor can the app write protocol keys
  EXPECT_FALSE(first.has("stale"));
  // The first answer's handle is spent.
  EXPECT_EQ("late", late.label);
  EXPECT_EQ("done:second", late.str("result"));
  EXPECT_EQ("-114", late.str("stale"));

  // Contexts the client could not use are refused; the third goes out in the envelope.
  EXPECT_EQ("state", state.label);
  EXPECT_EQ("-22", state.str("not_object"));
  EXPECT_EQ("-22", state.str("no_concepts"));
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", state.str("status_code"));
  EXPECT_EQ(R"({"appId":"org.velna.test.sdkapp","appVersion":"3.0","capsuleId":"sdk.capsule",)"
            R"("contextBlob":"{\"concepts\":[],\"pad\":\"\"}"})",
            state.str("appContext"));
}

TEST_P(SdkAgainstLibrary, MegabyteAnswersArriveWhole) {
  const size_t mib = 1024 * 1024;
  Answer action = request(false, {{"actionId", "big"}, {"size", std::to_string(mib)}});
  EXPECT_EQ(std::string(mib, 'x'), action.str("result"));
  Answer state = request(true, {{"size", std::to_string(mib)}});
  EXPECT_NE(std::string::npos, state.str("appContext").find(std::string(mib, 'y')));
  // Pieces of the default size over the message port; rpc-port has none.
  EXPECT_EQ(GetParam() ? 0 : 1, log.count("[Received Data with len:1048576]"));
  EXPECT_FALSE(action.has("chunk_result") || state.has("app_state_chunk_result"));
}

// Only over rpc-port: a message-port client has no connection to lose.
class SdkOverRpcPort : public SdkAgainstLibrary {};
TEST_P(SdkOverRpcPort, AppIsToldWhenItsClientDisconnectsAndAHeldAnswerIsRefused) {
  request(false, {{"actionId", "warmUp"}});
  BundlePtr hold = MakeBundle({{"actionId", "hold"}});
  ASSERT_EQ(0, talvo_proxy_app_action_execution(kApp, hold.get(), OnAnswer, nullptr));
  RunLoopFor(300);  // the request reaches the app, which keeps its answer
  talvo_proxy_deinitialize();  // drops the connection

  g_autofree char *report = nullptr;
  ASSERT_TRUE(RunLoopUntil([&] {
    g_clear_pointer(&report, g_free);
    return g_file_get_contents((env.root() + "/report").c_str(), &report, nullptr, nullptr) && *report;
  }, 8000));
  EXPECT_EQ(std::string(kClientId) + " -107\n", report);
  EXPECT_EQ(1u, calls.size());
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, SdkAgainstLibrary, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "RpcPort" : "MessagePort"; });
INSTANTIATE_TEST_SUITE_P(Mechanisms, SdkOverRpcPort, ::testing::Values(true),
                         [](const auto &) { return std::string("RpcPort"); });

}  // namespace
