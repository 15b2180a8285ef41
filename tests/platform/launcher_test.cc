// Launching apps and the registry of running apps, with a real app process.
#include <app_control.h>
#include <app_manager.h>
#include <errno.h>
#include <glib.h>
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

// Internal interfaces of the platform layer (C, without C++ guards).
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

pid_t PidOf(const char *appId) {
  pid_t pid = 0;
  return running_registry_get_pid(appId, &pid) == 0 ? pid : 0;
}

std::string AppIdOf(pid_t pid) {
  char *id = nullptr;
  int r = app_manager_get_app_id(pid, &id);
  std::string out = r == 0 ? id : "<" + std::to_string(r) + ">";
  free(id);
  return out;
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class Launcher : public ::testing::Test {
 protected:
  void Install(const std::string &exec, const char *appId = kApp) {
    env_.install({appId, appId, "", exec, "", {}});
  }

  struct Reply {
    bool called = false;
    int result = 1;
    std::string appId;  // "request" when the callback got a request handle
  };

  int Launch(const char *appId, Reply *reply) {
    app_control_h h = nullptr;
    EXPECT_EQ(0, app_control_create(&h));
    app_control_set_operation(h, kOperation);
    app_control_set_app_id(h, appId);
    int r = app_control_send_launch_request(
        h,
        [](app_control_h request, app_control_h, int result, void *data) {
          auto *out = static_cast<Reply *>(data);
          out->called = true;
          out->result = result;
          out->appId = request ? "request" : "";
        },
        reply);
    app_control_destroy(h);  // the reply must not depend on the caller's handle
    return r;
  }

  testsupport::TempEnv env_;
};

}  // namespace

TEST_F(Launcher, LaunchedAppRunsDetachedWithTheCallersEnvironment) {
  std::string log = env_.root() + "/app.log";
  setenv("VELNA_LOG_FILE", log.c_str(), 1);
  setenv("VELNA_TEST_MARKER", "marker-42", 1);
  Install(TEST_APP);

  Reply reply;
  ASSERT_EQ(0, Launch(kApp, &reply));
  EXPECT_FALSE(reply.called);  // replies come on a later turn of the loop
  ASSERT_TRUE(IsRunning(kApp));
  pid_t pid = PidOf(kApp);
  EXPECT_EQ(kApp, AppIdOf(pid));

  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] { return reply.called && ReadFile(log).find("test-app") != std::string::npos; }, 5000));
  EXPECT_EQ(0, reply.result);
  EXPECT_EQ("request", reply.appId);
  std::string expected = "test-app pid=" + std::to_string(pid) + " app=" + kApp +
                         " operation=" + kOperation + " marker=marker-42 stdin=/dev/null\n";
  EXPECT_NE(std::string::npos, ReadFile(log).find(expected)) << ReadFile(log);

  // Never our child: nothing for us to reap, now or after it ends.
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
  EXPECT_EQ(0, app_manager_terminate_app(kApp));
  EXPECT_FALSE(IsRunning(kApp));
  EXPECT_EQ("<-2>", AppIdOf(pid));
  unsetenv("VELNA_LOG_FILE");
}

TEST_F(Launcher, SecondLaunchWhileRunningStartsNoSecondInstance) {
  Install(TEST_APP);
  pid_t first = 0, second = 0;
  int started = -1;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &first, &started));
  EXPECT_EQ(1, started);
  ASSERT_EQ(0, velna_launch(kApp, kOperation, &second, &started));
  EXPECT_EQ(0, started);
  EXPECT_EQ(first, second);

  Reply reply;
  EXPECT_EQ(0, Launch(kApp, &reply));
  EXPECT_EQ(first, PidOf(kApp));
}

TEST_F(Launcher, ConcurrentLaunchersFromSeveralProcessesAgreeOnOneInstance) {
  Install(TEST_APP);
  const int kLaunchers = 5;
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  std::vector<pid_t> children;
  for (int i = 0; i < kLaunchers; ++i) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      pid_t pid = 0;
      int r = velna_launch(kApp, nullptr, &pid, nullptr);
      int report = r == 0 ? int(pid) : r;
      _exit(write(fds[1], &report, sizeof(report)) == sizeof(report) ? 0 : 1);
    }
    children.push_back(child);
  }
  close(fds[1]);
  for (pid_t child : children) waitpid(child, nullptr, 0);

  std::vector<int> reported;
  for (int value; read(fds[0], &value, sizeof(value)) == sizeof(value);) reported.push_back(value);
  close(fds[0]);
  ASSERT_EQ(size_t(kLaunchers), reported.size());
  for (int value : reported) EXPECT_EQ(int(PidOf(kApp)), value);
  EXPECT_GT(PidOf(kApp), 0);
}

TEST_F(Launcher, KilledOrExitedAppStopsCountingAsRunningAtOnce) {
  Install(std::string(TEST_APP) + " exit", "org.example.exits");
  int started = 0;
  ASSERT_EQ(0, velna_launch("org.example.exits", nullptr, nullptr, &started));
  EXPECT_EQ(1, started);
  EXPECT_TRUE(testsupport::RunLoopUntil([] { return !IsRunning("org.example.exits"); }, 5000));

  Install(TEST_APP);
  pid_t pid = 0;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &pid, nullptr));
  ASSERT_TRUE(IsRunning(kApp));

  ASSERT_EQ(0, kill(pid, SIGKILL));
  // Delivery of SIGKILL is asynchronous; no cleanup or reaping is waited for.
  EXPECT_TRUE(testsupport::RunLoopUntil([] { return !IsRunning(kApp); }, 1000));
  EXPECT_EQ("<-2>", AppIdOf(pid));

  pid_t again = 0;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &again, &started));
  EXPECT_EQ(1, started);
  EXPECT_NE(pid, again);
}

TEST_F(Launcher, UnknownAppAppWithoutExecAndFailedSpawnsAreReported) {
  testsupport::LogCapture capture;
  env_.install({"org.example.noexec", "org.example.noexec", "", "", "", {}});
  Install("/nonexistent/program", "org.example.missing");
  std::string garbage = env_.root() + "/garbage";
  std::ofstream(garbage) << "not a program\n";
  chmod(garbage.c_str(), 0755);
  Install(garbage, "org.example.garbage");
  Install("'unterminated", "org.example.badquote");

  Reply unknown, noexec, missing, bad;
  EXPECT_EQ(-2, Launch("org.example.absent", &unknown));
  EXPECT_EQ(-2, Launch("org.example.noexec", &noexec));
  EXPECT_EQ(-5, Launch("org.example.missing", &missing));
  EXPECT_EQ(-5, Launch("org.example.garbage", &bad));
  EXPECT_EQ(-5, velna_launch("org.example.badquote", nullptr, nullptr, nullptr));
  EXPECT_EQ(-22, Launch("../evil", nullptr));
  app_control_h noId = nullptr;
  ASSERT_EQ(0, app_control_create(&noId));
  EXPECT_EQ(-22, app_control_send_launch_request(noId, nullptr, nullptr));
  app_control_destroy(noId);

  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return bad.called; }, 2000));
  EXPECT_EQ(-2, unknown.result);
  EXPECT_EQ(-2, noexec.result);
  EXPECT_EQ(-5, missing.result);
  EXPECT_EQ(-5, bad.result);
  EXPECT_TRUE(capture.has("org.example.noexec: its manifest has no Exec")) << capture.dump();
  EXPECT_TRUE(capture.has("exec " + garbage + ": Exec format error")) << capture.dump();
  EXPECT_FALSE(IsRunning("org.example.garbage"));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));  // the failed spawns left no child behind
}

TEST_F(Launcher, TerminateEscalatesToKillForAnAppThatIgnoresTerm) {
  testsupport::LogCapture capture;
  Install(std::string(TEST_APP) + " ignore-term");
  pid_t pid = 0;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &pid, nullptr));
  // Wait until the app has set its disposition (it writes its line first, then ignores).
  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(status, line);)
          if (line.rfind("SigIgn:", 0) == 0)
            return (std::stoull(line.substr(7), nullptr, 16) & (1ull << (SIGTERM - 1))) != 0;
        return false;
      },
      5000));

  gint64 start = g_get_monotonic_time();
  EXPECT_EQ(0, app_manager_terminate_app(kApp));
  gint64 elapsedMs = (g_get_monotonic_time() - start) / 1000;
  EXPECT_FALSE(IsRunning(kApp));
  EXPECT_GE(elapsedMs, 1900);
  EXPECT_LT(elapsedMs, 10000);
  EXPECT_TRUE(capture.has("ignored SIGTERM")) << capture.dump();

  EXPECT_EQ(0, app_manager_terminate_app(kApp));  // not running: nothing to do
  EXPECT_EQ(-22, app_manager_terminate_app("a/b"));
}

TEST_F(Launcher, SelfRegistrationClaimsTheIdOnlyWhileNoLiveProcessHoldsIt) {
  Install(TEST_APP);
  pid_t app = 0;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &app, nullptr));

  setenv("VELNA_APP_ID", kApp, 1);
  EXPECT_EQ(-17, velna_self_register());
  EXPECT_EQ(kApp, AppIdOf(app));
  EXPECT_EQ("<-2>", AppIdOf(getpid()));

  ASSERT_EQ(0, app_manager_terminate_app(kApp));
  EXPECT_EQ(0, velna_self_register());
  EXPECT_EQ(0, velna_self_register());  // again: already ours
  EXPECT_EQ(getpid(), PidOf(kApp));
  EXPECT_EQ(kApp, AppIdOf(getpid()));
  EXPECT_TRUE(IsRunning(kApp));

  pid_t pid = 0;
  int started = 1;
  ASSERT_EQ(0, velna_launch(kApp, nullptr, &pid, &started));  // we are the instance now
  EXPECT_EQ(0, started);
  EXPECT_EQ(getpid(), pid);

  setenv("VELNA_APP_ID", "not/valid", 1);
  EXPECT_EQ(-22, velna_self_register());
  unsetenv("VELNA_APP_ID");
  EXPECT_EQ(-22, velna_self_register());
}

TEST_F(Launcher, StaleRecordsOfDeadOrReusedPidsDoNotCount) {
  // A record naming a pid that exists but started at another time (a reused pid).
  std::string runDir = env_.runtimeDir() + "/run";
  char *rt = nullptr;
  ASSERT_EQ(0, velna_runtime_dir(&rt));
  free(rt);
  std::ofstream(runDir + "/org.example.stale") << getpid() << " 1\n";
  std::ofstream(runDir + "/org.example.dead") << 999999999 << " 1\n";
  EXPECT_FALSE(IsRunning("org.example.stale"));
  EXPECT_FALSE(IsRunning("org.example.dead"));

  // A zombie is not running either: a child of ours that we do not reap yet.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pause();
    _exit(0);
  }
  ASSERT_EQ(0, running_registry_register("org.example.zombie", child));
  EXPECT_TRUE(IsRunning("org.example.zombie"));
  EXPECT_EQ(-17, running_registry_register("org.example.zombie", getpid()));
  kill(child, SIGKILL);
  EXPECT_TRUE(testsupport::RunLoopUntil([] { return !IsRunning("org.example.zombie"); }, 2000));
  EXPECT_EQ(0, running_registry_register("org.example.zombie", getpid()));
  waitpid(child, nullptr, 0);
}
