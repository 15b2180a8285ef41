// Prints an answer bundle as readable lines or as one JSON document.
#pragma once

#include <bundle.h>

#include <string>

namespace cli {

// Plain form: one "key: value" line per entry, in the bundle's order.
std::string AnswerAsText(const std::string &appId, bundle *answer);

// JSON form: {"app": ..., "answer": {...}}, pretty-printed; an "appContext" that holds
// JSON is embedded as a value rather than as a string.
std::string AnswerAsJson(const std::string &appId, bundle *answer);

}  // namespace cli
