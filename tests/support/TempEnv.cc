#include "TempEnv.h"

#include <app_control.h>
#include <app_manager.h>
#include <message_port.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <stdlib.h>

#include <fstream>
#include <stdexcept>

#include "LoopUntil.h"

namespace testsupport {

void RemoveTree(const std::string &path) {
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
  RemoveTree(root_);
}

void TempEnv::install(const Manifest &m) {
  std::string text = "[Application]\nPackage=" + m.package + "\n";
  if (!m.infoPackage.empty()) text += "InfoPackage=" + m.infoPackage + "\n";
  if (!m.exec.empty()) text += "Exec=" + m.exec + "\n";
  if (!m.allowedClients.empty()) text += "AllowedClients=" + m.allowedClients + "\n";
  if (!m.metadata.empty()) text += "\n[Metadata]\n";
  for (const auto &kv : m.metadata) text += kv.first + "=" + kv.second + "\n";
  installRaw(m.appId, text);
}

void TempEnv::installRaw(const std::string &appId, const std::string &text) {
  std::ofstream(appsDir_ + "/" + appId + ".app", std::ios::trunc) << text;
  for (const std::string &known : installed_)
    if (known == appId) return;
  installed_.push_back(appId);
}

void TempEnv::installSample(const std::string &appId, const std::string &exec) {
  const std::string key = "http://velna.org/velna/metadata/talvo/";
  std::string own = PORT_COMPANION_EXEC, sdk = "1.0-alpha", version = "1.0.0", capsule = "port";
  Manifest m{appId, appId, "", "", "", {}};
  if (appId == kRpcApp) {
    own = RPC_COMPANION_EXEC, sdk = "1.1.0", version = "1.1.0", capsule = "rpc";
  } else if (appId == kAliasApp) {
    own = ALIAS_COMPANION_EXEC, sdk = "1.1.0", version = "2.0.0", capsule = "alias";
    m.package = "org.velna.samplehost.alias";
    m.infoPackage = "org.velna.sample.alias";
  }
  m.exec = exec.empty() ? own : exec;
  m.metadata = {{key + "companion-app/version", version},
                {key + "companion-app/capsule-id", "sample." + capsule + ".capsule"},
                {key + "sdk/version", sdk}};
  install(m);
}

bool TempEnv::launch(const std::string &appId, const char *port) {
  app_control_h control = nullptr;
  if (app_control_create(&control) != 0) return false;
  app_control_set_app_id(control, appId.c_str());
  int ret = app_control_send_launch_request(control, nullptr, nullptr);
  app_control_destroy(control);
  return ret == 0 && RunLoopUntil(
                         [&] {
                           bool ready = false;
                           if (port)
                             message_port_check_remote_port(appId.c_str(), port, &ready);
                           else
                             app_manager_is_running(appId.c_str(), &ready);
                           return ready;
                         },
                         10000);
}

}  // namespace testsupport
