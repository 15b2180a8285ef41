/* The Talvo proxy: reach companion apps on the same device from an assistant process.
 *
 * Call talvo_proxy_initialize() once on the thread that runs the process's main loop
 * (velna_main_loop_run), make requests from that thread, and talvo_proxy_deinitialize()
 * when done. Answers arrive later, on the main loop, through the request's callback. */
#ifndef TALVO_PROXY_H
#define TALVO_PROXY_H

#include <stdbool.h>

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TALVO_PROXY_API __attribute__((visibility("default")))

/* The result callback of both request functions. app_id and result are owned by the
 * library and valid only during the call; user_data is the request's, unchanged. Called
 * at most once per request, never from inside the request function. */
typedef void (*talvo_proxy_result_cb)(const char *app_id, bundle *result, void *user_data);

/* 0 (also when already initialised), or -12 when an instance cannot be made. */
TALVO_PROXY_API int talvo_proxy_initialize(void);

/* Drops every pending request without calling its callback. Always 0, or -12. */
TALVO_PROXY_API int talvo_proxy_deinitialize(void);

/* The id of the app whose window has the focus, newly allocated (free with free()), or
 * NULL when not initialised or when no app can be found. */
TALVO_PROXY_API char *talvo_proxy_get_focused_app_id(void);

/* Asks a running app for its context. The library adds "actionId" = "getAppContext" and
 * "type" = "PunchIn" to data (keys already present keep their values); data stays the
 * caller's. 0 when the request was recorded and handed to sending; -1073741825 when not
 * initialised or the app does not run; -1073741826 when the running state cannot be
 * read; -12; -22 for a null app id; other codes from sending. */
TALVO_PROXY_API int talvo_proxy_app_state_request(const char *app_id, bundle *data,
                                                  talvo_proxy_result_cb callback,
                                                  void *user_data);

/* Asks an app to execute the action that data describes, launching or connecting it when
 * needed. data is not changed and stays the caller's. Results as for the state request. */
TALVO_PROXY_API int talvo_proxy_app_action_execution(const char *app_id, bundle *data,
                                                     talvo_proxy_result_cb callback,
                                                     void *user_data);

/* True when the installed app declares action_id in its action-id metadata; false in
 * every other case. Needs no initialisation. */
TALVO_PROXY_API bool talvo_proxy_is_action_registered(const char *app_id,
                                                      const char *action_id);

#ifdef __cplusplus
}
#endif

#endif
