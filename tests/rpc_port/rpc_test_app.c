/* An app that serves rpc-port "echo" for the rpc-port tests and benchmark.
 *
 * RPC_TEST_APP_MODE:
 *   "serve" (default)  create the stub, listen, run the loop;
 *   "exit"             exit at once, before listening;
 *   "idle"             run the loop without ever listening.
 *
 * Every parcel on the main channel starts with an int32 command:
 *   ECHO (1), string, bundle  ->  main: int32 RESULT (0), the string, the bundle
 *   CALLBACK (2), bundle      ->  callback: int32 INVOKE (1), the bundle
 *   SILENT (3)                ->  nothing
 *   CRASH (4)                 ->  the process kills itself with SIGKILL
 *   CLOSE (5)                 ->  the received handler returns non-zero
 *   WHO (6)                   ->  main: int32 RESULT, the sender, the instance
 * Anything else is answered with RESULT and -1. */
#include <bundle.h>
#include <dlog.h>
#include <rpc-port.h>
#include <velna_main_loop.h>

#include <signal.h>
#include <stdlib.h>
#include <string.h>

#define LOG_TAG "RPC_TEST_APP"

enum { CMD_RESULT = 0, CMD_INVOKE = 1 };
enum { CMD_ECHO = 1, CMD_CALLBACK = 2, CMD_SILENT = 3, CMD_CRASH = 4, CMD_CLOSE = 5, CMD_WHO = 6 };

static rpc_port_stub_h stub;

static void reply(rpc_port_h port, int ret, const char *text, bundle *b)
{
        rpc_port_parcel_h out = NULL;
        if (rpc_port_parcel_create(&out) != 0)
                return;
        rpc_port_parcel_write_int32(out, ret);
        if (text)
                rpc_port_parcel_write_string(out, text);
        if (b)
                rpc_port_parcel_write_bundle(out, b);
        rpc_port_parcel_send(out, port);
        rpc_port_parcel_destroy(out);
}

static int on_received(const char *sender, const char *instance, rpc_port_h port, void *data)
{
        (void)data;
        rpc_port_parcel_h in = NULL;
        if (rpc_port_parcel_create_from_port(&in, port) != 0)
                return -1;

        int cmd = -1;
        rpc_port_parcel_read_int32(in, &cmd);
        char *text = NULL;
        bundle *b = NULL;
        rpc_port_h cb_port = NULL;
        int result = 0;
        switch (cmd) {
        case CMD_ECHO:
                rpc_port_parcel_read_string(in, &text);
                rpc_port_parcel_read_bundle(in, &b);
                reply(port, CMD_RESULT, text ? text : "", b);
                break;
        case CMD_CALLBACK:
                rpc_port_parcel_read_bundle(in, &b);
                if (b && rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance,
                                                &cb_port) == 0)
                        reply(cb_port, CMD_INVOKE, NULL, b);
                break;
        case CMD_SILENT:
                break;
        case CMD_CRASH:
                raise(SIGKILL);
                break;
        case CMD_CLOSE:
                result = 1;
                break;
        case CMD_WHO: {
                rpc_port_parcel_h out = NULL;
                if (rpc_port_parcel_create(&out) == 0) {
                        rpc_port_parcel_write_int32(out, CMD_RESULT);
                        rpc_port_parcel_write_string(out, sender);
                        rpc_port_parcel_write_string(out, instance);
                        rpc_port_parcel_send(out, port);
                        rpc_port_parcel_destroy(out);
                }
                break;
        }
        default:
                reply(port, -1, NULL, NULL);
                break;
        }
        free(text);
        if (b)
                bundle_free(b);
        rpc_port_parcel_destroy(in);
        return result;
}

static void on_connected(const char *sender, const char *instance, void *data)
{
        (void)data;
        dlog_print(DLOG_INFO, LOG_TAG, "connected %s %s", sender, instance);
}

static void on_disconnected(const char *sender, const char *instance, void *data)
{
        (void)data;
        dlog_print(DLOG_INFO, LOG_TAG, "disconnected %s %s", sender, instance);
}

int main(void)
{
        const char *mode = getenv("RPC_TEST_APP_MODE");
        if (mode && strcmp(mode, "exit") == 0)
                return 0;
        if (mode && strcmp(mode, "idle") == 0)
                return velna_main_loop_run();

        int r = rpc_port_stub_create(&stub, "echo");
        if (r != 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "rpc_port_stub_create: %d", r);
                return 1;
        }
        rpc_port_stub_add_connected_event_cb(stub, on_connected, NULL);
        rpc_port_stub_add_disconnected_event_cb(stub, on_disconnected, NULL);
        rpc_port_stub_add_received_event_cb(stub, on_received, NULL);
        r = rpc_port_stub_listen(stub);
        if (r != 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "rpc_port_stub_listen: %d", r);
                return 1;
        }
        velna_main_loop_run();
        rpc_port_stub_destroy(stub);
        return 0;
}
