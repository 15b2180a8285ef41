/* Environment variables read on hot paths without a getenv(3) scan per call.
 *
 * A watch remembers where in the environment it found its variable (the environment
 * array, the slot and the "NAME=value" string there) and answers from that memory
 * while all three are unchanged. setenv, unsetenv, putenv of a new string and clearenv
 * all change one of them, so a changed variable is seen on the next call; a putenv'd
 * string edited in place is not. Like getenv, not safe against a concurrent setenv. */
#ifndef VELNA_ENV_INTERNAL_H
#define VELNA_ENV_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>

typedef struct {
        const char *name;
        char **env;        /* environ when the variable was last looked up */
        size_t slot;       /* its index there; when absent, the number of entries */
        const char *entry; /* environ[slot] ("NAME=value"), or NULL when absent */
        const char *last;  /* when absent: the last entry then (NULL for none) */
        unsigned generation; /* bumped at every lookup that saw a change; 0: never looked */
} velna_env_watch;

#define VELNA_ENV_WATCH(var) { .name = (var) }

/* The variable's value (borrowed from the environment), or NULL when unset. */
const char *velna_env_get(velna_env_watch *watch);

/* Looks the variable up again; returns the new generation. */
unsigned velna_env_refresh(velna_env_watch *watch);

extern char **environ;

static inline bool velna_env_watch_is_current(const velna_env_watch *w)
{
        char **env = environ;
        if (w->generation == 0 || env != w->env)
                return false;
        if (!env)
                return true;
        if (w->entry)
                return env[w->slot] == w->entry;
        /* Absent: nothing may have been added where the array ended. */
        return env[w->slot] == NULL && (w->slot == 0 || env[w->slot - 1] == w->last);
}

/* The generation of the value that velna_env_get returns now: callers that keep
 * something derived from the value compare it with the one they derived it from.
 * A few loads and compares while nothing changed. */
static inline unsigned velna_env_generation(velna_env_watch *watch)
{
        return velna_env_watch_is_current(watch) ? watch->generation : velna_env_refresh(watch);
}

#endif
