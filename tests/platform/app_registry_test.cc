// Installed app manifests: app information, the package manager, the cache and the
// handling of malformed files and invalid ids.
#include <app_info.h>
#include <gtest/gtest.h>
#include <package_manager.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"

// Internal interfaces of the platform layer (C, without C++ guards).
extern "C" {
#include "app_registry_internal.h"
}

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string kVersionKey = "http://velna.org/velna/metadata/talvo/companion-app/version";
const std::string kCapsuleKey = "http://velna.org/velna/metadata/talvo/companion-app/capsule-id";
const std::string kSdkKey = "http://velna.org/velna/metadata/talvo/sdk/version";

Pairs Metadata(const char *appId, int stopAfter = -1) {
  app_info_h info = nullptr;
  EXPECT_EQ(0, app_info_create(appId, &info));
  if (!info) return {};
  struct Ctx {
    Pairs out;
    int stopAfter;
  } ctx{{}, stopAfter};
  EXPECT_EQ(0, app_info_foreach_metadata(
                   info,
                   [](const char *k, const char *v, void *data) {
                     auto *c = static_cast<Ctx *>(data);
                     c->out.emplace_back(k, v);
                     return c->stopAfter < 0 || int(c->out.size()) < c->stopAfter;
                   },
                   &ctx));
  app_info_destroy(info);
  return ctx.out;
}

std::string InfoPackage(const char *appId) {
  app_info_h info = nullptr;
  if (app_info_create(appId, &info) != 0) return "<error>";
  char *package = nullptr;
  EXPECT_EQ(0, app_info_get_package(info, &package));
  std::string out = package ? package : "";
  free(package);
  app_info_destroy(info);
  return out;
}

std::string PackageId(const char *appId) {
  char *package = nullptr;
  int r = package_manager_get_package_id_by_app_id(appId, &package);
  std::string out = r == 0 ? package : "<" + std::to_string(r) + ">";
  free(package);
  return out;
}

class Manifests : public ::testing::Test {
 protected:
  testsupport::TempEnv env_;
};

}  // namespace

TEST_F(Manifests, MetadataComesInFileOrderWithRawValues) {
  env_.install({"org.example.music", "org.example.music", "", "", "",
                {{kVersionKey, "1.2.0"},
                 {kSdkKey, "1.1.0"},
                 {kCapsuleKey, "capsule;with\\sescapes=and:colons"},
                 {"http://velna.org/velna/metadata/talvo/companion-app/action-id", "a,b"}}});

  Pairs expected = {{kVersionKey, "1.2.0"},
                    {kSdkKey, "1.1.0"},
                    {kCapsuleKey, "capsule;with\\sescapes=and:colons"},
                    {"http://velna.org/velna/metadata/talvo/companion-app/action-id", "a,b"}};
  EXPECT_EQ(expected, Metadata("org.example.music"));
  EXPECT_EQ(Pairs(expected.begin(), expected.begin() + 2), Metadata("org.example.music", 2));
}

TEST_F(Manifests, InfoPackageDefaultsToPackage) {
  env_.install({"org.example.alias", "org.example.alias.pkg", "org.example", "", "", {}});
  env_.install({"org.example.plain", "org.example.plain", "", "", "", {}});

  EXPECT_EQ("org.example", InfoPackage("org.example.alias"));
  EXPECT_EQ("org.example.alias.pkg", PackageId("org.example.alias"));
  EXPECT_EQ("org.example.plain", InfoPackage("org.example.plain"));
  EXPECT_EQ("org.example.plain", PackageId("org.example.plain"));
  EXPECT_TRUE(Metadata("org.example.plain").empty());
}

TEST_F(Manifests, ExecAndAllowedClientsAreParsed) {
  env_.install({"org.example.a", "org.example.a", "", "/usr/bin/app --quiet", "one; two;;three",
                {}});
  env_.install({"org.example.b", "org.example.b", "", "", "", {}});
  env_.installRaw("org.example.c", "[Application]\nPackage=c\nAllowedClients=\n");

  app_info_h info = nullptr;
  ASSERT_EQ(0, app_info_create("org.example.a", &info));
  char *exec = nullptr;
  ASSERT_EQ(0, app_info_get_exec(info, &exec));
  EXPECT_STREQ("/usr/bin/app --quiet", exec);
  free(exec);
  app_info_destroy(info);
  ASSERT_EQ(0, app_info_create("org.example.b", &info));
  EXPECT_EQ(-2, app_info_get_exec(info, &exec));
  app_info_destroy(info);

  const velna_manifest *a = nullptr, *b = nullptr, *c = nullptr;
  ASSERT_EQ(0, velna_manifest_load("org.example.a", &a));
  ASSERT_EQ(0, velna_manifest_load("org.example.b", &b));
  ASSERT_EQ(0, velna_manifest_load("org.example.c", &c));
  for (const char *id : {"one", "two", "three"}) EXPECT_TRUE(velna_manifest_allows_client(a, id));
  EXPECT_FALSE(velna_manifest_allows_client(a, "four"));
  EXPECT_FALSE(velna_manifest_allows_client(a, ""));
  EXPECT_FALSE(velna_manifest_allows_client(a, nullptr));
  EXPECT_TRUE(velna_manifest_allows_client(b, "anyone"));
  EXPECT_TRUE(velna_manifest_allows_client(b, nullptr));
  EXPECT_FALSE(velna_manifest_allows_client(c, "anyone"));  // present but empty: nobody
  velna_manifest_unref(a);
  velna_manifest_unref(b);
  velna_manifest_unref(c);
}

TEST_F(Manifests, MalformedManifestIsAnErrorForThatAppOnly) {
  testsupport::LogCapture capture;
  env_.installRaw("org.example.garbage", "this is not a key file\n");
  env_.installRaw("org.example.nopackage", "[Application]\nExec=/bin/true\n");
  env_.installRaw("org.example.nogroup", "[Metadata]\nk=v\n");
  env_.install({"org.example.good", "org.example.good", "", "", "", {{kSdkKey, "1.1.0"}}});

  app_info_h info = nullptr;
  EXPECT_EQ(-5, app_info_create("org.example.garbage", &info));
  EXPECT_EQ(-5, app_info_create("org.example.nopackage", &info));
  EXPECT_EQ("<-5>", PackageId("org.example.nogroup"));
  EXPECT_EQ((Pairs{{kSdkKey, "1.1.0"}}), Metadata("org.example.good"));

  EXPECT_TRUE(capture.has("org.example.garbage.app is malformed")) << capture.dump();
  EXPECT_TRUE(capture.has("org.example.nopackage.app is malformed: no Package")) << capture.dump();
}

TEST_F(Manifests, UnknownAndInvalidAppIdsAreRefused) {
  app_info_h info = nullptr;
  EXPECT_EQ(-2, app_info_create("org.example.absent", &info));
  EXPECT_EQ("<-2>", PackageId("org.example.absent"));

  // A manifest outside the apps directory must stay out of reach.
  std::ofstream(env_.root() + "/x.app") << "[Application]\nPackage=x\n";
  const std::string tooLong(256, 'a');
  for (const char *id : {"../x", "a/b", "", ".", "..", "a b", "caf\xc3\xa9", tooLong.c_str()}) {
    EXPECT_EQ(-22, app_info_create(id, &info)) << id;
    EXPECT_EQ("<-22>", PackageId(id)) << id;
  }
  EXPECT_EQ(-22, app_info_create(nullptr, &info));

  // The longest id whose manifest name a file system takes ("<id>.app", 255 bytes).
  const std::string longest(251, 'a');
  env_.install({longest, "p", "", "", "", {}});
  EXPECT_EQ("p", PackageId(longest.c_str()));
  EXPECT_EQ("<-2>", PackageId(std::string(255, 'b').c_str()));
}

TEST_F(Manifests, RewrittenOrRemovedManifestIsReadAfresh) {
  env_.install({"org.example.app", "first", "", "", "", {{"k", "1"}}});
  EXPECT_EQ("first", PackageId("org.example.app"));
  EXPECT_EQ((Pairs{{"k", "1"}}), Metadata("org.example.app"));

  // Same size, same second: only the finer times and the content differ.
  env_.install({"org.example.app", "other", "", "", "", {{"k", "2"}}});
  EXPECT_EQ("other", PackageId("org.example.app"));
  EXPECT_EQ((Pairs{{"k", "2"}}), Metadata("org.example.app"));

  // A handle keeps the manifest it was made with.
  app_info_h held = nullptr;
  ASSERT_EQ(0, app_info_create("org.example.app", &held));
  ASSERT_EQ(0, unlink((env_.appsDir() + "/org.example.app.app").c_str()));
  EXPECT_EQ("<-2>", PackageId("org.example.app"));
  char *package = nullptr;
  ASSERT_EQ(0, app_info_get_package(held, &package));
  EXPECT_STREQ("other", package);
  free(package);
  app_info_destroy(held);

  env_.installRaw("org.example.app", "[Application]\nPackage=third\n");
  EXPECT_EQ("third", PackageId("org.example.app"));
}
