// A client process of its own for TalvoProxyIpc tests: a temporary apps and runtime
// directory, the client's app id, the real main loop, and every answer that reaches the
// registered handler, copied.
#pragma once

#include <bundle.h>
#include <dlog.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bundles.h"
#include "LogCapture.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "ipc/TalvoProxyIpc.h"

namespace ipctest {

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kFailure[] = "{\"result\":\"Failure\"}";
using testsupport::Answer;
using testsupport::BundlePtr;
using testsupport::kPortApp;
using testsupport::kRpcApp;
using testsupport::MakeBundle;

class IpcFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void installPortApp(const std::string &exec = "") { env->installSample(kPortApp, exec); }
  void installRpcApp(const std::string &exec = "") { env->installSample(kRpcApp, exec); }

  // What the proxy core does for an action or state request: read the app's metadata,
  // then hand the request to sendData.
  int send(const std::string &appId, bundle *request, bool isStateRequest = false);

  bool waitForAnswers(size_t n, int timeoutMs);

  std::unique_ptr<testsupport::TempEnv> env;
  testsupport::LogCapture log;
  TalvoProxyIpc *ipc = nullptr;
  std::vector<Answer> answers;

 private:
  static void onAnswer(std::string appId, bundle *result, void *self);
};

// Runs probe() from inside the logging call of the first line that contains needle, that
// is, inside the event that logs it. Replaces the LogCapture handler while it lives.
class LineProbe {
 public:
  LineProbe(std::string needle, std::function<void()> probe);
  ~LineProbe();
  bool fired() const { return fired_; }

 private:
  static void onLine(log_priority, const char *tag, const char *message, void *self);
  std::string needle_;
  std::function<void()> probe_;
  bool fired_ = false;
};

}  // namespace ipctest
