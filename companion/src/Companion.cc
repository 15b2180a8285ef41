#include "Companion.h"

#include <errno.h>
#include <message_port.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "Log.h"

namespace companion {

namespace {

const char kPortName[] = "TALVO_APP_SDK_PORT_516";

std::string GetString(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 && value ? value : "";
}

// The library marks a context request with "type" = "PunchIn" and, unless the client set
// its own, "actionId" = "getAppContext".
bool IsContextRequest(bundle *request) {
  return GetString(request, "type") == "PunchIn" ||
         GetString(request, "actionId") == "getAppContext";
}

}  // namespace

Companion *Companion::live_ = nullptr;

int Companion::create(talvo_companion_request_cb onAction, talvo_companion_request_cb onContext,
                      void *userData, Companion **out) {
  if (!onAction || !onContext || !out) {
    COMPANION_LOGE("A companion needs an action handler, a context handler and an out "
                   "pointer (%s is null)",
                   !onAction ? "on_action" : !onContext ? "on_context" : "companion");
    return -EINVAL;
  }
  if (live_) {
    COMPANION_LOGE("A companion object exists already: one serves the whole process");
    return -EBUSY;
  }
  auto *self = new (std::nothrow) Companion();
  if (!self) return -ENOMEM;
  int r = self->manifest_.load();
  if (r != 0) {
    delete self;
    return r;
  }
  self->onAction_ = onAction;
  self->onContext_ = onContext;
  self->userData_ = userData;
  self->mechanism_ = self->manifest_.viaRpcPort ? TALVO_COMPANION_MECHANISM_RPC_PORT
                                                : TALVO_COMPANION_MECHANISM_MESSAGE_PORT;
  self->stub_.setSendHandler([self](const std::string &sender, const std::string &instance,
                                    bundle *msg) { self->onRequest(sender, instance, msg); });
  self->stub_.setDisconnectedHandler(
      [self](const std::string &sender, const std::string &instance) {
        self->onDisconnected(sender, instance);
      });
  live_ = self;
  *out = self;
  return 0;
}

Companion::~Companion() {
  // The port cannot be unregistered: what arrives from now on finds no object and is
  // dropped.
  if (portRegistered_) message_port_register_local_port(kPortName, onPortMessage, nullptr);
  if (!pending_.empty())
    COMPANION_LOGD("%zu answers dropped with the companion", pending_.size());
  if (live_ == this) live_ = nullptr;
}

int Companion::setMechanism(talvo_companion_mechanism_e mechanism) {
  if (started_) {
    COMPANION_LOGE("The mechanism is chosen before talvo_companion_start");
    return -EBUSY;
  }
  if (mechanism == TALVO_COMPANION_MECHANISM_FROM_MANIFEST)
    mechanism = manifest_.viaRpcPort ? TALVO_COMPANION_MECHANISM_RPC_PORT
                                     : TALVO_COMPANION_MECHANISM_MESSAGE_PORT;
  if (mechanism != TALVO_COMPANION_MECHANISM_MESSAGE_PORT &&
      mechanism != TALVO_COMPANION_MECHANISM_RPC_PORT) {
    COMPANION_LOGE("Unknown mechanism %d", static_cast<int>(mechanism));
    return -EINVAL;
  }
  if ((mechanism == TALVO_COMPANION_MECHANISM_RPC_PORT) != manifest_.viaRpcPort)
    COMPANION_LOGW("Serving %s although the manifest of %s selects %s: the library will not "
                   "reach this app",
                   mechanism == TALVO_COMPANION_MECHANISM_RPC_PORT ? "rpc-port" : "the message port",
                   manifest_.appId.c_str(),
                   manifest_.viaRpcPort ? "rpc-port" : "the message port");
  mechanism_ = mechanism;
  return 0;
}

int Companion::setChunkSize(size_t bytes) {
  if (bytes == 0) {
    COMPANION_LOGE("A chunk holds at least one byte");
    return -EINVAL;
  }
  chunkSize_ = bytes;
  return 0;
}

void Companion::setDisconnected(talvo_companion_disconnected_cb callback, void *userData) {
  onDisconnected_ = callback;
  disconnectedData_ = userData;
}

int Companion::start() {
  if (started_) {
    COMPANION_LOGE("The companion of %s serves already", manifest_.appId.c_str());
    return -EALREADY;
  }
  if (mechanism_ == TALVO_COMPANION_MECHANISM_RPC_PORT) {
    int r = stub_.listen();
    if (r != 0) return r;
  } else {
    int id = message_port_register_local_port(kPortName, onPortMessage, this);
    if (id < 0) {
      COMPANION_LOGE("Cannot register the port %s for %s: %d", kPortName,
                     manifest_.appId.c_str(), id);
      return id;
    }
    portRegistered_ = true;
  }
  started_ = true;
  COMPANION_LOGD("%s serves over %s", manifest_.appId.c_str(),
                 mechanism_ == TALVO_COMPANION_MECHANISM_RPC_PORT ? "rpc-port \"message\""
                                                                  : kPortName);
  return 0;
}

void Companion::onPortMessage(int, const char *sender, const char *, bool, bundle *message,
                              void *self) {
  if (!self) return;  // the companion has been destroyed
  if (!sender) {
    COMPANION_LOGE("A request without a sender app id cannot be answered; dropped");
    return;
  }
  try {
    static_cast<Companion *>(self)->onRequest(sender, "", message);
  } catch (...) {
    COMPANION_LOGE("Exception while serving %s", sender);
  }
}

void Companion::onRequest(const std::string &client, const std::string &instance,
                          bundle *request) {
  uintptr_t handle = nextHandle_++;
  Pending &pending = pending_[handle];
  pending.context = IsContextRequest(request);
  pending.client = client;
  pending.instance = instance;
  pending.requestNamesMetadata = !GetString(request, "capsuleId").empty() &&
                                 !GetString(request, "appVersion").empty() &&
                                 !GetString(request, "appSdkVersion").empty();
  COMPANION_LOGD("%s request from %s", pending.context ? "Context" : "Action", client.c_str());
  // The handler may answer, drop or keep the answer; pending may be gone afterwards.
  (pending.context ? onContext_ : onAction_)(client.c_str(), request,
                                             reinterpret_cast<talvo_companion_answer_h>(handle),
                                             userData_);
}

void Companion::onDisconnected(const std::string &client, const std::string &instance) {
  for (auto &entry : pending_)
    if (entry.second.instance == instance) entry.second.clientGone = true;
  if (onDisconnected_) onDisconnected_(client.c_str(), disconnectedData_);
}

Companion::Pending *Companion::find(talvo_companion_answer_h answer, const char *operation) {
  auto entry = pending_.find(reinterpret_cast<uintptr_t>(answer));
  if (entry == pending_.end()) {
    COMPANION_LOGE("%s: answer %p was already sent or dropped", operation,
                   static_cast<void *>(answer));
    return nullptr;
  }
  return &entry->second;
}

int Companion::setStatus(talvo_companion_answer_h answer, const char *code, const char *message) {
  Pending *pending = find(answer, "set_status");
  if (!pending) return -EALREADY;
  if (!code || !*code) {
    COMPANION_LOGE("A status code is needed (for example ACTION_EXECUTION_SUCCESS)");
    return -EINVAL;
  }
  pending->content.statusCode = code;
  pending->content.statusMsg = message ? message : "";
  return 0;
}

int Companion::addExtra(talvo_companion_answer_h answer, const char *key, const char *value) {
  Pending *pending = find(answer, "add_str");
  if (!pending) return -EALREADY;
  if (!key || !*key || !value || IsReservedKey(key)) {
    COMPANION_LOGE("Key %s cannot be added: %s", key ? key : "(null)",
                   key && value ? "the SDK writes it itself" : "null key or value");
    return -EINVAL;
  }
  for (const auto &extra : pending->content.extras)
    if (extra.first == key) return -EEXIST;
  pending->content.extras.emplace_back(key, value);
  return 0;
}

int Companion::send(talvo_companion_answer_h answer, bool context, const char *text,
                    bool checked) {
  Pending *pending = find(answer, context ? "send_context" : "send_result");
  if (!pending) return -EALREADY;
  if (!text) {
    COMPANION_LOGE("The %s text is null", context ? "context" : "result");
    return -EINVAL;
  }
  if (context != pending->context) {
    COMPANION_LOGE("This is %s request from %s: answer it with talvo_companion_answer_%s",
                   pending->context ? "a context" : "an action", pending->client.c_str(),
                   pending->context ? "send_context" : "send_result");
    return -EINVAL;
  }
  if (context && checked) {
    std::string problem = ContextProblem(pending->content.statusCode, text);
    if (!problem.empty()) {
      COMPANION_LOGE("Context refused: %s", problem.c_str());
      return -EINVAL;
    }
  }
  if (context && !pending->requestNamesMetadata &&
      (manifest_.version.empty() || manifest_.capsuleId.empty()))
    COMPANION_LOGE("The client will get \"Json failure because of missing parameter\": the "
                   "manifest declares no companion-app/%s",
                   manifest_.version.empty() ? "version" : "capsule-id");

  const Pending done = std::move(*pending);
  pending_.erase(reinterpret_cast<uintptr_t>(answer));
  const AnswerKeys &keys = context ? kContextKeys : kResultKeys;
  return mechanism_ == TALVO_COMPANION_MECHANISM_RPC_PORT ? sendOverRpc(done, keys, text)
                                                          : sendOverPort(done, keys, text);
}

void Companion::drop(talvo_companion_answer_h answer) {
  if (find(answer, "drop")) pending_.erase(reinterpret_cast<uintptr_t>(answer));
}

// A text above the chunk size goes out as pieces in order, each with the marker "false"
// but the last, which says "true" and carries the status and extras.
int Companion::sendOverPort(const Pending &pending, const AnswerKeys &keys, const char *text) {
  const size_t size = std::strlen(text);
  size_t offset = 0;
  do {
    const bool chunked = size > chunkSize_;
    const size_t piece = chunked ? std::min(chunkSize_, size - offset) : size;
    const bool last = offset + piece >= size;
    BundlePtr message = last ? FinalMessage(pending.content, keys, chunked ? nullptr : text)
                             : BundlePtr(bundle_create());
    if (!message) return -ENOMEM;
    if (chunked) {
      bundle_add_byte(message.get(), keys.piece, text + offset, piece);
      bundle_add_str(message.get(), keys.marker, last ? "true" : "false");
    }
    int r = message_port_send_message(pending.client.c_str(), kPortName, message.get());
    if (r != 0) {
      COMPANION_LOGE("Cannot answer %s on its port %s: %d", pending.client.c_str(), kPortName, r);
      return r;
    }
    offset += piece;
  } while (offset < size);
  return 0;
}

// The answer names this app: the library routes it by that id.
int Companion::sendOverRpc(const Pending &pending, const AnswerKeys &keys, const char *text) {
  if (pending.clientGone) {
    COMPANION_LOGE("Client %s disconnected before the answer", pending.client.c_str());
    return -ENOTCONN;
  }
  BundlePtr message = FinalMessage(pending.content, keys, text);
  if (!message) return -ENOMEM;
  int invoked = stub_.respond(pending.instance, manifest_.appId, message.get());
  if (invoked == 0 || invoked == -ENOENT) {
    COMPANION_LOGE("Client %s has no callback registered to answer on", pending.client.c_str());
    return -ENOTCONN;
  }
  if (invoked < 0) COMPANION_LOGE("Cannot answer %s: %d", pending.client.c_str(), invoked);
  return invoked < 0 ? invoked : 0;
}

}  // namespace companion
