// talvo-demo: one client session through the library's six functions against the sample
// companion apps. scripts/demo.sh prepares what it runs in (temporary runtime and apps
// directories with the sample manifests, a private bus, the window-manager simulator) and
// removes it afterwards. Exits non-zero when a step did not give the expected answer.
#include <glib-unix.h>
#include <velna_main_loop.h>

#include <cstdio>

#include "DemoSession.h"

namespace {

demo::DemoSession *running;

gboolean OnInterrupt(gpointer) {
  std::fprintf(stderr, "\ninterrupted: ending the sample apps\n");
  running->interrupt();
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
  demo::DemoSession session{demo::DemoSession::Apps{}};
  running = &session;
  // ecore resets signal handlers when it starts, so the handlers come after it.
  velna_main_loop_init();
  g_unix_signal_add(SIGINT, OnInterrupt, nullptr);
  g_unix_signal_add(SIGTERM, OnInterrupt, nullptr);

  std::printf("Talvo proxy demo: one client, three sample companion apps, a private bus and "
              "a window-manager simulator\n\n");
  int failed = session.run();
  session.terminateApps();
  if (session.interrupted()) return 130;
  return failed == 0 ? 0 : 1;
}
