// A client process of its own for TalvoProxyIpc tests: a temporary apps and runtime
// directory, the client's app id, the real main loop, and every answer that reaches the
// registered handler, copied.
#pragma once

#include <bundle.h>
#include <dlog.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TempEnv.h"
#include "common/TalvoProxyCommonData.h"
#include "ipc/TalvoProxyIpc.h"

namespace ipctest {

constexpr const char kClientId[] = "org.velna.test.client";
constexpr const char kPortApp[] = "org.velna.sample.portcompanion";
constexpr const char kRpcApp[] = "org.velna.sample.rpccompanion";
constexpr const char kSdkKey[] = "http://velna.org/velna/metadata/talvo/sdk/version";
constexpr const char kFailure[] = "{\"result\":\"Failure\"}";

// An answer as the handler saw it: string entries by value, byte entries by size.
struct Answer {
  std::string appId;
  std::map<std::string, std::string> strings;
  std::map<std::string, size_t> bytes;

  bool has(const std::string &key) const { return strings.count(key) || bytes.count(key); }
  std::string str(const std::string &key) const {
    auto it = strings.find(key);
    return it == strings.end() ? "<absent>" : it->second;
  }
};

Answer CopyAnswer(const std::string &appId, bundle *b);

struct BundleFree {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleFree>;

// A bundle of string entries.
BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries);

class IpcFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Installs the sample app: the message-port one (SDK "1.0-alpha") or the rpc-port one.
  void installPortApp(const std::string &exec = PORT_COMPANION_EXEC);
  void installRpcApp(const std::string &exec = RPC_COMPANION_EXEC);

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
