// What talvo-cli prints: JSON documents in the chosen style, and failures either as one
// line on stderr or, with --json, as one JSON document on stdout.
#pragma once

#include <json-glib/json-glib.h>

#include <string>

#include "CliOptions.h"

namespace cli {

// What an exit code means, as the help words it.
const char *ExitCodeMeaning(int code);

// Prints root (taken over) as one document: one line for JsonStyle::kShort, indented
// for kPretty.
void PrintJson(JsonStyle style, JsonNode *root);

// Prints object (taken over) as one document.
void PrintObject(JsonStyle style, JsonObject *object);

// Reports a failure and returns code. details (taken over, may be nullptr) are added
// to the JSON document as member "details".
int Fail(const CliOptions &options, int code, const std::string &message,
         JsonNode *details = nullptr);

// The text as a JSON value when it holds a JSON object or array, else nullptr.
JsonNode *ParseJsonContainer(const char *text);

// A JSON string node.
JsonNode *StringNode(const std::string &text);

}  // namespace cli
