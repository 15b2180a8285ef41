/* Shared internals: spawning apps. */
#ifndef VELNA_LAUNCHER_INTERNAL_H
#define VELNA_LAUNCHER_INTERNAL_H

#include <sys/types.h>

/* Starts the app's Exec detached with the caller's environment plus VELNA_APP_ID and
 * VELNA_APP_CONTROL_OPERATION (when operation is not NULL), stdin from /dev/null, stdout
 * and stderr appended to the file app_manager_get_log_path names, and registers it as running. Returns 0
 * and the pid (new or already running; *started tells which), -22 invalid id, -2 not
 * installed or no Exec, -5 failed spawn. Either out pointer may be NULL. */
int velna_launch(const char *app_id, const char *operation, pid_t *pid, int *started);

#endif
