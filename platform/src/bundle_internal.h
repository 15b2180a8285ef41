/* Shared internals: the bundle's binary form for the transports, written into a buffer
 * that the transport provides and read without copying large byte values. */
#ifndef VELNA_BUNDLE_INTERNAL_H
#define VELNA_BUNDLE_INTERNAL_H

#include <bundle.h>
#include <stddef.h>

/* Byte values from this size on are not copied by bundle_decode_view. */
#define BUNDLE_VIEW_MIN (4u * 1024u)

/* 0 and the number of bytes that bundle_encode_into writes for b, or -22 when a count or
 * length does not fit the binary form. */
int bundle_encoded_size(bundle *b, size_t *len);
/* Writes the binary form of b into out, which holds at least the bytes that
 * bundle_encoded_size reported for b unchanged since. */
void bundle_encode_into(bundle *b, unsigned char *out);
/* As bundle_decode_raw, but byte values of BUNDLE_VIEW_MIN bytes and more point into raw
 * instead of being copied: raw stays the caller's and must outlive the bundle, and the
 * bundle's users may write through those values into it. */
int bundle_decode_view(unsigned char *raw, size_t len, bundle **out);

#endif
