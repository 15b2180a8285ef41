// Manifest parsing: the input is installed as an app's manifest and read through every
// interface that reads manifests. They must agree on whether the app is installed and on
// what its manifest says; a parsed manifest always names a package, and the metadata walk
// stops when its callback asks it to.
#include <app_info.h>
#include <package_manager.h>

#include "fuzz_env.h"

extern "C" {
#include "app_registry_internal.h"
}

struct Walk {
  size_t calls, limit;  // the callback asks to stop once it has run limit times
};

static bool OnMetadata(const char *key, const char *value, void *user_data) {
  auto *walk = static_cast<Walk *>(user_data);
  if (!key || !*key || !value) abort();
  return ++walk->calls < walk->limit;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const char kAppId[] = "org.fuzz.app";
  talvo_fuzz::WriteManifest(kAppId, std::string(reinterpret_cast<const char *>(data), size));

  app_info_h info = nullptr;
  char *text = nullptr;
  int r = app_info_create(kAppId, &info);
  int rp = package_manager_get_package_id_by_app_id(kAppId, &text);
  const velna_manifest *m = nullptr;
  int rm = velna_manifest_load(kAppId, &m);
  if ((r == 0) != (rp == 0) || (r == 0) != (rm == 0)) abort();
  if (r != 0) {
    if (rm != -EIO) abort();  // the file is there: it can only be malformed
    return 0;
  }

  if (!*text || strcmp(text, m->package) != 0) abort();
  free(text);
  if (app_info_get_package(info, &text) != 0 || !*text || strcmp(text, m->info_package) != 0)
    abort();
  free(text);
  if (app_info_get_app_id(info, &text) != 0 || strcmp(text, kAppId) != 0) abort();
  free(text);
  text = nullptr;
  r = app_info_get_exec(info, &text);
  if ((r == 0) != (m->exec != nullptr) || (text && (!*text || strcmp(text, m->exec) != 0)))
    abort();
  free(text);

  Walk all{0, SIZE_MAX}, first{0, 1};
  if (app_info_foreach_metadata(info, OnMetadata, &all) != 0 || all.calls != m->metadata_count)
    abort();
  app_info_foreach_metadata(info, OnMetadata, &first);
  if (first.calls != std::min<size_t>(m->metadata_count, 1)) abort();

  // Without AllowedClients everyone is allowed; with it, only the clients it lists.
  if (velna_manifest_allows_client(m, nullptr) != (m->allowed_clients == nullptr)) abort();
  for (char **c = m->allowed_clients; c && *c; ++c)
    if (!**c || !velna_manifest_allows_client(m, *c)) abort();
  velna_manifest_unref(m);
  app_info_destroy(info);
  return 0;
}
