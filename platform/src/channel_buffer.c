/* Payload buffers of a channel.
 *
 * Large payload buffers are the costly part of a large frame: the kernel supplies and
 * zeroes fresh pages for each one, as the allocator hands such blocks back after use. So
 * a channel keeps one spare: the last large buffer it wrote out or was given back by the
 * consumer, reused for the next large frame of similar size in either direction and
 * freed once a tick of SPARE_IDLE_MS passes without use, or when the channel ends. */
#include "channel_state_internal.h"

#include <stdlib.h>
#include <sys/mman.h>

/* Payloads from this size on get their pages in bulk. */
#define LARGE_FRAME (4u * 1024u * 1024u)
/* Buffers from this size on are kept as a channel's spare. */
#define SPARE_MIN (256u * 1024u)
/* A spare unused for this long is freed. */
#define SPARE_IDLE_MS 1000

static gboolean on_spare_tick(gpointer data)
{
        velna_channel *ch = data;
        if (ch->spare_used) {
                ch->spare_used = false;
                return G_SOURCE_CONTINUE;
        }
        ch->spare_timer = 0; /* this source ends by returning G_SOURCE_REMOVE */
        channel_spare_drop(ch);
        return G_SOURCE_REMOVE;
}

/* A large buffer is filled in one go right after it is made, so its pages are asked for
 * in bulk (huge pages where the system offers them on request) rather than faulted in
 * one by one. */
void channel_advise_bulk(unsigned char *p, size_t len)
{
        if (!p || len < LARGE_FRAME)
                return;
        const uintptr_t huge = 2u * 1024u * 1024u;
        uintptr_t start = ((uintptr_t)p + huge - 1) & ~(huge - 1);
        uintptr_t end = ((uintptr_t)p + len) & ~(huge - 1);
        if (end > start)
                madvise((void *)start, end - start, MADV_HUGEPAGE);
}

unsigned char *channel_buffer_new(size_t len)
{
        unsigned char *p = malloc(len ? len : 1);
        channel_advise_bulk(p, len);
        return p;
}

/* The spare serves len bytes when it is large enough and not more than half of it would
 * lie unused. */
bool channel_spare_fits(const velna_channel *ch, size_t len)
{
        return ch->spare && len <= ch->spare_cap && len >= ch->spare_cap / 2;
}

void channel_spare_drop(velna_channel *ch)
{
        g_clear_handle_id(&ch->spare_timer, g_source_remove);
        free(ch->spare);
        ch->spare = NULL;
        ch->spare_cap = 0;
}

/* A buffer of at least len bytes (the caller's; free with free()): the spare when it
 * fits, else a new one. */
unsigned char *channel_buffer_get(velna_channel *ch, size_t len)
{
        if (!channel_spare_fits(ch, len))
                return channel_buffer_new(len);
        unsigned char *p = ch->spare;
        ch->spare = NULL;
        ch->spare_cap = 0;
        ch->spare_used = true;
        return p;
}

/* Takes a malloc'd buffer whose first len bytes are usable: kept as the spare when it
 * is large (replacing an older spare: the newest size is the likeliest next one), else
 * freed. */
void channel_buffer_put(velna_channel *ch, unsigned char *p, size_t len)
{
        if (!p || len < SPARE_MIN || ch->failed || ch->closing) {
                free(p);
                return;
        }
        free(ch->spare);
        ch->spare = p;
        ch->spare_cap = len;
        ch->spare_used = true;
        if (!ch->spare_timer)
                ch->spare_timer = g_timeout_add(SPARE_IDLE_MS, on_spare_tick, ch);
}

unsigned char *velna_channel_payload_alloc(velna_channel *channel, size_t len)
{
        return channel ? channel_buffer_get(channel, len) : channel_buffer_new(len);
}

void velna_channel_recycle(velna_channel *channel, unsigned char *payload, size_t len)
{
        if (channel)
                channel_buffer_put(channel, payload, len);
        else
                free(payload);
}
