// "talvo-cli check APP": a conformance check of an installed companion app as the library
// will see it. The manifest first (ManifestLint), then, when the library can read it,
// the app itself through the library (LiveCheck); printed as a checklist or as JSON.
#pragma once

#include "CliOptions.h"

namespace cli {

class AppChecker {
 public:
  explicit AppChecker(const CliOptions &options) : options_(options) {}
  // kExitOk when no check failed, else kExitFailed.
  int run();

 private:
  const CliOptions &options_;
};

int RunCheck(const CliOptions &options);

}  // namespace cli
