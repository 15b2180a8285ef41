/* Message port: connectionless, ordered messages between named ports of apps. */
#ifndef VELNA_MESSAGE_PORT_H
#define VELNA_MESSAGE_PORT_H

#include <stdbool.h>

#include "bundle.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

/* Largest encoded message accepted by a send: 128 MiB. */
#define MESSAGE_PORT_MAX_MESSAGE_SIZE (128u * 1024u * 1024u)
/* Most bytes queued for one destination before sends fail with -11: 256 MiB. */
#define MESSAGE_PORT_MAX_QUEUED (256u * 1024u * 1024u)

/* remote_app_id: the sender's app id established from its credentials, NULL when the
 * sender has none. remote_port: NULL; trusted_remote_port: false. message: freed by the
 * layer after the callback returns. All strings are borrowed for the call. */
typedef void (*message_port_message_cb)(int local_port_id, const char *remote_app_id,
                                        const char *remote_port, bool trusted_remote_port,
                                        bundle *message, void *user_data);

/* Returns a positive local port id, or a negative errno value: -22 for a bad argument or
 * a process without a valid VELNA_APP_ID, -17 when another live process holds that app
 * id, -5 when the runtime directory or the socket cannot be made. Registering the same
 * name again replaces the callback and returns the same id. */
int message_port_register_local_port(const char *local_port, message_port_message_cb callback,
                                     void *user_data);

/* 0 with *exist telling whether the app runs and has registered that port; a negative
 * result only for invalid arguments. */
int message_port_check_remote_port(const char *remote_app_id, const char *remote_port,
                                   bool *exist);

/* Queues the message for the app's port and returns at once. The bundle stays the
 * caller's. -2 when the app or port is not there, -22 for bad arguments, -90 when the
 * encoded message passes MESSAGE_PORT_MAX_MESSAGE_SIZE, -11 when too much is queued for
 * that destination, -5 on an I/O error. */
int message_port_send_message(const char *remote_app_id, const char *remote_port,
                              bundle *message);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
