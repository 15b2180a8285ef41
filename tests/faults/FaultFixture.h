// A client process that uses the library through its exported functions while apps die,
// stall, flood or lie; a private bus, the window-manager simulator and the apps are real
// processes. Every test ends with finish(), which ends the apps it used and checks what
// the faults must not leave behind: descriptors, and records in the library's registries.
#pragma once

#include <app_info.h>
#include <app_manager.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "ipc/TalvoProxyIpc.h"

namespace faults {

using namespace testsupport;

constexpr char kClient[] = "org.velna.test.faultclient";
constexpr char kMetaKey[] = "http://velna.org/velna/metadata/talvo/";

inline int OpenFds() {
  return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

inline bool Running(const std::string &appId) {
  bool running = false;
  return app_manager_is_running(appId.c_str(), &running) == 0 && running;
}

// Every result callback's call, in call order, labelled with its request's label.
struct Calls {
  std::vector<Answer> all;
  int of(const std::string &label) const {
    int n = 0;
    for (const Answer &a : all) n += a.label == label;
    return n;
  }
};

struct Request {
  Calls *calls;
  std::string label;
};

inline void OnResult(const char *appId, bundle *result, void *data) {
  auto *request = static_cast<Request *>(data);
  request->calls->all.push_back(CopyAnswer(appId, result, request->label));
}

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELNA_APP_ID", kClient, 1);
    wm = std::make_unique<WmSim>(bus);
    ASSERT_EQ(0, velna_main_loop_init());
    ASSERT_EQ(0, talvo_proxy_initialize());
    ASSERT_TRUE(RunLoopUntil([&] { return !bus.ownerOf("org.velna.talvo.sdk.proxy").empty(); }, 5000));
    // The platform's watch on the apps directory lives as long as the process: it is
    // made by a first lookup before the count, so that only what the faults leave counts.
    app_info_h info = nullptr;
    if (app_info_create(kClient, &info) == 0) app_info_destroy(info);
    fdsBefore = OpenFds();
  }
  void TearDown() override { talvo_proxy_deinitialize(); }

  // An app served by the shared test app in mode, over the message port (sdk "1.0-alpha")
  // or rpc-port; or by the rpc-port sample companion.
  void installTestApp(const std::string &appId, const std::string &mode, bool rpc) {
    install(appId, std::string(TEST_APP) + " " + mode, "1.0.0", rpc ? "1.1.0" : "1.0-alpha");
  }
  void installRpcSample(const std::string &appId) { install(appId, RPC_COMPANION_EXEC, "1.1.0", "1.1.0"); }
  void install(const std::string &appId, const std::string &exec, const char *version, const char *sdk) {
    const std::string key = kMetaKey;
    env.install({appId, appId, "", exec, "",
                 {{key + "companion-app/version", version}, {key + "companion-app/capsule-id", "fault.capsule"},
                  {key + "sdk/version", sdk}}});
    used.push_back(appId);
  }

  // An action request whose callback records under label; the request stays alive for
  // the test.
  int act(const std::string &appId, const std::string &label,
          const std::vector<std::pair<std::string, std::string>> &entries) {
    requests.push_back(std::make_unique<Request>(Request{&calls, label}));
    BundlePtr b = MakeBundle(entries);
    return talvo_proxy_app_action_execution(appId.c_str(), b.get(), OnResult, requests.back().get());
  }
  bool waitCalls(size_t n, int timeoutMs) {
    return RunLoopUntil([&] { return calls.all.size() >= n; }, timeoutMs);
  }
  // Waits for n calls, runs the loop on a while for any stray one: exactly n came.
  bool settle(size_t n, int timeoutMs = 10000, int quietMs = 300) {
    const bool arrived = waitCalls(n, timeoutMs);
    RunLoopFor(quietMs);
    return arrived && calls.all.size() == n;
  }

  // The port app still serves after the fault: a new action gets one answer, "answer:a".
  void expectServed(const std::string &appId) {
    ASSERT_EQ(0, act(appId, "next", {{"actionId", "a"}}));
    ASSERT_TRUE(settle(calls.all.size() + 1)) << log->dump();
    EXPECT_EQ("answer:a", calls.all.back().str("result"));
  }

  // Ends the apps the test used, then checks that descriptors came back and that no
  // registry keeps a record.
  void finish() {
    for (const std::string &appId : used) app_manager_terminate_app(appId.c_str());
    TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
    auto settled = [&] {
      return OpenFds() <= fdsBefore && ipc->clientsMap.empty() && ipc->appLaunchInfoMap.empty() &&
             ipc->appFocusedInfoMap.empty();
    };
    RunLoopUntil(settled, 5000);
    EXPECT_LE(OpenFds(), fdsBefore);  // fewer when the test closed something (the bus)
    EXPECT_TRUE(ipc->clientsMap.empty());
    EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
    EXPECT_TRUE(ipc->appFocusedInfoMap.empty());
  }

  BusFixture bus;
  std::unique_ptr<WmSim> wm;
  TempEnv env;
  std::unique_ptr<LogCapture> log = std::make_unique<LogCapture>();
  Calls calls;
  std::vector<std::unique_ptr<Request>> requests;
  std::vector<std::string> used;
  int fdsBefore = 0;
};

}  // namespace faults
