// Logging: the printed line format, the level filter, the capture handler, whole lines
// when several processes append to one file, and messages that say what printf would say.
#include <dlog.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"

namespace {

// Logs fmt with the arguments at debug (captured, not printed) and returns the message
// beside printf's text of the same.
#define EXPECT_AS_PRINTF(fmt, ...)                                              \
  do {                                                                          \
    testsupport::LogCapture capture;                                            \
    int n = dlog_print(DLOG_DEBUG, "T", fmt, ##__VA_ARGS__);                    \
    char *want = g_strdup_printf(fmt, ##__VA_ARGS__);                           \
    ASSERT_EQ(1u, capture.lines().size());                                      \
    EXPECT_EQ(std::string(want), capture.lines()[0].message) << (fmt);          \
    EXPECT_EQ(static_cast<int>(strlen(want)), n) << (fmt);                      \
    g_free(want);                                                               \
  } while (0)

class Dlog : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_LOG_FILE", logFile_.c_str(), 1);
    unsetenv("VELNA_LOG_LEVEL");
  }
  void TearDown() override {
    unsetenv("VELNA_LOG_FILE");
    unsetenv("VELNA_LOG_LEVEL");
  }

  // The lines of file, the test's log file by default.
  std::vector<std::string> Lines(const std::string &file = "") const {
    std::ifstream in(file.empty() ? logFile_ : file);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
  static std::string Prefix(char level, const std::string &tag, pid_t pid = getpid()) {
    return std::string(1, level) + "/" + tag + "(" + std::to_string(pid) + "): ";
  }

  testsupport::TempEnv env_;
  std::string logFile_ = env_.root() + "/log.txt";
};

}  // namespace

TEST_F(Dlog, LinesFollowTheLevelAndFileOfTheEnvironmentLongOnesAreCutAndCaptureSeesAll) {
  EXPECT_EQ(0, dlog_print(DLOG_DEBUG, "T", "dropped %s", "unformatted"));
  testsupport::LogCapture capture;  // sees every line, also those below the level
  dlog_print(DLOG_DEBUG, "T", "hidden by default");
  EXPECT_EQ(8, dlog_print(DLOG_INFO, "TAG", "hello %d", 42));  // level, file and pid now known
  dlog_print(DLOG_ERROR, "TALVO-PROXY", "%s %d %s(): boom", "v1.0-beta.2.3 :  ", 7, "fn");
  setenv("VELNA_LOG_LEVEL", "debug", 1);  // set where it was unset
  dlog_print(DLOG_DEBUG, "T", "debug now");
  setenv("VELNA_LOG_OTHER", "x", 1);  // an unrelated variable moves the environment
  unsetenv("VELNA_LOG_LEVEL");
  dlog_print(DLOG_DEBUG, "T", "hidden again");
  setenv("VELNA_LOG_LEVEL", "error", 1);
  unsetenv("VELNA_LOG_OTHER");
  dlog_print(DLOG_WARN, "T", "hidden by error");
  setenv("VELNA_LOG_LEVEL", "warn", 1);
  dlog_print(DLOG_INFO, "T", "hidden by warn");
  dlog_print(DLOG_WARN, "T", "warn");
  setenv("VELNA_LOG_LEVEL", "silent", 1);
  dlog_print(DLOG_FATAL, "T", "fatal");
  setenv("VELNA_LOG_LEVEL", "verbose", 1);
  dlog_print(DLOG_VERBOSE, "T", "verbose");
  const std::string longer(3000, 'm'), longest(70000, 'n');
  dlog_print(DLOG_INFO, "T", "%s", longer.c_str());
  dlog_print(DLOG_INFO, "T", "%s", longest.c_str());
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dlog_print(DLOG_INFO, "T", "from the child");
    _exit(0);
  }
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  std::string other = logFile_ + ".other";
  setenv("VELNA_LOG_FILE", other.c_str(), 1);
  dlog_print(DLOG_INFO, "T", "elsewhere");

  const std::string prefix = Prefix('I', "T");
  // Cut so that the line, its mark and newline included, stays within 64 KiB.
  std::vector<std::string> expected = {Prefix('I', "TAG") + "hello 42",
                                       Prefix('E', "TALVO-PROXY") + "v1.0-beta.2.3 :   7 fn(): boom",
                                       Prefix('D', "T") + "debug now", Prefix('W', "T") + "warn",
                                       Prefix('V', "T") + "verbose", prefix + longer,
                                       prefix + std::string(65536 - 8 - prefix.size(), 'n') + " [cut]",
                                       Prefix('I', "T", child) + "from the child"};
  EXPECT_EQ(expected, Lines());
  EXPECT_EQ(std::vector<std::string>{prefix + "elsewhere"}, Lines(other));
  ASSERT_EQ(13u, capture.lines().size()) << capture.dump();
  for (size_t i : {0, 8}) {
    EXPECT_EQ("T", capture.lines()[i].tag);
    EXPECT_EQ(i == 0 ? DLOG_DEBUG : DLOG_FATAL, capture.lines()[i].prio);
    EXPECT_EQ(i == 0 ? "hidden by default" : "fatal", capture.lines()[i].message);
  }
}

TEST_F(Dlog, ConcurrentWritersFromSeveralProcessesNeverInterleave) {
  const int kWriters = 6, kLines = 300;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      std::string body(3000, char('a' + w));  // long enough that a split write would show
      for (int i = 0; i < kLines; ++i) dlog_print(DLOG_INFO, "W", "%d %s", i, body.c_str());
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) ASSERT_EQ(pid, waitpid(pid, nullptr, 0));

  // Each line whole, each writer's lines in order.
  std::vector<std::string> lines = Lines();
  ASSERT_EQ(size_t(kWriters * kLines), lines.size());
  std::vector<int> next(kWriters, 0);
  for (const std::string &line : lines) {
    int w = line.empty() ? -1 : line.back() - 'a';
    ASSERT_TRUE(w >= 0 && w < kWriters) << line.substr(0, 80);
    ASSERT_EQ(Prefix('I', "W", children[w]) + std::to_string(next[w]++) + " " + std::string(3000, char('a' + w)), line);
  }
}

TEST(DlogFormat, EveryConversionAndLengthGivesPrintfsText) {
  EXPECT_AS_PRINTF("plain text, 100%% sure");
  const char *volatile none = nullptr;  // a null the compiler cannot see
  EXPECT_AS_PRINTF("%s|%s|%c|%s", "a", none, 'z', "");
  EXPECT_AS_PRINTF("%d %d %d %i", 0, -1, INT_MIN, INT_MAX);
  EXPECT_AS_PRINTF("%u %u", 0u, UINT_MAX);
  EXPECT_AS_PRINTF("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
  EXPECT_AS_PRINTF("%zu %zd %zd", SIZE_MAX, static_cast<ssize_t>(-5), SSIZE_MAX);
  // Widths, precision, flags and other conversions.
  EXPECT_AS_PRINTF("[%5d|%-3s|%.2s|%x|%p|%05.1f|%hd]", 42, "ab", "xyz", 255u,
                   static_cast<void *>(nullptr), 2.5, static_cast<short>(-3));
}

TEST(DlogFormat, MessagesAroundTheStackBufferAreWhole) {
  // A line is put together in 1 KiB on the stack when it fits: messages of about that
  // size, behind the prefix "D/T(<pid>): ", and one far beyond it.
  const size_t edge = 1024 - (7 + std::to_string(getpid()).size());
  for (size_t len : {edge - 30, edge - 3, edge - 2, edge - 1, edge, edge + 1, size_t(5000)}) {
    const std::string text(len, 'q');
    EXPECT_AS_PRINTF("%s", text.c_str());
    EXPECT_AS_PRINTF("%d:%s:%d", -123456, text.c_str(), 7);
  }
}
