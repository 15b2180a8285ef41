// The channel layer on socketpairs, the message port between real processes and its monitor
// tap: this process is the client (kClient owning kClientPort), the test app the app.
#include <app_manager.h>
#include <bundle.h>
#include <message_port.h>

#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velna_monitor.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "RawSocket.h"
#include "TempEnv.h"
extern "C" {
#include "channel_internal.h"
#include "runtime_internal.h"
}

namespace {

constexpr const char *kClient = "org.test.mp.client";
constexpr const char *kClientPort = "CLIENT_PORT";
constexpr const char *kApp = "org.test.mp.app";
constexpr const char *kAppPort = "APP_PORT";

using namespace testsupport;

struct Received {
  std::string remote;  // "<null>" when the sender has no app id
  BundlePtr message;
};

std::vector<unsigned char> Pattern(size_t size, unsigned seed) {
  std::vector<unsigned char> data(size);
  for (size_t i = 0; i < size; i++) data[i] = static_cast<unsigned char>(i * 31u + seed);
  return data;
}

bool HasBytes(bundle *b, const char *key, const std::vector<unsigned char> &expected) {
  void *data = nullptr;
  size_t size = 0;
  return bundle_get_byte(b, key, &data, &size) == 0 && size == expected.size() &&
         std::memcmp(data, expected.data(), size) == 0;
}

class MessagePort : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kClient, 1);
    unsetenv("MP_TEST_SEND_TO");
    setenv("MP_TEST_PORT", kAppPort, 1);
    env_.install({kApp, "org.test.mp", "", TEST_APP, "", {}});
    ASSERT_GT(message_port_register_local_port(kClientPort, &MessagePort::OnMessage, this), 0);
  }

  static void OnMessage(int, const char *remote, const char *remotePort, bool trusted,
                        bundle *message, void *self) {
    EXPECT_EQ(remotePort, nullptr);
    EXPECT_FALSE(trusted);
    static_cast<MessagePort *>(self)->received_.push_back(
        {remote ? remote : "<null>", BundlePtr(bundle_dup(message))});
  }

  bool PortExists(const char *app, const char *port) {
    bool exist = true;
    EXPECT_EQ(message_port_check_remote_port(app, port, &exist), 0);
    return exist;
  }

  void LaunchApp() { ASSERT_TRUE(env_.launch(kApp, kAppPort)); }

  // Sends the app a command, answered to kClientPort; "echo" returns it with "sender" added.
  static int Send(const char *cmd, std::vector<std::pair<std::string, std::string>> entries = {},
                  const char *app = kApp, const char *port = kAppPort) {
    entries.insert(entries.begin(), {{"cmd", cmd}, {"reply_port", kClientPort}});
    return message_port_send_message(app, port, MakeBundle(entries).get());
  }
  static int SendEcho(const char *app = kApp, const char *port = kAppPort) { return Send("echo", {}, app, port); }

  bool WaitForMessages(size_t count, int timeoutMs = 20000) {
    return RunLoopUntil([&] { return received_.size() >= count; }, timeoutMs);
  }

  TempEnv env_;
  LogCapture log_;
  std::vector<Received> received_;
};

// 64 MiB each way at once: each side queues what the other cannot take yet, so neither blocks.
TEST_F(MessagePort, RoundTripsKeepOrderNameEachSenderAndSixtyFourMiBTravelBothWaysAtOnce) {
  LaunchApp();
  for (int i = 0; i < 1000; i++) ASSERT_EQ(Send("echo", {{"seq", std::to_string(i)}}), 0) << i;
  ASSERT_EQ(Send("send", {{"count", "1000"}, {"size", "100"}}), 0);

  ASSERT_TRUE(WaitForMessages(2000)) << received_.size() << " arrived\n" << log_.dump();
  // The echoes first, in order, then the app's own sends.
  for (int i = 0; i < 2000; i++) {
    bundle *b = received_[i].message.get();
    ASSERT_EQ(received_[i].remote, kApp) << i;  // the app, as seen by us
    ASSERT_EQ(GetStr(b, "cmd"), i < 1000 ? "echo" : "numbered") << i;
    ASSERT_EQ(GetStr(b, "seq"), std::to_string(i % 1000)) << i;
    ASSERT_EQ(GetStr(b, "sender"), i < 1000 ? kClient : "<absent>") << i;  // us, as the app saw us
    ASSERT_EQ(HasBytes(b, "data", Pattern(100, i % 1000)), i >= 1000) << i;
  }

  ASSERT_EQ(Send("send", {{"count", "1"}, {"size", std::to_string(64u << 20)}}), 0);
  for (size_t size : {size_t(MESSAGE_PORT_MAX_MESSAGE_SIZE), size_t(64u << 20)}) {
    BundlePtr msg = MakeBundle({{"cmd", "echo"}, {"reply_port", kClientPort}});
    bundle_add_byte(msg.get(), "data", Pattern(size, 7).data(), size);
    EXPECT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), size == (64u << 20) ? 0 : -EMSGSIZE);
  }
  EXPECT_TRUE(log_.has("over the limit of 134217728 bytes")) << log_.dump();

  // Nothing of the refused one went out: the app's own message, then the 64 MiB echo.
  ASSERT_TRUE(WaitForMessages(2002, 60000)) << log_.dump();
  EXPECT_TRUE(HasBytes(received_[2000].message.get(), "data", Pattern(64u << 20, 0)));
  EXPECT_EQ(received_[2001].remote, kApp);
  EXPECT_TRUE(HasBytes(received_[2001].message.get(), "data", Pattern(64u << 20, 7)));
  RunLoopFor(200);
  EXPECT_EQ(received_.size(), 2002u);
}

TEST_F(MessagePort, SenderClaimingAnotherLiveAppsIdIsNotBelieved) {
  LaunchApp();
  // The impostor, started by hand, names itself kApp while the real kApp runs.
  gchar **envp = g_environ_setenv(g_get_environ(), "VELNA_APP_ID", kApp, TRUE);
  envp = g_environ_setenv(envp, "MP_TEST_PORT", "", TRUE);
  envp = g_environ_setenv(envp, "MP_TEST_SEND_TO", (std::string(kClient) + ":" + kClientPort).c_str(), TRUE);
  gchar *argv[] = {const_cast<gchar *>(TEST_APP), nullptr};
  GPid impostor = 0;
  bool spawned = g_spawn_async(nullptr, argv, envp, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &impostor, nullptr);
  g_strfreev(envp);
  ASSERT_TRUE(spawned);

  bool arrived = WaitForMessages(1);
  kill(impostor, SIGKILL);
  waitpid(impostor, nullptr, 0);
  ASSERT_TRUE(arrived) << log_.dump();
  EXPECT_EQ(received_[0].remote, "<null>");

  ASSERT_EQ(SendEcho(), 0);
  ASSERT_TRUE(WaitForMessages(2)) << log_.dump();
  EXPECT_EQ(received_[1].remote, kApp);
}

TEST_F(MessagePort, MissingAppOrPortIsNoEntryOnlyAFreeValidIdInAPrivateDirOwnsAPortAndAnEndedAppStopsCountingAtOnce) {
  EXPECT_FALSE(PortExists(kApp, kAppPort));
  bool exist = false;
  EXPECT_EQ(message_port_check_remote_port("", kAppPort, &exist), -EINVAL);
  EXPECT_EQ(SendEcho(), -ENOENT);  // installed, not running
  EXPECT_EQ(SendEcho("org.test.mp.absent"), -ENOENT);
  EXPECT_EQ(SendEcho("bad id/"), -EINVAL);

  LaunchApp();
  EXPECT_TRUE(PortExists(kApp, kAppPort));
  EXPECT_FALSE(PortExists(kApp, "NO_SUCH_PORT"));
  EXPECT_EQ(SendEcho(kApp, "NO_SUCH_PORT"), -ENOENT);
  ASSERT_EQ(SendEcho(), 0);
  ASSERT_TRUE(WaitForMessages(1));

  auto cb = [](int, const char *, const char *, bool, bundle *, void *) {};
  unsetenv("VELNA_APP_ID");
  EXPECT_EQ(message_port_register_local_port("SOME_PORT", cb, nullptr), -EINVAL);
  setenv("VELNA_APP_ID", "not a valid id", 1);
  EXPECT_EQ(message_port_register_local_port("SOME_PORT", cb, nullptr), -EINVAL);
  EXPECT_EQ(log_.count("no valid VELNA_APP_ID"), 2) << log_.dump();
  setenv("VELNA_APP_ID", kApp, 1);  // held by the app's process
  EXPECT_EQ(message_port_register_local_port("MINE", cb, nullptr), -EEXIST);
  setenv("VELNA_APP_ID", kClient, 1);

  // Sockets answer only their owner; a runtime directory open to others is refused.
  for (const std::string &socket : {SocketOf("mp", kClient, kClientPort), SocketOf("mp", kApp, kAppPort)}) {
    struct stat st;
    EXPECT_TRUE(stat(socket.c_str(), &st) == 0 && (st.st_mode & 07777) == 0600) << socket;
  }
  const std::string open = env_.root() + "/open", foreign = env_.root() + "/foreign";
  ASSERT_TRUE(mkdir(open.c_str(), 0700) == 0 && chmod(open.c_str(), 0777) == 0);
  setenv("VELNA_RUNTIME_DIR", open.c_str(), 1);
  EXPECT_EQ(message_port_register_local_port("OTHER", cb, nullptr), -EACCES);
  EXPECT_TRUE(log_.has("chmod 700 " + open)) << log_.dump();
  if (geteuid() == 0) {
    ASSERT_TRUE(mkdir(foreign.c_str(), 0700) == 0 && chown(foreign.c_str(), 65534, 65534) == 0);
    setenv("VELNA_RUNTIME_DIR", foreign.c_str(), 1);
    EXPECT_EQ(message_port_register_local_port("OTHER", cb, nullptr), -EACCES);
    EXPECT_TRUE(log_.has("belongs to uid 65534")) << log_.dump();
  }
  setenv("VELNA_RUNTIME_DIR", env_.runtimeDir().c_str(), 1);

  // Ended by the platform, then killed twice: gone at once, before the loop has seen the
  // connection that the echo above opened close; the next instance of the id is reached.
  for (bool killed : {false, true, true}) {
    pid_t pid = 0;
    ASSERT_EQ(running_registry_get_pid(kApp, &pid), 0);
    int exited = int(syscall(SYS_pidfd_open, pid, 0));
    ASSERT_GE(exited, 0);
    ASSERT_EQ(killed ? kill(pid, SIGKILL) : app_manager_terminate_app(kApp), 0);
    pollfd pfd{exited, POLLIN, 0};  // a kill is delivered later: wait for the exit
    EXPECT_TRUE(!killed || poll(&pfd, 1, 5000) == 1);
    close(exited);
    EXPECT_FALSE(PortExists(kApp, kAppPort)) << killed;
    EXPECT_EQ(SendEcho(), -ENOENT);

    // An ended instance can hold its socket a moment after the registry stops counting
    // it, and the next one is counted before it listens: such a listener is no port.
    int stale = killed ? -1 : RawListen(SocketOf("mp", kApp, kAppPort));
    ASSERT_TRUE(killed || stale >= 0);
    size_t before = received_.size();
    LaunchApp();
    ASSERT_EQ(SendEcho(), 0);
    ASSERT_TRUE(WaitForMessages(before + 1)) << log_.dump();
    EXPECT_EQ(received_.back().remote, kApp);
    if (stale >= 0) close(stale);
  }
}

long VmSizeKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmSize:", 0) == 0) return strtol(line.c_str() + 7, nullptr, 10);
  return -1;
}

// Stalled frames cost only what arrived; a stranger of another uid needs root to play.
TEST_F(MessagePort, HostileBytesDropOnlyThatPeer) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  ASSERT_EQ(bundle_encode_raw(MakeBundle({{"cmd", "forged"}}).get(), &raw, &len), 0);
  const std::string good(reinterpret_cast<char *>(raw), len), socket = SocketOf("mp", kClient, kClientPort);
  free(raw);

  // Opened up for a moment, so that only the peer credential check stops the stranger.
  const std::string rt = env_.runtimeDir();
  std::unique_ptr<Peer> stranger;
  if (geteuid() == 0) {
    for (const std::string &dir : {env_.root(), rt, rt + "/s"}) chmod(dir.c_str(), 0711);
    chmod(socket.c_str(), 0666);
    stranger = std::make_unique<Peer>(socket, Frame(good), 65534);
    for (const std::string &dir : {env_.root(), rt, rt + "/s"}) chmod(dir.c_str(), 0700);
    chmod(socket.c_str(), 0600);
    ASSERT_TRUE(stranger->connected());
  }

  const long before = VmSizeKiB();
  Peer wrongMagic(socket, FrameHeader(uint32_t(len), 0x12345678u) + good + Frame(good)),
      overCap(socket, FrameHeader(MESSAGE_PORT_MAX_MESSAGE_SIZE + 1)),
      badBundle(socket, Frame(std::string("VBDL", 5))), honest(socket, Frame(good)),
      huge(socket, FrameHeader(MESSAGE_PORT_MAX_MESSAGE_SIZE) + std::string(1 << 20, 'x')),
      half(socket, FrameHeader(64 * 1024) + std::string(32 * 1024, 'y'));
  ASSERT_TRUE(RunLoopUntil([&] {
    bool hugeSent = huge.feed(), halfSent = half.feed();
    return hugeSent && halfSent;
  }, 5000));
  RunLoopFor(200);  // the last bytes are read
  const long grown = VmSizeKiB() - before;
  EXPECT_LT(grown, 32 * 1024) << "virtual size grew by " << grown << " KiB for 1 MiB that arrived";

  ASSERT_TRUE(RunLoopUntil(
      [&] {
        return received_.size() == 1 && wrongMagic.dropped() && overCap.dropped() && badBundle.dropped() &&
               huge.dropped() && half.dropped() && (!stranger || stranger->dropped());
      },
      25000))
      << received_.size() << " arrived\n" << log_.dump();
  RunLoopFor(100);

  for (const char *why : {"bad frame magic 0x12345678", "frame of 134217729 bytes exceeds the cap",
                          "undecodable message of 5 bytes"})
    EXPECT_TRUE(log_.has(why)) << log_.dump();
  EXPECT_EQ(2, log_.count("made no progress")) << log_.dump();
  EXPECT_EQ(stranger ? 1 : 0, log_.count("of uid 65534")) << log_.dump();
  ASSERT_EQ(received_.size(), 1u);
  EXPECT_EQ(GetStr(received_[0].message.get(), "cmd"), "forged");
  EXPECT_EQ(received_[0].remote, kClient);  // the raw socket's owner: this very process
  EXPECT_FALSE(honest.dropped());
}

// Naming and a second monitor's refusal are checked through the command-line monitor.
class MonitorTap : public MessagePort {
 protected:
  void TearDown() override {
    for (int conn : conns_) close(conn);
    if (monitor_ >= 0) velna_monitor_stop(monitor_);
  }

  std::string socketPath() const { return env_.runtimeDir() + "/monitor"; }

  void send(int n) {
    ASSERT_EQ(0, message_port_send_message(kClient, kClientPort, MakeBundle({{"n", std::to_string(n)}}).get()));
  }

  // Every copy waiting now, in arrival order, as the value of "n" (or "?").
  std::vector<std::string> received() {
    for (int conn; velna_monitor_accept(monitor_, &conn) == 0;) conns_.push_back(conn);
    std::vector<std::string> out;
    velna_monitor_record record;
    for (int conn : conns_) {
      while (velna_monitor_receive(conn, &record) == 0) {
        char *n = nullptr;
        EXPECT_EQ(getpid(), record.sender_pid);
        out.push_back(record.message && bundle_get_str(record.message, "n", &n) == 0 ? n : "?");
        velna_monitor_record_clear(&record);
      }
    }
    return out;
  }

  int monitor_ = -1;
  std::vector<int> conns_;
};

TEST_F(MonitorTap, ListensOverADeadSocketGetsWholeBurstsInOrderAndARestartLosesNothing) {
  send(0);  // no monitor yet: nothing is kept for a later one
  close(RawListen(socketPath()));  // the file stays, nobody listens

  ASSERT_EQ(0, velna_monitor_listen(&monitor_));
  struct stat st;
  ASSERT_EQ(0, stat(socketPath().c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  // The sender looked for the tap at its first send; it looks again within a second.
  std::vector<std::string> first;
  ASSERT_TRUE(testsupport::RunLoopUntil([&] {
    send(-1);
    return !(first = received()).empty();
  }, 3000));
  EXPECT_EQ(first.end(), std::find(first.begin(), first.end(), "0")) << "kept from before the monitor";
  std::vector<std::string> expected;
  for (int n = 1; n <= 100; ++n) {
    send(n);
    expected.push_back(std::to_string(n));
  }
  EXPECT_EQ(expected, received());

  // The sender's connection breaks with the first monitor; it finds the next at once.
  for (int conn : conns_) close(conn);
  conns_.clear();
  velna_monitor_stop(monitor_);
  EXPECT_NE(0, access(socketPath().c_str(), F_OK));
  ASSERT_EQ(0, velna_monitor_listen(&monitor_));
  send(2);
  EXPECT_EQ(std::vector<std::string>({"2"}), received());
}

// Frames sent on out arrive on in; the pair closes both unless a test took one.
struct ChannelPair {
  explicit ChannelPair(uint32_t maxFrame = 1u << 20) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return;
    out = velna_channel_new(sv[0], maxFrame);
    in = velna_channel_new(sv[1], maxFrame);
  }
  ~ChannelPair() {
    for (velna_channel *c : {out, in})
      if (c) velna_channel_close(c);
  }
  ChannelPair(const ChannelPair &) = delete;
  velna_channel *out = nullptr, *in = nullptr;
};

// A channel's handlers; it must outlive the channel.
struct Receiver {
  std::function<void(velna_channel *)> onFrame;
  int closedCalls = 0;
  void listen(velna_channel *channel) { velna_channel_set_handlers(channel, Frame, Closed, this); }
  static void Frame(velna_channel *channel, void *self) { static_cast<Receiver *>(self)->onFrame(channel); }
  static void Closed(velna_channel *, void *self) { static_cast<Receiver *>(self)->closedCalls++; }
};

TEST(Channel, FramesUpToTheCapArriveWholeAndInOrderOnePastIsRefusedAndAHangUpComesLast) {
  ChannelPair p(16u << 20);
  ASSERT_TRUE(p.out && p.in);
  std::vector<std::vector<unsigned char>> frames;
  Receiver rec{[&](velna_channel *channel) {
    unsigned char *payload = nullptr;
    size_t len = 0;
    ASSERT_EQ(velna_channel_take_frame(channel, 0, &payload, &len), 0);
    frames.emplace_back(payload, payload + len);
    free(payload);
  }};
  rec.listen(p.in);
  const std::vector<size_t> sizes = {0, 1, 7, 8, 9, 65535, 65536, 65537, 3u << 20, 20, 0, 16u << 20, 5};
  for (size_t i = 0; i < sizes.size(); i++)
    ASSERT_EQ(velna_channel_send(p.out, Pattern(sizes[i], unsigned(i)).data(), sizes[i]), 0) << i;
  std::vector<unsigned char> over((16u << 20) + 1);
  EXPECT_EQ(velna_channel_send(p.out, over.data(), over.size()), -EMSGSIZE);

  ASSERT_TRUE(RunLoopUntil([&] { return frames.size() == sizes.size(); }, 20000)) << frames.size();
  for (size_t i = 0; i < sizes.size(); i++)
    EXPECT_TRUE(frames[i] == Pattern(sizes[i], unsigned(i))) << "frame " << i;
  EXPECT_EQ(rec.closedCalls, 0);

  // A frame followed at once by the hang-up: the frame is delivered, then the close.
  ASSERT_EQ(velna_channel_send(p.out, "last", 4), 0);
  velna_channel_close(std::exchange(p.out, nullptr));
  ASSERT_TRUE(RunLoopUntil([&] { return rec.closedCalls > 0; }, 10000));
  EXPECT_EQ(frames.size(), sizes.size() + 1);
  RunLoopFor(50);
  EXPECT_EQ(rec.closedCalls, 1);
}

TEST(Channel, OutputPastTheQueueCapFailsWithTryAgain) {
  // Nobody runs the loop, so what the socket does not take stays queued.
  ChannelPair p(1u << 30);
  std::vector<unsigned char> chunk(100u << 20, 3);
  EXPECT_EQ(velna_channel_send(p.out, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(p.out, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(p.out, chunk.data(), chunk.size()), -EAGAIN);
  EXPECT_EQ(velna_channel_send(p.out, "small", 5), 0);
}

// More channels are ready than one dispatch of the shared readiness source fetches.
TEST(ChannelReadiness, OnlyTheReadyChannelsAreServedAndEachOnceWhenManyAreReadyAtOnce) {
  std::vector<int> order;  // the receivers that got a frame, by index, in order of service
  std::deque<Receiver> receivers;
  std::deque<ChannelPair> pairs(300);
  for (size_t i = 0; i < pairs.size(); i++) {
    ASSERT_TRUE(pairs[i].in) << i;
    receivers.push_back({[&order, i](velna_channel *c) {
      if (velna_channel_drop_frame(c) == 0) order.push_back(int(i));
    }});
    receivers.back().listen(pairs[i].in);
  }
  ASSERT_EQ(velna_channel_send(pairs[123].out, "one", 3), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return !order.empty(); }, 10000));
  RunLoopFor(50);
  EXPECT_EQ(order, std::vector<int>{123});

  order.clear();
  for (ChannelPair &p : pairs) ASSERT_EQ(velna_channel_send(p.out, "all", 3), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return order.size() >= pairs.size(); }, 10000)) << order.size();
  RunLoopFor(50);
  EXPECT_EQ(order.size(), pairs.size());
  EXPECT_EQ(std::set<int>(order.begin(), order.end()).size(), pairs.size());
}

// The new pair's descriptors may reuse the closed channel's numbers.
TEST(ChannelReadiness, AChannelClosedByAnotherHandlerInTheSameDispatchIsNeverServed) {
  int served = 0;
  std::unique_ptr<ChannelPair> fresh;
  std::deque<ChannelPair> rivals(2);
  Receiver closeTheRival{[&](velna_channel *channel) {
    served++;
    velna_channel_drop_frame(channel);
    for (ChannelPair &p : rivals) {
      if (p.in != channel && p.in) velna_channel_close(std::exchange(p.in, nullptr));
    }
    fresh = std::make_unique<ChannelPair>();
  }};
  for (ChannelPair &p : rivals) closeTheRival.listen(p.in);
  // Both frames are in their sockets before the loop runs, so one dispatch sees both.
  for (ChannelPair &p : rivals) ASSERT_EQ(velna_channel_send(p.out, "x", 1), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return served > 0; }, 10000));
  RunLoopFor(100);
  EXPECT_EQ(served, 1);

  // The new pair, made inside that dispatch, works.
  bool freshServed = false;
  Receiver receiver{[&](velna_channel *c) { freshServed = velna_channel_drop_frame(c) == 0; }};
  ASSERT_TRUE(fresh && fresh->in);
  receiver.listen(fresh->in);
  ASSERT_EQ(velna_channel_send(fresh->out, "new", 3), 0);
  EXPECT_TRUE(RunLoopUntil([&] { return freshServed; }, 10000));
}

// Few channels are polled beside the loop's own descriptors, many through one epoll
// descriptor. Handlers cross that bound both ways in the middle of a dispatch.
TEST(ChannelReadiness, ChannelsAreServedWhileHandlersCrossTheBoundOfDirectPollingBothWays) {
  RunLoopFor(1);  // the main loop makes its own descriptors when it first runs
  const int fdsBefore = OpenFds();
  std::deque<ChannelPair> pairs(2), extra;
  std::deque<Receiver> extraReceivers;
  int extraServed = 0, secondServed = 0;
  std::function<void()> onFirst;
  Receiver first{[&](velna_channel *c) {
    velna_channel_drop_frame(c);
    onFirst();
  }};
  Receiver second{[&](velna_channel *c) { secondServed += velna_channel_drop_frame(c) == 0; }};
  first.listen(pairs[0].in);
  second.listen(pairs[1].in);

  onFirst = [&] {  // 24 watches from 4, each new channel with a frame on its way
    for (int i = 0; i < 10; i++) {
      ChannelPair &p = extra.emplace_back();
      extraReceivers.push_back({[&](velna_channel *c) { extraServed += velna_channel_drop_frame(c) == 0; }});
      extraReceivers.back().listen(p.in);
      velna_channel_send(p.out, "e", 1);
    }
  };
  for (ChannelPair &p : pairs) ASSERT_EQ(velna_channel_send(p.out, "x", 1), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return secondServed == 1 && extraServed == 10; }, 10000))
      << secondServed << " " << extraServed;

  int servedAtClose = -1;
  onFirst = [&] {  // back to 4 watches, with frames fetched for the closed ones
    servedAtClose = extraServed;
    extra.clear();
  };
  for (ChannelPair &p : extra) ASSERT_EQ(velna_channel_send(p.out, "y", 1), 0);
  ASSERT_EQ(velna_channel_send(pairs[0].out, "x", 1), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return servedAtClose >= 0; }, 10000));
  RunLoopFor(50);
  EXPECT_EQ(extraServed, servedAtClose);

  ASSERT_EQ(velna_channel_send(pairs[1].out, "x", 1), 0);
  EXPECT_TRUE(RunLoopUntil([&] { return secondServed == 2; }, 10000));
  EXPECT_EQ(OpenFds(), fdsBefore + 4);  // the four sockets; no epoll descriptor is left
}

TEST(ChannelReadiness, AHandlerThatRunsTheLoopStillGetsOtherChannelsServed) {
  ChannelPair outer, inner;
  bool innerServed = false, servedInside = false, finished = false;
  Receiver innerReceiver{[&](velna_channel *channel) {
    velna_channel_drop_frame(channel);
    innerServed = true;
  }};
  Receiver outerReceiver{[&](velna_channel *channel) {
    velna_channel_drop_frame(channel);
    velna_channel_send(inner.out, "inner", 5);
    gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (!innerServed && g_get_monotonic_time() < end) g_main_context_iteration(nullptr, FALSE);
    servedInside = innerServed;
    finished = true;
  }};
  innerReceiver.listen(inner.in);
  outerReceiver.listen(outer.in);
  ASSERT_EQ(velna_channel_send(outer.out, "outer", 5), 0);
  ASSERT_TRUE(RunLoopUntil([&] { return finished; }, 10000));
  EXPECT_TRUE(servedInside);
}

}  // namespace
