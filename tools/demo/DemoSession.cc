#include "DemoSession.h"

#include <app_manager.h>
#include <gio/gio.h>
#include <json-glib/json-glib.h>
#include <talvo_proxy.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace demo {

namespace {

const char kSuccess[] = "ACTION_EXECUTION_SUCCESS";
const char kFailureResult[] = "{\"result\":\"Failure\"}";

double SecondsSince(gint64 start) { return double(g_get_monotonic_time() - start) / 1e6; }

std::string StringOf(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? value : "";
}

std::string Shorten(const std::string &text, size_t most = 70) {
  return text.size() <= most ? text : text.substr(0, most - 3) + "...";
}

// "" when the state answer carries the envelope with the app's id, version, capsule id
// and the app's own context text; otherwise what is missing.
std::string CheckEnvelope(const std::string &text, const std::string &appId) {
  JsonParser *parser = json_parser_new();
  std::string problem;
  if (!json_parser_load_from_data(parser, text.c_str(), -1, nullptr) ||
      !JSON_NODE_HOLDS_OBJECT(json_parser_get_root(parser))) {
    problem = "appContext is not a JSON object";
  } else {
    JsonObject *envelope = json_node_get_object(json_parser_get_root(parser));
    for (const char *member : {"appId", "appVersion", "capsuleId", "contextBlob"})
      if (!json_object_has_member(envelope, member)) problem = std::string("no ") + member;
    if (problem.empty() && appId != json_object_get_string_member(envelope, "appId"))
      problem = "envelope names another app";
  }
  g_object_unref(parser);
  return problem;
}

// Gives the demo's own window the focus, as an assistant's window would have it.
bool FocusOwnWindow() {
  GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (!bus) return false;
  GVariant *reply = g_dbus_connection_call_sync(
      bus, "org.enlightenment.wm", "/org/velna/WmSim", "org.velna.WmSim", "Focus",
      g_variant_new("(i)", gint32(getpid())), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
      nullptr);
  if (reply) g_variant_unref(reply);
  g_object_unref(bus);
  return reply != nullptr;
}

}  // namespace

void DemoSession::report(bool ok, const std::string &what, const std::string &detail,
                         double seconds) {
  (ok ? passed_ : failed_)++;
  std::printf("[%s] %-52s %s (%.2f s)\n", ok ? " ok " : "FAIL", what.c_str(), detail.c_str(),
              seconds);
  std::fflush(stdout);
}

void DemoSession::explain(const std::string &why) {
  // Wrapped under the step's line, so a newcomer reads why no answer is the right one.
  const size_t width = 76;
  std::string line = "       why:";
  size_t start = 0;
  while (start < why.size()) {
    size_t end = why.find(' ', start);
    if (end == std::string::npos) end = why.size();
    std::string word = why.substr(start, end - start);
    if (line.size() + 1 + word.size() > width) {
      std::printf("%s\n", line.c_str());
      line = "           ";
    }
    line += " " + word;
    start = end + 1;
  }
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void DemoSession::onAnswer(const char *appId, bundle *result, void *data) {
  auto *answer = static_cast<Answer *>(data);
  answer->arrived = true;
  answer->appId = appId ? appId : "";
  answer->statusCode = StringOf(result, "status_code");
  answer->result = StringOf(result, "result");
  answer->appContext = StringOf(result, "appContext");
}

bool DemoSession::waitFor(Answer &answer, int waitMs) {
  struct Wait {
    Answer *answer;
    DemoSession *session;
  } wait{&answer, this};
  auto done = [](void *data) {
    auto *w = static_cast<Wait *>(data);
    return w->answer->arrived || w->session->interrupted_;
  };
  velna_main_loop_run_until(done, &wait, waitMs);
  return answer.arrived;
}

bool DemoSession::request(const std::string &what, const std::string &appId, bool isState,
                          std::vector<std::pair<std::string, std::string>> fields, int waitMs,
                          bool expectAnswer, const Check &check) {
  if (interrupted_) return false;
  bundle *data = bundle_create();
  for (const auto &field : fields) bundle_add_str(data, field.first.c_str(), field.second.c_str());
  Answer answer;
  gint64 start = g_get_monotonic_time();
  int r = isState ? talvo_proxy_app_state_request(appId.c_str(), data, onAnswer, &answer)
                  : talvo_proxy_app_action_execution(appId.c_str(), data, onAnswer, &answer);
  bundle_free(data);
  if (r != 0) {
    report(false, what, "refused with " + std::to_string(r), SecondsSince(start));
    return false;
  }
  bool arrived = waitFor(answer, waitMs);
  if (interrupted_) {
    std::printf("[stop] %-52s interrupted\n", what.c_str());
    return false;
  }
  if (!expectAnswer) {
    report(!arrived, what, arrived ? "an answer came, none was expected"
                                   : "no answer, as the library drops it", SecondsSince(start));
    return !arrived;
  }
  std::string problem = arrived ? check(answer) : "no answer in time";
  std::string detail = problem.empty() ? "-> " + Shorten(answer.statusCode.empty()
                                                             ? answer.result
                                                             : answer.statusCode + " " +
                                                                   answer.result + answer.appContext)
                                       : problem;
  report(problem.empty(), what, detail, SecondsSince(start));
  return problem.empty();
}

void DemoSession::stepRegistration() {
  gint64 start = g_get_monotonic_time();
  bool play = talvo_proxy_is_action_registered(apps_.port.c_str(), "playMusic");
  bool stop = talvo_proxy_is_action_registered(apps_.port.c_str(), "stopMusic");
  report(play && !stop, "registered? " + apps_.port + " playMusic, stopMusic",
         std::string("-> ") + (play ? "yes" : "no") + ", " + (stop ? "yes" : "no"),
         SecondsSince(start));
}

void DemoSession::stepFocus() {
  gint64 start = g_get_monotonic_time();
  bool focused = FocusOwnWindow();
  int turns = 0;  // let the library's bus-acquired handler run
  auto settled = [](void *n) { return ++*static_cast<int *>(n) > 20; };
  velna_main_loop_run_until(settled, &turns, 500);
  char *id = talvo_proxy_get_focused_app_id();
  const char *self = std::getenv("VELNA_APP_ID");
  bool ok = focused && id && self && std::strcmp(id, self) == 0;
  report(ok, "focused app (the demo's own window has the focus)",
         std::string("-> ") + (id ? id : "(none)"), SecondsSince(start));
  free(id);
}

void DemoSession::stepAlias() {
  if (request("action -> alias app, no connection yet", apps_.alias, false,
              {{"actionId", "openGallery"}}, 3000, false, nullptr))
    explain("an alias app is one whose package goes by another name. The library "
            "launches it and waits for its window to take the focus, then sends the "
            "action only over a connection to the app that it already has. It has none "
            "yet (nothing was asked of this app before), so it drops the action without "
            "answering. The next step asks for the app's context, which connects it.");
  request("state  -> alias app (connects it)", apps_.alias, true, {}, 12000, true,
          [this](const Answer &a) { return CheckEnvelope(a.appContext, apps_.alias); });
  request("action -> alias app, served once it has the focus", apps_.alias, false,
          {{"actionId", "openGallery"}}, 35000, true,
          [](const Answer &a) { return a.statusCode == kSuccess ? "" : "status " + a.statusCode; });
}

int DemoSession::run() {
  auto succeeded = [](const Answer &a) {
    return a.statusCode == kSuccess ? std::string() : "status " + a.statusCode;
  };
  std::string longText(300, ' ');
  for (size_t i = 0; i < longText.size(); ++i) longText[i] = char('a' + i % 26);

  stepRegistration();
  int r = talvo_proxy_initialize();
  report(r == 0, "initialize", "-> " + std::to_string(r), 0);
  stepFocus();
  request("action -> message-port app, launched on demand", apps_.port, false,
          {{"actionId", "playMusic"}}, 15000, true, succeeded);
  request("action -> rpc-port app, connected on demand", apps_.rpc, false,
          {{"actionId", "setAlarm"}}, 15000, true, succeeded);
  request("action -> chunked answer (16-byte pieces)", apps_.port, false,
          {{"actionId", "playMusic"}, {"sample_chunk_size", "16"}, {"sample_result", longText}},
          5000, true, [&](const Answer &a) {
            return a.result == longText ? "" : "joined text differs: " + Shorten(a.result);
          });
  request("state  -> rpc-port app, JSON envelope", apps_.rpc, true, {}, 5000, true,
          [this](const Answer &a) { return CheckEnvelope(a.appContext, apps_.rpc); });
  stepAlias();
  request("action -> app that never becomes reachable", apps_.neverReady, false,
          {{"actionId", "playMusic"}}, 15000, true, [](const Answer &a) {
            return a.result == kFailureResult ? "" : "result " + a.result;
          });
  if (request("action -> rpc-port app whose launch fails", apps_.noExec, false,
              {{"actionId", "setAlarm"}}, 11500, false, nullptr))
    explain("this app's manifest names no program, so the platform cannot start it and "
            "refuses the connection. The library then forgets that connection, and the "
            "request waiting for it finds nothing left to wait for and is dropped. A "
            "failure answer is made only when a wait runs out (the step before), not "
            "when a connection is refused.");
  talvo_proxy_deinitialize();

  std::printf("\n%d passed, %d failed\n", passed_, failed_);
  return failed_;
}

void DemoSession::terminateApps() {
  for (const std::string *app : {&apps_.port, &apps_.rpc, &apps_.alias, &apps_.neverReady})
    app_manager_terminate_app(app->c_str());
}

}  // namespace demo
