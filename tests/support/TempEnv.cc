#include "TempEnv.h"

#include <app_control.h>
#include <app_manager.h>
#include <gtest/gtest.h>
#include <message_port.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "LoopUntil.h"

namespace testsupport {

bool IsRunning(const std::string &appId) {
  bool running = false;
  EXPECT_EQ(0, app_manager_is_running(appId.c_str(), &running)) << appId;
  return running;
}

int OpenFds() {
  return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

TempEnv::TempEnv() {
  char tmpl[] = "/tmp/vt-XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  runtimeDir_ = root_ + "/rt";
  std::filesystem::create_directory(runtimeDir_);
  std::filesystem::permissions(runtimeDir_, std::filesystem::perms::owner_all);  // as the platform requires
  std::filesystem::create_directory(root_ + "/apps");
  setenv("VELNA_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  setenv("VELNA_APPS_DIR", (root_ + "/apps").c_str(), 1);
}

TempEnv::~TempEnv() {
  for (const std::string &appId : installed_) app_manager_terminate_app(appId.c_str());
  std::filesystem::remove_all(root_);
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
  std::ofstream(root_ + "/apps/" + appId + ".app", std::ios::trunc) << text;
  installed_.insert(appId);
}

void TempEnv::installSample(const std::string &appId, const std::string &exec) {
  const bool rpc = appId == kRpcApp, alias = appId == kAliasApp;
  const char *own = rpc ? RPC_COMPANION_EXEC : alias ? ALIAS_COMPANION_EXEC : PORT_COMPANION_EXEC;
  const std::string key = "http://velna.org/velna/metadata/talvo/";
  const std::string capsule = rpc ? "rpc" : alias ? "alias" : "port";
  install({appId, alias ? "org.velna.samplehost.alias" : appId,
           alias ? "org.velna.sample.alias" : "", exec.empty() ? own : exec, "",
           {{key + "companion-app/version", rpc ? "1.1.0" : alias ? "2.0.0" : "1.0.0"},
            {key + "companion-app/capsule-id", "sample." + capsule + ".capsule"},
            {key + "sdk/version", rpc || alias ? "1.1.0" : "1.0-alpha"}}});
}

bool TempEnv::launch(const std::string &appId, const char *port) {
  app_control_h control = nullptr;
  if (app_control_create(&control) != 0) return false;
  app_control_set_app_id(control, appId.c_str());
  int ret = app_control_send_launch_request(control, nullptr, nullptr);
  app_control_destroy(control);
  auto ready = [&] {
    bool yes = false;
    return port ? message_port_check_remote_port(appId.c_str(), port, &yes) == 0 && yes : IsRunning(appId);
  };
  return ret == 0 && RunLoopUntil(ready, 10000);
}

}  // namespace testsupport
