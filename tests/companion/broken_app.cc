// A companion app with exactly one fault, named by its first argument, for the tests of
// "talvo-cli check". Everything else about it is right.
//   no-concepts  (message port) a successful context without "concepts"
//   no-status    (message port, by hand) answers without "status_code"
//   wrong-id     (rpc-port, by hand) answers through ResponseCB in another app's name
//   no-port      (message port) runs but never registers its port
#include <message_port.h>
#include <talvo_companion.h>
#include <velna_main_loop.h>

#include <cstring>
#include <string>

#include "MessageStub.h"

namespace {

void SendResult(talvo_companion_answer_h answer) {
  talvo_companion_answer_send_result(answer, "{\"done\":true}");
}

void OnAction(const char *, bundle *, talvo_companion_answer_h answer, void *) {
  SendResult(answer);
}

void OnContext(const char *, bundle *, talvo_companion_answer_h answer, void *) {
  talvo_companion_answer_send_context_unchecked(answer, "{\"screen\":\"home\"}");
}

// A whole answer with "result" (or "appContext") but no status.
void OnPortMessage(int, const char *sender, const char *, bool, bundle *request, void *) {
  char *type = nullptr;
  bool context = bundle_get_str(request, "type", &type) == 0 && std::strcmp(type, "PunchIn") == 0;
  bundle *answer = bundle_create();
  bundle_add_str(answer, context ? "appContext" : "result", context ? "{\"concepts\":[]}" : "ok");
  message_port_send_message(sender, "TALVO_APP_SDK_PORT_516", answer);
  bundle_free(answer);
}

}  // namespace

int main(int argc, char **argv) {
  const std::string fault = argc > 1 ? argv[1] : "";
  talvo_companion_h app = nullptr;
  companion::MessageStub stub;

  if (fault == "no-status") {
    if (message_port_register_local_port("TALVO_APP_SDK_PORT_516", OnPortMessage, nullptr) < 0)
      return 1;
  } else if (fault == "wrong-id") {
    stub.setSendHandler([&stub](const std::string &, const std::string &instance, bundle *) {
      bundle *answer = bundle_create();
      bundle_add_str(answer, "status_code", TALVO_COMPANION_STATUS_SUCCESS);
      bundle_add_str(answer, "status_msg", "");
      bundle_add_str(answer, "result", "ok");
      stub.respond(instance, "org.velna.someone.else", answer);
      bundle_free(answer);
    });
    if (stub.listen() != 0) return 1;
  } else {
    if (talvo_companion_create(OnAction, OnContext, nullptr, &app) != 0) return 1;
    if (fault != "no-port" && talvo_companion_start(app) != 0) return 1;
  }
  int r = velna_main_loop_run();
  talvo_companion_destroy(app);
  return r == 0 ? 0 : 1;
}
