#include "LoopUntil.h"

#include <velna_main_loop.h>

namespace testsupport {

bool RunLoopUntil(const std::function<bool()> &done, int timeoutMs) {
  auto check = [](void *data) { return (*static_cast<const std::function<bool()> *>(data))(); };
  return velna_main_loop_run_until(check, const_cast<std::function<bool()> *>(&done),
                                   timeoutMs) == 1;
}

void RunLoopFor(int ms) {
  RunLoopUntil([] { return false; }, ms);
}

}  // namespace testsupport
