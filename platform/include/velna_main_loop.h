/* One main loop that dispatches GLib sources (default context) and ecore timers alike. */
#ifndef VELNA_MAIN_LOOP_H
#define VELNA_MAIN_LOOP_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

/* Idempotent: ecore_app_no_system_modules(), ecore_init() and the select function that
 * polls GLib's descriptors. 0, or -5 when ecore cannot be initialised. */
int velna_main_loop_init(void);
/* Initialises, registers the process as its VELNA_APP_ID when it has one, and runs
 * until velna_main_loop_quit. Not reentrant. */
int velna_main_loop_run(void);
/* Extension: runs the loop until done(data) returns true (checked every 5 ms) or
 * timeout_ms has passed. 1 when done() became true, 0 on time-out, a negative errno value
 * when the loop cannot run (-16 when it already runs). */
int velna_main_loop_run_until(bool (*done)(void *data), void *data, int timeout_ms);
/* Flushes queued sends (for at most 2 s), then makes velna_main_loop_run return. */
void velna_main_loop_quit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
