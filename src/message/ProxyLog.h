// Logging of the rpc-port proxy: tag "RPC_PORT_PROXY", error priority, and in front of
// every message the base name of the source file, the operation's name and the line.
// Call sites pass only the message text.
#pragma once

#include <dlog.h>

#define RPC_PORT_PROXY_LOG_TAG "RPC_PORT_PROXY"

namespace rpc_port::message::proxy::internal {

// The part of path after its last '/', evaluated at compile time for __FILE__.
constexpr const char *BaseName(const char *path) {
  const char *base = path;
  for (const char *p = path; *p != '\0'; ++p)
    if (*p == '/') base = p + 1;
  return base;
}

}  // namespace rpc_port::message::proxy::internal

#define PROXY_LOGE(fmt, ...)                                                       \
  dlog_print(DLOG_ERROR, RPC_PORT_PROXY_LOG_TAG, "%s: %s(%d) > " fmt,              \
             ::rpc_port::message::proxy::internal::BaseName(__FILE__), __func__, \
             __LINE__, ##__VA_ARGS__)
