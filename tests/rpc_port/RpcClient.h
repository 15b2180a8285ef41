// A proxy that records its events, the echo protocol of rpc_test_app.c, and a fixture
// with the test app installed as "test.echo".
#pragma once

#include <app_manager.h>
#include <bundle.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <rpc-port.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LoopUntil.h"
#include "TempEnv.h"

namespace rpctest {

enum Command { kResult = 0, kInvoke = 1, kEcho = 1, kCallback = 2, kSilent = 3, kCrash = 4,
               kClose = 5, kWho = 6 };

constexpr const char *kClientId = "test.client";
constexpr const char *kEchoApp = "test.echo";
constexpr const char *kPortName = "echo";

struct ParcelDeleter {
  void operator()(rpc_port_parcel_s *p) const { rpc_port_parcel_destroy(p); }
};
using Parcel = std::unique_ptr<rpc_port_parcel_s, ParcelDeleter>;

struct BundleDeleter {
  void operator()(bundle *b) const { bundle_free(b); }
};
using Bundle = std::unique_ptr<bundle, BundleDeleter>;

inline Parcel NewParcel() {
  rpc_port_parcel_h p = nullptr;
  EXPECT_EQ(rpc_port_parcel_create(&p), 0);
  return Parcel(p);
}

inline Bundle BundleWith(const std::string &value) {
  Bundle b(bundle_create());
  bundle_add_str(b.get(), "v", value.c_str());
  return b;
}

inline std::string ValueOf(bundle *b) {
  char *v = nullptr;
  return b && bundle_get_str(b, "v", &v) == 0 ? v : "<none>";
}

// Sends a command parcel on port: the command, then text and b when given.
inline int SendCommand(rpc_port_h port, int command, const char *text = nullptr,
                       bundle *b = nullptr) {
  Parcel p = NewParcel();
  rpc_port_parcel_write_int32(p.get(), command);
  if (text) rpc_port_parcel_write_string(p.get(), text);
  if (b) rpc_port_parcel_write_bundle(p.get(), b);
  return rpc_port_parcel_send(p.get(), port);
}

// One proxy and what its events reported. Hooks run inside the events, after counting.
class Client {
 public:
  Client() {
    EXPECT_EQ(rpc_port_proxy_create(&proxy), 0);
    rpc_port_proxy_add_connected_event_cb(proxy, OnConnected, this);
    rpc_port_proxy_add_disconnected_event_cb(proxy, OnDisconnected, this);
    rpc_port_proxy_add_rejected_event_cb(proxy, OnRejected, this);
    rpc_port_proxy_add_received_event_cb(proxy, OnReceived, this);
  }
  ~Client() {
    if (proxy) rpc_port_proxy_destroy(proxy);
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  int connect(const char *app = kEchoApp, const char *port_name = kPortName) {
    return rpc_port_proxy_connect(proxy, app, port_name);
  }
  bool waitConnected(int ms = 10000) {
    return testsupport::RunLoopUntil([this] { return connected > 0 || rejected > 0; }, ms) &&
           connected > 0;
  }
  int events() const { return connected + disconnected + rejected + received; }

  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h port = nullptr;  // the main port given by the connected event
  int connected = 0;
  int disconnected = 0;
  int rejected = 0;
  int received = 0;
  std::vector<std::string> invocations;  // "v" of each bundle read from the callback port
  std::function<void()> onConnected, onDisconnected, onRejected, onReceived;

 private:
  static void OnConnected(const char *endpoint, const char *port_name, rpc_port_h port,
                          void *data) {
    Client *c = static_cast<Client *>(data);
    EXPECT_STREQ(port_name, kPortName);
    EXPECT_NE(endpoint, nullptr);
    c->connected++;
    c->port = port;
    if (c->onConnected) c->onConnected();
  }
  static void OnDisconnected(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->disconnected++;
    if (c->onDisconnected) c->onDisconnected();
  }
  static void OnRejected(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->rejected++;
    if (c->onRejected) c->onRejected();
  }
  static void OnReceived(const char *, const char *, void *data) {
    Client *c = static_cast<Client *>(data);
    c->received++;
    if (c->onReceived) {
      c->onReceived();
      return;
    }
    rpc_port_h cb = nullptr;
    rpc_port_parcel_h raw = nullptr;
    ASSERT_EQ(rpc_port_proxy_get_port(c->proxy, RPC_PORT_PORT_CALLBACK, &cb), 0);
    ASSERT_EQ(rpc_port_parcel_create_from_port(&raw, cb), 0);
    Parcel p(raw);
    int command = -1;
    bundle *b = nullptr;
    rpc_port_parcel_read_int32(p.get(), &command);
    rpc_port_parcel_read_bundle(p.get(), &b);
    Bundle owned(b);
    EXPECT_EQ(command, kInvoke);
    c->invocations.push_back(ValueOf(b));
  }
};

class RpcPortFixture : public ::testing::Test {
 protected:
  RpcPortFixture() {
    setenv("VELNA_APP_ID", kClientId, 1);
    unsetenv("RPC_TEST_APP_MODE");
    unsetenv("VELNA_RPC_TIMEOUT_MS");
    env_ = std::make_unique<testsupport::TempEnv>();
  }

  void installEcho(const std::string &allowed = "") {
    testsupport::Manifest m;
    m.appId = kEchoApp;
    m.package = "org.test.echo";
    m.exec = RPC_TEST_APP;
    m.allowedClients = allowed;
    env_->install(m);
  }

  std::unique_ptr<testsupport::TempEnv> env_;
};

}  // namespace rpctest
