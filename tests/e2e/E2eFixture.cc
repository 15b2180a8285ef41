#include "E2eFixture.h"

#include <stdlib.h>
#include <velna_main_loop.h>

#include "LoopUntil.h"

namespace e2e {

std::vector<testsupport::Answer> E2eFixture::calls;

void E2eFixture::SetUp() {
  setenv("VELNA_APP_ID", "org.velna.test.client", 1);
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

void E2eFixture::onAction(const char *appId, bundle *result, void *label) {
  calls.push_back(testsupport::CopyAnswer(appId, result, "action:" + std::string((char *)label)));
}

void E2eFixture::onState(const char *appId, bundle *result, void *label) {
  calls.push_back(testsupport::CopyAnswer(appId, result, "state:" + std::string((char *)label)));
}

bool E2eFixture::waitForCalls(size_t n, int timeoutMs) {
  return testsupport::RunLoopUntil([&] { return calls.size() >= n; }, timeoutMs);
}

}  // namespace e2e
