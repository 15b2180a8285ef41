/* Shared internals: one readiness source for many descriptors, attached to the GLib
 * default main context. While few watches are registered their descriptors are polled
 * with the context's own; past that an epoll descriptor stands in for them all, so that a
 * loop turn dispatches only the watches that are ready, however many are registered.
 * Interest is level-triggered and changes only through velna_watch_set, which touches the
 * poll set or calls epoll_ctl only when the interest really changes.
 *
 * Use from the thread that runs the default context. A process that forks keeps using
 * watches only in the parent (the epoll instance is shared with a child until it execs). */
#ifndef VELNA_CHANNEL_READINESS_INTERNAL_H
#define VELNA_CHANNEL_READINESS_INTERNAL_H

#include <glib.h>
#include <stdint.h>
#include <sys/epoll.h>

typedef struct velna_watch velna_watch;

/* Called from the loop's dispatch with the epoll events of w's descriptor (EPOLLIN,
 * EPOLLOUT, EPOLLHUP, EPOLLERR). The owner may change or stop any watch from inside,
 * this one included, and free its owner once it is stopped: events already fetched for
 * a stopped watch are never delivered. */
typedef void (*velna_watch_fn)(velna_watch *w, uint32_t events, void *data);

/* Embedded in its owner, who keeps it at a fixed address while it is registered. */
struct velna_watch {
        int fd;          /* borrowed: its owner closes it, after velna_watch_set(w, 0) */
        uint32_t events; /* interest registered (epoll's bits); 0 when not registered */
        velna_watch_fn fn;
        void *data;      /* borrowed, handed to fn */
        /* The source's own, while registered: */
        GList link; /* in the list of registered watches; its data is the watch */
        void *tag;  /* the descriptor's entry in the poll set, when polled directly */
};

void velna_watch_init(velna_watch *w, int fd, velna_watch_fn fn, void *data);
/* Sets the interest (a mask of EPOLLIN and EPOLLOUT; 0 stops watching; EPOLLHUP and
 * EPOLLERR are always reported while registered). Does nothing when it is already that.
 * 0, or a negative errno when epoll refuses (the watch is then not registered). */
int velna_watch_set(velna_watch *w, uint32_t events);

#endif
