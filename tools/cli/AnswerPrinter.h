// Prints an answer bundle as readable lines or as one JSON document, and tells a
// failure answer from a success.
#pragma once

#include <bundle.h>
#include <json-glib/json-glib.h>

#include <functional>
#include <string>

namespace cli {

enum class EntryKind { kString, kBytes, kArray, kUnreadable };
// Called with each entry: value and size for a string (NUL-terminated) or byte value,
// nullptr and 0 otherwise. value is borrowed from the bundle.
using EntryVisitor =
    std::function<void(const char *key, EntryKind kind, const void *value, size_t size)>;

// Visits b's entries in order.
void ForEachEntry(bundle *b, const EntryVisitor &visit);

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
