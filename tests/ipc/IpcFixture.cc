#include "IpcFixture.h"

#include <string.h>
#include <velna_main_loop.h>

#include "LoopUntil.h"

namespace ipctest {

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

int IpcFixture::send(const std::string &appId, bundle *request, bool isStateRequest) {
  TalvoProxyCommonData::getInstance()->ExtractMetaData(appId, request);
  return ipc->sendData(appId, request, isStateRequest);
}

bool IpcFixture::waitForAnswers(size_t n, int timeoutMs) {
  return testsupport::RunLoopUntil([&] { return answers.size() >= n; }, timeoutMs);
}

void IpcFixture::onAnswer(std::string appId, bundle *result, void *self) {
  static_cast<IpcFixture *>(self)->answers.push_back(testsupport::CopyAnswer(appId.c_str(), result));
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
