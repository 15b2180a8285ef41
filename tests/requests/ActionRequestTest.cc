// The action request component on its own: pending requests per app and the delivery of
// answers. Answers are handed to _processActionResult as the proxy core would.
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "ResultRecorder.h"
#include "TempEnv.h"
#include "TestBundle.h"
#include "common/TalvoProxyCommonData.h"
#include "requests/TalvoProxyActionRequest.h"

namespace {

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
  ResultRecorder first, second;
  BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
  bundle_add_str(data.get(), "actionId", "play");

  ASSERT_EQ(request->executeAction(kApp, data.get(), ResultRecorder::Callback, &first), 0);
  ASSERT_EQ(request->executeAction(kApp, data.get(), ResultRecorder::Callback, &second), 0);
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:play"));

  Answer(kApp, "{\"played\":true}");
  EXPECT_EQ(first.calls, 0);
  ASSERT_EQ(second.calls, 1);
  EXPECT_EQ(second.appId, kApp);
  EXPECT_EQ(second.at("result"), "{\"played\":true}");
  EXPECT_EQ(second.at("status_code"), "ACTION_EXECUTION_SUCCESS");
  EXPECT_TRUE(log.has("[Received Data Length: 15]-----------------------------------------"));

  Answer(kApp, "again");
  EXPECT_EQ(second.calls, 1);
  EXPECT_TRUE(log.has("No action execute callback registered by talvo client for app:" +
                      std::string(kApp)));
}

TEST_F(ActionRequestTest, RequestWhoseMetadataCannotBeReadStaysRecorded) {
  ResultRecorder recorder;
  BundlePtr data = MakeBundle({{"capsuleId", "only"}, {"appVersion", "two keys"}});

  EXPECT_EQ(request->executeAction(kApp, data.get(), ResultRecorder::Callback, &recorder), -12);
  EXPECT_TRUE(log.has("app_info_create failed ERROR["));
  EXPECT_TRUE(log.has("In executeAction function for app:org.velna.test.music, action:(null)"));

  Answer(kApp, "late");
  EXPECT_EQ(recorder.calls, 1);
}

struct Reentrant {
  Reentrant(TalvoProxyActionRequest *request, bundle *data) : request(request), data(data) {}

  TalvoProxyActionRequest *request;
  bundle *data;
  int calls = 0;
  ResultRecorder next;

  static void Callback(const char *appId, bundle *, void *userData) {
    auto *self = static_cast<Reentrant *>(userData);
    self->calls++;
    self->request->executeAction(appId, self->data, ResultRecorder::Callback, &self->next);
  }
};

TEST_F(ActionRequestTest, CallbackMayStartANewRequestForTheSameApp) {
  BundlePtr data = RequestWithMetadata("1.0.0", "cap.music");
  Reentrant reentrant(request, data.get());
  ASSERT_EQ(request->executeAction(kApp, data.get(), Reentrant::Callback, &reentrant), 0);

  Answer(kApp, "first");
  EXPECT_EQ(reentrant.calls, 1);
  EXPECT_EQ(reentrant.next.calls, 0);

  Answer(kApp, "second");
  EXPECT_EQ(reentrant.calls, 1);
  EXPECT_EQ(reentrant.next.calls, 1);
  EXPECT_EQ(reentrant.next.at("result"), "second");
}

}  // namespace
