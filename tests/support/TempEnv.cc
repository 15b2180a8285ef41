#include "TempEnv.h"

#include <app_manager.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <stdlib.h>

#include <fstream>
#include <stdexcept>

namespace testsupport {

namespace {

void removeTree(const std::string &path) {
  GDir *dir = g_dir_open(path.c_str(), 0, nullptr);
  if (dir) {
    while (const char *name = g_dir_read_name(dir)) {
      std::string child = path + "/" + name;
      if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) &&
          !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK))
        removeTree(child);
      else
        g_unlink(child.c_str());
    }
    g_dir_close(dir);
  }
  g_rmdir(path.c_str());
}

}  // namespace

TempEnv::TempEnv() {
  char tmpl[] = "/tmp/vt-XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  runtimeDir_ = root_ + "/rt";
  appsDir_ = root_ + "/apps";
  g_mkdir(runtimeDir_.c_str(), 0700);
  g_mkdir(appsDir_.c_str(), 0755);
  setenv("VELNA_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  setenv("VELNA_APPS_DIR", appsDir_.c_str(), 1);
}

TempEnv::~TempEnv() {
  for (const std::string &appId : installed_) app_manager_terminate_app(appId.c_str());
  removeTree(root_);
}

void TempEnv::install(const Manifest &m) {
  std::string text = "[Application]\nPackage=" + m.package + "\n";
  if (!m.infoPackage.empty()) text += "InfoPackage=" + m.infoPackage + "\n";
  if (!m.exec.empty()) text += "Exec=" + m.exec + "\n";
  if (!m.allowedClients.empty()) text += "AllowedClients=" + m.allowedClients + "\n";
  if (!m.metadata.empty()) {
    text += "\n[Metadata]\n";
    for (const auto &kv : m.metadata) text += kv.first + "=" + kv.second + "\n";
  }
  installRaw(m.appId, text);
}

void TempEnv::installRaw(const std::string &appId, const std::string &text) {
  std::ofstream(appsDir_ + "/" + appId + ".app", std::ios::trunc) << text;
  for (const std::string &known : installed_)
    if (known == appId) return;
  installed_.push_back(appId);
}

}  // namespace testsupport
