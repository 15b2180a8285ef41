/* Shared internals: a channel is one connected, non-blocking Unix stream socket that
 * carries whole frames (an 8-byte header: the magic 0x314E4C56 and the payload length,
 * both little-endian u32, then the payload). Sends are queued and flushed by the GLib
 * main loop; incoming frames are read by the main loop into a bounded queue and taken by
 * the consumer. Used by the message port and by both sides of rpc-port. */
#ifndef VELNA_CHANNEL_INTERNAL_H
#define VELNA_CHANNEL_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define VELNA_FRAME_MAGIC 0x314E4C56u
#define VELNA_FRAME_HEADER_SIZE 8u
/* Most payload bytes queued for sending on one channel (-11 past it). */
#define VELNA_CHANNEL_MAX_QUEUED_OUT (256u * 1024u * 1024u)
/* Most payload bytes held in a channel's incoming queue before it stops reading. */
#define VELNA_CHANNEL_MAX_QUEUED_IN (256u * 1024u * 1024u)
/* A frame that gets no new byte for this long, while the channel reads, drops its peer. */
#define VELNA_CHANNEL_FRAME_STALL_MS 10000

typedef struct velna_channel velna_channel;

/* Called on the main loop after a whole frame was added to the incoming queue. The
 * channel may be closed (velna_channel_close) from inside. */
typedef void (*velna_channel_ready_cb)(velna_channel *channel, void *user_data);
/* Called once, on the main loop, when the peer closed, an I/O error happened, or the
 * peer sent a bad frame (wrong magic, length over the cap, or a frame that stalled for
 * VELNA_CHANNEL_FRAME_STALL_MS: the peer is dropped). Frames
 * already queued stay takeable. The channel may be closed from inside. */
typedef void (*velna_channel_closed_cb)(velna_channel *channel, void *user_data);

/* Takes ownership of fd (made non-blocking and close-on-exec). max_frame caps the
 * payload of every frame in both directions. Starts reading at once. NULL when out of
 * memory (fd is closed then). */
velna_channel *velna_channel_new(int fd, uint32_t max_frame);
/* Either handler may be NULL. */
void velna_channel_set_handlers(velna_channel *channel, velna_channel_ready_cb ready,
                                velna_channel_closed_cb closed, void *user_data);
/* Connects to a Unix socket path and returns a new channel: -2 when nothing listens
 * there (ENOENT, ECONNREFUSED), -5 on other errors. Never blocks for long. */
int velna_channel_connect(const char *path, uint32_t max_frame, velna_channel **out);

/* Queues one frame (copied); writes what the socket takes at once. 0, -90 when len is
 * over max_frame, -11 past VELNA_CHANNEL_MAX_QUEUED_OUT, -5 (EPIPE/ECONNRESET: the peer
 * is gone), -12. Never raises SIGPIPE. */
int velna_channel_send(velna_channel *channel, const void *payload, size_t len);
/* As velna_channel_send, but on success takes over payload (malloc'd, at least len bytes;
 * released once written), so that a large frame is never copied. On failure it stays the
 * caller's. */
int velna_channel_send_owned(velna_channel *channel, void *payload, size_t len);
/* A malloc'd buffer of at least len bytes for a payload, the caller's (hand it to
 * velna_channel_send_owned or free it): the channel's spare large buffer when one fits,
 * else a new one. NULL when out of memory. */
unsigned char *velna_channel_payload_alloc(velna_channel *channel, size_t len);

/* Takes the oldest queued incoming frame: 0 and a malloc'd payload that becomes the
 * caller's (free it with free(), or give it back with velna_channel_recycle). With none
 * queued it waits, reading (and flushing queued output), at most timeout_ms (0: no
 * wait). A negative timeout_ms is a synchronous wait for an answer: it ends
 * VELNA_RPC_TIMEOUT_MS (default 5000) after the first such wait since the channel last
 * sent or the loop last turned, so a caller that discards what it did not ask for and
 * waits again cannot be held longer by a chattering peer. -11 when the wait ends
 * without a frame, -5 once the peer is gone and nothing is queued. */
int velna_channel_take_frame(velna_channel *channel, int timeout_ms, unsigned char **payload,
                             size_t *len);
/* Discards the oldest incoming frame: velna_channel_take_frame with no wait (so with
 * none queued it reads what the socket holds), then free. 0 when a frame was dropped,
 * else what velna_channel_take_frame returned. */
int velna_channel_drop_frame(velna_channel *channel);
/* Takes back a payload of len bytes that velna_channel_take_frame handed out, once its
 * consumer is done with it, so that a large buffer serves a later frame; a small one is
 * freed. */
void velna_channel_recycle(velna_channel *channel, unsigned char *payload, size_t len);
/* Number of whole frames in the incoming queue. */
size_t velna_channel_pending(velna_channel *channel);
bool velna_channel_is_open(velna_channel *channel);
/* pid and uid of the peer (SO_PEERCRED), read when the channel was made. */
pid_t velna_channel_peer_pid(velna_channel *channel);
uid_t velna_channel_peer_uid(velna_channel *channel);

/* Closes the socket and frees the channel; no handler runs afterwards. Safe from inside
 * the channel's own handlers (freeing is then deferred until the handler returns).
 * Queued output that was not written is dropped; call velna_channel_flush first to keep it. */
void velna_channel_close(velna_channel *channel);
/* Writes queued output, blocking at most timeout_ms. 0 when everything was written. */
int velna_channel_flush(velna_channel *channel, int timeout_ms);
/* Flushes every live channel of the process (the main loop's quit hook). */
void velna_channel_flush_all(int timeout_ms);

#endif
