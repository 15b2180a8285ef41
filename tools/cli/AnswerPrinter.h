// Prints an answer bundle as readable lines or as one JSON document, and tells a
// failure answer from a success.
#pragma once

#include <bundle.h>
#include <json-glib/json-glib.h>

#include <string>

namespace cli {

// Plain form: one "key: value" line per entry, in the bundle's order.
std::string AnswerAsText(const std::string &appId, bundle *answer);

// JSON form: {"app": ..., "answer": {...}} (a new node); a "result" or "appContext" that
// holds a JSON object or array is embedded as JSON rather than as a string, byte values
// are base64 text.
JsonNode *AnswerAsJson(const std::string &appId, bundle *answer);

// True for the library's own failure answer and for an answer whose "status_code" is
// present and not "ACTION_EXECUTION_SUCCESS".
bool IsFailureAnswer(bundle *answer);

}  // namespace cli
