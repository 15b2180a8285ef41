#include "AppChecker.h"

#include <cstdio>
#include <cstdlib>

#include "CheckReport.h"
#include "LiveCheck.h"
#include "ManifestLint.h"
#include "Output.h"

namespace cli {

int AppChecker::run() {
  const std::string &appId = options_.args[0];
  const char *client = std::getenv("VELNA_APP_ID");
  const std::string clientId = client ? client : "";

  CheckReport report(appId);
  ManifestFacts facts = ManifestLint(appId, clientId, &report).run();
  if (facts.readable)
    LiveCheck(appId, facts, options_.timeoutSeconds ? options_.timeoutSeconds : 10, &report).run();

  if (options_.json != JsonStyle::kNone)
    PrintJson(options_.json, report.json());
  else
    std::fputs(report.text().c_str(), stdout);
  return report.failed() ? kExitFailed : kExitOk;
}

int RunCheck(const CliOptions &options) { return AppChecker(options).run(); }

}  // namespace cli
