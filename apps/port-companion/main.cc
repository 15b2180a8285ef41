// A sample companion app reached over the message port (its manifest declares the SDK
// version "1.0-alpha"). It registers the port "TALVO_APP_SDK_PORT_516" and answers each
// request by sending to the port of that name in the requesting app.
//
// Besides the request keys of SampleAnswer.h:
//   "sample_chunk_size"    n > 0: send the answer text in pieces of n bytes, each under
//                          "chunk_result" ("app_state_chunk_result" for a state request)
//                          with "last_chunk" ("app_state_last_chunk") "false", the last
//                          one marked "true"
//   "sample_final_marker"  the marker of the last piece, instead of "true"
// Environment:
//   TALVO_SAMPLE_NO_PORT=1          run, but never register the port
//   TALVO_SAMPLE_START_DELAY_MS=n   register the port only after n milliseconds
#include <dlog.h>
#include <glib.h>
#include <message_port.h>
#include <velna_main_loop.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SampleAnswer.h"

#define SAMPLE_TAG "SAMPLE_PORT_APP"

namespace {

const char kPortName[] = "TALVO_APP_SDK_PORT_516";

void Send(const std::string &to, bundle *message) {
  int ret = message_port_send_message(to.c_str(), kPortName, message);
  if (ret != 0)
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "Cannot answer %s: %d", to.c_str(), ret);
}

// A long text goes out as pieces; only the last message carries the status.
void SendChunked(const std::string &to, bundle *request, size_t chunkSize) {
  bool state = sample::IsStateRequest(request);
  const char *pieceKey = state ? "app_state_chunk_result" : "chunk_result";
  const char *markerKey = state ? "app_state_last_chunk" : "last_chunk";
  std::string finalMarker = sample::GetString(request, "sample_final_marker", "true");
  std::string text = sample::AnswerText(request);

  size_t offset = 0;
  do {
    size_t size = std::min(chunkSize, text.size() - offset);
    bool last = offset + size >= text.size();
    bundle *message = last ? sample::BuildAnswer(request, false) : bundle_create();
    if (!message)
      return;
    bundle_add_byte(message, pieceKey, text.data() + offset, size);
    bundle_add_str(message, markerKey, last ? finalMarker.c_str() : "false");
    Send(to, message);
    bundle_free(message);
    offset += size;
  } while (offset < text.size());
}

void Answer(const std::string &to, bundle *request) {
  size_t chunkSize = strtoul(sample::GetString(request, "sample_chunk_size", "0").c_str(),
                             nullptr, 10);
  if (chunkSize > 0 && sample::ReplyOf(request) == sample::Reply::Normal) {
    SendChunked(to, request, chunkSize);
    return;
  }
  bundle *answer = sample::BuildAnswer(request);
  if (!answer)
    return;
  Send(to, answer);
  bundle_free(answer);
}

struct PendingAnswer {
  std::string to;
  bundle *request;  // owned copy
};

gboolean AnswerLater(gpointer data) {
  auto *pending = static_cast<PendingAnswer *>(data);
  Answer(pending->to, pending->request);
  bundle_free(pending->request);
  delete pending;
  return G_SOURCE_REMOVE;
}

// sender is the requesting app's id as the platform established it; request is borrowed.
void OnMessage(int, const char *sender, const char *, bool, bundle *request, void *) {
  if (!sender)
    return;
  dlog_print(DLOG_INFO, SAMPLE_TAG, "Request from %s: %s", sender,
             sample::GetString(request, "actionId", "(none)").c_str());

  switch (sample::ReplyOf(request)) {
    case sample::Reply::Silent:
      return;
    case sample::Reply::Crash:
      abort();
    default:
      break;
  }

  unsigned delay = sample::DelayOf(request);
  if (delay == 0) {
    Answer(sender, request);
    return;
  }
  g_timeout_add(delay, AnswerLater, new PendingAnswer{sender, bundle_dup(request)});
}

gboolean RegisterPort(gpointer) {
  int ret = message_port_register_local_port(kPortName, OnMessage, nullptr);
  if (ret < 0) {
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "Cannot register %s: %d", kPortName, ret);
    velna_main_loop_quit();
  }
  return G_SOURCE_REMOVE;
}

}  // namespace

int main() {
  const char *noPort = getenv("TALVO_SAMPLE_NO_PORT");
  const char *startDelay = getenv("TALVO_SAMPLE_START_DELAY_MS");

  if (!noPort || strcmp(noPort, "1") != 0) {
    unsigned delay = startDelay ? static_cast<unsigned>(strtoul(startDelay, nullptr, 10)) : 0;
    if (delay > 0)
      g_timeout_add(delay, RegisterPort, nullptr);
    else if (message_port_register_local_port(kPortName, OnMessage, nullptr) < 0)
      return 1;
  }
  return velna_main_loop_run() == 0 ? 0 : 1;
}
