// The static half of "talvo-cli check": reads an app's manifest file line by line and as
// the platform does, and reports every mistake that the library would pass over in
// silence (a misspelled key, blanks in the action list, a missing version).
#pragma once

#include <string>
#include <vector>

#include "CheckReport.h"

namespace cli {

// What the live checks need to know of the manifest.
struct ManifestFacts {
  bool readable = false;  // parsed, with a Package: the library can use it
  std::string path, package, infoPackage, exec;
  std::vector<std::string> allowedClients;  // empty: everyone
  std::string version, capsuleId, sdkVersion;
  bool hasSdkVersion = false;
  std::vector<std::string> actionIds;  // the elements as the library matches them
  bool alias = false;
  bool viaRpcPort = false;  // for context requests; actions to an alias app always are
};

class ManifestLint {
 public:
  ManifestLint(const std::string &appId, const std::string &clientId, CheckReport *report)
      : appId_(appId), clientId_(clientId), report_(report) {}
  // Checks the manifest into the report and returns what it found.
  ManifestFacts run();

 private:
  bool checkSyntax(const std::string &text);
  void checkApplication(void *keyFile);
  void checkMetadata(void *keyFile);
  void checkActionIds(const std::string &list);
  void checkMechanism();

  const std::string &appId_;
  const std::string &clientId_;
  CheckReport *report_;  // borrowed
  ManifestFacts facts_;
};

// Edit distance of two texts (insertions, deletions, substitutions).
size_t EditDistance(const std::string &a, const std::string &b);

}  // namespace cli
