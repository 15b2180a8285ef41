// Prints an answer bundle as readable lines or as one JSON document.
#pragma once

#include <bundle.h>
#include <json-glib/json-glib.h>

#include <string>

namespace cli {

// Plain form: one "key: value" line per entry, in the bundle's order.
std::string AnswerAsText(const std::string &appId, bundle *answer);

// JSON form: {"app": ..., "answer": {...}}, pretty-printed; an "appContext" that holds
// JSON is embedded as a value rather than as a string.
std::string AnswerAsJson(const std::string &appId, bundle *answer);

// root as pretty-printed JSON text with a final newline; root stays the caller's.
std::string PrettyJson(JsonNode *root);

}  // namespace cli
