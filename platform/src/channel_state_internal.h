/* Internals of the channel files only (channel.c, channel_frame.c, channel_send.c,
 * channel_buffer.c, channel_peer.c): the channel's state and the helpers they share. The
 * rest of the platform uses channel_internal.h.
 *
 * Handlers run with dispatch_depth raised; velna_channel_close from inside only marks
 * the channel and the outermost dispatch frees it. Failures noticed outside a dispatch
 * (a send, a blocking take, a flush) are reported on a later loop turn, never from
 * inside the call that noticed them. */
#ifndef VELNA_CHANNEL_STATE_INTERNAL_H
#define VELNA_CHANNEL_STATE_INTERNAL_H

#include "channel_internal.h"
#include "channel_readiness_internal.h"

#include <glib.h>

/* Bytes read per recv into the staging buffer while frames are small. */
#define CHANNEL_READ_CHUNK (64u * 1024u)
/* Most bytes read in one dispatch, so one busy peer cannot starve the rest of the loop. */
#define CHANNEL_READ_BUDGET (32u * 1024u * 1024u)
/* First buffer of a frame that announced more: what one staging read can bring. */
#define CHANNEL_FRAME_FIRST_ALLOC CHANNEL_READ_CHUNK

/* One queued frame: the header, then the payload (or the unsent tail of a payload that
 * was partly written before it was queued). */
typedef struct out_buf {
        unsigned char head[VELNA_FRAME_HEADER_SIZE];
        unsigned char *data; /* owned, malloc'd; NULL when len is 0 */
        size_t len;          /* bytes at data */
        size_t off;          /* bytes of head and data already written */
        struct out_buf *next;
} out_buf;

typedef struct in_frame {
        unsigned char *data; /* owned until handed to the taker; malloc'd */
        size_t len;
        struct in_frame *next;
} in_frame;

typedef enum { READ_OK, READ_AGAIN, READ_EOF, READ_ERROR, READ_BAD_FRAME } read_status;

struct velna_channel {
        int fd; /* owned; -1 once the peer is gone or the channel closed */
        uint32_t max_frame;
        pid_t peer_pid;
        uid_t peer_uid;

        /* In the shared readiness source: EPOLLIN while the incoming queue is under its
         * cap, EPOLLOUT while output is queued. */
        velna_watch watch;
        guint notify_idle;        /* reports frames read synchronously, or a late failure */
        guint spare_timer;        /* ticks while a spare may be held */
        guint stall_timer;        /* runs while a frame is partly read */
        int64_t last_progress_ms; /* when the frame being assembled last grew */

        /* Synchronous waits (take_frame with a negative timeout) share one deadline
         * until the channel sends or the loop turns (sync_wait_idle). */
        bool sync_wait_active;
        int64_t sync_wait_deadline_ms;
        guint sync_wait_idle;

        /* Owned; at least spare_cap bytes, malloc'd; NULL when none is kept. */
        unsigned char *spare;
        size_t spare_cap;
        bool spare_used; /* taken or given back since the last tick */

        /* Output queue; the buffers are owned. */
        out_buf *out_head;
        out_buf *out_tail;
        size_t out_bytes;

        /* Frame being assembled (owned): frame is non-NULL from its header on; frame_cap
         * bytes are allocated, frame_have <= frame_cap <= frame_len. */
        unsigned char hdr[VELNA_FRAME_HEADER_SIZE];
        size_t hdr_have;
        unsigned char *frame;
        size_t frame_cap;
        size_t frame_len;
        size_t frame_have;

        /* Incoming queue of whole frames (owned). */
        in_frame *in_head;
        in_frame *in_tail;
        size_t in_count;
        size_t in_bytes;
        size_t unnotified; /* frames queued without a ready call yet */

        velna_channel_ready_cb ready;
        velna_channel_closed_cb closed;
        void *user_data; /* borrowed */

        bool failed;          /* peer gone or I/O error; closed not necessarily reported */
        bool closed_reported; /* closed handler called (or due no more) */
        bool closing;         /* velna_channel_close was called */
        int dispatch_depth;

        struct velna_channel *prev; /* process-wide list of live channels */
        struct velna_channel *next;
};

/* channel.c: lifecycle and events */
int64_t channel_now_ms(void);
int channel_remaining_ms(int64_t deadline_ms);
/* The peer is gone, misbehaved or the socket failed: stops all I/O. Frames already
 * queued stay takeable; the closed handler is the caller's to arrange. */
void channel_fail(velna_channel *ch);
/* Calls the handlers for what happened; from a loop dispatch only. False when the
 * channel was freed (closed from inside a handler). */
bool channel_deliver_events(velna_channel *ch);
/* Arranges for channel_deliver_events on a later loop turn. */
void channel_schedule_notify(velna_channel *ch);
/* Brings the readiness interest, and the stall timer, in step with the queues. */
void channel_update_interest(velna_channel *ch);
bool channel_is_reading(const velna_channel *ch);
/* Ends the running synchronous wait: the next one gets a deadline of its own. */
void channel_sync_wait_end(velna_channel *ch);
velna_channel *channel_live_list(void);

/* channel_peer.c: the socket and who is at its other end */
/* Makes fd non-blocking and close-on-exec and reads the peer's credentials. */
void channel_peer_identify(velna_channel *ch, int fd);

/* channel_buffer.c: payload buffers and the spare */
unsigned char *channel_buffer_new(size_t len);
unsigned char *channel_buffer_get(velna_channel *ch, size_t len);
void channel_buffer_put(velna_channel *ch, unsigned char *p, size_t len);
bool channel_spare_fits(const velna_channel *ch, size_t len);
void channel_spare_drop(velna_channel *ch);
/* Asks for the pages of a large buffer in bulk. */
void channel_advise_bulk(unsigned char *p, size_t len);

/* channel_frame.c: reading frames into the incoming queue */
/* Reads once without dispatching; fails the channel when the peer is to be dropped. */
void channel_read_and_settle(velna_channel *ch);
in_frame *channel_pop_frame(velna_channel *ch);
void channel_drop_input(velna_channel *ch);
void channel_drop_partial_frame(velna_channel *ch);
void channel_update_stall_timer(velna_channel *ch);

/* channel_send.c: the output queue */
/* Writes queued output until the socket refuses more. 0, or -5 when the peer is gone
 * or the socket failed (the channel is failed then). */
int channel_write_some(velna_channel *ch);
void channel_drop_output(velna_channel *ch);

#endif
