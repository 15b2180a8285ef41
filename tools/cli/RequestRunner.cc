#include "RequestRunner.h"

#include <app_info.h>
#include <gio/gio.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AnswerPrinter.h"

namespace cli {

namespace {

const char kFailureAnswer[] = "{\"result\":\"Failure\"}";

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

}  // namespace

int CheckInstalled(const std::string &appId) {
  app_info_h info = nullptr;
  int r = app_info_create(appId.c_str(), &info);
  if (r == 0) {
    app_info_destroy(info);
    return kExitOk;
  }
  const char *dir = std::getenv("VELNA_APPS_DIR");
  if (r == -22) {
    std::fprintf(stderr, "talvo-cli: '%s' is not a valid app id\n", appId.c_str());
    return kExitUsage;
  }
  if (r == -2)
    std::fprintf(stderr, "talvo-cli: app '%s' is not installed (no %s.app in %s)\n",
                 appId.c_str(), appId.c_str(), dir ? dir : "the default apps directory");
  else
    std::fprintf(stderr, "talvo-cli: the manifest of '%s' cannot be read (error %d)\n",
                 appId.c_str(), r);
  return kExitEnvironment;
}

void RequestRunner::onAnswer(const char *appId, bundle *result, void *self) {
  auto *runner = static_cast<RequestRunner *>(self);
  std::string id = appId ? appId : "";
  runner->printed_ = runner->options_.json ? AnswerAsJson(id, result) : AnswerAsText(id, result);
  char *text = nullptr;
  runner->failureAnswer_ = bundle_get_str(result, "result", &text) == 0 &&
                           std::strcmp(text, kFailureAnswer) == 0;
  runner->answered_ = true;
}

int RequestRunner::waitForAnswer(int defaultTimeoutSeconds) {
  int seconds = options_.timeoutSeconds ? options_.timeoutSeconds : defaultTimeoutSeconds;
  auto done = [](void *self) { return static_cast<RequestRunner *>(self)->answered_; };
  if (velna_main_loop_run_until(done, this, seconds * 1000) != 1) {
    std::fprintf(stderr, "talvo-cli: no answer from '%s' within %d s\n",
                 options_.args[0].c_str(), seconds);
    return kExitTimeout;
  }
  std::fputs(printed_.c_str(), stdout);
  return failureAnswer_ ? kExitFailed : kExitOk;
}

int RequestRunner::runRequest(bool isState) {
  const std::string &appId = options_.args[0];
  int r = CheckInstalled(appId);
  if (r != kExitOk) return r;

  r = talvo_proxy_initialize();
  if (r != 0) {
    std::fprintf(stderr, "talvo-cli: the library could not start (%d)\n", r);
    return kExitFailed;
  }
  bundle *request = MakeRequest(options_);
  r = isState ? talvo_proxy_app_state_request(appId.c_str(), request, onAnswer, this)
              : talvo_proxy_app_action_execution(appId.c_str(), request, onAnswer, this);
  bundle_free(request);
  int exitCode;
  if (r != 0) {
    std::fprintf(stderr, "talvo-cli: the request was refused: %d (%s)\n", r,
                 Meaning(r).c_str());
    exitCode = kExitFailed;
  } else {
    exitCode = waitForAnswer(isState ? 15 : 40);
  }
  talvo_proxy_deinitialize();
  return exitCode;
}

int RequestRunner::runAction() { return runRequest(false); }

int RequestRunner::runState() { return runRequest(true); }

int RequestRunner::runFocused() {
  // Take the shared system-bus connection first: a missing bus is reported in one line,
  // and the library's name request then finds the connection ready.
  GError *error = nullptr;
  GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (!bus) {
    const char *address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::fprintf(stderr, "talvo-cli: no system bus at %s (set DBUS_SYSTEM_BUS_ADDRESS): %s\n",
                 address ? address : "the default address", error->message);
    g_error_free(error);
    return kExitEnvironment;
  }
  talvo_proxy_initialize();
  // The bus-acquired handler runs on the loop; let it run before asking.
  int turns = 0;
  auto settled = [](void *count) { return ++*static_cast<int *>(count) > 5; };
  velna_main_loop_run_until(settled, &turns, 1000);

  char *focused = talvo_proxy_get_focused_app_id();
  int exitCode = focused ? kExitOk : kExitFailed;
  if (options_.json)
    std::printf("{\n  \"focused\" : %s%s%s\n}\n", focused ? "\"" : "",
                focused ? focused : "null", focused ? "\"" : "");
  else
    std::printf("%s\n", focused ? focused : "no app has the focus (or no window manager answers)");
  free(focused);
  talvo_proxy_deinitialize();
  g_object_unref(bus);
  return exitCode;
}

int RequestRunner::runRegistered() {
  int r = CheckInstalled(options_.args[0]);
  if (r != kExitOk) return r;
  bool registered =
      talvo_proxy_is_action_registered(options_.args[0].c_str(), options_.args[1].c_str());
  if (options_.json)
    std::printf("{\n  \"registered\" : %s\n}\n", registered ? "true" : "false");
  else
    std::printf("%s\n", registered ? "yes" : "no");
  return registered ? kExitOk : kExitFailed;
}

}  // namespace cli
