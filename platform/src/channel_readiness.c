/* The shared readiness source: one epoll descriptor, attached to the GLib default main
 * context as the only descriptor of one GSource. Both are made when the first watch is
 * registered and released when the last one leaves, so that a process without channels
 * holds no descriptor for them.
 *
 * The source may recurse. GLib blocks a source that may not recurse while it dispatches,
 * which takes its descriptor out of the poll set and puts it back afterwards, and each
 * of those changes writes the context's wake-up descriptor and costs another poll: two
 * system calls and a loop turn per message otherwise. Recursion is harmless here: a
 * nested dispatch (a handler that iterates the loop) fetches its own batch, and a watch
 * stopped in either is struck from both. */
#include "channel_readiness_internal.h"

#include <errno.h>
#include <glib.h>
#include <stddef.h>
#include <unistd.h>

#include "dlog.h"

#define LOG_TAG "VELNA"
/* Most events fetched per dispatch; more ready watches wait for the next loop turn,
 * where epoll hands out the ones not served first. */
#define BATCH_MAX 64

/* The events of one dispatch; nested dispatches form a stack through outer. */
typedef struct batch {
        struct epoll_event ev[BATCH_MAX];
        int n;
        struct batch *outer;
} batch;

static int epoll_fd = -1;
static GSource *readiness_source; /* owned by the default context while attached */
static size_t registered;         /* watches in the epoll set */
static batch *dispatching;

static gboolean readiness_dispatch(GSource *source, GSourceFunc callback, gpointer user_data)
{
        (void)source;
        (void)callback;
        (void)user_data;

        batch b = { .outer = dispatching };
        do {
                b.n = epoll_wait(epoll_fd, b.ev, BATCH_MAX, 0);
        } while (b.n < 0 && errno == EINTR);
        if (b.n <= 0)
                return G_SOURCE_CONTINUE;

        dispatching = &b;
        for (int i = 0; i < b.n; i++) {
                velna_watch *w = b.ev[i].data.ptr;
                if (!w)
                        continue; /* stopped by an earlier handler of this batch */
                b.ev[i].data.ptr = NULL;
                w->fn(w, b.ev[i].events, w->data);
        }
        dispatching = b.outer;
        return G_SOURCE_CONTINUE;
}

/* prepare and check stay NULL: GLib dispatches a source whose descriptor polled ready. */
static GSourceFuncs readiness_funcs = { .dispatch = readiness_dispatch };

/* Makes the epoll descriptor and its source on first use. 0, or a negative errno. */
static int readiness_start(void)
{
        if (epoll_fd >= 0)
                return 0;
        int fd = epoll_create1(EPOLL_CLOEXEC);
        if (fd < 0) {
                int e = errno;
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot make the channels' epoll descriptor (%d)",
                           -e);
                return -e;
        }
        GSource *source = g_source_new(&readiness_funcs, sizeof(GSource));
        g_source_set_name(source, "velna channels");
        g_source_set_can_recurse(source, TRUE);
        g_source_add_unix_fd(source, fd, G_IO_IN);
        g_source_attach(source, NULL); /* the context holds it from here on */
        g_source_unref(source);
        readiness_source = source;
        epoll_fd = fd;
        return 0;
}

/* Releases the source and the descriptor once no watch is left. Safe from inside the
 * source's own dispatch: GLib holds the source until that returns, and the events still
 * to be delivered there all belonged to watches that have been struck off. */
static void readiness_stop(void)
{
        if (registered > 0 || epoll_fd < 0)
                return;
        g_source_destroy(readiness_source);
        readiness_source = NULL;
        close(epoll_fd);
        epoll_fd = -1;
}

/* Events already fetched for w: dropped when w stops, else narrowed to what it wants. */
static void batches_amend(const velna_watch *w, uint32_t events)
{
        for (batch *b = dispatching; b; b = b->outer) {
                for (int i = 0; i < b->n; i++) {
                        if (b->ev[i].data.ptr != w)
                                continue;
                        if (events == 0)
                                b->ev[i].data.ptr = NULL;
                        else
                                b->ev[i].events &= events | EPOLLHUP | EPOLLERR;
                }
        }
}

void velna_watch_init(velna_watch *w, int fd, velna_watch_fn fn, void *data)
{
        *w = (velna_watch){ .fd = fd, .fn = fn, .data = data };
}

int velna_watch_set(velna_watch *w, uint32_t events)
{
        if (events == w->events)
                return 0;

        int r = readiness_start();
        if (r < 0)
                return r;

        struct epoll_event ev = { .events = events, .data.ptr = w };
        int op = events == 0 ? EPOLL_CTL_DEL : w->events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        r = epoll_ctl(epoll_fd, op, w->fd, &ev) < 0 ? -errno : 0;
        if (r < 0 && op != EPOLL_CTL_DEL) {
                if (w->events)
                        epoll_ctl(epoll_fd, EPOLL_CTL_DEL, w->fd, NULL);
                events = 0;
        }
        if (w->events == 0 && events != 0)
                registered++;
        else if (w->events != 0 && events == 0)
                registered--;
        w->events = events;
        batches_amend(w, events);
        readiness_stop();
        return op == EPOLL_CTL_DEL ? 0 : r;
}
