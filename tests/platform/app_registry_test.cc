// Installed app manifests: app information, the package manager, and the handling of
// malformed files and invalid ids.
#include <app_info.h>
#include <gtest/gtest.h>
#include <package_manager.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string kSdkKey = "http://velna.org/velna/metadata/talvo/sdk/version";

// The app's metadata in foreach order, up to stopAfter entries when that is given.
Pairs Metadata(const char *appId, int stopAfter = -1) {
  app_info_h info = nullptr;
  EXPECT_EQ(0, app_info_create(appId, &info));
  struct Ctx {
    Pairs out;
    int stopAfter;
  } ctx{{}, stopAfter};
  auto collect = [](const char *k, const char *v, void *data) {
    auto *c = static_cast<Ctx *>(data);
    c->out.emplace_back(k, v);
    return c->stopAfter < 0 || int(c->out.size()) < c->stopAfter;
  };
  EXPECT_EQ(0, app_info_foreach_metadata(info, collect, &ctx));
  app_info_destroy(info);
  return ctx.out;
}

enum Field { kInfoPackage, kPackageId, kExec };

// The field as its getter hands it out, else "<result>".
std::string Get(const char *appId, Field field) {
  char *value = nullptr;
  app_info_h info = nullptr;
  int r = field == kPackageId ? package_manager_get_package_id_by_app_id(appId, &value)
                              : app_info_create(appId, &info);
  if (info) r = field == kInfoPackage ? app_info_get_package(info, &value) : app_info_get_exec(info, &value);
  app_info_destroy(info);
  std::string out = r == 0 ? value : "<" + std::to_string(r) + ">";
  free(value);
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
  EXPECT_EQ(Pairs(metadata.begin(), metadata.begin() + 2), Metadata("org.example.alias", 2));
  EXPECT_EQ("org.example", Get("org.example.alias", kInfoPackage));
  EXPECT_EQ("org.example.alias.pkg", Get("org.example.alias", kPackageId));
  EXPECT_EQ("/bin/app --quiet", Get("org.example.alias", kExec));
  EXPECT_EQ("org.example.plain", Get("org.example.plain", kInfoPackage));
  EXPECT_EQ("org.example.plain", Get("org.example.plain", kPackageId));
  EXPECT_EQ("<-2>", Get("org.example.plain", kExec));
  EXPECT_TRUE(Metadata("org.example.plain").empty());

  // Same size, same second: only the finer times and the content differ.
  env_.install({"org.example.plain", "org.example.other", "", "", "", {}});
  EXPECT_EQ("org.example.other", Get("org.example.plain", kPackageId));
}

TEST_F(Manifests, MalformedOrIncompleteManifestIsAnErrorForThatAppOnly) {
  testsupport::LogCapture capture;
  env_.installRaw("org.example.garbage", "this is not a key file\n");
  env_.installRaw("org.example.nopackage", "[Application]\nExec=/bin/true\n");
  env_.installRaw("org.example.nogroup", "[Metadata]\nk=v\n");
  env_.install({"org.example.good", "org.example.good", "", "", "", {{kSdkKey, "1.1.0"}}});

  EXPECT_EQ("<-5>", Get("org.example.garbage", kInfoPackage));
  EXPECT_EQ("<-5>", Get("org.example.nopackage", kInfoPackage));
  EXPECT_EQ("<-5>", Get("org.example.nogroup", kPackageId));
  EXPECT_EQ((Pairs{{kSdkKey, "1.1.0"}}), Metadata("org.example.good"));
  EXPECT_TRUE(capture.has("org.example.garbage.app is malformed")) << capture.dump();
  EXPECT_TRUE(capture.has("org.example.nopackage.app is malformed: no Package")) << capture.dump();
}

TEST_F(Manifests, UnknownAndInvalidAppIdsAreRefused) {
  EXPECT_EQ("<-2>", Get("org.example.absent", kInfoPackage));
  EXPECT_EQ("<-2>", Get("org.example.absent", kPackageId));

  // A manifest outside the apps directory stays out of reach.
  std::ofstream(env_.root() + "/x.app") << "[Application]\nPackage=x\n";
  const std::string tooLong(256, 'a');
  for (const char *id : {"../x", "a/b", "", ".", "..", "a b", "caf\xc3\xa9", tooLong.c_str()}) {
    EXPECT_EQ("<-22>", Get(id, kInfoPackage)) << id;
    EXPECT_EQ("<-22>", Get(id, kPackageId)) << id;
  }
  // The longest id whose manifest name a file system takes ("<id>.app", 255 bytes).
  const std::string longest(251, 'a');
  env_.install({longest, "p", "", "", "", {}});
  EXPECT_EQ("p", Get(longest.c_str(), kPackageId));
}
