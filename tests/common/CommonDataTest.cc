// The common data component: app metadata and the mechanism it implies, and the focus query
// against the window-manager simulator. The remembered reply layout lives as long as the
// process, so each test runs in a process of its own.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "common/MetaDataKeys.h"
#include "common/TalvoProxyCommonData.h"
#include "talvo_proxy.h"

extern "C" {
#include "launcher_internal.h"
}

namespace {

using namespace testsupport;

constexpr const char kSelf[] = "org.velna.test.client";
constexpr const char kMusic[] = "org.velna.test.music";

std::string Str(const char *value) { return value ? value : "<null>"; }

class MetaDataRegistryTest : public ::testing::Test {
 protected:
  // Installs appId declaring the given SDK version (none when null) besides version,
  // capsule id, action ids and a foreign key.
  void Install(const std::string &appId, const char *sdkVersion) {
    Manifest m{appId, appId, "", "", "", {{talvo::kMetadataVersionKey, "1.2.0"},
                                          {talvo::kMetadataCapsuleIdKey, "cap." + appId},
                                          {talvo::kMetadataActionIdKey, "play,stop"},
                                          {"http://velna.org/other", "x"}}};
    if (sdkVersion) m.metadata.emplace_back(talvo::kMetadataSdkVersionKey, sdkVersion);
    env.install(m);
  }
  int MechanismOf(const std::string &appId) {
    MetaDataInfo *info = registry->ExtractMetaData(appId, nullptr);
    return info ? info->ipcMechanism : -1;
  }

  TempEnv env;
  LogCapture log;
  TalvoProxyCommonData *registry = TalvoProxyCommonData::getInstance();
};

TEST_F(MetaDataRegistryTest, SdkVersionOfTheManifestOrACompleteRequestDecidesTheMechanism) {
  Install(kMusic, "1.1.0");
  MetaDataInfo *info = registry->ExtractMetaData(kMusic, nullptr);
  ASSERT_NE(info, nullptr);
  EXPECT_TRUE(log.sequence(
      {LogD("ExtractMetaData", "remoteAppId = org.velna.test.music"),
       LogE("GetMetaDataInfo", "MetaDataMap entry not found for :org.velna.test.music"),
       LogD("ExtractMetaData", "AppSdkVersion 1.1.0")}));
  EXPECT_EQ(log.count("MetaDataMap entry not found for :org.velna.test.music"), 1);
  EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_VIDL);
  EXPECT_EQ(Str(info->metadataValue->versionValue), "1.2.0");
  EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap.org.velna.test.music");
  EXPECT_EQ(Str(info->metadataValue->sdkVersionValue), "1.1.0");
  // The action-id key and the foreign key are unknown here and do not stop the reading.
  EXPECT_EQ(log.count(LogD("_talvo_metadata_cb", "Unknown metadata key.")), 2);
  EXPECT_EQ(registry->GetMetaDataInfo(kMusic), info);

  // Only an SDK version from 1.0-beta on selects rpc-port; no version at all is older.
  const std::pair<const char *, int> mechanisms[] = {{nullptr, IPC_MECHANISM_MESSAGE_PORT},
                                                     {"1.0-alpha", IPC_MECHANISM_MESSAGE_PORT},
                                                     {"1.0-alpha.3", IPC_MECHANISM_MESSAGE_PORT},
                                                     {"1.0-beta", IPC_MECHANISM_VIDL}};
  for (const auto &m : mechanisms) {
    const std::string appId = std::string("org.velna.test.sdk") + (m.first ? m.first : "none");
    Install(appId, m.first);
    EXPECT_EQ(MechanismOf(appId), m.second) << appId;
  }
  EXPECT_TRUE(log.has("AppSdkVersion (null)"));

  // The manifest is read unless the request carries all three values. A message-port
  // record is rebuilt on every request, here from a complete bundle that selects rpc-port;
  // an rpc-port record is kept whatever later requests carry.
  const std::string album = "org.velna.test.album";
  Install(album, "1.0-alpha");
  BundlePtr partial = MakeBundle({{"capsuleId", "cap.bundle"}, {"appVersion", "9.9"}});
  info = registry->ExtractMetaData(album, partial.get());
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap." + album);
  EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_MESSAGE_PORT);

  for (const char *sdkVersion : {"2.0", "1.0-alpha"}) {
    BundlePtr complete = RequestWithMetadata("9.9", std::string("cap.") + sdkVersion, sdkVersion);
    info = registry->ExtractMetaData(album, complete.get());
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(Str(info->metadataValue->capsuleIdValue), "cap.2.0");
    EXPECT_EQ(Str(info->metadataValue->versionValue), "9.9");
    EXPECT_EQ(Str(info->metadataValue->sdkVersionValue), "2.0");
    EXPECT_EQ(info->ipcMechanism, IPC_MECHANISM_VIDL);
  }
}

TEST_F(MetaDataRegistryTest, FailedReadingRemovalAndDeinitializationLeaveNoRecord) {
  EXPECT_EQ(registry->ExtractMetaData("org.velna.test.absent", nullptr), nullptr);
  EXPECT_TRUE(log.has("app_info_create failed ERROR[-2]"));
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.absent"), nullptr);

  // A message-port record is dropped before it is rebuilt, also when the rebuild fails.
  Install(kMusic, nullptr);
  ASSERT_NE(registry->ExtractMetaData(kMusic, nullptr), nullptr);
  env.installRaw(kMusic, "this is not a key file\n");
  EXPECT_EQ(registry->ExtractMetaData(kMusic, nullptr), nullptr);
  EXPECT_EQ(registry->GetMetaDataInfo(kMusic), nullptr);

  BundlePtr data = RequestWithMetadata("1.0", "cap.a");
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.one", data.get()), nullptr);
  ASSERT_NE(registry->ExtractMetaData("org.velna.test.two", data.get()), nullptr);
  log.clear();
  registry->RemoveMetaDataMapEntry("org.velna.test.absent");
  EXPECT_TRUE(log.sequence(
      {LogE("GetMetaDataInfo", "MetaDataMap entry not found for :org.velna.test.absent"),
       LogE("RemoveMetaDataMapEntry", "MetaDataInfo is null")}));
  EXPECT_EQ(log.size(), 2) << log.dump();
  // Size 1 left: the removal of the unknown app took nothing away.
  registry->RemoveMetaDataMapEntry("org.velna.test.one");
  EXPECT_TRUE(log.has(LogD("RemoveMetaDataMapEntry", "Remove metaDataMap size(1)")));
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.one"), nullptr);

  log.clear();
  EXPECT_EQ(registry->deinitialize(), 0);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
  EXPECT_EQ(registry->GetMetaDataInfo("org.velna.test.two"), nullptr);
}

std::string Focused() {
  std::unique_ptr<char, decltype(&free)> id(talvo_proxy_get_focused_app_id(), &free);
  return id ? id.get() : "<null>";
}

class FocusedAppTest : public ::testing::Test {
 protected:
  // Starts the simulator with the given layout and initialises the library; given wait,
  // runs the loop until the library holds its bus connection.
  void Start(int layout, bool wait = true) {
    setenv("VELNA_APP_ID", kSelf, 1);
    sim = std::make_unique<WmSim>(bus, layout);
    ASSERT_EQ(talvo_proxy_initialize(), 0);
    if (wait) {
      ASSERT_TRUE(Connected()) << log.dump();
    }
  }
  bool Connected() {
    return RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000);
  }

  // Launches an app that runs as appId and gives it a window; returns the app's pid.
  int LaunchWindowApp(const std::string &appId, bool focused) {
    env.install({appId, appId, "", TEST_APP, "", {}});
    pid_t pid = -1;
    EXPECT_EQ(velna_launch(appId.c_str(), nullptr, &pid, nullptr), 0);
    sim->addWindow(pid, focused);
    return pid;
  }

  TempEnv env;
  BusFixture bus;
  std::unique_ptr<WmSim> sim;
  LogCapture log;
};

// The layout that answers first (12 members are tried before 13) is the only one asked
// from then on, also after the window manager stopped answering or changed its layout.
class FocusedAppLayout : public FocusedAppTest, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Layouts, FocusedAppLayout, ::testing::Values(12, 13));

TEST_P(FocusedAppLayout, LayoutThatAnswersFirstIsRememberedAndNeverLeft) {
  const int layout = GetParam();
  const std::string twelve = "Trying with 12 parameters", thirteen = "Trying with 13 parameters";
  const std::string own = layout == 12 ? twelve : thirteen;
  Start(layout);
  EXPECT_EQ(Focused(), "<null>");  // no window at all
  EXPECT_TRUE(log.has("FOCUS APPID (null)"));
  EXPECT_FALSE(log.has("g_dbus_connection_call_sync() failed"));
  EXPECT_TRUE(layout == 12 ? !log.has(thirteen)
                           : log.find(twelve) >= 0 && log.find(twelve) < log.find(thirteen))
      << log.dump();

  log.clear();
  sim->focus(getpid());
  EXPECT_EQ(Focused(), kSelf);
  sim->setAnswering(false);
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_TRUE(log.has("g_dbus_connection_call_sync() failed"));
  EXPECT_TRUE(log.has("dbus error message: "));
  EXPECT_TRUE(log.has("FOCUS APPID (null)"));
  sim->setAnswering(true);
  sim->setLayout(25 - layout);
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_EQ(log.count("Trying with"), 3) << log.dump();
  EXPECT_EQ(log.count(own), 3);
}

TEST_F(FocusedAppTest, NoAppIsNamedBeforeTheBusThenTheFirstFocusedWindowWinsElseTheLastOwner) {
  Start(12, false);
  sim->focus(getpid());
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_TRUE(log.has("Dbus Connection pointer is null"));
  ASSERT_TRUE(Connected());
  EXPECT_EQ(Focused(), kSelf);
  EXPECT_TRUE(log.has("dbusOwnId : "));
  EXPECT_TRUE(RunLoopUntil([&] { return !bus.ownerOf("org.velna.talvo.sdk.proxy").empty(); },
                           10000));

  sim->addWindow(getpid(), false);
  LaunchWindowApp("org.velna.test.first", false);
  int second = LaunchWindowApp("org.velna.test.second", true);
  LaunchWindowApp("org.velna.test.third", false);
  int fourth = LaunchWindowApp("org.velna.test.fourth", false);
  EXPECT_EQ(Focused(), "org.velna.test.second");

  sim->addWindow(second, false);
  ASSERT_GT(fourth, 0);
  sim->addWindow(fourth + 100000, false);  // a pid that no app holds changes nothing
  EXPECT_EQ(Focused(), "org.velna.test.fourth");
}

}  // namespace
