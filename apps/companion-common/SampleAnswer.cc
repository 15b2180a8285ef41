#include "SampleAnswer.h"

#include <cstdlib>

namespace sample {

namespace {

const char kSuccess[] = "ACTION_EXECUTION_SUCCESS";

struct EchoState {
  std::string text;
};

void EchoEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *echo = static_cast<EchoState *>(data);
  auto *keyval = const_cast<bundle_keyval_t *>(kv);
  if (bundle_keyval_type_is_array(keyval)) {
    echo->text += std::string(key) + ":array\n";
    return;
  }
  void *value = nullptr;
  size_t size = 0;
  bundle_keyval_get_basic_val(keyval, &value, &size);
  if (type == BUNDLE_TYPE_BYTE)
    echo->text += std::string(key) + ":byte:" + std::to_string(size) + "\n";
  else
    echo->text += std::string(key) + ":str:" + static_cast<const char *>(value) + "\n";
}

}  // namespace

std::string GetString(bundle *b, const char *key, const std::string &fallback) {
  char *value = nullptr;
  if (!b || bundle_get_str(b, key, &value) != 0 || !value)
    return fallback;
  return value;
}

Reply ReplyOf(bundle *request) {
  std::string reply = GetString(request, "sample_reply");
  if (reply == "wrong_keys")
    return Reply::WrongKeys;
  if (reply == "silent")
    return Reply::Silent;
  if (reply == "crash")
    return Reply::Crash;
  return Reply::Normal;
}

unsigned DelayOf(bundle *request) {
  std::string delay = GetString(request, "sample_delay_ms", "0");
  return static_cast<unsigned>(strtoul(delay.c_str(), nullptr, 10));
}

bool IsStateRequest(bundle *request) {
  // The assistant marks its state requests with "type" = "PunchIn"; the action id is
  // "getAppContext" unless the caller chose its own.
  return GetString(request, "actionId") == "getAppContext" ||
         GetString(request, "type") == "PunchIn";
}

std::string AnswerText(bundle *request) {
  if (IsStateRequest(request)) {
    // The context the assistant reads: what the app shows now, and its capsule.
    const char *capsule = getenv("TALVO_SAMPLE_CAPSULE_ID");
    std::string fallback = std::string("{\"concepts\":[{\"type\":\"screen\",\"value\":\"home\"}],") +
                           "\"capsuleId\":\"" + (capsule ? capsule : "sample.capsule") + "\"}";
    return GetString(request, "sample_context", fallback);
  }
  std::string action = GetString(request, "actionId", "none");
  return GetString(request, "sample_result", "{\"actionId\":\"" + action + "\",\"done\":true}");
}

bundle *BuildAnswer(bundle *request, bool withText) {
  bundle *answer = bundle_create();
  if (!answer)
    return nullptr;

  bundle_add_str(answer, "status_code", GetString(request, "sample_status", kSuccess).c_str());
  bundle_add_str(answer, "status_msg", "Handled by the sample companion app");

  if (withText && ReplyOf(request) != Reply::WrongKeys) {
    const char *key = IsStateRequest(request) ? "appContext" : "result";
    bundle_add_str(answer, key, AnswerText(request).c_str());
  }

  if (!GetString(request, "sample_echo").empty()) {
    EchoState echo;
    bundle_foreach(request, EchoEntry, &echo);
    bundle_add_str(answer, "echo", echo.text.c_str());
  }
  return answer;
}

std::string OwnAppId() {
  const char *id = getenv("VELNA_APP_ID");
  return id ? id : "";
}

}  // namespace sample
