// The serving side of interface "message", as a companion app implements it.
//
// Wire format (every field in this order, written and read with the rpc_port_parcel_*
// calls). The first int32 of every parcel is the command:
//
//   client -> app, main channel:
//     2 SetCB    int32 delegate id, int32 delegate seq, bool once   -> answered by Result
//     3 UnsetCB  (nothing more)                                      -> answered by Result
//     4 Send     bundle message                                      (no answer)
//   app -> client:
//     0 Result   int32 ret                                   (main channel, to SetCB/UnsetCB)
//     1 Callback int32 id, int32 seq, bool once, string sender id, bundle answer
//                                                            (callback channel)
//
// The client blocks on its main channel from SetCB/UnsetCB until the Result parcel
// arrives, so answer those at once and never send anything else on the main channel.
// Answers to Send bundles go back as Callback parcels that name a delegate (id, seq)
// which that same connection registered with SetCB; the client drops callbacks for
// delegates it does not know.

#include "MessageStub.h"

#include <errno.h>
#include <stdlib.h>

#include <memory>

#include "Log.h"

namespace companion {

namespace {

// Command codes: the first int32 of every parcel.
enum Command : int { kResult = 0, kCallback = 1, kSetCB = 2, kUnsetCB = 3, kSend = 4 };

// The one delegate kind of the interface; its arguments are (string id, bundle answer).
constexpr int kResponseDelegate = 1;

constexpr const char *kPortName = "message";

struct ParcelDeleter {
  void operator()(rpc_port_parcel_s *parcel) const { rpc_port_parcel_destroy(parcel); }
};
using ParcelPtr = std::unique_ptr<rpc_port_parcel_s, ParcelDeleter>;

struct BundleDeleter {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleDeleter>;

// Writes the Result parcel that SetCB and UnsetCB wait for. 0 or a negative errno value.
int sendResult(rpc_port_h port, int ret) {
  rpc_port_parcel_h raw = nullptr;
  int r = rpc_port_parcel_create(&raw);
  if (r != 0) return r;
  ParcelPtr parcel(raw);
  rpc_port_parcel_write_int32(parcel.get(), kResult);
  rpc_port_parcel_write_int32(parcel.get(), ret);
  return rpc_port_parcel_send(parcel.get(), port);
}

}  // namespace

MessageStub::~MessageStub() {
  if (stub_) rpc_port_stub_destroy(stub_);
}

int MessageStub::listen() {
  if (stub_) return -EALREADY;

  rpc_port_stub_h stub = nullptr;
  int r = rpc_port_stub_create(&stub, kPortName);
  if (r != 0) {
    COMPANION_LOGE("Failed to create the stub of port %s: %d", kPortName, r);
    return r;
  }
  rpc_port_stub_add_connected_event_cb(stub, onConnectedCb, this);
  rpc_port_stub_add_disconnected_event_cb(stub, onDisconnectedCb, this);
  rpc_port_stub_add_received_event_cb(stub, onReceivedCb, this);

  r = rpc_port_stub_listen(stub);
  if (r != 0) {
    COMPANION_LOGE("Failed to listen on port %s: %d", kPortName, r);
    rpc_port_stub_destroy(stub);
    return r;
  }
  stub_ = stub;
  return 0;
}

int MessageStub::respond(const std::string &instance, const std::string &id, bundle *answer) {
  auto entry = delegates_.find(instance);
  if (!stub_ || entry == delegates_.end()) return -ENOENT;

  rpc_port_h port = nullptr;
  int r = rpc_port_stub_get_port(stub_, RPC_PORT_PORT_CALLBACK, instance.c_str(), &port);
  if (r != 0) return r;

  // A once delegate is spent by its first invocation; the others stay registered.
  std::vector<Delegate> kept;
  int invoked = 0;
  int failure = 0;
  for (const Delegate &delegate : entry->second) {
    // Another id would be handed arguments of a layout it does not expect.
    if (delegate.id != kResponseDelegate) {
      kept.push_back(delegate);
      continue;
    }

    rpc_port_parcel_h raw = nullptr;
    r = rpc_port_parcel_create(&raw);
    if (r != 0) {
      failure = r;
      kept.push_back(delegate);
      continue;
    }
    ParcelPtr parcel(raw);
    rpc_port_parcel_write_int32(parcel.get(), kCallback);
    rpc_port_parcel_write_int32(parcel.get(), delegate.id);
    rpc_port_parcel_write_int32(parcel.get(), delegate.seq);
    rpc_port_parcel_write_bool(parcel.get(), delegate.once);
    rpc_port_parcel_write_string(parcel.get(), id.c_str());
    rpc_port_parcel_write_bundle(parcel.get(), answer);

    r = rpc_port_parcel_send(parcel.get(), port);
    if (r != 0) {
      failure = r;
      kept.push_back(delegate);
      continue;
    }
    ++invoked;
    if (!delegate.once) kept.push_back(delegate);
  }
  entry->second = std::move(kept);

  if (invoked == 0 && failure != 0) return failure;
  return invoked;
}

std::vector<std::string> MessageStub::instances() const {
  std::vector<std::string> result;
  result.reserve(delegates_.size());
  for (const auto &entry : delegates_) result.push_back(entry.first);
  return result;
}

void MessageStub::onConnectedCb(const char *sender, const char *instance, void *self) {
  try {
    auto *stub = static_cast<MessageStub *>(self);
    stub->delegates_[instance];  // a connection with no delegate yet
    COMPANION_LOGD("Connected: %s (%s)", sender, instance);
    if (stub->onConnected_) stub->onConnected_(sender, instance);
  } catch (...) {
    COMPANION_LOGE("Exception in the connected handler");
  }
}

void MessageStub::onDisconnectedCb(const char *sender, const char *instance, void *self) {
  try {
    auto *stub = static_cast<MessageStub *>(self);
    stub->delegates_.erase(instance);  // its delegates die with the connection
    COMPANION_LOGD("Disconnected: %s (%s)", sender, instance);
    if (stub->onDisconnected_) stub->onDisconnected_(sender, instance);
  } catch (...) {
    COMPANION_LOGE("Exception in the disconnected handler");
  }
}

// Called by the platform when a whole parcel waits on a connection's main channel. A
// non-zero result makes the platform close that connection.
int MessageStub::onReceivedCb(const char *sender, const char *instance, rpc_port_h port,
                              void *self) {
  try {
    rpc_port_parcel_h raw = nullptr;
    int r = rpc_port_parcel_create_from_port(&raw, port);
    if (r != 0) {
      COMPANION_LOGE("Failed to read a parcel from %s (%s): %d", sender, instance, r);
      return r;
    }
    ParcelPtr parcel(raw);
    return static_cast<MessageStub *>(self)->handleParcel(sender, instance, parcel.get(), port);
  } catch (...) {
    // An exception from the app's own handler: the connection itself is still sound.
    COMPANION_LOGE("Exception while serving %s (%s)", sender, instance);
    return 0;
  }
}

int MessageStub::handleParcel(const std::string &sender, const std::string &instance,
                              rpc_port_parcel_h parcel, rpc_port_h port) {
  int command = -1;
  rpc_port_parcel_read_int32(parcel, &command);

  switch (command) {
    case kSetCB: {
      Delegate delegate{0, 0, false};
      rpc_port_parcel_read_int32(parcel, &delegate.id);
      rpc_port_parcel_read_int32(parcel, &delegate.seq);
      rpc_port_parcel_read_bool(parcel, &delegate.once);
      delegates_[instance].push_back(delegate);
      sendResult(port, registerResult_);
      return 0;
    }

    case kUnsetCB:
      delegates_[instance].clear();
      sendResult(port, registerResult_);
      return 0;

    case kSend: {
      bundle *raw = nullptr;
      rpc_port_parcel_read_bundle(parcel, &raw);
      BundlePtr msg(raw);
      if (!msg) {
        COMPANION_LOGE("Send without a readable bundle from %s (%s)", sender.c_str(),
                 instance.c_str());
        return 0;
      }
      if (onSend_) onSend_(sender, instance, msg.get());
      return 0;
    }

    default:
      // The peer does not speak this interface: nothing it sends can be trusted.
      COMPANION_LOGE("Unknown command %d from %s (%s), closing the connection", command,
               sender.c_str(), instance.c_str());
      return -EPROTO;
  }
}

}  // namespace companion
