/* Shared internals of rpc-port: the port object both sides hand out, and the handshake
 * that opens each channel of a connection.
 *
 * A connection is two channels to the stub's socket, velna_socket_path("rpc", app id,
 * port name). On each, the proxy first sends one hello frame; the stub answers it with
 * one ack frame once both channels of the instance have arrived and the peer is allowed.
 * Everything after that is one parcel per frame.
 *
 *   hello: "VRP1", u8 kind (0 main, 1 callback), u8 instance length, instance bytes
 *   ack:   "VRP1", u8 kind, u8 status (0)
 *
 * The instance is 1 to RPC_PORT_INSTANCE_MAX bytes of ASCII letters, digits and '-'. */
#ifndef VELNA_RPC_PORT_INTERNAL_H
#define VELNA_RPC_PORT_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>

#include "channel_internal.h"

#define RPC_PORT_SOCKET_KIND "rpc"
#define RPC_PORT_HANDSHAKE_MAGIC "VRP1"
#define RPC_PORT_HANDSHAKE_MAGIC_LEN 4u
#define RPC_PORT_INSTANCE_MAX 64u
#define RPC_PORT_HELLO_MIN (RPC_PORT_HANDSHAKE_MAGIC_LEN + 2u + 1u)
#define RPC_PORT_HELLO_MAX (RPC_PORT_HANDSHAKE_MAGIC_LEN + 2u + RPC_PORT_INSTANCE_MAX)
#define RPC_PORT_ACK_SIZE (RPC_PORT_HANDSHAKE_MAGIC_LEN + 2u)
#define RPC_PORT_ACK_OK 0u

/* One end of one channel. Owned by the proxy or the stub instance that made it; channel
 * is NULL once that owner has closed it (parcel calls then fail with -5). */
struct rpc_port_s {
        velna_channel *channel;
};

/* Closes the port's channel, if it still has one; parcel calls then fail with -5. */
static inline void rpc_port_close(struct rpc_port_s *port)
{
        if (port->channel) {
                velna_channel_close(port->channel);
                port->channel = NULL;
        }
}

static inline bool rpc_port_instance_is_valid(const char *s, size_t len)
{
        if (len == 0 || len > RPC_PORT_INSTANCE_MAX)
                return false;
        for (size_t i = 0; i < len; i++) {
                char c = s[i];
                bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '-';
                if (!ok)
                        return false;
        }
        return true;
}

#endif
