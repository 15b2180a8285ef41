/* The Talvo proxy: reach companion apps on the same device from an assistant process.
 *
 * Threads and the loop. Call everything from the thread that runs the process's main loop
 * (velna_main_loop_run() or velna_main_loop_run_until() of <velna_main_loop.h>, which
 * dispatch GLib sources and ecore timers alike). The library starts no thread: answers,
 * launch and focus waits, connection events and the system-bus connection all make
 * progress only while that loop runs.
 *
 * Order. talvo_proxy_initialize() once; then any number of requests and focus queries;
 * talvo_proxy_deinitialize() when done (initialising again later is allowed).
 * talvo_proxy_is_action_registered() needs no initialisation.
 *
 * Callbacks. A request's callback runs later, from the main loop, at most once, and never
 * from inside the request function that registered it. Pending requests are kept per app
 * and per kind (one action request and one state request per app): a second request of
 * the same kind to the same app replaces the first, whose callback then never runs.
 * Answers are matched to requests by app id alone. talvo_proxy_deinitialize() drops every
 * pending request without calling its callback.
 *
 * What blocks. The request functions return at once: they read the app's manifest and
 * hand the request to a message port or an rpc-port connection, launching the app when it
 * does not run. The focused-app query blocks the loop (see below). While the loop runs,
 * the library may block it once per rpc-port connection that comes up, for at most the
 * platform's rpc-port read deadline (VELNA_RPC_TIMEOUT_MS), while it registers for the
 * app's answers. */
#ifndef TALVO_PROXY_H
#define TALVO_PROXY_H

#include <stdbool.h>

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TALVO_PROXY_API __attribute__((visibility("default")))

/* Results of the int functions. Every value a caller can see is named here; a request
 * function may also pass on what the platform reported while sending, which is one of
 * these too. */

/* Success; for a request: it was recorded and handed to sending (the answer comes later). */
#define TALVO_PROXY_ERROR_NONE 0
/* Out of memory (-ENOMEM): an instance, record or bundle could not be made, or the app's
 * metadata could not be obtained (an app that is not installed ends here). */
#define TALVO_PROXY_ERROR_OUT_OF_MEMORY (-12)
/* The platform refused the rpc-port connection to the app: the app's manifest lists the
 * clients allowed to connect, and this process's VELNA_APP_ID is not among them. */
#define TALVO_PROXY_ERROR_PERMISSION_DENIED (-13)
/* Invalid argument (-EINVAL): a null app id; or the platform refused the rpc-port
 * connection as an invalid app id or an I/O failure; or the app was reached over an
 * rpc-port connection that is not (or no longer) up. */
#define TALVO_PROXY_ERROR_INVALID_PARAMETER (-22)
/* Refused (bit pattern 0xBFFFFFFF): the library is not initialised, the app does not run
 * (state request), or the platform refused to launch the app. */
#define TALVO_PROXY_ERROR_REFUSED (-1073741825)
/* The platform failed (bit pattern 0xBFFFFFFE): the app's running state could not be
 * read (state request), or the platform or the rpc-port connection refused the send. */
#define TALVO_PROXY_ERROR_PLATFORM (-1073741826)

/* The result callback of both request functions.
 * app_id: the app that answered; owned by the library, valid only during the call.
 * result: the app's answer (for a state request, "appContext" holds a JSON envelope that
 *   names the app, its version and capsule id); owned by the library, valid only during
 *   the call: neither free nor keep it (copy what you need, e.g. with bundle_dup()).
 * user_data: the pointer given with the request, unchanged.
 * For an action request the answer may be the library's own {"result":"Failure"} in
 * "result", when the app was launched or connected but never became reachable (about
 * 10 s). Some requests end with no answer at all: see the README. */
typedef void (*talvo_proxy_result_cb)(const char *app_id, bundle *result, void *user_data);

/* Starts the library: registers this process's message port (the process needs a
 * VELNA_APP_ID), brings up ecore so that requests can wait on timers, and asks the system
 * bus (DBUS_SYSTEM_BUS_ADDRESS is honoured) for the name "org.velna.talvo.sdk.proxy".
 * The bus connection arrives later, on the main loop: until the loop has run, and while no
 * system bus answers, the focused-app query answers NULL. Failures inside these steps are
 * logged, not returned.
 * Returns TALVO_PROXY_ERROR_NONE (also when already initialised), or
 * TALVO_PROXY_ERROR_OUT_OF_MEMORY when the library's instances cannot be made. */
TALVO_PROXY_API int talvo_proxy_initialize(void);

/* Drops every pending request without calling its callback and forgets the apps'
 * metadata. Keeps the message port, the bus name and the bus connection.
 * Returns TALVO_PROXY_ERROR_NONE (also when not initialised), or
 * TALVO_PROXY_ERROR_OUT_OF_MEMORY when the library's instance cannot be made. */
TALVO_PROXY_API int talvo_proxy_deinitialize(void);

/* The id of the app whose window has the focus: newly allocated, the caller frees it with
 * free(). NULL when not initialised, before the bus connection has come up (the loop must
 * have run since talvo_proxy_initialize(); the caller cannot observe that moment, so turn
 * the loop and ask again), when the window manager does not answer, or when no window's
 * owner is a known app.
 * Blocks the calling thread and its loop: it asks the window manager over D-Bus with a
 * synchronous call and D-Bus's default time-out (about 25 s). The process's first
 * successful layout is remembered; until one is, a window manager that does not answer
 * costs two such calls per query. */
TALVO_PROXY_API char *talvo_proxy_get_focused_app_id(void);

/* Asks a running app for its context. The answer carries "appContext": a JSON envelope
 * with the app's id, version, capsule id and its own context text.
 * app_id: copied; stays the caller's. data: the request; the library adds "actionId" =
 * "getAppContext" and "type" = "PunchIn" to it (keys already present keep their values),
 * and otherwise leaves it the caller's: not freed, not kept after the call returns.
 * callback, user_data: see talvo_proxy_result_cb; the callback runs later, at most once.
 * Returns TALVO_PROXY_ERROR_NONE when the request was recorded and handed to sending;
 * TALVO_PROXY_ERROR_REFUSED when not initialised or the app does not run;
 * TALVO_PROXY_ERROR_PLATFORM when the running state cannot be read;
 * TALVO_PROXY_ERROR_INVALID_PARAMETER for a null app id;
 * TALVO_PROXY_ERROR_OUT_OF_MEMORY; or what sending reported (any result above). A
 * request refused with TALVO_PROXY_ERROR_OUT_OF_MEMORY for missing metadata stays
 * recorded: should that app answer later, the callback runs. */
TALVO_PROXY_API int talvo_proxy_app_state_request(const char *app_id, bundle *data,
                                                  talvo_proxy_result_cb callback,
                                                  void *user_data);

/* Asks an app to execute the action that data describes ("actionId" and the action's own
 * keys), launching or connecting the app when needed.
 * app_id: copied. data: not changed and stays the caller's; the library sends it at once
 * or keeps its own copy while the app starts, so it may be freed when the call returns.
 * callback, user_data: see talvo_proxy_result_cb; the callback runs later, at most once.
 * Returns TALVO_PROXY_ERROR_NONE when the request was recorded and handed to sending;
 * TALVO_PROXY_ERROR_REFUSED when not initialised or the launch was refused;
 * TALVO_PROXY_ERROR_OUT_OF_MEMORY (also for an app that is not installed);
 * TALVO_PROXY_ERROR_INVALID_PARAMETER for a null app id; or what sending reported
 * (TALVO_PROXY_ERROR_PERMISSION_DENIED, TALVO_PROXY_ERROR_INVALID_PARAMETER,
 * TALVO_PROXY_ERROR_PLATFORM). */
TALVO_PROXY_API int talvo_proxy_app_action_execution(const char *app_id, bundle *data,
                                                     talvo_proxy_result_cb callback,
                                                     void *user_data);

/* True when the installed app declares action_id in its action-id metadata; false in
 * every other case (null arguments, an app that is not installed). Both strings stay the
 * caller's. Reads the app's manifest; needs no initialisation and no main loop. */
TALVO_PROXY_API bool talvo_proxy_is_action_registered(const char *app_id,
                                                      const char *action_id);

#ifdef __cplusplus
}
#endif

#endif
