// The action request component on its own: pending requests per app and the delivery of
// answers. Answers are handed to _processActionResult as the proxy core would.
#include <gtest/gtest.h>

#include "Bundles.h"
#include "LogCapture.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "requests/TalvoProxyActionRequest.h"

namespace {

using namespace testsupport;

constexpr const char kApp[] = "org.velna.test.music";

class ActionRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    request = TalvoProxyActionRequest::getInstance();
    ASSERT_NE(request, nullptr);
    ASSERT_EQ(request->initialize(), 0);
  }

  void Answer(const char *appId, const char *resultText) {
    BundlePtr answer = MakeBundle({{"status_code", "ACTION_EXECUTION_SUCCESS"},
                                   {"status_msg", "done"},
                                   {"result", resultText}});
    request->_processActionResult(appId, answer.get(), resultText);
  }

  testsupport::TempEnv env;
  testsupport::LogCapture log;
  TalvoProxyActionRequest *request = nullptr;
};

TEST_F(ActionRequestTest, SecondRequestReplacesTheFirstAndALaterAnswerIsDropped) {
  Recorder first, second;
  BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
  bundle_add_str(data.get(), "actionId", "play");

  ASSERT_EQ(request->executeAction(kApp, data.get(), Recorder::Callback, &first), 0);
  ASSERT_EQ(request->executeAction(kApp, data.get(), Recorder::Callback, &second), 0);
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:play"));

  Answer(kApp, "{\"played\":true}");
  EXPECT_EQ(first.calls(), 0);
  ASSERT_EQ(second.calls(), 1);
  EXPECT_EQ(second.last().appId, kApp);
  EXPECT_EQ(second.last().str("result"), "{\"played\":true}");
  EXPECT_EQ(second.last().str("status_code"), "ACTION_EXECUTION_SUCCESS");
  EXPECT_TRUE(log.has("[Received Data Length: 15]-----------------------------------------"));

  Answer(kApp, "again");
  EXPECT_EQ(second.calls(), 1);
  EXPECT_TRUE(log.has("No action execute callback registered by talvo client for app:" +
                      std::string(kApp)));
}

TEST_F(ActionRequestTest, RequestWhoseMetadataCannotBeReadStaysRecorded) {
  Recorder recorder;
  BundlePtr data = MakeBundle({{"capsuleId", "only"}, {"appVersion", "two keys"}});

  EXPECT_EQ(request->executeAction(kApp, data.get(), Recorder::Callback, &recorder), -12);
  EXPECT_TRUE(log.has("app_info_create failed ERROR["));
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:(null)"));

  Answer(kApp, "late");
  EXPECT_EQ(recorder.calls(), 1);
}

// Asks the same app again from inside the delivery of its answer.
struct AskAgain {
  explicit AskAgain(TalvoProxyActionRequest *request) : request(request) {}

  TalvoProxyActionRequest *request;
  int calls = 0;
  Recorder next;

  static void Callback(const char *appId, bundle *, void *userData) {
    auto *self = static_cast<AskAgain *>(userData);
    self->calls++;
    BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
    self->request->executeAction(appId, data.get(), Recorder::Callback, &self->next);
  }
};

TEST_F(ActionRequestTest, CallbackMayStartANewRequestForTheSameApp) {
  AskAgain again(request);
  BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
  ASSERT_EQ(request->executeAction(kApp, data.get(), AskAgain::Callback, &again), 0);

  Answer(kApp, "first");
  EXPECT_EQ(again.calls, 1);
  EXPECT_EQ(again.next.calls(), 0);

  Answer(kApp, "second");
  EXPECT_EQ(again.calls, 1);
  ASSERT_EQ(again.next.calls(), 1);
  EXPECT_EQ(again.next.last().str("result"), "second");
}

}  // namespace
