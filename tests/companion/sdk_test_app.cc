// A companion app on the SDK's C API that tries the answer rules on every request and
// reports what the SDK said, so that a client test sees both the answer and the refusals.
// Action "hold": keep the answer; when the client disconnects, send it and append the
// result to the file SDK_TEST_REPORT names. Any other action: "done:<actionId>" (or "size"
// bytes of 'x'), after "delay_ms" when given, carrying the results "wrong_kind" (a context
// sent on an action), "reserved" (a protocol key added) and, from the second request on,
// "stale" (a send on the previous request's ended answer). Context requests: the refusals
// "not_object" and "no_concepts", then a context with "concepts" (padded to "size").
#include <glib.h>
#include <talvo_companion.h>
#include <velna_main_loop.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

talvo_companion_answer_h held = nullptr, previous = nullptr;

std::string Get(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? value : "";
}

void Note(talvo_companion_answer_h answer, const char *key, int code) {
  talvo_companion_answer_add_str(answer, key, std::to_string(code).c_str());
}

struct Late {
  talvo_companion_answer_h answer;
  std::string text;
};

void OnAction(const char *, bundle *request, talvo_companion_answer_h answer, void *) {
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
  unsigned delay = static_cast<unsigned>(std::strtoul(Get(request, "delay_ms").c_str(), nullptr, 10));
  if (delay == 0) {
    talvo_companion_answer_send_result(answer, text.c_str());
    return;
  }
  g_timeout_add(delay, [](gpointer data) {
    auto *late = static_cast<Late *>(data);
    talvo_companion_answer_send_result(late->answer, late->text.c_str());
    delete late;
    return G_SOURCE_REMOVE;
  }, new Late{answer, text});
}

void OnContext(const char *, bundle *request, talvo_companion_answer_h answer, void *) {
  Note(answer, "not_object", talvo_companion_answer_send_context(answer, "[1]"));
  Note(answer, "no_concepts", talvo_companion_answer_send_context(answer, "{\"screen\":1}"));
  std::string size = Get(request, "size");
  std::string pad = size.empty() ? "" : std::string(std::stoul(size), 'y');
  talvo_companion_answer_send_context(answer, ("{\"concepts\":[],\"pad\":\"" + pad + "\"}").c_str());
}

void OnDisconnected(const char *client, void *) {
  if (!held) return;
  int r = talvo_companion_answer_send_result(held, "too late");
  if (FILE *report = std::fopen(std::getenv("SDK_TEST_REPORT"), "a")) {
    std::fprintf(report, "%s %d\n", client, r);
    std::fclose(report);
  }
  held = nullptr;
}

}  // namespace

int main() {
  talvo_companion_h app = nullptr;
  if (talvo_companion_create(OnAction, OnContext, nullptr, &app) != 0) return 1;
  talvo_companion_set_disconnected_cb(app, OnDisconnected, nullptr);
  if (talvo_companion_start(app) != 0) return 1;
  int r = velna_main_loop_run();
  talvo_companion_destroy(app);
  return r == 0 ? 0 : 1;
}
