/* A small app for the message port tests, driven by its environment and by messages.
 *
 * Environment:
 *   MP_TEST_PORT        register this local port (unset or empty: register none)
 *   MP_TEST_SEND_TO     "<app id>:<port>": on start, send MP_TEST_SEND_COUNT messages
 *                       (default 1) of MP_TEST_SEND_SIZE bytes (default 16) there
 *   MP_TEST_QUIT_AFTER_SEND  "1": quit (flushing) right after those sends
 *
 * Messages to the port carry "cmd":
 *   "echo"  reply with a copy of the message plus "sender" (the sender's app id as the
 *           platform reported it, or "(none)") to the sender's app at "reply_port"
 *   "send"  send "count" messages of "size" bytes, each with "seq" and "data", to the
 *           sender's app at "reply_port"
 *   "sink"  reply "cmd"="sunk" with the size of the "data" received
 *   "quit"  quit the loop
 * A failed send is reported on stderr and to the sender as "cmd"="send_failed". */
#include <bundle.h>
#include <message_port.h>
#include <velna_main_loop.h>

#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void fill_pattern(unsigned char *data, size_t size, unsigned seed)
{
        for (size_t i = 0; i < size; i++)
                data[i] = (unsigned char)(i * 31u + seed);
}

static int send_numbered(const char *app_id, const char *port, long count, size_t size)
{
        unsigned char *data = malloc(size ? size : 1);
        if (!data)
                return -12;
        int r = 0;
        for (long i = 0; i < count && r == 0; i++) {
                char seq[32];
                snprintf(seq, sizeof seq, "%ld", i);
                fill_pattern(data, size, (unsigned)i);
                bundle *b = bundle_create();
                bundle_add_str(b, "cmd", "numbered");
                bundle_add_str(b, "seq", seq);
                bundle_add_byte(b, "data", data, size);
                r = message_port_send_message(app_id, port, b);
                bundle_free(b);
        }
        free(data);
        if (r < 0)
                fprintf(stderr, "mp-test-app: send to %s:%s failed: %d\n", app_id, port, r);
        return r;
}

static long str_long(bundle *b, const char *key, long fallback)
{
        char *v = NULL;
        return bundle_get_str(b, key, &v) == 0 ? strtol(v, NULL, 10) : fallback;
}

static void reply_failure(const char *app_id, const char *port, int result)
{
        char text[32];
        snprintf(text, sizeof text, "%d", result);
        bundle *b = bundle_create();
        bundle_add_str(b, "cmd", "send_failed");
        bundle_add_str(b, "result", text);
        message_port_send_message(app_id, port, b);
        bundle_free(b);
}

static void on_message(int local_port_id, const char *remote_app_id, const char *remote_port,
                       bool trusted, bundle *message, void *user_data)
{
        (void)local_port_id;
        (void)remote_port;
        (void)trusted;
        (void)user_data;

        char *cmd = NULL;
        char *reply_port = NULL;
        if (bundle_get_str(message, "cmd", &cmd) != 0)
                return;
        if (strcmp(cmd, "quit") == 0) {
                velna_main_loop_quit();
                return;
        }
        if (!remote_app_id || bundle_get_str(message, "reply_port", &reply_port) != 0)
                return;

        int r = 0;
        if (strcmp(cmd, "echo") == 0) {
                bundle *reply = bundle_dup(message);
                bundle_add_str(reply, "sender", remote_app_id);
                r = message_port_send_message(remote_app_id, reply_port, reply);
                bundle_free(reply);
        } else if (strcmp(cmd, "send") == 0) {
                r = send_numbered(remote_app_id, reply_port, str_long(message, "count", 1),
                                  (size_t)str_long(message, "size", 16));
        } else if (strcmp(cmd, "sink") == 0) {
                void *data = NULL;
                size_t size = 0;
                bundle_get_byte(message, "data", &data, &size);
                char text[32];
                snprintf(text, sizeof text, "%zu", size);
                bundle *reply = bundle_create();
                bundle_add_str(reply, "cmd", "sunk");
                bundle_add_str(reply, "size", text);
                r = message_port_send_message(remote_app_id, reply_port, reply);
                bundle_free(reply);
        }
        if (r < 0)
                reply_failure(remote_app_id, reply_port, r);
}

static gboolean quit_now(gpointer data)
{
        (void)data;
        velna_main_loop_quit();
        return G_SOURCE_REMOVE;
}

int main(void)
{
        const char *port = getenv("MP_TEST_PORT");
        if (port && *port) {
                int id = message_port_register_local_port(port, on_message, NULL);
                if (id <= 0) {
                        fprintf(stderr, "mp-test-app: cannot register port %s: %d\n", port, id);
                        return 1;
                }
        }

        const char *to = getenv("MP_TEST_SEND_TO");
        if (to && *to) {
                char *target = strdup(to);
                char *colon = strchr(target, ':');
                if (!colon) {
                        fprintf(stderr, "mp-test-app: MP_TEST_SEND_TO needs <app>:<port>\n");
                        return 1;
                }
                *colon = '\0';
                const char *count = getenv("MP_TEST_SEND_COUNT");
                const char *size = getenv("MP_TEST_SEND_SIZE");
                send_numbered(target, colon + 1, count ? strtol(count, NULL, 10) : 1,
                              size ? (size_t)strtoul(size, NULL, 10) : 16);
                free(target);
                const char *quit = getenv("MP_TEST_QUIT_AFTER_SEND");
                if (quit && strcmp(quit, "1") == 0)
                        g_idle_add(quit_now, NULL);
        }

        return velna_main_loop_run() < 0 ? 1 : 0;
}
