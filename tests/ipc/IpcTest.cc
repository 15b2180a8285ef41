// TalvoProxyIpc in a client process of its own: a temporary apps and runtime directory,
// the client's app id, the real main loop and the sample and test apps as real processes.
// Every answer that reaches the registered handler is copied into answers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <fstream>
#include <string>
#include <vector>

#include "Bundles.h"
#include "BusFixture.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "common/TalvoProxyCommonData.h"
#include "ipc/TalvoProxyIpc.h"

extern "C" {
#include "launcher_internal.h"
}

namespace {

using namespace testsupport;

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kSender[] = "org.velna.test.sender";
constexpr const char kOther[] = "org.velna.test.other";
constexpr int kRefused = -1073741825;
constexpr int kSendRefused = -1073741826;
constexpr const char kFailure[] = "{\"result\":\"Failure\"}";

std::string S(const char *text) { return text; }

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
  bool waitFor(const LogRecord &record, int from = 0, int timeoutMs = 8000) {
    return RunLoopUntil([&] { return log.find(record, from) >= 0; }, timeoutMs);
  }
  // An app that declares sdkVersion, run by exec (none: it cannot be launched).
  void installApp(const std::string &appId, const std::string &sdkVersion,
                  const std::string &exec = "", const std::string &allowedClients = "") {
    env.install(
        {appId, appId, "", exec, allowedClients, {{talvo::kMetadataSdkVersionKey, sdkVersion}}});
  }
  MetaDataInfo *metaDataOf(const std::string &appId) {
    return TalvoProxyCommonData::getInstance()->GetMetaDataInfo(appId);
  }

  // A message as an app sends it to the library's port; a piece of a chunked answer has
  // its bytes under pieceKey and its marker under markerKey.
  void receive(bundle *message, const char *sender = kSender) {
    TalvoProxyIpc::_appResultReceivedCb(1, sender, nullptr, false, message, ipc);
  }
  void receivePiece(const char *pieceKey, const std::string &piece, const char *markerKey,
                    const char *marker, BundlePtr message = MakeBundle(),
                    const char *sender = kSender) {
    bundle_add_byte(message.get(), pieceKey, piece.data(), piece.size());
    bundle_add_str(message.get(), markerKey, marker);
    receive(message.get(), sender);
  }

  bool clientPresent() { return ipc->clientsMap.count(kRpcApp) != 0; }

  TempEnv env;
  LogCapture log;
  TalvoProxyIpc *ipc = nullptr;
  std::vector<Answer> answers;
  int presentInsideEvent = 0;
};

TEST_F(IpcTest, UnconnectedClientRefusesSendsAndDeinitializeReleasesAllButFocusWaits) {
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

  // The rpc-port client is still connecting. Marked connected, its proxy still has no
  // connection: Send raises, and the copy made for it is freed all the same (the
  // sanitized run would report it).
  ipc->ipcMechanism = IPC_MECHANISM_VIDL;
  int mark = log.size();
  EXPECT_EQ(-22, ipc->_sendDataToApp(kRpcApp, rpcRequest.get()));
  ipc->GetClientInfo(kRpcApp)->connected = true;
  EXPECT_EQ(kSendRefused, ipc->_sendDataToApp(kRpcApp, rpcRequest.get()));
  EXPECT_TRUE(log.sequence({LogE("_sendDataToApp", S(kRpcApp) + " is not connected"),
                            LogD("_sendDataToApp", "Send data start "),
                            LogE("_sendDataToApp", "Failed to NotConnectedSocketException")},
                           mark));
  EXPECT_FALSE(log.has(LogI("_sendDataToApp", "Send data end")));

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(log.has(LogD("deinitialize", "TalvoProxyIpc is deinitialized")));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
  EXPECT_TRUE(ipc->clientsMap.empty());
  ASSERT_EQ(1u, ipc->appFocusedInfoMap.size());
  EXPECT_EQ(0, ipc->localPortId);

  // The launch waits are over; the focus wait runs on and ends (this process has no bus
  // to ask for the focus).
  mark = log.size();
  RunLoopFor(800);
  EXPECT_EQ(-1, log.find("_appLaunchMonitoringCb", mark));
  EXPECT_NE(-1, log.find("_appFocusedMonitoringCb", mark));
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(ipc->appFocusedInfoMap.empty());

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(log.has(
      LogE("deinitialize", "TalvoProxyIpc is not initialized. Please initialize at first.")));
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_GT(ipc->localPortId, 0);
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_TRUE(log.has(LogE("initialize", "TalvoProxyIpc has been already initialized")));
}

TEST_F(IpcTest, LookupsAndRemovalsOfAnUnknownAppLogTheirErrorsAndChangeNothing) {
  const std::string app = "org.velna.test.unknown";
  BundlePtr data = RequestWithMetadata("1.0", "cap", "1.1.0");
  ASSERT_NE(nullptr, TalvoProxyCommonData::getInstance()->ExtractMetaData(app, data.get()));
  log.clear();

  EXPECT_EQ(nullptr, ipc->GetClientInfo(""));
  EXPECT_EQ(nullptr, ipc->GetClientInfo(app));
  EXPECT_EQ(nullptr, ipc->GetAppLaunchInfo(app));
  ipc->ClientRemove(app);
  EXPECT_EQ(G_SOURCE_REMOVE, TalvoProxyIpc::_clientRemoveCb(new ClientRemoveData{ipc, app}));
  EXPECT_EQ(G_SOURCE_REMOVE, TalvoProxyIpc::_clientRemoveCb(nullptr));
  EXPECT_EQ(G_SOURCE_REMOVE, TalvoProxyIpc::_clientRemoveCb(new ClientRemoveData{nullptr, app}));
  ipc->ipcMechanism = IPC_MECHANISM_VIDL;
  EXPECT_EQ(-22, ipc->_sendDataToApp(app, data.get()));

  const LogRecord noClient =
      LogE("GetClientInfo", "Couldn't find corresponding map entry for the app:" + app);
  EXPECT_TRUE(log.sequence(
      {LogE("GetClientInfo", "AppId is null."), noClient,
       LogE("GetAppLaunchInfo", "couldn't find corresponding map entry for the app:" + app),
       noClient, LogE("ClientRemove", "ClientsInfo is null"),
       LogD("_clientRemoveCb", "Callback _clientRemoveCb - (" + app + ")"), noClient,
       LogE("_clientRemoveCb", "ClientsInfo is null"),
       LogE("_clientRemoveCb", "ClientData to be removed is null"),
       LogE("_clientRemoveCb", "TalvoProxyIpc is null"),
       LogE("_sendDataToApp", "Couldn't find corresponding map entry for the app: " + app)}));
  EXPECT_EQ(11, log.size()) << log.dump();
  EXPECT_NE(nullptr, metaDataOf(app));
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
  const std::string fn = "_processAppResultPort";
  EXPECT_TRUE(log.sequence(
      {LogD(fn, S("Request Execution Result Recieved from ") + kSender),
       LogD(fn, "Status Code:ACTION_EXECUTION_SUCCESS"), LogD(fn, "Status Message:(null)"),
       LogD(fn, S("[App Result received] : Message from ") + kSender),
       LogD(fn, "[Received Data with len:6]------------------------------------------")}));

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
  EXPECT_TRUE(
      log.has(LogD(fn, "[Received Data with len:0]------------------------------------------")));
}

TEST_F(IpcTest, MessagesAreClassifiedByTheirKeys) {
  receivePiece("chunk_result", "ab", "last_chunk", "false");
  // Neither a result nor a context, or no sender: dropped, the half-joined answer kept.
  BundlePtr unknown = MakeBundle({{"status_code", "X"}, {"status_msg", "only status"}});
  receive(unknown.get());
  EXPECT_TRUE(
      log.has(LogE("_processAppResultPort", S("Unknown message recieved from app:") + kSender)));
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
  EXPECT_TRUE(
      log.has(LogE("_processAppResult", S("Unknown message recieved from app:") + kSender)));
  EXPECT_FALSE(log.has(LogD("_processAppResult", "Function _processAppResult End")));
  BundlePtr both = MakeBundle({{"appContext", "{}"}, {"result", "r"}});
  ipc->_processAppResult(kSender, both.get());
  ASSERT_EQ(3u, answers.size());
  EXPECT_EQ("{}", answers[2].str("appContext"));
  EXPECT_EQ(1, log.count(LogD("_processAppResult", "Function _processAppResult End")));
}

TEST_F(IpcTest, AnswerUpToTheCapIsJoinedAndOnePastItIsDroppedUntilItsEnd) {
  // A first piece one byte short of 128 MiB; its text ends at the zero byte after "ab".
  BundlePtr nearlyFull = MakeBundle({{"last_chunk", "false"}});
  {
    std::string big(128u * 1024u * 1024u - 1, '\0');
    big[0] = 'a';
    big[1] = 'b';
    bundle_add_byte(nearlyFull.get(), "chunk_result", big.data(), big.size());
  }
  receive(nearlyFull.get());
  receivePiece("chunk_result", "c", "last_chunk", "true");
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("ab", answers[0].str("result"));

  // Two bytes more pass the cap. The sender's answer is dropped with its later pieces, up
  // to its own final one; or up to a plain answer of that kind from any app; or up to a
  // piece from another app, which starts that app's answer.
  auto passCap = [&](const char *chunkKey, const char *markerKey) {
    receive(nearlyFull.get());
    receivePiece(chunkKey, "cd", markerKey, "false");
  };
  passCap("chunk_result", "last_chunk");
  EXPECT_TRUE(log.has("Chunked answer from app:"));
  receivePiece("chunk_result", "tail", "last_chunk", "false");
  receivePiece("chunk_result", "tail", "last_chunk", "true");
  EXPECT_EQ(1u, answers.size());
  receivePiece("chunk_result", "xy", "last_chunk", "true");

  passCap("chunk_result", "last_chunk");
  BundlePtr plain = MakeBundle({{"result", "plain"}});
  receive(plain.get(), kOther);
  receivePiece("chunk_result", "ef", "last_chunk", "true");

  passCap("chunk_result", "last_chunk");
  receivePiece("chunk_result", "gh", "last_chunk", "true", MakeBundle(), kOther);

  // The app-state kind has a drop of its own.
  void *bytes = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, bundle_get_byte(nearlyFull.get(), "chunk_result", &bytes, &size));
  bundle_add_byte(nearlyFull.get(), "app_state_chunk_result", bytes, size);
  bundle_del(nearlyFull.get(), "chunk_result");
  bundle_del(nearlyFull.get(), "last_chunk");
  bundle_add_str(nearlyFull.get(), "app_state_last_chunk", "false");
  passCap("app_state_chunk_result", "app_state_last_chunk");
  BundlePtr plainState = MakeBundle({{"appContext", "{}"}});
  receive(plainState.get(), kOther);
  receivePiece("app_state_chunk_result", "{\"s\":1}", "app_state_last_chunk", "true");

  ASSERT_EQ(7u, answers.size());
  const std::vector<std::pair<std::string, std::string>> expected = {
      {kSender, "ab"}, {kSender, "xy"}, {kOther, "plain"},     {kSender, "ef"},
      {kOther, "gh"},  {kOther, "{}"},  {kSender, "{\"s\":1}"}};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].first, answers[i].appId) << i;
    EXPECT_EQ(expected[i].second, answers[i].str(i < 5 ? "result" : "appContext")) << i;
  }
}

// A null handler is refused and changes nothing: without a handler answers are dropped,
// with one they keep reaching it.
TEST(IpcHandler, NullHandlerIsRefusedAndKeepsTheRegisteredOne) {
  setenv("VELNA_APP_ID", kClientId, 1);
  TempEnv env;
  LogCapture log;
  TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
  ASSERT_EQ(0, ipc->initialize());
  EXPECT_EQ(-22, ipc->setIPCMessageReceivedCallback(nullptr, nullptr));
  BundlePtr message = MakeBundle({{"result", "r"}});
  TalvoProxyIpc::_appResultReceivedCb(1, kSender, nullptr, false, message.get(), ipc);
  EXPECT_TRUE(log.has("No result handler registered"));

  static int calls = 0;
  static void *seenUserData = nullptr;
  auto handler = [](std::string, bundle *, void *userData) {
    ++calls;
    seenUserData = userData;
  };
  ASSERT_EQ(0, ipc->setIPCMessageReceivedCallback(handler, &calls));
  EXPECT_EQ(-22, ipc->setIPCMessageReceivedCallback(nullptr, nullptr));
  TalvoProxyIpc::_appResultReceivedCb(1, kSender, nullptr, false, message.get(), ipc);
  EXPECT_EQ(1, calls);
  EXPECT_EQ(&calls, seenUserData);
  EXPECT_EQ(2, log.count(LogE("setIPCMessageReceivedCallback", "Callback null.")));
  ipc->deinitialize();
}

TEST_F(IpcTest, MessagePortAppIsLaunchedOnDemandAndReachedOnALaterPoll) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "400", 1);
  env.installSample(kPortApp);
  BundlePtr request = MakeBundle({{"actionId", "playMusic"},
                                  {"sample_result", std::string(1000, 'r') + "end"},
                                  {"sample_chunk_size", "64"}});
  ASSERT_EQ(0, send(kPortApp, request.get()));
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(kPortApp));

  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  RunLoopFor(200);
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kPortApp, answers[0].appId);
  EXPECT_EQ(std::string(1000, 'r') + "end", answers[0].str("result"));
  EXPECT_FALSE(answers[0].has("chunk_result"));
  EXPECT_GE(log.count(LogI("_appLaunchMonitoringCb", "_appLaunchMonitoringCb")), 3);
  const std::string app = kPortApp;
  EXPECT_TRUE(log.sequence({LogE("_connectApp", "App state request recieved for app:" + app +
                                                    ", but app is not running"),
                            LogD("_launchApp", "launch app " + app),
                            LogD("_launchApp", "Sent app launch request for app:" + app),
                            LogD("_monitorAppLaunch", "_monitorAppLaunch"),
                            LogI("_appLaunchMonitoringCb", "_appLaunchMonitoringCb"),
                            LogD("_isConnectedToApp", app + "'s connection status:1"),
                            LogD("_appLaunchMonitoringCb", app + " is launched successfully.."),
                            LogI("_sendDataToApp", "Send data Message Port " + app)}));
  EXPECT_EQ(1, log.count("Send data Message Port"));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
}

// The app runs but has not registered its port: a state request is neither sent nor
// retried; an action waits for the port without a launch request.
TEST_F(IpcTest, MessagePortAppThatRunsWithoutItsPortGetsNoStateRequest) {
  const std::string app = "org.velna.test.portless";
  installApp(app, "1.0-alpha", TEST_APP);
  ASSERT_TRUE(env.launch(app));
  BundlePtr request = MakeBundle({{"actionId", "getAppContext"}});
  const int mark = log.size();
  EXPECT_EQ(0, send(app, request.get(), true));
  EXPECT_TRUE(log.has(LogD("_isConnectedToApp", app + "'s connection status:0")));
  EXPECT_EQ(0, log.countFrom("_connectApp", mark));
  EXPECT_EQ(0, log.countFrom("_sendDataToApp", mark));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());

  EXPECT_EQ(0, send(app, request.get()));
  EXPECT_TRUE(log.has(LogD("_connectApp", "AppID : " + app)));
  EXPECT_EQ(0, log.countFrom("_launchApp", mark));
  EXPECT_NE(nullptr, ipc->GetAppLaunchInfo(app));
}

// The package manager names the package, the app information its alias package: the app is
// an alias when the package does not begin with the alias package. Installed without Exec,
// every app's launch is refused, with or without the alias path.
TEST_F(IpcTest, AliasAppIsLaunchedFirstAndARefusedLaunchFailsTheAction) {
  struct Case {
    const char *package, *infoPackage;  // infoPackage empty: the same as package
    bool alias;
  };
  int n = 0;
  for (const Case &c : {Case{"org.a.b", "org.a", false}, Case{"org.a.b", "org.x", true},
                        Case{"org.a.b", "", false}, Case{"org.a", "org.a.b", true}}) {
    const std::string app = "org.velna.test.app" + std::to_string(n++);
    const std::string info = *c.infoPackage ? c.infoPackage : c.package;
    env.install(
        {app, c.package, c.infoPackage, "", "", {{talvo::kMetadataSdkVersionKey, "1.0-alpha"}}});
    SCOPED_TRACE(info + " of " + c.package);
    int mark = log.size();
    BundlePtr request = MakeBundle({{"actionId", "a"}});
    EXPECT_EQ(kRefused, send(app, request.get()));
    std::vector<LogRecord> lines = {LogD(
        "_isExistedAliasApp",
        "appId(" + app + "), aliasPackageId(" + info + "), originPackageId(" + c.package + ")")};
    const LogRecord alias =
        LogD("_isExistedAliasApp", "Alias app is existed, alias pkg id(" + info + ")");
    const LogRecord launchFailed = LogE("_launchApp", "Failed to launch app:" + app);
    if (c.alias)
      lines.insert(lines.end(), {alias, LogD("sendData", "Alias app is existed, appid:" + app),
                                 LogD("sendData", "Alias app is existed, ipc:IPC_MECHANISM_VIDL"),
                                 LogD("_launchApp", "launch app " + app), launchFailed});
    else
      lines.insert(
          lines.end(),
          {LogE("_connectApp",
                "App state request recieved for app:" + app + ", but app is not running"),
           launchFailed, LogE("_connectApp", "Fail to launch app:" + app + ", ret(-1073741825)")});
    EXPECT_TRUE(log.sequence(lines, mark));
    EXPECT_EQ(c.alias, log.find(alias, mark) >= 0);
    EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
    EXPECT_TRUE(ipc->appFocusedInfoMap.empty());

    // A state request never takes the alias path; the port is not there, nothing is sent.
    mark = log.size();
    EXPECT_EQ(0, send(app, request.get(), true));
    EXPECT_EQ(0, log.countFrom("_isExistedAliasApp", mark) + log.countFrom("_launchApp", mark));
  }
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

  // Connecting an app whose client waits for nothing replaces that client and drops the
  // app's metadata; the new connection finds no request waiting.
  const std::string app = kRpcApp;
  int mark = log.size();
  ASSERT_EQ(0, ipc->_connectApp(app));
  EXPECT_TRUE(log.sequence({LogD("ClientRemove", "Remove clientMap size(0)"),
                            LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)"),
                            LogD("_connectApp", "Insert size(1), mapInsertBool(1)")},
                           mark));
  EXPECT_EQ(nullptr, metaDataOf(app));
  ASSERT_EQ(1u, ipc->clientsMap.size());
  EXPECT_FALSE(ipc->GetClientInfo(app)->connected);
  ASSERT_TRUE(waitFor(LogE("OnConnected", "appLaunchInfo is null"), mark)) << log.dump();
  EXPECT_TRUE(log.sequence(
      {LogI("OnConnected", "(" + app + ") is OnConnected"),
       LogE("GetAppLaunchInfo", "couldn't find corresponding map entry for the app:" + app),
       LogE("OnConnected", "appLaunchInfo is null")},
      mark));
  EXPECT_TRUE(ipc->GetClientInfo(app)->connected);
}

// The platform refuses the connection at once: an app that is not installed, an app that
// does not allow this client, a runtime directory that cannot be made.
TEST_F(IpcTest, ConnectionRefusedAtOnceRemovesTheClientAndTheAppsMetadata) {
  installApp("org.velna.test.private", "1.1.0", TEST_APP, "org.velna.test.someone;");
  installApp("org.velna.test.noruntime", "1.1.0", TEST_APP);
  const std::string runtime = env.runtimeDir();
  const std::string notADirectory = env.root() + "/file";
  std::ofstream(notADirectory) << "x";
  struct Case {
    std::string appId, exception;
    int result;
  };
  for (const Case &c : {Case{"org.velna.test.notinstalled", "InvalidIDException", -22},
                        Case{"org.velna.test.private", "PermissionDeniedException", -13},
                        Case{"org.velna.test.noruntime", "InvalidIOException", -22}}) {
    SCOPED_TRACE(c.exception);
    if (c.exception == "InvalidIOException") setenv("VELNA_RUNTIME_DIR", notADirectory.c_str(), 1);
    const int mark = log.size();
    BundlePtr request = RequestWithMetadata("1.0", "cap", "1.1.0");
    EXPECT_EQ(c.result, send(c.appId, request.get()));
    setenv("VELNA_RUNTIME_DIR", runtime.c_str(), 1);
    EXPECT_TRUE(log.sequence({LogD("_connectApp", "Insert size(1), mapInsertBool(1)"),
                              LogE("_connectApp", "Failed to " + c.exception),
                              LogD("ClientRemove", "Remove clientMap size(0)"),
                              LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)")},
                             mark));
    EXPECT_TRUE(ipc->clientsMap.empty());
    EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
    EXPECT_EQ(nullptr, metaDataOf(c.appId));
  }
}

// The app refuses the delegate (SetCB answers 1) or never answers SetCB: the client stays
// unconnected and the launch wait answers with the library's failure after its 10 s.
TEST_F(IpcTest, FailedCallbackRegistrationIsAnsweredByTheLaunchWaitRunningOut) {
  setenv("VELNA_RPC_TIMEOUT_MS", "500", 1);
  setenv("MESSAGE_TEST_APP_REGISTER_RESULT", "1", 1);
  const std::string refusing = "org.velna.test.refusing", mute = "org.velna.test.mute";
  installApp(refusing, "1.1.0", S(TEST_APP) + " lax");
  installApp(mute, "1.1.0", S(TEST_APP) + " setcb-silent");
  BundlePtr request = MakeBundle({{"actionId", "a"}});
  ASSERT_EQ(0, send(refusing, request.get()));
  ASSERT_EQ(0, send(mute, request.get()));

  ASSERT_TRUE(waitFor(LogE("OnConnected", "Fail to SetCB for (" + refusing + ")"))) << log.dump();
  ASSERT_TRUE(waitFor(LogE("OnConnected", "Failed to InvalidProtocolException (" + mute + ")")))
      << log.dump();
  for (const std::string &app : {refusing, mute}) {
    ClientInfo *client = ipc->GetClientInfo(app);
    ASSERT_NE(nullptr, client);
    EXPECT_FALSE(client->connected);
    AppLaunchInfo *wait = ipc->GetAppLaunchInfo(app);
    ASSERT_NE(nullptr, wait);
    EXPECT_NE(nullptr, wait->timer);
  }

  ASSERT_TRUE(waitForAnswers(2, 20000)) << log.dump();
  EXPECT_EQ(refusing, answers[0].appId);
  EXPECT_EQ(mute, answers[1].appId);
  for (const Answer &answer : answers) {
    EXPECT_EQ(kFailure, answer.str("result"));
    EXPECT_TRUE(
        log.sequence({LogD("_appLaunchMonitoringCb", answer.appId + " fail to launch.."),
                      LogD("ClientRemove", "Remove clientMap size(" +
                                               std::to_string(answer.appId == refusing) + ")")}));
    EXPECT_EQ(nullptr, metaDataOf(answer.appId));
  }
  EXPECT_TRUE(ipc->clientsMap.empty());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
}

TEST_F(IpcTest, SecondRequestDuringAnRpcPortLaunchReplacesTheWaitingOne) {
  setenv("TALVO_SAMPLE_START_DELAY_MS", "1000", 1);
  env.installSample(kRpcApp);
  BundlePtr first = MakeBundle({{"actionId", "first"}});
  BundlePtr second = MakeBundle({{"actionId", "second"}});
  ASSERT_EQ(0, send(kRpcApp, first.get()));
  ASSERT_EQ(0, send(kRpcApp, second.get()));
  EXPECT_TRUE(log.sequence(
      {LogD("_connectApp", S("app launch for app:") + kRpcApp + " already in progress"),
       LogD("_updateAppLaunchInfo", S("Function _updateAppLaunchInfo ") + kRpcApp)}));
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
  const std::string app = kRpcApp;
  EXPECT_TRUE(log.sequence({LogI("OnRejected", "(" + app + ") is OnRejected"),
                            LogD("_clientRemoveCb", "Callback _clientRemoveCb - (" + app + ")"),
                            LogD("_clientRemoveCb", "RemoveCb clientMap size(0)"),
                            LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)")}));
  EXPECT_EQ(nullptr, metaDataOf(app));

  env.installSample(kRpcApp);
  ASSERT_EQ(0, send(kRpcApp, request.get()));
  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  BundlePtr crash = MakeBundle({{"actionId", "crash"}, {"sample_reply", "crash"}});
  ASSERT_EQ(0, send(kRpcApp, crash.get()));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());  // sent at once, no launch wait
  const int mark = log.size();
  ASSERT_TRUE(RunLoopUntil([&] { return !clientPresent(); }, 8000));
  EXPECT_EQ(2, presentInsideEvent);
  EXPECT_TRUE(log.sequence({LogI("OnDisconnected", "(" + app + ") is OnDisconnected"),
                            LogD("_clientRemoveCb", "Callback _clientRemoveCb - (" + app + ")"),
                            LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)")},
                           mark));
  EXPECT_EQ(nullptr, metaDataOf(app));
}

// The focus wait of an alias app against the window-manager simulator on a private bus.
TEST_F(IpcTest, FocusWaitMatchesByPrefixRestartsOnANewRequestAndHandsOverAnUnreachableApp) {
  BusFixture bus;
  WmSim wm(bus);
  TalvoProxyCommonData::getInstance()->initialize();
  ASSERT_TRUE(RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000));
  // The app waited for; the focus goes to an app whose id begins its id. Both register
  // the library's port once they run.
  const std::string app = "org.velna.test.focus.app", holder = "org.velna.test.focus";
  setenv("MP_TEST_PORT", "TALVO_APP_SDK_PORT_516", 1);
  installApp(app, "1.0-alpha", TEST_APP);
  installApp(holder, "1.0-alpha", TEST_APP);
  wm.addWindow(getpid(), true);

  ipc->ipcMechanism = IPC_MECHANISM_MESSAGE_PORT;
  BundlePtr request = MakeBundle({{"actionId", "show"}});
  ASSERT_EQ(0, ipc->_monitorAppFocused(app, request.get()));
  auto notFocused = [&](int count) {
    return LogI("_appFocusedMonitoringCb",
                "[" + std::to_string(count) + "] app:" + app + ", focused App:" + kClientId);
  };
  ASSERT_TRUE(waitFor(notFocused(4))) << log.dump();
  EXPECT_TRUE(log.has(notFocused(0)));
  for (int count : {1, 2, 3}) EXPECT_FALSE(log.has(notFocused(count)));

  int mark = log.size();
  ASSERT_EQ(0, ipc->_monitorAppFocused(app, request.get()));
  EXPECT_EQ(1u, ipc->appFocusedInfoMap.size());
  ASSERT_TRUE(waitFor(notFocused(0), mark, 3000)) << log.dump();

  pid_t pid = -1;
  ASSERT_EQ(0, velna_launch(holder.c_str(), nullptr, &pid, nullptr));
  wm.addWindow(pid, false);
  wm.focus(pid);
  mark = log.size();
  const LogRecord sent = LogI("_sendDataToApp", "Send data Message Port " + app);
  ASSERT_TRUE(waitFor(sent, mark, 10000)) << log.dump();
  EXPECT_TRUE(log.sequence(
      {LogD("_appFocusedMonitoringCb", app + " is focused successfully.. try to connect app"),
       LogE("_connectApp",
            "App state request recieved for app:" + app + ", but app is not running"),
       LogD("_launchApp", "Sent app launch request for app:" + app),
       LogD("_appFocusedMonitoringCb", "monitoring app:" + app),
       LogD("_monitorAppLaunch", "_monitorAppLaunch"),
       LogD("_appLaunchMonitoringCb", app + " is launched successfully.."), sent},
      mark));
  EXPECT_TRUE(ipc->appFocusedInfoMap.empty());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
}

}  // namespace
