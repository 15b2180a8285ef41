// The ResponseCB delegate registered on every rpc-port connection: hands each answer that
// an app sends to TalvoProxyIpc. Owned by the proxy once SetCB has taken it.
#pragma once

#include <bundle.h>

#include <string>

#include "message/message.h"

namespace talvo {

class ReceivedEvent : public rpc_port::message::proxy::message::ResponseCB {
 public:
  // Not a once-only delegate: it stays registered for every answer of the app.
  ReceivedEvent() : ResponseCB(false) {}
  ~ReceivedEvent() override = default;

 protected:
  // id is the answering app's id as the app wrote it; msg is borrowed for the call.
  void OnReceived(std::string id, bundle *msg) override;
};

}  // namespace talvo
