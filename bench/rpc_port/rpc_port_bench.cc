// Round trip of a 256-byte bundle over rpc-port (proxy sends on the main channel, the app
// answers on the callback channel, the proxy's received event reads it) beside the floor:
// the same number of bytes ping-ponged over a raw socketpair with a child process.
// Each benchmark records every round trip and reports its median; the rpc-port one also
// reports its median as a multiple of the raw median measured before it (x_raw_median).
#include <app_manager.h>
#include <benchmark/benchmark.h>
#include <bundle.h>
#include <ftw.h>
#include <glib.h>
#include <rpc-port.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBundleBytes = 256;
constexpr const char *kApp = "bench.echo";

std::vector<double> rpc_samples_us;
std::vector<double> raw_samples_us;
size_t frame_bytes = 0;  // what one rpc-port parcel costs on the wire, header included

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

size_t EncodedSize(bundle *b) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  bundle_encode_raw(b, &raw, &len);
  free(raw);
  return len;
}

// A bundle whose encoded form is exactly kBundleBytes.
bundle *MakeBundle() {
  bundle *b = bundle_create();
  std::string value(kBundleBytes, 'p');
  bundle_add_byte(b, "payload", value.data(), value.size());
  size_t overhead = EncodedSize(b) - kBundleBytes;
  value.resize(kBundleBytes - overhead);
  bundle_del(b, "payload");
  bundle_add_byte(b, "payload", value.data(), value.size());
  // frame header 8, int32 field 1 + 4, bundle field 1 + 4 + the bundle
  frame_bytes = 8 + 5 + 5 + EncodedSize(b);
  return b;
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) {
  return remove(path);
}

// A temporary runtime and apps directory with the bench app installed, and one proxy
// connected to it, for the whole run.
struct RpcSetup {
  std::string root;
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h main_port = nullptr;
  bool connected = false;
  bool failed = false;
  int received = 0;

  bool start() {
    char tmpl[] = "/tmp/vbench-XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    root = tmpl;
    std::string rt = root + "/rt", apps = root + "/apps";
    mkdir(rt.c_str(), 0700);
    mkdir(apps.c_str(), 0755);
    setenv("VELNA_RUNTIME_DIR", rt.c_str(), 1);
    setenv("VELNA_APPS_DIR", apps.c_str(), 1);
    setenv("VELNA_APP_ID", "bench.client", 1);
    std::ofstream(apps + "/" + kApp + ".app")
        << "[Application]\nPackage=org.bench.echo\nExec=" << RPC_BENCH_APP << "\n";

    rpc_port_proxy_create(&proxy);
    rpc_port_proxy_add_connected_event_cb(
        proxy,
        [](const char *, const char *, rpc_port_h port, void *self) {
          static_cast<RpcSetup *>(self)->main_port = port;
          static_cast<RpcSetup *>(self)->connected = true;
        },
        this);
    rpc_port_proxy_add_rejected_event_cb(
        proxy, [](const char *, const char *, void *self) { static_cast<RpcSetup *>(self)->failed = true; },
        this);
    rpc_port_proxy_add_disconnected_event_cb(
        proxy, [](const char *, const char *, void *self) { static_cast<RpcSetup *>(self)->failed = true; },
        this);
    rpc_port_proxy_add_received_event_cb(proxy, OnReceived, this);
    if (rpc_port_proxy_connect(proxy, kApp, "bench") != 0) return false;
    gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!connected && !failed && g_get_monotonic_time() < deadline)
      g_main_context_iteration(nullptr, TRUE);
    return connected;
  }

  static void OnReceived(const char *, const char *, void *data) {
    RpcSetup *self = static_cast<RpcSetup *>(data);
    rpc_port_h cb = nullptr;
    rpc_port_parcel_h p = nullptr;
    if (rpc_port_proxy_get_port(self->proxy, RPC_PORT_PORT_CALLBACK, &cb) != 0 ||
        rpc_port_parcel_create_from_port(&p, cb) != 0)
      return;
    int cmd = 0;
    bundle *b = nullptr;
    rpc_port_parcel_read_int32(p, &cmd);
    rpc_port_parcel_read_bundle(p, &b);
    if (b) bundle_free(b);
    rpc_port_parcel_destroy(p);
    self->received++;
  }

  ~RpcSetup() {
    if (proxy) rpc_port_proxy_destroy(proxy);
    app_manager_terminate_app(kApp);
    if (!root.empty()) nftw(root.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
};

void BM_RpcPortRoundTrip(benchmark::State &state) {
  RpcSetup setup;
  if (!setup.start()) {
    state.SkipWithError("cannot connect to the bench app");
    return;
  }
  bundle *b = MakeBundle();
  rpc_samples_us.clear();
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    int want = setup.received + 1;
    rpc_port_parcel_h p = nullptr;
    rpc_port_parcel_create(&p);
    rpc_port_parcel_write_int32(p, 4);
    rpc_port_parcel_write_bundle(p, b);
    rpc_port_parcel_send(p, setup.main_port);
    rpc_port_parcel_destroy(p);
    while (setup.received < want && !setup.failed) g_main_context_iteration(nullptr, TRUE);
    if (setup.failed) {
      state.SkipWithError("connection lost");
      break;
    }
    rpc_samples_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  bundle_free(b);
  state.counters["median_us"] = Median(rpc_samples_us);
  state.counters["bytes"] = double(frame_bytes);
  double raw = Median(raw_samples_us);
  if (raw > 0) state.counters["x_raw_median"] = Median(rpc_samples_us) / raw;
}

bool FullIo(ssize_t (*io)(int, void *, size_t), int fd, char *buf, size_t n) {
  for (size_t done = 0; done < n;) {
    ssize_t r = io(fd, buf + done, n - done);
    if (r <= 0) return false;
    done += size_t(r);
  }
  return true;
}

ssize_t Read(int fd, void *buf, size_t n) { return read(fd, buf, n); }
ssize_t Write(int fd, void *buf, size_t n) { return send(fd, buf, n, MSG_NOSIGNAL); }

void BM_RawSocketpairPingPong(benchmark::State &state) {
  bundle_free(MakeBundle());  // sets frame_bytes
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) {
    state.SkipWithError("socketpair");
    return;
  }
  size_t n = frame_bytes;
  pid_t child = fork();
  if (child == 0) {
    close(sv[0]);
    std::vector<char> buf(n);
    while (FullIo(Read, sv[1], buf.data(), n) && FullIo(Write, sv[1], buf.data(), n)) {
    }
    _exit(0);
  }
  close(sv[1]);
  std::vector<char> buf(n, 'r');
  raw_samples_us.clear();
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    if (!FullIo(Write, sv[0], buf.data(), n) || !FullIo(Read, sv[0], buf.data(), n)) {
      state.SkipWithError("echo child gone");
      break;
    }
    raw_samples_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  close(sv[0]);
  waitpid(child, nullptr, 0);
  state.counters["median_us"] = Median(raw_samples_us);
  state.counters["bytes"] = double(n);
}

// Registered in this order so that the floor is measured first.
BENCHMARK(BM_RawSocketpairPingPong)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_RpcPortRoundTrip)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
