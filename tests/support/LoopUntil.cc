#include "LoopUntil.h"

#include <glib.h>
#include <velna_main_loop.h>

namespace testsupport {

namespace {

struct Wait {
  const std::function<bool()> *done;
  gint64 deadline;
  bool satisfied = false;
  bool finished = false;
};

gboolean checkWait(gpointer data) {
  Wait *wait = static_cast<Wait *>(data);
  if ((*wait->done)()) {
    wait->satisfied = true;
  } else if (g_get_monotonic_time() < wait->deadline) {
    return G_SOURCE_CONTINUE;
  }
  wait->finished = true;
  velna_main_loop_quit();
  return G_SOURCE_REMOVE;
}

}  // namespace

bool RunLoopUntil(const std::function<bool()> &done, int timeoutMs) {
  if (done()) return true;
  Wait wait{&done, g_get_monotonic_time() + gint64(timeoutMs) * 1000};
  guint source = g_timeout_add(5, checkWait, &wait);
  velna_main_loop_run();
  if (!wait.finished) g_source_remove(source);  // the loop was ended by someone else
  return wait.satisfied || done();
}

void RunLoopFor(int ms) {
  RunLoopUntil([] { return false; }, ms);
}

}  // namespace testsupport
