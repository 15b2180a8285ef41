// Framing of untrusted byte streams. The input picks a frame cap and the size of the
// pieces in which the bytes arrive, then is the stream itself, fed through a socket pair
// into a channel. The frames taken must be exactly those that the stream holds before
// its first bad header (wrong magic, length over the cap) or its end, and once the peer
// is gone the channel must report it instead of waiting.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include "channel_internal.h"
}

namespace {

constexpr size_t kMaxPieces = 64;
constexpr uint32_t kCaps[] = {0, 1, 8, 64, 4096, 65536, 1u << 20, 128u << 20};

uint32_t Le32(const uint8_t *p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// The frames that the stream holds before its first bad header or its end.
std::vector<std::string> ExpectedFrames(const uint8_t *p, size_t n, uint32_t cap) {
  std::vector<std::string> frames;
  while (n >= VELNA_FRAME_HEADER_SIZE) {
    uint32_t len = Le32(p + 4);
    if (Le32(p) != VELNA_FRAME_MAGIC || len > cap) break;
    if (n - VELNA_FRAME_HEADER_SIZE < len) break;
    frames.emplace_back(reinterpret_cast<const char *>(p) + VELNA_FRAME_HEADER_SIZE, len);
    p += VELNA_FRAME_HEADER_SIZE + len;
    n -= VELNA_FRAME_HEADER_SIZE + len;
  }
  return frames;
}

// Takes frames until none is queued (timeout_ms 0) or until the channel fails.
int TakeAll(velna_channel *ch, int timeout_ms, std::vector<std::string> *got) {
  for (;;) {
    unsigned char *payload = nullptr;
    size_t len = 0;
    int r = velna_channel_take_frame(ch, timeout_ms, &payload, &len);
    if (r != 0) return r;
    got->emplace_back(reinterpret_cast<char *>(payload), len);
    free(payload);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  // Most inputs get a small cap: a frame header at the largest cap costs an allocation
  // of that size, a good part of a millisecond under the sanitizers.
  size_t pick = data[0] % 32;
  uint32_t cap = pick < sizeof kCaps / sizeof kCaps[0] ? kCaps[pick] : 4096;
  const uint8_t *stream = data + 2;
  size_t stream_len = size - 2;
  // At most kMaxPieces writes per input, so that long streams stay cheap.
  size_t piece = data[1] == 0 ? size : data[1];
  if (stream_len / piece >= kMaxPieces) piece = stream_len / kMaxPieces + 1;

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
  velna_channel *ch = velna_channel_new(fds[0], cap);
  if (!ch) abort();

  std::vector<std::string> got;
  for (size_t off = 0; off < stream_len; off += piece) {
    size_t len = stream_len - off < piece ? stream_len - off : piece;
    // After a bad header the channel hangs up: the rest of the stream has no reader.
    if (send(fds[1], stream + off, len, MSG_NOSIGNAL) != static_cast<ssize_t>(len)) {
      if (errno != EPIPE && errno != ECONNRESET) abort();
      break;
    }
    int r = TakeAll(ch, 0, &got);
    if (r != -EAGAIN && r != -EIO) abort();
  }
  shutdown(fds[1], SHUT_WR);
  if (TakeAll(ch, 10000, &got) != -EIO) abort();  // a closed peer never looks silent
  if (velna_channel_is_open(ch)) abort();

  if (got != ExpectedFrames(stream, stream_len, cap)) abort();

  velna_channel_close(ch);
  close(fds[1]);
  return 0;
}
