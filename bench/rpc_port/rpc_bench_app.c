/* The app side of the rpc-port benchmark: serves port "bench" and answers every parcel
 * on the main channel (int32 command, bundle) with the same bundle on the callback
 * channel (int32 1, bundle). */
#include <bundle.h>
#include <dlog.h>
#include <rpc-port.h>
#include <velna_main_loop.h>

#include <stdlib.h>

static rpc_port_stub_h stub;

static int on_received(const char *sender, const char *instance, rpc_port_h port, void *data)
{
        (void)sender;
        (void)data;
        rpc_port_parcel_h in = NULL;
        if (rpc_port_parcel_create_from_port(&in, port) != 0)
                return -1;
        int cmd = 0;
        bundle *b = NULL;
        rpc_port_parcel_read_int32(in, &cmd);
        rpc_port_parcel_read_bundle(in, &b);
        rpc_port_parcel_destroy(in);

        rpc_port_h cb = NULL;
        rpc_port_parcel_h out = NULL;
        if (b && rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance, &cb) == 0 &&
            rpc_port_parcel_create(&out) == 0) {
                rpc_port_parcel_write_int32(out, 1);
                rpc_port_parcel_write_bundle(out, b);
                rpc_port_parcel_send(out, cb);
                rpc_port_parcel_destroy(out);
        }
        if (b)
                bundle_free(b);
        return 0;
}

int main(void)
{
        if (rpc_port_stub_create(&stub, "bench") != 0)
                return 1;
        rpc_port_stub_add_received_event_cb(stub, on_received, NULL);
        if (rpc_port_stub_listen(stub) != 0)
                return 1;
        velna_main_loop_run();
        rpc_port_stub_destroy(stub);
        return 0;
}
