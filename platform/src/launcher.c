/* Application control and the application manager: launching apps detached, looking
 * up and ending running ones.
 *
 * A launch holds the app's registry lock across check, spawn and register, so that two
 * launchers (or a launcher and a self-registering app) never make two instances. The
 * app is started by a double fork: the intermediate child exits at once and is reaped
 * here, so the app is never the caller's child. A close-on-exec pipe carries the app's
 * pid from the intermediate child and, when execve fails, the errno from the app's
 * process; end of file on it means the exec succeeded. Everything the children need is
 * prepared before fork, so that they only call async-signal-safe functions. */
#include "launcher_internal.h"

#include "app_registry_internal.h"
#include "runtime_internal.h"

#include <app_control.h>
#include <app_manager.h>
#include <dlog.h>

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#define LOG_TAG "VELNA"
#define TERM_GRACE_MS 2000
#define KILL_WAIT_MS 5000
#define POLL_STEP_US 5000
/* Launched apps' logs, under the runtime directory. */
#define LOG_SUBDIR "log"

struct app_control_s {
        char *operation;
        char *app_id;
};

/* What the launch children use, made before fork. */
typedef struct {
        char *path;     /* resolved program */
        char **argv;
        char **envp;
        int null_fd;    /* /dev/null for stdin */
        int log_fd;     /* the app's log, for stdout and stderr */
        int max_fd;     /* descriptor limit, for closing on exec without close_range */
} spawn_plan;

typedef struct {
        app_control_h request; /* a copy, owned */
        app_control_reply_cb callback;
        void *user_data;
        int result;
} pending_reply;

static void spawn_plan_clear(spawn_plan *plan)
{
        g_free(plan->path);
        g_strfreev(plan->argv);
        g_strfreev(plan->envp);
        if (plan->null_fd >= 0)
                close(plan->null_fd);
        if (plan->log_fd >= 0)
                close(plan->log_fd);
}

int app_manager_get_log_path(const char *app_id, char **path)
{
        if (!velna_app_id_is_valid(app_id) || !path)
                return -EINVAL;

        const char *log_file = getenv("VELNA_LOG_FILE");
        if (log_file && *log_file) {
                *path = strdup(log_file);
                return *path ? 0 : -ENOMEM;
        }
        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return r;
        *path = g_strdup_printf("%s/" LOG_SUBDIR "/%s.log", runtime, app_id);
        free(runtime);
        return 0;
}

/* The descriptor that becomes the app's stdout and stderr. Never one of the launcher's
 * own streams: a launcher in a shell pipeline would otherwise be held open by the app
 * until the app exits. /dev/null when the log cannot be opened (with a log line). */
static int open_app_log(const char *app_id)
{
        char *path = NULL;
        int fd = -1;
        if (app_manager_get_log_path(app_id, &path) == 0) {
                char *dir = g_path_get_dirname(path);
                if (!getenv("VELNA_LOG_FILE") || !*getenv("VELNA_LOG_FILE"))
                        (void)mkdir(dir, 0700); /* inside the 0700 runtime directory */
                g_free(dir);
                fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
                if (fd < 0)
                        dlog_print(DLOG_WARN, LOG_TAG, "output of %s goes to /dev/null: %s: %s",
                                   app_id, path, strerror(errno));
        }
        g_free(path);
        return fd >= 0 ? fd : open("/dev/null", O_WRONLY | O_CLOEXEC);
}

static int spawn_plan_make(const char *app_id, const char *exec, const char *operation,
                           spawn_plan *plan)
{
        *plan = (spawn_plan){ .null_fd = -1, .log_fd = -1 };
        GError *error = NULL;
        if (!g_shell_parse_argv(exec, NULL, &plan->argv, &error)) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: bad Exec \"%s\": %s", app_id,
                           exec, error->message);
                g_error_free(error);
                return -EIO;
        }
        plan->path = g_find_program_in_path(plan->argv[0]);
        if (!plan->path) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: program %s not found", app_id,
                           plan->argv[0]);
                return -EIO;
        }

        plan->envp = g_get_environ();
        plan->envp = g_environ_setenv(plan->envp, "VELNA_APP_ID", app_id, TRUE);
        if (operation)
                plan->envp = g_environ_setenv(plan->envp, "VELNA_APP_CONTROL_OPERATION", operation,
                                              TRUE);
        else
                plan->envp = g_environ_unsetenv(plan->envp, "VELNA_APP_CONTROL_OPERATION");

        struct rlimit lim;
        plan->max_fd = getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < 65536
                               ? (int)lim.rlim_cur
                               : 65536;
        plan->null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        plan->log_fd = open_app_log(app_id);
        return plan->null_fd < 0 || plan->log_fd < 0 ? -EIO : 0;
}

static void write_int(int fd, int value)
{
        ssize_t n;
        do
                n = write(fd, &value, sizeof(value));
        while (n < 0 && errno == EINTR);
}

/* The app's process, after the second fork: async-signal-safe calls only. */
_Noreturn static void spawn_exec(const spawn_plan *plan, int report_fd)
{
        sigset_t all;
        sigemptyset(&all);
        sigprocmask(SIG_SETMASK, &all, NULL);
        struct sigaction dfl = { .sa_handler = SIG_DFL };
        for (int sig = 1; sig < NSIG; sig++)
                sigaction(sig, &dfl, NULL);

        if (dup2(plan->null_fd, STDIN_FILENO) < 0 || dup2(plan->log_fd, STDOUT_FILENO) < 0 ||
            dup2(plan->log_fd, STDERR_FILENO) < 0) {
                write_int(report_fd, errno);
                _exit(127);
        }
        /* Descriptors that the caller left inheritable are no business of the app's. */
        if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) < 0)
                for (int fd = 3; fd < plan->max_fd; fd++)
                        fcntl(fd, F_SETFD, FD_CLOEXEC);
        execve(plan->path, plan->argv, plan->envp);
        write_int(report_fd, errno);
        _exit(127);
}

static int read_int(int fd, int *value)
{
        size_t done = 0;
        while (done < sizeof(*value)) {
                ssize_t n = read(fd, (char *)value + done, sizeof(*value) - done);
                if (n < 0 && errno == EINTR)
                        continue;
                if (n <= 0)
                        return done == 0 ? 0 : -1;
                done += (size_t)n;
        }
        return 1;
}

/* 0 and the app's pid, or -5 with a log line. */
static int spawn_detached(const char *app_id, const spawn_plan *plan, pid_t *pid)
{
        int report[2];
        if (pipe2(report, O_CLOEXEC) < 0)
                return -EIO;

        pid_t middle = fork();
        if (middle == 0) {
                setsid();
                pid_t app = fork();
                if (app == 0)
                        spawn_exec(plan, report[1]);
                write_int(report[1], app < 0 ? -errno : (int)app);
                _exit(0);
        }
        int fork_errno = errno;
        close(report[1]);
        if (middle < 0) {
                close(report[0]);
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: fork: %s", app_id,
                           strerror(fork_errno));
                return -EIO;
        }
        while (waitpid(middle, NULL, 0) < 0 && errno == EINTR)
                ;

        int child = 0, exec_errno = 0;
        int got_pid = read_int(report[0], &child);
        int got_errno = got_pid == 1 ? read_int(report[0], &exec_errno) : 0;
        close(report[0]);

        if (got_pid != 1 || child <= 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: fork: %s", app_id,
                           strerror(child < 0 ? -child : EIO));
                return -EIO;
        }
        if (got_errno != 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: exec %s: %s", app_id,
                           plan->path, strerror(got_errno == 1 ? exec_errno : EIO));
                return -EIO;
        }
        *pid = child;
        return 0;
}

static gboolean reply_dispatch(gpointer data)
{
        pending_reply *reply = data;
        reply->callback(reply->request, NULL, reply->result, reply->user_data);
        app_control_destroy(reply->request);
        g_free(reply);
        return G_SOURCE_REMOVE;
}

static app_control_h app_control_copy(app_control_h src)
{
        app_control_h copy = NULL;
        if (app_control_create(&copy) < 0)
                return NULL;
        if ((src->operation && app_control_set_operation(copy, src->operation) < 0) ||
            (src->app_id && app_control_set_app_id(copy, src->app_id) < 0)) {
                app_control_destroy(copy);
                return NULL;
        }
        return copy;
}

/* Waits until app_id's instance pid is gone; its record checks the start time, so a
 * reuse of the pid does not count as the instance. */
static bool wait_gone(const char *app_id, pid_t pid, int timeout_ms)
{
        gint64 deadline = g_get_monotonic_time() + (gint64)timeout_ms * 1000;
        pid_t now;
        while (running_registry_get_pid(app_id, &now) == 0 && now == pid) {
                if (g_get_monotonic_time() >= deadline)
                        return false;
                g_usleep(POLL_STEP_US);
        }
        return true;
}

static int replace_string(char **field, const char *value)
{
        char *copy = value ? strdup(value) : NULL;
        if (value && !copy)
                return -ENOMEM;
        free(*field);
        *field = copy;
        return 0;
}

int velna_launch(const char *app_id, const char *operation, pid_t *pid, int *started)
{
        if (!velna_app_id_is_valid(app_id))
                return -EINVAL;

        const velna_manifest *m = NULL;
        int r = velna_manifest_load(app_id, &m);
        if (r < 0)
                return r;
        if (!m->exec) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot launch %s: its manifest has no Exec",
                           app_id);
                velna_manifest_unref(m);
                return -ENOENT;
        }

        spawn_plan plan;
        r = spawn_plan_make(app_id, m->exec, operation, &plan);
        velna_manifest_unref(m);
        int lock = r < 0 ? r : running_registry_lock(app_id);
        if (lock < 0) {
                spawn_plan_clear(&plan);
                return r < 0 ? r : -EIO;
        }

        pid_t app = 0;
        int is_new = 0;
        if (running_registry_get_pid(app_id, &app) < 0) {
                r = spawn_detached(app_id, &plan, &app);
                is_new = r == 0;
        }
        /* An app that exited at once is started all the same; only a claim lost to
         * another live process would be an error, and the lock rules that out. */
        if (is_new)
                running_registry_register_locked(app_id, app);
        running_registry_unlock(lock);
        spawn_plan_clear(&plan);
        if (r < 0)
                return r;

        if (is_new)
                dlog_print(DLOG_INFO, LOG_TAG, "launched %s as pid %d", app_id, (int)app);
        if (pid)
                *pid = app;
        if (started)
                *started = is_new;
        return 0;
}

int app_control_create(app_control_h *app_control)
{
        if (!app_control)
                return -EINVAL;
        struct app_control_s *h = calloc(1, sizeof(*h));
        if (!h)
                return -ENOMEM;
        *app_control = h;
        return 0;
}

int app_control_destroy(app_control_h app_control)
{
        if (!app_control)
                return -EINVAL;
        free(app_control->operation);
        free(app_control->app_id);
        free(app_control);
        return 0;
}

int app_control_set_operation(app_control_h app_control, const char *operation)
{
        if (!app_control)
                return -EINVAL;
        return replace_string(&app_control->operation, operation);
}

int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
        if (!app_control)
                return -EINVAL;
        return replace_string(&app_control->app_id, app_id);
}

int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb callback,
                                    void *user_data)
{
        if (!app_control || !velna_app_id_is_valid(app_control->app_id))
                return -EINVAL;

        int r = velna_launch(app_control->app_id, app_control->operation, NULL, NULL);
        if (!callback)
                return r;

        pending_reply *reply = g_new0(pending_reply, 1);
        reply->request = app_control_copy(app_control);
        if (!reply->request) {
                g_free(reply);
                return -ENOMEM;
        }
        reply->callback = callback;
        reply->user_data = user_data;
        reply->result = r;
        g_idle_add(reply_dispatch, reply);
        return r;
}

int app_manager_is_running(const char *app_id, bool *running)
{
        if (!velna_app_id_is_valid(app_id) || !running)
                return -EINVAL;

        pid_t pid;
        *running = running_registry_get_pid(app_id, &pid) == 0;
        return 0;
}

int app_manager_get_app_id(pid_t pid, char **app_id)
{
        if (!app_id || pid <= 0)
                return -EINVAL;

        char *id = NULL;
        int r = running_registry_lookup_pid(pid, &id);
        if (r < 0)
                return r;

        *app_id = id; /* ownership passes to the caller */
        return 0;
}

int app_manager_terminate_app(const char *app_id)
{
        if (!velna_app_id_is_valid(app_id))
                return -EINVAL;

        pid_t pid;
        if (running_registry_get_pid(app_id, &pid) < 0)
                return 0;
        if (pid == getpid())
                return -EINVAL;

        if (kill(pid, SIGTERM) < 0)
                return errno == ESRCH ? 0 : -errno;
        if (wait_gone(app_id, pid, TERM_GRACE_MS))
                return 0;

        dlog_print(DLOG_WARN, LOG_TAG, "%s (pid %d) ignored SIGTERM for %d ms: killing it", app_id,
                   (int)pid, TERM_GRACE_MS);
        if (kill(pid, SIGKILL) < 0 && errno != ESRCH)
                return -errno;
        return wait_gone(app_id, pid, KILL_WAIT_MS) ? 0 : -EIO;
}
