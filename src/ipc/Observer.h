// Listens to the connection events of one app's rpc-port proxy. Owned by the app's
// ClientInfo and released with it, before the proxy that borrows it.
#pragma once

#include <string>

#include "message/message.h"

namespace talvo {

class Observer : public rpc_port::message::proxy::message::IEventListener {
 public:
  explicit Observer(const std::string &appId) : appId(appId) {}
  ~Observer() override = default;

  // Registers a ReceivedEvent with the app, marks the client connected and sends the
  // request that waits for this app.
  void OnConnected() override;
  // Both post the removal of the app's client to a later turn of the main loop: the
  // client (and this object) must not be released inside the proxy's own event.
  void OnDisconnected() override;
  void OnRejected() override;

 private:
  // False when the removal record cannot be allocated; the caller logs that under its own
  // name, and the client stays until something else removes it.
  bool postClientRemove();

  std::string appId;  // copy of the app this observer listens to
};

}  // namespace talvo
