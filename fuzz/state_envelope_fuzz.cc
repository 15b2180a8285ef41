// The envelope that an app's "appContext" text is rewritten into. The first byte picks
// the answer's status, whether it carries a text at all and which metadata the app
// declares; the rest is the text. Every recorded request must be answered exactly once,
// either with the failure answer or with an envelope that parses as a JSON object naming
// the app, whose "contextBlob", when present, is the app's text unchanged. Text nested
// past any depth (100,000 brackets in the corpus) must not exhaust the stack.
#include <bundle.h>
#include <json-glib/json-glib.h>

#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <string>

#include "common/TalvoProxyCommonData.h"
#include "fuzz_env.h"
#include "requests/TalvoProxyStateRequest.h"

extern "C" {
#include "runtime_internal.h"
}

namespace {

constexpr const char kAppId[] = "org.fuzz.companion";
constexpr const char kFailureStatus[] = "ACTION_EXECUTION_FAILURE";

struct Metadata {
  const char *capsule_id;  // null: the request carries no metadata, the manifest none
  const char *version;
  const char *sdk_version;
};
constexpr Metadata kMetadata[] = {
    {"cap.fuzz", "1.2.0", "2.0"},
    {"cap.fuzz", "", "2.0"},
    {"cap.fuzz", "1.2.0", "1.0-alpha"},
    {nullptr, nullptr, nullptr},
};
constexpr const char *kStatus[] = {nullptr, "ACTION_EXECUTION_SUCCESS", kFailureStatus, "7"};

struct Answer {
  int calls = 0;
  std::string context;  // "appContext" of the answer handed to the client
  std::string status;
};
Answer answer;

void OnAnswer(const char *app_id, bundle *result, void *user_data) {
  (void)user_data;
  if (!app_id || strcmp(app_id, kAppId) != 0 || !result) abort();
  answer.calls++;
  char *text = nullptr;
  answer.context = bundle_get_str(result, "appContext", &text) == 0 ? text : "<none>";
  answer.status = bundle_get_str(result, "status_code", &text) == 0 ? text : "";
}

void CheckEnvelope(const std::string &envelope, const Metadata &meta, const char *text) {
  JsonParser *parser = json_parser_new();
  if (!json_parser_load_from_data(parser, envelope.c_str(), -1, nullptr)) abort();
  JsonNode *root = json_parser_get_root(parser);
  if (!root || !JSON_NODE_HOLDS_OBJECT(root)) abort();
  JsonObject *object = json_node_get_object(root);
  if (g_strcmp0(json_object_get_string_member_with_default(object, "appId", ""), kAppId) != 0)
    abort();
  if (!meta.version ||
      g_strcmp0(json_object_get_string_member_with_default(object, "appVersion", ""),
                meta.version) != 0)
    abort();
  if (!json_object_has_member(object, "capsuleId")) abort();
  if (json_object_has_member(object, "contextBlob") &&
      g_strcmp0(json_object_get_string_member_with_default(object, "contextBlob", ""), text) != 0)
    abort();
  g_object_unref(parser);
}

TalvoProxyStateRequest *SetUp() {
  const talvo_fuzz::FuzzEnv &env = talvo_fuzz::SetUpFuzzEnv(kAppId);
  // The app "runs": this process holds its id.
  std::string manifest = std::string("[Application]\nPackage=") + kAppId + "\n";
  talvo_fuzz::WriteManifest(env, kAppId, manifest.data(), manifest.size());
  if (velna_self_register() != 0) abort();
  TalvoProxyStateRequest *requests = TalvoProxyStateRequest::getInstance();
  if (!requests || requests->initialize() != 0) abort();
  return requests;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static TalvoProxyStateRequest *requests = SetUp();
  if (size < 1) return 0;
  uint8_t flags = data[0];
  const char *status = kStatus[flags & 3];
  bool no_text = flags & 4;
  bool answer_has_context = flags & 8;
  const Metadata &meta = kMetadata[(flags >> 4) & 3];
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const char *c_text = text.c_str();  // the app's text ends at its first zero

  // Record the request, with metadata made from the request's own values.
  TalvoProxyCommonData::getInstance()->RemoveMetaDataMapEntry(kAppId);
  bundle *request = bundle_create();
  if (meta.capsule_id) {
    bundle_add_str(request, "capsuleId", meta.capsule_id);
    bundle_add_str(request, "appVersion", meta.version);
    bundle_add_str(request, "appSdkVersion", meta.sdk_version);
  }
  int r = requests->requestAppState(kAppId, request, OnAnswer, nullptr);
  bundle_free(request);
  if (r != 0) abort();

  bundle *result = bundle_create();
  if (status) bundle_add_str(result, "status_code", status);
  bundle_add_str(result, "status_msg", "from the app");
  if (answer_has_context) bundle_add_str(result, "appContext", c_text);

  answer = Answer();
  requests->_processAppStateResult(kAppId, result, no_text ? nullptr : c_text);
  bundle_free(result);

  if (answer.calls != 1) abort();
  if (answer.status == kFailureStatus && answer.context.empty()) return 0;
  CheckEnvelope(answer.context, meta, no_text ? "" : c_text);
  return 0;
}
