// The keys an answer carries and the rules a context must meet for the assistant's
// library to hand it to the client.
#pragma once

#include <bundle.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace companion {

struct BundleDeleter {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleDeleter>;

// The keys of both kinds of answer.
struct AnswerKeys {
  const char *text;    // "result" or "appContext"
  const char *piece;   // "chunk_result" or "app_state_chunk_result"
  const char *marker;  // "last_chunk" or "app_state_last_chunk"
};
extern const AnswerKeys kResultKeys;
extern const AnswerKeys kContextKeys;

// What an answer says, collected until it is sent.
struct AnswerContent {
  std::string statusCode = "ACTION_EXECUTION_SUCCESS";
  std::string statusMsg;
  std::vector<std::pair<std::string, std::string>> extras;  // in order added
};

// True for the keys the SDK itself writes, which an app may not add.
bool IsReservedKey(const std::string &key);

// Why the client would not get this context inside its envelope, or "" when it would.
// A context must be a JSON object; with the success status it must have "concepts".
std::string ContextProblem(const std::string &statusCode, const char *contextJson);

// The message that closes an answer: status, extras and, when text is not null, the text
// under the kind's text key. Null when a bundle cannot be made.
BundlePtr FinalMessage(const AnswerContent &content, const AnswerKeys &keys,
                       const char *text);

}  // namespace companion
