// Framing of hostile byte streams. The first input byte picks the frame cap, the second
// the size of the pieces in which the rest, the stream, arrives through a socket pair.
// The channel must yield exactly the frames before the first bad header (wrong magic,
// length over the cap) or the stream's end, and once the peer is gone it must say so
// instead of waiting.
#include "fuzz_env.h"

static uint32_t Le32(const uint8_t *p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Takes frames until none is queued (timeout_ms 0) or the channel fails; returns why.
static int TakeAll(velna_channel *ch, int timeout_ms, std::vector<std::string> &got) {
  unsigned char *payload = nullptr;
  size_t len = 0;
  int r;
  while ((r = velna_channel_take_frame(ch, timeout_ms, &payload, &len)) == 0) {
    got.emplace_back(reinterpret_cast<char *>(payload), len);
    free(payload);
  }
  return r;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const uint32_t kCaps[] = {0, 1, 8, 64, 4096, 65536, 1u << 20, 128u << 20};
  [[maybe_unused]] static const std::string &root = talvo_fuzz::FuzzRoot();  // log silenced
  if (size < 2) return 0;
  // Mostly small caps: a header at the largest costs an allocation of that size.
  uint32_t cap = data[0] % 32 < 8 ? kCaps[data[0] % 32] : 4096;
  const uint8_t *stream = data + 2;
  size_t n = size - 2;
  size_t piece = std::max<size_t>(data[1] ? data[1] : size, n / 64 + 1);  // 64 sends at most

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
  velna_channel *ch = velna_channel_new(fds[0], cap);
  if (!ch) abort();
  std::vector<std::string> got;
  for (size_t off = 0; off < n; off += piece) {
    size_t len = std::min(piece, n - off);
    // After a bad header the channel hangs up: the rest of the stream has no reader.
    if (send(fds[1], stream + off, len, MSG_NOSIGNAL) != static_cast<ssize_t>(len)) {
      if (errno != EPIPE && errno != ECONNRESET) abort();
      break;
    }
    int r = TakeAll(ch, 0, got);
    if (r != -EAGAIN && r != -EIO) abort();
  }
  shutdown(fds[1], SHUT_WR);
  if (TakeAll(ch, 10000, got) != -EIO || velna_channel_is_open(ch)) abort();

  std::vector<std::string> expected;
  for (const uint8_t *p = stream, *end = stream + n; end - p >= VELNA_FRAME_HEADER_SIZE;) {
    uint32_t len = Le32(p + 4);
    if (Le32(p) != VELNA_FRAME_MAGIC || len > cap ||
        static_cast<size_t>(end - p) - VELNA_FRAME_HEADER_SIZE < len)
      break;
    expected.emplace_back(reinterpret_cast<const char *>(p) + VELNA_FRAME_HEADER_SIZE, len);
    p += VELNA_FRAME_HEADER_SIZE + len;
  }
  if (got != expected) abort();
  velna_channel_close(ch);
  close(fds[1]);
  return 0;
}
