// The request components, handed answers as the proxy core would. For state requests this
// process is the app asked: it runs under its VELNA_APP_ID once it has entered the loop.
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <stdlib.h>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "requests/TalvoProxyActionRequest.h"
#include "requests/TalvoProxyStateRequest.h"

namespace {

using namespace testsupport;

constexpr const char kApp[] = "org.velna.test.music";
constexpr const char kSelf[] = "org.velna.test.client";
constexpr const char kSuccess[] = "ACTION_EXECUTION_SUCCESS";
constexpr const char kFailure[] = "ACTION_EXECUTION_FAILURE";

class ActionRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    request = TalvoProxyActionRequest::getInstance();
    ASSERT_EQ(request->initialize(), 0);
  }

  void Answer(const char *resultText) {
    BundlePtr answer = MakeBundle({{"status_code", kSuccess}, {"result", resultText}});
    request->_processActionResult(kApp, answer.get(), resultText);
  }

  TempEnv env;
  LogCapture log;
  TalvoProxyActionRequest *request = nullptr;
};

// A request whose metadata cannot be read is refused but recorded all the same. A later
// request replaces the pending one; an answer without a pending request is dropped.
TEST_F(ActionRequestTest, SecondRequestReplacesTheFirstAndARequestWithoutMetadataStaysRecorded) {
  Recorder first, second, unreadable;
  BundlePtr partial = MakeBundle({{"capsuleId", "only"}, {"appVersion", "two keys"}});
  EXPECT_EQ(request->executeAction(kApp, partial.get(), Recorder::Callback, &unreadable), -12);
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:(null)"));
  Answer("early");
  EXPECT_EQ(unreadable.calls(), 1);

  BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
  bundle_add_str(data.get(), "actionId", "play");
  ASSERT_EQ(request->executeAction(kApp, data.get(), Recorder::Callback, &first), 0);
  ASSERT_EQ(request->executeAction(kApp, data.get(), Recorder::Callback, &second), 0);
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:play"));

  Answer("{\"played\":true}");
  EXPECT_EQ(first.calls(), 0);
  ASSERT_EQ(second.calls(), 1);
  EXPECT_EQ(second.last().appId, kApp);
  EXPECT_EQ(second.last().str("result"), "{\"played\":true}");
  EXPECT_EQ(second.last().str("status_code"), kSuccess);
  EXPECT_TRUE(log.has("[Received Data Length: 15]-----------------------------------------"));
  Answer("again");
  EXPECT_EQ(second.calls(), 1);
}

class StateRequestTest : public ::testing::Test {
 public:
  void SetUp() override {
    setenv("VELNA_APP_ID", kSelf, 1);
    RunLoopFor(10);  // registers this process as kSelf, or no state request is accepted
    request = TalvoProxyStateRequest::getInstance();
    ASSERT_EQ(request->initialize(), 0);
  }

  // Requests the state with the app's metadata carried in the request. The SDK version
  // selects the message port, whose metadata records are rebuilt on every request.
  BundlePtr Request(const std::string &version = "1.2.0", const std::string &capsuleId = "cap.one") {
    BundlePtr data = RequestWithMetadata(version, capsuleId, "1.0-alpha");
    EXPECT_EQ(request->requestAppState(kSelf, data.get(), Recorder::Callback, &recorder), 0);
    return data;
  }

  // Hands an answer to the component; an empty status leaves "status_code" out.
  void Answer(const std::string &status, const std::string &context) {
    BundlePtr answer = MakeBundle({{"status_msg", "from the app"}, {"appContext", context}});
    if (!status.empty()) bundle_add_str(answer.get(), "status_code", status.c_str());
    char *text = nullptr;
    bundle_get_str(answer.get(), "appContext", &text);
    request->_processAppStateResult(kSelf, answer.get(), text);
  }

  TempEnv env;
  LogCapture log;
  TalvoProxyStateRequest *request = nullptr;
  Recorder recorder;
};

TEST_F(StateRequestTest, SecondRequestReplacesTheFirstAndTheCallersActionIdIsKept) {
  Recorder first;
  BundlePtr own = RequestWithMetadata("1.2.0", "cap.one");
  bundle_add_str(own.get(), "actionId", "mine");
  ASSERT_EQ(request->requestAppState(kSelf, own.get(), Recorder::Callback, &first), 0);
  EXPECT_EQ(GetStr(own.get(), "actionId"), "mine");
  EXPECT_EQ(GetStr(own.get(), "type"), "PunchIn");
  EXPECT_EQ(GetStr(Request().get(), "actionId"), "getAppContext");

  Answer(kFailure, "{}");
  Answer(kFailure, "{}");
  EXPECT_EQ(first.calls(), 0);
  EXPECT_EQ(recorder.calls(), 1);
  EXPECT_TRUE(log.has("No app state callback registered by talvo client for app:" +
                      std::string(kSelf)));
}

// Only a running app is asked for its state; an app whose running state cannot be read
// (an id the platform rejects) is refused with a code of its own. Neither is recorded.
TEST_F(StateRequestTest, RefusalsRecordOnlyARequestToARunningAppWithoutMetadata) {
  BundlePtr data = RequestWithMetadata("1.2.0", "cap.one");
  EXPECT_EQ(request->requestAppState(kApp, data.get(), Recorder::Callback, &recorder), -1073741825);
  EXPECT_EQ(
      request->requestAppState("org.velna.test/bad", data.get(), Recorder::Callback, &recorder),
      -1073741826);
  EXPECT_TRUE(log.sequence(
      {LogE("requestAppState",
            "App state request recieved for app:" + std::string(kApp) + ", but app is not running"),
       LogE("requestAppState", "Failed to get app running status")}));
  EXPECT_EQ(GetStr(data.get(), "type"), "<absent>");
  BundlePtr answer = MakeBundle({{"appContext", "{}"}});
  request->_processAppStateResult(kApp, answer.get(), "{}");
  EXPECT_EQ(recorder.calls(), 0);

  // Neither the request nor a manifest declares this process's metadata: refused with -12
  // but recorded; its answer waits until a metadata record exists.
  BundlePtr bare = MakeBundle();
  EXPECT_EQ(request->requestAppState(kSelf, bare.get(), Recorder::Callback, &recorder), -12);
  Answer(kFailure, "{}");
  EXPECT_EQ(recorder.calls(), 0);
  EXPECT_TRUE(log.has("MetaDataInfo is null"));
  BundlePtr declared = RequestWithMetadata("3.0", "cap.three");
  ASSERT_NE(TalvoProxyCommonData::getInstance()->ExtractMetaData(kSelf, declared.get()), nullptr);
  Answer(kFailure, "{}");
  ASSERT_EQ(recorder.calls(), 1);
  EXPECT_EQ(recorder.last().str("appContext"),
            "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"3.0\","
            "\"capsuleId\":\"cap.three\"}");
}

// A context as one JSON string, in the generator's default form.
std::string JsonText(const std::string &text) {
  JsonNode *node = json_node_init_string(json_node_alloc(), text.c_str());
  gchar *json = json_to_string(node, FALSE);
  std::string out = json;
  g_free(json);
  json_node_unref(node);
  return out;
}

std::string Nested(int depth) {
  return "{\"concepts\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST_F(StateRequestTest, ContextIsWrappedInTheEnvelopeOrAnsweredWithFailure) {
  const std::string head = "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"1.2.0\",";
  const std::string three = head + "\"capsuleId\":\"cap.one\"}";
  auto four = [&](const std::string &context) {
    return head + "\"capsuleId\":\"cap.one\",\"contextBlob\":" + JsonText(context) + "}";
  };
  const std::string hostile(100000, '['), inStrings = "{\"concepts\":\"" + std::string(3000, '[') +
                                                      "\\\"" + std::string(3000, '{') + "\", 'x':'\"" +
                                                      std::string(3000, '[') + "'}";
  struct Case {
    std::string version, capsuleId, status, context;
    std::string envelope;  // empty: the failure answer
  };
  const std::vector<Case> cases = {
      {"1.2.0", "cap.one", kSuccess, "{ \"concepts\": [\"a\", 1],\n \"name\": \"x\\\"y\" }",
       head + "\"capsuleId\":\"cap.one\",\"contextBlob\":"
              "\"{ \\\"concepts\\\": [\\\"a\\\", 1],\\n \\\"name\\\": \\\"x\\\\\\\"y\\\" }\"}"},
      // The context's own capsule id is copied with its type.
      {"1.2.0", "cap.one", kSuccess, "{\"capsuleId\":42,\"concepts\":null}",
       head + "\"capsuleId\":42,\"contextBlob\":\"{\\\"capsuleId\\\":42,\\\"concepts\\\":null}\"}"},
      {"1.2.0", "cap.one", kFailure, "{\"reason\":\"busy\"}", three},
      // Without a status code an answer is no success and needs no concepts either.
      {"1.2.0", "cap.one", "", "{}", three},
      {"1.2.0", "cap.one", kFailure, "not json {", three},
      {"1.2.0", "cap.one", kSuccess, "{\"capsuleId\":\"own\"}", ""},
      {"1.2.0", "cap.one", kSuccess, "[\"concepts\"]", ""},  // a root that is no object
      // The context's own capsule id does not stand in for the declared one.
      {"1.2.0", "", kFailure, "{\"capsuleId\":\"own\"}", ""},
      {"", "cap.one", kFailure, "{}", ""},
      // Nesting is parsed up to 1024 levels; brackets inside strings of either quote do
      // not nest. Past the limit nothing is parsed, also where a quote hides in a
      // single-quoted string or a comment, which the parser reads as such.
      {"1.2.0", "cap.one", kSuccess, Nested(1024), four(Nested(1024))},
      {"1.2.0", "cap.one", kSuccess, inStrings, four(inStrings)},
      {"1.2.0", "cap.one", kSuccess, Nested(1025), ""},
      {"1.2.0", "cap.one", kSuccess, "{\"concepts\":" + hostile, ""},
      {"1.2.0", "cap.one", kSuccess, "['\"', " + hostile, ""},
      {"1.2.0", "cap.one", kSuccess, "[/* \" */ " + hostile, ""}};
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case &c = cases[i];
    SCOPED_TRACE(c.context.substr(0, 80));
    log.clear();
    Request(c.version, c.capsuleId);
    Answer(c.status, c.context);
    ASSERT_EQ(recorder.calls(), int(i + 1));
    const bool failure = c.envelope.empty();
    EXPECT_EQ(recorder.last().str("appContext"), c.envelope);
    EXPECT_EQ(recorder.last().str("status_code"),
              failure ? kFailure : c.status.empty() ? "<absent>" : c.status);
    EXPECT_EQ(recorder.last().str("status_msg"),
              failure ? "Json failure because of missing parameter" : "from the app");
    EXPECT_EQ(failure, log.has("JSON parameters error"));
  }
}

}  // namespace
