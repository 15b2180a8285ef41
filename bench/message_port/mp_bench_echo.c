/* The far end of the message port benchmark: registers "BENCH_PORT" and answers every
 * message to the sender's "BENCH_CLIENT" port: with the message itself when it holds
 * "mode" = "echo", else with a small acknowledgement. */
#include <bundle.h>
#include <message_port.h>
#include <velna_main_loop.h>

#include <stdio.h>
#include <string.h>

static void on_message(int local_port_id, const char *remote_app_id, const char *remote_port,
                       bool trusted, bundle *message, void *user_data)
{
        (void)local_port_id;
        (void)remote_port;
        (void)trusted;
        (void)user_data;
        if (!remote_app_id)
                return;

        char *mode = NULL;
        if (bundle_get_str(message, "mode", &mode) == 0 && strcmp(mode, "echo") == 0) {
                message_port_send_message(remote_app_id, "BENCH_CLIENT", message);
                return;
        }
        bundle *ack = bundle_create();
        bundle_add_str(ack, "mode", "ack");
        message_port_send_message(remote_app_id, "BENCH_CLIENT", ack);
        bundle_free(ack);
}

int main(void)
{
        int id = message_port_register_local_port("BENCH_PORT", on_message, NULL);
        if (id <= 0) {
                fprintf(stderr, "mp-bench-echo: cannot register BENCH_PORT: %d\n", id);
                return 1;
        }
        return velna_main_loop_run() < 0 ? 1 : 0;
}
