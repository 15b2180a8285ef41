/* Framed, non-blocking Unix stream channels driven by the GLib default main context:
 * their lifecycle, their events and the synchronous take.
 *
 * Every channel is a watch in the shared readiness source (channel_readiness.c), which
 * costs a loop turn nothing for a channel that is not ready. A channel wants EPOLLIN
 * while its incoming queue holds at most VELNA_CHANNEL_MAX_QUEUED_IN bytes and EPOLLOUT
 * while output is queued; the interest changes only when one of those does, never per
 * frame. When it is ready the channel writes what is queued, reads into its incoming
 * queue, and calls its handlers.
 *
 * The files of a channel: framing and reading (channel_frame.c), the output queue and
 * flushing (channel_send.c), payload buffers (channel_buffer.c), the socket and its peer
 * (channel_peer.c). */
#include "channel_state_internal.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "dlog.h"
#include "main_loop_internal.h"

#define LOG_TAG "VELNA"
/* Default of VELNA_RPC_TIMEOUT_MS: no synchronous wait holds the loop longer. */
#define SYNC_WAIT_DEFAULT_MS 5000

static velna_channel *live_channels;
static bool flush_hook_added;

velna_channel *channel_live_list(void)
{
        return live_channels;
}

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

int64_t channel_now_ms(void)
{
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int channel_remaining_ms(int64_t deadline_ms)
{
        int64_t left = deadline_ms - channel_now_ms();
        if (left < 0)
                return 0;
        return left > INT32_MAX ? INT32_MAX : (int)left;
}

/* Ends all I/O: the watch goes (before the socket is closed, so that a descriptor
 * number used again is never mistaken for this one), the socket is closed and the
 * spare freed. Queued frames and a pending notification are left to the caller. */
static void stop_io(velna_channel *ch)
{
        velna_watch_set(&ch->watch, 0);
        g_clear_handle_id(&ch->stall_timer, g_source_remove);
        channel_spare_drop(ch);
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
        channel_drop_output(ch);
        channel_drop_input(ch);
        list_remove(ch);
        free(ch);
}

void channel_fail(velna_channel *ch)
{
        if (ch->failed)
                return;
        ch->failed = true;
        stop_io(ch);
        channel_drop_output(ch);
        channel_drop_partial_frame(ch);
}

/* ---- handler dispatch ---- */

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
 * the channel failed. */
bool channel_deliver_events(velna_channel *ch)
{
        ch->dispatch_depth++;
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
        channel_deliver_events(ch);
        return G_SOURCE_REMOVE;
}

void channel_schedule_notify(velna_channel *ch)
{
        if (ch->notify_idle || ch->closing)
                return;
        if (ch->unnotified == 0 && (!ch->failed || ch->closed_reported))
                return;
        ch->notify_idle = g_idle_add(on_notify_idle, ch);
}

/* ---- readiness ---- */

bool channel_is_reading(const velna_channel *ch)
{
        return (ch->watch.events & EPOLLIN) != 0;
}

void channel_update_interest(velna_channel *ch)
{
        uint32_t want = 0;
        if (!ch->failed && !ch->closing && ch->fd >= 0) {
                if (ch->in_bytes <= VELNA_CHANNEL_MAX_QUEUED_IN)
                        want |= EPOLLIN;
                if (ch->out_head)
                        want |= EPOLLOUT;
        }
        bool was_reading = channel_is_reading(ch);
        int r = velna_watch_set(&ch->watch, want);
        if (r < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "dropping peer pid %d: cannot watch its socket (%d)",
                           (int)ch->peer_pid, r);
                channel_fail(ch);
                channel_schedule_notify(ch);
                return;
        }
        if (!was_reading && channel_is_reading(ch))
                ch->last_progress_ms = channel_now_ms(); /* a pause of ours is not the peer's stall */
        channel_update_stall_timer(ch);
}

static void on_ready(velna_watch *w, uint32_t events, void *data)
{
        (void)w;
        velna_channel *ch = data;
        if (ch->out_head && (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)))
                channel_write_some(ch);
        if (!ch->failed && channel_is_reading(ch) && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
                channel_read_and_settle(ch);
        else if (!ch->failed)
                channel_update_interest(ch);
        channel_deliver_events(ch);
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

void channel_sync_wait_end(velna_channel *ch)
{
        ch->sync_wait_active = false;
        g_clear_handle_id(&ch->sync_wait_idle, g_source_remove);
}

static gboolean on_sync_wait_idle(gpointer data)
{
        velna_channel *ch = data;
        ch->sync_wait_idle = 0; /* this source ends by returning G_SOURCE_REMOVE */
        channel_sync_wait_end(ch);
        return G_SOURCE_REMOVE;
}

/* The deadline of a synchronous wait: the running one, or a new one from now. A caller
 * that waits again for the answer it is after (discarding what else arrived) keeps the
 * deadline of its first wait; a send, or the next turn of the loop, ends that call. */
static int64_t sync_wait_deadline(velna_channel *ch)
{
        if (!ch->sync_wait_active) {
                ch->sync_wait_active = true;
                ch->sync_wait_deadline_ms = channel_now_ms() + default_timeout_ms();
                ch->sync_wait_idle = g_idle_add_full(G_PRIORITY_HIGH, on_sync_wait_idle, ch,
                                                     NULL);
        }
        return ch->sync_wait_deadline_ms;
}

/* Waits on this channel alone, writing and reading, until a frame is queued, the
 * channel fails or the deadline passes. */
static void wait_for_frame(velna_channel *ch, int64_t deadline)
{
        while (!ch->in_head && !ch->failed) {
                struct pollfd pfd = { .fd = ch->fd, .events = POLLIN };
                if (ch->out_head)
                        pfd.events |= POLLOUT;
                int pr = poll(&pfd, 1, channel_remaining_ms(deadline));
                if (pr < 0 && errno == EINTR)
                        continue;
                if (pr < 0) {
                        channel_fail(ch);
                        break;
                }
                if (pr == 0)
                        break;
                if ((pfd.revents & POLLOUT) && channel_write_some(ch) < 0)
                        break;
                if (pfd.revents & (POLLIN | POLLHUP | POLLERR))
                        channel_read_and_settle(ch);
                else
                        channel_update_interest(ch);
        }
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
        channel_peer_identify(ch, fd);
        ch->fd = fd;
        ch->max_frame = max_frame;
        velna_watch_init(&ch->watch, fd, on_ready, ch);
        list_add(ch);
        if (!flush_hook_added) {
                flush_hook_added = true;
                velna_main_loop_add_flush_hook(velna_channel_flush_all);
        }
        channel_update_interest(ch);
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

int velna_channel_take_frame(velna_channel *channel, int timeout_ms, unsigned char **payload,
                             size_t *len)
{
        if (!channel || !payload || !len || channel->closing)
                return -EINVAL;

        if (!channel->in_head && !channel->failed) {
                int64_t deadline = timeout_ms < 0 ? sync_wait_deadline(channel)
                                                  : channel_now_ms() + timeout_ms;
                wait_for_frame(channel, deadline);
        }

        /* Frames read here beyond the one taken, and a failure noticed here, reach the
         * handlers on a later loop turn, never from inside this call. */
        in_frame *f = channel_pop_frame(channel);
        channel_schedule_notify(channel);
        if (!channel->failed)
                channel_update_interest(channel);

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

size_t velna_channel_pending(velna_channel *channel)
{
        return channel ? channel->in_count : 0;
}

bool velna_channel_is_open(velna_channel *channel)
{
        return channel && !channel->failed && !channel->closing;
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
