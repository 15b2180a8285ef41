// A client process using the library through its exported functions, with a private bus,
// the window-manager simulator and the sample apps as real processes.
#pragma once

#include <bundle.h>
#include <gtest/gtest.h>
#include <talvo_proxy.h>

#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "Bundles.h"
#include "LogCapture.h"
#include "TempEnv.h"

namespace e2e {

using testsupport::BundlePtr;
using testsupport::kAliasApp;
using testsupport::kPortApp;
using testsupport::kRpcApp;
using testsupport::MakeBundle;

class E2eFixture : public ::testing::Test {
 public:
  // Every result callback's call, in call order; the label is "action:" or "state:" and
  // the request's user data.
  static std::vector<testsupport::Answer> calls;

 protected:
  void SetUp() override;
  void TearDown() override;

  static void onAction(const char *appId, bundle *result, void *userData);
  static void onState(const char *appId, bundle *result, void *userData);
  bool waitForCalls(size_t n, int timeoutMs);

  std::unique_ptr<testsupport::BusFixture> bus;
  std::unique_ptr<testsupport::WmSim> wm;
  std::unique_ptr<testsupport::TempEnv> env;
  testsupport::LogCapture log;
};

}  // namespace e2e
