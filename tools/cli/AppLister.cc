// "talvo-cli list": every installed app, as "explain" sees it, one line each.
#include <app_info.h>
#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "AppExplainer.h"
#include "Output.h"

namespace cli {

namespace {

// App ids of the manifests in dir, sorted; false when dir cannot be read.
bool InstalledApps(const std::string &dir, std::vector<std::string> *ids) {
  GDir *handle = g_dir_open(dir.c_str(), 0, nullptr);
  if (!handle) return false;
  for (const char *name; (name = g_dir_read_name(handle));) {
    std::string file = name;
    if (file.size() > 4 && file.compare(file.size() - 4, 4, ".app") == 0)
      ids->push_back(file.substr(0, file.size() - 4));
  }
  g_dir_close(handle);
  std::sort(ids->begin(), ids->end());
  return true;
}

std::string ShortWhy(const AppFacts &f) {
  if (f.alias) return "alias app";
  return f.hasSdkVersion ? "SDK " + f.sdkVersion : "no SDK version";
}

void PrintRow(const AppFacts &f) {
  std::string actions;
  for (const std::string &id : f.actionIds) actions += (actions.empty() ? "" : ",") + id;
  std::printf("%-36s %-13s %-16s %-8s %-10s %-6s %s\n", f.appId.c_str(),
              AppExplainer::viaRpcPort(f) ? "rpc-port" : "message-port", ShortWhy(f).c_str(),
              f.running ? "yes" : "no", f.reachable ? "yes" : "no", f.alias ? "yes" : "no",
              actions.empty() ? "-" : actions.c_str());
}

}  // namespace

std::string InstalledAppsDir() {
  char *dir = nullptr;  // ours to free
  if (app_info_get_apps_dir(&dir) != 0) return "";
  std::string out = dir;
  free(dir);
  return out;
}

int RunList(const CliOptions &options) {
  std::string dir = InstalledAppsDir();
  std::vector<std::string> ids;
  if (!InstalledApps(dir, &ids))
    return Fail(options, kExitEnvironment, "the apps directory " + dir + " cannot be read");

  bool json = options.json != JsonStyle::kNone;
  JsonArray *apps = json_array_new();
  if (!json)
    std::printf("%-36s %-13s %-16s %-8s %-10s %-6s %s\n", "APP", "MECHANISM", "WHY", "RUNNING",
                "REACHABLE", "ALIAS", "ACTIONS");
  // A manifest that cannot be read is reported on stderr, whatever the output style,
  // and the others are still listed.
  CliOptions quiet = options;
  quiet.json = JsonStyle::kNone;
  for (const std::string &id : ids) {
    AppFacts facts;
    if (AppExplainer::gather(quiet, id, &facts) != kExitOk) continue;
    if (json)
      json_array_add_element(apps, AppExplainer::asJson(facts));
    else
      PrintRow(facts);
  }
  if (!json) {
    json_array_unref(apps);
    return kExitOk;
  }
  JsonObject *object = json_object_new();
  json_object_set_string_member(object, "appsDir", dir.c_str());
  json_object_set_array_member(object, "apps", apps);
  PrintObject(options.json, object);
  return kExitOk;
}

}  // namespace cli
