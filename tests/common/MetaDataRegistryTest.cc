// The metadata registry of the common data component: where each app's declared values
// come from and which mechanism they imply.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Bundles.h"
#include "LogCapture.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "common/TalvoProxyCommonData.h"

namespace {

using testsupport::BundlePtr;

BundlePtr RequestBundle(const char *capsuleId, const char *version, const char *sdkVersion) {
  BundlePtr b(bundle_create());
  if (capsuleId) bundle_add_str(b.get(), "capsuleId", capsuleId);
  if (version) bundle_add_str(b.get(), "appVersion", version);
  if (sdkVersion) bundle_add_str(b.get(), "appSdkVersion", sdkVersion);
  return b;
}

std::string Str(const char *value) { return value ? value : "<null>"; }

class MetaDataRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registry = TalvoProxyCommonData::getInstance();
    ASSERT_NE(registry, nullptr);
  }

  // Installs appId declaring the given SDK version (none when null) besides version and
  // capsule id.
  void Install(const std::string &appId, const char *sdkVersion) {
    testsupport::Manifest m;
    m.appId = appId;
    m.package = appId;
    m.metadata = {{talvo::kMetadataVersionKey, "1.2.0"},
                  {talvo::kMetadataCapsuleIdKey, "cap." + appId},
                  {talvo::kMetadataActionIdKey, "play,stop"},
                  {"http://velna.org/other", "x"}};
    if (sdkVersion) m.metadata.emplace_back(talvo::kMetadataSdkVersionKey, sdkVersion);
    env.install(m);
  }

  int MechanismOf(const std::string &appId) {
    MetaDataInfo *info = registry->ExtractMetaData(appId, nullptr);
    return info ? info->ipcMechanism : -1;
  }

  testsupport::TempEnv env;
  testsupport::LogCapture log;
  TalvoProxyCommonData *registry = nullptr;
};

TEST_F(MetaDataRegistryTest, FirstRequestReadsThePackageMetadata) {
  Install("org.velna.test.music", "1.1.0");

  MetaDataInfo *info = registry->ExtractMetaData("org.velna.test.music", nullptr);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(log.count("MetaDataMap entry not found for :org.velna.test.music"), 1);
  EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_VIDL);
  EXPECT_EQ(Str(info->metadataValue->versionValue), "1.2.0");
  EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap.org.velna.test.music");
  EXPECT_EQ(Str(info->metadataValue->sdkVersionValue), "1.1.0");
  // The action-id key and the foreign key are unknown here and do not stop the reading.
  EXPECT_EQ(log.count("Unknown metadata key."), 2);
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.music"), info);
}

TEST_F(MetaDataRegistryTest, SdkVersionDecidesTheMechanism) {
  Install("org.velna.test.none", nullptr);
  Install("org.velna.test.alpha", "1.0-alpha");
  Install("org.velna.test.alpha3", "1.0-alpha.3");
  Install("org.velna.test.beta", "1.0-beta");

  EXPECT_EQ(MechanismOf("org.velna.test.none"), IPC_MECHANISM_MESSAGE_PORT);
  EXPECT_EQ(MechanismOf("org.velna.test.alpha"), IPC_MECHANISM_MESSAGE_PORT);
  EXPECT_EQ(MechanismOf("org.velna.test.alpha3"), IPC_MECHANISM_MESSAGE_PORT);
  EXPECT_EQ(MechanismOf("org.velna.test.beta"), IPC_MECHANISM_VIDL);
  EXPECT_TRUE(log.has("AppSdkVersion (null)"));
}

TEST_F(MetaDataRegistryTest, CompleteRequestBundleWinsOverThePackageMetadata) {
  Install("org.velna.test.music", "1.0-alpha");

  BundlePtr partial = RequestBundle("cap.bundle", "9.9", nullptr);
  MetaDataInfo *info = registry->ExtractMetaData("org.velna.test.music", partial.get());
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap.org.velna.test.music");
  EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_MESSAGE_PORT);

  BundlePtr complete = RequestBundle("cap.bundle", "9.9", "2.0");
  info = registry->ExtractMetaData("org.velna.test.music", complete.get());
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap.bundle");
  EXPECT_EQ(Str(info->metadataValue->versionValue), "9.9");
  EXPECT_EQ(Str(info->metadataValue->sdkVersionValue), "2.0");
  EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_VIDL);
}

TEST_F(MetaDataRegistryTest, RpcPortRecordsAreKeptAndMessagePortRecordsRebuilt) {
  BundlePtr rpcFirst = RequestBundle("cap.a", "1.0", "1.1.0");
  BundlePtr rpcLater = RequestBundle("cap.b", "2.0", "1.0-alpha");
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.rpc", rpcFirst.get()), nullptr);
  MetaDataInfo *kept = registry->ExtractMetaData("org.velna.test.rpc", rpcLater.get());
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(Str(kept->metadataValue->capsuleIdValue), "cap.a");
  EXPECT_EQ(kept->ipcMechanism, IPC_MECHANISM_VIDL);

  BundlePtr portFirst = RequestBundle("cap.a", "1.0", "1.0-alpha");
  BundlePtr portLater = RequestBundle("cap.b", "2.0", "1.1.0");
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.port", portFirst.get()), nullptr);
  MetaDataInfo *rebuilt = registry->ExtractMetaData("org.velna.test.port", portLater.get());
  ASSERT_NE(rebuilt, nullptr);
  EXPECT_EQ(Str(rebuilt->metadataValue->capsuleIdValue), "cap.b");
  EXPECT_EQ(rebuilt->ipcMechanism, IPC_MECHANISM_VIDL);
}

TEST_F(MetaDataRegistryTest, FailedReadingLeavesNoEntry) {
  EXPECT_EQ(registry->ExtractMetaData("org.velna.test.absent", nullptr), nullptr);
  EXPECT_TRUE(log.has("app_info_create failed ERROR[-2]"));
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.absent"), nullptr);

  // A message-port record is dropped before it is rebuilt, also when the rebuild fails.
  Install("org.velna.test.music", nullptr);
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.music", nullptr), nullptr);
  env.installRaw("org.velna.test.music", "this is not a key file\n");
  EXPECT_EQ(registry->ExtractMetaData("org.velna.test.music", nullptr), nullptr);
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.music"), nullptr);
}

TEST_F(MetaDataRegistryTest, RemovalAndDeinitializationForgetRecords) {
  BundlePtr data = RequestBundle("cap.a", "1.0", "1.1.0");
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.one", data.get()), nullptr);
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.two", data.get()), nullptr);

  log.clear();
  registry->RemoveMetaDataMapEntry("org.velna.test.absent");
  EXPECT_EQ(log.count("MetaDataMap entry not found for :org.velna.test.absent"), 1);
  EXPECT_EQ(log.count("MetaDataInfo is null"), 1);

  // Size 1 left: the removal of the unknown app took nothing away.
  registry->RemoveMetaDataMapEntry("org.velna.test.one");
  EXPECT_TRUE(log.has("Remove metaDataMap size(1)")) << log.dump();
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.one"), nullptr);

  log.clear();
  EXPECT_EQ(registry->deinitialize(), 0);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.two"), nullptr);
}

}  // namespace
