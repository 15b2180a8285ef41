/* Application control: launch requests. */
#ifndef VELNA_APP_CONTROL_H
#define VELNA_APP_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef struct app_control_s *app_control_h;

typedef void (*app_control_reply_cb)(app_control_h request, app_control_h reply, int result,
                                     void *user_data);

int app_control_create(app_control_h *app_control);
int app_control_destroy(app_control_h app_control);
/* Both setters copy the string. */
int app_control_set_operation(app_control_h app_control, const char *operation);
int app_control_set_app_id(app_control_h app_control, const char *app_id);
/* Starts the app's Exec detached and returns at once: 0 when the process was started or
 * the app already runs (no second instance); -22 for a handle without a valid app id,
 * -2 for an app that is not installed or has no Exec, -5 when the spawn fails. The
 * reply callback, when given, is called on a later loop turn with the same result. */
int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb callback,
                                    void *user_data);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
