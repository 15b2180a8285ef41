#include "LogCapture.h"

namespace testsupport {

LogCapture::LogCapture() { dlog_set_capture_handler(&LogCapture::onLine, this); }

LogCapture::~LogCapture() { dlog_set_capture_handler(nullptr, nullptr); }

void LogCapture::onLine(log_priority prio, const char *tag, const char *message, void *self) {
  auto *capture = static_cast<LogCapture *>(self);
  LogLine line{prio, tag ? tag : "", message ? message : ""};
  capture->lines_.push_back(line);
  if (capture->probe) capture->probe(line.message);
}

int LogCapture::count(const std::string &needle) const {
  int n = 0;
  for (const LogLine &line : lines_)
    if (line.message.find(needle) != std::string::npos) ++n;
  return n;
}

int LogCapture::find(const std::string &needle, int from) const {
  for (size_t i = from < 0 ? 0 : size_t(from); i < lines_.size(); ++i)
    if (lines_[i].message.find(needle) != std::string::npos) return int(i);
  return -1;
}

std::string LogCapture::dump() const {
  std::string out;
  for (const LogLine &line : lines_)
    out += std::to_string(line.prio) + " " + line.tag + ": " + line.message + "\n";
  return out;
}

}  // namespace testsupport
