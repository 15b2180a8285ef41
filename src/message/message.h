// The library's end of one rpc-port connection to one app over interface "message".
#pragma once

#include <bundle.h>
#include <rpc-port.h>

#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "message/MessageExceptions.h"

namespace rpc_port::message::proxy {

class message {
 public:
  enum class MethodId : int { Result = 0, Callback = 1, SetCB = 2, UnsetCB = 3, Send = 4 };
  enum class DelegateId : int { ResponseCB = 1 };

  // A delegate registered with the app; its (id, seq) identifies it on the wire.
  class CallbackBase {
   public:
    CallbackBase(int delegateId, bool once);
    virtual ~CallbackBase() = default;

    int GetId() const { return id_; }
    int GetSeq() const { return seq_; }
    bool IsOnce() const { return once_; }
    std::string GetTag() const;

    static void Serialize(rpc_port_parcel_h parcel, const CallbackBase &callback);
    static void Deserialize(rpc_port_parcel_h parcel, CallbackBase &callback);

   protected:
    friend class message;
    // Called with the callback parcel positioned after the delegate record.
    virtual void OnReceivedEvent(rpc_port_parcel_h parcel) = 0;

   private:
    int id_;
    int seq_;
    bool once_;
  };

  // The delegate through which the app answers: (sender id, answer bundle).
  class ResponseCB : public CallbackBase {
   public:
    explicit ResponseCB(bool once = false)
        : CallbackBase(static_cast<int>(DelegateId::ResponseCB), once) {}
    virtual ~ResponseCB() = default;

   protected:
    void OnReceivedEvent(rpc_port_parcel_h parcel) override;
    // msg is borrowed: freed by the caller after this returns.
    virtual void OnReceived(std::string id, bundle *msg) {
      (void)id;
      (void)msg;
    }
  };

  class IEventListener {
   public:
    virtual void OnConnected() = 0;
    virtual void OnDisconnected() = 0;
    virtual void OnRejected() = 0;
    virtual ~IEventListener() = default;
  };

  // listener is borrowed and must outlive this object. Throws InvalidIOException when the
  // platform proxy cannot be created.
  message(IEventListener *listener, const std::string &targetAppId);
  virtual ~message();
  message(const message &) = delete;
  message &operator=(const message &) = delete;

  void Connect();
  // Takes callback over (leaving it null) once the request is built; returns the app's
  // answer. Throws NotConnectedSocketException or InvalidProtocolException.
  int SetCB(std::unique_ptr<ResponseCB> &callback);
  int UnsetCB();
  // msg stays the caller's. Throws NotConnectedSocketException.
  void Send(bundle *msg);
  void DisposeCallback(const std::string &tag);

 private:
  static void OnConnectedCB(const char *endpoint, const char *portName, rpc_port_h port,
                            void *data);
  static void OnDisconnectedCB(const char *endpoint, const char *portName, void *data);
  static void OnRejectedCB(const char *endpoint, const char *portName, void *data);
  static void OnReceivedCB(const char *endpoint, const char *portName, void *data);
  void ProcessReceivedEvent(rpc_port_parcel_h parcel);
  // Sends request on the main port and waits for its result, holding mutex_ throughout;
  // *registered (if given) is taken over into delegateList_ first, under the same lock.
  // Returns the app's ret, or nothing when no result parcel arrives.
  std::optional<int> Call(rpc_port_parcel_h request, std::unique_ptr<ResponseCB> *registered);
  rpc_port_parcel_h ConsumeCommand(rpc_port_h port);

  rpc_port_h port_ = nullptr;                 // main port, owned by proxyHandle_
  rpc_port_h callbackPort_ = nullptr;         // owned by proxyHandle_
  rpc_port_proxy_h proxyHandle_ = nullptr;    // owned
  IEventListener *listener_;                  // borrowed
  std::recursive_mutex mutex_;
  std::list<std::unique_ptr<CallbackBase>> delegateList_;
  std::string targetAppId_;
};

}  // namespace rpc_port::message::proxy
