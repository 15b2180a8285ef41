/* Writing: a frame goes to the socket at once, header and payload in one sendmsg, when
 * nothing is queued ahead of it; what the socket does not take is queued and written by
 * the loop while the channel waits for EPOLLOUT, or by a flush. */
#include "channel_state_internal.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "byteorder_internal.h"

/* Most queued output buffers handed to one sendmsg. */
#define WRITE_IOV_MAX 64

/* sendmsg without blocking or SIGPIPE: bytes written (0 when the socket is full), or -1
 * when the peer is gone or the socket failed. */
static ssize_t send_iov(int fd, struct iovec *iov, size_t n)
{
        struct msghdr msg = { .msg_iov = iov, .msg_iovlen = n };
        ssize_t w;
        do {
                w = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        } while (w < 0 && errno == EINTR);
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return 0;
        return w;
}

/* The unwritten parts of the queue, oldest first, as at most max entries. */
static size_t queue_iov(const velna_channel *ch, struct iovec *iov, size_t max)
{
        size_t n = 0;
        for (out_buf *b = ch->out_head; b && n + 2 <= max; b = b->next) {
                if (b->off < VELNA_FRAME_HEADER_SIZE) {
                        iov[n++] = (struct iovec){ b->head + b->off, VELNA_FRAME_HEADER_SIZE - b->off };
                        if (b->len)
                                iov[n++] = (struct iovec){ b->data, b->len };
                } else {
                        size_t done = b->off - VELNA_FRAME_HEADER_SIZE;
                        iov[n++] = (struct iovec){ b->data + done, b->len - done };
                }
        }
        return n;
}

/* Retires what a write took from the head of the queue. */
static void queue_advance(velna_channel *ch, size_t written)
{
        ch->out_bytes -= written;
        while (written > 0 && ch->out_head) {
                out_buf *b = ch->out_head;
                size_t avail = VELNA_FRAME_HEADER_SIZE + b->len - b->off;
                if (written < avail) {
                        b->off += written;
                        break;
                }
                written -= avail;
                ch->out_head = b->next;
                if (!ch->out_head)
                        ch->out_tail = NULL;
                channel_buffer_put(ch, b->data, b->len);
                free(b);
        }
}

int channel_write_some(velna_channel *ch)
{
        while (ch->out_head) {
                struct iovec iov[WRITE_IOV_MAX];
                size_t n = queue_iov(ch, iov, WRITE_IOV_MAX);
                size_t asked = 0;
                for (size_t i = 0; i < n; i++)
                        asked += iov[i].iov_len;
                ssize_t w = send_iov(ch->fd, iov, n);
                if (w < 0) {
                        channel_fail(ch);
                        return -EIO;
                }
                queue_advance(ch, (size_t)w);
                if ((size_t)w < asked)
                        return 0; /* the socket is full */
        }
        return 0;
}

void channel_drop_output(velna_channel *ch)
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

/* Queues what the socket did not take of a frame, sent bytes of it (header included)
 * already written. When owned, payload becomes the queue's; else the rest is copied.
 * 0, or -12 (a partly written frame fails the channel then: the stream is lost). */
static int queue_rest(velna_channel *ch, const unsigned char *hdr, unsigned char *payload,
                      size_t len, size_t sent, bool owned)
{
        size_t skip = sent > VELNA_FRAME_HEADER_SIZE ? sent - VELNA_FRAME_HEADER_SIZE : 0;
        out_buf *b = malloc(sizeof *b);
        unsigned char *data = owned ? payload : NULL;
        if (b && !owned && len > skip && (data = malloc(len - skip)))
                memcpy(data, payload + skip, len - skip);
        if (!b || (len > skip && !data)) {
                free(b);
                if (sent > 0) {
                        channel_fail(ch);
                        channel_schedule_notify(ch);
                }
                return -ENOMEM;
        }

        *b = (out_buf){ .data = data };
        memcpy(b->head, hdr, VELNA_FRAME_HEADER_SIZE);
        if (owned) {
                b->len = len;
                b->off = sent;
        } else {
                b->len = len - skip;
                b->off = sent < VELNA_FRAME_HEADER_SIZE ? sent : VELNA_FRAME_HEADER_SIZE;
        }
        if (ch->out_tail)
                ch->out_tail->next = b;
        else
                ch->out_head = b;
        ch->out_tail = b;
        ch->out_bytes += VELNA_FRAME_HEADER_SIZE + len - sent;
        channel_update_interest(ch);
        return 0;
}

/* Sends one frame. When owned, payload is the caller's malloc'd buffer, taken over
 * on success only; otherwise what the socket does not take at once is copied. */
static int send_frame(velna_channel *ch, unsigned char *payload, size_t len, bool owned)
{
        if (!ch || (!payload && len > 0) || ch->closing)
                return -EINVAL;
        if (len > ch->max_frame)
                return -EMSGSIZE;
        if (ch->failed)
                return -EIO;
        if (ch->out_bytes + len > VELNA_CHANNEL_MAX_QUEUED_OUT)
                return -EAGAIN;

        channel_sync_wait_end(ch); /* a new request: a later wait is for its answer */
        unsigned char hdr[VELNA_FRAME_HEADER_SIZE];
        velna_put_le32(hdr, VELNA_FRAME_MAGIC);
        velna_put_le32(hdr + 4, (uint32_t)len);
        if (ch->out_head)
                return queue_rest(ch, hdr, payload, len, 0, owned);

        struct iovec iov[2] = { { hdr, sizeof hdr }, { payload, len } };
        ssize_t sent = send_iov(ch->fd, iov, len ? 2 : 1);
        if (sent < 0) {
                channel_fail(ch);
                channel_schedule_notify(ch);
                return -EIO;
        }
        if ((size_t)sent < sizeof hdr + len)
                return queue_rest(ch, hdr, payload, len, (size_t)sent, owned);
        if (owned)
                channel_buffer_put(ch, payload, len);
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

/* Polls every channel in chs that has output queued, writing and also reading (so that
 * peers blocked on each other make progress), until all output is written or the
 * deadline passes. 0 when everything was written. */
static int flush_channels(velna_channel **chs, size_t n, int timeout_ms)
{
        int64_t deadline = channel_now_ms() + (timeout_ms < 0 ? 0 : timeout_ms);
        struct pollfd *pfds = n ? calloc(n, sizeof *pfds) : NULL;
        if (n && !pfds)
                return -ENOMEM;

        int result = 0;
        for (;;) {
                size_t busy = 0;
                for (size_t i = 0; i < n; i++) {
                        velna_channel *ch = chs[i];
                        pfds[i] = (struct pollfd){ .fd = -1 };
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
                int pr = poll(pfds, n, channel_remaining_ms(deadline));
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
                                channel_write_some(ch);
                        if (!ch->failed && (pfds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                                channel_read_and_settle(ch);
                        if (!ch->failed)
                                channel_update_interest(ch);
                        channel_schedule_notify(ch);
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
        for (velna_channel *ch = channel_live_list(); ch; ch = ch->next)
                if (ch->out_head && !ch->failed && !ch->closing)
                        n++;
        if (n == 0)
                return;
        velna_channel **chs = calloc(n, sizeof *chs);
        if (!chs)
                return;
        size_t i = 0;
        for (velna_channel *ch = channel_live_list(); ch && i < n; ch = ch->next)
                if (ch->out_head && !ch->failed && !ch->closing)
                        chs[i++] = ch;
        flush_channels(chs, i, timeout_ms);
        free(chs);
}
