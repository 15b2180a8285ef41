// Logging: the printed line format, the level filter, the capture handler, and whole
// lines when several processes append to one file.
#include <dlog.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"

namespace {

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

  std::vector<std::string> Lines() const {
    std::ifstream in(logFile_);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
  static std::string Prefix(char level, const std::string &tag) {
    return std::string(1, level) + "/" + tag + "(" + std::to_string(getpid()) + "): ";
  }

  testsupport::TempEnv env_;
  std::string logFile_ = env_.root() + "/log.txt";
};

}  // namespace

TEST_F(Dlog, PrintsOneFormattedLinePerCallFromInfoUpByDefault) {
  dlog_print(DLOG_DEBUG, "T", "hidden");
  EXPECT_EQ(8, dlog_print(DLOG_INFO, "TAG", "hello %d", 42));
  dlog_print(DLOG_ERROR, "TALVO-PROXY", "%s %d %s(): boom", "v1.0-beta.2.3 :  ", 7, "fn");
  dlog_print(DLOG_FATAL, "T", "f");

  std::vector<std::string> expected = {Prefix('I', "TAG") + "hello 42",
                                       Prefix('E', "TALVO-PROXY") + "v1.0-beta.2.3 :   7 fn(): boom",
                                       Prefix('F', "T") + "f"};
  EXPECT_EQ(expected, Lines());
}

TEST_F(Dlog, LevelFiltersWhatIsPrintedButCaptureSeesEveryLine) {
  testsupport::LogCapture capture;
  setenv("VELNA_LOG_LEVEL", "warn", 1);
  dlog_print(DLOG_VERBOSE, "T", "verbose");
  dlog_print(DLOG_DEBUG, "T", "debug");
  dlog_print(DLOG_INFO, "T", "info");
  dlog_print(DLOG_WARN, "T", "warn");
  dlog_print(DLOG_ERROR, "T", "error");
  setenv("VELNA_LOG_LEVEL", "silent", 1);
  dlog_print(DLOG_FATAL, "T", "fatal");
  setenv("VELNA_LOG_LEVEL", "verbose", 1);
  dlog_print(DLOG_VERBOSE, "T", "verbose again");

  std::vector<std::string> expected = {Prefix('W', "T") + "warn", Prefix('E', "T") + "error",
                                       Prefix('V', "T") + "verbose again"};
  EXPECT_EQ(expected, Lines());
  ASSERT_EQ(7u, capture.lines().size()) << capture.dump();
  for (size_t i : {1, 5}) {
    EXPECT_EQ("T", capture.lines()[i].tag);
    EXPECT_EQ(i == 1 ? DLOG_DEBUG : DLOG_FATAL, capture.lines()[i].prio);
    EXPECT_EQ(i == 1 ? "debug" : "fatal", capture.lines()[i].message);
  }
}

TEST_F(Dlog, ConcurrentWritersFromSeveralProcessesNeverInterleave) {
  const int kWriters = 6, kLines = 300;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Long enough that a split write would show.
      std::string body(3000, char('a' + w));
      for (int i = 0; i < kLines; ++i) dlog_print(DLOG_INFO, "W", "%d %s", i, body.c_str());
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) ASSERT_EQ(pid, waitpid(pid, nullptr, 0));

  std::vector<std::string> lines = Lines();
  ASSERT_EQ(size_t(kWriters * kLines), lines.size());
  std::vector<int> next(kWriters, 0);
  for (const std::string &line : lines) {
    // "I/W(<pid>): <i> <3000 times the writer's letter>", each writer's lines in order.
    size_t space = line.rfind(' ');
    ASSERT_NE(std::string::npos, space);
    int w = line[space + 1] - 'a';
    ASSERT_TRUE(w >= 0 && w < kWriters) << line.substr(0, 80);
    EXPECT_EQ(std::string(3000, char('a' + w)), line.substr(space + 1));
    EXPECT_EQ("I/W(" + std::to_string(children[w]) + "): " + std::to_string(next[w]++),
              line.substr(0, space));
  }
}
