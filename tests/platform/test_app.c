/* A small app for the platform tests. It reports what it was started with on standard
 * output (one line), then, by its first argument:
 *   (none)        runs the main loop until SIGTERM
 *   ignore-term   the same, but ignores SIGTERM
 *   exit          exits at once */
#include <velna_main_loop.h>

#include <glib-unix.h>
#include <glib.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static gboolean on_term(gpointer data)
{
        (void)data;
        velna_main_loop_quit();
        return G_SOURCE_REMOVE;
}

static const char *env_or_none(const char *name)
{
        const char *value = getenv(name);
        return value ? value : "(none)";
}

int main(int argc, char **argv)
{
        const char *mode = argc > 1 ? argv[1] : "";

        char stdin_target[256] = "";
        ssize_t n = readlink("/proc/self/fd/0", stdin_target, sizeof(stdin_target) - 1);
        if (n > 0)
                stdin_target[n] = '\0';
        printf("test-app pid=%d app=%s operation=%s marker=%s stdin=%s\n", (int)getpid(),
               env_or_none("VELNA_APP_ID"), env_or_none("VELNA_APP_CONTROL_OPERATION"),
               env_or_none("VELNA_TEST_MARKER"), stdin_target);
        fflush(stdout);

        if (strcmp(mode, "exit") == 0)
                return 0;
        /* ecore installs signal handlers of its own when it starts: set ours after. */
        if (velna_main_loop_init() < 0)
                return 1;
        if (strcmp(mode, "ignore-term") == 0)
                signal(SIGTERM, SIG_IGN);
        else
                g_unix_signal_add(SIGTERM, on_term, NULL);

        return velna_main_loop_run() == 0 ? 0 : 1;
}
