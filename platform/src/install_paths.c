/* Install paths relative to the library's own location. The build fixes only the layout
 * of the tree (how the apps directory lies relative to the library directory), never its
 * root, so moving the whole tree moves every default path with it. */
#include "install_paths_internal.h"

#include <dlfcn.h>
#include <glib.h>
#include <stdlib.h>

static char *apps_dir_beside_library(void)
{
        Dl_info info;
        if (!dladdr((void *)velna_default_apps_dir, &info) || !info.dli_fname || !*info.dli_fname)
                return NULL;

        /* Resolve links first: a library found through /lib on a merged-/usr system lives
         * in /usr/lib, and its prefix is /usr. */
        char *real = realpath(info.dli_fname, NULL);
        if (!real)
                return NULL;

        char *dir = g_path_get_dirname(real);
        char *joined = g_build_filename(dir, VELNA_LIBDIR_TO_APPS_DIR, NULL);
        char *apps = g_canonicalize_filename(joined, NULL);
        g_free(joined);
        g_free(dir);
        free(real);
        return apps;
}

const char *velna_default_apps_dir(void)
{
        static char *apps;

        if (g_once_init_enter(&apps)) {
                char *found = apps_dir_beside_library();
                g_once_init_leave(&apps, found ? found : g_strdup(VELNA_DEFAULT_APPS_DIR));
        }
        return apps;
}
