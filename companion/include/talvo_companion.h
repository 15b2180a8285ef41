/* The companion-app side of the Talvo proxy: one object that serves an assistant's
 * requests over whichever mechanism the app's manifest selects, and answer objects that
 * only ever send answers the assistant's library can read.
 *
 * Everything runs on the app's main loop (velna_main_loop_run()); no call may be made
 * from another thread. Functions return 0 or a negative errno value and log the reason
 * of every refusal under the tag "TALVO_COMPANION".
 */
#ifndef TALVO_COMPANION_H
#define TALVO_COMPANION_H

#include <bundle.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes the assistant knows. Any other text may be sent; only the success code
 * obliges a context to carry "concepts". */
#define TALVO_COMPANION_STATUS_SUCCESS "ACTION_EXECUTION_SUCCESS"
#define TALVO_COMPANION_STATUS_FAILURE "ACTION_EXECUTION_FAILURE"

/* Message-port answers longer than this many bytes go out in pieces. */
#define TALVO_COMPANION_DEFAULT_CHUNK_SIZE (32u * 1024u)

typedef struct talvo_companion_s *talvo_companion_h;
/* One request's pending answer. An opaque handle, valid from the handler call until the
 * answer is sent or dropped; a handle used after that is refused (-114), never
 * dereferenced. */
typedef struct talvo_companion_answer_s *talvo_companion_answer_h;

typedef enum {
        TALVO_COMPANION_MECHANISM_FROM_MANIFEST = 0, /* the default */
        TALVO_COMPANION_MECHANISM_MESSAGE_PORT = 1,  /* port "TALVO_APP_SDK_PORT_516" */
        TALVO_COMPANION_MECHANISM_RPC_PORT = 2,      /* rpc-port "message" */
} talvo_companion_mechanism_e;

/* A request from the assistant. client_app_id and request are borrowed for the call
 * (copy what you need later); answer is the app's until it sends or drops it, from inside
 * the handler or later from any event of the main loop. */
typedef void (*talvo_companion_request_cb)(const char *client_app_id, bundle *request,
                                           talvo_companion_answer_h answer, void *user_data);

/* An rpc-port client went away; answers still pending for it are refused with -107. */
typedef void (*talvo_companion_disconnected_cb)(const char *client_app_id, void *user_data);

/* Creates the app's companion object from VELNA_APP_ID and the app's own manifest. Action
 * requests go to on_action, context requests ("type" = "PunchIn" or "actionId" =
 * "getAppContext") to on_context. One object per process.
 * -22: a null handler or out pointer, or no valid VELNA_APP_ID; -2: no manifest for the
 * app id; -5: the manifest cannot be read; -16: another object exists; -12. */
int talvo_companion_create(talvo_companion_request_cb on_action,
                           talvo_companion_request_cb on_context, void *user_data,
                           talvo_companion_h *companion);

/* Ends serving and drops every pending answer; the message port cannot be unregistered
 * and ignores what arrives afterwards. NULL is accepted. */
void talvo_companion_destroy(talvo_companion_h companion);

/* Before talvo_companion_start (-16 afterwards). Choosing a mechanism other than the
 * manifest's means the library will not reach the app: meant for test rigs. */
int talvo_companion_set_mechanism(talvo_companion_h companion,
                                  talvo_companion_mechanism_e mechanism);
/* Message port only: answers above bytes (> 0) are sent in pieces. */
int talvo_companion_set_chunk_size(talvo_companion_h companion, size_t bytes);
int talvo_companion_set_disconnected_cb(talvo_companion_h companion,
                                        talvo_companion_disconnected_cb callback,
                                        void *user_data);
/* rpc-port: the value the app answers the client's SetCB and UnsetCB with (default 0).
 * Non-zero refuses the client's callback, so the client never counts the app as
 * connected: meant for testing clients. */
int talvo_companion_set_callback_result(talvo_companion_h companion, int result);

/* Registers the port or listens on "message". Requests arrive from the next loop turn. */
int talvo_companion_start(talvo_companion_h companion);

/* The mechanism served; the app id, borrowed, valid while the object lives. */
talvo_companion_mechanism_e talvo_companion_get_mechanism(talvo_companion_h companion);
const char *talvo_companion_get_app_id(talvo_companion_h companion);

/* Status of the answer; default TALVO_COMPANION_STATUS_SUCCESS with an empty message.
 * Both strings are copied. */
int talvo_companion_answer_set_status(talvo_companion_answer_h answer, const char *code,
                                      const char *message);
/* An extra string entry for the client, copied. The keys the answer protocol uses
 * ("status_code", "status_msg", "result", "appContext" and the piece keys) are refused
 * (-22); a key added before, -17. */
int talvo_companion_answer_add_str(talvo_companion_answer_h answer, const char *key,
                                   const char *value);

/* Sends the answer of an action request with result as its "result" text and ends the
 * answer. -22 (the answer stays pending): null result, or a context request. */
int talvo_companion_answer_send_result(talvo_companion_answer_h answer, const char *result);
/* Sends the answer of a context request and ends the answer. -22 (the answer stays
 * pending): an action request, context_json not a JSON object, or a success status with a
 * context lacking "concepts" (the client would get "Json failure because of missing
 * parameter"). */
int talvo_companion_answer_send_context(talvo_companion_answer_h answer,
                                        const char *context_json);
/* Sends any non-null context text as it is, for an app that knows what the client will
 * then receive. */
int talvo_companion_answer_send_context_unchecked(talvo_companion_answer_h answer,
                                                  const char *context);
/* After a send that ran (0 or a transport error such as -107 for a client that is gone,
 * -2 for a port that is gone) the handle is ended. */

/* Ends the answer without sending anything: the client's request stays unanswered. */
void talvo_companion_answer_drop(talvo_companion_answer_h answer);

#ifdef __cplusplus
}
#endif

#endif
