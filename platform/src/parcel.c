/* Parcels: a byte buffer of typed fields, written in order and read back in order.
 *
 * Each field is a one-byte type tag followed by its value, integers little-endian:
 *   int32:  tag 1, 4 bytes
 *   bool:   tag 2, 1 byte (0 or 1)
 *   string: tag 3, u32 length, bytes (no NUL; a NUL inside is refused on read)
 *   bundle: tag 4, u32 length, bundle_encode_raw bytes
 * A read checks the tag and every length against the bytes that remain before it
 * allocates; a failed read leaves the read position where it was. A parcel never grows
 * past RPC_PORT_MAX_PARCEL_SIZE, so it always fits one frame of the transport. */
#include <rpc-port.h>

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "byteorder_internal.h"
#include "channel_internal.h"
#include "monitor_tap_internal.h"
#include "rpc_port_internal.h"

enum {
        FIELD_INT32 = 1,
        FIELD_BOOL = 2,
        FIELD_STRING = 3,
        FIELD_BUNDLE = 4,
};

struct rpc_port_parcel_s {
        unsigned char *data; /* owned */
        size_t len;
        size_t cap;
        size_t pos; /* read position */
};

/* Makes room for extra more bytes: 0, -90 past the parcel cap, -12. */
static int reserve(struct rpc_port_parcel_s *p, size_t extra)
{
        if (extra > RPC_PORT_MAX_PARCEL_SIZE - p->len)
                return -EMSGSIZE;
        size_t need = p->len + extra;
        if (need <= p->cap)
                return 0;

        size_t cap = p->cap ? p->cap : 64;
        while (cap < need)
                cap = cap > RPC_PORT_MAX_PARCEL_SIZE / 2 ? RPC_PORT_MAX_PARCEL_SIZE : cap * 2;
        unsigned char *data = realloc(p->data, cap);
        if (!data)
                return -ENOMEM;
        p->data = data;
        p->cap = cap;
        return 0;
}

/* Appends a tag, a u32 length when with_length is set, then body: 0, -90, -12. */
static int append_field(struct rpc_port_parcel_s *p, unsigned char tag, const void *body,
                        size_t body_len, bool with_length)
{
        size_t head = 1 + (with_length ? 4 : 0);
        if (body_len > RPC_PORT_MAX_PARCEL_SIZE)
                return -EMSGSIZE;
        int r = reserve(p, head + body_len);
        if (r < 0)
                return r;

        unsigned char *out = p->data + p->len;
        out[0] = tag;
        if (with_length)
                velna_put_le32(out + 1, (uint32_t)body_len);
        if (body_len)
                memcpy(out + head, body, body_len);
        p->len += head + body_len;
        return 0;
}

/* A field found at the read position; body borrows from the parcel. */
typedef struct {
        const unsigned char *body;
        size_t len;
        size_t next; /* read position after the field */
} field;

/* Finds the field at the read position if it has the tag: 0 and its body, whose length
 * is fixed_len or, when fixed_len is 0, the u32 prefix; -22 for a null parcel, -5 for
 * another tag or a field that the remaining bytes cannot hold. */
static int peek_field(const struct rpc_port_parcel_s *p, unsigned char tag, size_t fixed_len,
                      field *f)
{
        if (!p)
                return -EINVAL;

        size_t left = p->len - p->pos;
        const unsigned char *at = p->data + p->pos;
        if (left < 1 || at[0] != tag)
                return -EIO;
        left -= 1;
        at += 1;

        size_t len = fixed_len;
        size_t head = 1;
        if (fixed_len == 0) {
                if (left < 4)
                        return -EIO;
                len = velna_get_le32(at);
                left -= 4;
                at += 4;
                head += 4;
        }
        if (len > left)
                return -EIO;

        f->body = at;
        f->len = len;
        f->next = p->pos + head + len;
        return 0;
}

int rpc_port_parcel_create(rpc_port_parcel_h *h)
{
        if (!h)
                return -EINVAL;

        struct rpc_port_parcel_s *p = calloc(1, sizeof *p);
        if (!p)
                return -ENOMEM;
        *h = p;
        return 0;
}

int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port)
{
        if (!h || !port)
                return -EINVAL;
        if (!port->channel)
                return -EIO;

        struct rpc_port_parcel_s *p = calloc(1, sizeof *p);
        if (!p)
                return -ENOMEM;

        unsigned char *payload = NULL;
        size_t len = 0;
        int r = velna_channel_take_frame(port->channel, -1, &payload, &len);
        if (r < 0) {
                free(p);
                return r == -ENOMEM ? r : -EIO; /* timed out or the peer is gone */
        }

        p->data = payload; /* ownership passes to the parcel */
        p->len = len;
        p->cap = len;
        *h = p;
        return 0;
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port)
{
        if (!h || !port)
                return -EINVAL;
        if (!port->channel || !velna_channel_is_open(port->channel))
                return -EIO;

        static const unsigned char empty;
        int r = velna_channel_send(port->channel, h->data ? h->data : &empty, h->len);
        if (r == 0)
                velna_monitor_tap_parcel(port->channel, h->data, h->len);
        return r;
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h)
{
        if (!h)
                return -EINVAL;

        free(h->data);
        free(h);
        return 0;
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i)
{
        if (!h)
                return -EINVAL;

        unsigned char v[4];
        velna_put_le32(v, (uint32_t)i);
        return append_field(h, FIELD_INT32, v, sizeof v, false);
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b)
{
        if (!h)
                return -EINVAL;

        unsigned char v = b ? 1 : 0;
        return append_field(h, FIELD_BOOL, &v, 1, false);
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str)
{
        if (!h || !str)
                return -EINVAL;

        return append_field(h, FIELD_STRING, str, strlen(str), true);
}

int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b)
{
        if (!h || !b)
                return -EINVAL;

        unsigned char *raw = NULL;
        size_t len = 0;
        int r = bundle_encode_raw(b, &raw, &len);
        if (r < 0)
                return r;
        r = append_field(h, FIELD_BUNDLE, raw, len, true);
        free(raw);
        return r;
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i)
{
        if (!i)
                return -EINVAL;
        *i = 0;

        field f;
        int r = peek_field(h, FIELD_INT32, 4, &f);
        if (r < 0)
                return r;
        *i = (int)(int32_t)velna_get_le32(f.body);
        h->pos = f.next;
        return 0;
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b)
{
        if (!b)
                return -EINVAL;
        *b = false;

        field f;
        int r = peek_field(h, FIELD_BOOL, 1, &f);
        if (r < 0)
                return r;
        if (f.body[0] > 1)
                return -EIO;
        *b = f.body[0] == 1;
        h->pos = f.next;
        return 0;
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str)
{
        if (!str)
                return -EINVAL;
        *str = NULL;

        field f;
        int r = peek_field(h, FIELD_STRING, 0, &f);
        if (r < 0)
                return r;
        if (f.len > 0 && memchr(f.body, '\0', f.len))
                return -EIO;

        char *s = malloc(f.len + 1);
        if (!s)
                return -ENOMEM;
        memcpy(s, f.body, f.len);
        s[f.len] = '\0';
        h->pos = f.next;
        *str = s; /* ownership passes to the caller */
        return 0;
}

int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b)
{
        if (!b)
                return -EINVAL;
        *b = NULL;

        field f;
        int r = peek_field(h, FIELD_BUNDLE, 0, &f);
        if (r < 0)
                return r;

        bundle *decoded = NULL;
        r = bundle_decode_raw(f.body, f.len, &decoded);
        if (r < 0)
                return r == -ENOMEM ? r : -EIO;
        h->pos = f.next;
        *b = decoded; /* ownership passes to the caller */
        return 0;
}
