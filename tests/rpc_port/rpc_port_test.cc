// rpc-port between this process (proxy) and the test app (stub, mode "echo"), against
// hostile peers played by this process on raw sockets, and parcels in memory.
#include <app_info.h>
#include <app_manager.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <rpc-port.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "RawSocket.h"
#include "TempEnv.h"
extern "C" {
#include "rpc_port_internal.h"
#include "runtime_internal.h"
}

using namespace testsupport;

namespace {

constexpr const char *kClientId = "test.client";
constexpr const char *kEchoApp = "test.echo";
constexpr const char *kPortName = "echo";
constexpr int kMain = RPC_PORT_PORT_MAIN, kCb = RPC_PORT_PORT_CALLBACK;

// The commands of the test app's "echo" mode.
enum Command { kResult = 0, kInvoke = 1, kEcho = 1, kCallback = 2, kSilent = 3, kCrash = 4 };

struct ParcelDeleter { void operator()(rpc_port_parcel_s *p) const { rpc_port_parcel_destroy(p); } };
using Parcel = std::unique_ptr<rpc_port_parcel_s, ParcelDeleter>;
using Strings = std::vector<std::string>;

// Takes the next parcel of port into *out when given; a failure yields null.
int Take(rpc_port_h port, Parcel *out = nullptr) {
  Parcel dropped;
  if (!out) out = &dropped;
  rpc_port_parcel_h raw = nullptr;
  int r = rpc_port_parcel_create_from_port(&raw, port);
  EXPECT_TRUE(r == 0 || raw == nullptr);
  out->reset(raw);
  return r;
}

Parcel NewParcel() {
  rpc_port_parcel_h p = nullptr;
  EXPECT_EQ(rpc_port_parcel_create(&p), 0);
  return Parcel(p);
}

BundlePtr BundleWith(const std::string &value) { return MakeBundle({{"v", value}}); }

// The next field of p, or "<failed>" (-99 for an int).
int ReadInt(rpc_port_parcel_h p) {
  int v = 0;
  return rpc_port_parcel_read_int32(p, &v) == 0 ? v : -99;
}
std::string ReadStr(rpc_port_parcel_h p) {
  char *s = nullptr;
  std::string out = rpc_port_parcel_read_string(p, &s) == 0 ? s : "<failed>";
  free(s);
  return out;
}
std::string ReadBundleValue(rpc_port_parcel_h p) {
  bundle *b = nullptr;
  return rpc_port_parcel_read_bundle(p, &b) == 0 ? GetStr(BundlePtr(b).get(), "v") : "<failed>";
}

// Sends a command parcel on port: the command, then text and b when given.
int SendCommand(rpc_port_h port, int command, const char *text = nullptr, bundle *b = nullptr) {
  Parcel p = NewParcel();
  rpc_port_parcel_write_int32(p.get(), command);
  if (text) rpc_port_parcel_write_string(p.get(), text);
  if (b) rpc_port_parcel_write_bundle(p.get(), b);
  return rpc_port_parcel_send(p.get(), port);
}

// One proxy and what its events reported. A hook runs inside its event, after counting;
// without onReceived, the received event reads one invocation from the callback port.
class Client {
 public:
  Client() {
    EXPECT_EQ(rpc_port_proxy_create(&proxy), 0);
    rpc_port_proxy_add_connected_event_cb(proxy, OnConnected, this);
    rpc_port_proxy_add_disconnected_event_cb(proxy, Counter<&Client::disconnected>, this);
    rpc_port_proxy_add_rejected_event_cb(proxy, Counter<&Client::rejected>, this);
    rpc_port_proxy_add_received_event_cb(proxy, OnReceived, this);
  }
  ~Client() { destroy(); }
  Client(const Client &) = delete;

  int connect(const char *app = kEchoApp) { return rpc_port_proxy_connect(proxy, app, kPortName); }
  bool waitConnected(int ms = 10000) {
    return RunLoopUntil([this] { return connected > 0 || rejected > 0; }, ms) && connected > 0;
  }
  bool open() { return connect() == 0 && waitConnected(); }
  void destroy() {
    if (proxy) rpc_port_proxy_destroy(proxy);
    proxy = nullptr;
  }
  int events() const { return connected + disconnected + rejected + received; }

  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h port = nullptr;  // the main port given by the connected event
  int connected = 0, disconnected = 0, rejected = 0, received = 0;
  Strings invocations;  // "v" of each bundle read from the callback port
  std::function<void()> onConnected, onReceived;

 private:
  template <int Client::*count>
  static void Counter(const char *, const char *, void *data) {
    static_cast<Client *>(data)->*count += 1;
  }
  static void OnConnected(const char *, const char *port_name, rpc_port_h port, void *data) {
    Client *c = static_cast<Client *>(data);
    EXPECT_STREQ(port_name, kPortName);
    c->connected++;
    c->port = port;
    if (c->onConnected) c->onConnected();
  }
  static void OnReceived(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->received++;
    if (c->onReceived) return c->onReceived();
    rpc_port_h cb = nullptr;
    ASSERT_EQ(rpc_port_proxy_get_port(c->proxy, RPC_PORT_PORT_CALLBACK, &cb), 0);
    Parcel p;
    ASSERT_EQ(Take(cb, &p), 0);
    EXPECT_EQ(ReadInt(p.get()), kInvoke);
    c->invocations.push_back(ReadBundleValue(p.get()));
  }
};

class RpcPort : public ::testing::Test {
 protected:
  RpcPort() {
    setenv("VELNA_APP_ID", kClientId, 1);
    setenv("TEST_APP_MODE", "echo", 1);
    unsetenv("VELNA_RPC_TIMEOUT_MS");
    env_.install({kEchoApp, "org.test.echo", "", TEST_APP, "", {}});
  }

  TempEnv env_;
};

// Echoes text and a bundle over the main port and reads the answer synchronously.
void ExpectEcho(rpc_port_h port, const std::string &text) {
  Parcel answer;
  EXPECT_EQ(SendCommand(port, kEcho, text.c_str(), BundleWith(text + "-bundle").get()), 0);
  EXPECT_EQ(Take(port, &answer), 0);
  EXPECT_EQ(ReadInt(answer.get()), kResult);
  EXPECT_EQ(ReadStr(answer.get()), text);
  EXPECT_EQ(ReadBundleValue(answer.get()), text + "-bundle");
}

std::string SocketPath(const char *app) { return SocketOf(RPC_PORT_SOCKET_KIND, app, kPortName); }

static_assert(kFrameMagic == VELNA_FRAME_MAGIC, "the raw peer writes the channels' magic");
std::string Hello(int kind, const std::string &instance) {
  return Frame(RPC_PORT_HANDSHAKE_MAGIC + std::string{char(kind), char(instance.size())} + instance);
}
std::string Ack(int kind) {
  return Frame(RPC_PORT_HANDSHAKE_MAGIC + std::string{char(kind), char(RPC_PORT_ACK_OK)});
}

TEST_F(RpcPort, ConnectedAppAnswersOnTheMainPortWithinTheTimeoutAndInvokesOnTheCallbackPort) {
  Client c;
  ASSERT_EQ(c.connect(), 0);
  EXPECT_EQ(c.events(), 0) << "the outcome is an event of a later loop turn";
  ASSERT_TRUE(c.waitConnected());
  ExpectEcho(c.port, "first");
  ExpectEcho(c.port, std::string(100000, 'x'));
  EXPECT_EQ(c.received, 0) << "answers on the main port raise no event";
  struct stat st;
  EXPECT_TRUE(stat(SocketPath(kEchoApp).c_str(), &st) == 0 && (st.st_mode & 07777) == 0600)
      << "the app's socket answers only its owner";

  for (const char *v : {"one", "two", "three"})
    ASSERT_EQ(SendCommand(c.port, kCallback, nullptr, BundleWith(v).get()), 0);
  EXPECT_TRUE(RunLoopUntil([&] { return c.invocations == Strings{"one", "two", "three"}; }, 5000));

  // A silent app fails the synchronous read after VELNA_RPC_TIMEOUT_MS, and only the read.
  setenv("VELNA_RPC_TIMEOUT_MS", "300", 1);
  ASSERT_EQ(SendCommand(c.port, kSilent), 0);
  gint64 start = g_get_monotonic_time();
  EXPECT_EQ(Take(c.port), -5);
  gint64 waitedMs = (g_get_monotonic_time() - start) / 1000;
  EXPECT_TRUE(waitedMs >= 250 && waitedMs < 5000) << waitedMs;
  ExpectEcho(c.port, "after the silence");
  EXPECT_EQ(c.disconnected, 0);
}

TEST_F(RpcPort, AppKilledMidConnectionDisconnectsWithoutLeakingDescriptors) {
  RunLoopFor(20);  // the loop's own descriptors exist before the count
  app_info_h info = nullptr;  // and so does the watch on the apps directory
  ASSERT_EQ(app_info_create(kEchoApp, &info), 0);
  app_info_destroy(info);
  int before = OpenFds();
  {
    Client c;
    ASSERT_TRUE(c.open());
    pid_t app = 0;
    ASSERT_EQ(running_registry_get_pid(kEchoApp, &app), 0);
    int exited = int(syscall(SYS_pidfd_open, app, 0));
    ASSERT_GE(exited, 0);
    ASSERT_EQ(SendCommand(c.port, kCrash), 0);

    // The app is gone before the loop lets the proxy notice: the next send meets a
    // closed socket, which must fail with a result instead of raising SIGPIPE.
    pollfd pfd{exited, POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 5000), 1);
    close(exited);
    BundlePtr big = BundleWith(std::string(300000, 'z'));
    int sent = 0;
    for (int i = 0; i < 4 && sent == 0; i++) sent = SendCommand(c.port, kEcho, "late", big.get());
    EXPECT_EQ(sent, -5);

    ASSERT_TRUE(RunLoopUntil([&] { return c.disconnected > 0; }, 5000));
    EXPECT_EQ(Take(c.port), -5);
    RunLoopFor(100);
    EXPECT_EQ(c.disconnected + c.rejected, 1);
  }
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(RpcPort, ConnectRefusesInvalidIdsAndUnusableRuntimeDirsAtOnce) {
  LogCapture log;
  Client c;
  EXPECT_EQ(c.connect("../escape"), -22);
  std::string deep = env_.root() + "/" + std::string(90, 'd');
  setenv("VELNA_RUNTIME_DIR", deep.c_str(), 1);
  EXPECT_EQ(c.connect(), -36);
  EXPECT_TRUE(log.has("leaves no room for socket names")) << log.dump();

  setenv("VELNA_RUNTIME_DIR", env_.runtimeDir().c_str(), 1);
  RunLoopFor(100);
  EXPECT_EQ(c.events(), 0);
  bool running = true;
  app_manager_is_running(kEchoApp, &running);
  EXPECT_FALSE(running) << "a refused connect launches nothing";
}

TEST_F(RpcPort, DestroyInsideTheConnectedOrReceivedEventEndsAllLaterEvents) {
  Client early, late;
  early.onConnected = [&] { early.destroy(); };
  late.onReceived = [&] { late.destroy(); };
  ASSERT_TRUE(late.open());
  ASSERT_EQ(early.connect(), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return early.connected > 0; }, 10000));
  for (const char *v : {"a", "b", "c"})
    ASSERT_EQ(SendCommand(late.port, kCallback, nullptr, BundleWith(v).get()), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return late.received > 0; }, 5000));

  EXPECT_EQ(app_manager_terminate_app(kEchoApp), 0);
  RunLoopFor(200);
  EXPECT_EQ(early.events(), 1);
  EXPECT_EQ(late.events(), 2) << "the parcels behind the destroying one are dropped";
}

// This process plays hostile proxies to the echo app, then the hostile app "test.fake".
TEST_F(RpcPort, HostilePeersOnEitherSideEndOnlyTheirOwnConnection) {
  env_.install({"test.fake", "org.test.fake", "", "", "", {}});
  Client bystander, spoiled;
  int stale = RawListen(SocketPath(kEchoApp));  // uncounted, as an instance on its way out
  ASSERT_GE(stale, 0);
  ASSERT_TRUE(bystander.open());
  close(stale);
  for (const std::string &bytes :
       {FrameHeader(0xFFFFFFF0u), Hello(kMain, "../.."), Hello(7, "abc"), std::string(64, '\xA5')}) {
    int fd = RawConnect(SocketPath(kEchoApp));
    ASSERT_TRUE(WriteAll(fd, bytes));
    EXPECT_EQ(ReadRaw(fd), "<eof>") << testing::PrintToString(bytes);
    close(fd);
  }
  int cut = RawConnect(SocketPath(kEchoApp));  // a truncated hello, then gone
  ASSERT_TRUE(WriteAll(cut, Hello(kMain, "cut-short").substr(0, 11)));
  close(cut);

  // A whole handshake, then a frame one past the cap.
  int mainFd = RawConnect(SocketPath(kEchoApp)), cbFd = RawConnect(SocketPath(kEchoApp));
  ASSERT_TRUE(WriteAll(mainFd, Hello(kMain, "raw-1")) && WriteAll(cbFd, Hello(kCb, "raw-1")));
  EXPECT_EQ(ReadRaw(mainFd, 14), Ack(kMain));
  EXPECT_EQ(ReadRaw(cbFd, 14), Ack(kCb));
  ASSERT_TRUE(WriteAll(mainFd, FrameHeader(RPC_PORT_MAX_PARCEL_SIZE + 1)));
  EXPECT_EQ(ReadRaw(mainFd), "<eof>");
  EXPECT_EQ(ReadRaw(cbFd), "<eof>");
  close(mainFd), close(cbFd);
  ExpectEcho(bystander.port, "unbothered");

  int listenFd = RawListen(SocketPath("test.fake"));  // the fake app: this process, counted as it
  ASSERT_TRUE(listenFd >= 0 && running_registry_register("test.fake", getpid()) == 0);
  ASSERT_EQ(spoiled.connect("test.fake"), 0);
  int fd[2] = {-1, -1};  // both channels, filed by the kind that their hellos name
  for (int n = 0, one = -1; n < 2; n++) {
    ASSERT_TRUE(RunLoopUntil([&] { return (one = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; }, 5000));
    std::string hello = ReadRaw(one, 8);
    hello = ReadRaw(one, uint8_t(hello[4]));
    fd[uint8_t(hello[4]) == kMain ? kMain : kCb] = one;
  }

  ASSERT_TRUE(WriteAll(fd[kCb], Ack(kCb)));
  RunLoopFor(50);
  EXPECT_EQ(spoiled.events(), 0) << "connected only once both channels are acknowledged";
  ASSERT_TRUE(WriteAll(fd[kMain], Frame("hello?")));
  ASSERT_TRUE(RunLoopUntil([&] { return spoiled.rejected > 0; }, 5000));
  for (int f : {fd[0], fd[1], listenFd}) close(f);
  ExpectEcho(bystander.port, "bystander");
  EXPECT_EQ(spoiled.events() + bystander.disconnected, 1);
}

TEST(Parcel, FieldsReadBackInOrderReadsPastTheEndYieldNothingAndGrowthStopsAtTheCap) {
  Parcel p = NewParcel();
  ASSERT_EQ(rpc_port_parcel_write_int32(p.get(), INT32_MIN), 0);
  ASSERT_EQ(rpc_port_parcel_write_bool(p.get(), true), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), ""), 0);
  ASSERT_EQ(rpc_port_parcel_write_bundle(p.get(), BundleWith("inside").get()), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), "only"), 0);

  bool flag = false;
  EXPECT_EQ(ReadInt(p.get()), INT32_MIN);
  EXPECT_TRUE(rpc_port_parcel_read_bool(p.get(), &flag) == 0 && flag);
  EXPECT_EQ(ReadStr(p.get()), "");
  EXPECT_EQ(ReadBundleValue(p.get()), "inside");

  // Of another type, or past the end: nothing, and the position stays.
  int i = 5;
  bundle *b = reinterpret_cast<bundle *>(1);
  char *s = reinterpret_cast<char *>(1);
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), -5);
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &b), -5);
  EXPECT_EQ(ReadStr(p.get()), "only");
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), -5);
  EXPECT_EQ(rpc_port_parcel_read_bool(p.get(), &flag), -5);
  EXPECT_TRUE(i == 0 && !b && !s && !flag) << "a failed read yields nothing";

  Parcel full = NewParcel();
  std::string big(RPC_PORT_MAX_PARCEL_SIZE - 16, 'x');
  ASSERT_EQ(rpc_port_parcel_write_string(full.get(), big.c_str()), 0);
  EXPECT_EQ(rpc_port_parcel_write_string(full.get(), "0123456789abcdef"), -90);
  EXPECT_EQ(rpc_port_parcel_write_int32(full.get(), 1), 0) << "what still fits is written";
  EXPECT_EQ(ReadStr(full.get()), big);
}

// The one wait of 30 s: a target that runs but never opens the port. One that exits
// before it listens, or cannot be launched, is rejected long before.
TEST_F(RpcPort, TargetIsRejectedSoonWhenItExitsOrCannotStartAndAfterThirtySecondsWhenItNeverListens) {
  setenv("TEST_APP_MODE", "idle", 1);
  env_.install({"test.exits", "org.test.exits", "", std::string(TEST_APP) + " exit", "", {}});
  env_.install({"test.noexec", "org.test.noexec", "", "", "", {}});
  Client idle, exits, noexec;
  ASSERT_EQ(idle.connect(), 0);
  gint64 start = g_get_monotonic_time();
  ASSERT_EQ(exits.connect("test.exits"), 0);
  ASSERT_EQ(noexec.connect("test.noexec"), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return exits.rejected > 0 && noexec.rejected > 0; }, 10000));

  ASSERT_FALSE(RunLoopUntil([&] { return idle.events() > 0; }, 27000)) << "rejected early";
  ASSERT_TRUE(RunLoopUntil([&] { return idle.rejected > 0; }, 10000));
  gint64 waitedS = (g_get_monotonic_time() - start) / G_USEC_PER_SEC;
  EXPECT_TRUE(waitedS >= 29 && waitedS < 38) << waitedS;
  EXPECT_EQ(idle.events() + exits.events() + noexec.events(), 3);
  bool running = false;
  app_manager_is_running(kEchoApp, &running);
  EXPECT_TRUE(running) << "the app itself stays; only the connection is given up";
}

}  // namespace
