// The message port between real processes: this test process is the client (it owns
// kClientPort as kClient) and the test app is the app at the other end.
#include <app_control.h>
#include <app_manager.h>
#include <bundle.h>
#include <message_port.h>

#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
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

using testsupport::BundlePtr;
using testsupport::GetStr;

BundlePtr MakeBundle() { return testsupport::MakeBundle(); }

struct Received {
  bool hasRemote;
  std::string remote;
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

// A process started directly (not through the launcher), ended by the destructor.
class DirectProcess {
 public:
  explicit DirectProcess(const std::vector<std::pair<std::string, std::string>> &vars,
                         bool withoutAppId) {
    gchar **envp = g_get_environ();
    if (withoutAppId) envp = g_environ_unsetenv(envp, "VELNA_APP_ID");
    for (const auto &kv : vars) envp = g_environ_setenv(envp, kv.first.c_str(), kv.second.c_str(), TRUE);
    gchar *argv[] = {const_cast<gchar *>(TEST_APP), nullptr};
    GError *error = nullptr;
    if (!g_spawn_async(nullptr, argv, envp, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &pid_,
                       &error)) {
      ADD_FAILURE() << "spawn failed: " << error->message;
      g_error_free(error);
      pid_ = 0;
    }
    g_strfreev(envp);
  }
  ~DirectProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  DirectProcess(const DirectProcess &) = delete;
  DirectProcess &operator=(const DirectProcess &) = delete;

 private:
  GPid pid_ = 0;
};

class MessagePort : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kClient, 1);
    unsetenv("MP_TEST_SEND_TO");
    setenv("MP_TEST_PORT", kAppPort, 1);
    env_.install({kApp, "org.test.mp", "", TEST_APP, "", {}});
    env_.install({"org.test.mp.idle", "org.test.mp", "", "", "", {}});
    portId_ = message_port_register_local_port(kClientPort, &MessagePort::OnMessage, this);
    ASSERT_GT(portId_, 0);
  }

  static void OnMessage(int, const char *remote, const char *remotePort, bool trusted,
                        bundle *message, void *self) {
    EXPECT_EQ(remotePort, nullptr);
    EXPECT_FALSE(trusted);
    static_cast<MessagePort *>(self)->received_.push_back(
        {remote != nullptr, remote ? remote : "", BundlePtr(bundle_dup(message))});
  }

  bool PortExists(const char *app, const char *port) {
    bool exist = true;
    EXPECT_EQ(message_port_check_remote_port(app, port, &exist), 0);
    return exist;
  }

  void LaunchApp() { ASSERT_TRUE(env_.launch(kApp, kAppPort)) << "the app never registered its port"; }

  // A command for the app; the reply comes to kClientPort.
  BundlePtr Command(const char *cmd) {
    BundlePtr b = MakeBundle();
    bundle_add_str(b.get(), "cmd", cmd);
    bundle_add_str(b.get(), "reply_port", kClientPort);
    return b;
  }

  bool WaitForMessages(size_t count, int timeoutMs = 20000) {
    return testsupport::RunLoopUntil([&] { return received_.size() >= count; }, timeoutMs);
  }

  testsupport::TempEnv env_;
  testsupport::LogCapture log_;
  int portId_ = 0;
  std::vector<Received> received_;
};

TEST_F(MessagePort, RoundTripReportsEachSenderAsThePlatformKnowsIt) {
  LaunchApp();
  BundlePtr msg = Command("echo");
  bundle_add_str(msg.get(), "payload", "hello");
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), 0);

  ASSERT_TRUE(WaitForMessages(1)) << log_.dump();
  const Received &reply = received_[0];
  EXPECT_TRUE(reply.hasRemote);
  EXPECT_EQ(reply.remote, kApp);                        // the app, as seen by us
  EXPECT_EQ(GetStr(reply.message.get(), "sender"), kClient);  // us, as seen by the app
  EXPECT_EQ(GetStr(reply.message.get(), "payload"), "hello");
}

TEST_F(MessagePort, ThousandMessagesArriveInOrderBothWays) {
  LaunchApp();
  for (int i = 0; i < 1000; i++) {
    BundlePtr msg = Command("echo");
    bundle_add_str(msg.get(), "seq", std::to_string(i).c_str());
    ASSERT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), 0) << i;
  }
  BundlePtr send = Command("send");
  bundle_add_str(send.get(), "count", "1000");
  bundle_add_str(send.get(), "size", "100");
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, send.get()), 0);

  ASSERT_TRUE(WaitForMessages(2000)) << received_.size() << " arrived\n" << log_.dump();
  // One connection each way: the echoes first, in order, then the app's own sends.
  for (int i = 0; i < 2000; i++) {
    bundle *b = received_[i].message.get();
    int seq = i % 1000;
    ASSERT_EQ(GetStr(b, "cmd"), i < 1000 ? "echo" : "numbered") << i;
    ASSERT_EQ(GetStr(b, "seq"), std::to_string(seq)) << i;
    if (i >= 1000) {
      ASSERT_TRUE(HasBytes(b, "data", Pattern(100, seq))) << i;
    }
  }
}

TEST_F(MessagePort, SixtyFourMiBMessageTravelsWholeBothWays) {
  LaunchApp();
  const std::vector<unsigned char> data = Pattern(64u << 20, 7);
  BundlePtr msg = Command("echo");
  bundle_add_byte(msg.get(), "data", data.data(), data.size());
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), 0);
  msg.reset();

  ASSERT_TRUE(WaitForMessages(1, 60000)) << log_.dump();
  EXPECT_EQ(received_[0].remote, kApp);
  EXPECT_TRUE(HasBytes(received_[0].message.get(), "data", data));
}

TEST_F(MessagePort, MessageOverTheCapIsRefusedAtTheSender) {
  LaunchApp();
  std::vector<unsigned char> big(MESSAGE_PORT_MAX_MESSAGE_SIZE, 1);
  BundlePtr msg = Command("echo");
  bundle_add_byte(msg.get(), "data", big.data(), big.size());
  EXPECT_EQ(message_port_send_message(kApp, kAppPort, msg.get()), -EMSGSIZE);
  EXPECT_TRUE(log_.has("over the limit of 134217728 bytes")) << log_.dump();
  msg.reset();
  big = {};

  // Nothing of it went out: the next message is the first the app answers.
  BundlePtr next = Command("echo");
  bundle_add_str(next.get(), "payload", "after");
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, next.get()), 0);
  ASSERT_TRUE(WaitForMessages(1)) << log_.dump();
  testsupport::RunLoopFor(200);
  ASSERT_EQ(received_.size(), 1u);
  EXPECT_EQ(GetStr(received_[0].message.get(), "payload"), "after");
}

TEST_F(MessagePort, LargeMessagesCrossingEachOtherDoNotDeadlock) {
  LaunchApp();
  constexpr size_t kSize = 16u << 20;
  BundlePtr send = Command("send");
  bundle_add_str(send.get(), "count", "4");
  bundle_add_str(send.get(), "size", std::to_string(kSize).c_str());
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, send.get()), 0);
  const std::vector<unsigned char> data(kSize, 0x5a);
  for (int i = 0; i < 4; i++) {
    BundlePtr sink = Command("sink");
    bundle_add_byte(sink.get(), "data", data.data(), data.size());
    ASSERT_EQ(message_port_send_message(kApp, kAppPort, sink.get()), 0);
  }

  ASSERT_TRUE(WaitForMessages(8, 60000)) << received_.size() << " arrived\n" << log_.dump();
  int numbered = 0, sunk = 0;
  for (const Received &r : received_) {
    if (GetStr(r.message.get(), "cmd") == "sunk") {
      EXPECT_EQ(GetStr(r.message.get(), "size"), std::to_string(kSize));
      sunk++;
    } else {
      EXPECT_TRUE(HasBytes(r.message.get(), "data", Pattern(kSize, numbered)));
      numbered++;
    }
  }
  EXPECT_EQ(numbered, 4);
  EXPECT_EQ(sunk, 4);
}

TEST_F(MessagePort, SenderWithoutAppIdIsReportedAsNullAndItsQueueIsDeliveredAtQuit) {
  constexpr size_t kSize = 32u << 20;
  DirectProcess sender({{"MP_TEST_SEND_TO", std::string(kClient) + ":" + kClientPort},
                        {"MP_TEST_PORT", ""},
                        {"MP_TEST_SEND_COUNT", "2"},
                        {"MP_TEST_SEND_SIZE", std::to_string(kSize)},
                        {"MP_TEST_QUIT_AFTER_SEND", "1"}},
                       true);
  ASSERT_TRUE(WaitForMessages(2, 30000)) << log_.dump();
  EXPECT_FALSE(received_[0].hasRemote);
  EXPECT_TRUE(HasBytes(received_[0].message.get(), "data", Pattern(kSize, 0)));
  EXPECT_TRUE(HasBytes(received_[1].message.get(), "data", Pattern(kSize, 1)));
}

TEST_F(MessagePort, SenderClaimingAnotherLiveAppsIdIsNotBelieved) {
  LaunchApp();
  // The impostor names itself kApp while the real kApp runs; it registers no port.
  DirectProcess impostor({{"VELNA_APP_ID", kApp},
                          {"MP_TEST_PORT", ""},
                          {"MP_TEST_SEND_TO", std::string(kClient) + ":" + kClientPort}},
                         false);
  ASSERT_TRUE(WaitForMessages(1)) << log_.dump();
  EXPECT_FALSE(received_[0].hasRemote) << received_[0].remote;

  ASSERT_EQ(message_port_send_message(kApp, kAppPort, Command("echo").get()), 0);
  ASSERT_TRUE(WaitForMessages(2)) << log_.dump();
  EXPECT_EQ(received_[1].remote, kApp);
}

TEST_F(MessagePort, MissingAppOrPortFailsAtOnceAndTheCheckFollowsTheAppAndItsRestarts) {
  auto sendTook = [&](const char *app, const char *port, int *result) {
    auto start = std::chrono::steady_clock::now();
    *result = message_port_send_message(app, port, Command("echo").get());
    return std::chrono::steady_clock::now() - start;
  };
  int r = 0;
  EXPECT_FALSE(PortExists(kApp, kAppPort));
  EXPECT_FALSE(PortExists("org.test.mp.idle", kAppPort));
  bool exist = false;
  EXPECT_EQ(message_port_check_remote_port("", kAppPort, &exist), -EINVAL);
  EXPECT_LT(sendTook(kApp, kAppPort, &r), std::chrono::seconds(1));  // installed, not running
  EXPECT_EQ(r, -ENOENT);
  EXPECT_LT(sendTook("org.test.mp.absent", kAppPort, &r), std::chrono::seconds(1));
  EXPECT_EQ(r, -ENOENT);
  EXPECT_EQ(message_port_send_message("bad id/", kAppPort, Command("echo").get()), -EINVAL);

  LaunchApp();
  EXPECT_TRUE(PortExists(kApp, kAppPort));
  EXPECT_FALSE(PortExists(kApp, "NO_SUCH_PORT"));
  EXPECT_LT(sendTook(kApp, "NO_SUCH_PORT", &r), std::chrono::seconds(1));
  EXPECT_EQ(r, -ENOENT);
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, Command("echo").get()), 0);
  ASSERT_TRUE(WaitForMessages(1));

  // Killed: gone at once, before the loop has seen the connection close.
  ASSERT_EQ(app_manager_terminate_app(kApp), 0);
  EXPECT_FALSE(PortExists(kApp, kAppPort));
  EXPECT_EQ(message_port_send_message(kApp, kAppPort, Command("echo").get()), -ENOENT);

  // Restarted: the next send reaches the new instance.
  LaunchApp();
  BundlePtr again = Command("echo");
  bundle_add_str(again.get(), "payload", "again");
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, again.get()), 0);
  ASSERT_TRUE(WaitForMessages(2)) << log_.dump();
  EXPECT_EQ(GetStr(received_[1].message.get(), "payload"), "again");
}

TEST_F(MessagePort, RegisteringTheSameNameAgainReplacesTheCallback) {
  int calls = 0;
  auto counter = [](int, const char *, const char *, bool, bundle *, void *n) {
    ++*static_cast<int *>(n);
  };
  EXPECT_EQ(message_port_register_local_port(kClientPort, counter, &calls), portId_);
  int other = message_port_register_local_port("OTHER_PORT", counter, &calls);
  EXPECT_GT(other, 0);
  EXPECT_NE(other, portId_);

  ASSERT_EQ(message_port_send_message(kClient, kClientPort, MakeBundle().get()), 0);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return calls == 1; }, 5000));
  EXPECT_TRUE(received_.empty());
}

// Writes raw bytes to the client's own port, as a hostile local process could.
class RawPeer {
 public:
  RawPeer() {
    char path[108];
    EXPECT_EQ(velna_socket_path("mp", kClient, kClientPort, path, sizeof path), 0);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path, std::strlen(path) + 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  }
  ~RawPeer() { close(fd_); }
  void Write(const std::vector<unsigned char> &bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
  }
  void Frame(uint32_t magic, uint32_t len, const std::vector<unsigned char> &payload) {
    std::vector<unsigned char> bytes(8);
    for (int i = 0; i < 4; i++) {
      bytes[i] = static_cast<unsigned char>(magic >> (8 * i));
      bytes[4 + i] = static_cast<unsigned char>(len >> (8 * i));
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    Write(bytes);
  }
  // True once the receiver has closed its end.
  bool Dropped() {
    char c;
    return recv(fd_, &c, 1, MSG_DONTWAIT) == 0;
  }
  void Close() { shutdown(fd_, SHUT_WR); }

 private:
  int fd_ = -1;
};

std::vector<unsigned char> Encoded(const char *key, const char *value) {
  BundlePtr b = MakeBundle();
  bundle_add_str(b.get(), key, value);
  unsigned char *raw = nullptr;
  size_t len = 0;
  EXPECT_EQ(bundle_encode_raw(b.get(), &raw, &len), 0);
  std::vector<unsigned char> out(raw, raw + len);
  free(raw);
  return out;
}

TEST_F(MessagePort, HostileBytesDropOnlyThatPeer) {
  LaunchApp();
  const std::vector<unsigned char> good = Encoded("cmd", "forged");

  RawPeer wrongMagic, absurdLength, badBundle, truncated, honest;
  wrongMagic.Frame(0x12345678u, uint32_t(good.size()), good);
  wrongMagic.Frame(VELNA_FRAME_MAGIC, uint32_t(good.size()), good);  // after the drop
  absurdLength.Frame(VELNA_FRAME_MAGIC, 0xFFFFFFF0u, {});
  badBundle.Frame(VELNA_FRAME_MAGIC, 5, {'V', 'B', 'D', 'L', 0});
  truncated.Frame(VELNA_FRAME_MAGIC, 1000, {1, 2, 3});
  truncated.Close();
  honest.Frame(VELNA_FRAME_MAGIC, uint32_t(good.size()), good);

  BundlePtr send = Command("send");
  bundle_add_str(send.get(), "count", "5");
  ASSERT_EQ(message_port_send_message(kApp, kAppPort, send.get()), 0);

  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] {
        return received_.size() >= 6 && wrongMagic.Dropped() && absurdLength.Dropped() &&
               badBundle.Dropped();
      },
      10000))
      << received_.size() << " arrived\n" << log_.dump();
  testsupport::RunLoopFor(100);

  EXPECT_TRUE(log_.has("bad frame magic 0x12345678")) << log_.dump();
  EXPECT_TRUE(log_.has("frame of 4294967280 bytes exceeds the cap")) << log_.dump();
  EXPECT_TRUE(log_.has("undecodable message of 5 bytes")) << log_.dump();
  ASSERT_EQ(received_.size(), 6u);  // the honest raw frame and the app's five
  int forged = 0, numbered = 0;
  for (const Received &r : received_) {
    if (GetStr(r.message.get(), "cmd") == "forged") {
      forged++;
      EXPECT_EQ(r.remote, kClient);  // the raw socket's owner: this very process
    } else {
      EXPECT_EQ(r.remote, kApp);
      EXPECT_EQ(GetStr(r.message.get(), "seq"), std::to_string(numbered++));
    }
  }
  EXPECT_EQ(forged, 1);
  EXPECT_FALSE(honest.Dropped());
}

TEST_F(MessagePort, ProcessWithoutAValidOrFreeAppIdCannotOwnAPort) {
  LaunchApp();  // kApp is held by the app's process now
  auto cb = [](int, const char *, const char *, bool, bundle *, void *) {};
  unsetenv("VELNA_APP_ID");
  EXPECT_EQ(message_port_register_local_port("SOME_PORT", cb, nullptr), -EINVAL);
  setenv("VELNA_APP_ID", "not a valid id", 1);
  EXPECT_EQ(message_port_register_local_port("SOME_PORT", cb, nullptr), -EINVAL);
  EXPECT_EQ(log_.count("no valid VELNA_APP_ID"), 2) << log_.dump();

  setenv("VELNA_APP_ID", kApp, 1);
  EXPECT_EQ(message_port_register_local_port("MINE", cb, nullptr), -EEXIST);
}

}  // namespace
