/* Shared internals: the monitor tap. While a monitor listens on the tap socket of the
 * runtime directory, each send site of the transports hands a copy of what it sent to
 * these hooks, which pass it on as one packet without ever blocking (a copy that the
 * monitor cannot take at once is dropped). While none listens, a hook costs one read of
 * a coarse clock: whether the socket exists is checked at most once per second.
 *
 * Packet layout (one SOCK_SEQPACKET packet per copy) (integers little-endian), parsed by velna_monitor_receive:
 *   "VMT1", u8 mechanism (1 message port, 2 rpc-port), u8 flags (1: payload left out,
 *   too large), u16 0, u64 wall-clock time in microseconds, u32 sender pid,
 *   u32 receiver pid (0: unknown), u32 size of what was sent, three strings each as
 *   u16 length and bytes (sender app id, receiver app id, port name), then the payload:
 *   the encoded bundle (message port) or the parcel bytes (rpc-port). */
#ifndef VELNA_MONITOR_TAP_INTERNAL_H
#define VELNA_MONITOR_TAP_INTERNAL_H

#include <stddef.h>

#include <bundle.h>

#include "channel_internal.h"

#define VELNA_MONITOR_SOCKET_NAME "monitor"
#define VELNA_MONITOR_MAGIC "VMT1"
#define VELNA_MONITOR_MAGIC_LEN 4u
#define VELNA_MONITOR_HEADER_SIZE 28u
#define VELNA_MONITOR_FLAG_LEFT_OUT 1u
/* Largest payload copied; a larger one is announced with its size only. */
#define VELNA_MONITOR_MAX_PAYLOAD (60u * 1024u)

/* A message-port message that was queued for receiver's port. All arguments borrowed. */
void velna_monitor_tap_message(const char *receiver, const char *port, bundle *message);
/* A parcel that was queued on channel (the peer's pid names the receiver). Borrowed. */
void velna_monitor_tap_parcel(velna_channel *channel, const void *parcel, size_t len);

#endif
