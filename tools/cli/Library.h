// The library's lifetime in this process, shared by every request of talvo-cli, and the
// log lines it writes that explain an answer that never reached its callback.
#pragma once

#include <string>
#include <vector>

namespace cli {

class Library {
 public:
  // talvo_proxy_initialize on the first use in the process: 0, or its result.
  static int acquire();
  // talvo_proxy_deinitialize once the last user is gone.
  static void release();

  // Starts keeping the library's and the platform's lines that tell why an answer was
  // dropped or never sent. Idempotent.
  static void watchLog();
  // A mark in the kept lines, taken when a request is sent.
  static size_t logMark();
  // The kept lines after mark that concern appId (or name no app), oldest first, without
  // their source prefix.
  static std::vector<std::string> dropReasons(const std::string &appId, size_t mark);
};

}  // namespace cli
