// The app that the tests launch. It prints one line of what it was started with, then
// serves by its mode (first argument, else TEST_APP_MODE):
//   exit   exit at once, before the loop
//   echo   rpc-port "echo"; a parcel's int32 command: 1 string, bundle -> main: 0, string,
//          bundle; 2 bundle -> callback: 1, bundle; 3 nothing; 4 SIGKILL
//   lax, callback-first, exit-on-register, setcb-silent, setcb-stray, wrong-id: interface
//          "message" by hand, keeping every delegate. SetCB and UnsetCB answer
//          MESSAGE_TEST_APP_REGISTER_RESULT (0); at SetCB "callback-first" first invokes
//          the delegate on the main channel, "exit-on-register" exits, "setcb-*" never
//          answer ("setcb-stray" sends command 7 on the main channel every 200 ms for 10 s).
//          A Send's "do" lists steps: "answer" (each delegate "count" times, "result" =
//          "sample_result", "commands" = codes received), "unknown-seq", "unreadable-string",
//          "wrong-command" (7 on the callback channel), "stray-result". "wrong-id" answers
//          every Send in the name of "org.velna.someone.else".
//   port-app  the companion SDK on its message port: "result" "answer:<actionId>" with
//          status "0"/"ok", in pieces of "chunk" bytes when given; "fault": "silent",
//          "chunks-then-kill" ("first-", "second-", SIGKILL), "answer-and-exit", "flood"
//          ("count" answers "flood-<i>"), "impersonate" (names "victim" in the answer)
//   no-status  message port "TALVO_APP_SDK_PORT_516" by hand: answers without "status_code"
//   sdk, no-concepts, no-port: the companion SDK trying its answer rules on every request,
//          reporting what it said. Action "hold": keep the answer; when the client
//          disconnects, send it and append "<client> <result>" to the file SDK_TEST_REPORT
//          names. Other actions: "done:<actionId>" (or "size" bytes of 'x'), after
//          "delay_ms" when given, with the results "wrong_kind" (a context sent), "reserved"
//          (a protocol key added) and, from the second request on, "stale" (a send on the
//          previous, ended answer). Contexts: the refusals "not_object" and "no_concepts",
//          then one with "concepts" (padded to "size"). "no-concepts" answers a context
//          without "concepts"; "no-port" never starts serving.
//   other  run the loop until SIGTERM
// MP_TEST_PORT registers that message port: "cmd" "echo" answers to "reply_port" with
// "sender" added, "send" sends "count" numbered messages of "size" bytes there;
// MP_TEST_SEND_TO "<app>:<port>" sends one numbered message there at start.
#include <bundle.h>
#include <glib-unix.h>
#include <message_port.h>
#include <rpc-port.h>
#include <signal.h>
#include <talvo_companion.h>
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

// A Callback parcel naming d, in the name of id (none: the id is unreadable).
void Invoke(rpc_port_h port, const Delegate &d, const char *id, bundle *b) {
  Write(port, {1, d.id, d.seq}, id ? std::vector<std::string>{id} : std::vector<std::string>{}, b, &d.once);
}

void LaxSend(const std::string &instance, rpc_port_h mainPort, bundle *msg) {
  Connection &connection = connections[instance];
  rpc_port_h callback = nullptr;
  rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance.c_str(), &callback);
  const bool wrongId = mode == "wrong-id";
  std::stringstream steps(wrongId ? "answer" : Get(msg, "do"));
  for (std::string step; std::getline(steps, step, ',');) {
    if (step == "stray-result") Write(mainPort, {0, 55});
    if (step == "wrong-command") Write(callback, {7});
    bundle *answer = bundle_create();
    if (step == "unknown-seq") Invoke(callback, {1, 1000000, false}, kSelf.c_str(), answer);
    bundle_add_str(answer, "result", Get(msg, "sample_result").c_str());
    bundle_add_str(answer, "commands", connection.commands.c_str());
    for (const Delegate &d : connection.delegates) {
      if (step == "unreadable-string") Invoke(callback, d, nullptr, nullptr);
      for (long i = 0; step == "answer" && i < Number(msg, "count", 1); ++i)
        Invoke(callback, d, wrongId ? "org.velna.someone.else" : kSelf.c_str(), answer);
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
    if (mode == "callback-first") Invoke(port, d, kSelf.c_str(), stray);
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

// The message-port companions: "port-app" on the SDK, "no-status" by hand.
const char kAppPort[] = "TALVO_APP_SDK_PORT_516";
talvo_companion_h companion;

void PortSend(const std::string &to, const std::vector<std::pair<std::string, std::string>> &strings,
              const std::string &piece = "", bool withPiece = false) {
  bundle *b = bundle_create();
  for (const auto &kv : strings) bundle_add_str(b, kv.first.c_str(), kv.second.c_str());
  if (withPiece) bundle_add_byte(b, "chunk_result", piece.data(), piece.size());
  int r = message_port_send_message(to.c_str(), kAppPort, b);
  bundle_free(b);
  if (r < 0) fprintf(stderr, "test-app: answer to %s failed: %d\n", to.c_str(), r);
}

// Serves actions and contexts alike; a fault answers by hand or not at all.
void OnPortRequest(const char *client, bundle *request, talvo_companion_answer_h answer, void *) {
  const std::string to = client, fault = Get(request, "fault");
  if (!fault.empty() && fault != "answer-and-exit") talvo_companion_answer_drop(answer);
  if (fault == "chunks-then-kill") {
    PortSend(to, {{"last_chunk", "false"}}, "first-", true);
    PortSend(to, {{"last_chunk", "false"}}, "second-", true);
    raise(SIGKILL);
  }
  for (long i = 0; fault == "flood" && i < Number(request, "count", 1); ++i)
    PortSend(to, {{"status_code", "0"}, {"result", "flood-" + std::to_string(i)}});
  if (fault == "impersonate") {
    std::string victim = Get(request, "victim");
    PortSend(to, {{"status_code", "0"}, {"result", "impersonated"}, {"appId", victim},
                  {"sender", victim}, {"remote_app_id", victim}});
  }
  if (!fault.empty() && fault != "answer-and-exit") return;
  talvo_companion_set_chunk_size(companion, size_t(Number(request, "chunk", TALVO_COMPANION_DEFAULT_CHUNK_SIZE)));
  talvo_companion_answer_set_status(answer, "0", "ok");
  talvo_companion_answer_send_result(answer, ("answer:" + Get(request, "actionId")).c_str());
  if (fault == "answer-and-exit") _exit(0);
}

// A whole answer with "result" (or "appContext") but no status.
void OnNoStatus(int, const char *sender, const char *, bool, bundle *request, void *) {
  const bool context = Get(request, "type") == "PunchIn";
  if (sender) PortSend(sender, {{context ? "appContext" : "result", context ? "{\"concepts\":[]}" : "ok"}});
}

// The SDK app of modes "sdk", "no-concepts" and "no-port".
talvo_companion_answer_h held, previous;

void Note(talvo_companion_answer_h answer, const char *key, int code) {
  talvo_companion_answer_add_str(answer, key, std::to_string(code).c_str());
}

void OnSdkAction(const char *, bundle *request, talvo_companion_answer_h answer, void *) {
  std::string action = Get(request, "actionId");
  if (action == "hold") {
    held = answer;
    return;
  }
  Note(answer, "wrong_kind", talvo_companion_answer_send_context(answer, "{\"concepts\":1}"));
  Note(answer, "reserved", talvo_companion_answer_add_str(answer, "status_code", "x"));
  if (previous) Note(answer, "stale", talvo_companion_answer_send_result(previous, "again"));
  previous = answer;

  std::string size = Get(request, "size");
  std::string text = size.empty() ? "done:" + action : std::string(std::stoul(size), 'x');
  if (Number(request, "delay_ms", 0) == 0) {
    talvo_companion_answer_send_result(answer, text.c_str());
    return;
  }
  using Late = std::pair<talvo_companion_answer_h, std::string>;
  g_timeout_add(guint(Number(request, "delay_ms", 0)), [](gpointer data) {
    auto *late = static_cast<Late *>(data);
    talvo_companion_answer_send_result(late->first, late->second.c_str());
    delete late;
    return gboolean(G_SOURCE_REMOVE);
  }, new Late{answer, text});
}

void OnSdkContext(const char *, bundle *request, talvo_companion_answer_h answer, void *) {
  if (mode == "no-concepts") {
    talvo_companion_answer_send_context_unchecked(answer, "{\"screen\":\"home\"}");
    return;
  }
  Note(answer, "not_object", talvo_companion_answer_send_context(answer, "[1]"));
  Note(answer, "no_concepts", talvo_companion_answer_send_context(answer, "{\"screen\":1}"));
  std::string pad(size_t(Number(request, "size", 0)), 'y');
  talvo_companion_answer_send_context(answer, ("{\"concepts\":[],\"pad\":\"" + pad + "\"}").c_str());
}

void OnSdkDisconnected(const char *client, void *) {
  if (!held) return;
  int r = talvo_companion_answer_send_result(held, "too late");
  if (FILE *report = fopen(getenv("SDK_TEST_REPORT"), "a")) {
    fprintf(report, "%s %d\n", client, r);
    fclose(report);
  }
  held = nullptr;
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

  const bool portApp = mode == "port-app";
  if (portApp || mode == "sdk" || mode == "no-concepts" || mode == "no-port") {
    if (talvo_companion_create(portApp ? OnPortRequest : OnSdkAction, portApp ? OnPortRequest : OnSdkContext,
                               nullptr, &companion) != 0)
      return 1;
    talvo_companion_set_disconnected_cb(companion, OnSdkDisconnected, nullptr);
    if (mode != "no-port" && talvo_companion_start(companion) != 0) return 1;
  }
  if (mode == "no-status" && message_port_register_local_port(kAppPort, OnNoStatus, nullptr) <= 0) return 1;
  std::string port = Env("MP_TEST_PORT");
  if (!port.empty() && message_port_register_local_port(port.c_str(), OnMessage, nullptr) <= 0) return 1;
  std::string to = Env("MP_TEST_SEND_TO");
  if (!to.empty()) SendNumbered(to.substr(0, to.find(':')), to.substr(to.find(':') + 1), 1, 16);

  bool echo = mode == "echo";
  if (echo || mode == "lax" || mode == "callback-first" || mode == "exit-on-register" ||
      mode == "wrong-id" || mode.rfind("setcb-", 0) == 0) {
    if (rpc_port_stub_create(&stub, echo ? "echo" : "message") != 0) return 1;
    rpc_port_stub_add_received_event_cb(stub, echo ? OnEcho : OnLax, nullptr);
    if (rpc_port_stub_listen(stub) != 0) return 1;
  }
  int r = velna_main_loop_run();
  if (stub) rpc_port_stub_destroy(stub);
  talvo_companion_destroy(companion);
  return r == 0 ? 0 : 1;
}
