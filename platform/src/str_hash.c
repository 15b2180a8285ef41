#include "str_hash_internal.h"

#include <stdint.h>
#include <string.h>

/* Each word is mixed in by a multiplication and a fold of the high half, so that every
 * byte reaches the low bits that GHashTable indexes by. */
static uint64_t mix(uint64_t h, uint64_t word)
{
        h = (h ^ word) * 0xff51afd7ed558ccdull;
        return h ^ (h >> 32);
}

guint velna_str_hash(gconstpointer key)
{
        const char *p = key;
        size_t len = strlen(p);
        uint64_t h = 0x9e3779b97f4a7c15ull ^ len;
        uint64_t word;
        for (; len >= 8; p += 8, len -= 8) {
                memcpy(&word, p, 8);
                h = mix(h, word);
        }
        word = 0;
        memcpy(&word, p, len);
        return (guint)mix(h, word);
}
