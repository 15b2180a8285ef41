/* Shared internals: hooks that the transports give the main loop. */
#ifndef VELNA_MAIN_LOOP_INTERNAL_H
#define VELNA_MAIN_LOOP_INTERNAL_H

/* Called by velna_main_loop_quit with the time left (ms) to flush queued sends. */
typedef void (*velna_flush_hook)(int timeout_ms);
void velna_main_loop_add_flush_hook(velna_flush_hook hook);

#endif
