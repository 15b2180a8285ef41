// One loop turn that carries a 256-byte frame between two ends of a socket pair in one
// process: sent on one end, the default main context iterated until the other end has
// taken it. Beside it the same bytes through a plain GLib descriptor watch, the floor of
// a loop turn. The argument is the number of channel pairs connected (two watches each),
// which decides whether the readiness source polls them directly or through epoll; the
// frame always goes through the first pair.
#include <benchmark/benchmark.h>
#include <glib-unix.h>
#include <glib.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

extern "C" {
#include "channel_internal.h"
}

namespace {

constexpr size_t kFrame = 256;

struct Pairs {
  std::vector<velna_channel *> out, in;  // owned; closed by the destructor
  bool taken = false;

  explicit Pairs(int n) {
    for (int i = 0; i < n; i++) {
      int sv[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) abort();
      out.push_back(velna_channel_new(sv[0], 1u << 20));
      in.push_back(velna_channel_new(sv[1], 1u << 20));
      velna_channel_set_handlers(in.back(), Take, nullptr, this);
    }
  }
  ~Pairs() {
    for (velna_channel *c : out) velna_channel_close(c);
    for (velna_channel *c : in) velna_channel_close(c);
  }
  static void Take(velna_channel *channel, void *self) {
    static_cast<Pairs *>(self)->taken = velna_channel_drop_frame(channel) == 0;
  }
};

void BM_ChannelTurn(benchmark::State &state) {
  Pairs pairs(int(state.range(0)));
  const std::vector<char> frame(kFrame, 'x');
  for (auto _ : state) {
    pairs.taken = false;
    velna_channel_send(pairs.out[0], frame.data(), frame.size());
    while (!pairs.taken) g_main_context_iteration(nullptr, TRUE);
  }
}

struct RawWatch {
  int sv[2];
  bool taken = false;
  static gboolean Read(gint fd, GIOCondition, gpointer self) {
    char buf[kFrame];
    static_cast<RawWatch *>(self)->taken = read(fd, buf, sizeof buf) == ssize_t(kFrame);
    return G_SOURCE_CONTINUE;
  }
};

void BM_RawGLibTurn(benchmark::State &state) {
  RawWatch raw;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, raw.sv) != 0) abort();
  guint id = g_unix_fd_add(raw.sv[1], G_IO_IN, RawWatch::Read, &raw);
  const std::vector<char> frame(kFrame, 'x');
  for (auto _ : state) {
    raw.taken = false;
    if (write(raw.sv[0], frame.data(), frame.size()) != ssize_t(kFrame)) abort();
    while (!raw.taken) g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(id);
  close(raw.sv[0]);
  close(raw.sv[1]);
}

BENCHMARK(BM_RawGLibTurn);
BENCHMARK(BM_ChannelTurn)->Arg(1)->Arg(4)->Arg(16)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
