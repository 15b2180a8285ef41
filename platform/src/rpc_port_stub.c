/* rpc-port, stub side: an app's port, listening for proxies.
 *
 * Each accepted socket first delivers its hello, read here straight from the descriptor
 * (header checked before anything else is read, so a peer that lies about lengths costs
 * nothing); then it becomes a channel and joins the instance that the hello names. The
 * first channel of an instance decides who the peer is (its pid in the registry of
 * running apps) and whether the manifest's AllowedClients admits it; the second must
 * come from the same process. With both channels present the stub acks them and raises
 * the connected event.
 *
 * Every handler and source runs between stub_enter and stub_leave. Instances that close
 * are unlinked at once and freed by the outermost leave, and destroy from inside a
 * handler only marks the stub, so handlers may close anything, the stub included. */
#include <rpc-port.h>

#include <dlog.h>

#include <errno.h>
#include <glib-unix.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "app_registry_internal.h"
#include "byteorder_internal.h"
#include "channel_internal.h"
#include "rpc_port_internal.h"
#include "runtime_internal.h"

#define LOG_TAG "RPC_PORT"
/* A socket that has not sent its hello, or an instance still missing a channel, after
 * this long is dropped. */
#define HANDSHAKE_LIMIT_MS 10000
/* Most sockets waiting for their hello at once; more are refused. */
#define MAX_PENDING_HELLOS 64
#define PORT_NAME_MAX 255

typedef struct hello_conn {
        struct rpc_port_stub_s *stub;
        int fd;
        guint watch;
        guint timer;
        unsigned char buf[VELNA_FRAME_HEADER_SIZE + RPC_PORT_HELLO_MAX];
        size_t have;
        size_t need; /* the header, then the whole frame */
        struct hello_conn *next;
} hello_conn;

typedef struct instance {
        struct rpc_port_stub_s *stub;
        char id[RPC_PORT_INSTANCE_MAX + 1];
        char *sender; /* owned; "" for a peer without an app id */
        pid_t pid;
        struct rpc_port_s main_port; /* channels owned */
        struct rpc_port_s cb_port;
        guint pair_timer;
        bool connected;
        bool dispatching;
        bool gone; /* unlinked, waiting to be freed */
        struct instance *next;
} instance;

struct rpc_port_stub_s {
        rpc_port_stub_connected_event_cb on_connected;
        void *connected_data;
        rpc_port_stub_disconnected_event_cb on_disconnected;
        void *disconnected_data;
        rpc_port_stub_received_event_cb on_received;
        void *received_data;

        char *port_name; /* owned */
        char *app_id;    /* owned */
        int listen_fd;
        guint listen_watch;
        char path[sizeof(((struct sockaddr_un *)0)->sun_path)];
        dev_t path_dev;
        ino_t path_ino;

        hello_conn *hellos;
        size_t hello_count;
        instance *instances;
        instance *graveyard;

        int depth;
        bool destroyed;
};

static void stub_free(struct rpc_port_stub_s *s);

/* Instances reach the graveyard through instance_close, which has already removed
 * their timer and closed their channels. */
static void free_graveyard(struct rpc_port_stub_s *s)
{
        while (s->graveyard) {
                instance *in = s->graveyard;
                s->graveyard = in->next;
                free(in->sender);
                free(in);
        }
}

static void stub_enter(struct rpc_port_stub_s *s)
{
        s->depth++;
}

static void stub_leave(struct rpc_port_stub_s *s)
{
        if (--s->depth > 0)
                return;
        free_graveyard(s);
        if (s->destroyed)
                stub_free(s);
}

/* Unlinks the instance and closes its channels; with raise_event and a connected
 * instance, raises the disconnected event. The memory waits in the graveyard until the
 * outermost handler returns, so callers may still look at in->gone. */
static void instance_close(instance *in, bool raise_event)
{
        struct rpc_port_stub_s *s = in->stub;
        if (in->gone)
                return;
        in->gone = true;
        for (instance **at = &s->instances; *at; at = &(*at)->next) {
                if (*at == in) {
                        *at = in->next;
                        break;
                }
        }
        g_clear_handle_id(&in->pair_timer, g_source_remove);
        rpc_port_close(&in->main_port);
        rpc_port_close(&in->cb_port);
        in->next = s->graveyard;
        s->graveyard = in;

        if (raise_event && in->connected && !s->destroyed && s->on_disconnected) {
                stub_enter(s);
                s->on_disconnected(in->sender, in->id, s->disconnected_data);
                stub_leave(s);
        }
}

static instance *instance_find(struct rpc_port_stub_s *s, const char *id)
{
        for (instance *in = s->instances; in; in = in->next)
                if (strcmp(in->id, id) == 0)
                        return in;
        return NULL;
}

/* ---- connected instances ---- */

/* Raises the received event while whole parcels wait on the main channel. A handler
 * that leaves its parcel unread loses it, so that the loop always ends. */
static void dispatch_received(instance *in)
{
        struct rpc_port_stub_s *s = in->stub;
        if (in->dispatching)
                return;
        in->dispatching = true;
        while (!in->gone && !s->destroyed) {
                size_t before = velna_channel_pending(in->main_port.channel);
                if (before == 0)
                        break;
                if (!s->on_received) {
                        velna_channel_drop_frame(in->main_port.channel);
                        continue;
                }
                int r = s->on_received(in->sender, in->id, &in->main_port, s->received_data);
                if (in->gone || s->destroyed)
                        break;
                if (r != 0) {
                        dlog_print(DLOG_INFO, LOG_TAG,
                                   "closing instance %s of %s: the handler returned %d", in->id,
                                   s->app_id, r);
                        instance_close(in, true);
                        break;
                }
                if (velna_channel_pending(in->main_port.channel) >= before)
                        velna_channel_drop_frame(in->main_port.channel);
        }
        in->dispatching = false;
}

static void on_main_ready(velna_channel *ch, void *data)
{
        (void)ch;
        instance *in = data;
        struct rpc_port_stub_s *s = in->stub;
        stub_enter(s);
        if (in->connected)
                dispatch_received(in);
        stub_leave(s);
}

/* The callback channel carries parcels to the proxy only; anything sent back is
 * dropped. */
static void on_cb_ready(velna_channel *ch, void *data)
{
        instance *in = data;
        struct rpc_port_stub_s *s = in->stub;
        stub_enter(s);
        while (velna_channel_pending(ch) > 0)
                velna_channel_drop_frame(ch);
        stub_leave(s);
}

static void on_channel_closed(velna_channel *ch, void *data)
{
        (void)ch;
        instance *in = data;
        struct rpc_port_stub_s *s = in->stub;
        stub_enter(s);
        instance_close(in, true);
        stub_leave(s);
}

static gboolean on_pair_timeout(gpointer data)
{
        instance *in = data;
        struct rpc_port_stub_s *s = in->stub;
        in->pair_timer = 0;
        stub_enter(s);
        dlog_print(DLOG_WARN, LOG_TAG, "dropping instance %s of %s: its second channel never came",
                   in->id, s->app_id);
        instance_close(in, false);
        stub_leave(s);
        return G_SOURCE_REMOVE;
}

static int send_ack(velna_channel *ch, unsigned char kind)
{
        unsigned char ack[RPC_PORT_ACK_SIZE];
        memcpy(ack, RPC_PORT_HANDSHAKE_MAGIC, RPC_PORT_HANDSHAKE_MAGIC_LEN);
        ack[RPC_PORT_HANDSHAKE_MAGIC_LEN] = kind;
        ack[RPC_PORT_HANDSHAKE_MAGIC_LEN + 1] = RPC_PORT_ACK_OK;
        return velna_channel_send(ch, ack, sizeof ack);
}

static void instance_complete(instance *in)
{
        struct rpc_port_stub_s *s = in->stub;
        g_clear_handle_id(&in->pair_timer, g_source_remove);
        if (send_ack(in->main_port.channel, RPC_PORT_PORT_MAIN) < 0 ||
            send_ack(in->cb_port.channel, RPC_PORT_PORT_CALLBACK) < 0) {
                instance_close(in, false);
                return;
        }
        in->connected = true;
        dlog_print(DLOG_DEBUG, LOG_TAG, "%s port %s: instance %s of %s connected", s->app_id,
                   s->port_name, in->id, in->sender[0] ? in->sender : "(no app id)");
        if (s->on_connected)
                s->on_connected(in->sender, in->id, s->connected_data);
        if (!in->gone && !s->destroyed)
                dispatch_received(in); /* parcels sent right after the acks */
}

/* ---- admission ---- */

/* Whether the app's manifest lets client (NULL: a peer without an app id) connect. An
 * app started by hand without a manifest admits everyone. */
static bool client_allowed(const char *self, const char *client)
{
        const velna_manifest *m = NULL;
        int r = velna_manifest_load(self, &m);
        if (r == -ENOENT)
                return true;
        if (r < 0)
                return false;
        bool allowed = velna_manifest_allows_client(m, client);
        velna_manifest_unref(m);
        return allowed;
}

static instance *instance_new(struct rpc_port_stub_s *s, const char *id, velna_channel *ch)
{
        pid_t pid = velna_channel_peer_pid(ch);
        char *client = NULL;
        if (pid <= 0 || running_registry_identify_peer(pid, &client) < 0)
                client = NULL;
        if (!client_allowed(s->app_id, client)) {
                dlog_print(DLOG_WARN, LOG_TAG, "%s port %s refuses pid %d (%s): not an allowed client",
                           s->app_id, s->port_name, (int)pid, client ? client : "no app id");
                free(client);
                return NULL;
        }

        instance *in = calloc(1, sizeof *in);
        if (!in || (!client && !(client = strdup("")))) {
                free(in);
                free(client);
                return NULL;
        }
        in->stub = s;
        g_strlcpy(in->id, id, sizeof in->id);
        in->sender = client; /* ownership passes to the instance */
        in->pid = pid;
        in->pair_timer = g_timeout_add(HANDSHAKE_LIMIT_MS, on_pair_timeout, in);
        in->next = s->instances;
        s->instances = in;
        return in;
}

/* A hello was read: the socket becomes a channel of the instance it names. */
static void admit(struct rpc_port_stub_s *s, int fd, unsigned char kind, const char *id)
{
        velna_channel *ch = velna_channel_new(fd, RPC_PORT_MAX_PARCEL_SIZE);
        if (!ch)
                return;

        instance *in = instance_find(s, id);
        if (!in) {
                in = instance_new(s, id, ch);
        } else if (in->connected || in->pid != velna_channel_peer_pid(ch) ||
                   (kind == RPC_PORT_PORT_MAIN ? in->main_port.channel : in->cb_port.channel)) {
                dlog_print(DLOG_WARN, LOG_TAG, "%s port %s: refusing a second %s channel for instance %s",
                           s->app_id, s->port_name, kind == RPC_PORT_PORT_MAIN ? "main" : "callback", id);
                in = NULL;
        }
        if (!in) {
                velna_channel_close(ch);
                return;
        }

        if (kind == RPC_PORT_PORT_MAIN) {
                in->main_port.channel = ch;
                velna_channel_set_handlers(ch, on_main_ready, on_channel_closed, in);
        } else {
                in->cb_port.channel = ch;
                velna_channel_set_handlers(ch, on_cb_ready, on_channel_closed, in);
        }
        if (in->main_port.channel && in->cb_port.channel)
                instance_complete(in);
}

/* ---- hellos ---- */

static void hello_unlink(hello_conn *h, bool close_fd)
{
        struct rpc_port_stub_s *s = h->stub;
        for (hello_conn **at = &s->hellos; *at; at = &(*at)->next) {
                if (*at == h) {
                        *at = h->next;
                        break;
                }
        }
        s->hello_count--;
        g_clear_handle_id(&h->watch, g_source_remove);
        g_clear_handle_id(&h->timer, g_source_remove);
        if (close_fd)
                close(h->fd);
        free(h);
}

/* Checks a whole hello frame: true and its kind and instance id. */
static bool hello_parse(const hello_conn *h, unsigned char *kind, char *id)
{
        const unsigned char *p = h->buf + VELNA_FRAME_HEADER_SIZE;
        size_t len = h->need - VELNA_FRAME_HEADER_SIZE;
        if (memcmp(p, RPC_PORT_HANDSHAKE_MAGIC, RPC_PORT_HANDSHAKE_MAGIC_LEN) != 0)
                return false;
        *kind = p[RPC_PORT_HANDSHAKE_MAGIC_LEN];
        size_t id_len = p[RPC_PORT_HANDSHAKE_MAGIC_LEN + 1];
        const char *raw = (const char *)p + RPC_PORT_HANDSHAKE_MAGIC_LEN + 2;
        if ((*kind != RPC_PORT_PORT_MAIN && *kind != RPC_PORT_PORT_CALLBACK) ||
            id_len != len - RPC_PORT_HANDSHAKE_MAGIC_LEN - 2 ||
            !rpc_port_instance_is_valid(raw, id_len))
                return false;
        memcpy(id, raw, id_len);
        id[id_len] = '\0';
        return true;
}

/* Reads what the hello still lacks. 1 when it is whole, 0 for more later, -1 to drop. */
static int hello_read(hello_conn *h)
{
        while (h->have < h->need) {
                ssize_t r = recv(h->fd, h->buf + h->have, h->need - h->have, MSG_DONTWAIT);
                if (r < 0 && errno == EINTR)
                        continue;
                if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                        return 0;
                if (r <= 0)
                        return -1;
                h->have += (size_t)r;
                if (h->have == VELNA_FRAME_HEADER_SIZE && h->need == VELNA_FRAME_HEADER_SIZE) {
                        uint32_t len = velna_get_le32(h->buf + 4);
                        if (velna_get_le32(h->buf) != VELNA_FRAME_MAGIC ||
                            len < RPC_PORT_HELLO_MIN || len > RPC_PORT_HELLO_MAX)
                                return -1;
                        h->need += len;
                }
        }
        return 1;
}

static gboolean on_hello_readable(gint fd, GIOCondition cond, gpointer data)
{
        (void)fd;
        (void)cond;
        hello_conn *h = data;
        struct rpc_port_stub_s *s = h->stub;
        stub_enter(s);

        int r = hello_read(h);
        unsigned char kind = 0;
        char id[RPC_PORT_INSTANCE_MAX + 1];
        if (r == 1 && !hello_parse(h, &kind, id))
                r = -1;
        if (r < 0)
                dlog_print(DLOG_WARN, LOG_TAG, "%s port %s: dropping a peer that sent no valid handshake",
                           s->app_id, s->port_name);

        gboolean keep = r == 0;
        if (r != 0) {
                int conn_fd = h->fd;
                h->watch = 0; /* removed by returning G_SOURCE_REMOVE */
                hello_unlink(h, r < 0);
                if (r == 1)
                        admit(s, conn_fd, kind, id);
        }
        stub_leave(s);
        return keep ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

static gboolean on_hello_timeout(gpointer data)
{
        hello_conn *h = data;
        h->timer = 0;
        dlog_print(DLOG_WARN, LOG_TAG, "%s port %s: dropping a peer that sent no handshake in time",
                   h->stub->app_id, h->stub->port_name);
        hello_unlink(h, true);
        return G_SOURCE_REMOVE;
}

static void accept_one(struct rpc_port_stub_s *s, int fd)
{
        struct ucred cred;
        socklen_t clen = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &clen) < 0 || cred.uid != geteuid()) {
                dlog_print(DLOG_WARN, LOG_TAG, "%s port %s: refusing a peer of another user",
                           s->app_id, s->port_name);
                close(fd);
                return;
        }
        hello_conn *h = s->hello_count < MAX_PENDING_HELLOS ? calloc(1, sizeof *h) : NULL;
        if (!h) {
                close(fd);
                return;
        }
        h->stub = s;
        h->fd = fd;
        h->need = VELNA_FRAME_HEADER_SIZE;
        h->watch = g_unix_fd_add(fd, G_IO_IN | G_IO_HUP | G_IO_ERR, on_hello_readable, h);
        h->timer = g_timeout_add(HANDSHAKE_LIMIT_MS, on_hello_timeout, h);
        h->next = s->hellos;
        s->hellos = h;
        s->hello_count++;
}

static gboolean on_listen_readable(gint fd, GIOCondition cond, gpointer data)
{
        (void)cond;
        struct rpc_port_stub_s *s = data;
        for (;;) {
                int conn = accept4(fd, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (conn < 0) {
                        if (errno == EINTR || errno == ECONNABORTED)
                                continue;
                        break; /* EAGAIN, or a shortage that the next wake-up retries */
                }
                accept_one(s, conn);
        }
        return G_SOURCE_CONTINUE;
}

/* Stops listening and closes every connection without raising events. */
static void stub_shutdown(struct rpc_port_stub_s *s)
{
        g_clear_handle_id(&s->listen_watch, g_source_remove);
        if (s->listen_fd >= 0) {
                close(s->listen_fd);
                s->listen_fd = -1;
                struct stat st;
                if (stat(s->path, &st) == 0 && st.st_dev == s->path_dev &&
                    st.st_ino == s->path_ino)
                        unlink(s->path);
        }
        while (s->hellos)
                hello_unlink(s->hellos, true);
        while (s->instances)
                instance_close(s->instances, false);
}

static void stub_free(struct rpc_port_stub_s *s)
{
        stub_shutdown(s);
        free_graveyard(s);
        free(s->port_name);
        free(s->app_id);
        free(s);
}

/* ---- public interface ---- */

int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name)
{
        if (!h || !port_name || !*port_name || strlen(port_name) > PORT_NAME_MAX)
                return -EINVAL;

        const char *self = velna_self_app_id();
        if (!self) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "cannot serve rpc-port %s: this process has no valid VELNA_APP_ID",
                           port_name);
                return -EINVAL;
        }
        int r = velna_self_register();
        if (r < 0)
                return r;

        struct rpc_port_stub_s *s = calloc(1, sizeof *s);
        if (!s)
                return -ENOMEM;
        s->listen_fd = -1;
        s->port_name = strdup(port_name);
        s->app_id = strdup(self);
        if (!s->port_name || !s->app_id) {
                stub_free(s);
                return -ENOMEM;
        }
        *h = s;
        return 0;
}

int rpc_port_stub_destroy(rpc_port_stub_h h)
{
        if (!h || h->destroyed)
                return -EINVAL;

        h->destroyed = true;
        if (h->depth > 0) {
                stub_shutdown(h); /* the outermost handler frees the rest */
                return 0;
        }
        stub_free(h);
        return 0;
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_connected = cb;
        h->connected_data = user_data;
        return 0;
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb,
                                            void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_disconnected = cb;
        h->disconnected_data = user_data;
        return 0;
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_received = cb;
        h->received_data = user_data;
        return 0;
}

int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance_id,
                           rpc_port_h *port)
{
        if (!h || !instance_id || !port ||
            (type != RPC_PORT_PORT_MAIN && type != RPC_PORT_PORT_CALLBACK))
                return -EINVAL;

        instance *in = instance_find(h, instance_id);
        if (!in || !in->connected)
                return -ENOENT;
        *port = type == RPC_PORT_PORT_MAIN ? &in->main_port : &in->cb_port;
        return 0;
}

/* -114 when already listening; -36 and -5 as velna_socket_path, -5 when the socket
 * cannot be made. */
int rpc_port_stub_listen(rpc_port_stub_h h)
{
        if (!h || h->destroyed)
                return -EINVAL;
        if (h->listen_fd >= 0)
                return -EALREADY;

        int r = velna_socket_path(RPC_PORT_SOCKET_KIND, h->app_id, h->port_name, h->path,
                                  sizeof h->path);
        if (r < 0)
                return r;

        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0)
                return -EIO;

        /* This process holds the app id, so a socket left at the path is a dead
         * instance's. */
        struct sockaddr_un addr = { .sun_family = AF_UNIX };
        memcpy(addr.sun_path, h->path, strlen(h->path) + 1);
        unlink(h->path);
        /* 0600 before anyone can connect: the socket answers only its owner. */
        struct stat st;
        if (bind(fd, (struct sockaddr *)&addr, sizeof addr) < 0 || chmod(h->path, 0600) < 0 ||
            listen(fd, SOMAXCONN) < 0 || stat(h->path, &st) < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot listen on %s port %s: %s", h->app_id,
                           h->port_name, strerror(errno));
                close(fd);
                return -EIO;
        }

        h->listen_fd = fd;
        h->path_dev = st.st_dev;
        h->path_ino = st.st_ino;
        h->listen_watch = g_unix_fd_add(fd, G_IO_IN, on_listen_readable, h);
        return 0;
}
