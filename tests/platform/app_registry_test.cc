// Installed apps: their manifests as each interface reads them, launching a real app
// process, and the registry of running apps.
#include <app_control.h>
#include <app_info.h>
#include <app_manager.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <package_manager.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
extern "C" {
#include "launcher_internal.h"
#include "runtime_internal.h"
}

namespace {

using testsupport::IsRunning;
using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string kSdkKey = "http://velna.org/velna/metadata/talvo/sdk/version";

// The app's metadata in foreach order.
Pairs Metadata(const char *appId) {
  app_info_h info = nullptr;
  EXPECT_EQ(0, app_info_create(appId, &info));
  Pairs out;
  auto collect = [](const char *k, const char *v, void *data) {
    return static_cast<Pairs *>(data)->emplace_back(k, v), true;
  };
  EXPECT_EQ(0, app_info_foreach_metadata(info, collect, &out));
  app_info_destroy(info);
  return out;
}

// The text a getter handed out (freed here), or "<result>" when it failed.
std::string Text(int r, char **value) {
  std::string out = r == 0 ? *value : "<" + std::to_string(r) + ">";
  free(*value);
  return out;
}

// The app's InfoPackage, package id and Exec as their getters hand them out, joined by '|'.
std::string Fields(const char *appId) {
  char *package = nullptr, *id = nullptr, *exec = nullptr;
  app_info_h info = nullptr;
  int r = app_info_create(appId, &info);
  std::string out = Text(info ? app_info_get_package(info, &package) : r, &package) + "|" +
                    Text(package_manager_get_package_id_by_app_id(appId, &id), &id) + "|" +
                    Text(info ? app_info_get_exec(info, &exec) : r, &exec);
  app_info_destroy(info);
  return out;
}

const char *kApp = "org.example.testapp";
const char *kOperation = "http://velna.org/appcontrol/operation/talvo";

std::string AppIdOf(pid_t pid) {
  char *id = nullptr;
  return Text(app_manager_get_app_id(pid, &id), &id);
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

using Manifests = Launcher;

}  // namespace

// A malformed or incomplete manifest is an error for that app only.
TEST_F(Manifests, FieldsAndMetadataInFileOrderWithDefaultsRewritesReadAfreshAndMalformedOnesFailAlone) {
  testsupport::LogCapture capture;
  const Pairs metadata = {{"http://velna.org/velna/metadata/talvo/companion-app/version", "1.2.0"},
                          {kSdkKey, "1.1.0"},
                          {"http://velna.org/velna/metadata/talvo/companion-app/capsule-id",
                           "capsule;with\\sescapes=and:colons"}};
  env_.install({"org.example.alias", "org.example.alias.pkg", "org.example", "/bin/app --quiet",
                "", metadata});
  env_.install({"org.example.plain", "org.example.plain", "", "", "", {}});
  env_.installRaw("org.example.garbage", "this is not a key file\n");
  env_.installRaw("org.example.nopackage", "[Application]\nExec=/bin/true\n");
  env_.installRaw("org.example.nogroup", "[Metadata]\nk=v\n");

  EXPECT_EQ(metadata, Metadata("org.example.alias"));
  EXPECT_EQ("org.example|org.example.alias.pkg|/bin/app --quiet", Fields("org.example.alias"));
  EXPECT_EQ("org.example.plain|org.example.plain|<-2>", Fields("org.example.plain"));
  EXPECT_TRUE(Metadata("org.example.plain").empty());
  for (const char *id : {"org.example.garbage", "org.example.nopackage", "org.example.nogroup"})
    EXPECT_EQ("<-5>|<-5>|<-5>", Fields(id)) << id;
  EXPECT_TRUE(capture.has("org.example.garbage.app is malformed")) << capture.dump();
  EXPECT_TRUE(capture.has("org.example.nopackage.app is malformed: no Package")) << capture.dump();

  // Same size, same second: only the finer times and the content differ.
  env_.install({"org.example.plain", "org.example.other", "", "", "", {}});
  EXPECT_EQ("org.example.other|org.example.other|<-2>", Fields("org.example.plain"));
}

// Every interface refuses the same ids; a valid one, however long, names a socket directly
// under <runtime>/s and a lock file in <runtime>/lock.
TEST_F(Manifests, UnknownAndInvalidAppIdsAreRefusedAndValidOnesStayInsideTheRuntimeDir) {
  // A manifest outside the apps directory stays out of reach.
  std::ofstream(env_.root() + "/x.app") << "[Application]\nPackage=x\n";
  char path[sizeof(sockaddr_un::sun_path)];
  bool running = true;
  const std::string tooLong(256, 'a');
  for (const char *id : {"../x", "a/b", "", ".", "..", "a b", "a:b", "caf\xc3\xa9", tooLong.c_str()}) {
    EXPECT_EQ("<-22>|<-22>|<-22>", Fields(id)) << id;
    EXPECT_EQ(-22, velna_socket_path("rpc", id, "port", path, sizeof path)) << id;
    EXPECT_EQ(-22, app_manager_is_running(id, &running)) << id;
    EXPECT_EQ(-22, running_registry_lock(id)) << id;
  }
  // The longest id whose manifest name a file system takes ("<id>.app", 255 bytes).
  const std::string longest(251, 'a'), sockets = env_.runtimeDir() + "/s/";
  for (const std::string &id : {std::string("..a"), std::string("Az09._-"), longest}) {
    EXPECT_EQ("<-2>|<-2>|<-2>", Fields(id.c_str())) << id;
    ASSERT_EQ(0, velna_socket_path("rpc", id.c_str(), "port", path, sizeof path)) << id;
    EXPECT_TRUE(std::string(path).rfind(sockets, 0) == 0 && !strchr(path + sockets.size(), '/')) << path;
    int lock = running_registry_lock(id.c_str());
    EXPECT_GE(lock, 0) << id;
    EXPECT_EQ(0, access((env_.runtimeDir() + "/lock/" + id).c_str(), F_OK)) << id;
    running_registry_unlock(lock);
  }
  env_.install({longest, "p", "", "", "", {}});
  EXPECT_EQ("p|p|<-2>", Fields(longest.c_str()));
}

TEST_F(Manifests, ReplacedRemovedLinkedAndMovedManifestsAreSeenByTheNextLookup) {
  const std::string apps = env_.root() + "/apps";
  env_.install({"org.example.app", "org.example.first", "", "", "", {}});
  EXPECT_EQ("org.example.first|org.example.first|<-2>", Fields("org.example.app"));

  // Replaced whole by a rename, as package installers do.
  std::ofstream(apps + "/.new") << "[Application]\nPackage=org.example.second\n";
  ASSERT_EQ(0, rename((apps + "/.new").c_str(), (apps + "/org.example.app.app").c_str()));
  EXPECT_EQ("org.example.second|org.example.second|<-2>", Fields("org.example.app"));

  ASSERT_EQ(0, unlink((apps + "/org.example.app.app").c_str()));
  EXPECT_EQ("<-2>|<-2>|<-2>", Fields("org.example.app"));

  // A manifest that links to a file elsewhere: edits of the target show too.
  const std::string target = env_.root() + "/elsewhere.app";
  std::ofstream(target) << "[Application]\nPackage=org.example.linked\n";
  ASSERT_EQ(0, symlink(target.c_str(), (apps + "/org.example.app.app").c_str()));
  EXPECT_EQ("org.example.linked|org.example.linked|<-2>", Fields("org.example.app"));
  std::ofstream(target, std::ios::trunc) << "[Application]\nPackage=org.example.relinked\n";
  EXPECT_EQ("org.example.relinked|org.example.relinked|<-2>", Fields("org.example.app"));

  // Another apps directory, and the first one renamed away underneath its watch.
  const std::string other = env_.root() + "/other-apps";
  ASSERT_EQ(0, mkdir(other.c_str(), 0755));
  std::ofstream(other + "/org.example.app.app") << "[Application]\nPackage=org.example.other\n";
  setenv("VELNA_APPS_DIR", other.c_str(), 1);
  EXPECT_EQ("org.example.other|org.example.other|<-2>", Fields("org.example.app"));
  setenv("VELNA_APPS_DIR", apps.c_str(), 1);
  EXPECT_EQ("org.example.relinked|org.example.relinked|<-2>", Fields("org.example.app"));
  ASSERT_EQ(0, rename(apps.c_str(), (apps + ".old").c_str()));
  ASSERT_EQ(0, rename(other.c_str(), apps.c_str()));
  EXPECT_EQ("org.example.other|org.example.other|<-2>", Fields("org.example.app"));
}

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
