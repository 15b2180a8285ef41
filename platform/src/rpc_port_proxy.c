/* rpc-port, proxy side: one connection of two channels (main, callback) to an app's port.
 *
 * connect checks what it can at once and reports everything else as an event on a later
 * loop turn: an idle source makes the first attempt; while nothing listens at the port's
 * socket the target is launched (when it does not run) and polled every POLL_MS until
 * it listens, its process is gone (rejected) or CONNECT_LIMIT_MS have passed (rejected).
 * Once the main channel is open, both channels send their hello and the connection is
 * up when both acks have arrived.
 *
 * Every channel handler and source runs between proxy_enter and proxy_leave; destroy
 * from inside only marks the proxy and closes what it holds, and the outermost leave
 * frees it, so no event follows destroy. */
#include <rpc-port.h>

#include <dlog.h>

#include <errno.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "app_registry_internal.h"
#include "channel_internal.h"
#include "launcher_internal.h"
#include "rpc_port_internal.h"
#include "runtime_internal.h"

#define LOG_TAG "RPC_PORT"
/* How often a target that does not listen yet is tried again. */
#define POLL_MS 25
/* A target that runs but never opens the port is rejected after this long: longer than
 * any wait of the library's own, so that its launch wait decides what the client sees. */
#define CONNECT_LIMIT_MS 30000

typedef enum {
        PROXY_IDLE,       /* never connected, or the last attempt ended */
        PROXY_WAITING,    /* nothing listens yet: launching, polling */
        PROXY_HANDSHAKE,  /* both channels open, acks outstanding */
        PROXY_CONNECTED,
} proxy_state;

struct rpc_port_proxy_s {
        rpc_port_proxy_connected_event_cb on_connected;
        void *connected_data;
        rpc_port_proxy_disconnected_event_cb on_disconnected;
        void *disconnected_data;
        rpc_port_proxy_rejected_event_cb on_rejected;
        void *rejected_data;
        rpc_port_proxy_received_event_cb on_received;
        void *received_data;

        proxy_state state;
        char *app_id;    /* owned; of the latest connect */
        char *port_name; /* owned */
        char path[sizeof(((struct sockaddr_un *)0)->sun_path)];
        char instance[RPC_PORT_INSTANCE_MAX + 1];
        pid_t target_pid; /* 0 until known */
        gint64 deadline;  /* monotonic, us */
        guint source;     /* attempt, poll or handshake deadline */

        struct rpc_port_s main_port; /* channels owned; kept after a disconnection so */
        struct rpc_port_s cb_port;   /* that frames already queued stay takeable */
        bool main_acked;
        bool cb_acked;
        bool ever_connected;
        bool dispatching; /* inside the received loop */

        int depth;
        bool destroyed;
};

static void proxy_free(struct rpc_port_proxy_s *p);

static void proxy_enter(struct rpc_port_proxy_s *p)
{
        p->depth++;
}

/* Returns false when the proxy is gone (destroyed; freed when this was the outermost). */
static bool proxy_leave(struct rpc_port_proxy_s *p)
{
        p->depth--;
        if (!p->destroyed)
                return true;
        if (p->depth == 0)
                proxy_free(p);
        return false;
}

static void release_connection(struct rpc_port_proxy_s *p)
{
        g_clear_handle_id(&p->source, g_source_remove);
        rpc_port_close(&p->main_port);
        rpc_port_close(&p->cb_port);
        p->main_acked = p->cb_acked = false;
        p->target_pid = 0;
}

static void proxy_free(struct rpc_port_proxy_s *p)
{
        release_connection(p);
        free(p->app_id);
        free(p->port_name);
        free(p);
}

/* Ends the attempt and raises the rejected event. */
static void reject(struct rpc_port_proxy_s *p, const char *why)
{
        dlog_print(DLOG_WARN, LOG_TAG, "connection to %s port %s rejected: %s", p->app_id,
                   p->port_name, why);
        release_connection(p);
        p->state = PROXY_IDLE;
        if (p->on_rejected)
                p->on_rejected(p->app_id, p->port_name, p->rejected_data);
}

static void disconnect(struct rpc_port_proxy_s *p)
{
        dlog_print(DLOG_INFO, LOG_TAG, "connection to %s port %s closed", p->app_id,
                   p->port_name);
        g_clear_handle_id(&p->source, g_source_remove);
        p->state = PROXY_IDLE;
        if (p->on_disconnected)
                p->on_disconnected(p->app_id, p->port_name, p->disconnected_data);
}

/* Raises the received event while whole parcels wait on the callback channel. A handler
 * that leaves its parcel unread loses it, so that the loop always ends. */
static void dispatch_received(struct rpc_port_proxy_s *p)
{
        if (p->dispatching)
                return;
        p->dispatching = true;
        while (!p->destroyed && p->state == PROXY_CONNECTED && p->cb_port.channel) {
                size_t before = velna_channel_pending(p->cb_port.channel);
                if (before == 0)
                        break;
                if (p->on_received)
                        p->on_received(p->app_id, p->port_name, p->received_data);
                if (p->destroyed || p->state != PROXY_CONNECTED || !p->cb_port.channel)
                        break;
                if (velna_channel_pending(p->cb_port.channel) >= before)
                        velna_channel_drop_frame(p->cb_port.channel);
        }
        p->dispatching = false;
}

static void become_connected(struct rpc_port_proxy_s *p)
{
        g_clear_handle_id(&p->source, g_source_remove);
        p->state = PROXY_CONNECTED;
        p->ever_connected = true;
        dlog_print(DLOG_DEBUG, LOG_TAG, "connected to %s port %s as instance %s", p->app_id,
                   p->port_name, p->instance);
        if (p->on_connected)
                p->on_connected(p->app_id, p->port_name, &p->main_port, p->connected_data);
        dispatch_received(p); /* parcels that came with the acks */
}

/* Takes the ack of one channel: true when it is well formed. */
static bool take_ack(velna_channel *ch, unsigned char kind)
{
        unsigned char *frame = NULL;
        size_t len = 0;
        if (velna_channel_take_frame(ch, 0, &frame, &len) < 0)
                return false;
        bool ok = len == RPC_PORT_ACK_SIZE &&
                  memcmp(frame, RPC_PORT_HANDSHAKE_MAGIC, RPC_PORT_HANDSHAKE_MAGIC_LEN) == 0 &&
                  frame[RPC_PORT_HANDSHAKE_MAGIC_LEN] == kind &&
                  frame[RPC_PORT_HANDSHAKE_MAGIC_LEN + 1] == RPC_PORT_ACK_OK;
        free(frame);
        return ok;
}

static void on_ready(struct rpc_port_proxy_s *p, velna_channel *ch, unsigned char kind)
{
        if (p->state == PROXY_CONNECTED) {
                if (kind == RPC_PORT_PORT_CALLBACK)
                        dispatch_received(p);
                return; /* the main channel is read only by create_from_port */
        }
        if (p->state != PROXY_HANDSHAKE)
                return;

        bool *acked = kind == RPC_PORT_PORT_MAIN ? &p->main_acked : &p->cb_acked;
        if (*acked)
                return; /* parcels after the ack wait for the connected event */
        if (!take_ack(ch, kind)) {
                reject(p, "the app answered the handshake with something else");
                return;
        }
        *acked = true;
        if (p->main_acked && p->cb_acked)
                become_connected(p);
}

/* The ready handler of both channels; a closed channel raises no more events, so ch
 * is always one of the two the proxy holds. */
static void on_channel_ready(velna_channel *ch, void *data)
{
        struct rpc_port_proxy_s *p = data;
        unsigned char kind = ch == p->main_port.channel ? RPC_PORT_PORT_MAIN
                                                        : RPC_PORT_PORT_CALLBACK;
        proxy_enter(p);
        on_ready(p, ch, kind);
        proxy_leave(p);
}

static void on_closed(velna_channel *ch, void *data)
{
        (void)ch;
        struct rpc_port_proxy_s *p = data;
        proxy_enter(p);
        if (p->state == PROXY_HANDSHAKE)
                reject(p, "the app closed the connection during the handshake");
        else if (p->state == PROXY_CONNECTED)
                disconnect(p);
        proxy_leave(p);
}

static gboolean on_handshake_deadline(gpointer data)
{
        struct rpc_port_proxy_s *p = data;
        p->source = 0;
        proxy_enter(p);
        reject(p, "the app did not complete the handshake in time");
        proxy_leave(p);
        return G_SOURCE_REMOVE;
}

static int send_hello(velna_channel *ch, unsigned char kind, const char *instance)
{
        unsigned char hello[RPC_PORT_HELLO_MAX];
        size_t id_len = strlen(instance);
        memcpy(hello, RPC_PORT_HANDSHAKE_MAGIC, RPC_PORT_HANDSHAKE_MAGIC_LEN);
        hello[RPC_PORT_HANDSHAKE_MAGIC_LEN] = kind;
        hello[RPC_PORT_HANDSHAKE_MAGIC_LEN + 1] = (unsigned char)id_len;
        memcpy(hello + RPC_PORT_HANDSHAKE_MAGIC_LEN + 2, instance, id_len);
        return velna_channel_send(ch, hello, RPC_PORT_HANDSHAKE_MAGIC_LEN + 2 + id_len);
}

/* The main channel is open: opens the callback channel and sends both hellos. Returns
 * NULL, or why the attempt failed. */
static const char *start_handshake(struct rpc_port_proxy_s *p, velna_channel *main_ch)
{
        p->main_port.channel = main_ch;
        velna_channel_set_handlers(main_ch, on_channel_ready, on_closed, p);
        if (velna_channel_peer_uid(main_ch) != geteuid())
                return "the port is served by another user";

        velna_channel *cb_ch = NULL;
        if (velna_channel_connect(p->path, RPC_PORT_MAX_PARCEL_SIZE, &cb_ch) < 0)
                return "the callback channel cannot be opened";
        p->cb_port.channel = cb_ch;
        velna_channel_set_handlers(cb_ch, on_channel_ready, on_closed, p);

        char *uuid = g_uuid_string_random();
        g_strlcpy(p->instance, uuid, sizeof p->instance);
        g_free(uuid);
        if (send_hello(main_ch, RPC_PORT_PORT_MAIN, p->instance) < 0 ||
            send_hello(cb_ch, RPC_PORT_PORT_CALLBACK, p->instance) < 0)
                return "the handshake cannot be sent";

        p->state = PROXY_HANDSHAKE;
        gint64 left_ms = (p->deadline - g_get_monotonic_time()) / 1000;
        p->source = g_timeout_add(left_ms > 0 ? (guint)left_ms : 0, on_handshake_deadline, p);
        return NULL;
}

/* Nothing listens yet: makes sure the target runs. NULL, or why it cannot. */
static const char *ensure_target(struct rpc_port_proxy_s *p)
{
        if (p->target_pid == 0) {
                pid_t pid = 0;
                if (running_registry_get_pid(p->app_id, &pid) < 0) {
                        int r = velna_launch(p->app_id, NULL, &pid, NULL);
                        if (r < 0)
                                return "the app cannot be launched";
                }
                p->target_pid = pid;
        }
        if (!velna_pid_alive(p->target_pid))
                return "the app exited before it opened the port";
        if (g_get_monotonic_time() >= p->deadline)
                return "the app did not open the port in time";
        return NULL;
}

/* Whether the listener behind ch is the instance of app_id that the registry counts. An
 * instance on its way out can hold its socket a moment after it stops counting, and the
 * next one is counted before it listens: a handshake there would end with the old one.
 * Another user's listener is left to the handshake, which refuses it by name. */
static bool listener_is_counted(const char *app_id, velna_channel *ch)
{
        pid_t pid;
        return velna_channel_peer_uid(ch) != geteuid() ||
               (running_registry_get_pid(app_id, &pid) == 0 && pid == velna_channel_peer_pid(ch));
}

static gboolean on_attempt(gpointer data)
{
        struct rpc_port_proxy_s *p = data;
        p->source = 0;
        proxy_enter(p);

        velna_channel *ch = NULL;
        int r = velna_channel_connect(p->path, RPC_PORT_MAX_PARCEL_SIZE, &ch);
        if (r == 0 && !listener_is_counted(p->app_id, ch)) {
                velna_channel_close(ch);
                r = -ENOENT; /* waited for like a port that is not open yet */
        }
        const char *why = NULL;
        if (r == 0)
                why = start_handshake(p, ch);
        else if (r == -ENOENT)
                why = ensure_target(p);
        else
                why = "the port's socket cannot be reached";

        if (why)
                reject(p, why);
        else if (p->state == PROXY_WAITING)
                p->source = g_timeout_add(POLL_MS, on_attempt, p);
        proxy_leave(p);
        return G_SOURCE_REMOVE;
}

/* ---- public interface ---- */

int rpc_port_proxy_create(rpc_port_proxy_h *h)
{
        if (!h)
                return -EINVAL;

        struct rpc_port_proxy_s *p = calloc(1, sizeof *p);
        if (!p)
                return -ENOMEM;
        p->state = PROXY_IDLE;
        *h = p;
        return 0;
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h)
{
        if (!h || h->destroyed)
                return -EINVAL;

        h->destroyed = true;
        if (h->depth > 0) {
                release_connection(h); /* the outermost handler frees the rest */
                return 0;
        }
        proxy_free(h);
        return 0;
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h,
                                          rpc_port_proxy_connected_event_cb cb, void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_connected = cb;
        h->connected_data = user_data;
        return 0;
}

int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb,
                                             void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_disconnected = cb;
        h->disconnected_data = user_data;
        return 0;
}

int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_rejected = cb;
        h->rejected_data = user_data;
        return 0;
}

int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void *user_data)
{
        if (!h || !cb)
                return -EINVAL;
        h->on_received = cb;
        h->received_data = user_data;
        return 0;
}

/* -114 while an attempt is under way or the connection is up. A proxy whose last
 * attempt was rejected or disconnected may connect again. */
int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port_name)
{
        if (!h || h->destroyed || !port_name || !*port_name)
                return -EINVAL;
        if (!velna_app_id_is_valid(appid))
                return -EINVAL;
        if (h->state != PROXY_IDLE)
                return -EALREADY;

        const velna_manifest *m = NULL;
        int r = velna_manifest_load(appid, &m);
        if (r < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot connect to %s: %s", appid,
                           r == -ENOENT ? "not installed" : "its manifest cannot be read");
                return r == -ENOENT || r == -EINVAL ? -EINVAL : r;
        }
        const char *self = velna_self_app_id();
        bool allowed = velna_manifest_allows_client(m, self);
        velna_manifest_unref(m);
        if (!allowed) {
                dlog_print(DLOG_ERROR, LOG_TAG, "%s does not allow client %s", appid,
                           self ? self : "(no app id)");
                return -EACCES;
        }

        char path[sizeof h->path];
        r = velna_socket_path(RPC_PORT_SOCKET_KIND, appid, port_name, path, sizeof path);
        if (r == -ENAMETOOLONG)
                return r; /* velna_socket_path said why */
        if (r == -EACCES)
                return r; /* velna_runtime_dir said why */
        if (r < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "cannot connect to %s: the runtime directory cannot be made", appid);
                return r == -ENOMEM ? r : -EIO;
        }

        char *id = strdup(appid);
        char *name = strdup(port_name);
        if (!id || !name) {
                free(id);
                free(name);
                return -ENOMEM;
        }

        /* The stub establishes who calls from the registry of running apps. */
        if (self)
                velna_self_register();

        release_connection(h);
        free(h->app_id);
        free(h->port_name);
        h->app_id = id;
        h->port_name = name;
        memcpy(h->path, path, sizeof path);
        h->deadline = g_get_monotonic_time() + (gint64)CONNECT_LIMIT_MS * 1000;
        h->state = PROXY_WAITING;
        h->source = g_idle_add(on_attempt, h);
        return 0;
}

int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h *port)
{
        if (!h || !port || (type != RPC_PORT_PORT_MAIN && type != RPC_PORT_PORT_CALLBACK))
                return -EINVAL;
        if (!h->ever_connected)
                return -ENOTCONN;

        *port = type == RPC_PORT_PORT_MAIN ? &h->main_port : &h->cb_port;
        return 0;
}
