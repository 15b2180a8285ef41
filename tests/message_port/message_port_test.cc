// The channel layer on a socketpair inside this process, and the message port between
// real processes: this test process is the client (it owns kClientPort as kClient) and
// the test app is the app at the other end.
#include <app_manager.h>
#include <bundle.h>
#include <message_port.h>

#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
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

TEST_F(MessagePort, RoundTripsKeepOrderBothWaysAndNameEachSenderAsThePlatformKnowsIt) {
  LaunchApp();
  for (int i = 0; i < 1000; i++) ASSERT_EQ(Send("echo", {{"seq", std::to_string(i)}}), 0) << i;
  ASSERT_EQ(Send("send", {{"count", "1000"}, {"size", "100"}}), 0);

  ASSERT_TRUE(WaitForMessages(2000)) << received_.size() << " arrived\n" << log_.dump();
  // One connection each way: the echoes first, in order, then the app's own sends.
  for (int i = 0; i < 2000; i++) {
    bundle *b = received_[i].message.get();
    ASSERT_EQ(received_[i].remote, kApp) << i;  // the app, as seen by us
    ASSERT_EQ(GetStr(b, "cmd"), i < 1000 ? "echo" : "numbered") << i;
    ASSERT_EQ(GetStr(b, "seq"), std::to_string(i % 1000)) << i;
    ASSERT_EQ(GetStr(b, "sender"), i < 1000 ? kClient : "<absent>") << i;  // us, as the app saw us
    ASSERT_EQ(HasBytes(b, "data", Pattern(100, i % 1000)), i >= 1000) << i;
  }
}

// The app sends 64 MiB while it is sent 64 MiB: each side queues what the other cannot
// take at once, so neither blocks on the other.
TEST_F(MessagePort, MessageOverTheCapIsRefusedAndSixtyFourMiBTravelBothWaysAtOnce) {
  LaunchApp();
  ASSERT_EQ(Send("send", {{"count", "1"}, {"size", std::to_string(64u << 20)}}), 0);
  for (size_t size : {size_t(MESSAGE_PORT_MAX_MESSAGE_SIZE), size_t(64u << 20)}) {
    BundlePtr msg = MakeBundle({{"cmd", "echo"}, {"reply_port", kClientPort}});
    bundle_add_byte(msg.get(), "data", Pattern(size, 7).data(), size);
    EXPECT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), size == (64u << 20) ? 0 : -EMSGSIZE);
  }
  EXPECT_TRUE(log_.has("over the limit of 134217728 bytes")) << log_.dump();

  // Nothing of the refused one went out: the app's own message, then the 64 MiB echo.
  ASSERT_TRUE(WaitForMessages(2, 60000)) << log_.dump();
  EXPECT_TRUE(HasBytes(received_[0].message.get(), "data", Pattern(64u << 20, 0)));
  EXPECT_EQ(received_[1].remote, kApp);
  EXPECT_TRUE(HasBytes(received_[1].message.get(), "data", Pattern(64u << 20, 7)));
  RunLoopFor(200);
  EXPECT_EQ(received_.size(), 2u);
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

TEST_F(MessagePort, MissingAppOrPortIsNoEntryOnlyAFreeValidIdOwnsAPortAndAnEndedAppStopsCountingAtOnce) {
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

    size_t before = received_.size();
    LaunchApp();
    ASSERT_EQ(SendEcho(), 0);
    ASSERT_TRUE(WaitForMessages(before + 1)) << log_.dump();
    EXPECT_EQ(received_.back().remote, kApp);
  }
}

std::string ClientSocket() {
  char path[sizeof(sockaddr_un::sun_path)] = "";
  EXPECT_EQ(velna_socket_path("mp", kClient, kClientPort, path, sizeof path), 0);
  return path;
}

TEST_F(MessagePort, HostileBytesDropOnlyThatPeer) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  ASSERT_EQ(bundle_encode_raw(MakeBundle({{"cmd", "forged"}}).get(), &raw, &len), 0);
  const std::string good(reinterpret_cast<char *>(raw), len);
  free(raw);
  Peer wrongMagic(ClientSocket(), FrameHeader(uint32_t(len), 0x12345678u) + good + Frame(good)),
      overCap(ClientSocket(), FrameHeader(MESSAGE_PORT_MAX_MESSAGE_SIZE + 1)),
      badBundle(ClientSocket(), Frame(std::string("VBDL", 5))), honest(ClientSocket(), Frame(good));
  ASSERT_TRUE(RunLoopUntil(
      [&] { return received_.size() == 1 && wrongMagic.dropped() && overCap.dropped() && badBundle.dropped(); },
      10000))
      << received_.size() << " arrived\n" << log_.dump();
  RunLoopFor(100);

  for (const char *why : {"bad frame magic 0x12345678", "frame of 134217729 bytes exceeds the cap",
                          "undecodable message of 5 bytes"})
    EXPECT_TRUE(log_.has(why)) << log_.dump();
  ASSERT_EQ(received_.size(), 1u);
  EXPECT_EQ(GetStr(received_[0].message.get(), "cmd"), "forged");
  EXPECT_EQ(received_[0].remote, kClient);  // the raw socket's owner: this very process
  EXPECT_FALSE(honest.dropped());
}

// Frames that arrived on a channel, and how often it reported its close.
struct Frames {
  std::vector<std::vector<unsigned char>> frames;
  int closedCalls = 0;
};

void TakeOne(velna_channel *channel, void *data) {
  unsigned char *payload = nullptr;
  size_t len = 0;
  ASSERT_EQ(velna_channel_take_frame(channel, 0, &payload, &len), 0);
  static_cast<Frames *>(data)->frames.emplace_back(payload, payload + len);
  free(payload);
}

// Two channels on a socketpair, a_ sending to b_, each refusing frames over maxFrame.
class Channel : public ::testing::Test {
 protected:
  void SetUp() override { Pair(16u << 20); }
  void TearDown() override {
    for (velna_channel *c : {a_, b_})
      if (c) velna_channel_close(c);
    a_ = b_ = nullptr;
  }
  void Pair(uint32_t maxFrame) {
    TearDown();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    a_ = velna_channel_new(sv[0], maxFrame);
    b_ = velna_channel_new(sv[1], maxFrame);
    ASSERT_TRUE(a_ && b_);
  }
  velna_channel *a_ = nullptr, *b_ = nullptr;
  Frames rec_;
};

TEST_F(Channel, FramesUpToTheCapArriveWholeAndInOrderAndOnePastIsRefused) {
  auto closed = [](velna_channel *, void *d) { static_cast<Frames *>(d)->closedCalls++; };
  velna_channel_set_handlers(b_, TakeOne, closed, &rec_);
  const std::vector<size_t> sizes = {0, 1, 7, 8, 9, 65535, 65536, 65537, 3u << 20, 20, 0, 16u << 20, 5};
  for (size_t i = 0; i < sizes.size(); i++)
    ASSERT_EQ(velna_channel_send(a_, Pattern(sizes[i], unsigned(i)).data(), sizes[i]), 0) << i;
  std::vector<unsigned char> over((16u << 20) + 1);
  EXPECT_EQ(velna_channel_send(a_, over.data(), over.size()), -EMSGSIZE);

  ASSERT_TRUE(RunLoopUntil([&] { return rec_.frames.size() == sizes.size(); }, 20000))
      << rec_.frames.size();
  for (size_t i = 0; i < sizes.size(); i++)
    EXPECT_TRUE(rec_.frames[i] == Pattern(sizes[i], unsigned(i))) << "frame " << i;
  EXPECT_EQ(rec_.closedCalls, 0);
  EXPECT_EQ(velna_channel_peer_pid(b_), getpid());
}

TEST_F(Channel, OutputPastTheQueueCapFailsWithTryAgain) {
  // Nobody runs the loop, so what the socket does not take stays queued.
  Pair(1u << 30);
  std::vector<unsigned char> chunk(100u << 20, 3);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), -EAGAIN);
  EXPECT_EQ(velna_channel_send(a_, "small", 5), 0);
}

}  // namespace
