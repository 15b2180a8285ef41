// Launching apps and the registry of running apps, with a real app process.
#include <app_control.h>
#include <app_manager.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"

extern "C" {
#include "launcher_internal.h"
#include "runtime_internal.h"
}

namespace {

const char *kApp = "org.example.testapp";
const char *kOperation = "http://velna.org/appcontrol/operation/talvo";

bool IsRunning(const char *appId) {
  bool running = false;
  EXPECT_EQ(0, app_manager_is_running(appId, &running));
  return running;
}

std::string AppIdOf(pid_t pid) {
  char *id = nullptr;
  int r = app_manager_get_app_id(pid, &id);
  std::string out = r == 0 ? id : "<" + std::to_string(r) + ">";
  free(id);
  return out;
}

std::string ReadFile(const std::string &path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

class Launcher : public ::testing::Test {
 protected:
  void Install(const std::string &exec, const char *appId = kApp) {
    env_.install({appId, appId, "", exec, "", {}});
  }

  struct Reply {
    bool called = false, withRequest = false;
    int result = 1;
  };

  int Launch(const char *appId, Reply *reply) {
    app_control_h h = nullptr;
    EXPECT_EQ(0, app_control_create(&h));
    app_control_set_operation(h, kOperation);
    app_control_set_app_id(h, appId);
    int r = app_control_send_launch_request(
        h,
        [](app_control_h request, app_control_h, int result, void *data) {
          *static_cast<Reply *>(data) = {true, request != nullptr, result};
        },
        reply);
    app_control_destroy(h);  // the reply must not depend on the caller's handle
    return r;
  }

  testsupport::TempEnv env_;
};

}  // namespace

TEST_F(Launcher, LaunchedAppRunsOnceDetachedWithTheCallersEnvironmentUntilItEndsOrIsKilled) {
  std::string log = env_.root() + "/app.log";
  setenv("VELNA_LOG_FILE", log.c_str(), 1);
  setenv("VELNA_TEST_MARKER", "marker-42", 1);
  Install(TEST_APP);

  Reply reply;
  ASSERT_EQ(0, Launch(kApp, &reply));
  EXPECT_FALSE(reply.called);  // replies come on a later turn of the loop
  ASSERT_TRUE(IsRunning(kApp));
  pid_t pid = 0;
  ASSERT_EQ(0, running_registry_get_pid(kApp, &pid));
  EXPECT_EQ(kApp, AppIdOf(pid));
  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return reply.called && ReadFile(log).find("test-app") != std::string::npos; }, 5000));
  EXPECT_TRUE(reply.result == 0 && reply.withRequest);
  std::string expected = "test-app pid=" + std::to_string(pid) + " app=" + kApp +
                         " operation=" + kOperation + " marker=marker-42\n";
  EXPECT_NE(std::string::npos, ReadFile(log).find(expected)) << ReadFile(log);

  // A second launch while it runs starts no second instance.
  Reply again;
  EXPECT_EQ(0, Launch(kApp, &again));
  pid_t second = 0;
  int started = -1;
  ASSERT_EQ(0, velna_launch(kApp, kOperation, &second, &started));
  EXPECT_TRUE(started == 0 && second == pid) << started << " " << second;
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "never our child: nothing to reap";

  // Delivery of SIGKILL is asynchronous; no cleanup or reaping is waited for.
  ASSERT_EQ(0, kill(pid, SIGKILL));
  EXPECT_TRUE(testsupport::RunLoopUntil([] { return !IsRunning(kApp); }, 1000));
  EXPECT_EQ("<-2>", AppIdOf(pid));
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &second, &started));
  EXPECT_TRUE(started == 1 && second != pid) << started << " " << second;

  Install(std::string(TEST_APP) + " exit", "org.example.exits");
  EXPECT_TRUE(velna_launch("org.example.exits", nullptr, nullptr, &started) == 0 && started == 1);
  EXPECT_TRUE(testsupport::RunLoopUntil([] { return !IsRunning("org.example.exits"); }, 5000));
  unsetenv("VELNA_LOG_FILE");
}

TEST_F(Launcher, UnknownAppAppWithoutExecAndFailedSpawnAreReported) {
  testsupport::LogCapture capture;
  env_.install({"org.example.noexec", "org.example.noexec", "", "", "", {}});
  Install("/nonexistent/program", "org.example.missing");

  Reply unknown, noexec, missing;
  EXPECT_EQ(-2, Launch("org.example.absent", &unknown));
  EXPECT_EQ(-2, Launch("org.example.noexec", &noexec));
  EXPECT_EQ(-5, Launch("org.example.missing", &missing));
  EXPECT_EQ(-22, Launch("../evil", nullptr));

  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return missing.called; }, 2000));
  EXPECT_EQ(std::vector<int>({-2, -2, -5}), std::vector<int>({unknown.result, noexec.result, missing.result}));
  EXPECT_TRUE(capture.has("org.example.noexec: its manifest has no Exec")) << capture.dump();
  EXPECT_FALSE(IsRunning("org.example.missing"));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));  // the failed spawn left no child behind
}

std::string FdTarget(pid_t pid, int fd) {
  char target[4096] = {};
  std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  return readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "?";
}

TEST_F(Launcher, OutputGoesToTheAppsOwnLogFileNeverToTheLaunchersStreams) {
  unsetenv("VELNA_LOG_FILE");
  Install(TEST_APP);
  char *path = nullptr;
  ASSERT_EQ(0, app_manager_get_log_path(kApp, &path));
  std::string log = path;
  free(path);
  EXPECT_EQ(env_.runtimeDir() + "/log/" + kApp + ".log", log);

  // The launcher's own stdin is a file, so that one inherited would show.
  int in = open((env_.root() + "/stdin").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(0, dup2(in, STDIN_FILENO));
  close(in);
  pid_t pid = 0;
  ASSERT_EQ(0, velna_launch(kApp, kOperation, &pid, nullptr));
  EXPECT_TRUE(testsupport::RunLoopUntil(
      [&] { return ReadFile(log).find("test-app pid=" + std::to_string(pid)) != std::string::npos; },
      5000)) << ReadFile(log);
  EXPECT_EQ(log, FdTarget(pid, 1));
  EXPECT_EQ(log, FdTarget(pid, 2));
  EXPECT_EQ("/dev/null", FdTarget(pid, 0));

  // A log that cannot be opened: the app writes to /dev/null, and the launcher says so.
  testsupport::LogCapture capture;
  Install(TEST_APP, "org.example.nolog");
  ASSERT_EQ(0, mkdir((env_.runtimeDir() + "/log/org.example.nolog.log").c_str(), 0700));
  ASSERT_EQ(0, velna_launch("org.example.nolog", nullptr, &pid, nullptr));
  EXPECT_EQ("/dev/null", FdTarget(pid, 1));
  EXPECT_TRUE(capture.has("output of org.example.nolog goes to /dev/null")) << capture.dump();
}
