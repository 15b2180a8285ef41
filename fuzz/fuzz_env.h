// What every fuzz target builds on: the platform's headers, internal ones included; a
// private runtime and apps directory per process (VELNA_RUNTIME_DIR, VELNA_APPS_DIR, the
// platform log silenced, removed at exit); the checks that every decoded bundle must pass.
#pragma once

#include <errno.h>
#include <rpc-port.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <glib.h>
#include <glib/gstdio.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

extern "C" {
#include "bundle_internal.h"
#include "rpc_port_internal.h"
#include "runtime_internal.h"
}

namespace talvo_fuzz {

// The process's private directory, made on the first call: <root>/run is
// VELNA_RUNTIME_DIR, <root>/apps VELNA_APPS_DIR; app_id, when given then, is VELNA_APP_ID.
inline const std::string &FuzzRoot(const char *app_id = nullptr) {
  static const std::string *root = [app_id] {  // never destroyed: the exit handler reads it
    g_autofree char *dir = g_dir_make_tmp("talvo-fuzz-XXXXXX", nullptr);
    if (!dir) abort();
    auto *path = new std::string(dir);
    std::string run = *path + "/run", apps = *path + "/apps";
    if (g_mkdir(run.c_str(), 0700) != 0 || g_mkdir(apps.c_str(), 0700) != 0) abort();
    setenv("VELNA_RUNTIME_DIR", run.c_str(), 1);
    setenv("VELNA_APPS_DIR", apps.c_str(), 1);
    setenv("VELNA_LOG_LEVEL", "silent", 1);
    if (app_id) setenv("VELNA_APP_ID", app_id, 1);
    atexit([] { std::error_code ignored; std::filesystem::remove_all(FuzzRoot(), ignored); });
    return path;
  }();
  return *root;
}

// Installs text as the manifest of app_id, in place and unsynced: only this process reads it.
inline void WriteManifest(const std::string &app_id, const std::string &text) {
  std::string path = FuzzRoot() + "/apps/" + app_id + ".app";
  if (!g_file_set_contents_full(path.c_str(), text.data(), static_cast<gssize>(text.size()),
                                G_FILE_SET_CONTENTS_NONE, 0644, nullptr))
    abort();
}

inline std::string Encode(bundle *b) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  if (bundle_encode_raw(b, &raw, &len) != 0) abort();
  std::string out(reinterpret_cast<char *>(raw), len);
  free(raw);
  return out;
}

// Every entry must show one type through every accessor, strings must end where their
// size says, and every value must be readable to its last byte (the sanitizers check).
inline void CheckEntry(const char *key, const int type, const bundle_keyval_t *kv, void *b) {
  auto *owner = static_cast<bundle *>(b);
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  if (bundle_keyval_get_type(entry) != type || bundle_get_type(owner, key) != type) abort();
  const char **items = nullptr;
  int count = 0;
  if (type == BUNDLE_TYPE_STR_ARRAY && bundle_get_str_array(owner, key, &items, &count) != 0)
    abort();
  for (int i = 0; i < count; ++i) (void)strlen(items[i]);
  if (bundle_keyval_type_is_array(entry) == 1) return;

  void *value = nullptr;
  size_t size = 0;
  char *str = nullptr;
  if (bundle_keyval_get_basic_val(entry, &value, &size) != 0) abort();
  if (type == BUNDLE_TYPE_STR && (bundle_get_str(owner, key, &str) != 0 || strlen(str) + 1 != size))
    abort();
  volatile unsigned char last = size ? static_cast<unsigned char *>(value)[size - 1] : 0;
  (void)last;
}

inline void CheckValues(bundle *b) { bundle_foreach(b, CheckEntry, b); }

}  // namespace talvo_fuzz
