// The message port against the raw floor of the same machine, measured in one run:
//   round trip of a 256-byte (encoded) bundle client -> app -> client, beside a
//   socketpair ping-pong of 256 bytes between two processes;
//   a 16 MiB and a 64 MiB message delivered and acknowledged, beside as many bytes
//   streamed over a socketpair and acknowledged with one byte. 64 MiB lies past the size
//   up to which the C allocator keeps freed blocks for reuse, so only the platform's own
//   buffer reuse spares the fresh pages there.
// The app is mp-bench-echo, a separate process that runs the platform's main loop.
#include <benchmark/benchmark.h>
#include <bundle.h>
#include <message_port.h>

#include <glib.h>
#include <glib/gstdio.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr const char *kClient = "org.bench.mp.client";
constexpr const char *kEcho = "org.bench.mp.echo";
constexpr size_t kSmall = 256;
constexpr size_t kLarge = 16u << 20;
constexpr size_t kHuge = 64u << 20;

int g_replies = 0;

void OnReply(int, const char *, const char *, bool, bundle *, void *) { g_replies++; }

void WaitForReplies(int count) {
  while (g_replies < count) g_main_context_iteration(nullptr, TRUE);
}

// A bundle whose encoded form is exactly `encoded` bytes.
bundle *MakeBundle(const char *mode, size_t encoded) {
  size_t dataSize = encoded;
  for (;;) {
    bundle *b = bundle_create();
    bundle_add_str(b, "mode", mode);
    std::vector<unsigned char> data(dataSize, 0xab);
    bundle_add_byte(b, "data", data.data(), data.size());
    unsigned char *raw = nullptr;
    size_t len = 0;
    bundle_encode_raw(b, &raw, &len);
    free(raw);
    if (len == encoded) return b;
    bundle_free(b);
    dataSize -= len - encoded;  // the overhead is fixed for one key layout
  }
}

bool ReadAll(int fd, void *buf, size_t len) {
  auto *p = static_cast<unsigned char *>(buf);
  while (len > 0) {
    ssize_t r = read(fd, p, len);
    if (r <= 0) return false;
    p += r;
    len -= size_t(r);
  }
  return true;
}

bool WriteAll(int fd, const void *buf, size_t len) {
  auto *p = static_cast<const unsigned char *>(buf);
  while (len > 0) {
    ssize_t w = send(fd, p, len, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    len -= size_t(w);
  }
  return true;
}

// A child process at the other end of a socketpair that reads `chunk` bytes and answers
// with `answer` bytes, until the pair closes.
struct RawPeer {
  int fd = -1;
  pid_t pid = -1;
  RawPeer(size_t chunk, size_t answer) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) return;
    pid = fork();
    if (pid == 0) {
      close(sv[0]);
      std::vector<unsigned char> buf(chunk > answer ? chunk : answer);
      while (ReadAll(sv[1], buf.data(), chunk) && WriteAll(sv[1], buf.data(), answer)) {
      }
      _exit(0);
    }
    close(sv[1]);
    fd = sv[0];
  }
  ~RawPeer() {
    close(fd);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
};

void BM_RawSocketpairRoundTrip256(benchmark::State &state) {
  RawPeer peer(kSmall, kSmall);
  std::vector<unsigned char> buf(kSmall, 0xab);
  for (auto _ : state) {
    if (!WriteAll(peer.fd, buf.data(), kSmall) || !ReadAll(peer.fd, buf.data(), kSmall)) {
      state.SkipWithError("raw peer failed");
      break;
    }
  }
}

// Sends a bundle of `size` bytes under `kind` and waits for each reply.
void SendAndWaitEach(benchmark::State &state, const char *kind, size_t size) {
  bundle *b = MakeBundle(kind, size);
  for (auto _ : state) {
    int expected = g_replies + 1;
    if (message_port_send_message(kEcho, "BENCH_PORT", b) != 0) {
      state.SkipWithError("send failed");
      break;
    }
    WaitForReplies(expected);
  }
  bundle_free(b);
}

void BM_MessagePortRoundTrip256(benchmark::State &state) { SendAndWaitEach(state, "echo", kSmall); }

void BM_RawSocketpairStream(benchmark::State &state, size_t size) {
  RawPeer peer(size, 1);
  std::vector<unsigned char> buf(size, 0xab);
  for (auto _ : state) {
    unsigned char ack;
    if (!WriteAll(peer.fd, buf.data(), size) || !ReadAll(peer.fd, &ack, 1)) {
      state.SkipWithError("raw peer failed");
      break;
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}

void BM_MessagePortMessage(benchmark::State &state, size_t size) {
  SendAndWaitEach(state, "ack", size);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}

BENCHMARK(BM_RawSocketpairRoundTrip256)->UseRealTime();
BENCHMARK(BM_MessagePortRoundTrip256)->UseRealTime();
BENCHMARK_CAPTURE(BM_RawSocketpairStream, 16MiB, kLarge)
    ->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MessagePortMessage, 16MiB, kLarge)
    ->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RawSocketpairStream, 64MiB, kHuge)
    ->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MessagePortMessage, 64MiB, kHuge)
    ->UseRealTime()->Unit(benchmark::kMillisecond);

void RemoveTree(const std::string &path) {
  if (GDir *dir = g_dir_open(path.c_str(), 0, nullptr)) {
    while (const char *name = g_dir_read_name(dir)) {
      std::string child = path + "/" + name;
      if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR)) RemoveTree(child);
      else g_unlink(child.c_str());
    }
    g_dir_close(dir);
  }
  g_rmdir(path.c_str());
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);

  char tmpl[] = "/tmp/velna-bench-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  const std::string root = tmpl;
  setenv("VELNA_RUNTIME_DIR", (root + "/rt").c_str(), 1);
  setenv("VELNA_APPS_DIR", (root + "/apps").c_str(), 1);
  setenv("VELNA_APP_ID", kClient, 1);
  if (message_port_register_local_port("BENCH_CLIENT", OnReply, nullptr) <= 0) {
    std::fprintf(stderr, "cannot register the client port\n");
    return 1;
  }

  gchar **envp = g_environ_setenv(g_get_environ(), "VELNA_APP_ID", kEcho, TRUE);
  gchar *args[] = {const_cast<gchar *>(MP_BENCH_ECHO), nullptr};
  GPid echo = 0;
  bool spawned = g_spawn_async(nullptr, args, envp, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                               nullptr, &echo, nullptr);
  g_strfreev(envp);
  bool ready = false;
  for (gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
       spawned && !ready && g_get_monotonic_time() < end;) {
    message_port_check_remote_port(kEcho, "BENCH_PORT", &ready);
    if (!ready) g_usleep(10000);  // the echo app is starting
  }
  if (!ready) {
    std::fprintf(stderr, "the echo app did not come up\n");
    return 1;
  }

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  kill(echo, SIGTERM);
  waitpid(echo, nullptr, 0);
  RemoveTree(root);
  return 0;
}
