/* Reading: bytes from the socket become whole frames in the channel's incoming queue.
 *
 * A frame is an 8-byte header (magic, payload length) and the payload. Its announced
 * length is checked against max_frame, but its buffer grows with the bytes that actually
 * arrive (doubling, so each byte is moved a bounded number of times), never to the
 * announced length up front. A frame that makes no progress for
 * VELNA_CHANNEL_FRAME_STALL_MS while we read drops its peer, like a bad header does;
 * time in which we ourselves did not read does not count.
 *
 * A read that returns less than it asked for has emptied the socket, so reading stops
 * there rather than asking once more to learn that nothing is left; the readiness
 * source reports the descriptor again when more arrives. */
#include "channel_state_internal.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "byteorder_internal.h"
#include "dlog.h"

#define LOG_TAG "VELNA"

static void push_frame(velna_channel *ch)
{
        in_frame *nf = malloc(sizeof *nf);
        if (!nf) {
                channel_drop_partial_frame(ch);
                return;
        }
        *nf = (in_frame){ .data = ch->frame, .len = ch->frame_len };
        if (ch->in_tail)
                ch->in_tail->next = nf;
        else
                ch->in_head = nf;
        ch->in_tail = nf;
        ch->in_count++;
        ch->in_bytes += nf->len;
        ch->unnotified++;
        ch->frame = NULL;
        ch->frame_cap = ch->frame_len = ch->frame_have = 0;
}

static read_status out_of_memory(velna_channel *ch, size_t len)
{
        dlog_print(DLOG_ERROR, LOG_TAG,
                   "dropping peer pid %d: out of memory for a frame of %zu bytes",
                   (int)ch->peer_pid, len);
        return READ_ERROR;
}

/* Makes room for at least need bytes (need <= frame_len) in the frame being assembled,
 * at least doubling what is there, never past the announced length. 0, or -12. */
static int frame_reserve(velna_channel *ch, size_t need)
{
        if (need <= ch->frame_cap)
                return 0;
        size_t cap = ch->frame_cap * 2;
        if (cap < CHANNEL_FRAME_FIRST_ALLOC)
                cap = CHANNEL_FRAME_FIRST_ALLOC;
        if (cap < need)
                cap = need;
        if (cap > ch->frame_len)
                cap = ch->frame_len;
        unsigned char *p = realloc(ch->frame, cap);
        if (!p)
                return -ENOMEM;
        channel_advise_bulk(p, cap);
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
        if (channel_spare_fits(ch, len)) {
                ch->frame_cap = ch->spare_cap;
                ch->frame = channel_buffer_get(ch, len);
                return 0;
        }
        ch->frame_cap = len < CHANNEL_FRAME_FIRST_ALLOC ? len : CHANNEL_FRAME_FIRST_ALLOC;
        ch->frame = malloc(ch->frame_cap ? ch->frame_cap : 1);
        return ch->frame ? 0 : -ENOMEM;
}

/* Checks a whole header and starts its frame. */
static read_status header_accept(velna_channel *ch)
{
        uint32_t magic = velna_get_le32(ch->hdr);
        uint32_t len = velna_get_le32(ch->hdr + 4);
        if (magic != VELNA_FRAME_MAGIC) {
                dlog_print(DLOG_WARN, LOG_TAG, "dropping peer pid %d: bad frame magic 0x%08x",
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
        if (frame_start(ch, len) < 0)
                return out_of_memory(ch, len);
        return READ_OK;
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
                        read_status s = header_accept(ch);
                        if (s != READ_OK)
                                return s;
                }
                size_t take = ch->frame_len - ch->frame_have;
                if (take > n)
                        take = n;
                if (frame_reserve(ch, ch->frame_have + take) < 0)
                        return out_of_memory(ch, ch->frame_len);
                memcpy(ch->frame + ch->frame_have, p, take);
                ch->frame_have += take;
                p += take;
                n -= take;
                if (ch->frame_have == ch->frame_len)
                        push_frame(ch);
        }
        return READ_OK;
}

/* One recv straight into the buffer of a large frame, no staging copy; the buffer grows
 * only once what arrived has filled it. Sets *asked to what it asked for. */
static ssize_t read_into_frame(velna_channel *ch, size_t want, size_t *asked, read_status *s)
{
        if (ch->frame_have == ch->frame_cap && frame_reserve(ch, ch->frame_have + CHANNEL_READ_CHUNK) < 0) {
                *s = out_of_memory(ch, ch->frame_len);
                return -1;
        }
        if (want > ch->frame_cap - ch->frame_have)
                want = ch->frame_cap - ch->frame_have;
        *asked = want;
        ssize_t r = recv(ch->fd, ch->frame + ch->frame_have, want, MSG_DONTWAIT);
        if (r > 0) {
                ch->frame_have += (size_t)r;
                if (ch->frame_have == ch->frame_len)
                        push_frame(ch);
        }
        return r;
}

/* Reads what the socket holds, up to CHANNEL_READ_BUDGET bytes, while the incoming queue
 * is under its cap. READ_OK when the budget or the cap stopped it, READ_AGAIN when the
 * socket ran dry, else the reason the peer is to be dropped. */
static read_status read_some(velna_channel *ch)
{
        static _Thread_local unsigned char staging[CHANNEL_READ_CHUNK];
        size_t total = 0;

        while (total < CHANNEL_READ_BUDGET) {
                if (ch->in_bytes > VELNA_CHANNEL_MAX_QUEUED_IN)
                        return READ_OK;

                read_status s = READ_OK;
                size_t asked = sizeof staging;
                size_t want = ch->frame ? ch->frame_len - ch->frame_have : 0;
                ssize_t r;
                if (want >= CHANNEL_READ_CHUNK) {
                        r = read_into_frame(ch, want, &asked, &s);
                        if (s != READ_OK)
                                return s;
                } else {
                        r = recv(ch->fd, staging, sizeof staging, MSG_DONTWAIT);
                        if (r > 0 && (s = consume(ch, staging, (size_t)r)) != READ_OK)
                                return s;
                }
                if (r == 0)
                        return READ_EOF;
                if (r < 0) {
                        if (errno == EINTR)
                                continue;
                        return errno == EAGAIN || errno == EWOULDBLOCK ? READ_AGAIN : READ_ERROR;
                }
                ch->last_progress_ms = channel_now_ms();
                total += (size_t)r;
                if ((size_t)r < asked)
                        return READ_AGAIN;
        }
        return READ_OK;
}

void channel_read_and_settle(velna_channel *ch)
{
        read_status s = read_some(ch);
        if (s == READ_EOF || s == READ_ERROR || s == READ_BAD_FRAME)
                channel_fail(ch);
        else
                channel_update_interest(ch);
}

static bool frame_partly_read(const velna_channel *ch)
{
        return ch->frame || ch->hdr_have > 0;
}

/* A frame is partly read: drops the peer when it made no progress for the whole limit,
 * else waits for the rest of it. Reads first, so that bytes that arrived while the loop
 * was busy elsewhere count as progress. */
static gboolean on_stall_tick(gpointer data)
{
        velna_channel *ch = data;
        ch->stall_timer = 0; /* this source ends by returning G_SOURCE_REMOVE */
        channel_read_and_settle(ch);

        int64_t idle = channel_now_ms() - ch->last_progress_ms;
        if (!ch->failed && frame_partly_read(ch) && channel_is_reading(ch)) {
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
        channel_deliver_events(ch);
        return G_SOURCE_REMOVE;
}

/* The stall timer runs while a frame is partly read and we are reading. */
void channel_update_stall_timer(velna_channel *ch)
{
        bool watch = frame_partly_read(ch) && channel_is_reading(ch);
        if (watch && !ch->stall_timer)
                ch->stall_timer = g_timeout_add(VELNA_CHANNEL_FRAME_STALL_MS, on_stall_tick, ch);
        else if (!watch && ch->stall_timer)
                g_clear_handle_id(&ch->stall_timer, g_source_remove);
}

in_frame *channel_pop_frame(velna_channel *ch)
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

/* Drops the frame being assembled, header included. */
void channel_drop_partial_frame(velna_channel *ch)
{
        free(ch->frame);
        ch->frame = NULL;
        ch->frame_cap = ch->frame_len = ch->frame_have = 0;
        ch->hdr_have = 0;
}

void channel_drop_input(velna_channel *ch)
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
        channel_drop_partial_frame(ch);
}
