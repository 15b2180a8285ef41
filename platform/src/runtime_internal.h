/* Shared internals: app ids, the runtime directory, socket names and the registry of
 * running apps. Not part of the public headers. */
#ifndef VELNA_RUNTIME_INTERNAL_H
#define VELNA_RUNTIME_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

/* Non-empty, at most 255 bytes, only ASCII letters, digits, '.', '_', '-', and not "."
 * or "..". */
bool velna_app_id_is_valid(const char *app_id);

/* The runtime directory (VELNA_RUNTIME_DIR, else $XDG_RUNTIME_DIR/velna, else
 * /tmp/velna-<uid>), created mode 0700 with its subdirectories when missing. 0 and a
 * newly allocated path (free with free()), -13 (and a log line naming the fix) when it
 * is not ours or is open to group or others, -5 when it cannot be made or is not a
 * directory, -12. */
int velna_runtime_dir(char **path);

/* Socket path for an endpoint (kind such as "mp" or "rpc", an app id and a port name),
 * hashed so that any valid app id fits a sun_path: <runtime>/s/<kind>-<hash>. Writes
 * into out (at least 108 bytes). -36 (and a log line) when the runtime directory leaves
 * no room, -5 when it cannot be made. */
int velna_socket_path(const char *kind, const char *app_id, const char *name, char *out,
                      size_t out_size);

/* VELNA_APP_ID of this process when it is set and valid, else NULL. Borrowed. */
const char *velna_self_app_id(void);

/* Claims this process's own VELNA_APP_ID in the running registry. 0 (also when already
 * claimed by this process), -22 without a valid id, -17 while another live process
 * holds it, -5 on an I/O error. */
int velna_self_register(void);

/* Records pid as the running instance of app_id (the launcher's registration). 0, -22,
 * -17 while another live process holds it, -2 when pid is not a live process of ours, -5. */
int running_registry_register(const char *app_id, pid_t pid);

/* Takes the lock that serialises every claim of app_id (the launcher holds it across
 * check, spawn and register). A descriptor for running_registry_unlock, or -22, -5. */
int running_registry_lock(const char *app_id);
void running_registry_unlock(int lock_fd);
/* running_registry_register for a caller that already holds the app's lock. */
int running_registry_register_locked(const char *app_id, pid_t pid);

/* The live registered pid of app_id: 0 and *pid, or -2 when it does not run (records of
 * dead, zombie or reused pids do not count), -22 for an invalid id. */
int running_registry_get_pid(const char *app_id, pid_t *pid);

/* The app id of a live registered pid: 0 and a newly allocated id, or -2. */
int running_registry_lookup_pid(pid_t pid, char **app_id);
/* The app id of a connected peer from its credentials' pid: as lookup_pid, and also
 * when that process has exited since, as long as no other process holds its pid. 0 and
 * a newly allocated id, or -2. */
int running_registry_identify_peer(pid_t pid, char **app_id);

/* True while pid names a live process that is not a zombie. */
bool velna_pid_alive(pid_t pid);

#endif
