// TalvoProxyIpc in a client process of its own: a temporary apps and runtime directory,
// the client's app id, the real main loop and the sample apps as real processes. Every
// answer that reaches the registered handler is copied into answers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <velna_main_loop.h>

#include <string>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "ipc/TalvoProxyIpc.h"

namespace {

using namespace testsupport;

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kSender[] = "org.velna.test.sender";

class IpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kClientId, 1);
    ASSERT_EQ(0, velna_main_loop_init());
    ipc = TalvoProxyIpc::getInstance();
    ASSERT_EQ(0, ipc->initialize());
    auto onAnswer = [](std::string appId, bundle *result, void *self) {
      static_cast<IpcTest *>(self)->answers.push_back(CopyAnswer(appId.c_str(), result));
    };
    ASSERT_EQ(0, ipc->setIPCMessageReceivedCallback(onAnswer, this));
  }
  void TearDown() override { ipc->deinitialize(); }

  // What the proxy core does for a request: read the app's metadata, then send.
  int send(const std::string &appId, bundle *request, bool isStateRequest = false) {
    TalvoProxyCommonData::getInstance()->ExtractMetaData(appId, request);
    return ipc->sendData(appId, request, isStateRequest);
  }
  bool waitForAnswers(size_t n, int timeoutMs = 8000) {
    return RunLoopUntil([&] { return answers.size() >= n; }, timeoutMs);
  }

  // A message as an app sends it to the library's port; a piece of a chunked answer has
  // its bytes under pieceKey and its marker under markerKey.
  void receive(bundle *message, const char *sender = kSender) {
    TalvoProxyIpc::_appResultReceivedCb(1, sender, nullptr, false, message, ipc);
  }
  void receivePiece(const char *pieceKey, const std::string &piece, const char *markerKey,
                    const char *marker, BundlePtr message = MakeBundle()) {
    bundle_add_byte(message.get(), pieceKey, piece.data(), piece.size());
    bundle_add_str(message.get(), markerKey, marker);
    receive(message.get());
  }

  bool clientPresent() { return ipc->clientsMap.count(kRpcApp) != 0; }

  TempEnv env;
  LogCapture log;
  TalvoProxyIpc *ipc = nullptr;
  std::vector<Answer> answers;
  int presentInsideEvent = 0;
};

TEST_F(IpcTest, DeinitializeReleasesLaunchAndClientRecordsButNotFocusWaits) {
  setenv("TALVO_SAMPLE_NO_PORT", "1", 1);
  setenv("TALVO_SAMPLE_NO_LISTEN", "1", 1);
  env.installSample(kPortApp);
  env.installSample(kRpcApp);

  // The rpc-port app first: the launch ticks read the mechanism of the latest send.
  BundlePtr rpcRequest = MakeBundle({{"actionId", "a"}});
  BundlePtr portRequest = MakeBundle({{"actionId", "b"}});
  ASSERT_EQ(0, send(kRpcApp, rpcRequest.get()));
  ASSERT_EQ(0, send(kPortApp, portRequest.get()));
  ASSERT_EQ(0, ipc->_monitorAppFocused("org.velna.test.alias", portRequest.get()));
  ASSERT_EQ(2u, ipc->appLaunchInfoMap.size());
  ASSERT_EQ(1u, ipc->clientsMap.size());

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
  EXPECT_TRUE(ipc->clientsMap.empty());
  ASSERT_EQ(1u, ipc->appFocusedInfoMap.size());
  EXPECT_EQ(0, ipc->localPortId);

  // The launch waits are over; the focus wait runs on and ends (this process has no bus
  // to ask for the focus).
  int mark = static_cast<int>(log.lines().size());
  RunLoopFor(800);
  EXPECT_EQ(-1, log.find("_appLaunchMonitoringCb", mark));
  EXPECT_NE(-1, log.find("_appFocusedMonitoringCb", mark));
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(ipc->appFocusedInfoMap.empty());

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(log.has("TalvoProxyIpc is not initialized. Please initialize at first."));
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_GT(ipc->localPortId, 0);
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_TRUE(log.has("TalvoProxyIpc has been already initialized"));
}

TEST_F(IpcTest, ChunkedAnswersAreJoinedWithoutPieceKeysAndEndOnlyAtALowercaseTrue) {
  receivePiece("chunk_result", "ab", "last_chunk", "false");
  receivePiece("chunk_result", "cd", "last_chunk", "TRUE");
  EXPECT_TRUE(answers.empty());
  receivePiece("chunk_result", "ef", "last_chunk", "true",
               MakeBundle({{"status_code", "ACTION_EXECUTION_SUCCESS"}}));
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kSender, answers[0].appId);
  EXPECT_EQ("abcdef", answers[0].str("result"));
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", answers[0].str("status_code"));
  EXPECT_EQ(2u, answers[0].strings.size());
  EXPECT_TRUE(answers[0].bytes.empty());
  EXPECT_TRUE(log.has("[Received Data with len:6]"));

  // The state kind has keys of its own; the buffer of the action kind was emptied.
  receivePiece("app_state_chunk_result", "{\"con", "app_state_last_chunk", "false");
  receivePiece("app_state_chunk_result", "cepts\":1}", "app_state_last_chunk", "true");
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("{\"concepts\":1}", answers[1].str("appContext"));
  EXPECT_EQ(1u, answers[1].strings.size());
  EXPECT_TRUE(answers[1].bytes.empty());
  BundlePtr plain = MakeBundle({{"result", "x"}});
  receive(plain.get());
  ASSERT_EQ(3u, answers.size());
  EXPECT_EQ("x", answers[2].str("result"));
  EXPECT_TRUE(log.has("[Received Data with len:0]"));
}

TEST_F(IpcTest, MessagesAreClassifiedByTheirKeys) {
  receivePiece("chunk_result", "ab", "last_chunk", "false");
  // Neither a result nor a context, or no sender: dropped, the half-joined answer kept.
  BundlePtr unknown = MakeBundle({{"status_code", "X"}, {"status_msg", "only status"}});
  receive(unknown.get());
  EXPECT_TRUE(log.has(std::string("Unknown message recieved from app:") + kSender));
  BundlePtr anonymous = MakeBundle({{"result", "r"}});
  receive(anonymous.get(), nullptr);
  EXPECT_TRUE(log.has("Message without a sender app id dropped"));
  EXPECT_TRUE(answers.empty());
  // A final piece without bytes hands on what was joined so far.
  BundlePtr last = MakeBundle({{"last_chunk", "true"}});
  receive(last.get());
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("ab", answers[0].str("result"));

  // Both keys make one state answer, which keeps its own context over the joined one.
  receivePiece("app_state_chunk_result", "joined", "app_state_last_chunk", "false");
  receivePiece("app_state_chunk_result", "", "app_state_last_chunk", "true",
               MakeBundle({{"appContext", "own"}, {"result", "r"}}));
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("own", answers[1].str("appContext"));
  EXPECT_FALSE(answers[1].has("app_state_last_chunk"));

  // Over rpc-port the same rule holds.
  BundlePtr neither = MakeBundle({{"status_code", "X"}});
  ipc->_processAppResult(kSender, neither.get());
  EXPECT_EQ(2, log.count("Unknown message recieved from app:"));
  BundlePtr both = MakeBundle({{"appContext", "{}"}, {"result", "r"}});
  ipc->_processAppResult(kSender, both.get());
  ASSERT_EQ(3u, answers.size());
  EXPECT_EQ("{}", answers[2].str("appContext"));
}

TEST_F(IpcTest, AnswerUpToTheCapIsJoinedAndOnePastItIsDroppedWhole) {
  // A first piece one byte short of 128 MiB; its text ends at the zero byte after "ab".
  std::string big(128u * 1024u * 1024u - 1, '\0');
  big[0] = 'a';
  big[1] = 'b';
  receivePiece("chunk_result", big, "last_chunk", "false");
  receivePiece("chunk_result", "c", "last_chunk", "true");
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("ab", answers[0].str("result"));

  // Two bytes more pass the cap: that answer is dropped, its later pieces with it.
  receivePiece("chunk_result", big, "last_chunk", "false");
  receivePiece("chunk_result", "cd", "last_chunk", "false");
  EXPECT_TRUE(log.has("Chunked answer from app:"));
  receivePiece("chunk_result", "tail", "last_chunk", "true");
  EXPECT_EQ(1u, answers.size());
  receivePiece("chunk_result", "xy", "last_chunk", "true");
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("xy", answers[1].str("result"));
}

TEST(IpcWithoutHandler, AnswerIsDroppedWithAnErrorLine) {
  setenv("VELNA_APP_ID", kClientId, 1);
  TempEnv env;
  LogCapture log;
  TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
  ASSERT_EQ(0, ipc->initialize());
  EXPECT_EQ(-22, ipc->setIPCMessageReceivedCallback(nullptr, nullptr));
  EXPECT_TRUE(log.has("Callback null."));
  BundlePtr message = MakeBundle({{"result", "r"}});
  TalvoProxyIpc::_appResultReceivedCb(1, kSender, nullptr, false, message.get(), ipc);
  EXPECT_TRUE(log.has("No result handler registered"));
  ipc->deinitialize();
}

TEST_F(IpcTest, MessagePortAppIsLaunchedOnDemandAndReachedOnALaterPoll) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "400", 1);
  env.installSample(kPortApp);
  BundlePtr request = MakeBundle({{"actionId", "playMusic"},
                                  {"sample_result", std::string(1000, 'r') + "end"},
                                  {"sample_chunk_size", "64"}});
  ASSERT_EQ(0, send(kPortApp, request.get()));
  EXPECT_TRUE(log.has(std::string("Sent app launch request for app:") + kPortApp));
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(kPortApp));

  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  RunLoopFor(200);
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kPortApp, answers[0].appId);
  EXPECT_EQ(std::string(1000, 'r') + "end", answers[0].str("result"));
  EXPECT_FALSE(answers[0].has("chunk_result"));
  EXPECT_GE(log.count("_appLaunchMonitoringCb(): _appLaunchMonitoringCb"), 3);
  EXPECT_EQ(1, log.count("Send data Message Port"));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
}

TEST_F(IpcTest, RpcPortAppIsConnectedOnDemandAndTheWaitingRequestSentFromOnConnected) {
  env.installSample(kRpcApp);
  BundlePtr request = MakeBundle({{"actionId", "setAlarm"}, {"sample_echo", "1"}});
  bundle_add_byte(request.get(), "blob", "\x01\x00\x02", 3);
  const char *list[] = {"a", "b"};
  bundle_add_str_array(request.get(), "list", list, 2);

  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ClientInfo *client = ipc->GetClientInfo(kRpcApp);
  ASSERT_NE(nullptr, client);
  EXPECT_FALSE(client->connected);
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(kRpcApp));

  // Well before the 10-second launch timer could fire.
  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  EXPECT_EQ(kRpcApp, answers[0].appId);
  EXPECT_NE(std::string::npos, answers[0].str("result").find("setAlarm"));
  const std::string echo = answers[0].str("echo");
  EXPECT_NE(std::string::npos, echo.find("blob:byte:3")) << echo;
  EXPECT_EQ(std::string::npos, echo.find("list")) << echo;
  EXPECT_TRUE(log.has("Key value is array type"));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
  client = ipc->GetClientInfo(kRpcApp);
  ASSERT_NE(nullptr, client);
  EXPECT_TRUE(client->connected);
}

TEST_F(IpcTest, SecondRequestDuringAnRpcPortLaunchReplacesTheWaitingOne) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "1000", 1);
  env.installSample(kRpcApp);
  BundlePtr first = MakeBundle({{"actionId", "first"}});
  BundlePtr second = MakeBundle({{"actionId", "second"}});
  ASSERT_EQ(0, send(kRpcApp, first.get()));
  ASSERT_EQ(0, send(kRpcApp, second.get()));
  EXPECT_TRUE(log.has(std::string("app launch for app:") + kRpcApp + " already in progress"));
  EXPECT_EQ(1u, ipc->clientsMap.size());

  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  RunLoopFor(500);
  ASSERT_EQ(1u, answers.size());
  EXPECT_NE(std::string::npos, answers[0].str("result").find("second"));
}

TEST_F(IpcTest, RejectionAndDisconnectionRemoveTheClientOnALaterLoopTurn) {
  // Seen from inside the event that reports it, the client is still there.
  log.probe = [this](const std::string &message) {
    if (message.find("is OnRejected") != std::string::npos ||
        message.find("is OnDisconnected") != std::string::npos)
      presentInsideEvent += clientPresent() ? 1 : 100;
  };

  // The app exits before it opens its port: the platform rejects the connection.
  env.installSample(kRpcApp, "/bin/false");
  BundlePtr request = MakeBundle({{"actionId", "setAlarm"}});
  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ASSERT_TRUE(clientPresent());
  ASSERT_TRUE(RunLoopUntil([&] { return !clientPresent(); }, 8000));
  EXPECT_EQ(1, presentInsideEvent);
  EXPECT_TRUE(answers.empty());

  env.installSample(kRpcApp);
  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  BundlePtr crash = MakeBundle({{"actionId", "crash"}, {"sample_reply", "crash"}});
  ASSERT_EQ(0, send(kRpcApp, crash.get()));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());  // sent at once, no launch wait
  ASSERT_TRUE(RunLoopUntil([&] { return !clientPresent(); }, 8000));
  EXPECT_EQ(2, presentInsideEvent);
}

}  // namespace
