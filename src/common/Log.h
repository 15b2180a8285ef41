// The library's logging: tag "TALVO-PROXY", the fixed version text, the source line and
// the function's name in front of every message. Call sites pass only the message text.
#pragma once

#include <dlog.h>

#define TALVO_LOG_TAG "TALVO-PROXY"
#define TALVO_VERSION_TEXT "v1.0-beta.2.3 :  "

#define TALVO_LOG(prio, fmt, ...)                                                   \
  dlog_print(prio, TALVO_LOG_TAG, "%s %d %s(): " fmt, TALVO_VERSION_TEXT, __LINE__, \
             __func__, ##__VA_ARGS__)
#define LOGD(fmt, ...) TALVO_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) TALVO_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) TALVO_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)

namespace talvo {
// Absent strings are logged as "(null)".
inline const char *NullSafe(const char *text) { return text ? text : "(null)"; }
}  // namespace talvo
