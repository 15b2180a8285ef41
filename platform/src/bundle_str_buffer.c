/* String buffers for joining long strings in place (bundle.h).
 *
 * A buffer is one anonymous mapping: a header, then the text, always terminated. It
 * grows by remapping, which moves pages instead of copying bytes, so joining n bytes
 * copies each byte once. The first zero byte appended ends the string; it is found
 * while the appended bytes are still in the cache, so that bundle_add_str, which takes
 * the buffer over, never measures the text again.
 *
 * Fresh pages are the costly part of a long string: the kernel supplies and zeroes each
 * one on first touch. So the process keeps one spare, the largest buffer freed, and the
 * next buffer starts in it. The spare's pages past SPARE_RESIDENT are handed to the
 * kernel with MADV_FREE: they cost nothing to write again while memory is plentiful,
 * and the kernel reclaims them when it is not. Once the spare has gone unused for a
 * tick of SPARE_IDLE_MS on the default main context, it is cut back to SPARE_RESIDENT,
 * so that one huge string does not stay in the process's resident set either.
 *
 * Buffers that callers own are listed (outstanding), so that bundle_add_str can tell
 * one from any other string without reading outside it. */
#include "bundle_str_buffer_internal.h"

#include <bundle.h>

#include <errno.h>
#include <glib.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* Bytes before the text; a multiple of the alignment malloc would give. */
#define HEADER_SIZE 64u
/* The smallest mapping made. */
#define MAP_MIN (64u * 1024u)
/* Pages of the spare that stay resident as they are. */
#define SPARE_RESIDENT (16u * 1024u * 1024u)
/* A spare larger than SPARE_RESIDENT and unused for this long is cut back to it. */
#define SPARE_IDLE_MS 1000

struct str_buffer {
        size_t map_size; /* of the whole mapping, header included */
        size_t size;     /* bytes appended */
        size_t length;   /* bytes before the first zero appended, or size */
        bool ended;      /* a zero byte was appended */
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static GHashTable *outstanding; /* text -> its header, for the buffers callers own */
static unsigned outstanding_count; /* read without the lock on bundle_add_str's path */
static struct str_buffer *spare;
static bool spare_used;        /* taken or given back since the trim timer last ran */
static guint spare_trim_timer; /* on the default main context; 0 when none is due */

static char *text_of(struct str_buffer *h)
{
        return (char *)h + HEADER_SIZE;
}

static struct str_buffer *header_of(const char *text)
{
        return (struct str_buffer *)(uintptr_t)(text - HEADER_SIZE);
}

static size_t capacity_of(const struct str_buffer *h)
{
        return h->map_size - HEADER_SIZE - 1; /* room for the terminating zero */
}

static size_t page_round(size_t n)
{
        size_t page = (size_t)sysconf(_SC_PAGESIZE);
        return (n + page - 1) / page * page;
}

static void list_locked(struct str_buffer *h, bool add)
{
        if (!outstanding)
                outstanding = g_hash_table_new(g_direct_hash, g_direct_equal);
        if (add)
                g_hash_table_insert(outstanding, text_of(h), h);
        else
                g_hash_table_remove(outstanding, text_of(h));
        __atomic_store_n(&outstanding_count, g_hash_table_size(outstanding), __ATOMIC_RELEASE);
}

static void list(struct str_buffer *h, bool add)
{
        pthread_mutex_lock(&lock);
        list_locked(h, add);
        pthread_mutex_unlock(&lock);
}

static void reset(struct str_buffer *h)
{
        h->size = 0;
        h->length = 0;
        h->ended = false;
        text_of(h)[0] = '\0';
}

/* A buffer for at least need bytes of text: the spare, or a new mapping. */
static struct str_buffer *buffer_new(size_t need)
{
        pthread_mutex_lock(&lock);
        struct str_buffer *h = spare;
        spare = NULL;
        spare_used = true;
        pthread_mutex_unlock(&lock);
        if (h)
                return h;

        size_t map_size = page_round(HEADER_SIZE + need + 1);
        if (map_size < MAP_MIN)
                map_size = MAP_MIN;
        void *base = mmap(NULL, map_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                          -1, 0);
        if (base == MAP_FAILED)
                return NULL;
        h = base;
        h->map_size = map_size;
        reset(h);
        return h;
}

/* Grows h to hold need bytes of text, doubling; NULL (h unchanged) when out of memory. */
static struct str_buffer *buffer_grow(struct str_buffer *h, size_t need)
{
        if (need <= capacity_of(h))
                return h;
        size_t map_size = h->map_size;
        while (map_size - HEADER_SIZE - 1 < need && map_size <= SIZE_MAX / 2)
                map_size *= 2;
        if (map_size - HEADER_SIZE - 1 < need)
                return NULL;
        void *base = mremap(h, h->map_size, map_size, MREMAP_MAYMOVE);
        if (base == MAP_FAILED)
                return NULL;
        h = base;
        h->map_size = map_size;
        return h;
}

static void buffer_unmap(struct str_buffer *h)
{
        if (h)
                munmap(h, h->map_size);
}

/* Cuts a large spare back to SPARE_RESIDENT once a whole tick passed without it being
 * taken or given back; a shrink in place cannot fail for want of memory. */
static gboolean on_spare_trim_tick(gpointer data)
{
        (void)data;
        pthread_mutex_lock(&lock);
        if (spare_used) {
                spare_used = false;
                pthread_mutex_unlock(&lock);
                return G_SOURCE_CONTINUE;
        }
        if (spare && spare->map_size > SPARE_RESIDENT &&
            mremap(spare, spare->map_size, SPARE_RESIDENT, 0) != MAP_FAILED)
                spare->map_size = SPARE_RESIDENT;
        spare_trim_timer = 0; /* this source ends by returning G_SOURCE_REMOVE */
        pthread_mutex_unlock(&lock);
        return G_SOURCE_REMOVE;
}

void velna_str_buffer_release(char *text)
{
        if (!text)
                return;
        struct str_buffer *h = header_of(text);
        reset(h);
        if (h->map_size > SPARE_RESIDENT)
                madvise((char *)h + SPARE_RESIDENT, h->map_size - SPARE_RESIDENT, MADV_FREE);

        pthread_mutex_lock(&lock);
        struct str_buffer *unused = h;
        if (!spare || spare->map_size < h->map_size) {
                unused = spare;
                spare = h;
        }
        spare_used = true;
        if (spare->map_size > SPARE_RESIDENT && !spare_trim_timer)
                spare_trim_timer = g_timeout_add(SPARE_IDLE_MS, on_spare_trim_tick, NULL);
        pthread_mutex_unlock(&lock);
        buffer_unmap(unused);
}

bool velna_str_buffer_outstanding(const char *str)
{
        if (!__atomic_load_n(&outstanding_count, __ATOMIC_ACQUIRE))
                return false;
        pthread_mutex_lock(&lock);
        bool found = outstanding && g_hash_table_contains(outstanding, str);
        pthread_mutex_unlock(&lock);
        return found;
}

size_t velna_str_buffer_adopt(char *text)
{
        struct str_buffer *h = header_of(text);
        list(h, false);
        return h->length;
}

int bundle_str_buffer_append(char **buffer, const void *bytes, size_t size)
{
        if (!buffer || (!bytes && size > 0))
                return -EINVAL;

        struct str_buffer *h = *buffer ? header_of(*buffer) : NULL;
        size_t used = h ? h->size : 0;
        if (size > SIZE_MAX - HEADER_SIZE - 1 - used)
                return -ENOMEM;
        if (!h) {
                h = buffer_new(size);
                if (!h)
                        return -ENOMEM;
                list(h, true);
        }

        struct str_buffer *grown = buffer_grow(h, used + size);
        if (!grown) {
                if (!*buffer)
                        bundle_str_buffer_free(text_of(h));
                return -ENOMEM;
        }
        if (grown != h) {
                pthread_mutex_lock(&lock);
                g_hash_table_remove(outstanding, text_of(h));
                list_locked(grown, true);
                pthread_mutex_unlock(&lock);
                h = grown;
        }

        char *end = text_of(h) + used;
        if (size > 0)
                memcpy(end, bytes, size);
        end[size] = '\0';
        if (!h->ended) {
                const char *zero = memchr(end, '\0', size);
                h->ended = zero != NULL;
                h->length = zero ? (size_t)(zero - text_of(h)) : used + size;
        }
        h->size = used + size;
        *buffer = text_of(h);
        return 0;
}

size_t bundle_str_buffer_size(const char *buffer)
{
        return buffer ? header_of(buffer)->size : 0;
}

void bundle_str_buffer_free(char *buffer)
{
        if (!buffer)
                return;
        list(header_of(buffer), false);
        velna_str_buffer_release(buffer);
}
