// The message-port app of the library benchmark. It serves two ports of the same shape:
// "TALVO_APP_SDK_PORT_516", which the library talks to, and "BENCH_RAW", which the
// benchmark uses to measure the transport alone. A message is answered on the sender's
// port of the same name:
//   "bench_answer_bytes" = n   with n bytes in pieces of "bench_piece_bytes" bytes under
//                              "chunk_result", marked by "last_chunk" ("true" on the last)
//   otherwise                  with "result" = the request's "payload" and a status.
#include <bundle.h>
#include <message_port.h>
#include <velna_main_loop.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char *GetStr(bundle *b, const char *key, const char *fallback) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? value : fallback;
}

void SendPieces(const char *to, const char *port, size_t total, size_t piece) {
  static std::string text;
  if (text.size() < total) text.assign(total, 'x');
  size_t offset = 0;
  do {
    size_t size = std::min(piece, total - offset);
    bool last = offset + size >= total;
    bundle *message = bundle_create();
    bundle_add_byte(message, "chunk_result", text.data() + offset, size);
    bundle_add_str(message, "last_chunk", last ? "true" : "false");
    if (last) bundle_add_str(message, "status_code", "0");
    message_port_send_message(to, port, message);
    bundle_free(message);
    offset += size;
  } while (offset < total);
}

void OnMessage(int, const char *from, const char *, bool, bundle *message, void *port) {
  if (!from) return;
  const char *portName = static_cast<const char *>(port);
  size_t total = strtoul(GetStr(message, "bench_answer_bytes", "0"), nullptr, 10);
  if (total > 0) {
    SendPieces(from, portName, total,
               strtoul(GetStr(message, "bench_piece_bytes", "1048576"), nullptr, 10));
    return;
  }
  bundle *answer = bundle_create();
  bundle_add_str(answer, "result", GetStr(message, "payload", ""));
  bundle_add_str(answer, "status_code", "0");
  bundle_add_str(answer, "status_msg", "ok");
  message_port_send_message(from, portName, answer);
  bundle_free(answer);
}

}  // namespace

int main() {
  static char library[] = "TALVO_APP_SDK_PORT_516", raw[] = "BENCH_RAW";
  if (message_port_register_local_port(library, OnMessage, library) <= 0 ||
      message_port_register_local_port(raw, OnMessage, raw) <= 0) {
    fprintf(stderr, "bench-port-app: cannot register its ports\n");
    return 1;
  }
  return velna_main_loop_run() < 0 ? 1 : 0;
}
