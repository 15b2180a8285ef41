// The app that the tests launch. It prints one line of what it was started with, then
// serves by its mode (first argument, else TEST_APP_MODE):
//   exit   exit at once, before the loop
//   echo   rpc-port "echo"; a parcel's int32 command: 1 string, bundle -> main: 0, string,
//          bundle; 2 bundle -> callback: 1, bundle; 3 nothing; 4 SIGKILL
//   lax, callback-first, exit-on-register, setcb-silent, setcb-stray
//          interface "message" by hand, keeping every delegate. SetCB and UnsetCB answer
//          MESSAGE_TEST_APP_REGISTER_RESULT (0); at SetCB "callback-first" first invokes
//          the delegate on the main channel, "exit-on-register" exits, "setcb-*" never
//          answer ("setcb-stray" sends command 7 on the main channel every 200 ms for 10 s).
//          A Send's "do" lists steps: "answer" (each delegate "count" times, "result" =
//          "sample_result", "commands" = codes received), "unknown-seq",
//          "unreadable-string", "wrong-command" (7 on the callback channel), "stray-result"
//   port-app
//          message port "TALVO_APP_SDK_PORT_516": "result" "answer:<actionId>" with status
//          "0"/"ok", in pieces of "chunk" bytes when given; "fault": "silent", "kill",
//          "chunks-then-kill" ("first-", "second-", SIGKILL), "answer-and-exit", "flood"
//          ("count" answers "flood-<i>"), "impersonate" (names "victim" in the answer)
//   other  run the loop until SIGTERM
// MP_TEST_PORT registers that message port: "cmd" "echo" answers to "reply_port" with
// "sender" added, "send" sends "count" numbered messages of "size" bytes there;
// MP_TEST_SEND_TO "<app>:<port>" sends one numbered message there at start.
#include <bundle.h>
#include <glib-unix.h>
#include <message_port.h>
#include <rpc-port.h>
#include <signal.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string Env(const char *name, const char *fallback = "") {
  const char *value = getenv(name);
  return value ? value : fallback;
}

std::string Get(bundle *b, const char *key, const char *fallback = "") {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? value : fallback;
}

long Number(bundle *b, const char *key, long fallback) {
  return strtol(Get(b, key, std::to_string(fallback).c_str()).c_str(), nullptr, 10);
}

const std::string kSelf = Env("VELNA_APP_ID");
std::string mode;

// Message port.

int SendNumbered(const std::string &app, const std::string &port, long count, size_t size) {
  std::vector<unsigned char> data(size);
  int r = 0;
  for (long i = 0; i < count && r == 0; i++) {
    for (size_t k = 0; k < size; k++) data[k] = static_cast<unsigned char>(k * 31u + i);
    bundle *b = bundle_create();
    bundle_add_str(b, "cmd", "numbered");
    bundle_add_str(b, "seq", std::to_string(i).c_str());
    bundle_add_byte(b, "data", data.data(), size);
    r = message_port_send_message(app.c_str(), port.c_str(), b);
    bundle_free(b);
  }
  if (r < 0) fprintf(stderr, "test-app: send to %s:%s failed: %d\n", app.c_str(), port.c_str(), r);
  return r;
}

void OnMessage(int, const char *sender, const char *, bool, bundle *message, void *) {
  std::string cmd = Get(message, "cmd"), replyPort = Get(message, "reply_port");
  if (!sender || replyPort.empty()) return;
  if (cmd == "send") SendNumbered(sender, replyPort, Number(message, "count", 1), Number(message, "size", 16));
  if (cmd != "echo") return;
  bundle *reply = bundle_dup(message);
  bundle_add_str(reply, "sender", sender);
  int r = message_port_send_message(sender, replyPort.c_str(), reply);
  bundle_free(reply);
  if (r < 0) fprintf(stderr, "test-app: answer to %s failed: %d\n", sender, r);
}

// rpc-port: writes ints, then a bool, strings and a bundle when given, and sends.
void Write(rpc_port_h port, const std::vector<int> &ints, const std::vector<std::string> &texts = {},
           bundle *b = nullptr, const bool *flag = nullptr) {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create(&parcel) != 0) return;
  for (int value : ints) rpc_port_parcel_write_int32(parcel, value);
  if (flag) rpc_port_parcel_write_bool(parcel, *flag);
  for (const std::string &text : texts) rpc_port_parcel_write_string(parcel, text.c_str());
  if (b) rpc_port_parcel_write_bundle(parcel, b);
  rpc_port_parcel_send(parcel, port);
  rpc_port_parcel_destroy(parcel);
}

rpc_port_stub_h stub;

int OnEcho(const char *, const char *instance, rpc_port_h port, void *) {
  rpc_port_parcel_h in = nullptr;
  if (rpc_port_parcel_create_from_port(&in, port) != 0) return -1;
  int cmd = -1;
  char *text = nullptr;
  bundle *b = nullptr;
  rpc_port_h callback = nullptr;
  rpc_port_parcel_read_int32(in, &cmd);
  if (cmd == 1) rpc_port_parcel_read_string(in, &text);
  if (cmd == 1 || cmd == 2) rpc_port_parcel_read_bundle(in, &b);
  if (cmd == 1) Write(port, {0}, {text ? text : ""}, b);
  if (cmd == 2 && b && rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance, &callback) == 0)
    Write(callback, {1}, {}, b);
  if (cmd == 4) raise(SIGKILL);
  free(text);
  if (b) bundle_free(b);
  rpc_port_parcel_destroy(in);
  return 0;
}

// Interface "message", by hand.
struct Delegate { int id, seq; bool once; };
struct Connection { std::vector<Delegate> delegates; std::string commands; };
std::map<std::string, Connection> connections;
const int kRegisterResult = atoi(Env("MESSAGE_TEST_APP_REGISTER_RESULT", "0").c_str());

// A Callback parcel naming d, with the app's id unless the id is to be unreadable.
void Invoke(rpc_port_h port, const Delegate &d, bool withId, bundle *b) {
  Write(port, {1, d.id, d.seq}, withId ? std::vector<std::string>{kSelf} : std::vector<std::string>{}, b, &d.once);
}

void LaxSend(const std::string &instance, rpc_port_h mainPort, bundle *msg) {
  Connection &connection = connections[instance];
  rpc_port_h callback = nullptr;
  rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance.c_str(), &callback);
  std::stringstream steps(Get(msg, "do"));
  for (std::string step; std::getline(steps, step, ',');) {
    if (step == "stray-result") Write(mainPort, {0, 55});
    if (step == "wrong-command") Write(callback, {7});
    bundle *answer = bundle_create();
    if (step == "unknown-seq") Invoke(callback, {1, 1000000, false}, true, answer);
    bundle_add_str(answer, "result", Get(msg, "sample_result").c_str());
    bundle_add_str(answer, "commands", connection.commands.c_str());
    for (const Delegate &d : connection.delegates) {
      if (step == "unreadable-string") Invoke(callback, d, false, nullptr);
      for (long i = 0; step == "answer" && i < Number(msg, "count", 1); ++i)
        Invoke(callback, d, true, answer);
    }
    bundle_free(answer);
  }
}

// Parcels of a command the client does not wait for, on the main channel of instance,
// every 200 ms for 10 s.
void StartStrays(const std::string &instance) {
  struct Strays { std::string instance; int left; };
  auto tick = [](gpointer data) {
    auto *strays = static_cast<Strays *>(data);
    rpc_port_h port = nullptr;
    if (strays->left-- > 0 &&
        rpc_port_stub_get_port(stub, RPC_PORT_PORT_MAIN, strays->instance.c_str(), &port) == 0) {
      Write(port, {7});
      return gboolean(G_SOURCE_CONTINUE);
    }
    delete strays;
    return gboolean(G_SOURCE_REMOVE);
  };
  g_timeout_add(200, tick, new Strays{instance, 50});
}

int OnLax(const char *, const char *instance, rpc_port_h port, void *) {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create_from_port(&parcel, port) != 0) return -1;
  int command = -1;
  rpc_port_parcel_read_int32(parcel, &command);
  Connection &connection = connections[instance];
  connection.commands += (connection.commands.empty() ? "" : ",") + std::to_string(command);
  if (command == 2) {
    Delegate d{0, 0, false};
    rpc_port_parcel_read_int32(parcel, &d.id);
    rpc_port_parcel_read_int32(parcel, &d.seq);
    rpc_port_parcel_read_bool(parcel, &d.once);
    connection.delegates.push_back(d);
    if (mode == "exit-on-register") _exit(0);
    bundle *stray = bundle_create();
    bundle_add_str(stray, "result", "stray");
    if (mode == "callback-first") Invoke(port, d, true, stray);
    bundle_free(stray);
  }
  if (command == 2 && mode == "setcb-stray") StartStrays(instance);
  if (command == 2 && mode.rfind("setcb-", 0) == 0) return rpc_port_parcel_destroy(parcel), 0;
  if (command == 2 || command == 3) Write(port, {0, kRegisterResult});
  bundle *msg = nullptr;
  if (command == 4 && rpc_port_parcel_read_bundle(parcel, &msg) == 0) LaxSend(instance, port, msg), bundle_free(msg);
  rpc_port_parcel_destroy(parcel);
  return 0;
}

// The message-port companion of mode "port-app".
const char kAppPort[] = "TALVO_APP_SDK_PORT_516";

void PortSend(const std::string &to, const std::vector<std::pair<std::string, std::string>> &strings,
              const std::string &piece = "", bool withPiece = false) {
  bundle *b = bundle_create();
  for (const auto &kv : strings) bundle_add_str(b, kv.first.c_str(), kv.second.c_str());
  if (withPiece) bundle_add_byte(b, "chunk_result", piece.data(), piece.size());
  int r = message_port_send_message(to.c_str(), kAppPort, b);
  bundle_free(b);
  if (r < 0) fprintf(stderr, "test-app: answer to %s failed: %d\n", to.c_str(), r);
}

void OnPortRequest(int, const char *sender, const char *, bool, bundle *request, void *) {
  if (!sender) return;
  const std::string to = sender, fault = Get(request, "fault");
  const std::string text = "answer:" + Get(request, "actionId");
  const std::vector<std::pair<std::string, std::string>> status = {{"status_code", "0"}, {"status_msg", "ok"}};
  if (fault == "silent") return;
  if (fault == "kill") raise(SIGKILL);
  if (fault == "chunks-then-kill") {
    PortSend(to, {{"last_chunk", "false"}}, "first-", true);
    PortSend(to, {{"last_chunk", "false"}}, "second-", true);
    raise(SIGKILL);
  }
  if (fault == "flood") {
    for (long i = 0; i < Number(request, "count", 1); ++i)
      PortSend(to, {{"status_code", "0"}, {"result", "flood-" + std::to_string(i)}});
    return;
  }
  if (fault == "impersonate") {
    std::string victim = Get(request, "victim");
    PortSend(to, {{"status_code", "0"}, {"result", "impersonated"}, {"appId", victim},
                  {"sender", victim}, {"remote_app_id", victim}});
    return;
  }
  size_t chunk = size_t(Number(request, "chunk", 0));
  if (chunk == 0) {
    auto answer = status;
    answer.push_back({"result", text});
    PortSend(to, answer);
  }
  for (size_t at = 0; chunk > 0 && at < text.size(); at += chunk) {
    bool last = at + chunk >= text.size();
    auto strings = last ? status : decltype(status){};
    strings.push_back({"last_chunk", last ? "true" : "false"});
    PortSend(to, strings, text.substr(at, chunk), true);
  }
  if (fault == "answer-and-exit") _exit(0);
}

}  // namespace

int main(int argc, char **argv) {
  mode = argc > 1 ? argv[1] : Env("TEST_APP_MODE");
  printf("test-app pid=%d app=%s operation=%s marker=%s\n", int(getpid()), Env("VELNA_APP_ID", "(none)").c_str(),
         Env("VELNA_APP_CONTROL_OPERATION", "(none)").c_str(), Env("VELNA_TEST_MARKER", "(none)").c_str());
  fflush(stdout);
  if (mode == "exit") return 0;

  // ecore installs signal handlers of its own when it starts: set ours after.
  if (velna_main_loop_init() < 0) return 1;
  g_unix_signal_add(SIGTERM, [](gpointer) { velna_main_loop_quit(); return gboolean(G_SOURCE_REMOVE); }, nullptr);

  if (mode == "port-app" && message_port_register_local_port(kAppPort, OnPortRequest, nullptr) <= 0) return 1;
  std::string port = Env("MP_TEST_PORT");
  if (!port.empty() && message_port_register_local_port(port.c_str(), OnMessage, nullptr) <= 0) return 1;
  std::string to = Env("MP_TEST_SEND_TO");
  if (!to.empty()) SendNumbered(to.substr(0, to.find(':')), to.substr(to.find(':') + 1), 1, 16);

  bool echo = mode == "echo";
  if (echo || mode == "lax" || mode == "callback-first" || mode == "exit-on-register" ||
      mode.rfind("setcb-", 0) == 0) {
    if (rpc_port_stub_create(&stub, echo ? "echo" : "message") != 0) return 1;
    rpc_port_stub_add_received_event_cb(stub, echo ? OnEcho : OnLax, nullptr);
    if (rpc_port_stub_listen(stub) != 0) return 1;
  }
  int r = velna_main_loop_run();
  if (stub) rpc_port_stub_destroy(stub);
  return r == 0 ? 0 : 1;
}
