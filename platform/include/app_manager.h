/* Application manager: running apps. */
#ifndef VELNA_APP_MANAGER_H
#define VELNA_APP_MANAGER_H

#include <stdbool.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

/* 0 and *running. -22 for an invalid app id or a null argument. */
int app_manager_is_running(const char *app_id, bool *running);
/* 0 and a newly allocated app id in *app_id (free with free()) of the live registered
 * process pid; -2 otherwise, -22 for bad arguments. */
int app_manager_get_app_id(pid_t pid, char **app_id);
/* Extension: ends the running app (SIGTERM, then SIGKILL after 2 s) and returns once it
 * is gone. 0, also when it was not running; -22 for an invalid app id. */
int app_manager_terminate_app(const char *app_id);
/* Extension: the file that receives the standard output and error of app_id when the
 * platform launches it: VELNA_LOG_FILE when set, else <runtime dir>/log/<app-id>.log.
 * 0 and a newly allocated path (free with free()); -22 for an invalid app id, or the
 * runtime directory's error. */
int app_manager_get_log_path(const char *app_id, char **path);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
