// The rpc-port app of the library benchmark. It serves interface "message", answering
// every Send with "result" = the request's "payload" through the connection's response
// delegate, and port "bench", which echoes each parcel (int32, bundle) on the callback
// channel so that the benchmark can measure the transport alone.
#include <bundle.h>
#include <rpc-port.h>
#include <velna_main_loop.h>

#include <cstdlib>
#include <string>

#include "MessageStub.h"

namespace {

rpc_port_stub_h echoStub;

int OnEchoParcel(const char *, const char *instance, rpc_port_h port, void *) {
  rpc_port_parcel_h in = nullptr;
  if (rpc_port_parcel_create_from_port(&in, port) != 0) return -1;
  int cmd = 0;
  bundle *b = nullptr;
  rpc_port_parcel_read_int32(in, &cmd);
  rpc_port_parcel_read_bundle(in, &b);
  rpc_port_parcel_destroy(in);

  rpc_port_h callback = nullptr;
  rpc_port_parcel_h out = nullptr;
  if (b && rpc_port_stub_get_port(echoStub, RPC_PORT_PORT_CALLBACK, instance, &callback) == 0 &&
      rpc_port_parcel_create(&out) == 0) {
    rpc_port_parcel_write_int32(out, 1);
    rpc_port_parcel_write_bundle(out, b);
    rpc_port_parcel_send(out, callback);
    rpc_port_parcel_destroy(out);
  }
  if (b) bundle_free(b);
  return 0;
}

}  // namespace

int main() {
  const char *self = getenv("VELNA_APP_ID");
  std::string appId = self ? self : "";
  companion::MessageStub stub;
  stub.setSendHandler([&](const std::string &, const std::string &instance, bundle *request) {
    char *payload = nullptr;
    bundle_get_str(request, "payload", &payload);
    bundle *answer = bundle_create();
    bundle_add_str(answer, "result", payload ? payload : "");
    bundle_add_str(answer, "status_code", "0");
    stub.respond(instance, appId, answer);
    bundle_free(answer);
  });
  if (rpc_port_stub_create(&echoStub, "bench") != 0) return 1;
  rpc_port_stub_add_received_event_cb(echoStub, OnEchoParcel, nullptr);
  if (stub.listen() != 0 || rpc_port_stub_listen(echoStub) != 0) return 1;
  int r = velna_main_loop_run();
  rpc_port_stub_destroy(echoStub);
  return r < 0 ? 1 : 0;
}
