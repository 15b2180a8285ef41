// The focused-application query through the exported function, against the
// window-manager simulator on a private bus. The remembered reply layout lives as long
// as the process, so each test runs in a process of its own.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "BusFixture.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "talvo_proxy.h"

extern "C" {
#include "launcher_internal.h"
}

namespace {

constexpr const char kSelf[] = "org.velna.test.client";

struct FreeText {
  void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

std::string Focused() {
  Text id(talvo_proxy_get_focused_app_id());
  return id ? id.get() : "<null>";
}

class FocusedAppTest : public ::testing::Test {
 protected:
  // Starts the simulator with the given layout, initialises the library and runs the
  // loop until the library holds its bus connection.
  void Start(int layout) {
    setenv("VELNA_APP_ID", kSelf, 1);
    sim = std::make_unique<testsupport::WmSim>(bus, layout);
    ASSERT_EQ(talvo_proxy_initialize(), 0);
    ASSERT_TRUE(testsupport::RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000))
        << log.dump();
  }

  // Launches an app that runs as appId and gives it a window; returns the app's pid.
  int LaunchWindowApp(const std::string &appId, bool focused) {
    env.install({appId, appId, "", TEST_APP, "", {}});
    pid_t pid = -1;
    EXPECT_EQ(velna_launch(appId.c_str(), nullptr, &pid, nullptr), 0);
    sim->addWindow(pid, focused);
    return pid;
  }

  testsupport::TempEnv env;
  testsupport::BusFixture bus;
  std::unique_ptr<testsupport::WmSim> sim;
  testsupport::LogCapture log;
};

TEST_F(FocusedAppTest, TwelveMemberLayoutIsRememberedAndNeverLeft) {
  Start(12);
  EXPECT_EQ(Focused(), "<null>");  // no window at all
  EXPECT_TRUE(log.has("FOCUS APPID (null)"));
  EXPECT_FALSE(log.has("g_dbus_connection_call_sync() failed"));

  log.clear();
  sim->focus(getpid());

  EXPECT_EQ(Focused(), kSelf);
  EXPECT_TRUE(log.has("Trying with 12 parameters"));
  EXPECT_FALSE(log.has("Trying with 13 parameters"));

  sim->setAnswering(false);
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_TRUE(log.has("g_dbus_connection_call_sync() failed"));
  EXPECT_TRUE(log.has("dbus error message: "));
  EXPECT_TRUE(log.has("FOCUS APPID (null)"));

  sim->setAnswering(true);
  sim->setLayout(13);
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_FALSE(log.has("Trying with 13 parameters")) << log.dump();
}

TEST_F(FocusedAppTest, ThirteenMemberLayoutIsFoundOnceAndThenAskedDirectly) {
  Start(13);
  sim->focus(getpid());

  EXPECT_EQ(Focused(), kSelf);
  EXPECT_LT(log.find("Trying with 12 parameters"), log.find("Trying with 13 parameters"));
  EXPECT_GE(log.find("Trying with 12 parameters"), 0);

  log.clear();
  EXPECT_EQ(Focused(), kSelf);
  EXPECT_FALSE(log.has("Trying with 12 parameters"));
  EXPECT_TRUE(log.has("Trying with 13 parameters"));
  EXPECT_TRUE(log.has(std::string("FOCUS APPID ") + kSelf));

  // After deinitialisation the window manager is not asked.
  ASSERT_EQ(talvo_proxy_deinitialize(), 0);
  log.clear();
  EXPECT_EQ(Focused(), "<null>");
  EXPECT_TRUE(log.has("Talvo Proxy is not initialized"));
  EXPECT_FALSE(log.has("In _getFocusedAppId call"));
}

TEST_F(FocusedAppTest, FirstFocusedWindowWinsAndLaterWindowsAreNotConsulted) {
  Start(13);
  LaunchWindowApp("org.velna.test.first", false);
  LaunchWindowApp("org.velna.test.second", true);
  LaunchWindowApp("org.velna.test.third", false);

  EXPECT_EQ(Focused(), "org.velna.test.second");
}

TEST_F(FocusedAppTest, WithoutAFocusedWindowTheLastKnownOwnerIsNamed) {
  Start(12);
  sim->addWindow(getpid(), false);
  int pid = LaunchWindowApp("org.velna.test.window", false);
  ASSERT_GT(pid, 0);
  sim->addWindow(pid + 100000, false);  // a pid that no app holds changes nothing

  EXPECT_EQ(Focused(), "org.velna.test.window");
}

TEST_F(FocusedAppTest, QueryBeforeTheBusIsAcquiredNamesNoAppThenTheLibraryOwnsItsName) {
  setenv("VELNA_APP_ID", kSelf, 1);
  sim = std::make_unique<testsupport::WmSim>(bus, 12);
  sim->focus(getpid());
  ASSERT_EQ(talvo_proxy_initialize(), 0);

  EXPECT_EQ(Focused(), "<null>");
  EXPECT_TRUE(log.has("Dbus Connection pointer is null"));

  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return log.has("GDBUS connection is"); }, 10000));
  EXPECT_EQ(Focused(), kSelf);
  EXPECT_TRUE(log.has("dbusOwnId : "));
  EXPECT_TRUE(testsupport::RunLoopUntil(
      [&] { return !bus.ownerOf("org.velna.talvo.sdk.proxy").empty(); }, 10000));
}

}  // namespace
