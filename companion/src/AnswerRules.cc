#include "AnswerRules.h"

#include <json-glib/json-glib.h>

namespace companion {

const AnswerKeys kResultKeys = {"result", "chunk_result", "last_chunk"};
const AnswerKeys kContextKeys = {"appContext", "app_state_chunk_result", "app_state_last_chunk"};

bool IsReservedKey(const std::string &key) {
  for (const char *reserved : {"status_code", "status_msg", kResultKeys.text, kResultKeys.piece,
                               kResultKeys.marker, kContextKeys.text, kContextKeys.piece,
                               kContextKeys.marker})
    if (key == reserved) return true;
  return false;
}

std::string ContextProblem(const std::string &statusCode, const char *contextJson) {
  JsonParser *parser = json_parser_new();
  GError *error = nullptr;
  std::string problem;
  if (!json_parser_load_from_data(parser, contextJson, -1, &error)) {
    problem = std::string("the context is not JSON (") + error->message + ")";
    g_error_free(error);
  } else if (!json_parser_get_root(parser) ||
             !JSON_NODE_HOLDS_OBJECT(json_parser_get_root(parser))) {
    problem = "the context is not a JSON object";
  } else if (statusCode == "ACTION_EXECUTION_SUCCESS" &&
             !json_object_has_member(json_node_get_object(json_parser_get_root(parser)),
                                     "concepts")) {
    problem = "a context sent with status ACTION_EXECUTION_SUCCESS must have a \"concepts\" "
              "member, else the client gets \"Json failure because of missing parameter\"";
  }
  g_object_unref(parser);
  return problem;
}

BundlePtr FinalMessage(const AnswerContent &content, const AnswerKeys &keys,
                       const char *text) {
  BundlePtr message(bundle_create());
  if (!message) return nullptr;
  bundle_add_str(message.get(), "status_code", content.statusCode.c_str());
  bundle_add_str(message.get(), "status_msg", content.statusMsg.c_str());
  if (text) bundle_add_str(message.get(), keys.text, text);
  for (const auto &extra : content.extras)
    bundle_add_str(message.get(), extra.first.c_str(), extra.second.c_str());
  return message;
}

}  // namespace companion
