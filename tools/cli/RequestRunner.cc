#include "RequestRunner.h"

#include <app_control.h>
#include <app_info.h>
#include <app_manager.h>
#include <gio/gio.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AnswerPrinter.h"
#include "Library.h"
#include "Output.h"

namespace cli {

namespace {

const char kLaunchOperation[] = "http://velna.org/appcontrol/operation/talvo";
const int kActionSeconds = 40, kStateSeconds = 15, kLaunchSeconds = 10;

std::string Meaning(int code) {
  switch (code) {
    case -12: return "out of memory, or the app's metadata could not be read";
    case -13: return "the app's AllowedClients does not list this client";
    case -22: return "invalid argument, or the app's rpc-port refused the connection";
    case -1073741825: return "refused: not initialised, app not running, or launch refused";
    case -1073741826: return "the app's running state could not be read, or the send failed";
    default: return "error from sending";
  }
}

bundle *MakeRequest(const CliOptions &options) {
  bundle *request = bundle_create();
  for (const auto &field : options.fields) {
    int r = bundle_add_str(request, field.first.c_str(), field.second.c_str());
    if (r == -17)
      std::fprintf(stderr, "talvo-cli: key '%s' given twice; the first value is kept\n",
                   field.first.c_str());
  }
  return request;
}

void OnAnswer(const char *appId, bundle *answer, void *data) {
  auto *request = static_cast<Request *>(data);
  std::string id = appId ? appId : "";
  request->answered = true;
  request->exitCode = IsFailureAnswer(answer) ? kExitFailed : kExitOk;
  if (request->options.json == JsonStyle::kNone) {
    if (request->line) std::printf("line %d: answer\n", request->line);
    std::fputs(AnswerAsText(id, answer).c_str(), stdout);
    std::fflush(stdout);
    return;
  }
  JsonNode *root = AnswerAsJson(id, answer);
  JsonObject *object = json_node_get_object(root);
  if (request->line) json_object_set_int_member(object, "line", request->line);
  json_object_set_int_member(object, "exitCode", request->exitCode);
  json_object_set_string_member(object, "meaning", ExitCodeMeaning(request->exitCode));
  PrintJson(request->options.json, root);
}

bool Answered(void *request) { return static_cast<Request *>(request)->answered; }

// One request as a command of its own: send, wait, report.
int RunRequest(const CliOptions &options, bool isState) {
  Request request;
  request.options = options;
  request.isState = isState;
  int r = SendRequest(&request);
  if (r != kExitOk) return r;
  int seconds = options.timeoutSeconds ? options.timeoutSeconds
                : isState              ? kStateSeconds
                                       : kActionSeconds;
  if (velna_main_loop_run_until(Answered, &request, seconds * 1000) == 1)
    r = request.exitCode;
  else
    r = ReportNoAnswer(request, seconds);
  Library::release();
  return r;
}

}  // namespace

int CheckInstalled(const CliOptions &options, const std::string &appId) {
  app_info_h info = nullptr;
  int r = app_info_create(appId.c_str(), &info);
  if (r == 0) {
    app_info_destroy(info);
    return kExitOk;
  }
  if (r == -22) return Fail(options, kExitUsage, "'" + appId + "' is not a valid app id");
  const char *dir = std::getenv("VELNA_APPS_DIR");
  if (r == -2)
    return Fail(options, kExitEnvironment,
                "app '" + appId + "' is not installed (no " + appId + ".app in " +
                    (dir ? dir : "the default apps directory") + ")");
  return Fail(options, kExitEnvironment,
              "the manifest of '" + appId + "' cannot be read (error " + std::to_string(r) + ")");
}

int SendRequest(Request *request) {
  const CliOptions &options = request->options;
  const std::string &appId = options.args[0];
  int r = CheckInstalled(options, appId);
  if (r != kExitOk) return r;

  Library::watchLog();
  r = Library::acquire();
  if (r != 0) return Fail(options, kExitFailed, "the library could not start (" +
                                                    std::to_string(r) + ")");
  request->logMark = Library::logMark();
  bundle *data = MakeRequest(options);
  r = request->isState
          ? talvo_proxy_app_state_request(appId.c_str(), data, OnAnswer, request)
          : talvo_proxy_app_action_execution(appId.c_str(), data, OnAnswer, request);
  bundle_free(data);
  if (r == 0) return kExitOk;
  Library::release();
  return Fail(options, kExitFailed,
              "the request was refused: " + std::to_string(r) + " (" + Meaning(r) + ")");
}

int ReportNoAnswer(const Request &request, int seconds) {
  const std::string &appId = request.options.args[0];
  std::vector<std::string> reasons = Library::dropReasons(appId, request.logMark);
  char *log = nullptr;
  std::string appLog = app_manager_get_log_path(appId.c_str(), &log) == 0 ? log : "";
  free(log);

  std::string message = "no answer from '" + appId + "' within " + std::to_string(seconds) +
                        " s" + (request.line ? " (line " + std::to_string(request.line) + ")" : "");
  if (request.options.json == JsonStyle::kNone) {
    for (const std::string &reason : reasons) message += "\n  the library's log says: " + reason;
    if (reasons.empty()) message += "\n  the library's log says nothing about it";
    if (!appLog.empty()) message += "\n  the app's own output is in " + appLog;
    return Fail(request.options, kExitTimeout, message);
  }
  JsonObject *details = json_object_new();
  JsonArray *lines = json_array_new();
  for (const std::string &reason : reasons) json_array_add_string_element(lines, reason.c_str());
  json_object_set_array_member(details, "log", lines);
  json_object_set_string_member(details, "app", appId.c_str());
  if (request.line) json_object_set_int_member(details, "line", request.line);
  if (!appLog.empty()) json_object_set_string_member(details, "appLog", appLog.c_str());
  JsonNode *node = json_node_new(JSON_NODE_OBJECT);
  json_node_take_object(node, details);
  return Fail(request.options, kExitTimeout, message, node);
}

int RunAction(const CliOptions &options) { return RunRequest(options, false); }

int RunState(const CliOptions &options) { return RunRequest(options, true); }

int RunFocused(const CliOptions &options) {
  // Take the shared system-bus connection first: a missing bus is reported in one line,
  // and the library's name request then finds the connection ready.
  GError *error = nullptr;
  GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (!bus) {
    const char *address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::string message = std::string("no system bus at ") +
                          (address ? address : "the default address") +
                          " (use --address or DBUS_SYSTEM_BUS_ADDRESS): " + error->message;
    g_error_free(error);
    return Fail(options, kExitEnvironment, message);
  }
  Library::acquire();
  // The bus-acquired handler runs on the loop; let it run before asking.
  int turns = 0;
  auto settled = [](void *count) { return ++*static_cast<int *>(count) > 5; };
  velna_main_loop_run_until(settled, &turns, 1000);

  char *focused = talvo_proxy_get_focused_app_id();
  int exitCode = focused ? kExitOk : kExitFailed;
  if (options.json != JsonStyle::kNone) {
    JsonObject *object = json_object_new();
    if (focused)
      json_object_set_string_member(object, "focused", focused);
    else
      json_object_set_null_member(object, "focused");
    json_object_set_int_member(object, "exitCode", exitCode);
    PrintObject(options.json, object);
  } else {
    std::printf("%s\n", focused ? focused : "no app has the focus (or no window manager answers)");
  }
  free(focused);
  Library::release();
  g_object_unref(bus);
  return exitCode;
}

int RunRegistered(const CliOptions &options) {
  int r = CheckInstalled(options, options.args[0]);
  if (r != kExitOk) return r;
  bool registered =
      talvo_proxy_is_action_registered(options.args[0].c_str(), options.args[1].c_str());
  if (options.json != JsonStyle::kNone) {
    JsonObject *object = json_object_new();
    json_object_set_boolean_member(object, "registered", registered);
    json_object_set_int_member(object, "exitCode", registered ? kExitOk : kExitFailed);
    PrintObject(options.json, object);
  } else {
    std::printf("%s\n", registered ? "yes" : "no");
  }
  return registered ? kExitOk : kExitFailed;
}

int RunLaunch(const CliOptions &options) {
  const std::string &appId = options.args[0];
  int r = CheckInstalled(options, appId);
  if (r != kExitOk) return r;

  app_control_h control = nullptr;
  app_control_create(&control);
  app_control_set_operation(control, kLaunchOperation);
  app_control_set_app_id(control, appId.c_str());
  r = app_control_send_launch_request(control, nullptr, nullptr);
  app_control_destroy(control);
  if (r != 0)
    return Fail(options, kExitFailed, "'" + appId + "' cannot be launched (" +
                                          std::to_string(r) + "); see the log with -l error");

  int seconds = options.timeoutSeconds ? options.timeoutSeconds : kLaunchSeconds;
  auto running = [](void *id) {
    bool is = false;
    app_manager_is_running(static_cast<const std::string *>(id)->c_str(), &is);
    return is;
  };
  std::string id = appId;
  if (velna_main_loop_run_until(running, &id, seconds * 1000) != 1)
    return Fail(options, kExitTimeout, "'" + appId + "' does not run after " +
                                           std::to_string(seconds) + " s");
  if (options.json != JsonStyle::kNone) {
    JsonObject *object = json_object_new();
    json_object_set_string_member(object, "app", appId.c_str());
    json_object_set_boolean_member(object, "running", true);
    json_object_set_int_member(object, "exitCode", kExitOk);
    PrintObject(options.json, object);
  } else {
    std::printf("%s runs\n", appId.c_str());
  }
  return kExitOk;
}

}  // namespace cli
