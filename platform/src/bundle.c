/* Bundle: entries in a doubly linked list (insertion order) with a hash index by key.
 *
 * Binary form (all integers little-endian u32):
 *   magic "VBDL" (0x4C444256), version 1, entry count, then per entry:
 *   type, key length, key bytes (no NUL), and
 *     str / byte:   value length, value bytes (a string without its NUL)
 *     str array:    element count, then per element: length, bytes
 * The decoder checks every count and length against the bytes that remain before it
 * allocates anything, and rejects unknown types, empty or NUL-holding keys, NUL bytes
 * inside strings, duplicate keys and trailing bytes. A bundle decoded for a transport
 * (bundle_decode_view) lets its large byte values point into the transport's buffer. */
#include "bundle_internal.h"

#include "bundle_str_buffer_internal.h"
#include "byteorder_internal.h"
#include "str_hash_internal.h"

#include <errno.h>
#include <glib.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#define BUNDLE_MAGIC 0x4C444256u
#define BUNDLE_VERSION 1u
#define ENTRY_MIN_ENCODED 13u /* type, key length, one key byte, value length */

struct keyval_t {
        struct keyval_t *prev;
        struct keyval_t *next;
        char *key;         /* in the entry's own allocation, right after it */
        int type;
        void *value;       /* basic types: the value (a string keeps its NUL); owned
                              unless borrowed */
        bool inline_value; /* value is in the entry's own allocation, after the key */
        bool borrowed;     /* value points into a decoded buffer that outlives the bundle */
        bool str_buffer;   /* value is a string buffer taken over (bundle_str_buffer.c) */
        size_t size;       /* basic types: bytes of value, a string's NUL included */
        char **items;      /* str array: count strings and a NULL */
        size_t count;
};

struct _bundle_t {
        struct keyval_t *head;
        struct keyval_t *tail;
        GHashTable *index; /* key (borrowed from the entry) -> entry; NULL while the
                              bundle is small enough to search its list */
        int count;
};

/* A cursor over untrusted bytes. */
typedef struct {
        const unsigned char *p;
        size_t left;
} reader;

static void entry_free(struct keyval_t *kv)
{
        if (!kv)
                return;
        for (size_t i = 0; kv->items && i < kv->count; i++)
                free(kv->items[i]);
        free(kv->items);
        if (kv->str_buffer)
                velna_str_buffer_release(kv->value);
        else if (!kv->borrowed && !kv->inline_value)
                free(kv->value);
        free(kv);
}

static bool key_is_valid(const char *key)
{
        return key && *key && strnlen(key, BUNDLE_KEY_MAX + 1) <= BUNDLE_KEY_MAX;
}

/* A bundle gets a hash index once it holds this many entries. The bundles of a request
 * and its answer hold a handful; comparing their keys costs less than hashing the key
 * sought, and making and freeing the index would cost a bundle four allocations. */
#define INDEX_FROM 16

static struct keyval_t *entry_lookup(bundle *b, const char *key)
{
        if (!key)
                return NULL;
        if (b->index)
                return g_hash_table_lookup(b->index, key);
        for (struct keyval_t *kv = b->head; kv; kv = kv->next) {
                if (strcmp(kv->key, key) == 0)
                        return kv;
        }
        return NULL;
}

static void index_build(bundle *b)
{
        b->index = g_hash_table_new(velna_str_hash, g_str_equal);
        for (struct keyval_t *kv = b->head; kv; kv = kv->next)
                g_hash_table_insert(b->index, kv->key, kv);
}

/* Takes kv; the caller has made sure that its key is new. */
static void entry_append(bundle *b, struct keyval_t *kv)
{
        kv->prev = b->tail;
        kv->next = NULL;
        if (b->tail)
                b->tail->next = kv;
        else
                b->head = kv;
        b->tail = kv;
        b->count++;
        if (b->index)
                g_hash_table_insert(b->index, kv->key, kv);
        else if (b->count >= INDEX_FROM)
                index_build(b);
}

/* An entry in one allocation with its key and, when bytes is given, its value: size
 * bytes with a zero after them (so that a string stays terminated), counted as stored.
 * The value starts aligned as malloc would align it, for callers that read it in place. */
static struct keyval_t *entry_make(const char *key, size_t key_len, int type, const void *bytes,
                                   size_t size, size_t stored)
{
        const size_t align = _Alignof(max_align_t);
        size_t value_at = (sizeof(struct keyval_t) + key_len + 1 + align - 1) / align * align;
        size_t total = bytes ? value_at + size + 1 : sizeof(struct keyval_t) + key_len + 1;
        if (bytes && size >= SIZE_MAX - value_at)
                return NULL;
        struct keyval_t *kv = malloc(total);
        if (!kv)
                return NULL;
        *kv = (struct keyval_t){ .key = (char *)(kv + 1), .type = type };
        memcpy(kv->key, key, key_len);
        kv->key[key_len] = '\0';
        if (bytes) {
                kv->value = (char *)kv + value_at;
                if (size)
                        memcpy(kv->value, bytes, size);
                ((char *)kv->value)[size] = '\0';
                kv->size = stored;
                kv->inline_value = true;
        }
        return kv;
}

static struct keyval_t *entry_new(const char *key, size_t key_len, int type)
{
        return entry_make(key, key_len, type, NULL, 0, 0);
}

/* A byte value that stays in the decoded buffer, which bundle_decode_view's caller
 * keeps alive (and writable) for as long as the bundle. */
static void entry_borrow_value(struct keyval_t *kv, const unsigned char *bytes, size_t size)
{
        kv->value = (void *)bytes;
        kv->size = size;
        kv->borrowed = true;
}

static int entry_alloc_items(struct keyval_t *kv, size_t count)
{
        kv->items = calloc(count + 1, sizeof(char *));
        if (!kv->items)
                return -ENOMEM;
        kv->count = count;
        return 0;
}

static int add_basic(bundle *b, const char *key, int type, const void *bytes, size_t size,
                     size_t stored)
{
        if (!b || !key_is_valid(key) || !bytes)
                return -EINVAL;
        if (entry_lookup(b, key))
                return -EEXIST;

        struct keyval_t *kv = entry_make(key, strlen(key), type, bytes, size, stored);
        if (!kv)
                return -ENOMEM;
        entry_append(b, kv);
        return 0;
}

static struct keyval_t *entry_dup(const struct keyval_t *src)
{
        struct keyval_t *kv = entry_make(src->key, strlen(src->key), src->type, src->value,
                                         src->size, src->size);
        if (!kv)
                return NULL;
        if (src->items) {
                if (entry_alloc_items(kv, src->count) < 0)
                        goto fail;
                for (size_t i = 0; i < src->count; i++)
                        if (!(kv->items[i] = strdup(src->items[i])))
                                goto fail;
        }
        return kv;
fail:
        entry_free(kv);
        return NULL;
}

/* Encoding. */

static size_t encoded_entry_size(const struct keyval_t *kv, bool *fits)
{
        size_t size = 8 + strlen(kv->key) + 4;
        if (kv->items) {
                for (size_t i = 0; i < kv->count; i++) {
                        size_t len = strlen(kv->items[i]);
                        *fits = *fits && len <= UINT32_MAX;
                        size += 4 + len;
                }
                *fits = *fits && kv->count <= UINT32_MAX;
        } else {
                size_t len = kv->type == BUNDLE_TYPE_STR ? kv->size - 1 : kv->size;
                *fits = *fits && len <= UINT32_MAX;
                size += len;
        }
        return size;
}

static unsigned char *put_u32(unsigned char *p, uint32_t v)
{
        velna_put_le32(p, v);
        return p + 4;
}

static unsigned char *put_blob(unsigned char *p, const void *bytes, size_t len)
{
        p = put_u32(p, (uint32_t)len);
        if (len)
                memcpy(p, bytes, len);
        return p + len;
}

static unsigned char *encode_entry(unsigned char *p, const struct keyval_t *kv)
{
        p = put_u32(p, (uint32_t)kv->type);
        p = put_blob(p, kv->key, strlen(kv->key));
        if (kv->items) {
                p = put_u32(p, (uint32_t)kv->count);
                for (size_t i = 0; i < kv->count; i++)
                        p = put_blob(p, kv->items[i], strlen(kv->items[i]));
                return p;
        }
        size_t len = kv->type == BUNDLE_TYPE_STR ? kv->size - 1 : kv->size;
        return put_blob(p, kv->value, len);
}

/* Decoding. */

static bool get_u32(reader *r, uint32_t *v)
{
        if (r->left < 4)
                return false;
        *v = velna_get_le32(r->p);
        r->p += 4;
        r->left -= 4;
        return true;
}

/* A length-prefixed run of bytes, borrowed from the input. */
static bool get_blob(reader *r, const unsigned char **bytes, size_t *len)
{
        uint32_t n;
        if (!get_u32(r, &n) || n > r->left)
                return false;
        *bytes = r->p;
        *len = n;
        r->p += n;
        r->left -= n;
        return true;
}

static bool get_string(reader *r, const unsigned char **bytes, size_t *len)
{
        return get_blob(r, bytes, len) && !memchr(*bytes, '\0', *len);
}

static int decode_items(reader *r, struct keyval_t *kv)
{
        uint32_t count;
        if (!get_u32(r, &count) || count > r->left / 4)
                return -EINVAL;
        if (entry_alloc_items(kv, count) < 0)
                return -ENOMEM;

        for (size_t i = 0; i < count; i++) {
                const unsigned char *s;
                size_t len;
                if (!get_string(r, &s, &len))
                        return -EINVAL;
                if (!(kv->items[i] = malloc(len + 1)))
                        return -ENOMEM;
                memcpy(kv->items[i], s, len);
                kv->items[i][len] = '\0';
        }
        return 0;
}

/* With view, a large byte value is borrowed from the input instead of copied. */
static int decode_entry(reader *r, bundle *b, bool view)
{
        uint32_t type;
        const unsigned char *key, *value;
        size_t key_len, len;
        if (!get_u32(r, &type) || !get_string(r, &key, &key_len))
                return -EINVAL;
        if (key_len == 0 || key_len > BUNDLE_KEY_MAX)
                return -EINVAL;
        if (type != BUNDLE_TYPE_STR && type != BUNDLE_TYPE_BYTE && type != BUNDLE_TYPE_STR_ARRAY)
                return -EINVAL;

        struct keyval_t *kv;
        int res = 0;
        if (type == BUNDLE_TYPE_STR_ARRAY) {
                kv = entry_new((const char *)key, key_len, (int)type);
                if (kv)
                        res = decode_items(r, kv);
        } else if (type == BUNDLE_TYPE_STR) {
                if (!get_string(r, &value, &len))
                        return -EINVAL;
                kv = entry_make((const char *)key, key_len, (int)type, value, len, len + 1);
        } else {
                if (!get_blob(r, &value, &len))
                        return -EINVAL;
                bool borrow = view && len >= BUNDLE_VIEW_MIN;
                kv = borrow ? entry_new((const char *)key, key_len, (int)type)
                            : entry_make((const char *)key, key_len, (int)type, value, len, len);
                if (kv && borrow)
                        entry_borrow_value(kv, value, len);
        }
        if (!kv)
                return -ENOMEM;
        if (res == 0 && entry_lookup(b, kv->key))
                res = -EINVAL;
        if (res < 0)
                goto fail;

        entry_append(b, kv);
        return 0;
fail:
        entry_free(kv);
        return res;
}

static int decode(const unsigned char *raw, size_t len, bool view, bundle **out)
{
        if (!raw || !out)
                return -EINVAL;

        reader r = { raw, len };
        uint32_t magic, version, count;
        if (!get_u32(&r, &magic) || !get_u32(&r, &version) || !get_u32(&r, &count))
                return -EINVAL;
        if (magic != BUNDLE_MAGIC || version != BUNDLE_VERSION ||
            count > r.left / ENTRY_MIN_ENCODED)
                return -EINVAL;

        bundle *b = bundle_create();
        if (!b)
                return -ENOMEM;
        int res = 0;
        for (uint32_t i = 0; i < count && res == 0; i++)
                res = decode_entry(&r, b, view);
        if (res == 0 && r.left != 0)
                res = -EINVAL;
        if (res < 0) {
                bundle_free(b);
                return res;
        }
        *out = b;
        return 0;
}

bundle *bundle_create(void)
{
        return calloc(1, sizeof(bundle));
}

int bundle_free(bundle *b)
{
        if (!b)
                return -EINVAL;

        if (b->index)
                g_hash_table_destroy(b->index);
        struct keyval_t *kv = b->head;
        while (kv) {
                struct keyval_t *next = kv->next;
                entry_free(kv);
                kv = next;
        }
        free(b);
        return 0;
}

bundle *bundle_dup(bundle *b)
{
        if (!b)
                return NULL;

        bundle *copy = bundle_create();
        if (!copy)
                return NULL;
        for (const struct keyval_t *kv = b->head; kv; kv = kv->next) {
                struct keyval_t *dup = entry_dup(kv);
                if (!dup) {
                        bundle_free(copy);
                        return NULL;
                }
                entry_append(copy, dup);
        }
        return copy;
}

int bundle_get_count(bundle *b)
{
        return b ? b->count : -EINVAL;
}

/* Takes a string buffer over as the value, without copying or measuring it; the buffer
 * stays the caller's when this fails. */
static int add_str_buffer(bundle *b, const char *key, char *text)
{
        if (!b || !key_is_valid(key))
                return -EINVAL;
        if (entry_lookup(b, key))
                return -EEXIST;
        struct keyval_t *kv = entry_new(key, strlen(key), BUNDLE_TYPE_STR);
        if (!kv)
                return -ENOMEM;
        kv->value = text;
        kv->size = velna_str_buffer_adopt(text) + 1;
        kv->str_buffer = true;
        entry_append(b, kv);
        return 0;
}

int bundle_add_str(bundle *b, const char *key, const char *str)
{
        if (!str)
                return -EINVAL;
        if (velna_str_buffer_outstanding(str))
                return add_str_buffer(b, key, (char *)str);
        size_t len = strlen(str);
        return add_basic(b, key, BUNDLE_TYPE_STR, str, len, len + 1);
}

int bundle_add_byte(bundle *b, const char *key, const void *bytes, size_t size)
{
        return add_basic(b, key, BUNDLE_TYPE_BYTE, bytes, size, size);
}

int bundle_add_str_array(bundle *b, const char *key, const char **str_array, int len)
{
        if (!b || !key_is_valid(key) || len < 0 || (len > 0 && !str_array))
                return -EINVAL;
        for (int i = 0; i < len; i++)
                if (!str_array[i])
                        return -EINVAL;
        if (entry_lookup(b, key))
                return -EEXIST;

        struct keyval_t *kv = entry_new(key, strlen(key), BUNDLE_TYPE_STR_ARRAY);
        if (!kv || entry_alloc_items(kv, (size_t)len) < 0)
                goto oom;
        for (int i = 0; i < len; i++)
                if (!(kv->items[i] = strdup(str_array[i])))
                        goto oom;
        entry_append(b, kv);
        return 0;
oom:
        entry_free(kv);
        return -ENOMEM;
}

int bundle_get_str(bundle *b, const char *key, char **str)
{
        if (!b || !key || !str)
                return -EINVAL;
        struct keyval_t *kv = entry_lookup(b, key);
        if (!kv)
                return -ENOENT;
        if (kv->type != BUNDLE_TYPE_STR)
                return -EINVAL;
        *str = kv->value;
        return 0;
}

int bundle_get_byte(bundle *b, const char *key, void **bytes, size_t *size)
{
        if (!b || !key || !bytes)
                return -EINVAL;
        struct keyval_t *kv = entry_lookup(b, key);
        if (!kv)
                return -ENOENT;
        if (kv->type != BUNDLE_TYPE_BYTE)
                return -EINVAL;
        *bytes = kv->value;
        if (size)
                *size = kv->size;
        return 0;
}

int bundle_get_str_array(bundle *b, const char *key, const char ***str_array, int *len)
{
        if (!b || !key || !str_array)
                return -EINVAL;
        struct keyval_t *kv = entry_lookup(b, key);
        if (!kv)
                return -ENOENT;
        if (kv->type != BUNDLE_TYPE_STR_ARRAY || kv->count > INT32_MAX)
                return -EINVAL;
        *str_array = (const char **)kv->items;
        if (len)
                *len = (int)kv->count;
        return 0;
}

int bundle_get_type(bundle *b, const char *key)
{
        if (!b || !key)
                return -EINVAL;
        struct keyval_t *kv = entry_lookup(b, key);
        return kv ? kv->type : -ENOENT;
}

int bundle_del(bundle *b, const char *key)
{
        if (!b || !key)
                return -EINVAL;
        struct keyval_t *kv = entry_lookup(b, key);
        if (!kv)
                return -ENOENT;

        if (b->index)
                g_hash_table_remove(b->index, key);
        if (kv->prev)
                kv->prev->next = kv->next;
        else
                b->head = kv->next;
        if (kv->next)
                kv->next->prev = kv->prev;
        else
                b->tail = kv->prev;
        b->count--;
        entry_free(kv);
        return 0;
}

void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data)
{
        if (!b || !iter)
                return;
        for (const struct keyval_t *kv = b->head; kv; kv = kv->next)
                iter(kv->key, kv->type, kv, user_data);
}

int bundle_keyval_type_is_array(bundle_keyval_t *kv)
{
        if (!kv)
                return -EINVAL;
        return (kv->type & BUNDLE_TYPE_ARRAY) ? 1 : 0;
}

int bundle_keyval_get_type(bundle_keyval_t *kv)
{
        return kv ? kv->type : -EINVAL;
}

int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size)
{
        if (!kv || !val || (kv->type & BUNDLE_TYPE_ARRAY))
                return -EINVAL;
        *val = kv->value;
        if (size)
                *size = kv->size;
        return 0;
}

int bundle_encoded_size(bundle *b, size_t *len)
{
        if (!b || !len)
                return -EINVAL;

        bool fits = true;
        size_t total = 12;
        for (const struct keyval_t *kv = b->head; kv; kv = kv->next)
                total += encoded_entry_size(kv, &fits);
        if (!fits)
                return -EINVAL;
        *len = total;
        return 0;
}

void bundle_encode_into(bundle *b, unsigned char *out)
{
        unsigned char *p = put_u32(out, BUNDLE_MAGIC);
        p = put_u32(p, BUNDLE_VERSION);
        p = put_u32(p, (uint32_t)b->count);
        for (const struct keyval_t *kv = b->head; kv; kv = kv->next)
                p = encode_entry(p, kv);
}

int bundle_encode_raw(bundle *b, unsigned char **raw, size_t *len)
{
        if (!b || !raw || !len)
                return -EINVAL;

        size_t total;
        int r = bundle_encoded_size(b, &total);
        if (r < 0)
                return r;
        unsigned char *out = malloc(total);
        if (!out)
                return -ENOMEM;
        bundle_encode_into(b, out);

        *raw = out;
        *len = total;
        return 0;
}

int bundle_decode_raw(const unsigned char *raw, size_t len, bundle **out)
{
        return decode(raw, len, false, out);
}

int bundle_decode_view(unsigned char *raw, size_t len, bundle **out)
{
        return decode(raw, len, true, out);
}
