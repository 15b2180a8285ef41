// The main loop: GLib sources and ecore timers on one loop, also with GLib descriptors
// beyond the fd_set limit, and quit with its flush hooks.
#include <Ecore.h>
#include <glib-unix.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <vector>

#include "LoopUntil.h"

extern "C" {
#include "main_loop_internal.h"
}

namespace {

gboolean Count(gpointer counter) {
  ++*static_cast<int *>(counter);
  return G_SOURCE_REMOVE;
}

Eina_Bool Tick(void *counter) {
  ++*static_cast<int *>(counter);
  return ECORE_CALLBACK_RENEW;
}

}  // namespace

TEST(MainLoop, DispatchesGlibDescriptorsAboveTheFdSetLimit) {
  ASSERT_EQ(0, velna_main_loop_init());
  rlimit lim;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lim));
  if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max < 2200) GTEST_SKIP() << "hard limit too low";
  lim.rlim_cur = 2200;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lim));

  // 600 pipes, each read end watched by GLib: well over 1024 descriptors.
  int fds[2], fired = 0, ticks = 0;
  for (int i = 0; i < 600; ++i) {
    ASSERT_EQ(0, pipe(fds));
    g_unix_fd_add(fds[0], G_IO_IN, [](gint, GIOCondition, gpointer d) { return Count(d); }, &fired);
  }
  ASSERT_GT(fds[0], 1100);
  Ecore_Timer *timer = ecore_timer_add(0.01, Tick, &ticks);
  ASSERT_EQ(1, write(fds[1], "x", 1));
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return fired && ticks; }, 5000));
  ecore_timer_del(timer);
}

namespace {
std::vector<int> flushBudgets;
void RecordFlush(int timeoutMs) { flushBudgets.push_back(timeoutMs); }
}  // namespace

TEST(MainLoop, QuitRunsFlushHooksOnceWithinTheirBudgetBeforeTheLoopReturns) {
  velna_main_loop_add_flush_hook(RecordFlush);
  velna_main_loop_add_flush_hook(RecordFlush);  // the same hook once
  testsupport::RunLoopFor(10);
  ASSERT_EQ(1u, flushBudgets.size());
  EXPECT_GT(flushBudgets[0], 1000);
  EXPECT_LE(flushBudgets[0], 2000);
}
