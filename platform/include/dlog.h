/* Logging service: one whole line per call, "<L>/<TAG>(<pid>): <message>". */
#ifndef VELNA_DLOG_H
#define VELNA_DLOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef enum {
        DLOG_UNKNOWN = 0,
        DLOG_DEFAULT = 1,
        DLOG_VERBOSE = 2,
        DLOG_DEBUG = 3,
        DLOG_INFO = 4,
        DLOG_WARN = 5,
        DLOG_ERROR = 6,
        DLOG_FATAL = 7,
        DLOG_SILENT = 8,
} log_priority;

/* Formats one line and writes it with a single write(2) to VELNA_LOG_FILE (opened
 * O_APPEND) or to stderr, when prio is at or above VELNA_LOG_LEVEL (default info).
 * Returns the number of bytes of the message, 0 for a line below the level that was
 * dropped unformatted (no capture handler installed), or a negative errno value. */
int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
        __attribute__((format(printf, 3, 4)));
int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
        __attribute__((format(printf, 3, 0)));

/* Extension for tests: the handler sees every line of this process, whatever the level
 * says. message is borrowed, valid until the handler returns; it holds the formatted
 * message without the "<L>/<TAG>(<pid>): " prefix and without the newline.
 * A null handler removes the current one. */
typedef void (*dlog_capture_cb)(log_priority prio, const char *tag, const char *message,
                                void *user_data);
void dlog_set_capture_handler(dlog_capture_cb handler, void *user_data);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
