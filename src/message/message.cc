#include "message/message.h"

#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <optional>
#include <utility>

#include "common/PlatformPtr.h"
#include "message/ProxyLog.h"

namespace rpc_port::message::proxy {

namespace {

// Sequence numbers of delegates: shared by every delegate of every connection of the
// process, so that (id, seq) names one delegate instance.
std::atomic<int> sequenceCounter{0};

constexpr const char *kPortName = "message";

using talvo::BundlePtr;
using talvo::ParcelPtr;

// A new parcel holding the command of a request, or null when the platform cannot make one.
ParcelPtr NewRequest(message::MethodId command) {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create(&parcel) != 0) return nullptr;
  rpc_port_parcel_write_int32(parcel, static_cast<int>(command));
  return ParcelPtr(parcel);
}

}  // namespace

message::CallbackBase::CallbackBase(int delegateId, bool once)
    : id_(delegateId), seq_(sequenceCounter.fetch_add(1)), once_(once) {}

std::string message::CallbackBase::GetTag() const {
  char tag[32];
  std::snprintf(tag, sizeof(tag), "%d::%d", id_, seq_);
  return tag;
}

void message::CallbackBase::Serialize(rpc_port_parcel_h parcel, const CallbackBase &callback) {
  rpc_port_parcel_write_int32(parcel, callback.id_);
  rpc_port_parcel_write_int32(parcel, callback.seq_);
  rpc_port_parcel_write_bool(parcel, callback.once_);
}

void message::CallbackBase::Deserialize(rpc_port_parcel_h parcel, CallbackBase &callback) {
  int id = 0;
  int seq = 0;
  bool once = false;
  rpc_port_parcel_read_int32(parcel, &id);
  rpc_port_parcel_read_int32(parcel, &seq);
  rpc_port_parcel_read_bool(parcel, &once);
  callback.id_ = id;
  callback.seq_ = seq;
  callback.once_ = once;
}

// Arguments (id string, answer bundle). The bundle is lent to OnReceived and freed here
// when it returns; a receiver that keeps it must copy it during the call.
void message::ResponseCB::OnReceivedEvent(rpc_port_parcel_h parcel) {
  char *rawId = nullptr;
  rpc_port_parcel_read_string(parcel, &rawId);
  if (!rawId) {
    // Without the sender's id the answer cannot be attributed: drop the whole invocation.
    PROXY_LOGE("Failed to read the id of callback %s, dropped", GetTag().c_str());
    return;
  }
  std::string id(rawId);
  free(rawId);

  bundle *rawMsg = nullptr;
  rpc_port_parcel_read_bundle(parcel, &rawMsg);
  BundlePtr msg(rawMsg);

  OnReceived(std::move(id), msg.get());
}

message::message(IEventListener *listener, const std::string &targetAppId)
    : listener_(listener), targetAppId_(targetAppId) {
  if (rpc_port_proxy_create(&proxyHandle_) != 0) {
    proxyHandle_ = nullptr;
    PROXY_LOGE("Failed to create proxy");
    throw InvalidIOException();
  }

  rpc_port_proxy_add_connected_event_cb(proxyHandle_, OnConnectedCB, this);
  rpc_port_proxy_add_disconnected_event_cb(proxyHandle_, OnDisconnectedCB, this);
  rpc_port_proxy_add_rejected_event_cb(proxyHandle_, OnRejectedCB, this);
  rpc_port_proxy_add_received_event_cb(proxyHandle_, OnReceivedCB, this);
}

// No event arrives once the platform proxy is destroyed; then the app id and the
// delegates are released (member order).
message::~message() {
  if (proxyHandle_) rpc_port_proxy_destroy(proxyHandle_);
}

void message::Connect() {
  int ret = rpc_port_proxy_connect(proxyHandle_, targetAppId_.c_str(), kPortName);
  if (ret == 0) return;

  PROXY_LOGE("Failed to connect message");
  switch (ret) {
    case -5:
      throw InvalidIOException();
    case -13:
      throw PermissionDeniedException();
    case -22:
      throw InvalidIDException();
    default:
      return;
  }
}

int message::SetCB(std::unique_ptr<ResponseCB> &callback) {
  if (!port_) {
    PROXY_LOGE("Not connected");
    throw NotConnectedSocketException();
  }

  if (!callback) {
    PROXY_LOGE("Invalid callback");
    throw InvalidProtocolException();
  }

  ParcelPtr request = NewRequest(MethodId::SetCB);
  if (!request) {
    PROXY_LOGE("Failed to create parcel");
    throw InvalidProtocolException();
  }
  CallbackBase::Serialize(request.get(), *callback);

  // Registered before the app answers, and kept whatever it answers.
  std::optional<int> ret = Call(request.get(), &callback);
  if (!ret) {
    PROXY_LOGE("Invalid protocol");
    throw InvalidProtocolException();
  }
  return *ret;
}

// Leaves the local delegate list as it is: invocations that still arrive are dispatched.
int message::UnsetCB() {
  if (!port_) {
    PROXY_LOGE("Not connected");
    throw NotConnectedSocketException();
  }

  ParcelPtr request = NewRequest(MethodId::UnsetCB);
  if (!request) {
    PROXY_LOGE("Failed to create parcel");
    throw InvalidProtocolException();
  }

  std::optional<int> ret = Call(request.get(), nullptr);
  if (!ret) {
    PROXY_LOGE("Invalid protocol");
    throw InvalidProtocolException();
  }
  return *ret;
}

std::optional<int> message::Call(rpc_port_parcel_h request,
                                 std::unique_ptr<ResponseCB> *registered) {
  ParcelPtr result;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (registered) delegateList_.push_back(std::move(*registered));
    rpc_port_parcel_send(request, port_);
    result.reset(ConsumeCommand(port_));
  }
  if (!result) return std::nullopt;

  int ret = 0;
  rpc_port_parcel_read_int32(result.get(), &ret);
  return ret;
}

// One-way: the app answers later through the ResponseCB delegate.
void message::Send(bundle *msg) {
  if (!port_) {
    PROXY_LOGE("Not connected");
    throw NotConnectedSocketException();
  }

  ParcelPtr request = NewRequest(MethodId::Send);
  if (!request) {
    PROXY_LOGE("Failed to create parcel");
    throw InvalidProtocolException();
  }
  rpc_port_parcel_write_bundle(request.get(), msg);

  std::lock_guard<std::recursive_mutex> lock(mutex_);
  rpc_port_parcel_send(request.get(), port_);
}

void message::DisposeCallback(const std::string &tag) {
  for (auto it = delegateList_.begin(); it != delegateList_.end(); ++it) {
    if ((*it)->GetTag() == tag) {
      delegateList_.erase(it);
      return;
    }
  }
}

void message::OnConnectedCB(const char *endpoint, const char *portName, rpc_port_h port,
                            void *data) {
  (void)endpoint;
  (void)portName;
  try {
    auto *self = static_cast<message *>(data);
    self->port_ = port;
    rpc_port_h callbackPort = nullptr;
    rpc_port_proxy_get_port(self->proxyHandle_, RPC_PORT_PORT_CALLBACK, &callbackPort);
    self->callbackPort_ = callbackPort;
    if (self->listener_) self->listener_->OnConnected();
  } catch (...) {
    PROXY_LOGE("Exception in the connected event");
  }
}

// The ports keep their values: the listener is expected to discard this object.
void message::OnDisconnectedCB(const char *endpoint, const char *portName, void *data) {
  (void)endpoint;
  (void)portName;
  try {
    auto *self = static_cast<message *>(data);
    self->delegateList_.clear();
    if (self->listener_) self->listener_->OnDisconnected();
  } catch (...) {
    PROXY_LOGE("Exception in the disconnected event");
  }
}

void message::OnRejectedCB(const char *endpoint, const char *portName, void *data) {
  (void)endpoint;
  (void)portName;
  try {
    auto *self = static_cast<message *>(data);
    if (self->listener_) self->listener_->OnRejected();
  } catch (...) {
    PROXY_LOGE("Exception in the rejected event");
  }
}

// A parcel waits on the callback port: a delegate invocation, or something to drop.
void message::OnReceivedCB(const char *endpoint, const char *portName, void *data) {
  (void)endpoint;
  (void)portName;
  try {
    auto *self = static_cast<message *>(data);
    rpc_port_parcel_h raw = nullptr;
    if (rpc_port_parcel_create_from_port(&raw, self->callbackPort_) != 0) {
      PROXY_LOGE("Failed to create parcel from port");
      return;
    }
    ParcelPtr parcel(raw);

    int command = 0;
    rpc_port_parcel_read_int32(parcel.get(), &command);
    if (command == static_cast<int>(MethodId::Callback)) self->ProcessReceivedEvent(parcel.get());
  } catch (...) {
    PROXY_LOGE("Exception in the received event");
  }
}

void message::ProcessReceivedEvent(rpc_port_parcel_h parcel) {
  int id = 0;
  int seq = 0;
  bool once = false;
  rpc_port_parcel_read_int32(parcel, &id);
  rpc_port_parcel_read_int32(parcel, &seq);
  rpc_port_parcel_read_bool(parcel, &once);  // the app's view; the delegate's own flag rules

  CallbackBase *target = nullptr;
  for (const auto &delegate : delegateList_) {
    if (delegate->GetId() == id && delegate->GetSeq() == seq) {
      target = delegate.get();
      break;
    }
  }
  if (!target) return;

  bool dropAfterwards = target->IsOnce();
  target->OnReceivedEvent(parcel);
  if (!dropAfterwards) return;

  // Looked up again: the receiver may have disposed of the delegate itself.
  for (auto it = delegateList_.begin(); it != delegateList_.end(); ++it) {
    if (it->get() == target) {
      delegateList_.erase(it);
      return;
    }
  }
}

// The next Result parcel on the main port (owned by the caller), discarding parcels with
// other commands; null once no parcel can be read (peer gone or silent too long).
rpc_port_parcel_h message::ConsumeCommand(rpc_port_h port) {
  for (;;) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create_from_port(&parcel, port) != 0) return nullptr;

    int command = 0;
    rpc_port_parcel_read_int32(parcel, &command);
    if (command == static_cast<int>(MethodId::Result)) return parcel;

    rpc_port_parcel_destroy(parcel);
  }
}

}  // namespace rpc_port::message::proxy
