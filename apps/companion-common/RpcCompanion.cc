#include "RpcCompanion.h"

#include <dlog.h>
#include <glib.h>
#include <velna_main_loop.h>

#include <cstdlib>
#include <string>

#include "MessageStub.h"
#include "SampleAnswer.h"

#define SAMPLE_TAG "SAMPLE_RPC_APP"

namespace sample {

namespace {

companion::MessageStub stub;

// An answer that waits for its delay: the connection to answer on and the request.
struct PendingAnswer {
  std::string instance;
  bundle *request;  // owned copy
};

void Answer(const std::string &instance, bundle *request) {
  bundle *answer = BuildAnswer(request);
  if (!answer)
    return;
  // The delegate's first value is the answering app's own id.
  int invoked = stub.respond(instance, OwnAppId(), answer);
  if (invoked <= 0)
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "No delegate to answer on (%d)", invoked);
  bundle_free(answer);
}

gboolean AnswerLater(gpointer data) {
  auto *pending = static_cast<PendingAnswer *>(data);
  Answer(pending->instance, pending->request);
  bundle_free(pending->request);
  delete pending;
  return G_SOURCE_REMOVE;
}

void OnSend(const std::string &sender, const std::string &instance, bundle *request) {
  dlog_print(DLOG_INFO, SAMPLE_TAG, "Request from %s: %s", sender.c_str(),
             GetString(request, "actionId", "(none)").c_str());

  switch (ReplyOf(request)) {
    case Reply::Silent:
      return;
    case Reply::Crash:
      abort();
    default:
      break;
  }

  unsigned delay = DelayOf(request);
  if (delay == 0) {
    Answer(instance, request);
    return;
  }
  // The request is the stub's for this call only: keep a copy.
  g_timeout_add(delay, AnswerLater, new PendingAnswer{instance, bundle_dup(request)});
}

gboolean Listen(gpointer) {
  int ret = stub.listen();
  if (ret != 0) {
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "Cannot listen on port message: %d", ret);
    velna_main_loop_quit();
  }
  return G_SOURCE_REMOVE;
}

unsigned EnvNumber(const char *name) {
  const char *value = getenv(name);
  return value ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : 0;
}

}  // namespace

int RunRpcCompanion() {
  stub.setSendHandler(OnSend);
  if (const char *result = getenv("TALVO_SAMPLE_SETCB_RESULT"))
    stub.setRegisterResult(atoi(result));

  if (EnvNumber("TALVO_SAMPLE_NO_LISTEN") == 0) {
    unsigned startDelay = EnvNumber("TALVO_SAMPLE_START_DELAY_MS");
    if (startDelay > 0) {
      g_timeout_add(startDelay, Listen, nullptr);
    } else if (stub.listen() != 0) {
      dlog_print(DLOG_ERROR, SAMPLE_TAG, "Cannot listen on port message");
      return 1;
    }
  }

  return velna_main_loop_run() == 0 ? 0 : 1;
}

}  // namespace sample
