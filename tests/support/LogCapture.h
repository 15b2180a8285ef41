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
  std::string tag, message;
};

class LogCapture {
 public:
  LogCapture() { dlog_set_capture_handler(&LogCapture::onLine, this); }
  ~LogCapture() { dlog_set_capture_handler(nullptr, nullptr); }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  const std::vector<LogLine> &lines() const { return lines_; }
  // Index of the first line at or after from whose message contains needle, or -1.
  int find(const std::string &needle, int from = 0) const {
    for (size_t i = from < 0 ? 0 : size_t(from); i < lines_.size(); ++i)
      if (lines_[i].message.find(needle) != std::string::npos) return int(i);
    return -1;
  }
  bool has(const std::string &needle) const { return find(needle) >= 0; }
  // Lines whose message contains needle (any tag, any priority).
  int count(const std::string &needle) const {
    int n = 0;
    for (int i = find(needle); i >= 0; i = find(needle, i + 1)) ++n;
    return n;
  }
  void clear() { lines_.clear(); }
  // All lines, one per row, for failure messages.
  std::string dump() const {
    std::string out;
    for (const LogLine &line : lines_)
      out += std::to_string(line.prio) + " " + line.tag + ": " + line.message + "\n";
    return out;
  }

  // When set, runs with each message from inside the logging call, that is, inside the
  // event that logs it.
  std::function<void(const std::string &message)> probe;

 private:
  static void onLine(log_priority prio, const char *tag, const char *message, void *self) {
    auto *capture = static_cast<LogCapture *>(self);
    LogLine line{prio, tag ? tag : "", message ? message : ""};
    capture->lines_.push_back(line);
    if (capture->probe) capture->probe(line.message);
  }
  std::vector<LogLine> lines_;
};

}  // namespace testsupport
