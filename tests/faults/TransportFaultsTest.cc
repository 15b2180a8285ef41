// Peers that send what no app would against the library's port (a frame that stops
// arriving, a peer of another user), and runtime directories that others could use.
#include <message_port.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

  {
    Peer huge(socket, FrameHeader(MESSAGE_PORT_MAX_MESSAGE_SIZE) + std::string(1 << 20, 'x'));
    Peer half(socket, FrameHeader(64 * 1024) + std::string(32 * 1024, 'y'));
    ASSERT_TRUE(huge.connected() && half.connected());
    ASSERT_TRUE(RunLoopUntil([&] {
      bool hugeSent = huge.feed(), halfSent = half.feed();
      return hugeSent && halfSent;
    }, 5000));
    RunLoopFor(200);  // the last bytes are read
    long grown = VmSizeKiB() - before;
    EXPECT_LT(grown, 32 * 1024) << "virtual size grew by " << grown << " KiB for 1 MiB that arrived";
    EXPECT_TRUE(RunLoopUntil([&] { return huge.dropped() && half.dropped(); }, 25000));
  }
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
  bool refused = false;
  {
    Peer stranger(socket, FrameHeader(5) + "12345", 65534);
    refused = stranger.connected() && RunLoopUntil([&] { return stranger.dropped(); }, 8000);
  }
  chmod(socket.c_str(), 0600);
  chmod((rt + "/s").c_str(), 0700);
  chmod(rt.c_str(), 0700);
  chmod(env.root().c_str(), 0700);
  EXPECT_TRUE(refused);
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
