// Peers that send what no app would against the library's port (a frame that stops
// arriving, a peer of another user), and runtime directories that others could use.
#include <fcntl.h>
#include <message_port.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "FaultFixture.h"
#include "RawSocket.h"

namespace faults {
namespace {

const std::string kPort = "org.velna.test.fault.port";

// The client's only message-port socket (apps not running have none).
std::string ClientSocket(const TempEnv &env) {
  std::string found;
  for (const auto &entry : std::filesystem::directory_iterator(env.runtimeDir() + "/s"))
    if (entry.path().filename().string().rfind("mp-", 0) == 0) found = entry.path();
  return found;
}

// A child process that connects to path (as uid when given), writes bytes, then waits
// up to waitMs for the peer to drop it. It reports on a pipe, since the loop's own
// child handling may reap it: '0' when it was dropped.
struct PeerProcess {
  pid_t pid;
  int report;  // read end, owned
};

PeerProcess Peer(const std::string &path, const std::string &bytes, int waitMs, uid_t uid = 0) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return {-1, -1};
  pid_t pid = fork();
  if (pid != 0) {
    close(fds[1]);
    return {pid, fds[0]};
  }
  auto report = [&](char c) {
    (void)!write(fds[1], &c, 1);
    _exit(0);
  };
  if (uid && (setgid(uid) != 0 || setuid(uid) != 0)) report('u');
  int fd = RawConnect(path);
  if (fd < 0) report('c');
  for (size_t at = 0; at < bytes.size();) {
    ssize_t n = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0) report('0');  // dropped while still writing
    at += size_t(n);
  }
  struct pollfd p = {fd, POLLIN, 0};
  char c;
  report(poll(&p, 1, waitMs) == 1 && recv(fd, &c, 1, 0) <= 0 ? '0' : 't');
  return {-1, -1};
}

// Runs the loop until the child reports: its report ('0': dropped), or 'x' when it did
// not report in time (it is killed then).
char Reap(PeerProcess peer, int timeoutMs) {
  char c = 'x';
  struct pollfd p = {peer.report, POLLIN, 0};
  if (RunLoopUntil([&] { return poll(&p, 1, 0) == 1; }, timeoutMs) && read(peer.report, &c, 1) != 1)
    c = 'x';
  if (c == 'x') kill(peer.pid, SIGKILL);
  waitpid(peer.pid, nullptr, WNOHANG);
  close(peer.report);
  return c;
}

long VmSizeKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmSize:", 0) == 0) return strtol(line.c_str() + 7, nullptr, 10);
  return -1;
}

using TransportFaults = FaultTest;

// A header at the cap followed by 1 MiB, and a small frame cut off halfway: memory grows
// only with what arrived, and both senders are dropped once their frames stall.
TEST_F(TransportFaults, FrameThatStopsArrivingCostsWhatArrivedAndDropsItsSender) {
  installTestApp(kPort, "port-app", false);
  std::string socket = ClientSocket(env);
  ASSERT_FALSE(socket.empty());
  long before = VmSizeKiB();

  PeerProcess huge = Peer(socket, FrameHeader(MESSAGE_PORT_MAX_MESSAGE_SIZE) + std::string(1 << 20, 'x'), 30000);
  PeerProcess half = Peer(socket, FrameHeader(64 * 1024) + std::string(32 * 1024, 'y'), 30000);
  RunLoopFor(1000);
  long grown = VmSizeKiB() - before;
  EXPECT_LT(grown, 32 * 1024) << "virtual size grew by " << grown << " KiB for 1 MiB that arrived";

  EXPECT_EQ('0', Reap(huge, 25000));
  EXPECT_EQ('0', Reap(half, 5000));
  EXPECT_EQ(2, log->count("made no progress")) << log->dump();

  expectServed(kPort);
  finish();
}

TEST_F(TransportFaults, PeerOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  installTestApp(kPort, "port-app", false);
  std::string socket = ClientSocket(env);
  ASSERT_FALSE(socket.empty());

  // Directories and socket opened up for the moment, so that only the check of the
  // peer's credentials stands in its way.
  std::string rt = env.runtimeDir();
  chmod(env.root().c_str(), 0711);
  chmod(rt.c_str(), 0711);
  chmod((rt + "/s").c_str(), 0711);
  chmod(socket.c_str(), 0666);
  char status = Reap(Peer(socket, FrameHeader(5) + "12345", 5000, 65534), 8000);
  chmod(socket.c_str(), 0600);
  chmod((rt + "/s").c_str(), 0700);
  chmod(rt.c_str(), 0700);
  chmod(env.root().c_str(), 0700);
  EXPECT_EQ('0', status);
  EXPECT_TRUE(log->has("of uid 65534")) << log->dump();
  EXPECT_FALSE(log->has("undecodable message"));

  expectServed(kPort);
  finish();
}

TEST_F(TransportFaults, RuntimeDirectoryOthersCouldUseIsRefusedAndSocketsArePrivate) {
  installRpcSample("org.velna.test.fault.rpc");
  ASSERT_EQ(0, act("org.velna.test.fault.rpc", "rpc", {{"actionId", "a"}}));
  ASSERT_TRUE(waitCalls(1, 10000)) << log->dump();
  int sockets = 0;
  for (const auto &entry : std::filesystem::directory_iterator(env.runtimeDir() + "/s")) {
    struct stat st;
    ASSERT_EQ(0, stat(entry.path().c_str(), &st));
    if (!S_ISSOCK(st.st_mode)) continue;
    ++sockets;
    EXPECT_EQ(0600u, st.st_mode & 07777) << entry.path();
  }
  EXPECT_GE(sockets, 2);  // the client's port and the app's rpc-port

  std::string open = env.root() + "/open", foreign = env.root() + "/foreign";
  mkdir(open.c_str(), 0700);
  chmod(open.c_str(), 0777);
  setenv("VELNA_RUNTIME_DIR", open.c_str(), 1);
  auto noop = [](int, const char *, const char *, bool, bundle *, void *) {};
  EXPECT_EQ(-13, message_port_register_local_port("FAULT_OTHER", noop, nullptr));
  EXPECT_TRUE(log->has("chmod 700 " + open)) << log->dump();
  if (geteuid() == 0) {
    mkdir(foreign.c_str(), 0700);
    ASSERT_EQ(0, chown(foreign.c_str(), 65534, 65534));
    setenv("VELNA_RUNTIME_DIR", foreign.c_str(), 1);
    EXPECT_EQ(-13, message_port_register_local_port("FAULT_OTHER", noop, nullptr));
    EXPECT_TRUE(log->has("belongs to uid 65534")) << log->dump();
  }
  setenv("VELNA_RUNTIME_DIR", env.runtimeDir().c_str(), 1);
  finish();
}

}  // namespace
}  // namespace faults
