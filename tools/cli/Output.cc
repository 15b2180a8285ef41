#include "Output.h"

#include <cstdio>
#include <memory>

namespace cli {

const char *ExitCodeMeaning(int code) {
  switch (code) {
    case kExitOk: return "success";
    case kExitFailed: return "refused, failure answer, action not declared or no focused app";
    case kExitUsage: return "bad command line";
    case kExitTimeout: return "no answer in time";
    case kExitEnvironment: return "app not installed, no system bus or runtime directory unusable";
    default: return "unknown";
  }
}

void PrintJson(JsonStyle style, JsonNode *root) {
  JsonGenerator *generator = json_generator_new();
  json_generator_set_pretty(generator, style != JsonStyle::kShort);
  json_generator_set_root(generator, root);
  gchar *text = json_generator_to_data(generator, nullptr);
  std::printf("%s\n", text);
  std::fflush(stdout);
  g_free(text);
  g_object_unref(generator);
  json_node_unref(root);
}

void PrintObject(JsonStyle style, JsonObject *object) {
  JsonNode *root = json_node_new(JSON_NODE_OBJECT);
  json_node_take_object(root, object);
  PrintJson(style, root);
}

int Fail(const CliOptions &options, int code, const std::string &message, JsonNode *details) {
  if (options.json == JsonStyle::kNone) {
    std::fprintf(stderr, "talvo-cli: %s\n", message.c_str());
    if (details) json_node_unref(details);
    return code;
  }
  JsonObject *object = json_object_new();
  json_object_set_string_member(object, "error", message.c_str());
  json_object_set_int_member(object, "exitCode", code);
  json_object_set_string_member(object, "meaning", ExitCodeMeaning(code));
  if (details) json_object_set_member(object, "details", details);
  PrintObject(options.json, object);
  return code;
}

JsonNode *ParseJsonContainer(const char *text) {
  if (!text || (*text != '{' && *text != '[')) return nullptr;
  std::unique_ptr<JsonParser, decltype(&g_object_unref)> parser(json_parser_new(),
                                                                g_object_unref);
  if (!json_parser_load_from_data(parser.get(), text, -1, nullptr)) return nullptr;
  JsonNode *root = json_parser_get_root(parser.get());
  return root ? json_node_copy(root) : nullptr;
}

JsonNode *StringNode(const std::string &text) {
  JsonNode *node = json_node_new(JSON_NODE_VALUE);
  json_node_set_string(node, text.c_str());
  return node;
}

}  // namespace cli
