/* String-keyed dictionary of string and byte values that keeps insertion order. */
#ifndef VELNA_BUNDLE_H
#define VELNA_BUNDLE_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef struct _bundle_t bundle;
typedef struct keyval_t bundle_keyval_t;

#define BUNDLE_TYPE_NONE 0
#define BUNDLE_TYPE_STR 1
#define BUNDLE_TYPE_BYTE 2
#define BUNDLE_TYPE_ARRAY 0x0100
#define BUNDLE_TYPE_STR_ARRAY (BUNDLE_TYPE_STR | BUNDLE_TYPE_ARRAY)
#define BUNDLE_TYPE_BYTE_ARRAY (BUNDLE_TYPE_BYTE | BUNDLE_TYPE_ARRAY)

/* Longest key, in bytes without the terminating zero. */
#define BUNDLE_KEY_MAX 4096

/* Returns a new empty bundle (free with bundle_free), or NULL when out of memory. */
bundle *bundle_create(void);
/* Frees the bundle and everything in it. -22 for NULL. */
int bundle_free(bundle *b);
/* Returns a deep copy (free with bundle_free), or NULL. */
bundle *bundle_dup(bundle *b);
/* Number of entries, or a negative errno value. */
int bundle_get_count(bundle *b);

/* Adders copy key and value. -17 when the key exists (the bundle is unchanged),
 * -22 for a null or empty key or a null value, -12 when out of memory. */
int bundle_add_str(bundle *b, const char *key, const char *str);
int bundle_add_byte(bundle *b, const char *key, const void *bytes, size_t size);
int bundle_add_str_array(bundle *b, const char *key, const char **str_array, int len);

/* Getters hand out pointers into the bundle, valid until the entry is deleted or the
 * bundle freed. -2 for a missing key, -22 for a wrong type or a null argument. */
int bundle_get_str(bundle *b, const char *key, char **str);
int bundle_get_byte(bundle *b, const char *key, void **bytes, size_t *size);
/* *str_array points into the bundle (an array of borrowed strings); *len its length. */
int bundle_get_str_array(bundle *b, const char *key, const char ***str_array, int *len);
/* Type of an entry (BUNDLE_TYPE_*), or a negative errno value. */
int bundle_get_type(bundle *b, const char *key);

/* -2 for a missing key. */
int bundle_del(bundle *b, const char *key);

/* Calls iter for each entry in insertion order; kv is borrowed for the call. The
 * bundle must not be changed from inside iter. */
typedef void (*bundle_iterator_t)(const char *key, const int type, const bundle_keyval_t *kv,
                                  void *user_data);
void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data);

/* 1 when the entry holds an array, 0 when not, -22 for NULL. */
int bundle_keyval_type_is_array(bundle_keyval_t *kv);
/* BUNDLE_TYPE_* of the entry, or -22. */
int bundle_keyval_get_type(bundle_keyval_t *kv);
/* Borrowed pointer to the value of a non-array entry and its size in bytes (for a string,
 * the length including the terminating zero). -22 for an array entry or NULL. */
int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size);

/* Long strings joined in place (extension). bundle_str_buffer_append appends size bytes
 * to the buffer in *buffer, a new one when *buffer is NULL, and may move it (*buffer is
 * updated); the buffer always holds a terminated string: its bytes up to the first zero
 * byte appended. 0, -22 for a null argument, -12 when out of memory (the buffer is then
 * unchanged). Handed to bundle_add_str, such a buffer is taken over by the bundle instead
 * of copied when the call succeeds: the caller then no longer owns it and must not touch
 * it; when the call fails it stays the caller's. bundle_str_buffer_size returns the bytes
 * appended so far (0 for NULL); bundle_str_buffer_free frees a buffer that no bundle took
 * (NULL is ignored). The memory of a freed buffer is kept for the process's next one. */
int bundle_str_buffer_append(char **buffer, const void *bytes, size_t size);
size_t bundle_str_buffer_size(const char *buffer);
void bundle_str_buffer_free(char *buffer);

/* Binary form for the transports (extension). encode: *raw is newly allocated, free with
 * free(). decode: never reads outside raw[0..len), fails with -22 on any malformed,
 * truncated or oversized input and -12 when out of memory; *out is a new bundle. */
int bundle_encode_raw(bundle *b, unsigned char **raw, size_t *len);
int bundle_decode_raw(const unsigned char *raw, size_t len, bundle **out);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
