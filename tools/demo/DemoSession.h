// The demo's client session: goes through the six exported functions against the sample
// apps, one readable line per step, and counts the steps that gave the expected answer.
#pragma once

#include <bundle.h>

#include <functional>
#include <string>
#include <vector>

namespace demo {

class DemoSession {
 public:
  // The sample apps' ids, as their manifests in VELNA_APPS_DIR name them.
  struct Apps {
    std::string port = "org.velna.sample.portcompanion";
    std::string rpc = "org.velna.sample.rpccompanion";
    std::string alias = "org.velna.sample.aliascompanion";
    std::string neverReady = "org.velna.sample.neverready";
    std::string noExec = "org.velna.sample.noexec";
  };

  explicit DemoSession(Apps apps) : apps_(std::move(apps)) {}

  // Runs every step; returns the number of steps that failed.
  int run();
  // Ends every sample app that the session may have started.
  void terminateApps();
  // Makes a running step give up at once (SIGINT).
  void interrupt() { interrupted_ = true; }
  bool interrupted() const { return interrupted_; }

 private:
  struct Answer {
    bool arrived = false;
    std::string appId;
    std::string statusCode, result, appContext;
  };
  using Check = std::function<std::string(const Answer &)>;  // "" when as expected

  // Prints why a step that ends with no answer ends so.
  void explain(const std::string &why);
  void report(bool ok, const std::string &what, const std::string &detail, double seconds);
  bool request(const std::string &what, const std::string &appId, bool isState,
               std::vector<std::pair<std::string, std::string>> fields, int waitMs,
               bool expectAnswer, const Check &check);
  bool waitFor(Answer &answer, int waitMs);
  static void onAnswer(const char *appId, bundle *result, void *answer);

  void stepRegistration();
  void stepFocus();
  void stepAlias();

  Apps apps_;
  int failed_ = 0;
  int passed_ = 0;
  volatile bool interrupted_ = false;
};

}  // namespace demo
