#include "AnswerPrinter.h"

#include <json-glib/json-glib.h>

#include <cstring>

#include "Output.h"

namespace cli {

namespace {

// The answer that the library makes itself when an app does not come up in time.
const char kLibraryFailure[] = "{\"result\":\"Failure\"}";
const char kSuccessCode[] = "ACTION_EXECUTION_SUCCESS";

struct TextWalk {
  std::string out;
};

void AppendEntryText(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *walk = static_cast<TextWalk *>(data);
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  void *value = nullptr;
  size_t size = 0;
  walk->out += std::string(key) + ": ";
  if (bundle_keyval_type_is_array(entry) == 1)
    walk->out += "(array)";
  else if (bundle_keyval_get_basic_val(entry, &value, &size) != 0)
    walk->out += "(unreadable)";
  else if (type == BUNDLE_TYPE_STR)
    walk->out += static_cast<const char *>(value);
  else
    walk->out += "(" + std::to_string(size) + " bytes)";
  walk->out += "\n";
}

// A JSON node for a string value: the JSON it holds for "result" and "appContext",
// else the string.
JsonNode *ValueNode(const char *key, const char *text) {
  std::string name = key;
  JsonNode *parsed = name == "appContext" || name == "result" ? ParseJsonContainer(text)
                                                               : nullptr;
  return parsed ? parsed : StringNode(text);
}

void AppendEntryJson(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *object = static_cast<JsonObject *>(data);
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  void *value = nullptr;
  size_t size = 0;
  if (bundle_keyval_type_is_array(entry) == 1 ||
      bundle_keyval_get_basic_val(entry, &value, &size) != 0)
    return;
  if (type == BUNDLE_TYPE_STR) {
    json_object_set_member(object, key, ValueNode(key, static_cast<const char *>(value)));
  } else {
    gchar *encoded = g_base64_encode(static_cast<const guchar *>(value), size);
    json_object_set_string_member(object, key, encoded);
    g_free(encoded);
  }
}

}  // namespace

std::string AnswerAsText(const std::string &appId, bundle *answer) {
  TextWalk walk;
  walk.out = "app: " + appId + "\n";
  bundle_foreach(answer, AppendEntryText, &walk);
  return walk.out;
}

JsonNode *AnswerAsJson(const std::string &appId, bundle *answer) {
  JsonObject *fields = json_object_new();
  bundle_foreach(answer, AppendEntryJson, fields);
  JsonObject *top = json_object_new();
  json_object_set_string_member(top, "app", appId.c_str());
  json_object_set_object_member(top, "answer", fields);  // takes fields over
  JsonNode *root = json_node_new(JSON_NODE_OBJECT);
  json_node_take_object(root, top);
  return root;
}

bool IsFailureAnswer(bundle *answer) {
  char *text = nullptr;
  if (bundle_get_str(answer, "result", &text) == 0 && text &&
      std::strcmp(text, kLibraryFailure) == 0)
    return true;
  return bundle_get_str(answer, "status_code", &text) == 0 && text &&
         std::strcmp(text, kSuccessCode) != 0;
}

}  // namespace cli
