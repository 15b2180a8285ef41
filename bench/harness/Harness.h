// What every benchmark of this tree shares: timing samples and their summary line, the
// process's CPU time, resident memory and descriptors, a temporary runtime tree, child
// processes that end with the benchmark, and a private message bus.
//
// Each measurement prints one tab-separated line on stdout, which scripts/bench-report.sh
// collects:  name  median_us  p99_us  cpu_us_per_op  extra (key=value ...)
#pragma once

#include <glib.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

// Under callgrind (--collect-atstart=no), only the measured runs are counted, so that
// instructions per operation are the total divided by the count.
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define BENCH_COLLECT_TOGGLE() CALLGRIND_TOGGLE_COLLECT
#else
#define BENCH_COLLECT_TOGGLE() ((void)0)
#endif

namespace bench {

using Clock = std::chrono::steady_clock;

inline double Since(Clock::time_point t0) {
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

// User plus system CPU time of this process so far, in microseconds.
inline double CpuUs() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e6 + ru.ru_utime.tv_usec +
         ru.ru_stime.tv_usec;
}

inline long RssKiB() {
  long pages = 0, resident = 0;
  FILE *f = fopen("/proc/self/statm", "r");
  if (f && fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  if (f) fclose(f);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

inline int OpenDescriptors() {
  int n = 0;
  for (auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    n++;
  }
  return n - 1;  // the iterator's own
}

// Raises the soft descriptor limit to the hard one (hundreds of connections).
inline void RaiseDescriptorLimit() {
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
}

// Samples of one measurement: time per operation and the CPU time spent meanwhile.
class Samples {
 public:
  // The storage is touched up front, so that the samples do not show in the RSS that a
  // measurement reports.
  explicit Samples(size_t expected) {
    us_.resize(expected);
    us_.clear();
  }
  void Start() { cpu0_ = CpuUs(); }
  void Add(double us) { us_.push_back(us); }
  // Prints the summary line; extra is appended as it is.
  void Report(const std::string &name, const std::string &extra = "") {
    double cpu = (CpuUs() - cpu0_) / double(us_.empty() ? 1 : us_.size());
    std::sort(us_.begin(), us_.end());
    double median = us_.empty() ? 0 : us_[us_.size() / 2];
    double p99 = us_.empty() ? 0 : us_[std::min(us_.size() - 1, us_.size() * 99 / 100)];
    printf("%s\t%.2f\t%.2f\t%.2f\t%s\n", name.c_str(), median, p99, cpu, extra.c_str());
    fflush(stdout);
  }

 private:
  std::vector<double> us_;
  double cpu0_ = 0;
};

// Runs one operation `count` times after `warmup` unmeasured runs; op returns false on
// a failure, which ends the measurement with a line on stderr.
template <typename Op>
bool Measure(const std::string &name, int warmup, int count, Op op,
             const std::string &extra = "") {
  for (int i = 0; i < warmup; i++)
    if (!op()) {
      fprintf(stderr, "%s: failed during warm-up\n", name.c_str());
      return false;
    }
  Samples samples{size_t(count)};
  samples.Start();
  BENCH_COLLECT_TOGGLE();
  for (int i = 0; i < count; i++) {
    Clock::time_point t0 = Clock::now();
    if (!op()) {
      BENCH_COLLECT_TOGGLE();
      fprintf(stderr, "%s: failed after %d runs\n", name.c_str(), i);
      return false;
    }
    samples.Add(Since(t0));
  }
  BENCH_COLLECT_TOGGLE();
  samples.Report(name, extra);
  return true;
}

// Iterates the default main context until done() holds or timeout_s pass.
template <typename Done>
bool LoopUntil(Done done, double timeout_s = 30) {
  gint64 end = g_get_monotonic_time() + gint64(timeout_s * G_USEC_PER_SEC);
  while (!done()) {
    if (g_get_monotonic_time() > end) return false;
    g_main_context_iteration(nullptr, TRUE);
  }
  return true;
}

// A temporary directory, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/talvo-bench-XXXXXX";
    if (mkdtemp(tmpl)) path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

inline void EndWithParent(gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }

// A child process that ends with the benchmark, also when the benchmark is killed.
class Child {
 public:
  // Starts argv with extra environment entries; *first_line gets the first line that
  // the child prints when it is asked for; a quiet child's stderr goes to /dev/null.
  Child(const std::vector<std::string> &args, const std::vector<std::string> &env = {},
        std::string *first_line = nullptr, bool quiet = false) {
    std::vector<char *> argv;
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    gchar **envp = g_get_environ();
    for (const std::string &e : env) {
      size_t eq = e.find('=');
      envp = g_environ_setenv(envp, e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), TRUE);
    }
    int out = -1;
    GPid pid = 0;
    if (g_spawn_async_with_pipes(nullptr, argv.data(), envp,
                                 GSpawnFlags(G_SPAWN_DO_NOT_REAP_CHILD |
                                             (quiet ? G_SPAWN_STDERR_TO_DEV_NULL : 0)),
                                 EndWithParent, nullptr, &pid, nullptr,
                                 first_line ? &out : nullptr, nullptr, nullptr))
      pid_ = pid;
    g_strfreev(envp);
    if (first_line && out >= 0) {
      FILE *stream = fdopen(out, "r");
      char buffer[512] = "";
      first_line->assign(stream && fgets(buffer, sizeof buffer, stream) ? buffer : "");
      if (stream) fclose(stream);
      if (!first_line->empty() && first_line->back() == '\n') first_line->pop_back();
    }
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  bool ok() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

#ifdef TALVO_BENCH_BUS_CONFIG
// A private dbus-daemon, named by DBUS_SYSTEM_BUS_ADDRESS while it runs.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string &dir)
      : daemon_({TALVO_BENCH_DBUS_DAEMON, "--config-file=" TALVO_BENCH_BUS_CONFIG, "--nofork",
                 "--address=unix:path=" + dir + "/bus", "--print-address"},
                {}, &address_, true) {
    if (!address_.empty()) setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
  }
  bool ok() const { return !address_.empty(); }
  const std::string &address() const { return address_; }

 private:
  std::string address_;
  Child daemon_;
};
#endif

// "key=value" as the extra column wants it.
template <typename T>
std::string Kv(const char *key, T value) {
  return std::string(key) + "=" + std::to_string(value) + " ";
}

}  // namespace bench
