// The process-wide instance of a component: made on first use under pthread_once with an
// allocation that does not throw. A failed allocation leaves it null for the rest of the
// process (the once-only guard has run); it is never destroyed. A component with a
// private constructor names ProcessWide<itself> as a friend.
#pragma once

#include <pthread.h>

#include <new>

template <typename T>
class ProcessWide {
 public:
  static T *get() {
    if (instance_) return instance_;
    pthread_once(&once_, create);
    return instance_;
  }

 private:
  static void create() { instance_ = new (std::nothrow) T(); }

  static inline T *instance_ = nullptr;
  static inline pthread_once_t once_ = PTHREAD_ONCE_INIT;
};
