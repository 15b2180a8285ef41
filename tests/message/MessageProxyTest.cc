// The proxy of interface "message" against real app processes: the rpc-port sample app
// (mode "sdk") and the test app serving the interface by hand (the other modes).

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "message/message.h"

namespace {

using rpc_port::message::proxy::message;
using testsupport::RunLoopUntil;
namespace proxy = rpc_port::message::proxy;
using Strings = std::vector<std::string>;

constexpr const char *kClientId = "org.velna.test.client";
constexpr const char *kAppId = "org.velna.test.messageapp";
constexpr int kConnectMs = 20000;

struct Listener : message::IEventListener {
  int connected = 0, disconnected = 0;
  bool throwOnConnected = false;
  void OnConnected() override {
    ++connected;
    if (throwOnConnected) throw std::runtime_error("listener failure");
  }
  void OnDisconnected() override { ++disconnected; }
  void OnRejected() override {}
};

// What a delegate saw; outlives the delegate, which the proxy owns and destroys.
struct Seen {
  Strings ids, payloads, commands;
  bool destroyed = false;
};

struct Recorder : message::ResponseCB {
  Recorder(std::shared_ptr<Seen> seen, bool once) : ResponseCB(once), seen(seen) {}
  ~Recorder() override { seen->destroyed = true; }
  void OnReceived(std::string id, bundle *msg) override {
    seen->ids.push_back(id);
    seen->payloads.push_back(testsupport::GetStr(msg, "result"));
    seen->commands.push_back(testsupport::GetStr(msg, "commands"));
  }
  std::shared_ptr<Seen> seen;
};

std::unique_ptr<message::ResponseCB> NewRecorder(std::shared_ptr<Seen> seen, bool once = false) {
  return std::make_unique<Recorder>(seen, once);
}

class MessageProxy : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kClientId, 1);
    Install(kAppId);
  }

  void Install(const std::string &appId, const std::string &allowedClients = "",
               const std::string &mode = "lax") {
    setenv("TEST_APP_MODE", mode.c_str(), 1);
    env.install({appId, appId, "", mode == "sdk" ? RPC_COMPANION_EXEC : TEST_APP, allowedClients, {}});
  }

  // A connected proxy to appId, whose app runs in mode.
  std::unique_ptr<message> Connected(const std::string &mode, const std::string &appId = kAppId) {
    Install(appId, "", mode);
    auto proxy = std::make_unique<message>(&listener, appId);
    int before = listener.connected;
    proxy->Connect();
    EXPECT_TRUE(RunLoopUntil([&] { return listener.connected > before; }, kConnectMs));
    return proxy;
  }

  // Registers a new recording delegate, expecting SetCB's result; what it will see.
  static std::shared_ptr<Seen> Register(message &proxy, int result = 0, bool once = false) {
    auto seen = std::make_shared<Seen>();
    auto delegate = NewRecorder(seen, once);
    EXPECT_EQ(proxy.SetCB(delegate), result);
    EXPECT_EQ(delegate, nullptr) << "the proxy owns the delegate, whatever the result";
    return seen;
  }

  static void Send(message &proxy, const std::string &steps, const std::string &payload, int count = 1) {
    auto msg = testsupport::MakeBundle({{"do", steps}, {"sample_result", payload}, {"count", std::to_string(count)}});
    proxy.Send(msg.get());
  }

  static bool WaitFor(const std::shared_ptr<Seen> &seen, size_t answers) {
    return RunLoopUntil([&] { return seen->payloads.size() >= answers; }, 10000);
  }

  // A proxy log line "message.cc: <operation>(<line>) > <text>" at error priority.
  bool HasProxyLine(const std::string &operation, const std::string &text) const {
    const std::string head = "message.cc: " + operation + "(", tail = ") > " + text;
    return log.has(testsupport::LogCapture::Match([&](const testsupport::LogLine &l) {
      const size_t end = l.message.find_first_not_of("0123456789", head.size());
      return l.tag == "RPC_PORT_PROXY" && l.prio == DLOG_ERROR && l.message.rfind(head, 0) == 0 &&
             end > head.size() && end != std::string::npos && l.message.substr(end) == tail;
    }));
  }

  testsupport::TempEnv env;
  testsupport::LogCapture log;
  Listener listener;
};

TEST_F(MessageProxy, DelegatesAreNumberedFromZeroAcrossConnections) {
  auto first = Connected("sdk");
  auto second = Connected("sdk", "org.velna.test.messageapp2");
  auto a = std::make_shared<Seen>(), b = std::make_shared<Seen>();
  auto delegateA = NewRecorder(a), delegateB = NewRecorder(b);
  EXPECT_EQ(delegateA->GetTag(), "1::0");
  EXPECT_EQ(delegateB->GetTag(), "1::1");
  EXPECT_EQ(first->SetCB(delegateA), 0);
  EXPECT_EQ(second->SetCB(delegateB), 0);
  auto delegateC = NewRecorder(a);
  EXPECT_EQ(delegateC->GetSeq(), 2);

  Send(*first, "answer", "to-first");
  Send(*second, "answer", "to-second");
  ASSERT_TRUE(WaitFor(a, 1) && WaitFor(b, 1));
  EXPECT_EQ(a->payloads, Strings{"to-first"});
  EXPECT_EQ(b->payloads, Strings{"to-second"});
  EXPECT_EQ(b->ids, Strings{"org.velna.test.messageapp2"});
}

// The sample app answers SetCB and UnsetCB with 7, forgets a connection's delegates on
// UnsetCB, and invokes the delegates in registration order.
TEST_F(MessageProxy, SetCBReturnsTheAppsValueKeepingTheDelegateAndListenerExceptionsStayInside) {
  setenv("TALVO_SAMPLE_SETCB_RESULT", "7", 1);
  listener.throwOnConnected = true;
  auto proxy = Connected("sdk");
  EXPECT_TRUE(log.has("Exception in the connected event"));
  auto seen = Register(*proxy, 7);  // the port was stored before the listener ran
  Send(*proxy, "answer", "hello");
  Send(*proxy, "answer", "hello");
  ASSERT_TRUE(WaitFor(seen, 2));
  EXPECT_EQ(seen->ids, (Strings{kAppId, kAppId}));

  EXPECT_EQ(proxy->UnsetCB(), 7);
  auto after = Register(*proxy, 7);
  Send(*proxy, "answer", "x");
  ASSERT_TRUE(WaitFor(after, 1));
  EXPECT_EQ(seen->payloads, (Strings{"hello", "hello"}));
}

TEST_F(MessageProxy, UnsetCBAndAFailedResultWaitLeaveTheDelegateAndSendNeverReadsTheMainPort) {
  auto proxy = Connected("lax");
  auto seen = Register(*proxy);

  // The app answers this Send with a Result parcel on the main port: UnsetCB finds it
  // there only if Send left the main port alone.
  Send(*proxy, "stray-result", "");
  EXPECT_EQ(proxy->UnsetCB(), 55);
  EXPECT_EQ(proxy->UnsetCB(), 0);  // the answer of the first UnsetCB

  Send(*proxy, "answer", "still-here");
  ASSERT_TRUE(WaitFor(seen, 1));
  EXPECT_EQ(seen->payloads, Strings{"still-here"});
  EXPECT_FALSE(seen->destroyed);

  auto failing = Connected("exit-on-register", "org.velna.test.messageapp2");
  auto kept = std::make_shared<Seen>();
  auto delegate = NewRecorder(kept);
  EXPECT_THROW(failing->SetCB(delegate), rpc_port::message::proxy::InvalidProtocolException);
  EXPECT_EQ(delegate, nullptr);
  EXPECT_TRUE(HasProxyLine("SetCB", "Invalid protocol"));
  EXPECT_FALSE(kept->destroyed);

  // The disconnection empties the delegate list, so the delegate was in it.
  ASSERT_TRUE(RunLoopUntil([&] { return listener.disconnected == 1; }, 5000));
  EXPECT_TRUE(kept->destroyed);
}

// The refusals that raise (-22, -13, -5) are pinned through the IPC component's connect;
// any other refusal is only logged.
TEST_F(MessageProxy, CallsBeforeTheConnectedEventThrowAndARefusedConnectOnlyLogs) {
  message proxy(&listener, kAppId);
  auto seen = std::make_shared<Seen>();
  auto delegate = NewRecorder(seen);
  EXPECT_THROW(proxy.Send(testsupport::MakeBundle().get()), proxy::NotConnectedSocketException);
  proxy.Connect();
  EXPECT_THROW(proxy.SetCB(delegate), proxy::NotConnectedSocketException);
  EXPECT_THROW(proxy.UnsetCB(), proxy::NotConnectedSocketException);
  ASSERT_NE(delegate, nullptr);  // still the caller's
  for (const char *operation : {"Send", "SetCB", "UnsetCB"})
    EXPECT_TRUE(HasProxyLine(operation, "Not connected")) << operation;

  ASSERT_TRUE(RunLoopUntil([&] { return listener.connected == 1; }, kConnectMs));
  ASSERT_EQ(proxy.SetCB(delegate), 0);
  Send(proxy, "answer", "");
  ASSERT_TRUE(WaitFor(seen, 1));
  EXPECT_EQ(seen->commands, Strings{"2,4"});

  std::string deep = env.root() + "/" + std::string(100, 'd');
  ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  setenv("VELNA_RUNTIME_DIR", deep.c_str(), 1);  // no room left for socket names: -36
  message cramped(&listener, kAppId);
  EXPECT_NO_THROW(cramped.Connect());
  EXPECT_TRUE(HasProxyLine("Connect", "Failed to connect message")) << log.dump();
}

// The app sends a callback parcel on the main port before SetCB's result, which the result
// wait discards; then it invokes every delegate it knows, twice per "answer", ignoring the
// once flag. A once delegate hears only its first invocation; delegates disposed by tag or
// unknown, and other commands, hear nothing; an unreadable id drops its invocation alone.
TEST_F(MessageProxy, OnlyRegisteredDelegatesHearTheirInvocationsAndAOnceDelegateOnlyOne) {
  setenv("MESSAGE_TEST_APP_REGISTER_RESULT", "3", 1);
  auto proxy = Connected("callback-first");
  auto once = Register(*proxy, 3, true), many = Register(*proxy, 3), disposed = Register(*proxy, 3);
  proxy->DisposeCallback("1::999");
  EXPECT_FALSE(disposed->destroyed);
  proxy->DisposeCallback("1::2");  // the third delegate of this process
  EXPECT_TRUE(disposed->destroyed);

  Send(*proxy, "unknown-seq,wrong-command,answer", "p", 2);
  ASSERT_TRUE(WaitFor(many, 2));
  for (const auto &line : log.lines()) EXPECT_NE(line.tag, "RPC_PORT_PROXY") << line.message;
  EXPECT_EQ(once->payloads, Strings{"p"});
  EXPECT_TRUE(once->destroyed && !many->destroyed);
  EXPECT_TRUE(disposed->payloads.empty());

  Send(*proxy, "unreadable-string,answer", "q");
  ASSERT_TRUE(WaitFor(many, 3));
  EXPECT_EQ(many->payloads, (Strings{"p", "p", "q"}));
  EXPECT_TRUE(HasProxyLine("OnReceivedEvent", "Failed to read the id of callback 1::1, dropped"))
      << log.dump();
}

}  // namespace
