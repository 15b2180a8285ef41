// The library's exported functions while apps die, stall, flood or lie and the bus goes
// away; bus, window-manager simulator and apps are real processes.
#include <app_info.h>
#include <app_manager.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "LoopUntil.h"
#include "TempEnv.h"
#include "ipc/TalvoProxyIpc.h"

namespace {

using namespace testsupport;

constexpr char kClient[] = "org.velna.test.faultclient";
constexpr char kMetaKey[] = "http://velna.org/velna/metadata/talvo/";

// Every result callback's call, in call order, labelled with its request's label.
struct Calls {
  std::vector<Answer> all;
  long of(const std::string &label) const {
    return std::count_if(all.begin(), all.end(), [&](const Answer &a) { return a.label == label; });
  }
};

struct Request {
  Calls *calls;
  std::string label;
};

void OnResult(const char *appId, bundle *result, void *data) {
  auto *request = static_cast<Request *>(data);
  request->calls->all.push_back(CopyAnswer(appId, result, request->label));
}

class AppFaults : public ::testing::Test {
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

  // The test app in mode over either mechanism; without a mode, the rpc-port sample companion.
  void install(const std::string &appId, const std::string &mode = "", bool rpc = true) {
    const std::string key = kMetaKey;
    const std::string exec = mode.empty() ? RPC_COMPANION_EXEC : std::string(TEST_APP) + " " + mode;
    env.install({appId, appId, "", exec, "",
                 {{key + "companion-app/version", "1.0.0"}, {key + "companion-app/capsule-id", "fault.capsule"},
                  {key + "sdk/version", rpc ? "1.1.0" : "1.0-alpha"}}});
    used.push_back(appId);
  }

  // An action whose callback records under label; the fixture owns the request.
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

  // Ends the test's apps; no descriptor and no registry record may stay behind.
  void finish() {
    for (const std::string &appId : used) app_manager_terminate_app(appId.c_str());
    TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
    auto settled = [&] {
      return OpenFds() <= fdsBefore && ipc->clientsMap.empty() && ipc->appLaunchInfoMap.empty() &&
             ipc->appFocusedInfoMap.empty();
    };
    // Fewer descriptors when the test closed something (the bus).
    EXPECT_TRUE(RunLoopUntil(settled, 5000))
        << OpenFds() << " descriptors, " << fdsBefore << " before; records: " << ipc->clientsMap.size()
        << " clients, " << ipc->appLaunchInfoMap.size() << " launch waits, "
        << ipc->appFocusedInfoMap.size() << " focus waits";
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

const std::string kPort = "org.velna.test.fault.port";
const std::string kRpc = "org.velna.test.fault.rpc";

int64_t NowMs() { return g_get_monotonic_time() / 1000; }

// The longest stretch in which the loop dispatched nothing, sampled every 50 ms.
struct LoopGaps {
  LoopGaps() { id = g_timeout_add(50, Tick, this); }
  ~LoopGaps() { g_source_remove(id); }
  static gboolean Tick(gpointer self) {
    auto *gaps = static_cast<LoopGaps *>(self);
    int64_t now = NowMs();
    if (now - gaps->last > gaps->longest) gaps->longest = now - gaps->last;
    gaps->last = now;
    return G_SOURCE_CONTINUE;
  }
  int64_t last = NowMs(), longest = 0;
  guint id = 0;
};

// The shared result buffer keeps what an interrupted chunked answer brought, so the next
// chunked answer of the same kind starts with those bytes; the one after it is whole.
TEST_F(AppFaults, PortAppKilledDuringItsAnswerLeavesOnlyItsBytesInTheSharedBuffer) {
  install(kPort, "port-app", false);
  ASSERT_EQ(0, act(kPort, "halfway", {{"actionId", "a2"}, {"fault", "chunks-then-kill"}}));
  ASSERT_TRUE(RunLoopUntil([&] { return log->count("Request Execution Result Recieved from") >= 2; }, 10000))
      << log->dump();
  ASSERT_TRUE(RunLoopUntil([&] { return !IsRunning(kPort); }, 5000));

  ASSERT_EQ(0, act(kPort, "next", {{"actionId", "a3"}, {"chunk", "4"}}));
  ASSERT_TRUE(waitCalls(1, 10000)) << log->dump();
  ASSERT_EQ(0, act(kPort, "after", {{"actionId", "a4"}, {"chunk", "4"}}));
  ASSERT_TRUE(settle(2)) << log->dump();
  EXPECT_EQ("next", calls.all[0].label);
  EXPECT_EQ("first-second-answer:a3", calls.all[0].str("result"));
  EXPECT_EQ("after", calls.all[1].label);
  EXPECT_EQ("answer:a4", calls.all[1].str("result"));
  finish();
}

// The read deadline runs from the start of each wait, so a chattering app cannot stretch
// it. Apps that stay get the launch wait's failure after its 10 s; a lost connection drops
// its waiting request without an answer.
TEST_F(AppFaults, SetCbWithoutItsResultHoldsTheLoopNoLongerThanTheReadDeadline) {
  setenv("VELNA_RPC_TIMEOUT_MS", "1500", 1);
  const std::string silent = "org.velna.test.fault.silent", stray = "org.velna.test.fault.stray",
                    exits = "org.velna.test.fault.exits";
  install(silent, "setcb-silent", true);
  install(stray, "setcb-stray", true);
  install(exits, "exit-on-register", true);
  install(kRpc);

  LoopGaps gaps;
  for (const std::string &app : {silent, stray, exits}) ASSERT_EQ(0, act(app, app, {{"actionId", "a"}}));
  TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
  ASSERT_TRUE(RunLoopUntil([&] { return calls.all.size() >= 2 && ipc->appLaunchInfoMap.empty(); }, 25000))
      << log->dump();
  // Two waits may follow each other in one turn of the loop; strays alone last 10 s.
  EXPECT_LT(gaps.longest, 6000) << "the loop was held for " << gaps.longest << " ms";
  for (const std::string &app : {silent, stray, exits})
    EXPECT_TRUE(log->has("Failed to InvalidProtocolException (" + app + ")")) << app;
  EXPECT_EQ(1, calls.of(silent));
  EXPECT_EQ(1, calls.of(stray));
  EXPECT_EQ(0, calls.of(exits));
  for (const Answer &answer : calls.all) EXPECT_EQ("{\"result\":\"Failure\"}", answer.str("result"));

  ASSERT_EQ(0, act(kRpc, "next", {{"actionId", "ok"}}));
  ASSERT_TRUE(settle(3)) << log->dump();
  EXPECT_EQ("{\"actionId\":\"ok\",\"done\":true}", calls.all.back().str("result"));
  unsetenv("VELNA_RPC_TIMEOUT_MS");
  finish();
}

TEST_F(AppFaults, AnAppThatAnswersAndExitsAtOnceIsHeardTwentyTimesOutOfTwenty) {
  install(kPort, "port-app", false);
  for (int i = 0; i < 20; ++i) {
    std::string action = "n" + std::to_string(i);
    ASSERT_EQ(0, act(kPort, action, {{"actionId", action}, {"fault", "answer-and-exit"}}));
    ASSERT_TRUE(waitCalls(size_t(i) + 1, 10000)) << "answer " << i << "\n" << log->dump();
    ASSERT_TRUE(RunLoopUntil([&] { return !IsRunning(kPort); }, 5000));
  }
  ASSERT_TRUE(settle(20));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(kPort, calls.all[i].appId);
    EXPECT_EQ("answer:n" + std::to_string(i), calls.all[i].str("result"));
  }
  EXPECT_FALSE(log->has("Message without a sender app id"));
  finish();
}

TEST_F(AppFaults, FloodOfAHundredThousandAnswersReachesTheCallbackOnceAndThenTheNextRequest) {
  install(kPort, "port-app", false);
  // Every line is seen by the capture; only the count of handed-on answers is kept.
  int handedOn = 0;
  log->probe = [&](const std::string &message) {
    if (message.find("[Received Data with len:") != std::string::npos) ++handedOn;
    if (log->lines().size() > 1000) log->clear();
  };
  ASSERT_EQ(0, act(kPort, "flood", {{"actionId", "f"}, {"fault", "flood"}, {"count", "100000"}}));
  ASSERT_TRUE(RunLoopUntil([&] { return handedOn >= 100000; }, 120000)) << handedOn << " answers";
  ASSERT_EQ(0, act(kPort, "next", {{"actionId", "after"}}));
  ASSERT_TRUE(settle(2)) << log->dump();
  EXPECT_EQ("flood", calls.all[0].label);
  EXPECT_EQ("flood-0", calls.all[0].str("result"));
  EXPECT_EQ("answer:after", calls.all[1].str("result"));
  log->probe = nullptr;
  finish();
}

TEST_F(AppFaults, FiftyRunningAppsOfBothMechanismsAnswerRequestsInFlightAtOnce) {
  std::vector<std::string> apps;
  for (int i = 0; i < 25; ++i) {
    apps.push_back(kPort + std::to_string(i));
    install(apps.back(), "port-app", false);
    ASSERT_TRUE(env.launch(apps.back(), "TALVO_APP_SDK_PORT_516")) << apps.back();
  }
  // Connected first, one by one: cold launches of both mechanisms share one field.
  for (int i = 0; i < 25; ++i) {
    apps.push_back(kRpc + std::to_string(i));
    install(apps.back());
    ASSERT_EQ(0, act(apps.back(), "warm-up", {{"actionId", "warmUp"}}));
    ASSERT_TRUE(waitCalls(size_t(i) + 1, 10000)) << apps.back() << "\n" << log->dump();
  }
  calls.all.clear();

  for (const std::string &app : apps) ASSERT_EQ(0, act(app, app, {{"actionId", "go"}}));
  ASSERT_TRUE(settle(apps.size(), 30000)) << calls.all.size() << " answers";
  for (const std::string &app : apps) ASSERT_EQ(1, calls.of(app)) << app;
  for (const Answer &a : calls.all) EXPECT_EQ(a.label, a.appId);
  finish();
}

// A bus that went away: the focus query fails at once, and requests to apps still work.
TEST_F(AppFaults, FocusQueryAnswersNullAtOnceWithoutABus) {
  install(kPort, "port-app", false);
  bus.kill();
  RunLoopFor(500);  // the connection learns that the bus is gone
  const int64_t start = NowMs();
  EXPECT_EQ(nullptr, talvo_proxy_get_focused_app_id());
  EXPECT_LT(NowMs() - start, 5000);
  EXPECT_TRUE(log->has("g_dbus_connection_call_sync() failed")) << log->dump();
  EXPECT_EQ(nullptr, talvo_proxy_get_focused_app_id());

  ASSERT_EQ(0, act(kPort, "next", {{"actionId", "a"}}));
  ASSERT_TRUE(settle(1)) << log->dump();
  EXPECT_EQ("answer:a", calls.all.back().str("result"));
  finish();
}

TEST_F(AppFaults, SenderIdWrittenIntoAMessageIsNeverBelieved) {
  const std::string victim = "org.velna.test.fault.victim";
  install(kPort, "port-app", false);
  install(victim, "port-app", false);
  ASSERT_EQ(0, act(victim, "victim", {{"actionId", "v"}, {"fault", "silent"}}));
  ASSERT_TRUE(RunLoopUntil([&] { return IsRunning(victim) && log->has("Sent app launch request"); }, 5000));
  ASSERT_TRUE(RunLoopUntil([&] { return TalvoProxyIpc::getInstance()->appLaunchInfoMap.empty(); }, 10000));
  ASSERT_EQ(0, act(kPort, "liar", {{"actionId", "l"}, {"fault", "impersonate"}, {"victim", victim}}));
  ASSERT_TRUE(settle(1, 10000, 500)) << log->dump();
  EXPECT_EQ("liar", calls.all[0].label);
  EXPECT_EQ(kPort, calls.all[0].appId);
  EXPECT_EQ("impersonated", calls.all[0].str("result"));
  EXPECT_EQ(0, calls.of("victim"));
  finish();
}

}  // namespace
