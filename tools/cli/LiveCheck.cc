#include "LiveCheck.h"

#include <app_manager.h>
#include <message_port.h>
#include <talvo_proxy.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>

namespace cli {

namespace {

const char kFailureAnswer[] = "{\"result\":\"Failure\"}";
const char kJsonFailure[] = "Json failure because of missing parameter";
const char kUnknownAction[] = "talvoCheckUnknownAction";
// The library's longest waits, with room for a loaded machine.
const int kReachMs = 15000;
const int kFocusMs = 34000;

std::string Seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", s);
  return text;
}

void CopyString(const char *key, const int type, const bundle_keyval_t *kv, void *out) {
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  void *value = nullptr;
  size_t size = 0;
  if (type != BUNDLE_TYPE_STR || bundle_keyval_get_basic_val(entry, &value, &size) != 0) return;
  (*static_cast<std::map<std::string, std::string> *>(out))[key] = static_cast<char *>(value);
}

}  // namespace

void LiveCheck::onLine(log_priority, const char *, const char *message, void *self) {
  static_cast<LiveCheck *>(self)->lines_.emplace_back(g_get_monotonic_time(), message);
}

void LiveCheck::onAnswer(const char *appId, bundle *answer, void *self) {
  auto *check = static_cast<LiveCheck *>(self);
  if (!check->pending_ || !appId || check->appId_ != appId) return;
  check->pending_->came = true;
  bundle_foreach(answer, CopyString, &check->pending_->strings);
}

bool LiveCheck::running() const {
  bool yes = false;
  app_manager_is_running(appId_.c_str(), &yes);
  return yes;
}

double LiveCheck::lineAt(const std::string &needle, size_t from, gint64 since) const {
  for (size_t i = from; i < lines_.size(); ++i)
    if (lines_[i].second.find(needle) != std::string::npos)
      return double(lines_[i].first - since) / G_USEC_PER_SEC;
  return -1;
}

LiveCheck::Reply LiveCheck::request(bool context, const std::string &actionId, int timeoutMs) {
  Reply reply;
  reply.firstLine = lines_.size();
  started_ = g_get_monotonic_time();
  bundle *b = bundle_create();
  if (!context) bundle_add_str(b, "actionId", actionId.c_str());
  pending_ = &reply;
  reply.result = context ? talvo_proxy_app_state_request(appId_.c_str(), b, onAnswer, this)
                         : talvo_proxy_app_action_execution(appId_.c_str(), b, onAnswer, this);
  bundle_free(b);
  // Until the answer comes, or answerSeconds_ after the library sent the request, or
  // timeoutMs in all.
  auto done = [](void *self) {
    auto *check = static_cast<LiveCheck *>(self);
    if (check->pending_->came) return true;
    double sent = std::max(check->lineAt("Send data end", check->pending_->firstLine, check->started_),
                           check->lineAt("Send data Message Port", check->pending_->firstLine,
                                         check->started_));
    double now = double(g_get_monotonic_time() - check->started_) / G_USEC_PER_SEC;
    return sent >= 0 && now - sent > check->answerSeconds_;
  };
  if (reply.result == 0) velna_main_loop_run_until(done, this, timeoutMs);
  pending_ = nullptr;
  reply.seconds = double(g_get_monotonic_time() - started_) / G_USEC_PER_SEC;
  return reply;
}

// Why an answer did not reach the client, from what the library logged meanwhile.
std::string LiveCheck::whySilent(const Reply &reply, std::string *fix) const {
  for (size_t i = reply.firstLine; i < lines_.size(); ++i) {
    const std::string &line = lines_[i].second;
    if (line.find("Unknown message recieved from app:" + appId_) != std::string::npos) {
      *fix = "answer with \"result\" (action) or \"appContext\" (context), as the SDK does";
      return "the app answered without \"result\" or \"appContext\": the library drops it";
    }
    size_t at = line.find(") OnReceived");
    if (at != std::string::npos && line.rfind('(', at) != std::string::npos) {
      size_t open = line.rfind('(', at);
      std::string id = line.substr(open + 1, at - open - 1);
      if (id != appId_) {
        *fix = "name the app's own id " + appId_ + " in ResponseCB (the SDK always does)";
        return "the app answered as \"" + id + "\", not as itself: the library takes it for "
               "another app's answer and drops it";
      }
    }
  }
  if (!facts_.viaRpcPort &&
      lineAt("Request Execution Result Recieved from " + appId_, reply.firstLine, started_) >= 0) {
    *fix = "mark the final piece with the exact text \"true\" (the SDK does)";
    return "answer pieces arrived, but none was marked final: the answer never completes";
  }
  *fix = "answer every request, from the handler or later (talvo_companion_answer_send_*)";
  return "no answer within " + Seconds(reply.seconds);
}

bool LiveCheck::reach(const Reply *first, bool wasRunning) {
  if (first->result != 0) {
    report_->fail("the library refused the first request: " + std::to_string(first->result),
                  "run talvo-cli action " + appId_ + " --log-level debug to see why");
    return false;
  }
  double sent = lineAt(facts_.viaRpcPort ? "Send data end" : "Send data Message Port",
                       first->firstLine, started_);
  bool failure = first->came && first->str("result") == kFailureAnswer && first->strings.size() == 1;
  if (sent >= 0 && !failure) {
    std::string how = wasRunning ? "reachable" : "launched and reachable";
    if (sent > 5)
      report_->warn(how + " after " + Seconds(sent) + ", close to the library's 10 s",
                    "register the port or listen before any slow start-up work");
    else
      report_->pass(how + " after " + Seconds(sent) + " (the library waits 10 s at most)");
    return true;
  }
  std::string what, fix;
  if (!running()) {
    what = "the app did not start, or exited: the client gets " + std::string(kFailureAnswer);
    fix = "run its Exec with VELNA_APP_ID=" + appId_ + " to see why (launched apps log to "
          "VELNA_LOG_FILE or <runtime dir>/log/" + appId_ + ".log)";
  } else if (!facts_.viaRpcPort) {
    what = "the app runs but did not register the port TALVO_APP_SDK_PORT_516 within 10.2 s "
           "(101 checks at 0.1 s): the client gets " + std::string(kFailureAnswer);
    fix = "register the port as the app starts (talvo_companion_start)";
  } else if (lineAt("Fail to SetCB", first->firstLine, started_) >= 0) {
    what = "the app refused the client's callback (SetCB answered non-zero)";
    fix = "answer SetCB with 0 (the SDK does unless told otherwise)";
  } else {
    what = "the app runs but accepted no connection on rpc-port \"message\" within 10 s";
    fix = "listen on \"message\" as the app starts (talvo_companion_start)";
  }
  report_->fail(what, fix);
  return false;
}

// Alias apps: the first action launches the app and waits for its focus.
bool LiveCheck::focus() {
  Reply first;
  first.firstLine = lines_.size();
  started_ = g_get_monotonic_time();
  bundle *b = bundle_create();
  std::string action = facts_.actionIds.empty() ? kUnknownAction : facts_.actionIds[0];
  bundle_add_str(b, "actionId", action.c_str());
  int r = talvo_proxy_app_action_execution(appId_.c_str(), b, onAnswer, this);
  bundle_free(b);
  if (r != 0) {
    report_->fail("the library refused the first action: " + std::to_string(r),
                  "run talvo-cli action " + appId_ + " --log-level debug to see why");
    return false;
  }
  auto decided = [](void *self) {
    auto *check = static_cast<LiveCheck *>(self);
    for (const char *end : {"is focused successfully", "_appFocusedMonitoringCb(): ClientsInfo is null",
                            "fail to connect after focused", "FocusedAppId is null"})
      if (check->lineAt(end, 0, 0) >= 0) return true;
    return false;
  };
  velna_main_loop_run_until(decided, this, kFocusMs);
  double at = std::max(lineAt("is focused successfully", first.firstLine, started_),
                       lineAt("_appFocusedMonitoringCb(): ClientsInfo is null", first.firstLine, started_));
  if (at >= 0) {
    report_->pass("the app had the focus after " + Seconds(at) + " (the library waits 31 s)");
    return true;
  }
  if (lineAt("FocusedAppId is null", first.firstLine, started_) >= 0)
    report_->fail("no window has the focus, or no window manager answers on the system bus",
                  "run a window manager (talvo-wm-sim on a private bus) and set "
                  "DBUS_SYSTEM_BUS_ADDRESS");
  else
    report_->fail("the app did not take the focus within 31 s: every action is dropped",
                  "ask the window manager for the focus when the app starts");
  return false;
}

void LiveCheck::checkAction(const std::string &actionId, const Reply &reply) {
  const std::string name = "action \"" + actionId + "\"";
  if (!reply.came) {
    std::string fix, why = whySilent(reply, &fix);
    report_->fail(name + ": " + why, fix);
    return;
  }
  if (reply.str("result") == kFailureAnswer && reply.strings.size() == 1) {
    report_->fail(name + ": the library gave up waiting for the app", "see the reachability check");
    return;
  }
  if (!reply.has("status_code")) {
    report_->fail(name + ": the answer has no \"status_code\", so the client cannot tell "
                  "success from failure",
                  "send \"status_code\" and \"status_msg\" (the SDK always does)");
    return;
  }
  std::string chunked;
  for (size_t i = reply.firstLine; i < lines_.size(); ++i) {
    size_t at = lines_[i].second.find("[Received Data with len:");
    if (at != std::string::npos) {
      size_t bytes = std::strtoul(lines_[i].second.c_str() + at + 24, nullptr, 10);
      if (bytes > 0) chunked = ", in pieces joined to " + std::to_string(bytes) + " bytes";
      chunkedBytes_ += bytes;
    }
  }
  report_->pass(name + " answered in " + Seconds(reply.seconds) + ": " + reply.str("status_code") +
                chunked);
}

void LiveCheck::checkContext() {
  Reply reply = request(true, "", answerSeconds_ * 1000);
  if (reply.result != 0) {
    report_->fail("context request refused (" + std::to_string(reply.result) +
                      "): the app does not run",
                  "keep the app running after a request: contexts never launch it");
    return;
  }
  if (!reply.came) {
    std::string fix, why = whySilent(reply, &fix);
    report_->fail("context request: " + why, fix);
    return;
  }
  if (reply.str("status_msg") == kJsonFailure && reply.str("appContext").empty()) {
    bool manifest = facts_.version.empty() || facts_.capsuleId.empty();
    report_->fail(std::string("context request: the client gets the failure answer \"") +
                      kJsonFailure + "\": " +
                      (manifest ? "the manifest lacks companion-app/version or capsule-id"
                                : "the app reported ACTION_EXECUTION_SUCCESS with a context "
                                  "that has no \"concepts\" (or is not a JSON object)"),
                  manifest ? "declare both in [Metadata]"
                           : "put \"concepts\" in every successful context "
                             "(talvo_companion_answer_send_context refuses it without)");
    return;
  }
  if (!reply.has("status_code")) {
    report_->fail("context request: the answer has no \"status_code\"",
                  "send \"status_code\" and \"status_msg\" (the SDK always does)");
  } else if (reply.str("appContext").find("\"contextBlob\"") != std::string::npos) {
    report_->pass("context request: the client gets the envelope with \"contextBlob\"");
  } else {
    report_->warn("context request: the client gets a three-member envelope without "
                  "\"contextBlob\" (status " + reply.str("status_code") +
                      ", no \"concepts\" in the context)",
                  "send a context with \"concepts\" when the app has something to show");
  }
}

void LiveCheck::checkUnknownRequest() {
  Reply reply = request(false, kUnknownAction, 3000);
  velna_main_loop_run_until([](void *) { return false; }, nullptr, 300);
  if (!running())
    report_->fail("the app exited after an action it does not know",
                  "answer unknown actions with ACTION_EXECUTION_FAILURE instead");
  else if (!reply.came)
    report_->warn("the app survives an action it does not know, but does not answer it: the "
                  "client waits for ever",
                  "answer unknown actions with ACTION_EXECUTION_FAILURE");
  else
    report_->pass("the app survives an action it does not know and answers it (" +
                  reply.str("status_code") + ")");
}

void LiveCheck::run() {
  report_->setArea("live");
  const bool wasRunning = running();
  dlog_set_capture_handler(onLine, this);
  int r = talvo_proxy_initialize();
  if (r != 0) {
    report_->fail("the library could not start (" + std::to_string(r) + ")",
                  "check VELNA_RUNTIME_DIR and VELNA_APP_ID");
  } else if (facts_.alias ? focus() : true) {
    bool reachable = true;
    size_t next = 0;
    if (!facts_.alias) {
      std::string first = facts_.actionIds.empty() ? kUnknownAction : facts_.actionIds[0];
      Reply reply = request(false, first, kReachMs);
      reachable = reach(&reply, wasRunning);
      if (reachable && !facts_.actionIds.empty()) checkAction(first, reply);
      next = 1;
    } else {
      checkContext();  // connects the alias app, so that its actions can be sent
    }
    for (size_t i = next; reachable && i < facts_.actionIds.size(); ++i)
      checkAction(facts_.actionIds[i],
                  request(false, facts_.actionIds[i],
                          (facts_.alias ? kFocusMs : 0) + answerSeconds_ * 1000));
    if (reachable && !facts_.alias) checkContext();
    if (chunkedBytes_ > 0) report_->pass("chunked answers are well formed");
    if (reachable) checkUnknownRequest();
  }
  talvo_proxy_deinitialize();
  dlog_set_capture_handler(nullptr, nullptr);
  if (!wasRunning && running()) app_manager_terminate_app(appId_.c_str());
}

}  // namespace cli
