// The library's round trip through its exported functions to running companion apps,
// each figure beside the platform transport alone doing the same exchange in the same
// run. Modes (the first argument):
//   roundtrip [FILTER [N]]
//               action round trip, message port and rpc-port, 256 B and 16 KiB payloads;
//               only the measurements whose name holds FILTER, N round trips each (for
//               profiling one of them, for instance under callgrind)
//   big         an answer of 1, 16 and 64 MiB in 1 MiB pieces over the message port
//   scale [MAX] 1, 10, 100, 500 (up to MAX) rpc-port apps connected; requests round-robin
//               and all to one app; client RSS and descriptors
//   rss [N]     client RSS at the start and end of N (100000) requests on each mechanism
// The apps are bench-port-app and bench-rpc-app, launched by the platform from manifests
// in a temporary apps directory; a private dbus-daemon stands in for the system bus.
#include <app_control.h>
#include <app_manager.h>
#include <bundle.h>
#include <message_port.h>
#include <rpc-port.h>
#include <talvo_proxy.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Harness.h"

using namespace bench;

namespace {

constexpr const char *kPortApp = "org.bench.port";
constexpr const char *kRawPort = "BENCH_RAW";
constexpr size_t kMiB = 1u << 20;

std::string RpcApp(int i) { return "org.bench.rpc." + std::to_string(i); }

// Answers seen by the client's callback, and the length of the last "result" when the
// benchmark asks for it.
int g_answers = 0;
bool g_checkLength = false;
size_t g_lastLength = 0;

void OnAnswer(const char *, bundle *answer, void *) {
  if (g_checkLength) {
    char *result = nullptr;
    g_lastLength = bundle_get_str(answer, "result", &result) == 0 ? strlen(result) : 0;
  }
  g_answers++;
}

// What arrives on the client's own raw port: plain answers, or pieces of a big one.
int g_rawAnswers = 0;
size_t g_rawBytes = 0;

void OnRaw(int, const char *, const char *, bool, bundle *message, void *) {
  void *bytes = nullptr;
  size_t size = 0;
  if (bundle_get_byte(message, "chunk_result", &bytes, &size) == 0) g_rawBytes += size;
  char *marker = nullptr;
  if (bundle_get_str(message, "last_chunk", &marker) == 0 && strcmp(marker, "true") != 0)
    return;
  g_rawAnswers++;
}

bundle *Request(size_t payload) {
  bundle *b = bundle_create();
  bundle_add_str(b, "actionId", "benchEcho");
  bundle_add_str(b, "payload", std::string(payload, 'p').c_str());
  return b;
}

bool LibraryRoundTrip(const std::string &app, bundle *request) {
  int want = g_answers + 1;
  if (talvo_proxy_app_action_execution(app.c_str(), request, OnAnswer, nullptr) != 0)
    return false;
  return LoopUntil([&] { return g_answers >= want; });
}

bool RawPortRoundTrip(const char *app, bundle *request) {
  int want = g_rawAnswers + 1;
  if (message_port_send_message(app, kRawPort, request) != 0) return false;
  return LoopUntil([&] { return g_rawAnswers >= want; });
}

// A temporary runtime and apps directory with the bench apps installed, a private bus,
// and the library initialised.
class Setup {
 public:
  explicit Setup(int rpcApps) : bus_(dir_.path()) {
    std::string rt = dir_.path() + "/rt", apps = dir_.path() + "/apps";
    std::filesystem::create_directories(apps);
    setenv("VELNA_RUNTIME_DIR", rt.c_str(), 1);
    setenv("VELNA_APPS_DIR", apps.c_str(), 1);
    setenv("VELNA_APP_ID", "org.bench.client", 1);
    Manifest(apps, kPortApp, BENCH_PORT_APP, "1.0-alpha");
    for (int i = 0; i < rpcApps; i++) Manifest(apps, RpcApp(i), BENCH_RPC_APP, "1.1.0");
    ok_ = bus_.ok() && talvo_proxy_initialize() == 0 &&
          message_port_register_local_port(kRawPort, OnRaw, nullptr) > 0;
  }
  ~Setup() {
    talvo_proxy_deinitialize();
    for (const std::string &app : launched_) app_manager_terminate_app(app.c_str());
  }
  bool ok() const { return ok_; }

  // Launches the message-port app and waits for its port.
  bool StartPortApp() {
    app_control_h control = nullptr;
    app_control_create(&control);
    app_control_set_app_id(control, kPortApp);
    int r = app_control_send_launch_request(control, nullptr, nullptr);
    app_control_destroy(control);
    if (r != 0) return false;
    launched_.push_back(kPortApp);
    bool ready = false;
    for (int i = 0; i < 1000 && !ready; i++) {
      message_port_check_remote_port(kPortApp, kRawPort, &ready);
      if (!ready) g_usleep(10000);
    }
    return ready;
  }

  // Connects rpc-port apps [from, to) through the library: the first request to each
  // launches and connects it. In batches, so that launches do not pile up.
  bool ConnectRpcApps(int from, int to) {
    bundle *request = Request(16);
    bool ok = true;
    for (int batch = from; ok && batch < to; batch += 50) {
      int end = std::min(to, batch + 50), want = g_answers + (end - batch);
      for (int i = batch; i < end; i++) {
        launched_.push_back(RpcApp(i));
        ok = ok && talvo_proxy_app_action_execution(RpcApp(i).c_str(), request, OnAnswer,
                                                    nullptr) == 0;
      }
      ok = ok && LoopUntil([&] { return g_answers >= want; }, 120);
    }
    bundle_free(request);
    return ok;
  }

 private:
  static void Manifest(const std::string &dir, const std::string &app, const char *exec,
                       const char *sdk) {
    std::ofstream(dir + "/" + app + ".app")
        << "[Application]\nPackage=" << app << "\nExec=" << exec << "\n\n[Metadata]\n"
        << "http://velna.org/velna/metadata/talvo/companion-app/version=1.0.0\n"
        << "http://velna.org/velna/metadata/talvo/companion-app/capsule-id=bench.capsule\n"
        << "http://velna.org/velna/metadata/talvo/sdk/version=" << sdk << "\n";
  }

  TempDir dir_;
  PrivateBus bus_;
  bool ok_ = false;
  std::vector<std::string> launched_;
};

// The transport alone over rpc-port: a proxy on the app's "bench" port, whose parcels
// the app echoes on the callback channel.
class RpcEcho {
 public:
  explicit RpcEcho(const std::string &app) {
    rpc_port_proxy_create(&proxy_);
    rpc_port_proxy_add_connected_event_cb(
        proxy_, [](const char *, const char *, rpc_port_h port, void *self) {
          static_cast<RpcEcho *>(self)->main_ = port;
        }, this);
    rpc_port_proxy_add_received_event_cb(proxy_, OnReceived, this);
    if (rpc_port_proxy_connect(proxy_, app.c_str(), "bench") == 0)
      LoopUntil([&] { return main_ != nullptr; }, 10);
  }
  ~RpcEcho() { rpc_port_proxy_destroy(proxy_); }
  bool ok() const { return main_ != nullptr; }

  bool RoundTrip(bundle *b) {
    int want = received_ + 1;
    rpc_port_parcel_h p = nullptr;
    rpc_port_parcel_create(&p);
    rpc_port_parcel_write_int32(p, 4);
    rpc_port_parcel_write_bundle(p, b);
    int r = rpc_port_parcel_send(p, main_);
    rpc_port_parcel_destroy(p);
    return r == 0 && LoopUntil([&] { return received_ >= want; });
  }

 private:
  static void OnReceived(const char *, const char *, void *data) {
    auto *self = static_cast<RpcEcho *>(data);
    rpc_port_h callback = nullptr;
    rpc_port_parcel_h p = nullptr;
    if (rpc_port_proxy_get_port(self->proxy_, RPC_PORT_PORT_CALLBACK, &callback) != 0 ||
        rpc_port_parcel_create_from_port(&p, callback) != 0)
      return;
    int cmd = 0;
    bundle *b = nullptr;
    rpc_port_parcel_read_int32(p, &cmd);
    rpc_port_parcel_read_bundle(p, &b);
    if (b) bundle_free(b);
    rpc_port_parcel_destroy(p);
    self->received_++;
  }

  rpc_port_proxy_h proxy_ = nullptr;
  rpc_port_h main_ = nullptr;
  int received_ = 0;
};

int RoundTrips(const std::string &filter, int count) {
  Setup setup(1);
  if (!setup.ok() || !setup.StartPortApp() || !setup.ConnectRpcApps(0, 1)) return 1;
  RpcEcho echo(RpcApp(0));
  if (!echo.ok()) return 1;
  for (size_t size : {size_t(256), size_t(16384)}) {
    const std::string tag = size == 256 ? "256B" : "16KiB";
    const int n = count > 0 ? count : size == 256 ? 20000 : 5000;
    bundle *request = Request(size);
    auto measure = [&](const std::string &name, auto op) {
      if (name.find(filter) != std::string::npos) Measure(name, 200, n, op);
    };
    measure("transport-mp-" + tag, [&] { return RawPortRoundTrip(kPortApp, request); });
    measure("library-mp-" + tag, [&] { return LibraryRoundTrip(kPortApp, request); });
    measure("transport-rpc-" + tag, [&] { return echo.RoundTrip(request); });
    measure("library-rpc-" + tag, [&] { return LibraryRoundTrip(RpcApp(0), request); });
    bundle_free(request);
  }
  return 0;
}

int BigAnswers() {
  Setup setup(0);
  if (!setup.ok() || !setup.StartPortApp()) return 1;
  for (size_t mib : {size_t(1), size_t(16), size_t(64)}) {
    const std::string tag = std::to_string(mib) + "MiB";
    const int n = mib == 1 ? 200 : mib == 16 ? 30 : 10;
    bundle *request = bundle_create();
    bundle_add_str(request, "actionId", "benchBig");
    bundle_add_str(request, "bench_answer_bytes", std::to_string(mib * kMiB).c_str());
    bundle_add_str(request, "bench_piece_bytes", std::to_string(kMiB).c_str());
    const std::string extra = Kv("mib", mib);
    Measure("transport-big-" + tag, 2, n, [&] {
      g_rawBytes = 0;
      return RawPortRoundTrip(kPortApp, request) && g_rawBytes == mib * kMiB;
    }, extra);
    g_checkLength = true;  // the joined answer is whole
    bool whole = LibraryRoundTrip(kPortApp, request) && g_lastLength == mib * kMiB;
    g_checkLength = false;
    if (!whole) {
      fprintf(stderr, "library-big-%s: the joined answer is not whole\n", tag.c_str());
      return 1;
    }
    Measure("library-big-" + tag, 2, n, [&] { return LibraryRoundTrip(kPortApp, request); },
            extra);
    bundle_free(request);
  }
  return 0;
}

int Scale(int max) {
  RaiseDescriptorLimit();
  Setup setup(max);
  if (!setup.ok()) return 1;
  bundle *request = Request(256);
  int connected = 0;
  for (int apps : {1, 10, 100, 500}) {
    if (apps > max) break;
    Clock::time_point t0 = Clock::now();
    if (!setup.ConnectRpcApps(connected, apps)) {
      fprintf(stderr, "scale: cannot connect %d apps\n", apps);
      return 1;
    }
    double connectMs = Since(t0) / 1000;
    connected = apps;
    const std::string extra = Kv("apps", apps) + Kv("rss_kib", RssKiB()) +
                              Kv("fds", OpenDescriptors()) + Kv("connect_ms", int(connectMs));
    int next = 0;
    Measure("scale-rr-" + std::to_string(apps), 200, 3000, [&] {
      return LibraryRoundTrip(RpcApp(next++ % apps), request);
    }, extra);
    Measure("scale-one-" + std::to_string(apps), 200, 3000,
            [&] { return LibraryRoundTrip(RpcApp(0), request); }, extra);
  }
  bundle_free(request);
  return 0;
}

int Rss(int n) {
  Setup setup(1);
  if (!setup.ok() || !setup.StartPortApp() || !setup.ConnectRpcApps(0, 1)) return 1;
  bundle *request = Request(256);
  for (const std::string &app : {std::string(kPortApp), RpcApp(0)}) {
    for (int i = 0; i < 1000; i++) LibraryRoundTrip(app, request);
    const std::string name = app == kPortApp ? "rss-mp" : "rss-rpc";
    Samples samples{size_t(n)};
    long before = RssKiB();
    samples.Start();
    for (int i = 0; i < n; i++) {
      Clock::time_point t0 = Clock::now();
      if (!LibraryRoundTrip(app, request)) return 1;
      samples.Add(Since(t0));
    }
    samples.Report(name, Kv("requests", n) + Kv("rss_start_kib", before) +
                             Kv("rss_end_kib", RssKiB()));
  }
  bundle_free(request);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string mode = argc > 1 ? argv[1] : "roundtrip";
  const int arg = argc > 2 ? atoi(argv[2]) : 0;
  if (mode == "roundtrip") return RoundTrips(argc > 2 ? argv[2] : "", argc > 3 ? atoi(argv[3]) : 0);
  if (mode == "big") return BigAnswers();
  if (mode == "scale") return Scale(arg > 0 ? arg : 500);
  if (mode == "rss") return Rss(arg > 0 ? arg : 100000);
  fprintf(stderr, "usage: %s roundtrip [FILTER [N]] | big | scale [MAX] | rss [N]\n", argv[0]);
  return 2;
}
