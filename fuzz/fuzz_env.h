// The private environment that fuzz targets run in: a temporary runtime directory and
// apps directory, named in VELNA_RUNTIME_DIR and VELNA_APPS_DIR, with the platform's log
// printing silenced. Made once per process, removed when the process exits.
#pragma once

#include <stdlib.h>

#include <glib.h>
#include <glib/gstdio.h>

#include <string>

namespace talvo_fuzz {

struct FuzzEnv {
  std::string root;     // owns everything below; removed at exit
  std::string runtime;  // VELNA_RUNTIME_DIR
  std::string apps;     // VELNA_APPS_DIR
};

inline void RemoveTree(const std::string &path) {
  if (GDir *dir = g_dir_open(path.c_str(), 0, nullptr)) {
    while (const char *name = g_dir_read_name(dir)) {
      std::string child = path + "/" + name;
      if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) &&
          !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK))
        RemoveTree(child);
      else
        g_unlink(child.c_str());
    }
    g_dir_close(dir);
  }
  g_rmdir(path.c_str());
}

// app_id, when given, becomes this process's VELNA_APP_ID.
inline const FuzzEnv &SetUpFuzzEnv(const char *app_id = nullptr) {
  // Never destroyed, so that the exit handler below can still read it.
  static FuzzEnv *env = [app_id] {
    auto *e = new FuzzEnv();
    char *dir = g_dir_make_tmp("talvo-fuzz-XXXXXX", nullptr);
    if (!dir) abort();
    e->root = dir;
    g_free(dir);
    e->runtime = e->root + "/run";
    e->apps = e->root + "/apps";
    if (g_mkdir(e->runtime.c_str(), 0700) != 0 || g_mkdir(e->apps.c_str(), 0700) != 0) abort();
    setenv("VELNA_RUNTIME_DIR", e->runtime.c_str(), 1);
    setenv("VELNA_APPS_DIR", e->apps.c_str(), 1);
    setenv("VELNA_LOG_LEVEL", "silent", 1);
    if (app_id) setenv("VELNA_APP_ID", app_id, 1);
    atexit([] { RemoveTree(SetUpFuzzEnv().root); });
    return e;
  }();
  return *env;
}

// Writes text as the manifest of app_id; aborts when it cannot.
inline void WriteManifest(const FuzzEnv &env, const std::string &app_id, const void *text,
                          size_t len) {
  std::string path = env.apps + "/" + app_id + ".app";
  // Written in place without syncing: the file only has to be there for this process.
  if (!g_file_set_contents_full(path.c_str(), static_cast<const char *>(text),
                                static_cast<gssize>(len), G_FILE_SET_CONTENTS_NONE, 0644, nullptr))
    abort();
}

}  // namespace talvo_fuzz
