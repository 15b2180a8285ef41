// What the library will do with an app, without sending it anything: "explain APP" for
// one app, "list" for every installed one.
#pragma once

#include <json-glib/json-glib.h>

#include <string>
#include <vector>

#include "CliOptions.h"

namespace cli {

struct AppFacts {
  std::string appId;
  std::string version, capsuleId, sdkVersion;  // empty: not declared
  bool hasSdkVersion = false;
  std::vector<std::string> actionIds;
  std::string package, infoPackage;
  bool alias = false;
  bool running = false;
  bool reachable = false;
  std::string reachableHow;
  std::string logPath;  // where the app's output goes when the platform launches it
};

class AppExplainer {
 public:
  // Reads appId's manifest and probes whether it runs and can be reached. kExitOk, or
  // the exit code of a failure that has been reported.
  static int gather(const CliOptions &options, const std::string &appId, AppFacts *facts);
  static bool viaRpcPort(const AppFacts &facts);
  // "message port TALVO_APP_SDK_PORT_516: its SDK version 1.0-alpha contains ...".
  static std::string mechanismWhy(const AppFacts &facts);
  static JsonNode *asJson(const AppFacts &facts);  // a new node
  static void printText(const AppFacts &facts);

 private:
  static bool onMetadata(const char *key, const char *value, void *facts);
  static void probeReachability(AppFacts *facts);
};

// The directory of installed manifests: VELNA_APPS_DIR, else the platform's default.
std::string InstalledAppsDir();

int RunExplain(const CliOptions &options);
int RunList(const CliOptions &options);

}  // namespace cli
