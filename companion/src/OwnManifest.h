// What the app's own manifest tells the SDK: the mechanism the assistant's library will
// use to reach it, and whether context answers can be wrapped for the client at all.
#pragma once

#include <string>

namespace companion {

struct OwnManifest {
  std::string appId;
  std::string version, capsuleId, sdkVersion;  // empty: not declared
  bool hasSdkVersion = false;
  bool viaRpcPort = false;  // an SDK version that does not contain "1.0-alpha"

  // Reads VELNA_APP_ID and that app's manifest. 0; -22 without a valid app id; -2 when
  // the app is not installed; -5 when its manifest cannot be read. Logs every failure.
  int load();
};

}  // namespace companion
