// Start and stop of TalvoProxyIpc with records in every registry.
#include <stdlib.h>

#include "IpcFixture.h"
#include "LoopUntil.h"

namespace ipctest {
namespace {

class IpcLifecycle : public IpcFixture {};

TEST_F(IpcLifecycle, DeinitializeReleasesLaunchAndClientRecordsButNotFocusWaits) {
  setenv("TALVO_SAMPLE_NO_PORT", "1", 1);
  setenv("TALVO_SAMPLE_NO_LISTEN", "1", 1);
  installPortApp();
  installRpcApp();

  // The rpc-port app first: the launch ticks read the mechanism of the latest send.
  BundlePtr rpcRequest = MakeBundle({{"actionId", "a"}});
  BundlePtr portRequest = MakeBundle({{"actionId", "b"}});
  ASSERT_EQ(0, send(kRpcApp, rpcRequest.get()));
  ASSERT_EQ(0, send(kPortApp, portRequest.get()));
  ASSERT_EQ(0, ipc->_monitorAppFocused("org.velna.test.alias", portRequest.get()));
  ASSERT_EQ(2u, ipc->appLaunchInfoMap.size());
  ASSERT_EQ(1u, ipc->clientsMap.size());

  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(ipc->appLaunchInfoMap.empty());
  EXPECT_TRUE(ipc->clientsMap.empty());
  ASSERT_EQ(1u, ipc->appFocusedInfoMap.size());
  EXPECT_NE(nullptr, ipc->appFocusedInfoMap.begin()->second->timer);
  EXPECT_EQ(0, ipc->localPortId);

  // Nothing of the launch waits runs any more; the focus wait does (and ends, since this
  // process has no bus to ask for the focus).
  int mark = static_cast<int>(log.lines().size());
  testsupport::RunLoopFor(800);
  EXPECT_EQ(-1, log.find("_appLaunchMonitoringCb", mark));
  EXPECT_NE(-1, log.find("_appFocusedMonitoringCb", mark));
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(ipc->appFocusedInfoMap.empty());

  // Stop twice, then start again: the port is registered anew.
  EXPECT_EQ(0, ipc->deinitialize());
  EXPECT_TRUE(log.has("TalvoProxyIpc is not initialized. Please initialize at first."));
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_GT(ipc->localPortId, 0);
  EXPECT_EQ(0, ipc->initialize());
  EXPECT_TRUE(log.has("TalvoProxyIpc has been already initialized"));
}

}  // namespace
}  // namespace ipctest
