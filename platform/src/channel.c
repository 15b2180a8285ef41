/* Framed, non-blocking Unix stream channels driven by the GLib default main context.
 *
 * Output: velna_channel_send writes what the socket takes at once and queues the rest;
 * a G_IO_OUT watch exists only while something is queued. Input: a G_IO_IN watch reads
 * into the frame being assembled and appends whole frames to the incoming queue, which
 * the consumer drains with velna_channel_take_frame. Reading stops while the incoming
 * queue holds more than VELNA_CHANNEL_MAX_QUEUED_IN bytes and resumes once frames are
 * taken.
 *
 * What a peer can cost: a frame's announced length is checked against max_frame, but
 * its buffer grows with the bytes that actually arrive (doubling, so each byte is moved
 * a bounded number of times), never to the announced length up front. A frame that
 * makes no progress for VELNA_CHANNEL_FRAME_STALL_MS while we read drops its peer, like
 * a bad header does; time in which we ourselves did not read does not count.
 *
 * Large payload buffers are the costly part of a large frame: the kernel supplies and
 * zeroes fresh pages for each one, as the allocator hands such blocks back after use. So
 * a channel keeps one spare: the last large buffer it wrote out or was given back by the
 * consumer, reused for the next large frame of similar size in either direction and
 * freed once a tick of SPARE_IDLE_MS passes without use, or when the channel ends.
 *
 * Handlers run with dispatch_depth raised; velna_channel_close from inside only marks
 * the channel and the outermost dispatch frees it. Failures noticed outside a dispatch
 * (a send, a blocking take, a flush) are reported on a later loop turn, never from
 * inside the call that noticed them. */
#include "channel_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <glib-unix.h>
#include <glib.h>

#include "byteorder_internal.h"
#include "dlog.h"
#include "main_loop_internal.h"

#define LOG_TAG "VELNA"

/* Bytes read per recv into the staging buffer while frames are small. */
#define READ_CHUNK (64u * 1024u)
/* Most bytes read in one dispatch of the input watch, so one busy peer cannot starve
 * the rest of the loop. */
#define READ_BUDGET (32u * 1024u * 1024u)
/* Most queued output buffers handed to one sendmsg. */
#define WRITE_IOV_MAX 64
/* Payloads from this size on get their pages in bulk. */
#define LARGE_FRAME (4u * 1024u * 1024u)
/* Buffers from this size on are kept as a channel's spare. */
#define SPARE_MIN (256u * 1024u)
/* A spare unused for this long is freed. */
#define SPARE_IDLE_MS 1000
/* Longest a connect may wait for a full listen backlog. */
#define CONNECT_TIMEOUT_MS 1000
/* First buffer of a frame that announced more: what one staging read can bring. */
#define FRAME_FIRST_ALLOC READ_CHUNK
/* Default of VELNA_RPC_TIMEOUT_MS: no synchronous wait holds the loop longer. */
#define SYNC_WAIT_DEFAULT_MS 5000

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
        unsigned char *data; /* malloc'd; handed to the taker */
        size_t len;
        struct in_frame *next;
} in_frame;

typedef enum { READ_OK, READ_AGAIN, READ_EOF, READ_ERROR, READ_BAD_FRAME } read_status;

struct velna_channel {
        int fd; /* -1 once the peer is gone or the channel closed */
        uint32_t max_frame;
        pid_t peer_pid;
        uid_t peer_uid;

        guint in_watch;
        guint out_watch;
        guint notify_idle;   /* reports frames read synchronously, or a late failure */
        guint spare_timer;   /* ticks while a spare may be held */
        guint stall_timer;   /* runs while a frame is partly read */
        int64_t last_progress_ms; /* when the frame being assembled last grew */

        /* Synchronous waits (take_frame with a negative timeout) share one deadline
         * until the channel sends or the loop turns (sync_wait_idle). */
        bool sync_wait_active;
        int64_t sync_wait_deadline_ms;
        guint sync_wait_idle;

        /* Owned; at least spare_cap bytes, malloc'd; NULL when none is kept. */
        unsigned char *spare;
        size_t spare_cap;
        bool spare_used;     /* taken or given back since the last tick */

        /* Output queue. */
        out_buf *out_head;
        out_buf *out_tail;
        size_t out_bytes;

        /* Frame being assembled: frame is non-NULL from its header on; frame_cap bytes
         * are allocated, frame_have <= frame_cap <= frame_len. */
        unsigned char hdr[VELNA_FRAME_HEADER_SIZE];
        size_t hdr_have;
        unsigned char *frame;
        size_t frame_cap;
        size_t frame_len;
        size_t frame_have;

        /* Incoming queue of whole frames. */
        in_frame *in_head;
        in_frame *in_tail;
        size_t in_count;
        size_t in_bytes;
        size_t unnotified; /* frames queued without a ready call yet */

        velna_channel_ready_cb ready;
        velna_channel_closed_cb closed;
        void *user_data;

        bool failed;          /* peer gone or I/O error; closed not necessarily reported */
        bool closed_reported; /* closed handler called (or due no more) */
        bool closing;         /* velna_channel_close was called */
        int dispatch_depth;

        struct velna_channel *prev; /* process-wide list of live channels */
        struct velna_channel *next;
};

static velna_channel *live_channels;
static bool flush_hook_added;

static void list_add(velna_channel *ch)
{
        ch->prev = NULL;
        ch->next = live_channels;
        if (live_channels)
                live_channels->prev = ch;
        live_channels = ch;
}

static void list_remove(velna_channel *ch)
{
        if (ch->prev)
                ch->prev->next = ch->next;
        else if (live_channels == ch)
                live_channels = ch->next;
        if (ch->next)
                ch->next->prev = ch->prev;
        ch->prev = ch->next = NULL;
}

static int64_t now_ms(void)
{
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static int remaining_ms(int64_t deadline)
{
        int64_t left = deadline - now_ms();
        if (left < 0)
                return 0;
        return left > INT32_MAX ? INT32_MAX : (int)left;
}

static void drop_output(velna_channel *ch)
{
        out_buf *b = ch->out_head;
        while (b) {
                out_buf *next = b->next;
                free(b->data);
                free(b);
                b = next;
        }
        ch->out_head = ch->out_tail = NULL;
        ch->out_bytes = 0;
}

/* Drops the frame being assembled, header included. */
static void drop_partial_frame(velna_channel *ch)
{
        free(ch->frame);
        ch->frame = NULL;
        ch->frame_cap = ch->frame_len = ch->frame_have = 0;
        ch->hdr_have = 0;
}

static void drop_input(velna_channel *ch)
{
        in_frame *f = ch->in_head;
        while (f) {
                in_frame *next = f->next;
                free(f->data);
                free(f);
                f = next;
        }
        ch->in_head = ch->in_tail = NULL;
        ch->in_count = 0;
        ch->in_bytes = 0;
        drop_partial_frame(ch);
}

/* ---- payload buffers ---- */

/* A new buffer for a payload of len bytes. A large one is filled in one go right after,
 * so its pages are asked for in bulk (huge pages where the system offers them on
 * request) rather than faulted in one by one. */
static void advise_bulk(unsigned char *p, size_t len)
{
        if (!p || len < LARGE_FRAME)
                return;
        const uintptr_t huge = 2u * 1024u * 1024u;
        uintptr_t start = ((uintptr_t)p + huge - 1) & ~(huge - 1);
        uintptr_t end = ((uintptr_t)p + len) & ~(huge - 1);
        if (end > start)
                madvise((void *)start, end - start, MADV_HUGEPAGE);
}

static unsigned char *buffer_new(size_t len)
{
        unsigned char *p = malloc(len ? len : 1);
        advise_bulk(p, len);
        return p;
}

static void spare_drop(velna_channel *ch)
{
        g_clear_handle_id(&ch->spare_timer, g_source_remove);
        free(ch->spare);
        ch->spare = NULL;
        ch->spare_cap = 0;
}

static gboolean on_spare_tick(gpointer data)
{
        velna_channel *ch = data;
        if (ch->spare_used) {
                ch->spare_used = false;
                return G_SOURCE_CONTINUE;
        }
        ch->spare_timer = 0; /* this source ends by returning G_SOURCE_REMOVE */
        spare_drop(ch);
        return G_SOURCE_REMOVE;
}

/* A buffer of at least len bytes (the caller's; free with free()): the spare when it
 * fits and not more than half of it would lie unused, else a new one. */
static unsigned char *buffer_get(velna_channel *ch, size_t len)
{
        if (ch->spare && len <= ch->spare_cap && len >= ch->spare_cap / 2) {
                unsigned char *p = ch->spare;
                ch->spare = NULL;
                ch->spare_cap = 0;
                ch->spare_used = true;
                return p;
        }
        return buffer_new(len);
}

/* Takes a malloc'd buffer whose first len bytes are usable: kept as the spare when it
 * is large (replacing an older spare: the newest size is the likeliest next one), else
 * freed. */
static void buffer_put(velna_channel *ch, unsigned char *p, size_t len)
{
        if (!p || len < SPARE_MIN || ch->failed || ch->closing) {
                free(p);
                return;
        }
        free(ch->spare);
        ch->spare = p;
        ch->spare_cap = len;
        ch->spare_used = true;
        if (!ch->spare_timer)
                ch->spare_timer = g_timeout_add(SPARE_IDLE_MS, on_spare_tick, ch);
}

/* Ends all I/O: the watches go, the socket is closed and the spare freed. Queued
 * frames and a pending notification are left to the caller. */
static void stop_io(velna_channel *ch)
{
        g_clear_handle_id(&ch->in_watch, g_source_remove);
        g_clear_handle_id(&ch->out_watch, g_source_remove);
        g_clear_handle_id(&ch->stall_timer, g_source_remove);
        spare_drop(ch);
        if (ch->fd >= 0) {
                close(ch->fd);
                ch->fd = -1;
        }
}

static void channel_free(velna_channel *ch)
{
        g_clear_handle_id(&ch->notify_idle, g_source_remove);
        g_clear_handle_id(&ch->sync_wait_idle, g_source_remove);
        stop_io(ch);
        drop_output(ch);
        drop_input(ch);
        list_remove(ch);
        free(ch);
}

/* ---- handler dispatch ---- */

static void dispatch_enter(velna_channel *ch)
{
        ch->dispatch_depth++;
}

/* Returns false when the channel was freed (it was closed from inside a handler). */
static bool dispatch_leave(velna_channel *ch)
{
        ch->dispatch_depth--;
        if (ch->dispatch_depth == 0 && ch->closing) {
                channel_free(ch);
                return false;
        }
        return true;
}

/* Calls ready once per frame that no handler has heard of yet, then closed once when
 * the channel failed. Must be called from a loop dispatch. Returns false when the
 * channel was freed. */
static bool deliver_events(velna_channel *ch)
{
        dispatch_enter(ch);
        while (!ch->closing && ch->unnotified > 0 && ch->in_count > 0) {
                ch->unnotified--;
                if (ch->ready)
                        ch->ready(ch, ch->user_data);
        }
        if (ch->in_count == 0)
                ch->unnotified = 0;
        if (!ch->closing && ch->failed && !ch->closed_reported) {
                ch->closed_reported = true;
                if (ch->closed)
                        ch->closed(ch, ch->user_data);
        }
        return dispatch_leave(ch);
}

static gboolean on_notify_idle(gpointer data)
{
        velna_channel *ch = data;
        ch->notify_idle = 0;
        deliver_events(ch);
        return G_SOURCE_REMOVE;
}

/* Arranges for deliver_events on a later loop turn. */
static void schedule_notify(velna_channel *ch)
{
        if (ch->notify_idle || ch->closing)
                return;
        if (ch->unnotified == 0 && (!ch->failed || ch->closed_reported))
                return;
        ch->notify_idle = g_idle_add(on_notify_idle, ch);
}

/* ---- failure ---- */

/* The peer is gone, misbehaved or the socket failed: stop all I/O. Frames already
 * queued stay takeable; the closed handler is the caller's to arrange. */
static void channel_fail(velna_channel *ch)
{
        if (ch->failed)
                return;
        ch->failed = true;
        stop_io(ch);
        drop_output(ch);
        drop_partial_frame(ch);
}

/* ---- writing ---- */

static gboolean on_writable(gint fd, GIOCondition cond, gpointer data);

/* Writes queued output until the socket refuses more. 0, or -5 when the peer is gone
 * or the socket failed (the channel is failed then). */
static int write_some(velna_channel *ch)
{
        while (ch->out_head) {
                struct iovec iov[WRITE_IOV_MAX];
                int n = 0;
                for (out_buf *b = ch->out_head; b && n + 2 <= WRITE_IOV_MAX; b = b->next) {
                        if (b->off < VELNA_FRAME_HEADER_SIZE) {
                                iov[n].iov_base = b->head + b->off;
                                iov[n++].iov_len = VELNA_FRAME_HEADER_SIZE - b->off;
                                if (b->len) {
                                        iov[n].iov_base = b->data;
                                        iov[n++].iov_len = b->len;
                                }
                        } else {
                                size_t done = b->off - VELNA_FRAME_HEADER_SIZE;
                                iov[n].iov_base = b->data + done;
                                iov[n++].iov_len = b->len - done;
                        }
                }
                struct msghdr msg = { .msg_iov = iov, .msg_iovlen = (size_t)n };
                ssize_t w = sendmsg(ch->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
                if (w < 0) {
                        if (errno == EINTR)
                                continue;
                        if (errno == EAGAIN || errno == EWOULDBLOCK)
                                return 0;
                        channel_fail(ch);
                        return -EIO;
                }
                size_t left = (size_t)w;
                ch->out_bytes -= left;
                while (left > 0 && ch->out_head) {
                        out_buf *b = ch->out_head;
                        size_t avail = VELNA_FRAME_HEADER_SIZE + b->len - b->off;
                        if (left < avail) {
                                b->off += left;
                                break;
                        }
                        left -= avail;
                        ch->out_head = b->next;
                        if (!ch->out_head)
                                ch->out_tail = NULL;
                        buffer_put(ch, b->data, b->len);
                        free(b);
                }
        }
        return 0;
}

/* Keeps the output watch in step with the queue: present only while output waits. */
static void update_out_watch(velna_channel *ch)
{
        if (ch->out_head && !ch->out_watch && ch->fd >= 0)
                ch->out_watch = g_unix_fd_add(ch->fd, G_IO_OUT, on_writable, ch);
        else if (!ch->out_head && ch->out_watch)
                g_clear_handle_id(&ch->out_watch, g_source_remove);
}

static gboolean on_writable(gint fd, GIOCondition cond, gpointer data)
{
        (void)fd;
        (void)cond;
        velna_channel *ch = data;
        if (write_some(ch) < 0) {
                deliver_events(ch); /* channel_fail removed this source */
                return G_SOURCE_REMOVE;
        }
        if (!ch->out_head) {
                ch->out_watch = 0;
                return G_SOURCE_REMOVE;
        }
        return G_SOURCE_CONTINUE;
}

/* ---- reading ---- */

static gboolean on_readable(gint fd, GIOCondition cond, gpointer data);

static void push_frame(velna_channel *ch)
{
        in_frame *f = ch->in_tail;
        in_frame *nf = malloc(sizeof *nf);
        if (!nf) {
                drop_partial_frame(ch);
                return;
        }
        nf->data = ch->frame;
        nf->len = ch->frame_len;
        nf->next = NULL;
        if (f)
                f->next = nf;
        else
                ch->in_head = nf;
        ch->in_tail = nf;
        ch->in_count++;
        ch->in_bytes += nf->len;
        ch->unnotified++;
        ch->frame = NULL;
        ch->frame_cap = ch->frame_len = ch->frame_have = 0;
}

/* Makes room for at least need bytes (need <= frame_len) in the frame being assembled,
 * at least doubling what is there, never past the announced length. 0, or -12. */
static int frame_reserve(velna_channel *ch, size_t need)
{
        if (need <= ch->frame_cap)
                return 0;
        size_t cap = ch->frame_cap * 2;
        if (cap < FRAME_FIRST_ALLOC)
                cap = FRAME_FIRST_ALLOC;
        if (cap < need)
                cap = need;
        if (cap > ch->frame_len)
                cap = ch->frame_len;
        unsigned char *p = realloc(ch->frame, cap);
        if (!p)
                return -ENOMEM;
        advise_bulk(p, cap);
        ch->frame = p;
        ch->frame_cap = cap;
        return 0;
}

/* Starts the frame that a header announced: the spare when it fits (memory held
 * already), else a first buffer no larger than one read can fill. 0, or -12. */
static int frame_start(velna_channel *ch, size_t len)
{
        ch->frame_len = len;
        ch->frame_have = 0;
        if (ch->spare && len <= ch->spare_cap && len >= ch->spare_cap / 2) {
                ch->frame_cap = ch->spare_cap;
                ch->frame = buffer_get(ch, len);
                return 0;
        }
        ch->frame_cap = len < FRAME_FIRST_ALLOC ? len : FRAME_FIRST_ALLOC;
        ch->frame = malloc(ch->frame_cap ? ch->frame_cap : 1);
        return ch->frame ? 0 : -ENOMEM;
}

/* Consumes bytes that arrived after a header or as part of a frame. Returns READ_OK,
 * or READ_BAD_FRAME / READ_ERROR for a frame that cannot be accepted. */
static read_status consume(velna_channel *ch, const unsigned char *p, size_t n)
{
        while (n > 0) {
                if (!ch->frame) {
                        size_t take = VELNA_FRAME_HEADER_SIZE - ch->hdr_have;
                        if (take > n)
                                take = n;
                        memcpy(ch->hdr + ch->hdr_have, p, take);
                        ch->hdr_have += take;
                        p += take;
                        n -= take;
                        if (ch->hdr_have < VELNA_FRAME_HEADER_SIZE)
                                return READ_OK;

                        uint32_t magic = velna_get_le32(ch->hdr);
                        uint32_t len = velna_get_le32(ch->hdr + 4);
                        if (magic != VELNA_FRAME_MAGIC) {
                                dlog_print(DLOG_WARN, LOG_TAG,
                                           "dropping peer pid %d: bad frame magic 0x%08x",
                                           (int)ch->peer_pid, magic);
                                return READ_BAD_FRAME;
                        }
                        if (len > ch->max_frame) {
                                dlog_print(DLOG_WARN, LOG_TAG,
                                           "dropping peer pid %d: frame of %u bytes exceeds the cap of %u",
                                           (int)ch->peer_pid, len, ch->max_frame);
                                return READ_BAD_FRAME;
                        }
                        ch->hdr_have = 0;
                        if (frame_start(ch, len) < 0) {
                                dlog_print(DLOG_ERROR, LOG_TAG,
                                           "dropping peer pid %d: out of memory for a frame of %u bytes",
                                           (int)ch->peer_pid, len);
                                return READ_ERROR;
                        }
                }
                size_t take = ch->frame_len - ch->frame_have;
                if (take > n)
                        take = n;
                if (frame_reserve(ch, ch->frame_have + take) < 0) {
                        dlog_print(DLOG_ERROR, LOG_TAG,
                                   "dropping peer pid %d: out of memory for a frame of %zu bytes",
                                   (int)ch->peer_pid, ch->frame_len);
                        return READ_ERROR;
                }
                memcpy(ch->frame + ch->frame_have, p, take);
                ch->frame_have += take;
                p += take;
                n -= take;
                if (ch->frame_have == ch->frame_len)
                        push_frame(ch);
        }
        return READ_OK;
}

/* Reads what the socket holds, up to READ_BUDGET bytes, while the incoming queue is
 * under its cap. READ_OK when the budget or the cap stopped it, READ_AGAIN when the
 * socket ran dry, else the reason the peer is to be dropped. */
static read_status read_some(velna_channel *ch)
{
        static _Thread_local unsigned char staging[READ_CHUNK];
        size_t total = 0;

        while (total < READ_BUDGET) {
                if (ch->in_bytes > VELNA_CHANNEL_MAX_QUEUED_IN)
                        return READ_OK;

                ssize_t r;
                size_t want = ch->frame ? ch->frame_len - ch->frame_have : 0;
                if (want >= READ_CHUNK) {
                        /* Large frame: straight into its buffer, no staging copy; the
                         * buffer grows only once what arrived has filled it. */
                        if (ch->frame_have == ch->frame_cap &&
                            frame_reserve(ch, ch->frame_have + READ_CHUNK) < 0) {
                                dlog_print(DLOG_ERROR, LOG_TAG,
                                           "dropping peer pid %d: out of memory for a frame of %zu bytes",
                                           (int)ch->peer_pid, ch->frame_len);
                                return READ_ERROR;
                        }
                        if (want > ch->frame_cap - ch->frame_have)
                                want = ch->frame_cap - ch->frame_have;
                        r = recv(ch->fd, ch->frame + ch->frame_have, want, MSG_DONTWAIT);
                        if (r > 0) {
                                ch->frame_have += (size_t)r;
                                if (ch->frame_have == ch->frame_len)
                                        push_frame(ch);
                        }
                } else {
                        r = recv(ch->fd, staging, sizeof staging, MSG_DONTWAIT);
                        if (r > 0) {
                                read_status s = consume(ch, staging, (size_t)r);
                                if (s != READ_OK)
                                        return s;
                        }
                }
                if (r == 0)
                        return READ_EOF;
                if (r < 0) {
                        if (errno == EINTR)
                                continue;
                        if (errno == EAGAIN || errno == EWOULDBLOCK)
                                return READ_AGAIN;
                        return READ_ERROR;
                }
                ch->last_progress_ms = now_ms();
                total += (size_t)r;
        }
        return READ_OK;
}

static gboolean on_stall_tick(gpointer data);

static bool frame_partly_read(const velna_channel *ch)
{
        return ch->frame || ch->hdr_have > 0;
}

/* The stall timer runs while a frame is partly read and we are reading. */
static void update_stall_timer(velna_channel *ch)
{
        bool watch = frame_partly_read(ch) && ch->in_watch;
        if (watch && !ch->stall_timer)
                ch->stall_timer = g_timeout_add(VELNA_CHANNEL_FRAME_STALL_MS, on_stall_tick, ch);
        else if (!watch && ch->stall_timer)
                g_clear_handle_id(&ch->stall_timer, g_source_remove);
}

/* Keeps the input watch in step with the incoming queue's cap. */
static void update_in_watch(velna_channel *ch)
{
        if (ch->failed || ch->closing || ch->fd < 0)
                return;
        bool over = ch->in_bytes > VELNA_CHANNEL_MAX_QUEUED_IN;
        if (over && ch->in_watch) {
                g_clear_handle_id(&ch->in_watch, g_source_remove);
        } else if (!over && !ch->in_watch) {
                ch->in_watch = g_unix_fd_add(ch->fd, G_IO_IN | G_IO_HUP | G_IO_ERR,
                                             on_readable, ch);
                ch->last_progress_ms = now_ms(); /* a pause of ours is not the peer's stall */
        }
        update_stall_timer(ch);
}

/* Reads once without dispatching; fails the channel when the peer is to be dropped. */
static void read_and_settle(velna_channel *ch)
{
        read_status s = read_some(ch);
        if (s == READ_EOF || s == READ_ERROR || s == READ_BAD_FRAME)
                channel_fail(ch);
        else
                update_in_watch(ch);
}

static gboolean on_readable(gint fd, GIOCondition cond, gpointer data)
{
        (void)fd;
        (void)cond;
        velna_channel *ch = data;

        /* channel_fail and a pause remove this very source; GLib allows that. */
        read_and_settle(ch);
        bool keep = ch->in_watch != 0;
        deliver_events(ch);
        return keep ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

/* A frame is partly read: drops the peer when it made no progress for the whole limit,
 * else waits for the rest of it. Reads first, so that bytes that arrived while the loop
 * was busy elsewhere count as progress. */
static gboolean on_stall_tick(gpointer data)
{
        velna_channel *ch = data;
        ch->stall_timer = 0; /* this source ends by returning G_SOURCE_REMOVE */
        read_and_settle(ch);

        int64_t idle = now_ms() - ch->last_progress_ms;
        if (!ch->failed && frame_partly_read(ch) && ch->in_watch) {
                if (idle >= VELNA_CHANNEL_FRAME_STALL_MS) {
                        dlog_print(DLOG_WARN, LOG_TAG,
                                   "dropping peer pid %d: a frame made no progress for %d ms "
                                   "(%zu of %zu bytes arrived)",
                                   (int)ch->peer_pid, VELNA_CHANNEL_FRAME_STALL_MS,
                                   ch->frame_have, ch->frame_len);
                        channel_fail(ch);
                } else {
                        g_clear_handle_id(&ch->stall_timer, g_source_remove);
                        ch->stall_timer = g_timeout_add(
                                (guint)(VELNA_CHANNEL_FRAME_STALL_MS - idle), on_stall_tick, ch);
                }
        }
        deliver_events(ch);
        return G_SOURCE_REMOVE;
}

/* ---- synchronous waits ---- */

static int default_timeout_ms(void)
{
        const char *env = getenv("VELNA_RPC_TIMEOUT_MS");
        if (env && *env) {
                char *end = NULL;
                long v = strtol(env, &end, 10);
                if (end && *end == '\0' && v >= 0 && v <= INT32_MAX)
                        return (int)v;
        }
        return SYNC_WAIT_DEFAULT_MS;
}

static void sync_wait_end(velna_channel *ch)
{
        ch->sync_wait_active = false;
        g_clear_handle_id(&ch->sync_wait_idle, g_source_remove);
}

static gboolean on_sync_wait_idle(gpointer data)
{
        velna_channel *ch = data;
        ch->sync_wait_idle = 0; /* this source ends by returning G_SOURCE_REMOVE */
        sync_wait_end(ch);
        return G_SOURCE_REMOVE;
}

/* The deadline of a synchronous wait: the running one, or a new one from now. A caller
 * that waits again for the answer it is after (discarding what else arrived) keeps the
 * deadline of its first wait; a send, or the next turn of the loop, ends that call. */
static int64_t sync_wait_deadline(velna_channel *ch)
{
        if (!ch->sync_wait_active) {
                ch->sync_wait_active = true;
                ch->sync_wait_deadline_ms = now_ms() + default_timeout_ms();
                ch->sync_wait_idle = g_idle_add_full(G_PRIORITY_HIGH, on_sync_wait_idle, ch,
                                                     NULL);
        }
        return ch->sync_wait_deadline_ms;
}

/* ---- public interface ---- */

velna_channel *velna_channel_new(int fd, uint32_t max_frame)
{
        if (fd < 0)
                return NULL;

        velna_channel *ch = calloc(1, sizeof *ch);
        if (!ch) {
                close(fd);
                return NULL;
        }

        int fl = fcntl(fd, F_GETFL);
        if (fl >= 0)
                fcntl(fd, F_SETFL, fl | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);

        struct ucred cred;
        socklen_t clen = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &clen) == 0) {
                ch->peer_pid = cred.pid;
                ch->peer_uid = cred.uid;
        } else {
                ch->peer_pid = 0;
                ch->peer_uid = (uid_t)-1;
        }

        ch->fd = fd;
        ch->max_frame = max_frame;
        list_add(ch);
        if (!flush_hook_added) {
                flush_hook_added = true;
                velna_main_loop_add_flush_hook(velna_channel_flush_all);
        }
        update_in_watch(ch);
        return ch;
}

void velna_channel_set_handlers(velna_channel *channel, velna_channel_ready_cb ready,
                                velna_channel_closed_cb closed, void *user_data)
{
        if (!channel)
                return;
        channel->ready = ready;
        channel->closed = closed;
        channel->user_data = user_data;
}

int velna_channel_connect(const char *path, uint32_t max_frame, velna_channel **out)
{
        if (!path || !out)
                return -EINVAL;

        struct sockaddr_un addr = { .sun_family = AF_UNIX };
        size_t plen = strlen(path);
        if (plen == 0 || plen >= sizeof addr.sun_path)
                return -EIO;
        memcpy(addr.sun_path, path, plen + 1);

        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
                return -EIO;

        /* A blocking connect returns at once unless the listener's backlog is full;
         * the send timeout bounds that wait. */
        struct timeval tv = { .tv_sec = CONNECT_TIMEOUT_MS / 1000,
                              .tv_usec = (CONNECT_TIMEOUT_MS % 1000) * 1000 };
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);

        int r;
        do {
                r = connect(fd, (struct sockaddr *)&addr, sizeof addr);
        } while (r < 0 && errno == EINTR);
        if (r < 0) {
                int e = errno;
                close(fd);
                return (e == ENOENT || e == ECONNREFUSED || e == ENOTDIR) ? -ENOENT : -EIO;
        }

        struct timeval zero = { 0, 0 };
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &zero, sizeof zero);

        velna_channel *ch = velna_channel_new(fd, max_frame);
        if (!ch)
                return -ENOMEM;
        *out = ch;
        return 0;
}

/* Sends one frame. When owned, payload is the caller's malloc'd buffer, taken over
 * on success only; otherwise what the socket does not take at once is copied. */
static int send_frame(velna_channel *ch, unsigned char *payload, size_t len, bool owned)
{
        int r = 0;
        if (!ch || (!payload && len > 0) || ch->closing)
                r = -EINVAL;
        else if (len > ch->max_frame)
                r = -EMSGSIZE;
        else if (ch->failed)
                r = -EIO;
        else if (ch->out_bytes + len > VELNA_CHANNEL_MAX_QUEUED_OUT)
                r = -EAGAIN;
        if (r < 0)
                return r;

        sync_wait_end(ch); /* a new request: a later wait is for its answer */
        unsigned char hdr[VELNA_FRAME_HEADER_SIZE];
        velna_put_le32(hdr, VELNA_FRAME_MAGIC);
        velna_put_le32(hdr + 4, (uint32_t)len);
        size_t total = sizeof hdr + len;
        size_t sent = 0;

        /* Nothing queued ahead: hand the frame to the socket straight away. */
        if (!ch->out_head) {
                struct iovec iov[2] = { { hdr, sizeof hdr }, { payload, len } };
                struct msghdr msg = { .msg_iov = iov, .msg_iovlen = len ? 2 : 1 };
                ssize_t w;
                do {
                        w = sendmsg(ch->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
                } while (w < 0 && errno == EINTR);
                if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                        channel_fail(ch);
                        schedule_notify(ch);
                        return -EIO;
                }
                sent = w > 0 ? (size_t)w : 0;
                if (sent == total) {
                        if (owned)
                                buffer_put(ch, payload, len);
                        return 0;
                }
        }

        out_buf *b = malloc(sizeof *b);
        size_t skip = sent > sizeof hdr ? sent - sizeof hdr : 0; /* payload bytes written */
        unsigned char *data = NULL;
        if (owned) {
                data = payload;
        } else if (b && len > skip) {
                data = malloc(len - skip);
                if (data)
                        memcpy(data, payload + skip, len - skip);
        }
        if (!b || (!owned && len > skip && !data)) {
                free(b);
                /* A partly written frame cannot be taken back: the stream is lost. */
                if (sent > 0) {
                        channel_fail(ch);
                        schedule_notify(ch);
                }
                return -ENOMEM;
        }
        memcpy(b->head, hdr, sizeof hdr);
        if (owned) {
                b->data = payload;
                b->len = len;
                b->off = sent;
        } else {
                b->data = data;
                b->len = len - skip;
                b->off = sent < sizeof hdr ? sent : sizeof hdr;
        }
        b->next = NULL;
        if (ch->out_tail)
                ch->out_tail->next = b;
        else
                ch->out_head = b;
        ch->out_tail = b;
        ch->out_bytes += total - sent;
        update_out_watch(ch);
        return 0;
}

int velna_channel_send(velna_channel *channel, const void *payload, size_t len)
{
        return send_frame(channel, (unsigned char *)payload, len, false);
}

int velna_channel_send_owned(velna_channel *channel, void *payload, size_t len)
{
        return send_frame(channel, payload, len, true);
}

unsigned char *velna_channel_payload_alloc(velna_channel *channel, size_t len)
{
        return channel ? buffer_get(channel, len) : buffer_new(len);
}

static in_frame *pop_frame(velna_channel *ch)
{
        in_frame *f = ch->in_head;
        if (!f)
                return NULL;
        ch->in_head = f->next;
        if (!ch->in_head)
                ch->in_tail = NULL;
        ch->in_count--;
        ch->in_bytes -= f->len;
        if (ch->unnotified > ch->in_count)
                ch->unnotified = ch->in_count;
        return f;
}

int velna_channel_take_frame(velna_channel *channel, int timeout_ms, unsigned char **payload,
                             size_t *len)
{
        if (!channel || !payload || !len || channel->closing)
                return -EINVAL;

        int64_t deadline = 0;
        if (!channel->in_head && !channel->failed)
                deadline = timeout_ms < 0 ? sync_wait_deadline(channel) : now_ms() + timeout_ms;
        while (!channel->in_head && !channel->failed) {
                struct pollfd pfd = { .fd = channel->fd, .events = POLLIN };
                if (channel->out_head)
                        pfd.events |= POLLOUT;
                int pr = poll(&pfd, 1, remaining_ms(deadline));
                if (pr < 0 && errno == EINTR)
                        continue;
                if (pr < 0) {
                        channel_fail(channel);
                        break;
                }
                if (pr == 0)
                        break;
                if ((pfd.revents & POLLOUT) && write_some(channel) < 0)
                        break;
                update_out_watch(channel);
                if (pfd.revents & (POLLIN | POLLHUP | POLLERR))
                        read_and_settle(channel);
        }

        /* Frames read here beyond the one taken, and a failure noticed here, reach the
         * handlers on a later loop turn, never from inside this call. */
        in_frame *f = pop_frame(channel);
        schedule_notify(channel);
        update_in_watch(channel);

        if (!f)
                return channel->failed ? -EIO : -EAGAIN;
        *payload = f->data;
        *len = f->len;
        free(f);
        return 0;
}

int velna_channel_drop_frame(velna_channel *channel)
{
        unsigned char *payload = NULL;
        size_t len = 0;
        int r = velna_channel_take_frame(channel, 0, &payload, &len);
        if (r == 0)
                free(payload);
        return r;
}

void velna_channel_recycle(velna_channel *channel, unsigned char *payload, size_t len)
{
        if (channel)
                buffer_put(channel, payload, len);
        else
                free(payload);
}

size_t velna_channel_pending(velna_channel *channel)
{
        return channel ? channel->in_count : 0;
}

bool velna_channel_is_open(velna_channel *channel)
{
        return channel && !channel->failed && !channel->closing;
}

pid_t velna_channel_peer_pid(velna_channel *channel)
{
        return channel ? channel->peer_pid : 0;
}

uid_t velna_channel_peer_uid(velna_channel *channel)
{
        return channel ? channel->peer_uid : (uid_t)-1;
}

void velna_channel_close(velna_channel *channel)
{
        if (!channel || channel->closing)
                return;
        channel->closing = true;
        channel->ready = NULL;
        channel->closed = NULL;
        g_clear_handle_id(&channel->notify_idle, g_source_remove);
        stop_io(channel);
        if (channel->dispatch_depth == 0)
                channel_free(channel);
}

/* Polls every channel in chs that has output queued, writing and also reading (so that
 * peers blocked on each other make progress), until all output is written or the
 * deadline passes. 0 when everything was written. */
static int flush_channels(velna_channel **chs, size_t n, int timeout_ms)
{
        int64_t deadline = now_ms() + (timeout_ms < 0 ? 0 : timeout_ms);
        struct pollfd *pfds = n ? calloc(n, sizeof *pfds) : NULL;
        if (n && !pfds)
                return -ENOMEM;

        int result = 0;
        for (;;) {
                size_t busy = 0;
                for (size_t i = 0; i < n; i++) {
                        velna_channel *ch = chs[i];
                        pfds[i].fd = -1;
                        pfds[i].events = 0;
                        pfds[i].revents = 0;
                        if (!ch || ch->failed || ch->closing || ch->fd < 0 || !ch->out_head)
                                continue;
                        pfds[i].fd = ch->fd;
                        pfds[i].events = POLLOUT;
                        if (ch->in_bytes <= VELNA_CHANNEL_MAX_QUEUED_IN)
                                pfds[i].events |= POLLIN;
                        busy++;
                }
                if (busy == 0)
                        break;
                int wait = remaining_ms(deadline);
                int pr = poll(pfds, n, wait);
                if (pr < 0 && errno == EINTR)
                        continue;
                if (pr <= 0) {
                        result = -ETIMEDOUT;
                        break;
                }
                for (size_t i = 0; i < n; i++) {
                        velna_channel *ch = chs[i];
                        if (pfds[i].fd < 0 || !pfds[i].revents)
                                continue;
                        if (pfds[i].revents & POLLOUT)
                                write_some(ch);
                        if (!ch->failed && (pfds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                                read_and_settle(ch);
                        update_out_watch(ch);
                        schedule_notify(ch);
                }
        }
        free(pfds);
        for (size_t i = 0; i < n; i++)
                if (chs[i] && chs[i]->out_head)
                        result = result ? result : -ETIMEDOUT;
        return result;
}

int velna_channel_flush(velna_channel *channel, int timeout_ms)
{
        if (!channel || channel->closing)
                return -EINVAL;
        if (channel->failed)
                return -EIO;
        int r = flush_channels(&channel, 1, timeout_ms);
        if (channel->failed)
                return -EIO;
        return r;
}

void velna_channel_flush_all(int timeout_ms)
{
        size_t n = 0;
        for (velna_channel *ch = live_channels; ch; ch = ch->next)
                if (ch->out_head && !ch->failed && !ch->closing)
                        n++;
        if (n == 0)
                return;
        velna_channel **chs = calloc(n, sizeof *chs);
        if (!chs)
                return;
        size_t i = 0;
        for (velna_channel *ch = live_channels; ch && i < n; ch = ch->next)
                if (ch->out_head && !ch->failed && !ch->closing)
                        chs[i++] = ch;
        flush_channels(chs, i, timeout_ms);
        free(chs);
}
