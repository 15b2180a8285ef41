#include "SampleCompanion.h"

#include <dlog.h>
#include <glib.h>
#include <message_port.h>
#include <velna_main_loop.h>

#include <cstdlib>
#include <string>

#include "SampleAnswer.h"

#define SAMPLE_TAG "SAMPLE_APP"

namespace sample {

namespace {

talvo_companion_h app = nullptr;

void Answer(talvo_companion_answer_h answer, bundle *request, bool context) {
  talvo_companion_answer_set_status(
      answer, GetString(request, "sample_status", TALVO_COMPANION_STATUS_SUCCESS).c_str(),
      "Handled by the sample companion app");
  if (!GetString(request, "sample_echo").empty())
    talvo_companion_answer_add_str(answer, "echo", EchoText(request).c_str());
  unsigned long chunk = std::strtoul(GetString(request, "sample_chunk_size").c_str(), nullptr, 10);
  talvo_companion_set_chunk_size(app, chunk ? chunk : TALVO_COMPANION_DEFAULT_CHUNK_SIZE);

  std::string own = GetString(request, "sample_context");
  if (!context)
    talvo_companion_answer_send_result(answer, AnswerText(request, false).c_str());
  else if (!own.empty())  // verbatim, right or wrong: what a test asks for
    talvo_companion_answer_send_context_unchecked(answer, own.c_str());
  else
    talvo_companion_answer_send_context(answer, AnswerText(request, true).c_str());
}

struct Later {
  talvo_companion_answer_h answer;
  bundle *request;  // owned copy
  bool context;
};

void Handle(const char *client, bundle *request, talvo_companion_answer_h answer, bool context) {
  dlog_print(DLOG_INFO, SAMPLE_TAG, "Request from %s: %s", client,
             GetString(request, "actionId", "(none)").c_str());
  std::string reply = GetString(request, "sample_reply");
  if (reply == "silent") {
    talvo_companion_answer_drop(answer);
    return;
  }
  if (reply == "crash") abort();
  if (reply == "wrong_keys" && talvo_companion_get_mechanism(app) ==
                                   TALVO_COMPANION_MECHANISM_MESSAGE_PORT) {
    // Past the SDK on purpose: keys the library does not know, so that a test sees how
    // the client reports an answer it cannot use.
    bundle *wrong = bundle_create();
    bundle_add_str(wrong, "unexpected", "key");
    message_port_send_message(client, "TALVO_APP_SDK_PORT_516", wrong);
    bundle_free(wrong);
    talvo_companion_answer_drop(answer);
    return;
  }

  unsigned delay = std::strtoul(GetString(request, "sample_delay_ms", "0").c_str(), nullptr, 10);
  if (delay == 0) {
    Answer(answer, request, context);
    return;
  }
  // The request is borrowed for this call only; the answer stays valid until sent.
  auto later = [](gpointer data) {
    auto *pending = static_cast<Later *>(data);
    Answer(pending->answer, pending->request, pending->context);
    bundle_free(pending->request);
    delete pending;
    return G_SOURCE_REMOVE;
  };
  g_timeout_add(delay, later, new Later{answer, bundle_dup(request), context});
}

void OnAction(const char *client, bundle *request, talvo_companion_answer_h answer, void *) {
  Handle(client, request, answer, false);
}
void OnContext(const char *client, bundle *request, talvo_companion_answer_h answer, void *) {
  Handle(client, request, answer, true);
}

gboolean Start(gpointer) {
  if (talvo_companion_start(app) != 0) velna_main_loop_quit();
  return G_SOURCE_REMOVE;
}

unsigned EnvNumber(const char *name) {
  const char *value = getenv(name);
  return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : 0;
}

}  // namespace

int RunSampleCompanion(talvo_companion_mechanism_e mechanism) {
  if (talvo_companion_create(OnAction, OnContext, nullptr, &app) != 0 ||
      talvo_companion_set_mechanism(app, mechanism) != 0)
    return 1;
  if (const char *result = getenv("TALVO_SAMPLE_SETCB_RESULT"))
    talvo_companion_set_callback_result(app, atoi(result));

  bool rpc = talvo_companion_get_mechanism(app) == TALVO_COMPANION_MECHANISM_RPC_PORT;
  if (EnvNumber(rpc ? "TALVO_SAMPLE_NO_LISTEN" : "TALVO_SAMPLE_NO_PORT") == 0) {
    unsigned delay = EnvNumber("TALVO_SAMPLE_START_DELAY_MS");
    if (delay > 0)
      g_timeout_add(delay, Start, nullptr);
    else if (talvo_companion_start(app) != 0)
      return 1;
  }
  int r = velna_main_loop_run();
  talvo_companion_destroy(app);
  return r == 0 ? 0 : 1;
}

}  // namespace sample
