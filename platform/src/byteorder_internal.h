/* Shared internals: the little-endian u32 that every wire format of the platform is
 * built from (frame headers, parcel fields, encoded bundles). */
#ifndef VELNA_BYTEORDER_INTERNAL_H
#define VELNA_BYTEORDER_INTERNAL_H

#include <stdint.h>

static inline void velna_put_le32(unsigned char *p, uint32_t v)
{
        p[0] = (unsigned char)v;
        p[1] = (unsigned char)(v >> 8);
        p[2] = (unsigned char)(v >> 16);
        p[3] = (unsigned char)(v >> 24);
}

static inline uint32_t velna_get_le32(const unsigned char *p)
{
        return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 |
               (uint32_t)p[3] << 24;
}

#endif
