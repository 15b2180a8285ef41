#include "AnswerPrinter.h"

#include <json-glib/json-glib.h>

#include <memory>

namespace cli {

namespace {

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

// A JSON node for a string value: parsed JSON for "appContext", else the string.
JsonNode *ValueNode(const char *key, const char *text) {
  if (std::string(key) == "appContext" && *text) {
    std::unique_ptr<JsonParser, decltype(&g_object_unref)> parser(json_parser_new(),
                                                                  g_object_unref);
    if (json_parser_load_from_data(parser.get(), text, -1, nullptr) &&
        json_parser_get_root(parser.get()))
      return json_node_copy(json_parser_get_root(parser.get()));
  }
  JsonNode *node = json_node_new(JSON_NODE_VALUE);
  json_node_set_string(node, text);
  return node;
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

std::string AnswerAsJson(const std::string &appId, bundle *answer) {
  JsonObject *fields = json_object_new();
  bundle_foreach(answer, AppendEntryJson, fields);
  JsonObject *top = json_object_new();
  json_object_set_string_member(top, "app", appId.c_str());
  json_object_set_object_member(top, "answer", fields);  // takes fields over

  JsonNode *root = json_node_new(JSON_NODE_OBJECT);
  json_node_take_object(root, top);
  std::string out = PrettyJson(root);
  json_node_unref(root);
  return out;
}

std::string PrettyJson(JsonNode *root) {
  JsonGenerator *generator = json_generator_new();
  json_generator_set_pretty(generator, TRUE);
  json_generator_set_root(generator, root);
  gchar *text = json_generator_to_data(generator, nullptr);
  std::string out = std::string(text) + "\n";
  g_free(text);
  g_object_unref(generator);
  return out;
}

}  // namespace cli
