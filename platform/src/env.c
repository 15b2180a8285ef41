/* Environment variables read on hot paths: see env_internal.h. */
#include "env_internal.h"

#include <string.h>

unsigned velna_env_refresh(velna_env_watch *w)
{
        char **env = environ;
        size_t len = strlen(w->name), i = 0;
        w->env = env;
        w->entry = NULL;
        w->last = NULL;
        for (; env && env[i]; i++) {
                if (strncmp(env[i], w->name, len) == 0 && env[i][len] == '=') {
                        w->entry = env[i];
                        break;
                }
        }
        w->slot = i;
        if (!w->entry && i > 0)
                w->last = env[i - 1];
        w->generation++;
        if (w->generation == 0)
                w->generation = 1;
        return w->generation;
}

const char *velna_env_get(velna_env_watch *watch)
{
        velna_env_generation(watch);
        return watch->entry ? watch->entry + strlen(watch->name) + 1 : NULL;
}
