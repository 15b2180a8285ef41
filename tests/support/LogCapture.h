// Captures this process's log lines through the platform's capture handler while the
// object lives.
#pragma once

#include <dlog.h>

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct LogLine {
  log_priority prio;
  std::string tag;
  std::string message;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  const std::vector<LogLine> &lines() const { return lines_; }
  // Lines whose message contains needle (any tag, any priority).
  int count(const std::string &needle) const;
  bool has(const std::string &needle) const { return count(needle) > 0; }
  // Index of the first line at or after from whose message contains needle, or -1.
  int find(const std::string &needle, int from = 0) const;
  void clear() { lines_.clear(); }
  // All lines, one per row, for failure messages.
  std::string dump() const;

  // When set, runs with each message from inside the logging call, that is, inside the
  // event that logs it.
  std::function<void(const std::string &message)> probe;

 private:
  static void onLine(log_priority prio, const char *tag, const char *message, void *self);
  std::vector<LogLine> lines_;
};

}  // namespace testsupport
