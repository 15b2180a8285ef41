/* Logging service. Each call formats one line "<L>/<TAG>(<pid>): <message>\n" and hands
 * it to the kernel with one write(2): appends of several processes to one O_APPEND file
 * never interleave. A line longer than DLOG_LINE_MAX is cut (and says so) so that it
 * stays one write that a pipe or a file takes whole.
 *
 * Cost: a line below the level, with no capture handler installed, is dropped before
 * anything is formatted: two loads and a compare against the level, which is parsed
 * from VELNA_LOG_LEVEL only when that variable changes (env_internal.h). A printed line
 * is formatted once, into a buffer on the stack behind its prefix, and written with no
 * allocation; the pid in the prefix is cached and renewed in a forked child. */
#include <dlog.h>

#include "env_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#define DLOG_LINE_MAX (64 * 1024)
#define DLOG_STACK_MESSAGE 1024
#define DLOG_CUT_MARK " [cut]\n"

static pthread_mutex_t dlog_lock = PTHREAD_MUTEX_INITIALIZER;
static dlog_capture_cb capture_handler;
static void *capture_user_data;
static bool capture_installed; /* read without the lock on the filtered path */
static char *log_file_path;     /* the VELNA_LOG_FILE that log_file_fd was opened for */
static int log_file_fd = -1;

static velna_env_watch level_env = VELNA_ENV_WATCH("VELNA_LOG_LEVEL");
static velna_env_watch file_env = VELNA_ENV_WATCH("VELNA_LOG_FILE");
static unsigned level_generation; /* of level_env when cached_level was parsed */
static log_priority cached_level;
static pid_t cached_pid;

static void renew_pid(void)
{
        cached_pid = getpid();
}

static pthread_once_t pid_once = PTHREAD_ONCE_INIT;

static void pid_init(void)
{
        renew_pid();
        pthread_atfork(NULL, NULL, renew_pid);
}

static log_priority level_parse(const char *env)
{
        static const struct {
                const char *name;
                log_priority prio;
        } levels[] = {
                { "verbose", DLOG_VERBOSE }, { "debug", DLOG_DEBUG }, { "info", DLOG_INFO },
                { "warn", DLOG_WARN },       { "warning", DLOG_WARN }, { "error", DLOG_ERROR },
                { "fatal", DLOG_FATAL },     { "silent", DLOG_SILENT },
        };

        if (!env || !*env)
                return DLOG_INFO;
        for (size_t i = 0; i < sizeof(levels) / sizeof(levels[0]); i++)
                if (strcasecmp(env, levels[i].name) == 0)
                        return levels[i].prio;
        return DLOG_INFO;
}

/* The lowest priority printed, parsed again only when VELNA_LOG_LEVEL has changed. */
static log_priority current_level(void)
{
        unsigned generation = velna_env_generation(&level_env);
        if (generation != level_generation) {
                cached_level = level_parse(velna_env_get(&level_env));
                level_generation = generation;
        }
        return cached_level;
}

static char priority_letter(log_priority prio)
{
        static const char letters[] = "??VDIWEF";
        return prio >= DLOG_VERBOSE && prio <= DLOG_FATAL ? letters[prio] : 'I';
}

/* The descriptor to print to: VELNA_LOG_FILE (kept open while it names the same file)
 * or stderr. Called with dlog_lock held. */
static int output_fd_locked(void)
{
        const char *path = velna_env_get(&file_env);
        if (!path || !*path)
                return STDERR_FILENO;

        if (log_file_fd >= 0 && log_file_path && strcmp(log_file_path, path) == 0)
                return log_file_fd;

        if (log_file_fd >= 0)
                close(log_file_fd);
        free(log_file_path);
        log_file_path = NULL;

        log_file_fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (log_file_fd < 0)
                return STDERR_FILENO;
        log_file_path = strdup(path);
        return log_file_fd;
}

static int write_whole(int fd, const char *buf, size_t len)
{
        while (len > 0) {
                ssize_t n = write(fd, buf, len);
                if (n < 0 && errno == EINTR)
                        continue;
                if (n <= 0)
                        return -errno;
                buf += n;
                len -= (size_t)n;
        }
        return 0;
}

/* Writes line (len bytes, newline included) once, to the log file or stderr. */
static int write_line(const char *line, size_t len)
{
        pthread_mutex_lock(&dlog_lock);
        int r = write_whole(output_fd_locked(), line, len);
        pthread_mutex_unlock(&dlog_lock);
        return r;
}

/* Hands the message (NUL-terminated, len bytes) to the capture handler, if any. */
static void capture(log_priority prio, const char *tag, const char *message)
{
        pthread_mutex_lock(&dlog_lock);
        dlog_capture_cb handler = capture_handler;
        void *user_data = capture_user_data;
        pthread_mutex_unlock(&dlog_lock);
        if (handler)
                handler(prio, tag, message, user_data);
}

static inline log_priority effective_priority(log_priority prio)
{
        return prio < DLOG_VERBOSE ? DLOG_INFO : prio;
}

/* True when a line of prio is neither printed nor captured: it is dropped unformatted. */
static inline bool line_dropped(log_priority prio)
{
        return effective_priority(prio) < current_level() &&
               !__atomic_load_n(&capture_installed, __ATOMIC_ACQUIRE);
}

/* Appends the decimal digits of v (negative when neg) at out; returns the count. */
static size_t put_decimal(char *out, unsigned long long v, bool neg)
{
        char digits[24];
        size_t n = 0;
        do {
                digits[n++] = (char)('0' + v % 10);
                v /= 10;
        } while (v);
        size_t len = 0;
        if (neg)
                out[len++] = '-';
        while (n)
                out[len++] = digits[--n];
        return len;
}

/* The lines this system prints use %s, %d, %u, %c and %%, with l, ll or z at most; glibc's
 * vsnprintf costs more to set up than such a line takes to write. This formats them into
 * buf and returns the length, the same text vsnprintf gives. -1, with nothing promised
 * about buf, when fmt uses anything else or the text does not fit: the caller then uses
 * vsnprintf with its own copy of the arguments. */
static int format_plain(char *buf, size_t room, const char *fmt, va_list ap)
{
        size_t len = 0;
        for (const char *f = fmt; *f; f++) {
                if (*f != '%') {
                        if (len + 1 >= room)
                                return -1;
                        buf[len++] = *f;
                        continue;
                }
                f++;
                int longs = 0;
                bool size = false;
                if (*f == 'z') {
                        size = true;
                        f++;
                } else {
                        while (*f == 'l' && longs < 2) {
                                longs++;
                                f++;
                        }
                }
                if (*f == '%' && !size && !longs) {
                        if (len + 1 >= room)
                                return -1;
                        buf[len++] = '%';
                        continue;
                }
                if (len + 24 >= room)
                        return -1;
                switch (*f) {
                case 's': {
                        if (size || longs)
                                return -1;
                        const char *str = va_arg(ap, const char *);
                        if (!str)
                                str = "(null)";
                        size_t n = strlen(str);
                        if (len + n >= room)
                                return -1;
                        memcpy(buf + len, str, n);
                        len += n;
                        break;
                }
                case 'c':
                        if (size || longs)
                                return -1;
                        buf[len++] = (char)va_arg(ap, int);
                        break;
                case 'd':
                case 'i': {
                        long long v = size ? (long long)va_arg(ap, ssize_t) :
                                      longs == 2 ? va_arg(ap, long long) :
                                      longs == 1 ? va_arg(ap, long) : va_arg(ap, int);
                        unsigned long long mag = v < 0 ? 0ULL - (unsigned long long)v :
                                                         (unsigned long long)v;
                        len += put_decimal(buf + len, mag, v < 0);
                        break;
                }
                case 'u': {
                        unsigned long long v = size ? va_arg(ap, size_t) :
                                               longs == 2 ? va_arg(ap, unsigned long long) :
                                               longs == 1 ? va_arg(ap, unsigned long) :
                                                            va_arg(ap, unsigned);
                        len += put_decimal(buf + len, v, false);
                        break;
                }
                default:
                        return -1;
                }
        }
        buf[len] = '\0';
        return (int)len;
}

/* "<L>/<TAG>(<pid>): " into buf (room bytes, at least 32); a tag too long for it is
 * cut so that the prefix takes at most room - 1 bytes. Returns its length. */
static size_t put_prefix(char *buf, size_t room, char letter, const char *tag, pid_t pid)
{
        char tail[32];
        tail[0] = '(';
        size_t t = 1 + put_decimal(tail + 1, (unsigned long long)pid, false);
        memcpy(tail + t, "): ", 3);
        t += 3;

        size_t len = 0;
        buf[len++] = letter;
        buf[len++] = '/';
        size_t tag_len = strlen(tag);
        if (len + tag_len > room - 1)
                tag_len = room - 1 - len;
        memcpy(buf + len, tag, tag_len);
        len += tag_len;
        size_t rest = room - 1 - len < t ? room - 1 - len : t;
        memcpy(buf + len, tail, rest);
        return len + rest;
}

int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
{
        if (!fmt || prio < DLOG_UNKNOWN || prio > DLOG_FATAL)
                return -EINVAL;

        log_priority effective = effective_priority(prio);
        bool print = effective >= current_level();
        if (!print && !__atomic_load_n(&capture_installed, __ATOMIC_ACQUIRE))
                return 0;
        if (!tag)
                tag = "";

        /* The line is built in one buffer: prefix, message, newline. The message is
         * formatted once where it fits; a longer one gets a buffer of its own. */
        pthread_once(&pid_once, pid_init);
        char stack[DLOG_STACK_MESSAGE];
        size_t plen = put_prefix(stack, sizeof(stack) / 4, priority_letter(effective), tag,
                                 cached_pid);

        char *line = stack;
        size_t room = sizeof(stack) - plen;
        va_list plain;
        va_copy(plain, ap);
        int n = format_plain(stack + plen, room, fmt, plain);
        va_end(plain);
        if (n < 0) {
                va_list again;
                va_copy(again, ap);
                n = vsnprintf(stack + plen, room, fmt, ap);
                if (n >= 0 && (size_t)n >= room) {
                        line = malloc(plen + (size_t)n + 1);
                        if (line) {
                                memcpy(line, stack, plen);
                                vsnprintf(line + plen, (size_t)n + 1, fmt, again);
                        }
                }
                va_end(again);
        }
        if (n < 0 || !line)
                return n < 0 ? -EINVAL : -ENOMEM;

        char *message = line + plen;
        capture(prio, tag, message);

        int r = 0;
        if (print) {
                size_t body = (size_t)n;
                size_t limit = DLOG_LINE_MAX - plen - sizeof(DLOG_CUT_MARK);
                if (body > limit) {
                        memcpy(message + limit, DLOG_CUT_MARK, sizeof(DLOG_CUT_MARK) - 1);
                        r = write_line(line, plen + limit + sizeof(DLOG_CUT_MARK) - 1);
                } else {
                        message[body] = '\n'; /* over the terminating NUL */
                        r = write_line(line, plen + body + 1);
                }
        }

        if (line != stack)
                free(line);
        return r < 0 ? r : n;
}

int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
{
        if (fmt && prio >= DLOG_UNKNOWN && prio <= DLOG_FATAL && line_dropped(prio))
                return 0;
        va_list ap;
        va_start(ap, fmt);
        int r = dlog_vprint(prio, tag, fmt, ap);
        va_end(ap);
        return r;
}

void dlog_set_capture_handler(dlog_capture_cb handler, void *user_data)
{
        pthread_mutex_lock(&dlog_lock);
        capture_handler = handler;
        capture_user_data = handler ? user_data : NULL;
        __atomic_store_n(&capture_installed, handler != NULL, __ATOMIC_RELEASE);
        pthread_mutex_unlock(&dlog_lock);
}
