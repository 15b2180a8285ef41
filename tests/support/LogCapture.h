// Captures this process's log lines through the platform's capture handler while the
// object lives. Each line is kept whole: priority, tag and message; a line of the library
// also has its prefix ("<version text> <source line> <function>(): ") taken apart, so
// that tests compare records (priority, function, message text) rather than substrings.
#pragma once

#include <dlog.h>
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// The library's tag and the fixed version text at the head of each of its lines.
constexpr char kLibraryTag[] = "TALVO-PROXY";
constexpr char kLibraryVersionText[] = "v1.0-beta.2.3 :  ";

struct LogLine {
  log_priority prio;
  std::string tag, message;
  // Taken from the library's prefix; function is empty when the line has none.
  int sourceLine = 0;
  std::string function = {}, text = {};
};

// A line of the library as a test expects it: priority, function name, message text
// (after the prefix), each compared whole.
struct LogRecord {
  log_priority prio;
  std::string function, text;
};
inline LogRecord LogE(std::string function, std::string text) {
  return {DLOG_ERROR, std::move(function), std::move(text)};
}
inline LogRecord LogI(std::string function, std::string text) {
  return {DLOG_INFO, std::move(function), std::move(text)};
}
inline LogRecord LogD(std::string function, std::string text) {
  return {DLOG_DEBUG, std::move(function), std::move(text)};
}

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
  int size() const { return int(lines_.size()); }
  // All lines, one per row, for failure messages.
  std::string dump() const {
    std::string out;
    for (const LogLine &line : lines_)
      out += std::to_string(line.prio) + " " + line.tag + ": " + line.message + "\n";
    return out;
  }

  // Index of the first library line at or after from that is record, or -1.
  int find(const LogRecord &record, int from = 0) const {
    for (size_t i = from < 0 ? 0 : size_t(from); i < lines_.size(); ++i)
      if (matches(lines_[i], record)) return int(i);
    return -1;
  }
  bool has(const LogRecord &record) const { return find(record) >= 0; }
  int count(const LogRecord &record) const {
    int n = 0;
    for (int i = find(record); i >= 0; i = find(record, i + 1)) ++n;
    return n;
  }
  // Whether the records appear in this order (other lines may come between them), from
  // line from on. The failure names the first record missing and shows every line.
  ::testing::AssertionResult sequence(const std::vector<LogRecord> &records, int from = 0) const {
    int at = from;
    for (const LogRecord &record : records) {
      int found = find(record, at);
      if (found < 0)
        return ::testing::AssertionFailure()
               << "no line " << describe(record) << " at or after line " << at
               << " in order; the log:\n"
               << dump();
      at = found + 1;
    }
    return ::testing::AssertionSuccess();
  }
  // Lines that the library logged from function, from line from on.
  int countFrom(const std::string &function, int from = 0) const {
    int n = 0;
    for (size_t i = from < 0 ? 0 : size_t(from); i < lines_.size(); ++i)
      n += lines_[i].tag == kLibraryTag && lines_[i].function == function;
    return n;
  }
  // Library lines whose prefix is not the library's own (version text, line, function).
  int unprefixed() const {
    int n = 0;
    for (const LogLine &line : lines_)
      if (line.tag == kLibraryTag && line.function.empty()) ++n;
    return n;
  }

  // When set, runs with each message from inside the logging call, that is, inside the
  // event that logs it.
  std::function<void(const std::string &message)> probe;

 private:
  static bool matches(const LogLine &line, const LogRecord &record) {
    return line.tag == kLibraryTag && line.prio == record.prio &&
           line.function == record.function && line.text == record.text;
  }
  static std::string describe(const LogRecord &record) {
    return "(" + std::to_string(record.prio) + ", " + record.function + ", \"" + record.text +
           "\")";
  }
  // Splits "<version text> <digits> <function>(): <text>"; leaves function empty when the
  // message does not have that shape.
  static void parsePrefix(LogLine &line) {
    const std::string head = std::string(kLibraryVersionText) + " ";
    const std::string &m = line.message;
    if (m.compare(0, head.size(), head) != 0) return;
    size_t digits = head.size(), end = digits;
    while (end < m.size() && isdigit(static_cast<unsigned char>(m[end]))) ++end;
    if (end == digits || end >= m.size() || m[end] != ' ') return;
    size_t close = m.find("(): ", end + 1);
    if (close == std::string::npos || close == end + 1) return;
    line.sourceLine = std::stoi(m.substr(digits, end - digits));
    line.function = m.substr(end + 1, close - end - 1);
    line.text = m.substr(close + 4);
  }
  static void onLine(log_priority prio, const char *tag, const char *message, void *self) {
    auto *capture = static_cast<LogCapture *>(self);
    LogLine line{prio, tag ? tag : "", message ? message : "", 0, {}, {}};
    parsePrefix(line);
    capture->lines_.push_back(line);
    if (capture->probe) capture->probe(line.message);
  }
  std::vector<LogLine> lines_;
};

}  // namespace testsupport
