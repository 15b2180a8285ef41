// What every sample companion app answers, whichever mechanism carries it: an action
// gets a JSON result naming it, a context request a context with "concepts" and a
// "capsuleId".
//
// Keys of the request that change the answer (a real app would not have them; they let
// a test or a demo drive the sample):
//   "sample_status"      status code to report instead of ACTION_EXECUTION_SUCCESS
//   "sample_result"      result text to report
//   "sample_context"     context text to report, verbatim (need not be JSON)
//   "sample_reply"       "silent": no answer; "crash": the app aborts; "wrong_keys"
//                        (message port only): an answer with none of the answer keys
//   "sample_delay_ms"    answer after this many milliseconds
//   "sample_chunk_size"  n > 0: message port only, send answers above n bytes in pieces
//   "sample_echo"        any value: add "echo", one "key:str:value" or "key:byte:size"
//                        line per entry of the request as it arrived
// Environment: TALVO_SAMPLE_CAPSULE_ID, the capsule id inside the default context.
#pragma once

#include <bundle.h>

#include <string>

namespace sample {

// The string under key, or fallback when there is none.
std::string GetString(bundle *b, const char *key, const std::string &fallback = "");

// The text an answer carries: the context for a context request, the result otherwise.
std::string AnswerText(bundle *request, bool context);

// The "echo" text of the request's entries.
std::string EchoText(bundle *request);

}  // namespace sample
