// The cost of one log line: a debug line that the level filters out (it must not be
// formatted), and an info line printed to a file (VELNA_LOG_FILE), both with the fixed
// prefix and arguments that the library's own lines carry.
#include <benchmark/benchmark.h>
#include <dlog.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace {

constexpr const char *kTag = "TALVO-PROXY";
constexpr const char *kFmt = "%s %d %s(): %s's connection status:%d";

void BM_DlogFiltered(benchmark::State &state) {
  setenv("VELNA_LOG_LEVEL", "info", 1);
  for (auto _ : state)
    benchmark::DoNotOptimize(dlog_print(DLOG_DEBUG, kTag, kFmt, "v1.0-beta.2.3 :  ", 123,
                                        "_isConnectedToApp", "org.example.app", 1));
}

void BM_DlogPrinted(benchmark::State &state) {
  char path[] = "/tmp/talvo-dlog-bench-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) {
    state.SkipWithError("mkstemp");
    return;
  }
  close(fd);
  setenv("VELNA_LOG_LEVEL", "info", 1);
  setenv("VELNA_LOG_FILE", path, 1);
  for (auto _ : state)
    benchmark::DoNotOptimize(dlog_print(DLOG_INFO, kTag, kFmt, "v1.0-beta.2.3 :  ", 123,
                                        "_isConnectedToApp", "org.example.app", 1));
  unsetenv("VELNA_LOG_FILE");
  unlink(path);
}

BENCHMARK(BM_DlogFiltered);
BENCHMARK(BM_DlogPrinted);

}  // namespace

BENCHMARK_MAIN();
