// A client process using the library through its exported functions, with a private bus,
// the window-manager simulator and the sample apps as real processes.
#pragma once

#include <bundle.h>
#include <gtest/gtest.h>
#include <talvo_proxy.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "LogCapture.h"
#include "TempEnv.h"

namespace e2e {

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kPortApp[] = "org.velna.sample.portcompanion";
constexpr const char kRpcApp[] = "org.velna.sample.rpccompanion";
constexpr const char kAliasApp[] = "org.velna.sample.aliascompanion";

// One call of a result callback: which request it answered (its user data) and what the
// answer held, string entries by value.
struct Call {
  std::string appId;
  std::string userData;
  std::map<std::string, std::string> strings;
  std::string str(const std::string &key) const {
    auto it = strings.find(key);
    return it == strings.end() ? "<absent>" : it->second;
  }
};

struct BundleFree {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleFree>;
BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries);

class E2eFixture : public ::testing::Test {
 public:
  static std::vector<Call> calls;  // in call order; user data "action:" or "state:" + label

 protected:
  void SetUp() override;
  void TearDown() override;

  void installPortApp();
  void installRpcApp();
  void installAliasApp();
  // Starts an installed app the way the platform launches it and waits until it runs
  // (and, for the message-port app, until its port is there).
  void startApp(const std::string &appId, bool waitForPort = false);

  // Both route into calls, with the user data as the request's label.
  static void onAction(const char *appId, bundle *result, void *userData);
  static void onState(const char *appId, bundle *result, void *userData);
  bool waitForCalls(size_t n, int timeoutMs);

  std::unique_ptr<testsupport::BusFixture> bus;
  std::unique_ptr<testsupport::WmSim> wm;
  std::unique_ptr<testsupport::TempEnv> env;
  testsupport::LogCapture log;
};

}  // namespace e2e
