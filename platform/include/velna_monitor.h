/* Extension: the monitor side of the monitor tap. While one process of the user listens
 * on the tap socket of its runtime directory, every process of that runtime directory
 * copies to it each message-port message and rpc-port parcel that it sends, without
 * ever blocking: copies that the monitor does not take in time are dropped. */
#ifndef VELNA_MONITOR_H
#define VELNA_MONITOR_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef enum {
        VELNA_MONITOR_MESSAGE_PORT = 1,
        VELNA_MONITOR_RPC_PORT = 2,
} velna_monitor_mechanism_e;

/* One copied message. Every pointer is owned by the record: velna_monitor_record_clear
 * releases them. */
typedef struct {
        velna_monitor_mechanism_e mechanism;
        int64_t time_us;       /* wall clock when it was sent, microseconds since the epoch */
        pid_t sender_pid;
        pid_t receiver_pid;    /* 0 when unknown */
        char *sender;          /* app id of the sender, "" when it has none */
        char *receiver;        /* app id of the receiver, "" when unknown */
        char *port;            /* message port name; "" for rpc-port */
        size_t size;           /* bytes sent: encoded bundle or parcel */
        bool left_out;         /* too large to copy: only its size is known */
        int32_t command;       /* rpc-port: the parcel's first int32 field, else -1 */
        int32_t args[3];       /* rpc-port: the next int32 fields, 0 when absent */
        char *text;            /* rpc-port: the parcel's first string field, or NULL */
        bundle *message;       /* the bundle sent (rpc-port: the parcel's first bundle
                                * field), or NULL */
} velna_monitor_record;

/* Starts listening on the tap socket of the runtime directory: 0 and a non-blocking,
 * close-on-exec listening descriptor in *fd (end it with velna_monitor_stop); -16 when
 * another monitor listens there, -36 when the path is too long, -5 on other errors.
 * Each sending process connects once; the descriptor is readable when one has. */
int velna_monitor_listen(int *fd);
/* Takes a sender's connection waiting on the listening fd: 0 and a non-blocking,
 * close-on-exec descriptor in *conn (the caller closes it), -11 when none waits, -5. */
int velna_monitor_accept(int fd, int *conn);
/* Closes the listening fd and removes the tap socket, so that senders stop copying
 * within a second. */
void velna_monitor_stop(int fd);
/* Takes the next copy waiting on a connection: 0 and a filled record (clear it with
 * velna_monitor_record_clear), -11 when none waits, -32 once the sender has gone (close
 * conn), -74 for a packet that is not a copy (skipped). Copies of one sender arrive in
 * the order sent. */
int velna_monitor_receive(int conn, velna_monitor_record *record);
void velna_monitor_record_clear(velna_monitor_record *record);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
