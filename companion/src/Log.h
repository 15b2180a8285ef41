// One logging macro for the SDK: every line goes to the platform's log under the tag
// "TALVO_COMPANION", prefixed with the function that logs it.
#pragma once

#include <dlog.h>

#define COMPANION_LOG_TAG "TALVO_COMPANION"
#define COMPANION_LOG(prio, fmt, ...) \
  dlog_print(prio, COMPANION_LOG_TAG, "%s(): " fmt, __func__, ##__VA_ARGS__)
#define COMPANION_LOGE(fmt, ...) COMPANION_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)
#define COMPANION_LOGW(fmt, ...) COMPANION_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define COMPANION_LOGD(fmt, ...) COMPANION_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
