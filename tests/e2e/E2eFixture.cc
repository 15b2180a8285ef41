#include "E2eFixture.h"

#include <app_control.h>
#include <app_manager.h>
#include <message_port.h>
#include <stdlib.h>
#include <velna_main_loop.h>

#include "LoopUntil.h"

namespace e2e {

std::vector<Call> E2eFixture::calls;

namespace {

constexpr const char kSdkKey[] = "http://velna.org/velna/metadata/talvo/sdk/version";
constexpr const char kVersionKey[] = "http://velna.org/velna/metadata/talvo/companion-app/version";
constexpr const char kCapsuleKey[] =
    "http://velna.org/velna/metadata/talvo/companion-app/capsule-id";

void CopyEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *call = static_cast<Call *>(data);
  auto *keyval = const_cast<bundle_keyval_t *>(kv);
  if (type != BUNDLE_TYPE_STR || bundle_keyval_type_is_array(keyval))
    return;
  void *value = nullptr;
  size_t size = 0;
  bundle_keyval_get_basic_val(keyval, &value, &size);
  call->strings[key] = static_cast<const char *>(value);
}

void Record(const char *kind, const char *appId, bundle *result, void *userData) {
  Call call;
  call.appId = appId ? appId : "";
  call.userData = std::string(kind) + (userData ? static_cast<const char *>(userData) : "");
  bundle_foreach(result, CopyEntry, &call);
  E2eFixture::calls.push_back(call);
}

}  // namespace

BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries) {
  BundlePtr b(bundle_create());
  for (const auto &entry : entries)
    bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str());
  return b;
}

void E2eFixture::SetUp() {
  setenv("VELNA_APP_ID", kClientId, 1);
  bus = std::make_unique<testsupport::BusFixture>();
  wm = std::make_unique<testsupport::WmSim>(*bus);
  env = std::make_unique<testsupport::TempEnv>();
  ASSERT_EQ(0, velna_main_loop_init());
  ASSERT_EQ(0, talvo_proxy_initialize());
}

void E2eFixture::TearDown() {
  talvo_proxy_deinitialize();
  env.reset();
  wm.reset();
  // The bus stays until the process ends: the library's connection lives as long.
}

void E2eFixture::installPortApp() {
  env->install({kPortApp, kPortApp, "", PORT_COMPANION_EXEC, "",
                {{kVersionKey, "1.0.0"}, {kCapsuleKey, "sample.port.capsule"},
                 {kSdkKey, "1.0-alpha"}}});
}

void E2eFixture::installRpcApp() {
  env->install({kRpcApp, kRpcApp, "", RPC_COMPANION_EXEC, "",
                {{kVersionKey, "1.1.0"}, {kCapsuleKey, "sample.rpc.capsule"},
                 {kSdkKey, "1.1.0"}}});
}

void E2eFixture::installAliasApp() {
  env->install({kAliasApp, "org.velna.samplehost.alias", "org.velna.sample.alias",
                ALIAS_COMPANION_EXEC, "",
                {{kVersionKey, "2.0.0"}, {kCapsuleKey, "sample.alias.capsule"},
                 {kSdkKey, "1.1.0"}}});
}

void E2eFixture::startApp(const std::string &appId, bool waitForPort) {
  app_control_h control = nullptr;
  ASSERT_EQ(0, app_control_create(&control));
  app_control_set_app_id(control, appId.c_str());
  int ret = app_control_send_launch_request(control, nullptr, nullptr);
  app_control_destroy(control);
  ASSERT_EQ(0, ret);

  ASSERT_TRUE(testsupport::RunLoopUntil(
      [&] {
        bool ready = false;
        if (waitForPort)
          message_port_check_remote_port(appId.c_str(), "TALVO_APP_SDK_PORT_516", &ready);
        else
          app_manager_is_running(appId.c_str(), &ready);
        return ready;
      },
      10000));
}

void E2eFixture::onAction(const char *appId, bundle *result, void *userData) {
  Record("action:", appId, result, userData);
}

void E2eFixture::onState(const char *appId, bundle *result, void *userData) {
  Record("state:", appId, result, userData);
}

bool E2eFixture::waitForCalls(size_t n, int timeoutMs) {
  return testsupport::RunLoopUntil([&] { return calls.size() >= n; }, timeoutMs);
}

}  // namespace e2e
