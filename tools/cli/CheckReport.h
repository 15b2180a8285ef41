// The checklist that "talvo-cli check" prints: one line per check with its verdict, and
// for each failure (or warning) a one-line fix.
#pragma once

#include <json-glib/json-glib.h>

#include <string>
#include <vector>

namespace cli {

class CheckReport {
 public:
  enum class Verdict { Pass, Warn, Fail };
  struct Item {
    std::string area;  // "manifest" or "live"
    Verdict verdict;
    std::string what;  // what was found, one line
    std::string fix;   // how to fix it, one line; empty for a pass
  };

  explicit CheckReport(std::string appId) : appId_(std::move(appId)) {}

  void setArea(const std::string &area) { area_ = area; }
  void pass(const std::string &what) { items_.push_back({area_, Verdict::Pass, what, ""}); }
  void warn(const std::string &what, const std::string &fix = "") {
    items_.push_back({area_, Verdict::Warn, what, fix});
  }
  void fail(const std::string &what, const std::string &fix) {
    items_.push_back({area_, Verdict::Fail, what, fix});
  }

  bool failed() const;
  // The checklist as text lines, or as one JSON document (newly made, the caller's).
  std::string text() const;
  JsonNode *json() const;

 private:
  std::string appId_;
  std::string area_ = "manifest";
  std::vector<Item> items_;
};

}  // namespace cli
