// Installed app manifests: app information, the package manager, and the handling of
// malformed files and invalid ids.
#include <app_info.h>
#include <app_manager.h>
#include <gtest/gtest.h>
#include <package_manager.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"
extern "C" {
#include "runtime_internal.h"
}

namespace {

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

// The app's InfoPackage, package id and Exec as their getters hand them out, each else
// "<result>", joined by '|'.
std::string Fields(const char *appId) {
  auto text = [](int r, char **value) {
    std::string out = r == 0 ? *value : "<" + std::to_string(r) + ">";
    return free(*value), out;
  };
  char *package = nullptr, *id = nullptr, *exec = nullptr;
  app_info_h info = nullptr;
  int r = app_info_create(appId, &info);
  std::string out = text(info ? app_info_get_package(info, &package) : r, &package) + "|" +
                    text(package_manager_get_package_id_by_app_id(appId, &id), &id) + "|" +
                    text(info ? app_info_get_exec(info, &exec) : r, &exec);
  app_info_destroy(info);
  return out;
}

class Manifests : public ::testing::Test {
 protected:
  testsupport::TempEnv env_;
};

}  // namespace

TEST_F(Manifests, FieldsAndMetadataInFileOrderWithDefaultsAndRewritesReadAfresh) {
  const Pairs metadata = {{"http://velna.org/velna/metadata/talvo/companion-app/version", "1.2.0"},
                          {kSdkKey, "1.1.0"},
                          {"http://velna.org/velna/metadata/talvo/companion-app/capsule-id",
                           "capsule;with\\sescapes=and:colons"}};
  env_.install({"org.example.alias", "org.example.alias.pkg", "org.example", "/bin/app --quiet",
                "", metadata});
  env_.install({"org.example.plain", "org.example.plain", "", "", "", {}});

  EXPECT_EQ(metadata, Metadata("org.example.alias"));
  EXPECT_EQ("org.example|org.example.alias.pkg|/bin/app --quiet", Fields("org.example.alias"));
  EXPECT_EQ("org.example.plain|org.example.plain|<-2>", Fields("org.example.plain"));
  EXPECT_TRUE(Metadata("org.example.plain").empty());

  // Same size, same second: only the finer times and the content differ.
  env_.install({"org.example.plain", "org.example.other", "", "", "", {}});
  EXPECT_EQ("org.example.other|org.example.other|<-2>", Fields("org.example.plain"));
}

TEST_F(Manifests, MalformedOrIncompleteManifestIsAnErrorForThatAppOnly) {
  testsupport::LogCapture capture;
  env_.installRaw("org.example.garbage", "this is not a key file\n");
  env_.installRaw("org.example.nopackage", "[Application]\nExec=/bin/true\n");
  env_.installRaw("org.example.nogroup", "[Metadata]\nk=v\n");
  env_.install({"org.example.good", "org.example.good", "", "", "", {{kSdkKey, "1.1.0"}}});

  for (const char *id : {"org.example.garbage", "org.example.nopackage", "org.example.nogroup"})
    EXPECT_EQ("<-5>|<-5>|<-5>", Fields(id)) << id;
  EXPECT_EQ((Pairs{{kSdkKey, "1.1.0"}}), Metadata("org.example.good"));
  EXPECT_TRUE(capture.has("org.example.garbage.app is malformed")) << capture.dump();
  EXPECT_TRUE(capture.has("org.example.nopackage.app is malformed: no Package")) << capture.dump();
}

// Every interface that makes a name or a path from an id refuses the same ids; a valid
// one, however long, names a socket directly under <runtime>/s and a lock file in
// <runtime>/lock.
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
