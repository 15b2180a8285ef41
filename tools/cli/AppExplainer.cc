#include "AppExplainer.h"

#include <app_info.h>
#include <app_manager.h>
#include <json-glib/json-glib.h>
#include <message_port.h>
#include <package_manager.h>
#include <rpc-port.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Output.h"
#include "RequestRunner.h"

namespace cli {

namespace {

const char kKeyPrefix[] = "http://velna.org/velna/metadata/talvo/";
const char kPortName[] = "TALVO_APP_SDK_PORT_516";

// The outcome of one connection attempt to an app's rpc-port "message".
struct RpcProbe {
  bool done = false;
  bool connected = false;
};

void OnProbeConnected(const char *, const char *, rpc_port_h, void *probe) {
  static_cast<RpcProbe *>(probe)->connected = true;
  static_cast<RpcProbe *>(probe)->done = true;
}

void OnProbeRefused(const char *, const char *, void *probe) {
  static_cast<RpcProbe *>(probe)->done = true;
}

std::vector<std::string> SplitCommas(const std::string &list) {
  std::vector<std::string> ids;
  size_t start = 0;
  for (size_t comma; (comma = list.find(',', start)) != std::string::npos; start = comma + 1)
    ids.push_back(list.substr(start, comma - start));
  ids.push_back(list.substr(start));
  return ids;
}

std::string OrNotDeclared(const std::string &value) {
  return value.empty() ? "(not declared)" : value;
}

}  // namespace

bool AppExplainer::onMetadata(const char *key, const char *value, void *data) {
  auto *facts = static_cast<AppFacts *>(data);
  if (std::strncmp(key, kKeyPrefix, sizeof kKeyPrefix - 1) != 0) return true;
  std::string path = key + sizeof kKeyPrefix - 1;
  if (path == "companion-app/version") facts->version = value;
  if (path == "companion-app/capsule-id") facts->capsuleId = value;
  if (path == "sdk/version") {
    facts->sdkVersion = value;
    facts->hasSdkVersion = true;
  }
  if (path == "companion-app/action-id" && facts->actionIds.empty())
    facts->actionIds = SplitCommas(value);
  return true;
}

int AppExplainer::gather(const CliOptions &options, const std::string &appId,
                         AppFacts *facts) {
  facts->appId = appId;
  int r = CheckInstalled(options, appId);
  if (r != kExitOk) return r;
  app_info_h info = nullptr;
  app_info_create(facts->appId.c_str(), &info);
  app_info_foreach_metadata(info, onMetadata, facts);
  char *infoPackage = nullptr;
  if (app_info_get_package(info, &infoPackage) == 0) facts->infoPackage = infoPackage;
  free(infoPackage);
  app_info_destroy(info);

  char *package = nullptr;
  if (package_manager_get_package_id_by_app_id(facts->appId.c_str(), &package) == 0)
    facts->package = package;
  free(package);
  // The library's rule: an alias app's package does not begin with its info package.
  facts->alias = !facts->package.empty() && !facts->infoPackage.empty() &&
                 facts->package.compare(0, facts->infoPackage.size(), facts->infoPackage) != 0;

  char *log = nullptr;
  if (app_manager_get_log_path(appId.c_str(), &log) == 0) facts->logPath = log;
  free(log);
  probeReachability(facts);
  return kExitOk;
}

bool AppExplainer::viaRpcPort(const AppFacts &facts) {
  return facts.alias ||
         (facts.hasSdkVersion && facts.sdkVersion.find("1.0-alpha") == std::string::npos);
}

void AppExplainer::probeReachability(AppFacts *facts) {
  app_manager_is_running(facts->appId.c_str(), &facts->running);
  if (!facts->running) {
    facts->reachableHow = "it does not run; the library would launch it";
    return;
  }
  if (!viaRpcPort(*facts)) {
    bool exist = false;
    message_port_check_remote_port(facts->appId.c_str(), kPortName, &exist);
    facts->reachable = exist;
    facts->reachableHow = exist ? "its port TALVO_APP_SDK_PORT_516 is registered"
                                : "it runs but has not registered TALVO_APP_SDK_PORT_516";
    return;
  }
  // Only a running app is tried, so the attempt launches nothing; no request is sent.
  RpcProbe probe;
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  rpc_port_proxy_add_connected_event_cb(proxy, OnProbeConnected, &probe);
  rpc_port_proxy_add_rejected_event_cb(proxy, OnProbeRefused, &probe);
  rpc_port_proxy_add_disconnected_event_cb(proxy, OnProbeRefused, &probe);
  int r = rpc_port_proxy_connect(proxy, facts->appId.c_str(), "message");
  auto done = [](void *p) { return static_cast<RpcProbe *>(p)->done; };
  if (r == 0) velna_main_loop_run_until(done, &probe, 3000);
  rpc_port_proxy_destroy(proxy);
  facts->reachable = probe.connected;
  facts->reachableHow = probe.connected ? "its rpc-port \"message\" accepts connections"
                        : r == -13 ? "its AllowedClients does not list this client"
                                   : "it runs but does not accept rpc-port connections yet";
}

std::string AppExplainer::mechanismWhy(const AppFacts &f) {
  return f.alias ? "rpc-port (interface \"message\"): actions to an alias app always use it"
         : viaRpcPort(f) ? "rpc-port (interface \"message\"): its SDK version " + f.sdkVersion +
                               " does not contain \"1.0-alpha\""
         : f.hasSdkVersion ? "message port TALVO_APP_SDK_PORT_516: its SDK version " +
                                 f.sdkVersion + " contains \"1.0-alpha\""
                           : "message port TALVO_APP_SDK_PORT_516: it declares no SDK version";
}

void AppExplainer::printText(const AppFacts &f) {
  std::string actions;
  for (const std::string &id : f.actionIds) actions += (actions.empty() ? "" : ", ") + id;
  std::printf("app:           %s\ninstalled:     yes\nversion:       %s\n", f.appId.c_str(),
              OrNotDeclared(f.version).c_str());
  std::printf("capsule id:    %s\nSDK version:   %s\nmechanism:     %s\n",
              OrNotDeclared(f.capsuleId).c_str(), OrNotDeclared(f.sdkVersion).c_str(),
              mechanismWhy(f).c_str());
  std::printf("alias app:     %s (package %s, info package %s)\n", f.alias ? "yes" : "no",
              f.package.c_str(), f.infoPackage.c_str());
  std::printf("running:       %s\nreachable now: %s (%s)\naction ids:    %s\n",
              f.running ? "yes" : "no", f.reachable ? "yes" : "no", f.reachableHow.c_str(),
              actions.empty() ? "(none declared)" : actions.c_str());
  std::printf("app output:    %s\n", f.logPath.empty() ? "(unknown)" : f.logPath.c_str());
}

JsonNode *AppExplainer::asJson(const AppFacts &f) {
  JsonBuilder *b = json_builder_new();
  json_builder_begin_object(b);
  auto member = [b](const char *name, const std::string &value) {
    json_builder_set_member_name(b, name);
    if (value.empty())
      json_builder_add_null_value(b);
    else
      json_builder_add_string_value(b, value.c_str());
  };
  auto flag = [b](const char *name, bool value) {
    json_builder_set_member_name(b, name);
    json_builder_add_boolean_value(b, value);
  };
  member("app", f.appId);
  flag("installed", true);
  member("version", f.version);
  member("capsuleId", f.capsuleId);
  member("sdkVersion", f.sdkVersion);
  member("mechanism", viaRpcPort(f) ? "rpc-port" : "message-port");
  member("mechanismReason", mechanismWhy(f));
  flag("alias", f.alias);
  member("package", f.package);
  member("infoPackage", f.infoPackage);
  flag("running", f.running);
  flag("reachable", f.reachable);
  member("reachableReason", f.reachableHow);
  json_builder_set_member_name(b, "actionIds");
  json_builder_begin_array(b);
  for (const std::string &id : f.actionIds) json_builder_add_string_value(b, id.c_str());
  json_builder_end_array(b);
  member("appLog", f.logPath);
  json_builder_end_object(b);
  JsonNode *root = json_builder_get_root(b);
  g_object_unref(b);
  return root;
}

int RunExplain(const CliOptions &options) {
  AppFacts facts;
  int r = AppExplainer::gather(options, options.args[0], &facts);
  if (r != kExitOk) return r;
  if (options.json != JsonStyle::kNone)
    PrintJson(options.json, AppExplainer::asJson(facts));
  else
    AppExplainer::printText(facts);
  return kExitOk;
}

}  // namespace cli
