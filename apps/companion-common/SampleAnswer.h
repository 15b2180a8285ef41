// What every sample companion app answers, whichever mechanism carries it.
//
// A request names its action under "actionId"; a state request ("type" = "PunchIn",
// normally with "actionId" = "getAppContext") asks for the app's state.
// An action is answered with "status_code", "status_msg" and "result"; the state request
// with "status_code", "status_msg" and "appContext" (JSON text with "concepts" and a
// "capsuleId").
//
// Keys of the request that change the answer (a real app would not have them; they let
// a test or a demo drive the sample):
//   "sample_status"   status code to report instead of ACTION_EXECUTION_SUCCESS
//   "sample_result"   result text to report
//   "sample_context"  appContext text to report, verbatim (need not be JSON)
//   "sample_reply"    "wrong_keys": answer without "result" and "appContext";
//                     "silent": no answer; "crash": the app aborts
//   "sample_delay_ms" answer after this many milliseconds
//   "sample_echo"     any value: add "echo", one "key:str:value" or "key:byte:size" line
//                     per entry of the request as it arrived
#pragma once

#include <bundle.h>

#include <string>

namespace sample {

enum class Reply { Normal, WrongKeys, Silent, Crash };

// The string under key, or fallback when there is none.
std::string GetString(bundle *b, const char *key, const std::string &fallback = "");

Reply ReplyOf(bundle *request);
unsigned DelayOf(bundle *request);
bool IsStateRequest(bundle *request);

// The text an answer carries: the context for a state request, the result otherwise.
std::string AnswerText(bundle *request);

// An answer bundle (the caller frees it with bundle_free). With withText it carries
// AnswerText(request) under "appContext" or "result"; a chunked answer leaves the text
// out and adds its pieces itself.
bundle *BuildAnswer(bundle *request, bool withText = true);

// This process's app id (set by the launcher).
std::string OwnAppId();

}  // namespace sample
