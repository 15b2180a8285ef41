#include "AnswerPrinter.h"

#include <json-glib/json-glib.h>

#include <cstring>

#include "Output.h"

namespace cli {

namespace {

// The answer that the library makes itself when an app does not come up in time.
const char kLibraryFailure[] = "{\"result\":\"Failure\"}";
const char kSuccessCode[] = "ACTION_EXECUTION_SUCCESS";

void VisitEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *visit = static_cast<const EntryVisitor *>(data);
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  void *value = nullptr;
  size_t size = 0;
  if (bundle_keyval_type_is_array(entry) == 1) {
    (*visit)(key, EntryKind::kArray, nullptr, 0);
  } else if (bundle_keyval_get_basic_val(entry, &value, &size) != 0) {
    (*visit)(key, EntryKind::kUnreadable, nullptr, 0);
  } else {
    (*visit)(key, type == BUNDLE_TYPE_STR ? EntryKind::kString : EntryKind::kBytes, value, size);
  }
}

// A JSON node for a string value: the JSON it holds for "result" and "appContext",
// else the string.
JsonNode *ValueNode(const char *key, const char *text) {
  std::string name = key;
  JsonNode *parsed = name == "appContext" || name == "result" ? ParseJsonContainer(text)
                                                               : nullptr;
  return parsed ? parsed : StringNode(text);
}

}  // namespace

void ForEachEntry(bundle *b, const EntryVisitor &visit) {
  bundle_foreach(b, VisitEntry, const_cast<EntryVisitor *>(&visit));
}

std::string AnswerAsText(const std::string &appId, bundle *answer) {
  std::string out = "app: " + appId + "\n";
  ForEachEntry(answer, [&out](const char *key, EntryKind kind, const void *value, size_t size) {
    out += std::string(key) + ": ";
    if (kind == EntryKind::kString)
      out += static_cast<const char *>(value);
    else if (kind == EntryKind::kBytes)
      out += "(" + std::to_string(size) + " bytes)";
    else
      out += kind == EntryKind::kArray ? "(array)" : "(unreadable)";
    out += "\n";
  });
  return out;
}

JsonNode *AnswerAsJson(const std::string &appId, bundle *answer) {
  JsonObject *fields = json_object_new();
  ForEachEntry(answer, [fields](const char *key, EntryKind kind, const void *value, size_t size) {
    if (kind == EntryKind::kString) {
      json_object_set_member(fields, key, ValueNode(key, static_cast<const char *>(value)));
    } else if (kind == EntryKind::kBytes) {
      gchar *encoded = g_base64_encode(static_cast<const guchar *>(value), size);
      json_object_set_string_member(fields, key, encoded);
      g_free(encoded);
    }
  });
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
