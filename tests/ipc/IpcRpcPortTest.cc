// Apps reached over rpc-port, with the sample rpc-port app as a real process.
#include <glib.h>
#include <stdlib.h>

#include "IpcFixture.h"
#include "LoopUntil.h"

namespace ipctest {
namespace {

using testsupport::RunLoopFor;
using testsupport::RunLoopUntil;

class RpcPort : public IpcFixture {
 protected:
  BundlePtr action(const std::string &actionId) {
    return MakeBundle({{"actionId", actionId}, {"sample_echo", "1"}});
  }
  bool clientPresent() { return ipc->clientsMap.count(kRpcApp) != 0; }
  // Connects the app with a first request and waits for its answer.
  void connectApp() {
    BundlePtr first = action("warmUp");
    ASSERT_EQ(0, send(kRpcApp, first.get()));
    ASSERT_TRUE(waitForAnswers(1, 8000)) << log.dump();
  }
};

TEST_F(RpcPort, AppIsConnectedOnDemandAndTheWaitingRequestIsSentFromOnConnected) {
  installRpcApp();
  BundlePtr request = action("setAlarm");
  bundle_add_byte(request.get(), "blob", "\x01\x00\x02", 3);
  const char *list[] = {"a", "b"};
  bundle_add_str_array(request.get(), "list", list, 2);

  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ClientInfo *client = ipc->GetClientInfo(kRpcApp);
  ASSERT_NE(nullptr, client);
  EXPECT_FALSE(client->connected);
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(kRpcApp));

  // Well before the 10-second launch timer could fire.
  ASSERT_TRUE(waitForAnswers(1, 8000)) << log.dump();
  EXPECT_EQ(kRpcApp, answers[0].appId);
  EXPECT_NE(std::string::npos, answers[0].str("result").find("setAlarm"));
  const std::string echo = answers[0].str("echo");
  EXPECT_NE(std::string::npos, echo.find("blob:byte:3")) << echo;
  EXPECT_EQ(std::string::npos, echo.find("list")) << echo;
  EXPECT_TRUE(log.has("Key value is array type"));

  EXPECT_EQ(0u, ipc->appLaunchInfoMap.count(kRpcApp));
  client = ipc->GetClientInfo(kRpcApp);
  ASSERT_NE(nullptr, client);
  EXPECT_TRUE(client->connected);
}

TEST_F(RpcPort, SecondRequestDuringLaunchReplacesTheWaitingOne) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "1000", 1);
  installRpcApp();

  BundlePtr first = action("first");
  BundlePtr second = action("second");
  ASSERT_EQ(0, send(kRpcApp, first.get()));
  ASSERT_EQ(0, send(kRpcApp, second.get()));
  EXPECT_TRUE(log.has(std::string("app launch for app:") + kRpcApp + " already in progress"));
  EXPECT_EQ(1u, ipc->clientsMap.size());

  ASSERT_TRUE(waitForAnswers(1, 8000)) << log.dump();
  RunLoopFor(500);
  ASSERT_EQ(1u, answers.size());
  EXPECT_NE(std::string::npos, answers[0].str("result").find("second"));
}

TEST_F(RpcPort, DisconnectionRemovesTheClientOnALaterLoopTurn) {
  installRpcApp();
  connectApp();

  bool presentInsideEvent = false;
  {
    LineProbe probe("is OnDisconnected", [&] { presentInsideEvent = clientPresent(); });
    BundlePtr crash = MakeBundle({{"actionId", "crash"}, {"sample_reply", "crash"}});
    ASSERT_EQ(0, send(kRpcApp, crash.get()));
    EXPECT_TRUE(ipc->appLaunchInfoMap.empty());  // sent at once, no launch wait
    ASSERT_TRUE(RunLoopUntil([&] { return !clientPresent(); }, 8000));
    ASSERT_TRUE(probe.fired());
  }
  EXPECT_TRUE(presentInsideEvent);
}

TEST_F(RpcPort, RejectionRemovesTheClientOnALaterLoopTurn) {
  // The app exits before it opens its port: the platform rejects the connection.
  installRpcApp("/bin/false");

  bool presentInsideEvent = false;
  LineProbe probe("is OnRejected", [&] { presentInsideEvent = clientPresent(); });
  BundlePtr request = action("setAlarm");
  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ASSERT_TRUE(clientPresent());
  ASSERT_TRUE(RunLoopUntil([&] { return !clientPresent(); }, 8000));
  EXPECT_TRUE(probe.fired());
  EXPECT_TRUE(presentInsideEvent);
  EXPECT_TRUE(answers.empty());
}

TEST_F(RpcPort, ConnectionThatNeverCompletesIsAnsweredWithFailureAfterTenSeconds) {
  setenv("TALVO_SAMPLE_NO_LISTEN", "1", 1);
  installRpcApp();

  gint64 start = g_get_monotonic_time();
  BundlePtr request = action("setAlarm");
  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ASSERT_TRUE(waitForAnswers(1, 20000)) << log.dump();
  gint64 elapsedMs = (g_get_monotonic_time() - start) / 1000;
  EXPECT_GE(elapsedMs, 9500);

  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kRpcApp, answers[0].appId);
  EXPECT_EQ(kFailure, answers[0].str("result"));
  EXPECT_EQ(1u, answers[0].strings.size());
  EXPECT_FALSE(clientPresent());
  EXPECT_EQ(0u, ipc->appLaunchInfoMap.size());
  EXPECT_EQ(1, log.count("_appLaunchMonitoringCb(): _appLaunchMonitoringCb"));
}

}  // namespace
}  // namespace ipctest
