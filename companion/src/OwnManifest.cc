#include "OwnManifest.h"

#include <app_info.h>
#include <stdlib.h>

#include <cstring>
#include <memory>

#include "Log.h"

namespace companion {

namespace {

const char kKeyPrefix[] = "http://velna.org/velna/metadata/talvo/";

struct InfoDeleter {
  void operator()(app_info_s *info) const { app_info_destroy(info); }
};

bool OnMetadata(const char *key, const char *value, void *data) {
  auto *manifest = static_cast<OwnManifest *>(data);
  if (std::strncmp(key, kKeyPrefix, sizeof kKeyPrefix - 1) != 0) return true;
  const std::string path = key + sizeof kKeyPrefix - 1;
  if (path == "companion-app/version") manifest->version = value;
  if (path == "companion-app/capsule-id") manifest->capsuleId = value;
  if (path == "sdk/version") {
    manifest->sdkVersion = value;
    manifest->hasSdkVersion = true;
  }
  return true;
}

}  // namespace

int OwnManifest::load() {
  const char *id = getenv("VELNA_APP_ID");
  if (!id || !*id) {
    COMPANION_LOGE("VELNA_APP_ID is not set: an app gets it from the launcher; set it to "
                   "the app id of your manifest to start the app by hand");
    return -22;
  }
  appId = id;

  app_info_h raw = nullptr;
  int r = app_info_create(id, &raw);
  if (r == -2) {
    COMPANION_LOGE("App %s is not installed: no %s.app in VELNA_APPS_DIR", id, id);
    return r;
  }
  if (r != 0) {
    COMPANION_LOGE("The manifest of %s cannot be read (%d): run talvo-cli check %s", id, r,
                   id);
    return r == -22 ? -22 : -5;
  }
  std::unique_ptr<app_info_s, InfoDeleter> info(raw);
  app_info_foreach_metadata(info.get(), OnMetadata, this);

  // The library's rule: no SDK version, or one containing "1.0-alpha", means the port.
  viaRpcPort = hasSdkVersion && sdkVersion.find("1.0-alpha") == std::string::npos;
  if (version.empty() || capsuleId.empty())
    COMPANION_LOGW("The manifest of %s declares no companion-app/%s: every context answer "
                   "will reach the client as \"Json failure because of missing parameter\"",
                   id, version.empty() ? "version" : "capsule-id");
  return 0;
}

}  // namespace companion
