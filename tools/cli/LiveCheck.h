// The live half of "talvo-cli check": drives the app through the library's own exported
// functions, exactly as a client would, and explains every answer that does not come or
// does not reach the client as the app meant, from the library's own log lines.
#pragma once

#include <bundle.h>
#include <dlog.h>
#include <glib.h>

#include <map>
#include <string>
#include <vector>

#include "CheckReport.h"
#include "ManifestLint.h"

namespace cli {

class LiveCheck {
 public:
  // answerSeconds: how long to wait for an answer once the app is reachable.
  LiveCheck(const std::string &appId, const ManifestFacts &facts, int answerSeconds,
            CheckReport *report)
      : appId_(appId), facts_(facts), answerSeconds_(answerSeconds), report_(report) {}
  // Runs every live check; stops whatever it started before returning.
  void run();

 private:
  struct Reply {
    int result = 0;     // of the request call
    bool came = false;  // the callback ran
    double seconds = 0;
    std::map<std::string, std::string> strings;
    size_t firstLine = 0;  // log lines from here on belong to this request
    std::string str(const std::string &key) const {
      auto it = strings.find(key);
      return it == strings.end() ? "" : it->second;
    }
    bool has(const std::string &key) const { return strings.count(key) != 0; }
  };

  Reply request(bool context, const std::string &actionId, int timeoutMs);
  bool reach(const Reply *first, bool wasRunning);
  bool focus();
  void checkAction(const std::string &actionId, const Reply &reply);
  void checkContext();
  void checkUnknownRequest();
  std::string whySilent(const Reply &reply, std::string *fix) const;
  // Seconds after since of the first log line at or after from containing needle, or -1.
  double lineAt(const std::string &needle, size_t from, gint64 since) const;
  bool running() const;

  static void onLine(log_priority, const char *tag, const char *message, void *self);
  static void onAnswer(const char *appId, bundle *answer, void *self);

  const std::string &appId_;
  const ManifestFacts &facts_;
  int answerSeconds_;
  CheckReport *report_;  // borrowed
  std::vector<std::pair<gint64, std::string>> lines_;  // monotonic time, message
  Reply *pending_ = nullptr;  // the reply being waited for, owned by the waiting frame
  gint64 started_ = 0;
  size_t chunkedBytes_ = 0;
};

}  // namespace cli
