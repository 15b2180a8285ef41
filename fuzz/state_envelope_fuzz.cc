// The envelope that an app's "appContext" text is rewritten into. The first byte picks the
// answer's status, whether it carries a text at all and which metadata the request
// carries; the rest is the text. Every recorded request must be answered exactly once,
// with the failure answer or with an envelope that parses as a JSON object naming the
// app and its version, whose "contextBlob", when present, is the app's text unchanged.
// Text nested past any depth (100,000 brackets in the corpus) must not exhaust the stack.
#include <json-glib/json-glib.h>

#include "common/TalvoProxyCommonData.h"
#include "fuzz_env.h"
#include "requests/TalvoProxyStateRequest.h"

namespace {

constexpr const char kAppId[] = "org.fuzz.companion";
constexpr const char kFailureStatus[] = "ACTION_EXECUTION_FAILURE";

// What the request carries; the last carries nothing, and the manifest declares nothing.
struct Metadata {
  const char *capsule_id, *version, *sdk_version;
};
constexpr Metadata kMetadata[] = {{"cap.fuzz", "1.2.0", "2.0"}, {"cap.fuzz", "", "2.0"},
                                  {"cap.fuzz", "1.2.0", "1.0-alpha"}, {}};
constexpr const char *kStatus[] = {nullptr, "ACTION_EXECUTION_SUCCESS", kFailureStatus, "7"};

int calls;
std::string context, status;  // of the answer handed to the client

void OnAnswer(const char *app_id, bundle *result, void *) {
  if (!app_id || strcmp(app_id, kAppId) != 0 || !result) abort();
  calls++;
  char *text = nullptr;
  context = bundle_get_str(result, "appContext", &text) == 0 ? text : "<none>";
  status = bundle_get_str(result, "status_code", &text) == 0 ? text : "";
}

bool Is(JsonObject *object, const char *member, const char *want) {
  return g_strcmp0(json_object_get_string_member_with_default(object, member, ""), want) == 0;
}

void CheckEnvelope(const Metadata &meta, const char *text) {
  JsonParser *parser = json_parser_new();
  JsonNode *root = json_parser_load_from_data(parser, context.c_str(), -1, nullptr)
                       ? json_parser_get_root(parser) : nullptr;
  JsonObject *o = root && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
  if (!o || !Is(o, "appId", kAppId) || !meta.version || !Is(o, "appVersion", meta.version) ||
      !json_object_has_member(o, "capsuleId") ||
      (json_object_has_member(o, "contextBlob") && !Is(o, "contextBlob", text)))
    abort();
  g_object_unref(parser);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static TalvoProxyStateRequest *requests = [] {
    talvo_fuzz::FuzzRoot(kAppId);  // this process is the app and holds its id: the app runs
    talvo_fuzz::WriteManifest(kAppId, std::string("[Application]\nPackage=") + kAppId + "\n");
    if (velna_self_register() != 0) abort();
    TalvoProxyStateRequest *instance = TalvoProxyStateRequest::getInstance();
    if (!instance || instance->initialize() != 0) abort();
    return instance;
  }();
  if (size < 1) return 0;
  const Metadata &meta = kMetadata[(data[0] >> 4) & 3];
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const char *app_text = (data[0] & 4) ? nullptr : text.c_str();  // ends at its first zero

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
  if (kStatus[data[0] & 3]) bundle_add_str(result, "status_code", kStatus[data[0] & 3]);
  bundle_add_str(result, "status_msg", "from the app");
  if (data[0] & 8) bundle_add_str(result, "appContext", text.c_str());
  calls = 0;
  requests->_processAppStateResult(kAppId, result, app_text);
  bundle_free(result);

  if (calls != 1) abort();
  if (status != kFailureStatus || !context.empty()) CheckEnvelope(meta, app_text ? app_text : "");
  return 0;
}
