// Logging: the printed line format, the level filter, the capture handler, and whole
// lines when several processes append to one file.
#include <dlog.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"

namespace {

class Dlog : public ::testing::Test {
 protected:
  void SetUp() override {
    logFile_ = env_.root() + "/log.txt";
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
  std::string Prefix(char level, const std::string &tag) const {
    return std::string(1, level) + "/" + tag + "(" + std::to_string(getpid()) + "): ";
  }

  testsupport::TempEnv env_;
  std::string logFile_;
};

}  // namespace

TEST_F(Dlog, PrintsOneFormattedLinePerCallFromInfoUpByDefault) {
  dlog_print(DLOG_DEBUG, "T", "hidden");
  EXPECT_EQ(8, dlog_print(DLOG_INFO, "TAG", "hello %d", 42));
  dlog_print(DLOG_ERROR, "TALVO-PROXY", "%s %d %s(): boom", "v1.0-beta.2.3 :  ", 7, "fn");
  dlog_print(DLOG_FATAL, "T", "f");

  std::vector<std::string> lines = Lines();
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(Prefix('I', "TAG") + "hello 42", lines[0]);
  EXPECT_EQ(Prefix('E', "TALVO-PROXY") + "v1.0-beta.2.3 :   7 fn(): boom", lines[1]);
  EXPECT_EQ(Prefix('F', "T") + "f", lines[2]);
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
  EXPECT_EQ(7u, capture.lines().size()) << capture.dump();
  for (size_t i : {1, 5}) {
    EXPECT_EQ("T", capture.lines()[i].tag);
    EXPECT_EQ(i == 1 ? DLOG_DEBUG : DLOG_FATAL, capture.lines()[i].prio);
    EXPECT_EQ(i == 1 ? "debug" : "fatal", capture.lines()[i].message);
  }
}

TEST_F(Dlog, AVeryLongMessageIsCutToOneLineButCapturedWhole) {
  testsupport::LogCapture capture;
  std::string huge(1024 * 1024, 'x');
  EXPECT_EQ(int(huge.size()), dlog_print(DLOG_INFO, "T", "%s", huge.c_str()));

  std::vector<std::string> lines = Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_LE(lines[0].size(), 64u * 1024);
  EXPECT_EQ(0u, lines[0].find(Prefix('I', "T") + "xxxx"));
  EXPECT_NE(std::string::npos, lines[0].find("[cut]"));
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_EQ(huge, capture.lines()[0].message);
}

TEST_F(Dlog, ConcurrentWritersFromSeveralProcessesNeverInterleave) {
  const int kWriters = 6, kLines = 300;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Lines long enough that a split write would show: 3000 bytes of one letter.
      std::string body(3000, char('a' + w));
      for (int i = 0; i < kLines; ++i) dlog_print(DLOG_INFO, "W", "%d %s", i, body.c_str());
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  std::vector<std::string> lines = Lines();
  ASSERT_EQ(size_t(kWriters * kLines), lines.size());
  std::vector<int> next(kWriters, 0);
  for (const std::string &line : lines) {
    // "I/W(<pid>): <i> <3000 times the writer's letter>"
    size_t space = line.rfind(' ');
    ASSERT_NE(std::string::npos, space);
    std::string body = line.substr(space + 1);
    ASSERT_EQ(3000u, body.size()) << line.substr(0, 80);
    int w = body[0] - 'a';
    ASSERT_TRUE(w >= 0 && w < kWriters);
    EXPECT_EQ(std::string(3000, body[0]), body);
    std::string head = "I/W(" + std::to_string(children[w]) + "): " + std::to_string(next[w]);
    EXPECT_EQ(head, line.substr(0, space));  // each writer's lines in its own order
    ++next[w];
  }
}
