// Runs the requests of talvo-cli through the library's exported functions, on the
// platform's main loop, and waits for their answers.
#pragma once

#include <bundle.h>

#include <string>

#include "CliOptions.h"

namespace cli {

class RequestRunner {
 public:
  explicit RequestRunner(const CliOptions &options) : options_(options) {}

  int runAction();
  int runState();
  int runFocused();
  int runRegistered();

 private:
  static void onAnswer(const char *appId, bundle *result, void *self);
  int runRequest(bool isState);
  int waitForAnswer(int defaultTimeoutSeconds);

  const CliOptions &options_;
  bool answered_ = false;
  bool failureAnswer_ = false;
  std::string printed_;  // the answer as printed, made inside the callback
};

// Checks that appId is installed; prints one line and returns an exit code otherwise.
int CheckInstalled(const std::string &appId);

}  // namespace cli
