/* The monitor tap: senders copy what they send to a listening monitor (the hooks of
 * monitor_tap_internal.h), and the monitor's side of the socket (velna_monitor.h).
 *
 * The tap socket is a listening SOCK_SEQPACKET socket: each sender that finds it makes
 * one non-blocking connection and sends each copy as one packet with MSG_DONTWAIT, so a
 * slow monitor costs dropped copies, never a wait. A connection (unlike datagrams to an
 * unconnected socket, which the kernel caps at a handful queued) holds a burst as large
 * as the socket buffer, such as every piece of a chunked answer. Whether a monitor
 * listens is known from the socket file, looked at once per second at most (a coarse
 * clock read per message is all that a send pays meanwhile); a connection that breaks
 * is closed at once and made again after the next look. */
#include "monitor_tap_internal.h"

#include <app_manager.h>
#include <dlog.h>
#include <velna_monitor.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <glib.h>

#include "bundle_internal.h"
#include "byteorder_internal.h"
#include "runtime_internal.h"

#define CHECK_INTERVAL_NS 1000000000LL
#define STRING_MAX 0xffffu
#define PACKET_MAX (VELNA_MONITOR_HEADER_SIZE + 3u * (2u + STRING_MAX) + VELNA_MONITOR_MAX_PAYLOAD)
#define MONITOR_RCVBUF (4 * 1024 * 1024)


/* Parcel field tags, as parcel.c writes them. */
enum { FIELD_INT32 = 1, FIELD_BOOL = 2, FIELD_STRING = 3, FIELD_BUNDLE = 4 };

static struct {
        int path_state;          /* 0 not looked up, 1 path known, -1 no usable path */
        struct sockaddr_un addr;
        int64_t next_check_ns;
        bool listening;
        int fd;                  /* connection to the monitor, or -1 */
} tap = { .fd = -1 };

static void tap_disconnect(void)
{
        if (tap.fd >= 0)
                close(tap.fd);
        tap.fd = -1;
}

static int tap_socket_path(struct sockaddr_un *addr)
{
        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return r;
        memset(addr, 0, sizeof(*addr));
        addr->sun_family = AF_UNIX;
        int n = snprintf(addr->sun_path, sizeof(addr->sun_path), "%s/" VELNA_MONITOR_SOCKET_NAME,
                         runtime);
        free(runtime);
        return n < 0 || (size_t)n >= sizeof(addr->sun_path) ? -ENAMETOOLONG : 0;
}

static int64_t coarse_now_ns(void)
{
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
        return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* True while a monitor is believed to listen. */
static bool tap_listening(void)
{
        int64_t now = coarse_now_ns();
        if (now < tap.next_check_ns)
                return tap.listening;
        tap.next_check_ns = now + CHECK_INTERVAL_NS;

        if (tap.path_state == 0)
                tap.path_state = tap_socket_path(&tap.addr) == 0 ? 1 : -1;
        struct stat st;
        tap.listening = tap.path_state == 1 && stat(tap.addr.sun_path, &st) == 0 &&
                        S_ISSOCK(st.st_mode);
        if (!tap.listening)
                tap_disconnect();
        if (tap.listening && tap.fd < 0) {
                tap.fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
                if (tap.fd >= 0 &&
                    connect(tap.fd, (struct sockaddr *)&tap.addr, sizeof(tap.addr)) < 0)
                        tap_disconnect(); /* a socket file left behind, or a full backlog */
                tap.listening = tap.fd >= 0;
        }
        return tap.listening;
}

static unsigned char *put_string(unsigned char *out, const char *s)
{
        size_t len = s ? strnlen(s, STRING_MAX) : 0;
        out[0] = (unsigned char)(len & 0xff);
        out[1] = (unsigned char)(len >> 8);
        if (len)
                memcpy(out + 2, s, len);
        return out + 2 + len;
}

/* Sends one copy; payload may be NULL (left out). Drops it on any failure. */
static void tap_send(velna_monitor_mechanism_e mechanism, const char *receiver, const char *port,
                     pid_t receiver_pid, const void *payload, size_t len)
{
        bool left_out = !payload || len > VELNA_MONITOR_MAX_PAYLOAD;
        const char *sender = velna_self_app_id();
        size_t size = VELNA_MONITOR_HEADER_SIZE + 6u + (sender ? strnlen(sender, STRING_MAX) : 0) +
                      (receiver ? strnlen(receiver, STRING_MAX) : 0) +
                      (port ? strnlen(port, STRING_MAX) : 0) + (left_out ? 0 : len);
        unsigned char *buf = malloc(size);
        if (!buf)
                return;

        int64_t now_us = g_get_real_time();
        memcpy(buf, VELNA_MONITOR_MAGIC, VELNA_MONITOR_MAGIC_LEN);
        buf[4] = (unsigned char)mechanism;
        buf[5] = left_out ? VELNA_MONITOR_FLAG_LEFT_OUT : 0;
        buf[6] = buf[7] = 0;
        velna_put_le32(buf + 8, (uint32_t)((uint64_t)now_us & 0xffffffffu));
        velna_put_le32(buf + 12, (uint32_t)((uint64_t)now_us >> 32));
        velna_put_le32(buf + 16, (uint32_t)getpid());
        velna_put_le32(buf + 20, (uint32_t)receiver_pid);
        velna_put_le32(buf + 24, (uint32_t)len);
        unsigned char *out = put_string(buf + VELNA_MONITOR_HEADER_SIZE, sender);
        out = put_string(out, receiver);
        out = put_string(out, port);
        if (!left_out) {
                memcpy(out, payload, len);
                out += len;
        }

        ssize_t n = send(tap.fd, buf, (size_t)(out - buf), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) {
                /* The monitor that this connection led to has gone; a new one may
                 * listen already (a restart), so look at once, and once only. */
                tap_disconnect();
                tap.next_check_ns = 0;
                if (tap_listening())
                        send(tap.fd, buf, (size_t)(out - buf), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        free(buf);
}

void velna_monitor_tap_message(const char *receiver, const char *port, bundle *message)
{
        if (!tap_listening())
                return;

        size_t len = 0;
        unsigned char *raw = NULL;
        if (bundle_encoded_size(message, &len) < 0)
                return;
        if (len <= VELNA_MONITOR_MAX_PAYLOAD && bundle_encode_raw(message, &raw, &len) < 0)
                return;
        tap_send(VELNA_MONITOR_MESSAGE_PORT, receiver, port, 0, raw, len);
        free(raw);
}

void velna_monitor_tap_parcel(velna_channel *channel, const void *parcel, size_t len)
{
        if (!tap_listening())
                return;

        /* Named here, while the receiver is known to the registry: a monitor that reads
         * the copy later may find the receiver gone and could name only its pid. */
        pid_t pid = velna_channel_peer_pid(channel);
        char *receiver = NULL;
        if (running_registry_identify_peer(pid, &receiver) < 0)
                receiver = NULL;
        tap_send(VELNA_MONITOR_RPC_PORT, receiver, NULL, pid, parcel, len);
        free(receiver);
}

/* ---- the monitor's side ---- */

int velna_monitor_listen(int *fd)
{
        if (!fd)
                return -EINVAL;

        struct sockaddr_un addr;
        int r = tap_socket_path(&addr);
        if (r < 0)
                return r == -ENAMETOOLONG ? r : -EIO;

        int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (s < 0)
                return -EIO;
        /* A socket file that accepts a connection belongs to a live monitor; one that
         * refuses is left over from a monitor that died, and is replaced. */
        int probe = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        bool busy = probe >= 0 && (connect(probe, (struct sockaddr *)&addr, sizeof(addr)) == 0 ||
                                   errno == EAGAIN);
        if (probe >= 0)
                close(probe);
        if (busy) {
                close(s);
                return -EBUSY;
        }
        unlink(addr.sun_path);

        mode_t old = umask(0177); /* the socket file: 0600 */
        r = bind(s, (struct sockaddr *)&addr, sizeof(addr));
        umask(old);
        if (r == 0)
                r = listen(s, SOMAXCONN);
        if (r < 0) {
                close(s);
                return errno == EADDRINUSE ? -EBUSY : -EIO;
        }
        *fd = s;
        return 0;
}

int velna_monitor_accept(int fd, int *conn)
{
        if (fd < 0 || !conn)
                return -EINVAL;

        int c = accept4(fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (c < 0)
                return errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED ? -EAGAIN
                                                                                          : -EIO;
        /* Refuse what another user's process might have connected (the directory and
         * the socket's mode keep them out already). */
        struct ucred cred;
        socklen_t len = sizeof(cred);
        if (getsockopt(c, SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0 || cred.uid != getuid()) {
                close(c);
                return -EAGAIN;
        }
        int size = MONITOR_RCVBUF;
        setsockopt(c, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
        *conn = c;
        return 0;
}

void velna_monitor_stop(int fd)
{
        struct sockaddr_un addr;
        socklen_t len = sizeof(addr);
        if (fd < 0)
                return;
        if (getsockname(fd, (struct sockaddr *)&addr, &len) == 0 && addr.sun_path[0])
                unlink(addr.sun_path);
        close(fd);
}

static bool take_string(const unsigned char **p, const unsigned char *end, char **out)
{
        if (end - *p < 2)
                return false;
        size_t len = (size_t)(*p)[0] | (size_t)(*p)[1] << 8;
        if ((size_t)(end - *p - 2) < len)
                return false;
        *out = g_strndup((const char *)*p + 2, len);
        *p += 2 + len;
        return true;
}

/* Reads what a monitor shows of a parcel: the leading int32 fields (command first), the
 * first string and the first bundle. Stops quietly at anything malformed. */
static void parse_parcel(const unsigned char *p, const unsigned char *end,
                         velna_monitor_record *record)
{
        int ints = 0;
        while (end - p >= 1) {
                unsigned char tag = *p++;
                size_t body = tag == FIELD_INT32 ? 4 : tag == FIELD_BOOL ? 1 : 0;
                if (tag == FIELD_STRING || tag == FIELD_BUNDLE) {
                        if (end - p < 4)
                                return;
                        body = velna_get_le32(p);
                        p += 4;
                } else if (!body) {
                        return;
                }
                if ((size_t)(end - p) < body)
                        return;

                if (tag == FIELD_INT32 && ints < 4) {
                        int32_t v = (int32_t)velna_get_le32(p);
                        if (ints++ == 0)
                                record->command = v;
                        else
                                record->args[ints - 2] = v;
                } else if (tag == FIELD_STRING && !record->text) {
                        record->text = g_strndup((const char *)p, body);
                } else if (tag == FIELD_BUNDLE && !record->message) {
                        bundle_decode_raw(p, body, &record->message);
                }
                p += body;
        }
}

int velna_monitor_receive(int fd, velna_monitor_record *record)
{
        if (fd < 0 || !record)
                return -EINVAL;

        unsigned char *buf = malloc(PACKET_MAX);
        if (!buf)
                return -ENOMEM;
        ssize_t n = recv(fd, buf, PACKET_MAX, MSG_DONTWAIT);
        int r = n > 0                                  ? 0
                : n == 0                               ? -EPIPE
                : errno == EAGAIN || errno == EWOULDBLOCK ? -EAGAIN
                                                       : -EPIPE;
        const unsigned char *end = buf + (n > 0 ? n : 0);
        if (r == 0 && (n < (ssize_t)VELNA_MONITOR_HEADER_SIZE ||
                       memcmp(buf, VELNA_MONITOR_MAGIC, VELNA_MONITOR_MAGIC_LEN) != 0))
                r = -EBADMSG;

        *record = (velna_monitor_record){ .command = -1 };
        const unsigned char *p = buf + VELNA_MONITOR_HEADER_SIZE;
        if (r == 0 && !(take_string(&p, end, &record->sender) &&
                        take_string(&p, end, &record->receiver) &&
                        take_string(&p, end, &record->port))) {
                velna_monitor_record_clear(record);
                r = -EBADMSG;
        }
        if (r == 0) {
                record->mechanism = buf[4] == VELNA_MONITOR_RPC_PORT ? VELNA_MONITOR_RPC_PORT
                                                                      : VELNA_MONITOR_MESSAGE_PORT;
                record->left_out = buf[5] & VELNA_MONITOR_FLAG_LEFT_OUT;
                record->time_us = (int64_t)((uint64_t)velna_get_le32(buf + 12) << 32 |
                                            velna_get_le32(buf + 8));
                record->sender_pid = (pid_t)velna_get_le32(buf + 16);
                record->receiver_pid = (pid_t)velna_get_le32(buf + 20);
                record->size = velna_get_le32(buf + 24);
                if (!record->left_out && record->mechanism == VELNA_MONITOR_MESSAGE_PORT)
                        bundle_decode_raw(p, (size_t)(end - p), &record->message);
                else if (!record->left_out)
                        parse_parcel(p, end, record);
                char *id = NULL;
                if (!*record->receiver && record->receiver_pid > 0 &&
                    app_manager_get_app_id(record->receiver_pid, &id) == 0) {
                        g_free(record->receiver);
                        record->receiver = g_strdup(id);
                        free(id);
                }
        }
        free(buf);
        return r;
}

void velna_monitor_record_clear(velna_monitor_record *record)
{
        if (!record)
                return;
        g_free(record->sender);
        g_free(record->receiver);
        g_free(record->port);
        g_free(record->text);
        if (record->message)
                bundle_free(record->message);
        *record = (velna_monitor_record){ .command = -1 };
}
