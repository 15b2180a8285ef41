// This process's log lines while the object lives, each whole; a library line's prefix
// ("<version text> <source line> <function>(): ") is taken apart to compare records.
#pragma once

#include <dlog.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

constexpr char kLibraryTag[] = "TALVO-PROXY";
constexpr char kLibraryVersionText[] = "v1.0-beta.2.3 :  ";

struct LogLine {
  log_priority prio;
  std::string tag, message;
  std::string function = {}, text = {};  // from the library's prefix; empty without one
};

// A line of the library as a test expects it, each part compared whole.
struct LogRecord {
  log_priority prio;
  std::string function, text;
};
inline LogRecord LogE(std::string f, std::string t) { return {DLOG_ERROR, f, t}; }
inline LogRecord LogI(std::string f, std::string t) { return {DLOG_INFO, f, t}; }
inline LogRecord LogD(std::string f, std::string t) { return {DLOG_DEBUG, f, t}; }

class LogCapture {
 public:
  using Match = std::function<bool(const LogLine &)>;

  LogCapture() { dlog_set_capture_handler(&LogCapture::onLine, this); }
  ~LogCapture() { dlog_set_capture_handler(nullptr, nullptr); }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // A text matches every line whose message contains it (any tag, any priority); a record
  // matches a library line whole.
  static Match matcher(const std::string &needle) {
    return [needle](const LogLine &l) { return l.message.find(needle) != std::string::npos; };
  }
  static Match matcher(const LogRecord &r) {
    return [r](const LogLine &l) {
      return l.tag == kLibraryTag && l.prio == r.prio && l.function == r.function &&
             l.text == r.text;
    };
  }

  // Index of the first matching line at or after from, or -1.
  template <typename Needle>
  int find(const Needle &needle, int from = 0) const {
    const Match match = matcher(needle);
    for (size_t i = size_t(std::max(from, 0)); i < lines_.size(); ++i)
      if (match(lines_[i])) return int(i);
    return -1;
  }
  template <typename Needle>
  bool has(const Needle &needle) const { return find(needle) >= 0; }
  template <typename Needle>
  int count(const Needle &needle, int from = 0) const {
    int n = 0;
    for (int i = find(needle, from); i >= 0; i = find(needle, i + 1)) ++n;
    return n;
  }
  // Lines that the library logged from function, from line from on; function "": lines
  // without the library's prefix.
  int countFrom(const std::string &function, int from = 0) const {
    return count(Match([&](const LogLine &l) {
                   return l.tag == kLibraryTag && l.function == function;
                 }), from);
  }
  // Whether the records appear in this order from line from on (other lines may come
  // between them). The failure names the first record missing and shows every line.
  ::testing::AssertionResult sequence(const std::vector<LogRecord> &records, int from = 0) const {
    for (const LogRecord &r : records) {
      int found = find(r, from);
      if (found < 0)
        return ::testing::AssertionFailure()
               << "no line (" << r.prio << ", " << r.function << ", \"" << r.text
               << "\") at or after line " << from << " in order; the log:\n" << dump();
      from = found + 1;
    }
    return ::testing::AssertionSuccess();
  }

  const std::vector<LogLine> &lines() const { return lines_; }
  void clear() { lines_.clear(); }
  int size() const { return int(lines_.size()); }
  // All lines, one per row, for failure messages.
  std::string dump() const {
    std::string out;
    for (const LogLine &l : lines_)
      out += std::to_string(l.prio) + " " + l.tag + ": " + l.message + "\n";
    return out;
  }

  // When set, runs with each message inside the logging call, so inside the event logging it.
  std::function<void(const std::string &message)> probe;

 private:
  static Match matcher(const Match &match) { return match; }
  // Splits "<version text> <digits> <function>(): <text>"; leaves function empty when the
  // message does not have that shape.
  static void parsePrefix(LogLine &line) {
    const std::string head = std::string(kLibraryVersionText) + " ", &m = line.message;
    const size_t end = m.find_first_not_of("0123456789", head.size());
    const size_t close = end == std::string::npos ? end : m.find("(): ", end);
    if (m.compare(0, head.size(), head) != 0 || end == head.size() || close == std::string::npos ||
        m[end] != ' ' || close == end + 1)
      return;
    line.function = m.substr(end + 1, close - end - 1);
    line.text = m.substr(close + 4);
  }
  static void onLine(log_priority prio, const char *tag, const char *message, void *self) {
    auto *capture = static_cast<LogCapture *>(self);
    LogLine line{prio, tag ? tag : "", message ? message : "", {}, {}};
    parsePrefix(line);
    capture->lines_.push_back(line);
    if (capture->probe) capture->probe(line.message);
  }
  std::vector<LogLine> lines_;
};

}  // namespace testsupport
