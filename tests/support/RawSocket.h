// A local process that speaks to the platform's sockets by hand, as a hostile one could:
// frames are written byte by byte, so that a test can send what no honest peer sends.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>

#include "LoopUntil.h"
extern "C" {
#include "runtime_internal.h"
}

namespace testsupport {

// The frame magic of the platform's channels, as it goes over the wire.
constexpr uint32_t kFrameMagic = 0x314E4C56u;

inline std::string U32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }
inline std::string FrameHeader(uint32_t len, uint32_t magic = kFrameMagic) { return U32(magic) + U32(len); }
inline std::string Frame(const std::string &payload) { return FrameHeader(uint32_t(payload.size())) + payload; }

// The path of the socket of kind ("mp", "rpc") that app serves port at, or "".
inline std::string SocketOf(const char *kind, const char *app, const char *port) {
  char path[sizeof(sockaddr_un::sun_path)] = "";
  return velna_socket_path(kind, app, port, path, sizeof path) == 0 ? path : "";
}

// A connected stream socket to path (owned by the caller), or -1. Safe in a forked child.
inline int RawConnect(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) close(fd), fd = -1;
  return fd;
}

// A non-blocking socket listening at path, where any file is replaced (owned by the
// caller), or -1.
inline int RawListen(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  unlink(path.c_str());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0))
    close(fd), fd = -1;
  return fd;
}

inline bool WriteAll(int fd, const std::string &bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

// Runs the loop until n bytes have come from fd or the peer closed it, 5 s at most: what
// came, plus "<eof>" after a close.
inline std::string ReadRaw(int fd, size_t n = SIZE_MAX) {
  std::string got;
  RunLoopUntil(
      [&] {
        char buf[256];
        while (got.size() < n) {
          ssize_t r = recv(fd, buf, std::min(sizeof buf, n - got.size()), MSG_DONTWAIT);
          if (r == 0 || (r < 0 && errno != EAGAIN)) return got += "<eof>", true;
          if (r < 0) return false;
          got.append(buf, size_t(r));
        }
        return true;
      },
      5000);
  return got;
}

// A peer in this process that a test drives by hand. It connects to path, with the
// effective ids of uid when given (the listener sees the credentials of connect time), and
// writes its bytes as the socket takes them, between the turns of the loop that reads them.
class Peer {
 public:
  Peer(const std::string &path, std::string bytes, uid_t uid = 0) : bytes_(std::move(bytes)) {
    if (uid && (setegid(uid) != 0 || seteuid(uid) != 0)) return;
    fd_ = RawConnect(path);
    if (uid && (seteuid(0) != 0 || setegid(0) != 0)) abort();
    feed();
  }
  Peer(const Peer &) = delete;
  ~Peer() { close(fd_); }
  bool connected() const { return fd_ >= 0; }
  // Writes what the socket takes now; whether all has been written.
  bool feed() {
    while (connected() && at_ < bytes_.size()) {
      ssize_t n = send(fd_, bytes_.data() + at_, bytes_.size() - at_, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n <= 0) break;
      at_ += size_t(n);
    }
    return at_ == bytes_.size();
  }
  // Whether the other end closed the connection; feeds on until it does.
  bool dropped() {
    feed();
    char c;
    ssize_t r = connected() ? recv(fd_, &c, 1, MSG_DONTWAIT) : -1;
    return r == 0 || (r < 0 && connected() && errno != EAGAIN);
  }

 private:
  int fd_ = -1;
  std::string bytes_;
  size_t at_ = 0;
};

}  // namespace testsupport
