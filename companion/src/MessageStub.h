// The serving side of interface "message" for companion apps reached over rpc-port:
// answers SetCB and UnsetCB with a result parcel, hands each Send bundle to the app, and
// lets the app invoke the ResponseCB delegates that a connection registered.
// Runs on the app's GLib main loop (velna_main_loop_run).
#pragma once

#include <bundle.h>
#include <rpc-port.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace companion {

class MessageStub {
 public:
  // Called for every Send: sender is the client's app id as the platform established it,
  // instance names the connection, msg is borrowed for the call.
  using SendHandler =
      std::function<void(const std::string &sender, const std::string &instance, bundle *msg)>;
  using ConnectionHandler =
      std::function<void(const std::string &sender, const std::string &instance)>;

  MessageStub() = default;
  ~MessageStub();
  MessageStub(const MessageStub &) = delete;
  MessageStub &operator=(const MessageStub &) = delete;

  void setSendHandler(SendHandler handler) { onSend_ = std::move(handler); }
  void setConnectedHandler(ConnectionHandler handler) { onConnected_ = std::move(handler); }
  void setDisconnectedHandler(ConnectionHandler handler) { onDisconnected_ = std::move(handler); }
  // The value that SetCB and UnsetCB answer with (default 0).
  void setRegisterResult(int ret) { registerResult_ = ret; }

  // Creates the stub on port "message" and listens. 0 or a negative errno value.
  int listen();

  // Invokes every ResponseCB delegate (delegate id 1) registered by that connection with
  // (id, answer), on its callback channel; id is the answering app's own app id. answer
  // stays the caller's. Returns the number of delegates invoked, or a negative errno value
  // (-ENOENT for an instance that is not connected).
  int respond(const std::string &instance, const std::string &id, bundle *answer);

  // The connections open now.
  std::vector<std::string> instances() const;

 private:
  struct Delegate {
    int id;
    int seq;
    bool once;
  };

  static void onConnectedCb(const char *sender, const char *instance, void *self);
  static void onDisconnectedCb(const char *sender, const char *instance, void *self);
  static int onReceivedCb(const char *sender, const char *instance, rpc_port_h port,
                          void *self);
  int handleParcel(const std::string &sender, const std::string &instance,
                   rpc_port_parcel_h parcel, rpc_port_h port);

  rpc_port_stub_h stub_ = nullptr;  // owned
  SendHandler onSend_;
  ConnectionHandler onConnected_;
  ConnectionHandler onDisconnected_;
  int registerResult_ = 0;
  std::map<std::string, std::vector<Delegate>> delegates_;  // by instance
};

}  // namespace companion
