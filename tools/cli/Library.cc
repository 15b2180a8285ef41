#include "Library.h"

#include <dlog.h>
#include <talvo_proxy.h>

#include <cstring>

namespace cli {

namespace {

int users = 0;
bool watching = false;
size_t dropped = 0;                // lines pushed out of kept by the bound below
std::vector<std::string> kept;    // explaining lines, oldest first
const size_t kMaxKept = 200;

// Lines that explain a missing answer; the first group names the app.
const char *const kAboutApp[] = {
    "No action execute callback registered",
    "No app state callback registered",
    "Unknown message recieved from app:",
    "fail to connect after focused",
    "is not connected",
    "message_port_send_message error",
    "cannot launch",
    "Couldn't find corresponding map entry",
};
const char *const kGeneral[] = {
    "FocusedAppId is null",
    "ClientsInfo is null",
    "Fail to monitor app launch",
    "Failed to NotConnectedSocketException",
    "Failed to InvalidProtocolException",
    "MetaDataInfo is null",
};

bool Matches(const char *message) {
  for (const char *pattern : kAboutApp)
    if (std::strstr(message, pattern)) return true;
  for (const char *pattern : kGeneral)
    if (std::strstr(message, pattern)) return true;
  return false;
}

// The message without the library's "<version> <line> <function>(): " prefix.
std::string WithoutPrefix(const char *message) {
  const char *body = std::strstr(message, "(): ");
  return body ? body + 4 : message;
}

void OnLogLine(log_priority, const char *tag, const char *message, void *) {
  if (!message || !tag || (std::strcmp(tag, "TALVO-PROXY") && std::strcmp(tag, "VELNA")))
    return;
  if (!Matches(message)) return;
  kept.push_back(WithoutPrefix(message));
  if (kept.size() > kMaxKept) {
    kept.erase(kept.begin());
    ++dropped;
  }
}

}  // namespace

int Library::acquire() {
  if (users++ > 0) return 0;
  int r = talvo_proxy_initialize();
  if (r != 0) users = 0;
  return r;
}

void Library::release() {
  if (users > 0 && --users == 0) talvo_proxy_deinitialize();
}

void Library::watchLog() {
  if (watching) return;
  watching = true;
  dlog_set_capture_handler(OnLogLine, nullptr);
}

size_t Library::logMark() { return dropped + kept.size(); }

std::vector<std::string> Library::dropReasons(const std::string &appId, size_t mark) {
  std::vector<std::string> reasons;
  for (size_t i = mark > dropped ? mark - dropped : 0; i < kept.size(); ++i) {
    bool general = false;
    for (const char *pattern : kGeneral) general = general || kept[i].find(pattern) == 0;
    if (general || kept[i].find(appId) != std::string::npos) reasons.push_back(kept[i]);
  }
  return reasons;
}

}  // namespace cli
