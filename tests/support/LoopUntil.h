// Bounded waits on the real main loop: run it until a condition holds or a deadline
// passes. Never sleep in tests.
#pragma once

#include <velna_main_loop.h>

#include <functional>

namespace testsupport {

// Whether done(), checked every 5 ms, became true within timeoutMs of running the loop.
inline bool RunLoopUntil(const std::function<bool()> &done, int timeoutMs) {
  auto check = [](void *data) { return (*static_cast<const std::function<bool()> *>(data))(); };
  auto *data = const_cast<std::function<bool()> *>(&done);
  return velna_main_loop_run_until(check, data, timeoutMs) == 1;
}

inline void RunLoopFor(int ms) { RunLoopUntil([] { return false; }, ms); }

}  // namespace testsupport
