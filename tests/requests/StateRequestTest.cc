// The state request component on its own: acceptance for running apps only, and the
// rewriting of the app's context into the envelope. The test process is the app that is
// asked: it runs under its own VELNA_APP_ID once it has entered the main loop.
#include <app_manager.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "requests/TalvoProxyStateRequest.h"

namespace {

using namespace testsupport;

constexpr const char kSelf[] = "org.velna.test.client";
constexpr const char kSuccess[] = "ACTION_EXECUTION_SUCCESS";

class StateRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kSelf, 1);
    testsupport::RunLoopFor(10);  // registers this process as kSelf
    bool running = false;
    ASSERT_EQ(app_manager_is_running(kSelf, &running), 0);
    ASSERT_TRUE(running);

    request = TalvoProxyStateRequest::getInstance();
    ASSERT_NE(request, nullptr);
    ASSERT_EQ(request->initialize(), 0);
  }

  // Requests the state with the app's metadata carried in the request. The SDK version
  // selects the message port, whose metadata records are rebuilt on every request.
  void Request(const std::string &version = "1.2.0", const std::string &capsuleId = "cap.one") {
    BundlePtr data = RequestWithMetadata(version, capsuleId, "1.0-alpha");
    ASSERT_EQ(request->requestAppState(kSelf, data.get(), Recorder::Callback, &recorder),
              0);
  }

  // Hands an answer to the component; an empty status leaves "status_code" out.
  void Answer(const std::string &status, const std::string &context) {
    BundlePtr answer(bundle_create());
    if (!status.empty()) bundle_add_str(answer.get(), "status_code", status.c_str());
    bundle_add_str(answer.get(), "status_msg", "from the app");
    bundle_add_str(answer.get(), "appContext", context.c_str());
    char *text = nullptr;
    bundle_get_str(answer.get(), "appContext", &text);
    request->_processAppStateResult(kSelf, answer.get(), text);
  }

  void ExpectFailureAnswer(int calls) {
    ASSERT_EQ(recorder.calls(), calls);
    EXPECT_TRUE(log.has("JSON parameters error"));
    EXPECT_EQ(recorder.last().str("status_code"), "ACTION_EXECUTION_FAILURE");
    EXPECT_EQ(recorder.last().str("status_msg"), "Json failure because of missing parameter");
    EXPECT_EQ(recorder.last().str("appContext"), "");
  }

  testsupport::TempEnv env;
  testsupport::LogCapture log;
  TalvoProxyStateRequest *request = nullptr;
  Recorder recorder;
};

TEST_F(StateRequestTest, ContextKeysAreAddedWithoutOverwritingTheCallersOwn) {
  BundlePtr data = RequestWithMetadata("1.0", "cap");
  bundle_add_str(data.get(), "actionId", "mine");

  ASSERT_EQ(request->requestAppState(kSelf, data.get(), Recorder::Callback, &recorder), 0);
  EXPECT_EQ(GetStr(data.get(), "actionId"), "mine");
  EXPECT_EQ(GetStr(data.get(), "type"), "PunchIn");

  BundlePtr plain = RequestWithMetadata("1.0", "cap");
  ASSERT_EQ(request->requestAppState(kSelf, plain.get(), Recorder::Callback, &recorder), 0);
  EXPECT_EQ(GetStr(plain.get(), "actionId"), "getAppContext");
}

TEST_F(StateRequestTest, EnvelopeCarriesTheContextWithConceptsAndHasThreeMembersWithout) {
  const std::string head = "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"1.2.0\",";
  const std::string three = head + "\"capsuleId\":\"cap.one\"}";
  struct Case {
    std::string status, context, envelope;
  };
  const std::vector<Case> cases = {
      {kSuccess, "{ \"concepts\": [\"a\", 1],\n \"name\": \"x\\\"y\" }",
       head + "\"capsuleId\":\"cap.one\",\"contextBlob\":"
              "\"{ \\\"concepts\\\": [\\\"a\\\", 1],\\n \\\"name\\\": \\\"x\\\\\\\"y\\\" }\"}"},
      // The context's own capsule id is copied with its type.
      {kSuccess, "{\"capsuleId\":42,\"concepts\":null}",
       head + "\"capsuleId\":42,\"contextBlob\":\"{\\\"capsuleId\\\":42,\\\"concepts\\\":null}\"}"},
      {"ACTION_EXECUTION_FAILURE", "{\"reason\":\"busy\"}", three},
      // An answer without a status code is not a success, so it needs no concepts either.
      {"", "{}", three},
      {"ACTION_EXECUTION_FAILURE", "not json {", three}};
  for (size_t i = 0; i < cases.size(); ++i) {
    Request();
    Answer(cases[i].status, cases[i].context);
    ASSERT_EQ(recorder.calls(), int(i + 1)) << cases[i].context;
    EXPECT_EQ(recorder.last().str("appContext"), cases[i].envelope);
    EXPECT_EQ(recorder.last().str("status_code"), cases[i].status.empty() ? "<absent>" : cases[i].status);
    EXPECT_EQ(recorder.last().str("status_msg"), "from the app");
  }
  EXPECT_FALSE(log.has("JSON parameters error"));
}

TEST_F(StateRequestTest, AnswerLackingWhatTheEnvelopeNeedsBecomesTheFailureAnswer) {
  Request();
  Answer(kSuccess, "{\"capsuleId\":\"own\"}");
  ExpectFailureAnswer(1);

  Request();
  Answer(kSuccess, "[\"concepts\"]");  // a root that is not an object has no members
  ExpectFailureAnswer(2);

  // The context's own capsule id does not stand in for the declared one.
  Request("1.2.0", "");
  Answer("ACTION_EXECUTION_FAILURE", "{\"capsuleId\":\"own\"}");
  ExpectFailureAnswer(3);

  Request("", "cap.one");
  Answer("ACTION_EXECUTION_FAILURE", "{}");
  ExpectFailureAnswer(4);
}

std::string Nested(int depth) {
  return "{\"concepts\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST_F(StateRequestTest, ContextNestedTooDeeplyIsNotParsed) {
  const std::string hostile(100000, '[');
  // Past the limit, also where a quote hides in a single-quoted string or a comment, which
  // the parser reads as such.
  const std::vector<std::string> tooDeep = {Nested(1025), "{\"concepts\":" + hostile,
                                            "['\"', " + hostile, "[/* \" */ " + hostile};
  for (size_t i = 0; i < tooDeep.size(); ++i) {
    log.clear();
    Request();
    Answer(kSuccess, tooDeep[i]);
    ExpectFailureAnswer(int(i + 1));
    EXPECT_TRUE(log.has("nests deeper than 1024 levels")) << i;
  }

  // At the limit, and brackets inside strings of either quote, which do not nest.
  const std::vector<std::string> parsed = {
      Nested(1024), "{\"concepts\":\"" + std::string(3000, '[') + "\\\"" +
                        std::string(3000, '{') + "\", 'x':'\"" + std::string(3000, '[') + "'}"};
  log.clear();
  for (const std::string &context : parsed) {
    Request();
    Answer(kSuccess, context);
    EXPECT_EQ(recorder.last().str("status_code"), kSuccess);
    EXPECT_NE(recorder.last().str("appContext").find("\"contextBlob\""), std::string::npos);
  }
  EXPECT_EQ(recorder.calls(), int(tooDeep.size() + parsed.size()));
  EXPECT_FALSE(log.has("nests deeper than"));
}

TEST_F(StateRequestTest, AnswerWithoutMetadataRecordLeavesTheRequestPending) {
  // Neither the request nor a manifest declares this process's metadata: refused with -12
  // but recorded.
  BundlePtr bare = MakeBundle();
  EXPECT_EQ(request->requestAppState(kSelf, bare.get(), Recorder::Callback, &recorder), -12);

  Answer("ACTION_EXECUTION_FAILURE", "{}");
  EXPECT_EQ(recorder.calls(), 0);
  EXPECT_TRUE(log.has("MetaDataInfo is null"));

  BundlePtr data = RequestWithMetadata("3.0", "cap.three");
  ASSERT_NE(TalvoProxyCommonData::getInstance()->ExtractMetaData(kSelf, data.get()), nullptr);
  Answer("ACTION_EXECUTION_FAILURE", "{}");
  ASSERT_EQ(recorder.calls(), 1);
  EXPECT_EQ(recorder.last().str("appContext"),
            "{\"appId\":\"org.velna.test.client\",\"appVersion\":\"3.0\","
            "\"capsuleId\":\"cap.three\"}");
}

struct Reentrant {
  explicit Reentrant(TalvoProxyStateRequest *request) : request(request) {}

  TalvoProxyStateRequest *request;
  int calls = 0;
  std::string envelope;
  Recorder next;

  static void Callback(const char *appId, bundle *result, void *userData) {
    auto *self = static_cast<Reentrant *>(userData);
    self->calls++;
    self->envelope = GetStr(result, "appContext");
    // The app's metadata record is rebuilt inside the dispatch.
    BundlePtr data = RequestWithMetadata("9.9", "cap.next", "1.0-alpha");
    self->request->requestAppState(appId, data.get(), Recorder::Callback, &self->next);
  }
};

TEST_F(StateRequestTest, CallbackMayStartANewRequestForTheSameApp) {
  Reentrant reentrant(request);
  BundlePtr data = RequestWithMetadata("1.2.0", "cap.one", "1.0-alpha");
  ASSERT_EQ(request->requestAppState(kSelf, data.get(), Reentrant::Callback, &reentrant), 0);

  Answer("ACTION_EXECUTION_FAILURE", "{}");
  EXPECT_EQ(reentrant.calls, 1);
  EXPECT_NE(reentrant.envelope.find("\"cap.one\""), std::string::npos);

  Answer("ACTION_EXECUTION_FAILURE", "{}");
  EXPECT_EQ(reentrant.calls, 1);
  ASSERT_EQ(reentrant.next.calls(), 1);
  EXPECT_NE(reentrant.next.last().str("appContext").find("\"cap.next\""), std::string::npos);
}

TEST_F(StateRequestTest, SecondRequestReplacesTheFirst) {
  Recorder first;
  BundlePtr data = RequestWithMetadata("1.2.0", "cap.one");
  ASSERT_EQ(request->requestAppState(kSelf, data.get(), Recorder::Callback, &first), 0);
  Request();

  Answer("ACTION_EXECUTION_FAILURE", "{}");
  Answer("ACTION_EXECUTION_FAILURE", "{}");
  EXPECT_EQ(first.calls(), 0);
  EXPECT_EQ(recorder.calls(), 1);
  EXPECT_TRUE(log.has("No app state callback registered by talvo client for app:" +
                      std::string(kSelf)));
}

}  // namespace
