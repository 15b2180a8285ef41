// rpc-port between this process (proxy) and the test app (stub, mode "echo"), against
// hostile peers played by this process on raw sockets, and parcels in memory.
#include <app_manager.h>
#include <dirent.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <rpc-port.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
extern "C" {
#include "rpc_port_internal.h"
#include "runtime_internal.h"
}

using testsupport::RunLoopFor;
using testsupport::RunLoopUntil;

namespace {

constexpr const char *kClientId = "test.client";
constexpr const char *kEchoApp = "test.echo";
constexpr const char *kPortName = "echo";

// The commands of the test app's "echo" mode.
enum Command { kResult = 0, kInvoke = 1, kEcho = 1, kCallback = 2, kSilent = 3, kCrash = 4,
               kClose = 5, kWho = 6 };

struct ParcelDeleter {
  void operator()(rpc_port_parcel_s *p) const { rpc_port_parcel_destroy(p); }
};
using Parcel = std::unique_ptr<rpc_port_parcel_s, ParcelDeleter>;

using Bundle = testsupport::BundlePtr;

// Takes the next parcel that port delivers into *out (null on failure); the result.
int Take(rpc_port_h port, Parcel *out) {
  rpc_port_parcel_h raw = nullptr;
  int r = rpc_port_parcel_create_from_port(&raw, port);
  out->reset(raw);
  return r;
}

Parcel NewParcel() {
  rpc_port_parcel_h p = nullptr;
  EXPECT_EQ(rpc_port_parcel_create(&p), 0);
  return Parcel(p);
}

Bundle BundleWith(const std::string &value) { return testsupport::MakeBundle({{"v", value}}); }

std::string ValueOf(bundle *b) { return b ? testsupport::GetStr(b, "v") : "<none>"; }

// Sends a command parcel on port: the command, then text and b when given.
int SendCommand(rpc_port_h port, int command, const char *text = nullptr,
                       bundle *b = nullptr) {
  Parcel p = NewParcel();
  rpc_port_parcel_write_int32(p.get(), command);
  if (text) rpc_port_parcel_write_string(p.get(), text);
  if (b) rpc_port_parcel_write_bundle(p.get(), b);
  return rpc_port_parcel_send(p.get(), port);
}

// One proxy and what its events reported. Hooks run inside the events, after counting.
class Client {
 public:
  Client() {
    EXPECT_EQ(rpc_port_proxy_create(&proxy), 0);
    rpc_port_proxy_add_connected_event_cb(proxy, OnConnected, this);
    rpc_port_proxy_add_disconnected_event_cb(proxy, OnDisconnected, this);
    rpc_port_proxy_add_rejected_event_cb(proxy, OnRejected, this);
    rpc_port_proxy_add_received_event_cb(proxy, OnReceived, this);
  }
  ~Client() {
    if (proxy) rpc_port_proxy_destroy(proxy);
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  int connect(const char *app = kEchoApp, const char *port_name = kPortName) {
    return rpc_port_proxy_connect(proxy, app, port_name);
  }
  bool waitConnected(int ms = 10000) {
    return testsupport::RunLoopUntil([this] { return connected > 0 || rejected > 0; }, ms) &&
           connected > 0;
  }
  int events() const { return connected + disconnected + rejected + received; }

  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h port = nullptr;  // the main port given by the connected event
  int connected = 0;
  int disconnected = 0;
  int rejected = 0;
  int received = 0;
  std::vector<std::string> invocations;  // "v" of each bundle read from the callback port
  std::function<void()> onConnected, onDisconnected, onRejected, onReceived;

 private:
  static void OnConnected(const char *endpoint, const char *port_name, rpc_port_h port,
                          void *data) {
    Client *c = static_cast<Client *>(data);
    EXPECT_STREQ(port_name, kPortName);
    EXPECT_NE(endpoint, nullptr);
    c->connected++;
    c->port = port;
    if (c->onConnected) c->onConnected();
  }
  static void OnDisconnected(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->disconnected++;
    if (c->onDisconnected) c->onDisconnected();
  }
  static void OnRejected(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->rejected++;
    if (c->onRejected) c->onRejected();
  }
  static void OnReceived(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->received++;
    if (c->onReceived) {
      c->onReceived();
      return;
    }
    rpc_port_h cb = nullptr;
    ASSERT_EQ(rpc_port_proxy_get_port(c->proxy, RPC_PORT_PORT_CALLBACK, &cb), 0);
    Parcel p;
    ASSERT_EQ(Take(cb, &p), 0);
    int command = -1;
    bundle *b = nullptr;
    rpc_port_parcel_read_int32(p.get(), &command);
    rpc_port_parcel_read_bundle(p.get(), &b);
    Bundle owned(b);
    EXPECT_EQ(command, kInvoke);
    c->invocations.push_back(ValueOf(b));
  }
};

class RpcPort : public ::testing::Test {
 protected:
  RpcPort() {
    setenv("VELNA_APP_ID", kClientId, 1);
    setenv("TEST_APP_MODE", "echo", 1);
    unsetenv("VELNA_RPC_TIMEOUT_MS");
    env_ = std::make_unique<testsupport::TempEnv>();
  }

  void installEcho(const std::string &allowed = "") {
    testsupport::Manifest m;
    m.appId = kEchoApp;
    m.package = "org.test.echo";
    m.exec = TEST_APP;
    m.allowedClients = allowed;
    env_->install(m);
  }

  std::unique_ptr<testsupport::TempEnv> env_;
};

// Echoes text and a bundle over the main port and reads the answer synchronously.
void ExpectEcho(rpc_port_h port, const std::string &text) {
  Bundle b = BundleWith(text + "-bundle");
  ASSERT_EQ(SendCommand(port, kEcho, text.c_str(), b.get()), 0);
  Parcel answer;
  ASSERT_EQ(Take(port, &answer), 0);
  int command = -1;
  char *echoed = nullptr;
  bundle *eb = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_int32(answer.get(), &command), 0);
  EXPECT_EQ(rpc_port_parcel_read_string(answer.get(), &echoed), 0);
  EXPECT_EQ(rpc_port_parcel_read_bundle(answer.get(), &eb), 0);
  Bundle owned(eb);
  EXPECT_EQ(command, kResult);
  EXPECT_EQ(echoed ? std::string(echoed) : "<null>", text);
  EXPECT_EQ(ValueOf(eb), text + "-bundle");
  free(echoed);
}

int OpenDescriptors() {
  int n = 0;
  DIR *d = opendir("/proc/self/fd");
  while (d && readdir(d)) n++;
  if (d) closedir(d);
  return n;
}

std::string SocketPath(const char *app) {
  char path[108];
  EXPECT_EQ(velna_socket_path(RPC_PORT_SOCKET_KIND, app, kPortName, path, sizeof path), 0);
  return path;
}

int RawConnect(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string Frame(const std::string &payload, uint32_t magic = VELNA_FRAME_MAGIC,
                  uint32_t len = UINT32_MAX) {
  if (len == UINT32_MAX) len = uint32_t(payload.size());
  std::string out(8, '\0');
  for (int i = 0; i < 4; i++) {
    out[i] = char(magic >> (8 * i));
    out[4 + i] = char(len >> (8 * i));
  }
  return out + payload;
}

std::string Hello(int kind, const std::string &instance) {
  std::string p = RPC_PORT_HANDSHAKE_MAGIC;
  p += char(kind);
  p += char(instance.size());
  return Frame(p + instance);
}

std::string Ack(int kind) {
  std::string p = RPC_PORT_HANDSHAKE_MAGIC;
  p += char(kind);
  p += char(RPC_PORT_ACK_OK);
  return Frame(p);
}

void WriteAll(int fd, const std::string &bytes) {
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
}

// Runs the loop until the peer closes fd; what it sent before is appended to got.
bool WaitForEof(int fd, std::string *got, int ms = 5000) {
  return RunLoopUntil(
      [&] {
        char buf[256];
        for (;;) {
          ssize_t r = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
          if (r == 0) return true;
          if (r < 0) return errno != EAGAIN && errno != EWOULDBLOCK;
          got->append(buf, size_t(r));
        }
      },
      ms);
}

// Reads exactly n bytes within the loop's bound.
std::string ReadExactly(int fd, size_t n, int ms = 5000) {
  std::string got;
  RunLoopUntil(
      [&] {
        char buf[256];
        while (got.size() < n) {
          ssize_t r = recv(fd, buf, std::min(sizeof buf, n - got.size()), MSG_DONTWAIT);
          if (r <= 0) return false;
          got.append(buf, size_t(r));
        }
        return true;
      },
      ms);
  return got;
}

TEST_F(RpcPort, ConnectLaunchesTheAppThatAnswersOnTheMainPortAndInvokesOnTheCallbackPort) {
  installEcho();
  Client c;
  ASSERT_EQ(c.connect(), 0);
  EXPECT_EQ(c.events(), 0) << "the outcome is an event of a later loop turn";
  ASSERT_TRUE(c.waitConnected());

  bool running = false;
  EXPECT_EQ(app_manager_is_running(kEchoApp, &running), 0);
  EXPECT_TRUE(running);
  ExpectEcho(c.port, "first");
  ExpectEcho(c.port, std::string(100000, 'x'));

  // The stub names the caller as the registry knows it, with the proxy's instance.
  ASSERT_EQ(SendCommand(c.port, kWho), 0);
  Parcel who;
  ASSERT_EQ(Take(c.port, &who), 0);
  int command = -1;
  char *sender = nullptr;
  char *instance = nullptr;
  rpc_port_parcel_read_int32(who.get(), &command);
  rpc_port_parcel_read_string(who.get(), &sender);
  rpc_port_parcel_read_string(who.get(), &instance);
  EXPECT_STREQ(sender, kClientId);
  EXPECT_NE(instance, nullptr);
  free(sender);
  free(instance);

  rpc_port_h main_port = nullptr;
  EXPECT_EQ(rpc_port_proxy_get_port(c.proxy, RPC_PORT_PORT_MAIN, &main_port), 0);
  EXPECT_EQ(main_port, c.port);
  EXPECT_EQ(c.connected, 1);
  EXPECT_EQ(c.received, 0) << "answers on the main port raise no event";

  // Invocations on the callback port raise the received event, in order.
  for (const char *v : {"one", "two", "three"})
    ASSERT_EQ(SendCommand(c.port, kCallback, nullptr, BundleWith(v).get()), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return c.invocations.size() == 3; }, 5000));
  EXPECT_EQ(c.invocations, (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(c.received, 3);
}

TEST_F(RpcPort, AppKilledMidConnectionDisconnectsWithoutLeakingDescriptors) {
  installEcho();
  RunLoopFor(20);  // the loop's own descriptors exist before the count
  int before = OpenDescriptors();
  {
    Client c;
    ASSERT_EQ(c.connect(), 0);
    ASSERT_TRUE(c.waitConnected());
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
    Bundle big = BundleWith(std::string(300000, 'z'));
    int sent = 0;
    for (int i = 0; i < 4 && sent == 0; i++) sent = SendCommand(c.port, kEcho, "late", big.get());
    EXPECT_EQ(sent, -5);

    ASSERT_TRUE(RunLoopUntil([&] { return c.disconnected > 0; }, 5000));
    Parcel none;
    EXPECT_EQ(Take(c.port, &none), -5);
    EXPECT_EQ(none, nullptr);
    RunLoopFor(100);
    EXPECT_EQ(c.disconnected, 1);
    EXPECT_EQ(c.rejected, 0);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(RpcPort, HandlerThatReturnsNonZeroMakesTheStubCloseThatConnectionOnly) {
  installEcho();
  Client closing, other;
  ASSERT_EQ(closing.connect(), 0);
  ASSERT_EQ(other.connect(), 0);
  ASSERT_TRUE(closing.waitConnected());
  ASSERT_TRUE(other.waitConnected());

  ASSERT_EQ(SendCommand(closing.port, kClose), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return closing.disconnected > 0; }, 5000));
  ExpectEcho(other.port, "still here");
  EXPECT_EQ(other.disconnected, 0);
}

TEST_F(RpcPort, TargetThatExitsBeforeListeningOrCannotBeLaunchedIsRejectedBeforeTheLimit) {
  installEcho();
  setenv("TEST_APP_MODE", "exit", 1);
  env_->install({"test.noexec", "org.test.noexec", "", "", "", {}});
  Client exits, noexec;
  ASSERT_EQ(exits.connect(), 0);
  ASSERT_EQ(noexec.connect("test.noexec"), 0);
  gint64 start = g_get_monotonic_time();
  ASSERT_TRUE(RunLoopUntil([&] { return exits.rejected > 0 && noexec.rejected > 0; }, 10000));
  EXPECT_LT(g_get_monotonic_time() - start, 10 * G_USEC_PER_SEC);
  RunLoopFor(100);
  EXPECT_EQ(exits.connected + noexec.connected, 0);
  EXPECT_EQ(exits.rejected, 1);
}

TEST_F(RpcPort, ConnectRefusesUnknownAppsExcludedCallersAndUnusableRuntimeDirsAtOnce) {
  installEcho("someone.else;");
  testsupport::LogCapture log;
  Client c;
  EXPECT_EQ(c.connect("no.such.app"), -22);
  EXPECT_EQ(c.connect("../escape"), -22);
  EXPECT_EQ(c.connect(""), -22);
  EXPECT_EQ(c.connect(kEchoApp), -13);

  installEcho();
  std::string file = env_->root() + "/plain-file";
  std::ofstream(file) << "not a directory";
  setenv("VELNA_RUNTIME_DIR", file.c_str(), 1);
  EXPECT_EQ(c.connect(), -5);
  std::string deep = env_->root() + "/" + std::string(90, 'd');
  setenv("VELNA_RUNTIME_DIR", deep.c_str(), 1);
  EXPECT_EQ(c.connect(), -36);
  EXPECT_TRUE(log.has("leaves no room for socket names")) << log.dump();

  setenv("VELNA_RUNTIME_DIR", env_->runtimeDir().c_str(), 1);
  RunLoopFor(100);
  EXPECT_EQ(c.events(), 0);
  bool running = true;
  app_manager_is_running(kEchoApp, &running);
  EXPECT_FALSE(running) << "a refused connect launches nothing";
}

TEST_F(RpcPort, SilentAppFailsTheSynchronousReadAfterTheTimeout) {
  installEcho();
  Client c;
  ASSERT_EQ(c.connect(), 0);
  ASSERT_TRUE(c.waitConnected());

  setenv("VELNA_RPC_TIMEOUT_MS", "300", 1);
  ASSERT_EQ(SendCommand(c.port, kSilent), 0);
  gint64 start = g_get_monotonic_time();
  rpc_port_parcel_h raw = nullptr;
  EXPECT_EQ(rpc_port_parcel_create_from_port(&raw, c.port), -5);
  gint64 waited_ms = (g_get_monotonic_time() - start) / 1000;
  EXPECT_EQ(raw, nullptr);
  EXPECT_GE(waited_ms, 250);
  EXPECT_LT(waited_ms, 5000);

  ExpectEcho(c.port, "after the silence");
  EXPECT_EQ(c.disconnected, 0);
}

TEST_F(RpcPort, DestroyInsideTheConnectedOrReceivedEventEndsAllLaterEvents) {
  installEcho();
  Client early, late;
  early.onConnected = [&] {
    rpc_port_proxy_destroy(early.proxy);
    early.proxy = nullptr;
  };
  late.onReceived = [&] {
    rpc_port_proxy_destroy(late.proxy);
    late.proxy = nullptr;
  };
  ASSERT_EQ(early.connect(), 0);
  ASSERT_EQ(late.connect(), 0);
  ASSERT_TRUE(late.waitConnected());
  ASSERT_TRUE(RunLoopUntil([&] { return early.connected > 0; }, 10000));
  for (const char *v : {"a", "b", "c"})
    ASSERT_EQ(SendCommand(late.port, kCallback, nullptr, BundleWith(v).get()), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return late.received > 0; }, 5000));
  RunLoopFor(200);
  EXPECT_EQ(late.received, 1) << "the parcels behind the destroying one are dropped";

  EXPECT_EQ(app_manager_terminate_app(kEchoApp), 0);
  RunLoopFor(200);
  EXPECT_EQ(early.events(), 1);
  EXPECT_EQ(late.events(), 2);
}

TEST_F(RpcPort, StubClosesAPeerThatAllowedClientsExcludes) {
  installEcho("someone.else;");
  Client c;
  EXPECT_EQ(c.connect(), -13);

  // Start the app by hand and knock directly: this process is registered as test.client.
  ASSERT_TRUE(env_->launch(kEchoApp));
  std::string path = SocketPath(kEchoApp);
  int main_fd = -1;
  ASSERT_TRUE(RunLoopUntil([&] { return (main_fd = RawConnect(path)) >= 0; }, 10000));
  int cb_fd = RawConnect(path);
  ASSERT_GE(cb_fd, 0);
  WriteAll(main_fd, Hello(RPC_PORT_PORT_MAIN, "intruder-1"));
  WriteAll(cb_fd, Hello(RPC_PORT_PORT_CALLBACK, "intruder-1"));

  std::string got;
  EXPECT_TRUE(WaitForEof(main_fd, &got));
  EXPECT_TRUE(WaitForEof(cb_fd, &got));
  EXPECT_EQ(got, "") << "no ack for a client that is not allowed";
  close(main_fd);
  close(cb_fd);
}

TEST_F(RpcPort, HostileBytesToTheStubDropOnlyThatPeer) {
  installEcho();
  Client good;
  ASSERT_EQ(good.connect(), 0);
  ASSERT_TRUE(good.waitConnected());
  std::string path = SocketPath(kEchoApp);

  struct Case {
    const char *what;
    std::string bytes;
  };
  std::string flipped = Hello(RPC_PORT_PORT_MAIN, "abc");
  std::swap(flipped[0], flipped[3]);
  std::swap(flipped[1], flipped[2]);
  for (const Case &k : {Case{"absurd length", Frame("", VELNA_FRAME_MAGIC, 0xFFFFFFF0u)},
                        Case{"byte order flipped", flipped},
                        Case{"bad instance", Hello(RPC_PORT_PORT_MAIN, "../..")},
                        Case{"unknown kind", Hello(7, "abc")},
                        Case{"garbage", std::string(64, '\xA5')}}) {
    int fd = RawConnect(path);
    ASSERT_GE(fd, 0) << k.what;
    WriteAll(fd, k.bytes);
    std::string got;
    EXPECT_TRUE(WaitForEof(fd, &got)) << k.what;
    EXPECT_EQ(got, "") << k.what;
    close(fd);
  }

  // Truncated hello, then gone.
  int cut = RawConnect(path);
  WriteAll(cut, Hello(RPC_PORT_PORT_MAIN, "cut-short").substr(0, 11));
  close(cut);

  // A whole handshake, then a frame that claims more than the cap.
  int main_fd = RawConnect(path);
  int cb_fd = RawConnect(path);
  WriteAll(main_fd, Hello(RPC_PORT_PORT_MAIN, "raw-1"));
  WriteAll(cb_fd, Hello(RPC_PORT_PORT_CALLBACK, "raw-1"));
  EXPECT_EQ(ReadExactly(main_fd, 14), Ack(RPC_PORT_PORT_MAIN));
  EXPECT_EQ(ReadExactly(cb_fd, 14), Ack(RPC_PORT_PORT_CALLBACK));
  WriteAll(main_fd, Frame("", VELNA_FRAME_MAGIC, RPC_PORT_MAX_PARCEL_SIZE + 1));
  std::string got;
  EXPECT_TRUE(WaitForEof(main_fd, &got));
  EXPECT_TRUE(WaitForEof(cb_fd, &got));
  close(main_fd);
  close(cb_fd);

  ExpectEcho(good.port, "unbothered");
  EXPECT_EQ(good.disconnected, 0);
  Client later;
  ASSERT_EQ(later.connect(), 0);
  ASSERT_TRUE(later.waitConnected());
  ExpectEcho(later.port, "newcomer");
}

// This process plays the app "test.fake": it listens at the port's socket and answers
// the proxy's handshake with whatever a case asks.
class FakeStub {
 public:
  explicit FakeStub(const std::string &path) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    unlink(path.c_str());
    EXPECT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(listen(listen_fd_, 8), 0);
  }
  ~FakeStub() {
    closePair();
    close(listen_fd_);
  }
  void closePair() {
    if (main_fd >= 0) close(main_fd);
    if (cb_fd >= 0) close(cb_fd);
    main_fd = cb_fd = -1;
  }

  // Accepts the proxy's two channels and reads their hellos.
  bool acceptPair() {
    int fds[2] = {-1, -1};
    int n = 0;
    bool ok = RunLoopUntil(
        [&] {
          int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
          if (fd >= 0) fds[n++] = fd;
          return n == 2;
        },
        5000);
    if (!ok) return false;
    for (int fd : fds) {
      std::string header = ReadExactly(fd, 8);
      uint32_t len = uint8_t(header[4]) | uint32_t(uint8_t(header[5])) << 8;
      std::string payload = ReadExactly(fd, len);
      int kind = uint8_t(payload[4]);
      (kind == RPC_PORT_PORT_MAIN ? main_fd : cb_fd) = fd;
    }
    return main_fd >= 0 && cb_fd >= 0;
  }

  int main_fd = -1;
  int cb_fd = -1;

 private:
  int listen_fd_ = -1;
};

class RpcPortHostileApp : public RpcPort {
 protected:
  void SetUp() override {
    installEcho();
    testsupport::Manifest m;
    m.appId = "test.fake";
    m.package = "org.test.fake";
    env_->install(m);
    ASSERT_EQ(bystander.connect(), 0);
    ASSERT_TRUE(bystander.waitConnected());
    fake = std::make_unique<FakeStub>(SocketPath("test.fake"));
  }
  void TearDown() override {
    ExpectEcho(bystander.port, "bystander");
    EXPECT_EQ(bystander.disconnected, 0);
  }

  Client bystander;
  std::unique_ptr<FakeStub> fake;
};

TEST_F(RpcPortHostileApp, GarbageOrFlippedByteOrderInsteadOfTheAckRejects) {
  std::string flipped = Ack(RPC_PORT_PORT_MAIN);
  std::reverse(flipped.begin(), flipped.begin() + 4);
  std::reverse(flipped.begin() + 4, flipped.begin() + 8);
  for (const std::string &answer : {Frame("hello?"), flipped}) {
    Client c;
    ASSERT_EQ(c.connect("test.fake"), 0);
    ASSERT_TRUE(fake->acceptPair());
    WriteAll(fake->cb_fd, Ack(RPC_PORT_PORT_CALLBACK));
    WriteAll(fake->main_fd, answer);
    ASSERT_TRUE(RunLoopUntil([&] { return c.rejected > 0; }, 5000));
    EXPECT_EQ(c.connected, 0);
    fake->closePair();
  }
}

TEST_F(RpcPortHostileApp, ConnectedOnlyWithBothAcksAndLyingParcelsReadAsNothing) {
  Client c;
  ASSERT_EQ(c.connect("test.fake"), 0);
  ASSERT_TRUE(fake->acceptPair());
  WriteAll(fake->main_fd, Ack(RPC_PORT_PORT_MAIN));
  RunLoopFor(50);
  EXPECT_EQ(c.connected, 0) << "connected only once both channels are acknowledged";
  WriteAll(fake->cb_fd, Ack(RPC_PORT_PORT_CALLBACK));
  ASSERT_TRUE(c.waitConnected());

  // An int32 field cut short, a string whose length runs past the end, a bundle whose
  // bytes are not a bundle.
  WriteAll(fake->main_fd, Frame(std::string("\x01\x07\x00", 3)));
  WriteAll(fake->main_fd, Frame(std::string("\x03\xF0\xFF\xFF\x7F" "abc", 8)));
  WriteAll(fake->main_fd, Frame(std::string("\x04\x04\x00\x00\x00" "VBDL", 9)));
  Parcel p;
  ASSERT_EQ(Take(c.port, &p), 0);
  int i = 42;
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), -5);
  EXPECT_EQ(i, 0);
  ASSERT_EQ(Take(c.port, &p), 0);
  char *s = reinterpret_cast<char *>(1);
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), -5);
  EXPECT_EQ(s, nullptr);
  ASSERT_EQ(Take(c.port, &p), 0);
  bundle *b = reinterpret_cast<bundle *>(1);
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &b), -5);
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(c.disconnected, 0);
}

TEST_F(RpcPortHostileApp, AbsurdLengthOnTheCallbackOrATruncatedMainFrameDisconnects) {
  for (bool truncated : {false, true}) {
    Client c;
    ASSERT_EQ(c.connect("test.fake"), 0);
    ASSERT_TRUE(fake->acceptPair());
    WriteAll(fake->main_fd, Ack(RPC_PORT_PORT_MAIN));
    WriteAll(fake->cb_fd, Ack(RPC_PORT_PORT_CALLBACK));
    ASSERT_TRUE(c.waitConnected());
    if (truncated) {
      WriteAll(fake->main_fd, Frame("0123456789").substr(0, 12));
      close(fake->main_fd);
      fake->main_fd = -1;
      Parcel none;
      EXPECT_EQ(Take(c.port, &none), -5);
    } else {
      WriteAll(fake->cb_fd, Frame("", VELNA_FRAME_MAGIC, 0xFFFFFFFEu));
    }
    ASSERT_TRUE(RunLoopUntil([&] { return c.disconnected > 0; }, 5000)) << truncated;
    EXPECT_EQ(c.received, 0);
    fake->closePair();
  }
}

TEST(Parcel, FieldsReadBackInTheOrderWritten) {
  Parcel p = NewParcel();
  Bundle b = BundleWith("inside");
  bundle_add_byte(b.get(), "raw", "\0\1\2", 3);
  ASSERT_EQ(rpc_port_parcel_write_int32(p.get(), -7), 0);
  ASSERT_EQ(rpc_port_parcel_write_bool(p.get(), true), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), ""), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), "text"), 0);
  ASSERT_EQ(rpc_port_parcel_write_bundle(p.get(), b.get()), 0);
  ASSERT_EQ(rpc_port_parcel_write_int32(p.get(), INT32_MIN), 0);

  int i = 0;
  bool flag = false;
  char *empty = nullptr;
  char *text = nullptr;
  bundle *read = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), 0);
  EXPECT_EQ(i, -7);
  EXPECT_EQ(rpc_port_parcel_read_bool(p.get(), &flag), 0);
  EXPECT_TRUE(flag);
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &empty), 0);
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &text), 0);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &read), 0);
  Bundle owned(read);
  EXPECT_EQ(ValueOf(read), "inside");
  void *bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(bundle_get_byte(read, "raw", &bytes, &size), 0);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), 0);
  EXPECT_EQ(i, INT32_MIN);
  free(empty);
  free(text);
}

TEST(Parcel, ReadsPastTheEndOrOfAnotherTypeYieldNothing) {
  Parcel p = NewParcel();
  rpc_port_parcel_write_string(p.get(), "only");

  int i = 5;
  bool flag = true;
  bundle *b = reinterpret_cast<bundle *>(1);
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), -5);
  EXPECT_EQ(i, 0);
  EXPECT_EQ(rpc_port_parcel_read_bool(p.get(), &flag), -5);
  EXPECT_FALSE(flag);
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &b), -5);
  EXPECT_EQ(b, nullptr);

  // A failed read leaves the position where it was.
  char *s = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), 0);
  EXPECT_STREQ(s, "only");
  free(s);
  s = reinterpret_cast<char *>(1);
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), -5);
  EXPECT_EQ(s, nullptr);

  Parcel empty = NewParcel();
  EXPECT_EQ(rpc_port_parcel_read_int32(empty.get(), &i), -5);
  EXPECT_EQ(i, 0);
}

TEST(Parcel, GrowsNoFurtherThanTheCap) {
  Parcel p = NewParcel();
  std::string big(RPC_PORT_MAX_PARCEL_SIZE - 16, 'x');
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), big.c_str()), 0);
  EXPECT_EQ(rpc_port_parcel_write_string(p.get(), "0123456789abcdef"), -90);
  EXPECT_EQ(rpc_port_parcel_write_int32(p.get(), 1), 0) << "what still fits is written";
  char *s = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), 0);
  EXPECT_EQ(strlen(s), big.size());
  free(s);
}

// The one wait of 30 s: a target that runs but never opens the port.
TEST_F(RpcPort, TargetThatRunsButNeverListensIsRejectedAfterThirtySeconds) {
  installEcho();
  setenv("TEST_APP_MODE", "idle", 1);
  Client c;
  ASSERT_EQ(c.connect(), 0);
  gint64 start = g_get_monotonic_time();

  ASSERT_FALSE(testsupport::RunLoopUntil([&] { return c.events() > 0; }, 28000))
      << "rejected early";
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return c.rejected > 0; }, 10000));
  gint64 waited_s = (g_get_monotonic_time() - start) / G_USEC_PER_SEC;
  EXPECT_GE(waited_s, 29);
  EXPECT_LT(waited_s, 38);
  EXPECT_EQ(c.connected, 0);

  bool running = false;
  app_manager_is_running(kEchoApp, &running);
  EXPECT_TRUE(running) << "the app itself stays; only the connection is given up";
}

}  // namespace
