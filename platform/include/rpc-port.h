/* rpc-port: a connection of two channels (main, callback) between a proxy (client) and a
 * stub (app), carrying parcels. Every event is dispatched on the GLib default context. */
#ifndef VELNA_RPC_PORT_H
#define VELNA_RPC_PORT_H

#include <stdbool.h>

#include "bundle.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef struct rpc_port_s *rpc_port_h;
typedef struct rpc_port_proxy_s *rpc_port_proxy_h;
typedef struct rpc_port_stub_s *rpc_port_stub_h;
typedef struct rpc_port_parcel_s *rpc_port_parcel_h;

typedef enum {
        RPC_PORT_PORT_MAIN = 0,
        RPC_PORT_PORT_CALLBACK = 1,
} rpc_port_port_type_e;

/* Largest parcel accepted on either side: 128 MiB. */
#define RPC_PORT_MAX_PARCEL_SIZE (128u * 1024u * 1024u)

/* Proxy side. Strings passed to handlers are borrowed for the call. */
typedef void (*rpc_port_proxy_connected_event_cb)(const char *endpoint, const char *port_name,
                                                  rpc_port_h port, void *user_data);
typedef void (*rpc_port_proxy_disconnected_event_cb)(const char *endpoint,
                                                     const char *port_name, void *user_data);
typedef void (*rpc_port_proxy_rejected_event_cb)(const char *endpoint, const char *port_name,
                                                 void *user_data);
typedef void (*rpc_port_proxy_received_event_cb)(const char *endpoint, const char *port_name,
                                                 void *user_data);

int rpc_port_proxy_create(rpc_port_proxy_h *h);
/* Closes the connection; no event arrives afterwards, also when called from inside one of
 * the proxy's own event handlers. */
int rpc_port_proxy_destroy(rpc_port_proxy_h h);
int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h,
                                          rpc_port_proxy_connected_event_cb cb, void *user_data);
int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb,
                                             void *user_data);
int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void *user_data);
int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void *user_data);
/* Returns at once: -22 for an app that is not installed or an invalid id, -13 when the
 * app's AllowedClients excludes the caller, -5 when the runtime directory or a socket
 * cannot be made, -36 when the runtime directory leaves no room for socket names;
 * otherwise 0 and the outcome later as the connected or rejected event. */
int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port_name);
/* The port stays owned by the proxy, valid until the proxy is destroyed. */
int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h *port);

/* Stub side. */
typedef void (*rpc_port_stub_connected_event_cb)(const char *sender, const char *instance,
                                                 void *user_data);
typedef void (*rpc_port_stub_disconnected_event_cb)(const char *sender, const char *instance,
                                                    void *user_data);
/* Called when a whole parcel waits on the main channel of that instance; a non-zero
 * result closes that connection. */
typedef int (*rpc_port_stub_received_event_cb)(const char *sender, const char *instance,
                                               rpc_port_h port, void *user_data);

/* -22 for a bad name or a process without a valid VELNA_APP_ID, -17 when another live
 * process holds that app id. */
int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name);
int rpc_port_stub_destroy(rpc_port_stub_h h);
int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *user_data);
int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb,
                                            void *user_data);
int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *user_data);
/* The port stays owned by the stub, valid until that instance disconnects. -2 for an
 * unknown instance. */
int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance,
                           rpc_port_h *port);
int rpc_port_stub_listen(rpc_port_stub_h h);

/* Parcels. A read past the end fails (-5) and yields 0, false or NULL. */
int rpc_port_parcel_create(rpc_port_parcel_h *h);
/* Blocks until a whole parcel arrives on the port; fails (-5) once the peer is gone or
 * after VELNA_RPC_TIMEOUT_MS (default 25000) without a whole parcel. */
int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port);
/* Queues the parcel on the port; never blocks on a slow reader. -5 when the peer is gone. */
int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port);
int rpc_port_parcel_destroy(rpc_port_parcel_h h);
int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i);
int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b);
int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str);
/* The bundle stays the caller's. */
int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b);
int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i);
int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b);
/* *str is newly allocated, free with free(). */
int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str);
/* *b is a new bundle, free with bundle_free(). */
int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
