#include "IpcFixture.h"

#include <stdlib.h>
#include <string.h>
#include <velna_main_loop.h>

#include "LoopUntil.h"

namespace ipctest {

namespace {

void CopyEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
  auto *answer = static_cast<Answer *>(data);
  auto *keyval = const_cast<bundle_keyval_t *>(kv);
  if (bundle_keyval_type_is_array(keyval))
    return;
  void *value = nullptr;
  size_t size = 0;
  bundle_keyval_get_basic_val(keyval, &value, &size);
  if (type == BUNDLE_TYPE_BYTE)
    answer->bytes[key] = size;
  else
    answer->strings[key] = static_cast<const char *>(value);
}

}  // namespace

Answer CopyAnswer(const std::string &appId, bundle *b) {
  Answer answer;
  answer.appId = appId;
  bundle_foreach(b, CopyEntry, &answer);
  return answer;
}

BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries) {
  BundlePtr b(bundle_create());
  for (const auto &entry : entries)
    bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str());
  return b;
}

void IpcFixture::SetUp() {
  setenv("VELNA_APP_ID", kClientId, 1);
  env = std::make_unique<testsupport::TempEnv>();
  ASSERT_EQ(0, velna_main_loop_init());
  ipc = TalvoProxyIpc::getInstance();
  ASSERT_NE(nullptr, ipc);
  ASSERT_EQ(0, ipc->initialize());
  ASSERT_EQ(0, ipc->setIPCMessageReceivedCallback(&IpcFixture::onAnswer, this));
}

void IpcFixture::TearDown() {
  ipc->deinitialize();
  env.reset();
}

void IpcFixture::installPortApp(const std::string &exec) {
  env->install({kPortApp, kPortApp, "", exec, "", {{kSdkKey, "1.0-alpha"}}});
}

void IpcFixture::installRpcApp(const std::string &exec) {
  env->install({kRpcApp, kRpcApp, "", exec, "", {{kSdkKey, "1.1.0"}}});
}

int IpcFixture::send(const std::string &appId, bundle *request, bool isStateRequest) {
  TalvoProxyCommonData::getInstance()->ExtractMetaData(appId, request);
  return ipc->sendData(appId, request, isStateRequest);
}

bool IpcFixture::waitForAnswers(size_t n, int timeoutMs) {
  return testsupport::RunLoopUntil([&] { return answers.size() >= n; }, timeoutMs);
}

void IpcFixture::onAnswer(std::string appId, bundle *result, void *self) {
  static_cast<IpcFixture *>(self)->answers.push_back(CopyAnswer(appId, result));
}

LineProbe::LineProbe(std::string needle, std::function<void()> probe)
    : needle_(std::move(needle)), probe_(std::move(probe)) {
  dlog_set_capture_handler(&LineProbe::onLine, this);
}

LineProbe::~LineProbe() { dlog_set_capture_handler(nullptr, nullptr); }

void LineProbe::onLine(log_priority, const char *, const char *message, void *self) {
  auto *probe = static_cast<LineProbe *>(self);
  if (probe->fired_ || !message || !strstr(message, probe->needle_.c_str()))
    return;
  probe->fired_ = true;
  probe->probe_();
}

}  // namespace ipctest
