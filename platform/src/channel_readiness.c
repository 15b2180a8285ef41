/* The shared readiness source: one GSource attached to the GLib default main context,
 * made when the first watch is registered and released when the last one leaves, so that
 * a process without channels holds nothing for them.
 *
 * It serves its watches in one of two ways. While few are registered (DIRECT_MAX), their
 * descriptors sit in the context's own poll set and the dispatch reads their results from
 * it: a turn costs one poll, as a plain descriptor watch does. Past that, the source holds
 * an epoll descriptor instead, whose dispatch fetches only the ready watches, so that a
 * turn costs the ready channels, not the connected ones; an epoll_wait per turn is the
 * price, worth paying only once polling every descriptor costs more. The source goes back
 * to direct polling when the watches drop to DIRECT_MIN (the gap keeps a count that hovers
 * at the bound from moving them at every change).
 *
 * The source may recurse. GLib blocks a source that may not recurse while it dispatches,
 * which takes its descriptors out of the poll set and puts them back afterwards, and each
 * of those changes writes the context's wake-up descriptor and costs another poll: two
 * system calls and a loop turn per message otherwise. Recursion is harmless here: a
 * nested dispatch (a handler that iterates the loop) fetches its own batch, and a watch
 * stopped in either is struck from both. */
#include "channel_readiness_internal.h"

#include <errno.h>
#include <glib.h>
#include <stdbool.h>
#include <stddef.h>
#include <unistd.h>

#include "dlog.h"

/* Interest and results pass between epoll and the poll set unconverted. */
_Static_assert((int)EPOLLIN == (int)G_IO_IN && (int)EPOLLOUT == (int)G_IO_OUT &&
                       (int)EPOLLERR == (int)G_IO_ERR && (int)EPOLLHUP == (int)G_IO_HUP,
               "epoll and GLib name the same events by the same bits");

#define LOG_TAG "VELNA"
/* Most events fetched per dispatch; more ready watches wait for the next loop turn,
 * where epoll hands out the ones not served first. */
#define BATCH_MAX 64
/* Most watches polled directly, and the count at which epoll hands them back. */
#define DIRECT_MAX 8
#define DIRECT_MIN 4

/* The events of one dispatch; nested dispatches form a stack through outer. */
typedef struct batch {
        struct epoll_event ev[BATCH_MAX];
        int n;
        struct batch *outer;
} batch;

static GSource *readiness_source; /* owned by the default context while attached */
static int epoll_fd = -1;         /* >= 0 while the watches are served through epoll */
static gpointer epoll_tag;        /* epoll_fd's place in the source's poll set */
static GQueue watches = G_QUEUE_INIT; /* every registered watch, through its link */
static batch *dispatching;

/* Poll results of the directly polled watches, as epoll would report them. */
static int direct_collect(struct epoll_event *ev)
{
        int n = 0;
        for (GList *l = watches.head; l && n < BATCH_MAX; l = l->next) {
                velna_watch *w = l->data;
                GIOCondition got = g_source_query_unix_fd(readiness_source, w->tag);
                uint32_t events = got & (G_IO_IN | G_IO_OUT | G_IO_ERR | G_IO_HUP);
                if (got & G_IO_NVAL)
                        events |= EPOLLERR; /* cannot happen while owners keep the contract */
                if (events)
                        ev[n++] = (struct epoll_event){ .events = events, .data.ptr = w };
        }
        return n;
}

static int epoll_collect(struct epoll_event *ev)
{
        int n;
        do {
                n = epoll_wait(epoll_fd, ev, BATCH_MAX, 0);
        } while (n < 0 && errno == EINTR);
        return n;
}

static gboolean readiness_dispatch(GSource *source, GSourceFunc callback, gpointer user_data)
{
        (void)source;
        (void)callback;
        (void)user_data;

        batch b = { .outer = dispatching };
        b.n = epoll_fd >= 0 ? epoll_collect(b.ev) : direct_collect(b.ev);
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

/* prepare and check stay NULL: GLib dispatches a source one of whose descriptors polled
 * ready. */
static GSourceFuncs readiness_funcs = { .dispatch = readiness_dispatch };

static void readiness_start(void)
{
        if (readiness_source)
                return;
        GSource *source = g_source_new(&readiness_funcs, sizeof(GSource));
        g_source_set_name(source, "velna channels");
        g_source_set_can_recurse(source, TRUE);
        g_source_attach(source, NULL); /* the context holds it from here on */
        g_source_unref(source);
        readiness_source = source;
}

/* Releases the source (and the epoll descriptor, if any) once no watch is left. Safe from
 * inside the source's own dispatch: GLib holds the source until that returns, and the
 * events still to be delivered there all belonged to watches that have been struck off. */
static void readiness_stop(void)
{
        g_source_destroy(readiness_source);
        readiness_source = NULL;
        if (epoll_fd >= 0) {
                close(epoll_fd);
                epoll_fd = -1;
                epoll_tag = NULL;
        }
}

/* Moves every watch from the poll set into a new epoll set. Stays direct when epoll
 * refuses: every watch is still served, a turn just costs them all. */
static void switch_to_epoll(void)
{
        static bool refusal_logged;
        int fd = epoll_create1(EPOLL_CLOEXEC);
        GList *l = watches.head;
        for (; fd >= 0 && l; l = l->next) {
                velna_watch *w = l->data;
                struct epoll_event ev = { .events = w->events, .data.ptr = w };
                if (epoll_ctl(fd, EPOLL_CTL_ADD, w->fd, &ev) < 0)
                        break;
        }
        if (fd < 0 || l) {
                if (!refusal_logged)
                        dlog_print(DLOG_ERROR, LOG_TAG,
                                   "polling %zu channels directly: epoll refused (%d)",
                                   (size_t)watches.length, -errno);
                refusal_logged = true;
                if (fd >= 0)
                        close(fd);
                return;
        }
        refusal_logged = false;
        for (l = watches.head; l; l = l->next) {
                velna_watch *w = l->data;
                g_source_remove_unix_fd(readiness_source, w->tag);
                w->tag = NULL;
        }
        epoll_tag = g_source_add_unix_fd(readiness_source, fd, G_IO_IN);
        epoll_fd = fd;
}

static void switch_to_direct(void)
{
        for (GList *l = watches.head; l; l = l->next) {
                velna_watch *w = l->data;
                w->tag = g_source_add_unix_fd(readiness_source, w->fd, (GIOCondition)w->events);
        }
        g_source_remove_unix_fd(readiness_source, epoll_tag);
        epoll_tag = NULL;
        close(epoll_fd);
        epoll_fd = -1;
}

static void readiness_rebalance(void)
{
        if (watches.length == 0)
                readiness_stop();
        else if (epoll_fd < 0 && watches.length > DIRECT_MAX)
                switch_to_epoll();
        else if (epoll_fd >= 0 && watches.length <= DIRECT_MIN)
                switch_to_direct();
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

/* Direct polling cannot refuse: the descriptor's entry is GLib's to keep. */
static void direct_apply(velna_watch *w, uint32_t events)
{
        if (events == 0) {
                g_source_remove_unix_fd(readiness_source, w->tag);
                w->tag = NULL;
        } else if (w->events == 0) {
                w->tag = g_source_add_unix_fd(readiness_source, w->fd, (GIOCondition)events);
        } else {
                g_source_modify_unix_fd(readiness_source, w->tag, (GIOCondition)events);
        }
}

/* 0, or a negative errno when epoll refuses; w is then out of the epoll set. */
static int epoll_apply(velna_watch *w, uint32_t events)
{
        struct epoll_event ev = { .events = events, .data.ptr = w };
        int op = events == 0 ? EPOLL_CTL_DEL : w->events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        if (epoll_ctl(epoll_fd, op, w->fd, &ev) == 0 || op == EPOLL_CTL_DEL)
                return 0;
        int r = -errno;
        if (w->events)
                epoll_ctl(epoll_fd, EPOLL_CTL_DEL, w->fd, NULL);
        return r;
}

void velna_watch_init(velna_watch *w, int fd, velna_watch_fn fn, void *data)
{
        *w = (velna_watch){ .fd = fd, .fn = fn, .data = data, .link.data = w };
}

int velna_watch_set(velna_watch *w, uint32_t events)
{
        if (events == w->events)
                return 0;

        readiness_start();
        int r = 0;
        if (epoll_fd >= 0)
                r = epoll_apply(w, events);
        else
                direct_apply(w, events);
        if (r < 0)
                events = 0;
        if (w->events == 0 && events != 0)
                g_queue_push_head_link(&watches, &w->link);
        else if (w->events != 0 && events == 0)
                g_queue_unlink(&watches, &w->link);
        w->events = events;
        batches_amend(w, events);
        readiness_rebalance();
        return r;
}
