// Bounded waits on the real main loop: run it until a condition holds or a deadline
// passes. Never sleep in tests.
#pragma once

#include <velna_main_loop.h>

#include <functional>

namespace testsupport {

// Runs the loop until done() is true (checked every 5 ms) or timeoutMs has passed.
// Returns whether done() became true.
inline bool RunLoopUntil(const std::function<bool()> &done, int timeoutMs) {
  auto check = [](void *data) { return (*static_cast<const std::function<bool()> *>(data))(); };
  auto *data = const_cast<std::function<bool()> *>(&done);
  return velna_main_loop_run_until(check, data, timeoutMs) == 1;
}

inline void RunLoopFor(int ms) { RunLoopUntil([] { return false; }, ms); }

}  // namespace testsupport
