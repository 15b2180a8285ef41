// The monitor tap: what a listening monitor receives of a process's sends, and how the
// tap socket is claimed and given back.
#include <bundle.h>
#include <gtest/gtest.h>
#include <message_port.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <velna_monitor.h>

#include <cerrno>
#include <string>
#include <vector>

#include "LoopUntil.h"
#include "TempEnv.h"

namespace {

const char kSelf[] = "org.example.monitored";
const char kPort[] = "MONITORED_PORT";

class MonitorTap : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kSelf, 1);
    ASSERT_GT(message_port_register_local_port(
                  kPort, [](int, const char *, const char *, bool, bundle *, void *) {}, nullptr),
              0);
  }
  void TearDown() override {
    for (int conn : conns_) close(conn);
    if (monitor_ >= 0) velna_monitor_stop(monitor_);
  }

  std::string socketPath() const { return env_.runtimeDir() + "/monitor"; }

  // Sends a message numbered n to this process's own port.
  void send(int n) {
    bundle *b = bundle_create();
    bundle_add_str(b, "n", std::to_string(n).c_str());
    ASSERT_EQ(0, message_port_send_message(kSelf, kPort, b));
    bundle_free(b);
  }

  // Every copy waiting now, in arrival order, as the value of "n" (or "?").
  std::vector<std::string> received() {
    for (int conn; velna_monitor_accept(monitor_, &conn) == 0;) conns_.push_back(conn);
    std::vector<std::string> out;
    velna_monitor_record record;
    for (int conn : conns_) {
      while (velna_monitor_receive(conn, &record) == 0) {
        char *n = nullptr;
        EXPECT_EQ(VELNA_MONITOR_MESSAGE_PORT, record.mechanism);
        EXPECT_STREQ(kSelf, record.sender);
        EXPECT_STREQ(kSelf, record.receiver);
        EXPECT_STREQ(kPort, record.port);
        EXPECT_EQ(getpid(), record.sender_pid);
        out.push_back(record.message && bundle_get_str(record.message, "n", &n) == 0 ? n : "?");
        velna_monitor_record_clear(&record);
      }
    }
    return out;
  }

  testsupport::TempEnv env_;
  int monitor_ = -1;
  std::vector<int> conns_;
};

}  // namespace

TEST_F(MonitorTap, AnIdleMonitorGetsAWholeBurstInOrderAndOnlyWhatWasSentWhileItListened) {
  send(0);  // no monitor yet: nothing is kept for a later one
  ASSERT_EQ(0, velna_monitor_listen(&monitor_));
  struct stat st;
  ASSERT_EQ(0, stat(socketPath().c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  // The sender looked for the tap at its first send, a moment ago; it looks again
  // within a second.
  ASSERT_TRUE(testsupport::RunLoopUntil([&] {
    send(-1);
    return !received().empty();
  }, 3000));
  for (int n = 1; n <= 100; ++n) send(n);
  std::vector<std::string> expected;
  for (int n = 1; n <= 100; ++n) expected.push_back(std::to_string(n));
  EXPECT_EQ(expected, received());
}

TEST_F(MonitorTap, ASocketLeftByADeadMonitorIsReplacedOneListensAtATimeAndARestartLosesNothing) {
  int dead = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{AF_UNIX, {}};
  socketPath().copy(addr.sun_path, sizeof addr.sun_path - 1);
  ASSERT_EQ(0, bind(dead, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
  close(dead);  // the file stays, nobody listens

  ASSERT_EQ(0, velna_monitor_listen(&monitor_));
  int second = -1;
  EXPECT_EQ(-EBUSY, velna_monitor_listen(&second));
  send(1);
  EXPECT_EQ(std::vector<std::string>({"1"}), received());

  // The sender's connection breaks with the first monitor; it finds the next at once.
  for (int conn : conns_) close(conn);
  conns_.clear();
  velna_monitor_stop(monitor_);
  EXPECT_NE(0, access(socketPath().c_str(), F_OK));
  ASSERT_EQ(0, velna_monitor_listen(&monitor_));
  send(2);
  EXPECT_EQ(std::vector<std::string>({"2"}), received());
}
