// Apps reached over the message port, with the sample message-port app as a real process.
#include <glib.h>
#include <stdlib.h>

#include "IpcFixture.h"
#include "LoopUntil.h"

namespace ipctest {
namespace {

class MessagePort : public IpcFixture {};

TEST_F(MessagePort, AppLaunchedOnDemandIsReachedOnALaterPollAndItsChunkedAnswerJoined) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "400", 1);
  installPortApp();

  BundlePtr request = MakeBundle({{"actionId", "playMusic"},
                                  {"sample_result", std::string(1000, 'r') + "end"},
                                  {"sample_chunk_size", "64"}});
  ASSERT_EQ(0, send(kPortApp, request.get()));
  EXPECT_TRUE(log.has(std::string("Sent app launch request for app:") + kPortApp));
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(kPortApp));

  ASSERT_TRUE(waitForAnswers(1, 8000)) << log.dump();
  testsupport::RunLoopFor(200);
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kPortApp, answers[0].appId);
  EXPECT_EQ(std::string(1000, 'r') + "end", answers[0].str("result"));
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", answers[0].str("status_code"));
  EXPECT_FALSE(answers[0].has("chunk_result"));
  EXPECT_GE(log.count("_appLaunchMonitoringCb(): _appLaunchMonitoringCb"), 3);
  EXPECT_EQ(1, log.count("Send data Message Port"));
  EXPECT_EQ(0u, ipc->appLaunchInfoMap.size());
}

TEST_F(MessagePort, StateRequestToAnAppWithoutItsPortIsNeitherSentNorLaunched) {
  installPortApp();
  BundlePtr request = MakeBundle({{"actionId", "getAppContext"}});
  EXPECT_EQ(0, send(kPortApp, request.get(), true));
  EXPECT_FALSE(log.has("launch app"));
  EXPECT_EQ(0u, ipc->appLaunchInfoMap.size());
}

TEST_F(MessagePort, LaunchThatNeverCompletesIsAnsweredWithFailure) {
  setenv("TALVO_SAMPLE_NO_PORT", "1", 1);
  installPortApp();

  gint64 start = g_get_monotonic_time();
  BundlePtr request = MakeBundle({{"actionId", "playMusic"}});
  ASSERT_EQ(0, send(kPortApp, request.get()));
  ASSERT_TRUE(waitForAnswers(1, 20000)) << log.dump();
  EXPECT_GE((g_get_monotonic_time() - start) / 1000, 10000);

  EXPECT_EQ(kPortApp, answers[0].appId);
  EXPECT_EQ(kFailure, answers[0].str("result"));
  EXPECT_EQ(102, log.count("_appLaunchMonitoringCb(): _appLaunchMonitoringCb"));
  EXPECT_EQ(0u, ipc->appLaunchInfoMap.size());
}

}  // namespace
}  // namespace ipctest
