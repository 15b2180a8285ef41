#include "SampleAnswer.h"

#include <cstdlib>

namespace sample {

namespace {

void EchoEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *echo = static_cast<std::string *>(data);
  auto *keyval = const_cast<bundle_keyval_t *>(kv);
  if (bundle_keyval_type_is_array(keyval)) {
    *echo += std::string(key) + ":array\n";
    return;
  }
  void *value = nullptr;
  size_t size = 0;
  bundle_keyval_get_basic_val(keyval, &value, &size);
  if (type == BUNDLE_TYPE_BYTE)
    *echo += std::string(key) + ":byte:" + std::to_string(size) + "\n";
  else
    *echo += std::string(key) + ":str:" + static_cast<const char *>(value) + "\n";
}

}  // namespace

std::string GetString(bundle *b, const char *key, const std::string &fallback) {
  char *value = nullptr;
  if (!b || bundle_get_str(b, key, &value) != 0 || !value)
    return fallback;
  return value;
}

std::string AnswerText(bundle *request, bool context) {
  if (context) {
    // The context the assistant reads: what the app shows now, and its capsule.
    const char *capsule = getenv("TALVO_SAMPLE_CAPSULE_ID");
    return std::string("{\"concepts\":[{\"type\":\"screen\",\"value\":\"home\"}],") +
           "\"capsuleId\":\"" + (capsule ? capsule : "sample.capsule") + "\"}";
  }
  std::string action = GetString(request, "actionId", "none");
  return GetString(request, "sample_result", "{\"actionId\":\"" + action + "\",\"done\":true}");
}

std::string EchoText(bundle *request) {
  std::string echo;
  bundle_foreach(request, EchoEntry, &echo);
  return echo;
}

}  // namespace sample
