// The one wait of 30 s: a target that runs but never opens the port.
#include <gtest/gtest.h>

#include "RpcClient.h"

using namespace rpctest;

namespace {

class RpcPortSlow : public RpcPortFixture {};

TEST_F(RpcPortSlow, TargetThatRunsButNeverListensIsRejectedAfterThirtySeconds) {
  installEcho();
  setenv("RPC_TEST_APP_MODE", "idle", 1);
  Client c;
  ASSERT_EQ(c.connect(), 0);
  gint64 start = g_get_monotonic_time();

  ASSERT_FALSE(testsupport::RunLoopUntil([&] { return c.events() > 0; }, 28000))
      << "rejected early";
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return c.rejected > 0; }, 10000));
  gint64 waited_s = (g_get_monotonic_time() - start) / G_USEC_PER_SEC;
  EXPECT_GE(waited_s, 29);
  EXPECT_LT(waited_s, 38);
  EXPECT_EQ(c.connected, 0);

  bool running = false;
  app_manager_is_running(kEchoApp, &running);
  EXPECT_TRUE(running) << "the app itself stays; only the connection is given up";
}

}  // namespace
