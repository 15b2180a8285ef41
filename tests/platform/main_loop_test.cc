// The main loop: GLib sources and ecore timers and descriptors on one loop, beyond the
// fd_set limit, and quit with its flush hooks.
#include <Ecore.h>
#include <glib-unix.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <string>
#include <vector>

#include "LoopUntil.h"

// Internal interfaces of the platform layer (C, without C++ guards).
extern "C" {
#include "main_loop_internal.h"
}

namespace {

struct Counts {
  int idle = 0, timeout = 0, ecoreTimer = 0, ecoreFd = 0;
};

}  // namespace

TEST(MainLoop, GlibIdleGlibTimeoutEcoreTimerAndEcoreFdAllFireOnOneLoop) {
  ASSERT_EQ(0, velna_main_loop_init());
  Counts c;
  g_idle_add(
      [](gpointer d) {
        static_cast<Counts *>(d)->idle++;
        return gboolean(G_SOURCE_REMOVE);
      },
      &c);
  g_timeout_add(
      30,
      [](gpointer d) {
        static_cast<Counts *>(d)->timeout++;
        return gboolean(G_SOURCE_REMOVE);
      },
      &c);
  Ecore_Timer *timer = ecore_timer_add(
      0.02,
      [](void *d) -> Eina_Bool {
        static_cast<Counts *>(d)->ecoreTimer++;
        return ECORE_CALLBACK_RENEW;
      },
      &c);
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  Ecore_Fd_Handler *handler = ecore_main_fd_handler_add(
      fds[0], ECORE_FD_READ,
      [](void *d, Ecore_Fd_Handler *h) -> Eina_Bool {
        char byte;
        if (read(ecore_main_fd_handler_fd_get(h), &byte, 1) == 1) static_cast<Counts *>(d)->ecoreFd++;
        return ECORE_CALLBACK_RENEW;
      },
      &c, nullptr, nullptr);
  ASSERT_EQ(1, write(fds[1], "x", 1));

  EXPECT_TRUE(testsupport::RunLoopUntil(
      [&] { return c.idle && c.timeout && c.ecoreTimer >= 2 && c.ecoreFd; }, 5000))
      << c.idle << " " << c.timeout << " " << c.ecoreTimer << " " << c.ecoreFd;
  EXPECT_EQ(1, c.idle);
  EXPECT_EQ(1, c.timeout);
  EXPECT_EQ(1, c.ecoreFd);

  // The loop runs again after it returned, timers and all.
  int before = c.ecoreTimer;
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return c.ecoreTimer > before; }, 5000));
  ecore_main_fd_handler_del(handler);
  ecore_timer_del(timer);
  close(fds[0]);
  close(fds[1]);
}

TEST(MainLoop, DispatchesGlibDescriptorsAboveTheFdSetLimit) {
  ASSERT_EQ(0, velna_main_loop_init());
  rlimit lim;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lim));
  if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max < 2200) GTEST_SKIP() << "hard limit too low";
  lim.rlim_cur = 2200;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lim));

  // 600 pipes, each read end watched by GLib: well over 1024 descriptors.
  std::vector<int> readEnds, writeEnds;
  std::vector<guint> sources;
  int fired = -1;
  for (int i = 0; i < 600; ++i) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    readEnds.push_back(fds[0]);
    writeEnds.push_back(fds[1]);
    sources.push_back(g_unix_fd_add(
        fds[0], G_IO_IN,
        [](gint fd, GIOCondition, gpointer d) {
          char byte;
          if (read(fd, &byte, 1) == 1) *static_cast<int *>(d) = fd;
          return gboolean(G_SOURCE_CONTINUE);
        },
        &fired));
  }
  ASSERT_GT(readEnds.back(), 1100);
  bool timerFired = false;
  Ecore_Timer *timer = ecore_timer_add(
      0.01,
      [](void *d) -> Eina_Bool {
        *static_cast<bool *>(d) = true;
        return ECORE_CALLBACK_CANCEL;
      },
      &timerFired);

  ASSERT_EQ(1, write(writeEnds.back(), "x", 1));
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return fired == readEnds.back() && timerFired; },
                                        5000));
  ASSERT_EQ(1, write(writeEnds[3], "x", 1));
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return fired == readEnds[3]; }, 5000));

  if (!timerFired) ecore_timer_del(timer);
  for (guint s : sources) g_source_remove(s);
  for (int fd : readEnds) close(fd);
  for (int fd : writeEnds) close(fd);
}

namespace {
std::vector<int> flushBudgets;
void RecordFlush(int timeoutMs) { flushBudgets.push_back(timeoutMs); }
}  // namespace

TEST(MainLoop, QuitRunsFlushHooksWithinTheirBudgetBeforeTheLoopReturns) {
  velna_main_loop_add_flush_hook(RecordFlush);
  velna_main_loop_add_flush_hook(RecordFlush);  // the same hook once
  testsupport::RunLoopFor(10);
  ASSERT_EQ(1u, flushBudgets.size());
  EXPECT_GT(flushBudgets[0], 1000);
  EXPECT_LE(flushBudgets[0], 2000);
}
