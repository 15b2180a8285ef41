#include "requests/TalvoProxyStateRequest.h"

#include <app_manager.h>
#include <json-glib/json-glib.h>

#include <cstring>
#include <memory>
#include <new>

#include "common/Log.h"
#include "common/PlatformPtr.h"
#include "common/ProcessWide.h"

namespace {

constexpr const char kSuccessStatus[] = "ACTION_EXECUTION_SUCCESS";
constexpr const char kFailureStatus[] = "ACTION_EXECUTION_FAILURE";
constexpr const char kMissingParameterMsg[] = "Json failure because of missing parameter";

// Deepest nesting of an app context that is handed to the JSON parser; deeper text is
// treated as text that does not parse.
constexpr int kMaxContextDepth = 1024;

using talvo::ReleaseWith;
using ParserPtr = std::unique_ptr<JsonParser, ReleaseWith<g_object_unref>>;
using BuilderPtr = std::unique_ptr<JsonBuilder, ReleaseWith<g_object_unref>>;
using GeneratorPtr = std::unique_ptr<JsonGenerator, ReleaseWith<g_object_unref>>;
using NodePtr = std::unique_ptr<JsonNode, ReleaseWith<json_node_unref>>;
using GTextPtr = std::unique_ptr<gchar, ReleaseWith<g_free>>;

// True when the JSON parser could recurse deeper than limit into text; it recurses once per
// bracket, so text past the limit would exhaust the stack. Counts in one pass without
// recursion. The parser also reads strings in single quotes (no escapes) and comments
// opened by '/', so brackets nest unless they sit in a string of either quote; once a '/'
// shows up outside strings, comment rules could hide quotes, and every opening bracket of
// the whole text is counted instead. Strict JSON never has a '/' outside strings.
bool nestsDeeperThan(const char *text, int limit) {
  int depth = 0;
  int openers = 0;
  bool beyondStrict = false;
  char quote = 0;
  bool escaped = false;
  for (const char *p = text; *p; ++p) {
    if (*p == '{' || *p == '[') ++openers;
    if (beyondStrict) {
      if (openers > limit) return true;
      continue;
    }

    if (quote) {
      if (escaped)
        escaped = false;
      else if (quote == '"' && *p == '\\')
        escaped = true;
      else if (*p == quote)
        quote = 0;
      continue;
    }

    if (*p == '"' || *p == '\'') {
      quote = *p;
    } else if (*p == '/') {
      beyondStrict = true;
    } else if (*p == '{' || *p == '[') {
      if (++depth > limit) return true;
    } else if ((*p == '}' || *p == ']') && depth > 0) {
      --depth;
    }
  }
  return beyondStrict && openers > limit;
}

// The envelope the client receives, members in their fixed order, as compact JSON text.
GTextPtr buildEnvelope(const std::string &appId, const char *version, const char *capsuleId,
                       JsonObject *context, const char *contextText, bool withBlob) {
  BuilderPtr builder(json_builder_new());
  json_builder_begin_object(builder.get());

  json_builder_set_member_name(builder.get(), "appId");
  json_builder_add_string_value(builder.get(), appId.c_str());

  json_builder_set_member_name(builder.get(), "appVersion");
  json_builder_add_string_value(builder.get(), version);

  json_builder_set_member_name(builder.get(), "capsuleId");
  if (context && json_object_has_member(context, "capsuleId"))
    json_builder_add_value(builder.get(),
                           json_node_copy(json_object_get_member(context, "capsuleId")));
  else
    json_builder_add_string_value(builder.get(), capsuleId);

  if (withBlob) {
    json_builder_set_member_name(builder.get(), "contextBlob");
    json_builder_add_string_value(builder.get(), contextText);
  }

  json_builder_end_object(builder.get());

  NodePtr root(json_builder_get_root(builder.get()));
  GeneratorPtr generator(json_generator_new());
  json_generator_set_root(generator.get(), root.get());
  return GTextPtr(json_generator_to_data(generator.get(), nullptr));
}

}  // namespace

TalvoProxyStateRequest *TalvoProxyStateRequest::getInstance() {
  return ProcessWide<TalvoProxyStateRequest>::get();
}

int TalvoProxyStateRequest::initialize() {
  if (initialized) {
    LOGE("TalvoProxyStateRequest has been already initialized");
    return 0;
  }

  initialized = true;
  commonData = TalvoProxyCommonData::getInstance();
  if (!commonData) {
    LOGE("TalvoProxyCommonData instance is null");
    return -12;
  }

  LOGD("TalvoProxyStateRequest is initialized");
  return 0;
}

int TalvoProxyStateRequest::deinitialize() {
  if (!initialized) {
    LOGE("TalvoProxyStateRequest is not initialized. Please initialize it first.");
    return 0;
  }

  initialized = false;
  for (auto &entry : stateResultInfoMap) delete entry.second;
  stateResultInfoMap.clear();
  LOGD("TalvoProxyStateRequest is deinitialized");
  return 0;
}

int TalvoProxyStateRequest::requestAppState(std::string appId, bundle *data,
                                            talvo_proxy_result_cb callback, void *userData) {
  // A null commonData (its instance could not be made) counts as not initialised.
  if (!initialized || !commonData) {
    LOGE("Talvo Proxy State is not initialized");
    return -1073741825;
  }

  LOGD("In requestAppState function for app:%s", appId.c_str());

  bool running = false;
  if (app_manager_is_running(appId.c_str(), &running) != 0) {
    LOGE("Failed to get app running status");
    return -1073741826;
  }
  if (!running) {
    LOGE("App state request recieved for app:%s, but app is not running", appId.c_str());
    return -1073741825;
  }

  std::unique_ptr<StateRequestResultInfo> info(new (std::nothrow) StateRequestResultInfo());
  if (!info) {
    LOGE("StateRequestResultInfo is null");
    return -12;
  }
  info->callback = callback;
  info->userData = userData;

  // A pending request of the same app is replaced; its callback is never called.
  StateRequestResultInfo *&slot = stateResultInfoMap[appId];
  delete slot;
  slot = info.release();  // the map owns it now

  // The bundle refuses keys that exist, so the caller's own values win.
  bundle_add_str(data, "actionId", "getAppContext");
  bundle_add_str(data, "type", "PunchIn");

  return commonData->ExtractMetaData(appId, data) ? 0 : -12;
}

void TalvoProxyStateRequest::_processAppStateResult(std::string appId, bundle *result,
                                                    const char *appContextText) {
  char *statusCode = nullptr;
  char *statusMsg = nullptr;
  bundle_get_str(result, "status_code", &statusCode);
  bundle_get_str(result, "status_msg", &statusMsg);

  LOGD("Request Execution Result Recieved from %s", appId.c_str());
  LOGD("Status Code:%s", talvo::NullSafe(statusCode));
  LOGD("Status Message:%s", talvo::NullSafe(statusMsg));
  LOGD("[Received App Context Data]------------------------------------------------");

  auto it = stateResultInfoMap.find(appId);
  if (it == stateResultInfoMap.end()) {
    LOGE("No app state callback registered by talvo client for app:%s", appId.c_str());
    LOGD("Function _processAppResult End");
    return;
  }

  MetaDataInfo *metaData = commonData ? commonData->GetMetaDataInfo(appId) : nullptr;
  if (!metaData || !metaData->metadataValue) {
    LOGE("MetaDataInfo is null");
    return;
  }

  if (!it->second) {
    LOGE("StateRequestResultInfo is null");
    return;
  }

  // The entry leaves the map before the client is called: a callback that starts a new
  // request for the same app records it in a fresh entry, which stays pending, and this
  // dispatch touches only the record it holds.
  std::unique_ptr<StateRequestResultInfo> info(it->second);
  stateResultInfoMap.erase(it);

  const char *contextText = appContextText ? appContextText : "";
  ParserPtr parser(json_parser_new());
  JsonObject *context = nullptr;
  if (nestsDeeperThan(contextText, kMaxContextDepth)) {
    LOGE("appContext of app:%s nests deeper than %d levels; not parsed", appId.c_str(),
         kMaxContextDepth);
  } else if (json_parser_load_from_data(parser.get(), contextText, -1, nullptr)) {
    JsonNode *root = json_parser_get_root(parser.get());
    if (root && JSON_NODE_HOLDS_OBJECT(root)) context = json_node_get_object(root);
  }

  const char *version = metaData->metadataValue->versionValue;
  const char *capsuleId = metaData->metadataValue->capsuleIdValue;
  bool hasConcepts = context && json_object_has_member(context, "concepts");
  // An answer without "status_code" does not report success, so it needs no "concepts".
  bool reportsSuccess = statusCode && strcmp(statusCode, kSuccessStatus) == 0;
  bool canBuild = version && *version && capsuleId && *capsuleId &&
                  !(reportsSuccess && !hasConcepts);

  if (canBuild) {
    GTextPtr envelope =
        buildEnvelope(appId, version, capsuleId, context, contextText, hasConcepts);
    bundle_del(result, "appContext");
    bundle_add_str(result, "appContext", envelope.get());
  } else {
    LOGE("JSON parameters error");
    bundle_del(result, "status_code");
    bundle_del(result, "status_msg");
    bundle_del(result, "appContext");
    bundle_add_str(result, "status_code", kFailureStatus);
    bundle_add_str(result, "status_msg", kMissingParameterMsg);
    bundle_add_str(result, "appContext", "");
  }

  if (info->callback) info->callback(appId.c_str(), result, info->userData);

  LOGD("Function _processAppResult End");
}
