// TalvoProxyIpc in a client process of its own, against the sample and test apps as real
// processes.
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
constexpr bool kAction = false, kState = true;  // the two kinds of chunked answer

std::string S(const char *text) { return text; }
const char *PieceKey(bool state) { return state ? "app_state_chunk_result" : "chunk_result"; }
const char *MarkerKey(bool state) { return state ? "app_state_last_chunk" : "last_chunk"; }

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
  // Every answer the handler got, in order: its app and the value under its key.
  struct Expected {
    std::string appId, key, value;
  };
  void expectAnswers(const std::vector<Expected> &expected) {
    ASSERT_EQ(expected.size(), answers.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(expected[i].appId, answers[i].appId) << i;
      EXPECT_EQ(expected[i].value, answers[i].str(expected[i].key)) << i;
    }
  }

  // A message as an app sends it to the library's port; a piece of a chunked answer of
  // either kind adds its bytes and its marker to message.
  void receive(bundle *message, const char *sender = kSender) {
    TalvoProxyIpc::_appResultReceivedCb(1, sender, nullptr, false, message, ipc);
  }
  void receivePiece(bool state, const std::string &piece, const char *marker,
                    BundlePtr message = MakeBundle(), const char *sender = kSender) {
    bundle_add_byte(message.get(), PieceKey(state), piece.data(), piece.size());
    bundle_add_str(message.get(), MarkerKey(state), marker);
    receive(message.get(), sender);
  }

  TempEnv env;
  LogCapture log;
  TalvoProxyIpc *ipc = nullptr;
  std::vector<Answer> answers;
  int presentInsideEvent = 0;
};

// Lookups and removals of an unknown app log their errors and change nothing. A client
// that is not connected refuses sends; deinitialization ends the launch waits and the
// clients, not the focus waits.
TEST_F(IpcTest, UnknownAppsAndUnconnectedClientsRefuseAndDeinitializeKeepsOnlyFocusWaits) {
  const std::string app = "org.velna.test.unknown";
  BundlePtr data = RequestWithMetadata("1.0", "cap", "1.1.0");
  ASSERT_NE(nullptr, TalvoProxyCommonData::getInstance()->ExtractMetaData(app, data.get()));
  log.clear();

  EXPECT_EQ(nullptr, ipc->GetClientInfo(""));
  EXPECT_EQ(nullptr, ipc->GetClientInfo(app));
  EXPECT_EQ(nullptr, ipc->GetAppLaunchInfo(app));
  ipc->ClientRemove(app);
  for (ClientRemoveData *removal : {new ClientRemoveData{ipc, app}, (ClientRemoveData *)nullptr,
                                    new ClientRemoveData{nullptr, app}})
    EXPECT_EQ(G_SOURCE_REMOVE, TalvoProxyIpc::_clientRemoveCb(removal));
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

  // Marked connected while its proxy still connects, the client's Send raises; the copy
  // made for it is freed all the same (the sanitized run would report it).
  ipc->ipcMechanism = IPC_MECHANISM_VIDL;
  int mark = log.size();
  EXPECT_EQ(-22, ipc->_sendDataToApp(kRpcApp, rpcRequest.get()));
  ipc->GetClientInfo(kRpcApp)->connected = true;
  EXPECT_EQ(-1073741826, ipc->_sendDataToApp(kRpcApp, rpcRequest.get()));
  EXPECT_TRUE(log.sequence({LogE("_sendDataToApp", S(kRpcApp) + " is not connected"),
                            LogD("_sendDataToApp", "Send data start "),
                            LogE("_sendDataToApp", "Failed to NotConnectedSocketException")},
                           mark));
  EXPECT_FALSE(log.has(LogI("_sendDataToApp", "Send data end")));

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty() && ipc->clientsMap.empty());
  ASSERT_EQ(1u, ipc->appFocusedInfoMap.size());
  EXPECT_EQ(0, ipc->localPortId);
  // The focus wait runs on and ends (this process has no bus to ask for the focus).
  mark = log.size();
  RunLoopFor(800);
  EXPECT_EQ(0, log.countFrom("_appLaunchMonitoringCb", mark));
  EXPECT_NE(0, log.countFrom("_appFocusedMonitoringCb", mark));
  EXPECT_TRUE(answers.empty() && ipc->appFocusedInfoMap.empty());

  EXPECT_EQ(0, ipc->initialize());
  EXPECT_GT(ipc->localPortId, 0);
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_TRUE(log.has(LogE("initialize", "TalvoProxyIpc has been already initialized")));
}

// Messages are classified by their keys: a context (or its marker) makes a state answer,
// also when a result comes with it; neither key, or no sender, drops the message. Pieces
// are joined up to a final piece marked with a lowercase "true", whose answer carries the
// joined text (up to a context of its own) instead of the piece keys. A null handler is
// refused and keeps the registered one, which records every answer here.
TEST_F(IpcTest, MessagesAreClassifiedByTheirKeysAndPiecesJoinedWithoutTheirKeys) {
  const std::string fn = "_processAppResultPort";
  EXPECT_EQ(-22, ipc->setIPCMessageReceivedCallback(nullptr, nullptr));
  receivePiece(kAction, "ab", "false");
  receivePiece(kAction, "cd", "TRUE");
  BundlePtr unknown = MakeBundle({{"status_code", "X"}, {"status_msg", "only status"}});
  receive(unknown.get());
  BundlePtr anonymous = MakeBundle({{"result", "r"}});
  receive(anonymous.get(), nullptr);
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(log.sequence({LogE("setIPCMessageReceivedCallback", "Callback null."),
                            LogE(fn, S("Unknown message recieved from app:") + kSender),
                            LogE("_appResultReceivedCb", "Message without a sender app id dropped")}));
  receivePiece(kAction, "ef", "true", MakeBundle({{"status_code", "ACTION_EXECUTION_SUCCESS"}}));
  EXPECT_TRUE(log.sequence(
      {LogD(fn, S("Request Execution Result Recieved from ") + kSender),
       LogD(fn, "Status Code:ACTION_EXECUTION_SUCCESS"), LogD(fn, "Status Message:(null)"),
       LogD(fn, S("[App Result received] : Message from ") + kSender),
       LogD(fn, "[Received Data with len:6]------------------------------------------")}));

  receivePiece(kAction, "gh", "false");
  BundlePtr lastWithoutBytes = MakeBundle({{"last_chunk", "true"}});
  receive(lastWithoutBytes.get());
  BundlePtr plain = MakeBundle({{"result", "x"}});
  receive(plain.get());
  receivePiece(kState, "{\"con", "false");
  receivePiece(kState, "cepts\":1}", "true");
  receivePiece(kState, "joined", "false");
  receivePiece(kState, "", "true", MakeBundle({{"appContext", "own"}, {"result", "r"}}));
  // Over rpc-port the same rule holds.
  BundlePtr neither = MakeBundle({{"status_code", "X"}});
  ipc->_processAppResult(kSender, neither.get());
  BundlePtr both = MakeBundle({{"appContext", "{}"}, {"result", "r"}});
  ipc->_processAppResult(kSender, both.get());

  expectAnswers({{kSender, "result", "abcdef"},
                 {kSender, "result", "gh"},
                 {kSender, "result", "x"},
                 {kSender, "appContext", "{\"concepts\":1}"},
                 {kSender, "appContext", "own"},
                 {kSender, "appContext", "{}"}});
  EXPECT_EQ((std::map<std::string, std::string>{{"result", "abcdef"},
                                                {"status_code", "ACTION_EXECUTION_SUCCESS"}}),
            answers[0].strings);
  for (int i : {0, 3}) EXPECT_TRUE(answers[i].bytes.empty()) << i;
  EXPECT_EQ(1u, answers[3].strings.size());
  EXPECT_EQ(2u, answers[4].strings.size());
  EXPECT_TRUE(log.has(LogD(fn, "[Received Data with len:0]------------------------------------------")));
  EXPECT_TRUE(log.sequence({LogE("_processAppResult", S("Unknown message recieved from app:") + kSender),
                            LogD("_processAppResult", "Function _processAppResult End")}));
  EXPECT_EQ(1, log.count(LogD("_processAppResult", "Function _processAppResult End")));
}

// Two bytes past the 128 MiB cap, the sender's answer is dropped with its later pieces up
// to its own final one; or up to a plain answer of that kind from any app; or up to a
// piece from another app, which starts that app's answer. Each kind drops on its own.
TEST_F(IpcTest, AnswerUpToTheCapIsJoinedAndOnePastItIsDroppedUntilItsEnd) {
  // A first piece one byte short of the cap; its text ends at the zero byte after "ab".
  auto nearlyFull = [](bool state) {
    std::string big(128u * 1024u * 1024u - 1, '\0');
    big[0] = 'a';
    big[1] = 'b';
    BundlePtr b = MakeBundle({{MarkerKey(state), "false"}});
    bundle_add_byte(b.get(), PieceKey(state), big.data(), big.size());
    return b;
  };
  BundlePtr full = nearlyFull(kAction);
  receive(full.get());
  receivePiece(kAction, "c", "true");

  auto passCap = [&](bool state) {
    receive(full.get());
    receivePiece(state, "cd", "false");
  };
  passCap(kAction);
  EXPECT_TRUE(log.has("Chunked answer from app:"));
  receivePiece(kAction, "tail", "false");
  receivePiece(kAction, "tail", "true");
  receivePiece(kAction, "xy", "true");

  passCap(kAction);
  BundlePtr plain = MakeBundle({{"result", "plain"}});
  receive(plain.get(), kOther);
  receivePiece(kAction, "ef", "true");

  passCap(kAction);
  receivePiece(kAction, "gh", "true", MakeBundle(), kOther);

  full = nullptr;  // one 128 MiB piece in memory at a time
  full = nearlyFull(kState);
  passCap(kState);
  BundlePtr plainState = MakeBundle({{"appContext", "{}"}});
  receive(plainState.get(), kOther);
  receivePiece(kState, "{\"s\":1}", "true");

  expectAnswers({{kSender, "result", "ab"},
                 {kSender, "result", "xy"},
                 {kOther, "result", "plain"},
                 {kSender, "result", "ef"},
                 {kOther, "result", "gh"},
                 {kOther, "appContext", "{}"},
                 {kSender, "appContext", "{\"s\":1}"}});
}

// The package manager names the package, the app information its alias package: the app is
// an alias when the package does not begin with the alias package. Installed without Exec,
// every app's launch is refused, with or without the alias path.
TEST_F(IpcTest, AliasAppIsLaunchedFirstARefusedLaunchFailsAndAPortlessAppGetsNoStateRequest) {
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

  // The app runs but has not registered its port: a state request is neither sent nor
  // retried; an action waits for the port without a launch request.
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

// The app first exits before it opens its port, so the platform rejects the connection.
// Then a second request during the launch replaces the waiting one, which is never sent;
// the app serves it and crashes on a later one. Seen from inside the event that reports
// a loss, the client is still there; it goes on a later loop turn with the metadata.
TEST_F(IpcTest, RpcPortAppIsConnectedOnDemandAndRemovedOnALaterTurnAfterALoss) {
  auto present = [this] { return ipc->clientsMap.count(kRpcApp) != 0; };
  log.probe = [this, present](const std::string &message) {
    if (message.find("is OnRejected") != message.npos ||
        message.find("is OnDisconnected") != message.npos)
      presentInsideEvent += present() ? 1 : 100;
  };
  const std::string app = kRpcApp;
  env.installSample(kRpcApp, "/bin/false");
  BundlePtr replaced = MakeBundle({{"actionId", "replaced"}});
  ASSERT_EQ(0, send(app, replaced.get()));
  ASSERT_TRUE(present());
  ASSERT_TRUE(RunLoopUntil([&] { return !present(); }, 8000));
  EXPECT_EQ(1, presentInsideEvent);
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(log.sequence({LogI("OnRejected", "(" + app + ") is OnRejected"),
                            LogD("_clientRemoveCb", "Callback _clientRemoveCb - (" + app + ")"),
                            LogD("_clientRemoveCb", "RemoveCb clientMap size(0)"),
                            LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)")}));
  EXPECT_EQ(nullptr, metaDataOf(app));

  env.installSample(kRpcApp);
  BundlePtr request = MakeBundle({{"actionId", "setAlarm"}, {"sample_echo", "1"}});
  bundle_add_byte(request.get(), "blob", "\x01\x00\x02", 3);
  const char *list[] = {"a", "b"};
  bundle_add_str_array(request.get(), "list", list, 2);
  ASSERT_EQ(0, send(app, replaced.get()));
  ASSERT_EQ(0, send(app, request.get()));
  EXPECT_TRUE(log.sequence(
      {LogD("_connectApp", "app launch for app:" + app + " already in progress"),
       LogD("_updateAppLaunchInfo", "Function _updateAppLaunchInfo " + app)}));
  ASSERT_EQ(1u, ipc->clientsMap.size());
  EXPECT_FALSE(ipc->GetClientInfo(app)->connected);
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(app));

  // Well before the 10-second launch timer could fire.
  ASSERT_TRUE(waitForAnswers(1)) << log.dump();
  EXPECT_EQ(app, answers[0].appId);
  EXPECT_NE(std::string::npos, answers[0].str("result").find("setAlarm"));
  const std::string echo = answers[0].str("echo");
  EXPECT_TRUE(echo.find("blob:byte:3") != echo.npos && echo.find("list") == echo.npos) << echo;
  EXPECT_TRUE(log.has("Key value is array type"));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());

  // Connecting an app whose client waits for nothing replaces that client and drops the
  // app's metadata; the new connection finds no request waiting.
  int mark = log.size();
  ASSERT_EQ(0, ipc->_connectApp(app));
  EXPECT_EQ(nullptr, metaDataOf(app));
  ASSERT_EQ(1u, ipc->clientsMap.size());
  EXPECT_FALSE(ipc->GetClientInfo(app)->connected);
  ASSERT_TRUE(waitFor(LogE("OnConnected", "appLaunchInfo is null"), mark)) << log.dump();
  EXPECT_EQ(1u, answers.size());
  EXPECT_TRUE(log.sequence(
      {LogD("ClientRemove", "Remove clientMap size(0)"),
       LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)"),
       LogD("_connectApp", "Insert size(1), mapInsertBool(1)"),
       LogI("OnConnected", "(" + app + ") is OnConnected"),
       LogE("GetAppLaunchInfo", "couldn't find corresponding map entry for the app:" + app),
       LogE("OnConnected", "appLaunchInfo is null")},
      mark));
  EXPECT_TRUE(ipc->GetClientInfo(app)->connected);

  BundlePtr crash = MakeBundle({{"actionId", "crash"}, {"sample_reply", "crash"}});
  ASSERT_EQ(0, send(app, crash.get()));
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());  // sent at once, no launch wait
  mark = log.size();
  ASSERT_TRUE(RunLoopUntil([&] { return !present(); }, 8000));
  EXPECT_EQ(2, presentInsideEvent);
  EXPECT_TRUE(log.sequence({LogI("OnDisconnected", "(" + app + ") is OnDisconnected"),
                            LogD("_clientRemoveCb", "Callback _clientRemoveCb - (" + app + ")"),
                            LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(0)")},
                           mark));
  EXPECT_EQ(nullptr, metaDataOf(app));
}

// The platform refuses the connection at once: an app that is not installed, an app that
// does not allow this client, a runtime directory that cannot be made. An app that refuses
// the delegate (SetCB answers 1) leaves the client unconnected, and the launch wait answers
// with the library's failure after its 10 s.
TEST_F(IpcTest, RefusedConnectionRemovesTheClientAtOnceAndARefusedDelegateAtTheWaitsEnd) {
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

  setenv("MESSAGE_TEST_APP_REGISTER_RESULT", "1", 1);
  const std::string app = "org.velna.test.refusing";
  installApp(app, "1.1.0", S(TEST_APP) + " lax");
  BundlePtr request = MakeBundle({{"actionId", "a"}});
  ASSERT_EQ(0, send(app, request.get()));
  ASSERT_TRUE(waitFor(LogE("OnConnected", "Fail to SetCB for (" + app + ")"))) << log.dump();
  ASSERT_NE(nullptr, ipc->GetClientInfo(app));
  EXPECT_FALSE(ipc->GetClientInfo(app)->connected);
  ASSERT_NE(nullptr, ipc->GetAppLaunchInfo(app));

  ASSERT_TRUE(waitForAnswers(1, 20000)) << log.dump();
  EXPECT_EQ(app, answers[0].appId);
  EXPECT_EQ("{\"result\":\"Failure\"}", answers[0].str("result"));
  EXPECT_TRUE(ipc->clientsMap.empty() && ipc->appLaunchInfoMap.empty());
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
       LogD("_launchApp", "launch app " + app),
       LogD("_launchApp", "Sent app launch request for app:" + app),
       LogD("_appFocusedMonitoringCb", "monitoring app:" + app),
       LogD("_monitorAppLaunch", "_monitorAppLaunch"),
       LogI("_appLaunchMonitoringCb", "_appLaunchMonitoringCb"),
       LogD("_isConnectedToApp", app + "'s connection status:1"),
       LogD("_appLaunchMonitoringCb", app + " is launched successfully.."), sent},
      mark));
  RunLoopFor(200);
  EXPECT_EQ(1, log.count(sent));
  EXPECT_TRUE(ipc->appFocusedInfoMap.empty());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
}

}  // namespace
