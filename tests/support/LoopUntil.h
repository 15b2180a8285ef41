// Bounded waits on the real main loop: run it until a condition holds or a deadline
// passes. Never sleep in tests.
#pragma once

#include <functional>

namespace testsupport {

// Runs velna_main_loop_run until done() is true (checked every 5 ms) or timeoutMs has
// passed. Returns whether done() became true.
bool RunLoopUntil(const std::function<bool()> &done, int timeoutMs);

// Runs the loop for ms milliseconds.
void RunLoopFor(int ms);

}  // namespace testsupport
