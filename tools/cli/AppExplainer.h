// "talvo-cli explain APP": what the library will do with an app, without sending it
// anything.
#pragma once

#include <string>
#include <vector>

#include "CliOptions.h"

namespace cli {

class AppExplainer {
 public:
  explicit AppExplainer(const CliOptions &options) : options_(options) {}
  int run();

 private:
  struct Facts {
    std::string appId;
    std::string version, capsuleId, sdkVersion;  // empty: not declared
    bool hasSdkVersion = false;
    std::vector<std::string> actionIds;
    std::string package, infoPackage;
    bool alias = false;
    bool running = false;
    bool reachable = false;
    std::string reachableHow;
  };

  static bool onMetadata(const char *key, const char *value, void *facts);
  int readManifest(Facts *facts);
  void probeReachability(Facts *facts);
  bool viaRpcPort(const Facts &facts) const;
  void printText(const Facts &facts) const;
  void printJson(const Facts &facts) const;

  const CliOptions &options_;
};

}  // namespace cli
