/* One loop for GLib sources (default context) and ecore timers: ecore's main loop runs,
 * and its select step is replaced by one that also prepares, polls, checks and
 * dispatches the GLib default context. GLib's descriptors go to g_poll in a pollfd
 * array together with the descriptors ecore names in its fd_sets; no GLib descriptor is
 * ever put into an fd_set, whose limit (FD_SETSIZE) a client with many connections
 * passes. */
#include "main_loop_internal.h"

#include "runtime_internal.h"

#include <Ecore.h>
#include <dlog.h>
#include <velna_main_loop.h>

#include <errno.h>
#include <glib.h>
#include <stdlib.h>
#include <sys/select.h>

#define LOG_TAG "VELNA"
#define FLUSH_BUDGET_MS 2000
#define MAX_FLUSH_HOOKS 16

static bool loop_initialised;
static bool loop_running;
static velna_flush_hook flush_hooks[MAX_FLUSH_HOOKS];
static int flush_hook_count;

/* The pollfd array of the select function, kept between turns: GLib's descriptors first,
 * then ecore's. */
static GPollFD *poll_fds;
static int poll_capacity;

static bool poll_fds_reserve(int count)
{
        if (count <= poll_capacity)
                return true;
        int capacity = poll_capacity ? poll_capacity : 64;
        while (capacity < count)
                capacity *= 2;
        GPollFD *grown = realloc(poll_fds, (size_t)capacity * sizeof(*grown));
        if (!grown)
                return false;
        poll_fds = grown;
        poll_capacity = capacity;
        return true;
}

/* Runs g_main_context_query until the array holds every GLib descriptor. */
static int glib_query(GMainContext *ctx, int max_priority, int *timeout)
{
        int n;
        while ((n = g_main_context_query(ctx, max_priority, timeout, poll_fds, poll_capacity)) >
               poll_capacity) {
                if (!poll_fds_reserve(n))
                        return -1;
        }
        return n;
}

/* Appends the descriptors of ecore's sets after the first base entries. */
static int ecore_fds_append(int base, int nfds, fd_set *rd, fd_set *wr, fd_set *ex)
{
        int n = base;
        for (int fd = 0; fd < nfds; fd++) {
                gushort events = 0;
                if (rd && FD_ISSET(fd, rd))
                        events |= G_IO_IN | G_IO_HUP | G_IO_ERR;
                if (wr && FD_ISSET(fd, wr))
                        events |= G_IO_OUT | G_IO_ERR;
                if (ex && FD_ISSET(fd, ex))
                        events |= G_IO_PRI;
                if (!events)
                        continue;
                if (!poll_fds_reserve(n + 1))
                        return -1;
                poll_fds[n++] = (GPollFD){ .fd = fd, .events = events, .revents = 0 };
        }
        return n;
}

/* Writes poll results back into ecore's sets; returns the number of bits set. */
static int ecore_fds_store(int base, int end, fd_set *rd, fd_set *wr, fd_set *ex)
{
        if (rd)
                FD_ZERO(rd);
        if (wr)
                FD_ZERO(wr);
        if (ex)
                FD_ZERO(ex);

        int ready = 0;
        for (int i = base; i < end; i++) {
                const GPollFD *p = &poll_fds[i];
                if (rd && (p->events & G_IO_IN) && (p->revents & (G_IO_IN | G_IO_HUP | G_IO_ERR))) {
                        FD_SET(p->fd, rd);
                        ready++;
                }
                if (wr && (p->events & G_IO_OUT) && (p->revents & (G_IO_OUT | G_IO_ERR))) {
                        FD_SET(p->fd, wr);
                        ready++;
                }
                if (ex && (p->events & G_IO_PRI) && (p->revents & G_IO_PRI)) {
                        FD_SET(p->fd, ex);
                        ready++;
                }
        }
        return ready;
}

static int timeout_ms(const struct timeval *tv, int glib_timeout)
{
        int ecore_timeout = -1;
        if (tv) {
                long long ms = (long long)tv->tv_sec * 1000 + (tv->tv_usec + 999) / 1000;
                ecore_timeout = ms > G_MAXINT ? G_MAXINT : (int)ms;
        }
        if (ecore_timeout < 0)
                return glib_timeout;
        if (glib_timeout < 0)
                return ecore_timeout;
        return ecore_timeout < glib_timeout ? ecore_timeout : glib_timeout;
}

static int select_with_glib(int nfds, fd_set *rd, fd_set *wr, fd_set *ex, struct timeval *tv)
{
        GMainContext *ctx = g_main_context_default();
        if (!g_main_context_acquire(ctx))
                return select(nfds, rd, wr, ex, tv); /* another thread runs GLib */

        int max_priority = G_PRIORITY_DEFAULT;
        int glib_timeout = -1;
        g_main_context_prepare(ctx, &max_priority);
        int n_glib = poll_fds_reserve(64) ? glib_query(ctx, max_priority, &glib_timeout) : -1;
        int n_all = n_glib < 0 ? -1 : ecore_fds_append(n_glib, nfds, rd, wr, ex);
        if (n_all < 0) {
                g_main_context_release(ctx);
                errno = ENOMEM;
                return -1;
        }

        int polled = g_poll(poll_fds, (guint)n_all, timeout_ms(tv, glib_timeout));
        int saved_errno = errno;
        int ready = 0;
        if (polled < 0) {
                for (int i = 0; i < n_all; i++)
                        poll_fds[i].revents = 0;
        } else {
                ready = ecore_fds_store(n_glib, n_all, rd, wr, ex);
        }

        if (g_main_context_check(ctx, max_priority, poll_fds, n_glib))
                g_main_context_dispatch(ctx);
        g_main_context_release(ctx);

        if (polled < 0 && saved_errno == EINTR) {
                errno = EINTR;
                return -1;
        }
        return ready;
}

void velna_main_loop_add_flush_hook(velna_flush_hook hook)
{
        if (!hook)
                return;
        for (int i = 0; i < flush_hook_count; i++)
                if (flush_hooks[i] == hook)
                        return;
        if (flush_hook_count < MAX_FLUSH_HOOKS)
                flush_hooks[flush_hook_count++] = hook;
        else
                dlog_print(DLOG_ERROR, LOG_TAG, "too many main loop flush hooks");
}

int velna_main_loop_init(void)
{
        if (loop_initialised)
                return 0;

        ecore_app_no_system_modules();
        if (ecore_init() <= 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "ecore cannot be initialised");
                return -EIO;
        }
        ecore_main_loop_select_func_set(select_with_glib);
        loop_initialised = true;
        return 0;
}

int velna_main_loop_run(void)
{
        if (loop_running)
                return -EBUSY;
        int r = velna_main_loop_init();
        if (r < 0)
                return r;

        r = velna_self_register();
        if (r < 0 && r != -EINVAL)
                dlog_print(DLOG_WARN, LOG_TAG, "running without an app id registration (%d)", r);

        loop_running = true;
        ecore_main_loop_begin();
        loop_running = false;
        return 0;
}

void velna_main_loop_quit(void)
{
        gint64 deadline = g_get_monotonic_time() + FLUSH_BUDGET_MS * 1000;
        for (int i = 0; i < flush_hook_count; i++) {
                gint64 left = (deadline - g_get_monotonic_time()) / 1000;
                flush_hooks[i](left > 0 ? (int)left : 0);
        }
        if (loop_initialised)
                ecore_main_loop_quit();
}

struct run_until {
        bool (*done)(void *data);
        void *data;
        gint64 deadline;
        bool satisfied;
        bool finished;
};

static gboolean run_until_check(gpointer data)
{
        struct run_until *wait = data;

        if (wait->done(wait->data))
                wait->satisfied = true;
        else if (g_get_monotonic_time() < wait->deadline)
                return G_SOURCE_CONTINUE;
        wait->finished = true;
        velna_main_loop_quit();
        return G_SOURCE_REMOVE;
}

int velna_main_loop_run_until(bool (*done)(void *data), void *data, int timeout_ms)
{
        if (!done || timeout_ms < 0)
                return -EINVAL;
        if (done(data))
                return 1;

        struct run_until wait = {
                .done = done,
                .data = data,
                .deadline = g_get_monotonic_time() + (gint64)timeout_ms * 1000,
        };
        guint source = g_timeout_add(5, run_until_check, &wait);
        int r = velna_main_loop_run();
        if (!wait.finished)
                g_source_remove(source);  /* the loop ended for another reason */
        if (r < 0)
                return r;
        return wait.satisfied || done(data) ? 1 : 0;
}
