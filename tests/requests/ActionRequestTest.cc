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

}  // namespace
