// Manifest parsing: the input is written as an installed app's manifest and read through
// every interface that reads manifests. The interfaces must agree with each other on
// whether the app is installed, a parsed manifest always names a package, and the
// metadata walk stops when its callback asks it to.
#include <app_info.h>
#include <package_manager.h>

#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <string>

#include "fuzz_env.h"

extern "C" {
#include "app_registry_internal.h"
}

namespace {

constexpr const char kAppId[] = "org.fuzz.app";

struct Walk {
  size_t calls = 0;
  bool stop = false;
};

bool OnMetadata(const char *key, const char *value, void *user_data) {
  auto *walk = static_cast<Walk *>(user_data);
  if (!key || !*key || !value) abort();
  walk->calls++;
  return !walk->stop;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const talvo_fuzz::FuzzEnv &env = talvo_fuzz::SetUpFuzzEnv();
  talvo_fuzz::WriteManifest(env, kAppId, data, size);

  app_info_h info = nullptr;
  int r = app_info_create(kAppId, &info);
  char *package_id = nullptr;
  int rp = package_manager_get_package_id_by_app_id(kAppId, &package_id);
  const velna_manifest *m = nullptr;
  int rm = velna_manifest_load(kAppId, &m);
  if ((r == 0) != (rp == 0) || (r == 0) != (rm == 0)) abort();
  if (r != 0) {
    if (rm != -5) abort();  // the file is there: only malformed
    return 0;
  }

  if (!package_id || !*package_id || strcmp(package_id, m->package) != 0) abort();
  free(package_id);

  char *package = nullptr;
  if (app_info_get_package(info, &package) != 0 || !package || !*package) abort();
  free(package);
  char *id = nullptr;
  if (app_info_get_app_id(info, &id) != 0 || strcmp(id, kAppId) != 0) abort();
  free(id);
  char *exec = nullptr;
  r = app_info_get_exec(info, &exec);
  if ((r == 0) != (m->exec != nullptr) || (exec && !*exec)) abort();
  free(exec);

  Walk all;
  if (app_info_foreach_metadata(info, OnMetadata, &all) != 0 || all.calls != m->metadata_count)
    abort();
  Walk first;
  first.stop = true;
  app_info_foreach_metadata(info, OnMetadata, &first);
  if (first.calls != (m->metadata_count > 0 ? 1u : 0u)) abort();

  // Without AllowedClients everyone is allowed; with it, only the clients it lists.
  bool open = m->allowed_clients == nullptr;
  if (velna_manifest_allows_client(m, nullptr) != open) abort();
  for (char **c = m->allowed_clients; c && *c; ++c)
    if (!**c || !velna_manifest_allows_client(m, *c)) abort();

  velna_manifest_unref(m);
  app_info_destroy(info);
  return 0;
}
