/* Logging service. Each call formats one line "<L>/<TAG>(<pid>): <message>\n" and hands
 * it to the kernel with one write(2): appends of several processes to one O_APPEND file
 * never interleave. A line longer than DLOG_LINE_MAX is cut (and says so) so that it
 * stays one write that a pipe or a file takes whole. */
#include <dlog.h>

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
static char *log_file_path;     /* the VELNA_LOG_FILE that log_file_fd was opened for */
static int log_file_fd = -1;

static log_priority level_from_env(void)
{
        static const struct {
                const char *name;
                log_priority prio;
        } levels[] = {
                { "verbose", DLOG_VERBOSE }, { "debug", DLOG_DEBUG }, { "info", DLOG_INFO },
                { "warn", DLOG_WARN },       { "warning", DLOG_WARN }, { "error", DLOG_ERROR },
                { "fatal", DLOG_FATAL },     { "silent", DLOG_SILENT },
        };

        const char *env = getenv("VELNA_LOG_LEVEL");
        if (!env || !*env)
                return DLOG_INFO;
        for (size_t i = 0; i < sizeof(levels) / sizeof(levels[0]); i++)
                if (strcasecmp(env, levels[i].name) == 0)
                        return levels[i].prio;
        return DLOG_INFO;
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
        const char *path = getenv("VELNA_LOG_FILE");
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

/* Builds the printed line around message (len bytes) and writes it once. */
static int print_line(log_priority prio, const char *tag, const char *message, size_t len)
{
        char prefix[256];
        int plen = snprintf(prefix, sizeof(prefix), "%c/%s(%d): ", priority_letter(prio), tag,
                            (int)getpid());
        if (plen < 0)
                return -EINVAL;
        if ((size_t)plen >= sizeof(prefix))
                plen = sizeof(prefix) - 1;

        size_t room = DLOG_LINE_MAX - (size_t)plen - sizeof(DLOG_CUT_MARK);
        bool cut = len > room;
        size_t body = cut ? room : len;
        size_t total = (size_t)plen + body + (cut ? sizeof(DLOG_CUT_MARK) - 1 : 1);

        char *line = malloc(total);
        if (!line)
                return -ENOMEM;
        memcpy(line, prefix, (size_t)plen);
        memcpy(line + plen, message, body);
        if (cut)
                memcpy(line + plen + body, DLOG_CUT_MARK, sizeof(DLOG_CUT_MARK) - 1);
        else
                line[total - 1] = '\n';

        pthread_mutex_lock(&dlog_lock);
        int r = write_whole(output_fd_locked(), line, total);
        pthread_mutex_unlock(&dlog_lock);
        free(line);
        return r;
}

int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
{
        if (!fmt || prio < DLOG_UNKNOWN || prio > DLOG_FATAL)
                return -EINVAL;
        if (!tag)
                tag = "";

        char stack[DLOG_STACK_MESSAGE];
        char *message = stack;
        va_list again;
        va_copy(again, ap);
        int n = vsnprintf(stack, sizeof(stack), fmt, ap);
        if (n >= (int)sizeof(stack)) {
                message = malloc((size_t)n + 1);
                if (message)
                        vsnprintf(message, (size_t)n + 1, fmt, again);
        }
        va_end(again);
        if (n < 0 || !message)
                return n < 0 ? -EINVAL : -ENOMEM;

        pthread_mutex_lock(&dlog_lock);
        dlog_capture_cb handler = capture_handler;
        void *user_data = capture_user_data;
        pthread_mutex_unlock(&dlog_lock);
        if (handler)
                handler(prio, tag, message, user_data);

        log_priority effective = prio < DLOG_VERBOSE ? DLOG_INFO : prio;
        int r = 0;
        if (effective >= level_from_env())
                r = print_line(effective, tag, message, (size_t)n);

        if (message != stack)
                free(message);
        return r < 0 ? r : n;
}

int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
{
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
        pthread_mutex_unlock(&dlog_lock);
}
