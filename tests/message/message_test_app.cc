// An app that serves interface "message" for the proxy's tests.
//
// MESSAGE_TEST_APP_MODE picks the server:
//   "sdk" (default)       companion::MessageStub, as a real companion app would;
//   "lax"                 a hand-written server that keeps every delegate ever registered
//                         (also after UnsetCB, also once delegates) and can break the protocol;
//   "callback-first"      lax, and answers SetCB with a Callback parcel on the main channel
//                         before the Result;
//   "exit-on-register"    lax, and exits when SetCB arrives;
//   "silent-on-register"  lax, and never answers SetCB.
// MESSAGE_TEST_APP_REGISTER_RESULT is the value that SetCB and UnsetCB answer (default 0).
//
// Each Send bundle carries "do", a comma-separated list of steps run in order:
//   answer             invoke the connection's delegates "count" times (default 1) with
//                      {"payload": the Send's "payload", "commands": the codes received
//                      on this connection so far (lax only)}
//   unknown-seq        (lax) a Callback parcel for a delegate seq nobody registered
//   unreadable-string  (lax) a Callback parcel for a registered delegate without arguments
//   wrong-command      (lax) a parcel with command 7 on the callback channel
//   stray-result       (lax) a Result parcel with ret 55 on the main channel

#include <bundle.h>
#include <rpc-port.h>
#include <stdlib.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "MessageStub.h"

namespace {

std::string Env(const char *name, const char *fallback) {
  const char *value = getenv(name);
  return value ? value : fallback;
}

std::string Get(bundle *b, const char *key, const char *fallback = "") {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? value : fallback;
}

std::vector<std::string> Steps(bundle *msg) {
  std::vector<std::string> steps;
  std::stringstream list(Get(msg, "do"));
  for (std::string step; std::getline(list, step, ',');) steps.push_back(step);
  return steps;
}

const std::string kSelf = Env("VELNA_APP_ID", "");
const std::string kMode = Env("MESSAGE_TEST_APP_MODE", "sdk");
const int kRegisterResult = atoi(Env("MESSAGE_TEST_APP_REGISTER_RESULT", "0").c_str());

int RunSdk() {
  companion::MessageStub stub;
  stub.setRegisterResult(kRegisterResult);
  stub.setSendHandler([&stub](const std::string &, const std::string &instance, bundle *msg) {
    for (const std::string &step : Steps(msg)) {
      if (step != "answer") continue;
      int count = atoi(Get(msg, "count", "1").c_str());
      for (int i = 0; i < count; ++i) {
        bundle *answer = bundle_create();
        bundle_add_str(answer, "payload", Get(msg, "payload").c_str());
        stub.respond(instance, kSelf, answer);
        bundle_free(answer);
      }
    }
  });
  if (stub.listen() != 0) return 1;
  return velna_main_loop_run();
}

// The lax server.
struct Delegate {
  int id, seq;
  bool once;
};
struct Connection {
  std::vector<Delegate> delegates;
  std::string commands;
};
rpc_port_stub_h laxStub;
std::map<std::string, Connection> connections;

void Write(rpc_port_h port, const std::vector<int> &ints, const Delegate *delegate,
           const std::string *id, bundle *msg) {
  rpc_port_parcel_h parcel;
  rpc_port_parcel_create(&parcel);
  for (int value : ints) rpc_port_parcel_write_int32(parcel, value);
  if (delegate) {
    rpc_port_parcel_write_int32(parcel, delegate->id);
    rpc_port_parcel_write_int32(parcel, delegate->seq);
    rpc_port_parcel_write_bool(parcel, delegate->once);
  }
  if (id) rpc_port_parcel_write_string(parcel, id->c_str());
  if (msg) rpc_port_parcel_write_bundle(parcel, msg);
  rpc_port_parcel_send(parcel, port);
  rpc_port_parcel_destroy(parcel);
}

void LaxSend(const std::string &instance, rpc_port_h mainPort, bundle *msg) {
  Connection &connection = connections[instance];
  rpc_port_h callbackPort = nullptr;
  rpc_port_stub_get_port(laxStub, RPC_PORT_PORT_CALLBACK, instance.c_str(), &callbackPort);
  for (const std::string &step : Steps(msg)) {
    if (step == "stray-result") Write(mainPort, {0, 55}, nullptr, nullptr, nullptr);
    if (step == "wrong-command") Write(callbackPort, {7}, nullptr, nullptr, nullptr);
    if (step == "unknown-seq") {
      Delegate nobody{1, 1000000, false};
      bundle *answer = bundle_create();
      Write(callbackPort, {1}, &nobody, &kSelf, answer);
      bundle_free(answer);
    }
    for (const Delegate &delegate : connection.delegates) {
      if (step == "unreadable-string") Write(callbackPort, {1}, &delegate, nullptr, nullptr);
      if (step != "answer") continue;
      int count = atoi(Get(msg, "count", "1").c_str());
      for (int i = 0; i < count; ++i) {
        bundle *answer = bundle_create();
        bundle_add_str(answer, "payload", Get(msg, "payload").c_str());
        bundle_add_str(answer, "commands", connection.commands.c_str());
        Write(callbackPort, {1}, &delegate, &kSelf, answer);
        bundle_free(answer);
      }
    }
  }
}

int LaxReceived(const char *, const char *instance, rpc_port_h port, void *) {
  rpc_port_parcel_h parcel;
  if (rpc_port_parcel_create_from_port(&parcel, port) != 0) return -1;
  int command = -1;
  rpc_port_parcel_read_int32(parcel, &command);
  Connection &connection = connections[instance];
  connection.commands += (connection.commands.empty() ? "" : ",") + std::to_string(command);

  if (command == 2) {
    Delegate delegate{0, 0, false};
    rpc_port_parcel_read_int32(parcel, &delegate.id);
    rpc_port_parcel_read_int32(parcel, &delegate.seq);
    rpc_port_parcel_read_bool(parcel, &delegate.once);
    connection.delegates.push_back(delegate);
    if (kMode == "exit-on-register") _exit(0);
    if (kMode == "callback-first") {
      bundle *stray = bundle_create();
      bundle_add_str(stray, "payload", "stray");
      Write(port, {1}, &delegate, &kSelf, stray);
      bundle_free(stray);
    }
    if (kMode != "silent-on-register") Write(port, {0, kRegisterResult}, nullptr, nullptr, nullptr);
  } else if (command == 3) {
    Write(port, {0, kRegisterResult}, nullptr, nullptr, nullptr);
  } else if (command == 4) {
    bundle *msg = nullptr;
    rpc_port_parcel_read_bundle(parcel, &msg);
    if (msg) LaxSend(instance, port, msg);
    bundle_free(msg);
  }
  rpc_port_parcel_destroy(parcel);
  return 0;
}

int RunLax() {
  if (rpc_port_stub_create(&laxStub, "message") != 0) return 1;
  rpc_port_stub_add_received_event_cb(laxStub, LaxReceived, nullptr);
  if (rpc_port_stub_listen(laxStub) != 0) return 1;
  return velna_main_loop_run();
}

}  // namespace

int main() { return kMode == "sdk" ? RunSdk() : RunLax(); }
