/* Message port: each local port is a listening Unix socket at
 * velna_socket_path("mp", own app id, port name); each accepted connection is a channel
 * whose frames are encoded bundles. A sender keeps one channel per destination
 * (app id, port), so what one sender sends to one port arrives in order, whole.
 *
 * The sender's app id given to the callback is established once, when the connection is
 * accepted, from its credentials (the SO_PEERCRED pid of connect time, looked up in the
 * running registry), and kept with the connection: never taken from the message, and
 * still known when the sender has exited by the time its messages are read. A sender
 * claims its own app id before it connects, so that the record is there. Peers of
 * another uid are refused at accept. */
#include <message_port.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <glib-unix.h>
#include <glib.h>

#include <dlog.h>

#include "bundle_internal.h"
#include "channel_internal.h"
#include "monitor_tap_internal.h"
#include "runtime_internal.h"
#include "str_hash_internal.h"

#define LOG_TAG "VELNA"
#define SOCKET_PATH_SIZE 108
/* Connections accepted per dispatch of a listening socket. */
#define ACCEPT_BUDGET 32

typedef struct mp_conn mp_conn;

typedef struct mp_port {
        int id;
        char *name;
        message_port_message_cb callback;
        void *user_data;
        int listen_fd;
        guint listen_watch;
        mp_conn *conns; /* accepted senders */
        struct mp_port *next;
} mp_port;

struct mp_conn {
        mp_port *port;
        velna_channel *channel; /* owned */
        char *remote_app_id;    /* owned; from the peer's credentials; NULL: none */
        mp_conn *prev;
        mp_conn *next;
};

/* One outgoing connection per destination, keyed "<app id>\n<port>". */
typedef struct mp_dest {
        char *key;              /* owned; also the hash table key */
        velna_channel *channel; /* owned */
        int statm_fd;           /* owned; /proc/<pid>/statm of the instance, or -1 */
} mp_dest;

static mp_port *ports;
static int next_port_id = 1;
static GHashTable *dests; /* key -> mp_dest*, owns both */

/* ---- receiving ---- */

static void conn_free(mp_conn *conn)
{
        mp_port *port = conn->port;
        if (conn->prev)
                conn->prev->next = conn->next;
        else
                port->conns = conn->next;
        if (conn->next)
                conn->next->prev = conn->prev;
        velna_channel_close(conn->channel); /* deferred when inside its handler */
        free(conn->remote_app_id);
        free(conn);
}

static void on_conn_frame(velna_channel *channel, void *user_data)
{
        mp_conn *conn = user_data;
        unsigned char *raw = NULL;
        size_t len = 0;
        if (velna_channel_take_frame(channel, 0, &raw, &len) < 0)
                return;

        /* The message's large byte values stay in raw, which outlives it: the layer frees
         * the message right after the callback. */
        bundle *message = NULL;
        int r = bundle_decode_view(raw, len, &message);
        if (r < 0) {
                free(raw);
                dlog_print(DLOG_WARN, LOG_TAG,
                           "message port %s: dropping sender pid %d: undecodable message of %zu bytes (%d)",
                           conn->port->name, (int)velna_channel_peer_pid(channel), len, r);
                conn_free(conn);
                return;
        }

        mp_port *port = conn->port;
        port->callback(port->id, conn->remote_app_id, NULL, false, message, port->user_data);
        bundle_free(message);
        velna_channel_recycle(channel, raw, len); /* still valid: we are in its handler */
}

static void on_conn_closed(velna_channel *channel, void *user_data)
{
        (void)channel;
        conn_free(user_data);
}

static gboolean on_listen_ready(gint fd, GIOCondition cond, gpointer user_data)
{
        (void)cond;
        mp_port *port = user_data;

        for (int i = 0; i < ACCEPT_BUDGET; i++) {
                int cfd = accept4(fd, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (cfd < 0) {
                        if (errno == EINTR || errno == ECONNABORTED)
                                continue;
                        if (errno != EAGAIN && errno != EWOULDBLOCK)
                                dlog_print(DLOG_ERROR, LOG_TAG, "message port %s: accept failed: %s",
                                           port->name, strerror(errno));
                        break;
                }

                velna_channel *channel = velna_channel_new(cfd, MESSAGE_PORT_MAX_MESSAGE_SIZE);
                if (!channel)
                        continue;
                if (velna_channel_peer_uid(channel) != geteuid()) {
                        dlog_print(DLOG_WARN, LOG_TAG,
                                   "message port %s: refusing sender pid %d of uid %u",
                                   port->name, (int)velna_channel_peer_pid(channel),
                                   (unsigned)velna_channel_peer_uid(channel));
                        velna_channel_close(channel);
                        continue;
                }

                mp_conn *conn = calloc(1, sizeof *conn);
                if (!conn) {
                        velna_channel_close(channel);
                        continue;
                }
                conn->port = port;
                conn->channel = channel;
                if (running_registry_identify_peer(velna_channel_peer_pid(channel),
                                                   &conn->remote_app_id) < 0)
                        conn->remote_app_id = NULL;
                conn->next = port->conns;
                if (port->conns)
                        port->conns->prev = conn;
                port->conns = conn;
                velna_channel_set_handlers(channel, on_conn_frame, on_conn_closed, conn);
        }
        return G_SOURCE_CONTINUE;
}

static mp_port *port_find(const char *name)
{
        for (mp_port *p = ports; p; p = p->next)
                if (strcmp(p->name, name) == 0)
                        return p;
        return NULL;
}

/* Binds and listens at path. Any file there is a leftover of an earlier instance of
 * this app (the caller holds the app id), so it is replaced. The listening socket, or a
 * negative errno value. */
static int listen_at(const char *path)
{
        struct sockaddr_un addr = { .sun_family = AF_UNIX };
        size_t plen = strlen(path);
        if (plen >= sizeof addr.sun_path)
                return -ENAMETOOLONG;
        memcpy(addr.sun_path, path, plen + 1);

        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0)
                return -errno;
        unlink(path);
        if (bind(fd, (struct sockaddr *)&addr, sizeof addr) < 0 || chmod(path, 0600) < 0 ||
            listen(fd, SOMAXCONN) < 0) {
                int e = errno;
                close(fd);
                return -e;
        }
        return fd;
}

int message_port_register_local_port(const char *local_port, message_port_message_cb callback,
                                     void *user_data)
{
        if (!local_port || !*local_port || !callback)
                return -EINVAL;

        const char *app_id = velna_self_app_id();
        if (!app_id) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "cannot register message port %s: this process has no valid "
                           "VELNA_APP_ID, and a port belongs to an app",
                           local_port);
                return -EINVAL;
        }

        mp_port *port = port_find(local_port);
        if (port) {
                port->callback = callback;
                port->user_data = user_data;
                return port->id;
        }

        int r = velna_self_register();
        if (r < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot register message port %s: app id %s "
                           "cannot be claimed (%d)", local_port, app_id, r);
                return r == -EEXIST || r == -EINVAL || r == -EACCES ? r : -EIO;
        }

        char path[SOCKET_PATH_SIZE];
        r = velna_socket_path("mp", app_id, local_port, path, sizeof path);
        if (r < 0)
                return r == -ENOMEM || r == -EACCES ? r : -EIO;

        int fd = listen_at(path);
        if (fd < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot register message port %s: "
                           "cannot listen at %s: %s", local_port, path, strerror(-fd));
                return fd == -ENOMEM ? fd : -EIO;
        }

        port = calloc(1, sizeof *port);
        char *name = strdup(local_port);
        if (!port || !name) {
                free(port);
                free(name);
                close(fd);
                unlink(path);
                return -ENOMEM;
        }
        port->id = next_port_id++;
        port->name = name;
        port->callback = callback;
        port->user_data = user_data;
        port->listen_fd = fd;
        port->listen_watch = g_unix_fd_add(fd, G_IO_IN, on_listen_ready, port);
        port->next = ports;
        ports = port;
        return port->id;
}

/* ---- sending ---- */

static void dest_free(gpointer data)
{
        mp_dest *dest = data;
        velna_channel_close(dest->channel);
        if (dest->statm_fd >= 0)
                close(dest->statm_fd);
        free(dest->key);
        free(dest);
}

/* A receiver never writes back on a send connection; whatever arrives is discarded so
 * that it cannot pile up. */
static void on_dest_frame(velna_channel *channel, void *user_data)
{
        (void)user_data;
        velna_channel_drop_frame(channel);
}

static void on_dest_closed(velna_channel *channel, void *user_data)
{
        (void)channel;
        mp_dest *dest = user_data;
        g_hash_table_remove(dests, dest->key);
}

static char *dest_key(const char *app_id, const char *port)
{
        size_t a = strlen(app_id), p = strlen(port);
        char *key = malloc(a + 1 + p + 1);
        if (!key)
                return NULL;
        memcpy(key, app_id, a);
        key[a] = '\n'; /* never part of an app id */
        memcpy(key + a + 1, port, p + 1);
        return key;
}

/* The cached channel for key when it is still connected, after a look for a hang-up
 * that the loop has not reported yet. NULL otherwise (a dead entry is dropped). */
static velna_channel *dest_live_channel(const char *key)
{
        mp_dest *dest = dests ? g_hash_table_lookup(dests, key) : NULL;
        if (!dest)
                return NULL;

        while (velna_channel_drop_frame(dest->channel) == 0)
                continue;
        if (velna_channel_is_open(dest->channel))
                return dest->channel;
        g_hash_table_remove(dests, key);
        return NULL;
}

/* /proc/<pid>/statm of the running instance of app_id, held open: the descriptor stays
 * bound to that process, so it never describes a later process that reuses the pid.
 * -1 when it cannot be opened or the instance is already gone (the registry is read
 * again after the open). */
static int instance_watch(const char *app_id, pid_t pid)
{
        char path[32];
        snprintf(path, sizeof path, "/proc/%d/statm", (int)pid);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        pid_t again;
        if (fd >= 0 && (running_registry_get_pid(app_id, &again) < 0 || again != pid)) {
                close(fd);
                fd = -1;
        }
        return fd;
}

/* True while the instance behind statm_fd lives and is not a zombie, with one pread(2)
 * of a descriptor held open. A process gives up its memory map before it turns zombie,
 * and its statm then reads all zeros (empty once it is reaped), so a size above zero
 * means that the running registry, which counts a process until it is a zombie, still
 * counts it. The other way round, false may come a moment before the registry stops
 * counting a dying process; the caller then asks the registry. statm is used rather than
 * stat because the kernel makes it in about a third of the time. */
static bool instance_alive(int statm_fd)
{
        char buf[128];
        ssize_t n = pread(statm_fd, buf, sizeof buf - 1, 0);
        if (n <= 0)
                return false; /* the process has been reaped */
        buf[n] = '\0';
        return buf[0] >= '1' && buf[0] <= '9'; /* the size in pages, without leading zeros */
}

/* True while the cached connection for key still reaches the instance that it was
 * made to: open, and that process alive. No filesystem walk, no registry read. */
static bool dest_is_current(const char *key)
{
        mp_dest *dest = dests ? g_hash_table_lookup(dests, key) : NULL;
        return dest && dest->statm_fd >= 0 && velna_channel_is_open(dest->channel) &&
               instance_alive(dest->statm_fd);
}

/* Connects to the app's port when the app runs and the port listens, and caches the
 * channel under key (which is copied). 0, -2 when the app or port is not there, -5, -12. */
static int dest_connect(const char *app_id, const char *port, const char *key,
                        velna_channel **out)
{
        pid_t pid;
        if (running_registry_get_pid(app_id, &pid) < 0)
                return -ENOENT;

        char path[SOCKET_PATH_SIZE];
        int r = velna_socket_path("mp", app_id, port, path, sizeof path);
        if (r < 0)
                return r == -ENOMEM || r == -EACCES ? r : -EIO;

        /* The receiver names us from the registry when it accepts. */
        if (velna_self_app_id())
                velna_self_register();

        velna_channel *channel = NULL;
        r = velna_channel_connect(path, MESSAGE_PORT_MAX_MESSAGE_SIZE, &channel);
        if (r < 0)
                return r;
        /* Only the counted instance's listener is the port. An instance on its way out
         * can hold its socket a moment after the registry stops counting it (its main
         * thread a zombie while another still exits), and the next one is counted
         * before it listens: a message accepted there would be lost. */
        if (velna_channel_peer_pid(channel) != pid) {
                velna_channel_close(channel);
                return -ENOENT;
        }

        if (!dests)
                dests = g_hash_table_new_full(velna_str_hash, g_str_equal, NULL, dest_free);
        mp_dest *dest = calloc(1, sizeof *dest);
        char *k = strdup(key);
        if (!dests || !dest || !k) {
                free(dest);
                free(k);
                velna_channel_close(channel);
                return -ENOMEM;
        }
        dest->key = k;
        dest->channel = channel;
        dest->statm_fd = instance_watch(app_id, pid);
        g_hash_table_replace(dests, k, dest);
        velna_channel_set_handlers(channel, on_dest_frame, on_dest_closed, dest);
        *out = channel;
        return 0;
}

int message_port_check_remote_port(const char *remote_app_id, const char *remote_port,
                                   bool *exist)
{
        if (!velna_app_id_is_valid(remote_app_id) || !remote_port || !*remote_port || !exist)
                return -EINVAL;

        *exist = false;
        char *key = dest_key(remote_app_id, remote_port);
        if (!key)
                return 0;

        /* The library polls this while it waits for an app, and before every send: a
         * connection to a live instance answers without walking the filesystem. */
        if (dest_is_current(key)) {
                *exist = true;
                free(key);
                return 0;
        }

        /* A killed app stops counting at once, whatever connection is still cached. */
        pid_t pid;
        if (running_registry_get_pid(remote_app_id, &pid) < 0) {
                if (dests)
                        g_hash_table_remove(dests, key);
                free(key);
                return 0;
        }

        velna_channel *channel = dest_live_channel(key);
        if (!channel)
                dest_connect(remote_app_id, remote_port, key, &channel);
        *exist = channel != NULL;
        free(key);
        return 0;
}

int message_port_send_message(const char *remote_app_id, const char *remote_port,
                              bundle *message)
{
        if (!velna_app_id_is_valid(remote_app_id) || !remote_port || !*remote_port || !message)
                return -EINVAL;

        size_t len = 0;
        int r = bundle_encoded_size(message, &len);
        if (r < 0)
                return r;
        if (len > MESSAGE_PORT_MAX_MESSAGE_SIZE) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "message to %s port %s refused: %zu bytes encoded, over the limit "
                           "of %u bytes", remote_app_id, remote_port, len,
                           MESSAGE_PORT_MAX_MESSAGE_SIZE);
                return -EMSGSIZE;
        }

        char *key = dest_key(remote_app_id, remote_port);
        if (!key)
                return -ENOMEM;

        /* The cached connection first: a peer that went away (the app restarted) shows
         * as -5, and one fresh connection is tried. */
        unsigned char *raw = NULL;
        mp_dest *dest = dests ? g_hash_table_lookup(dests, key) : NULL;
        velna_channel *channel = dest ? dest->channel : NULL;
        bool cached = channel && velna_channel_is_open(channel);
        if (!cached) {
                if (dest)
                        g_hash_table_remove(dests, key);
                r = dest_connect(remote_app_id, remote_port, key, &channel);
                if (r < 0)
                        goto out;
        }

        /* Encoded straight into the buffer that the channel sends from. */
        raw = velna_channel_payload_alloc(channel, len);
        if (!raw) {
                r = -ENOMEM;
                goto out;
        }
        bundle_encode_into(message, raw);
        r = velna_channel_send_owned(channel, raw, len);
        if (r == -EIO && cached) {
                g_hash_table_remove(dests, key);
                r = dest_connect(remote_app_id, remote_port, key, &channel);
                if (r == 0)
                        r = velna_channel_send_owned(channel, raw, len);
        }
        if (r == 0) {
                raw = NULL; /* the channel releases it once written */
                velna_monitor_tap_message(remote_app_id, remote_port, message);
        }
        if (r == -EAGAIN)
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "message to %s port %s refused: more than %u bytes already queued",
                           remote_app_id, remote_port, MESSAGE_PORT_MAX_QUEUED);
out:
        free(key);
        free(raw);
        return r;
}
