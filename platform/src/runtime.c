/* App ids, the runtime directory, socket names and the registry of running apps.
 *
 * Layout of the runtime directory (mode 0700, one per user):
 *   s/<kind>-<hash>   sockets, hashed so that any valid app id fits a sun_path
 *   run/<app-id>      "<pid> <start time>\n": the live instance of the app
 *   pid/<pid>         "<start time> <app-id>\n": the reverse index
 *   lock/<app-id>     flock'd while an instance of the app is claimed or launched
 * Records are replaced atomically (write a temporary file, rename). A record only
 * counts while its pid is alive, not a zombie, owned by this user and started at the
 * recorded time (field 22 of /proc/<pid>/stat), so dead and reused pids never do. */
#include "runtime_internal.h"

#include "env_internal.h"

#include <dlog.h>

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#define LOG_TAG "VELNA"
#define RECORD_MAX 512
#define SOCKET_HASH_CHARS 24

static const char *const runtime_subdirs[] = { "s", "run", "pid", "lock" };

static velna_env_watch runtime_env = VELNA_ENV_WATCH("VELNA_RUNTIME_DIR");
static velna_env_watch xdg_env = VELNA_ENV_WATCH("XDG_RUNTIME_DIR");
static velna_env_watch app_id_env = VELNA_ENV_WATCH("VELNA_APP_ID");

/* The runtime directory is worked out and made once for each value of the variables
 * that name it: a directory removed under running processes takes their sockets and
 * records with it, so making it again on every call would mend nothing. */
static GMutex runtime_lock;
static char *runtime_known;          /* checked and made; NULL until then */
static unsigned runtime_known_gen[2]; /* generations of runtime_env, xdg_env then */

static char *runtime_dir_candidate(void)
{
        const char *env = velna_env_get(&runtime_env);
        if (env && *env)
                return g_strdup(env);

        const char *xdg = velna_env_get(&xdg_env);
        if (xdg && *xdg)
                return g_strdup_printf("%s/velna", xdg);

        return g_strdup_printf("/tmp/velna-%u", (unsigned)geteuid());
}

/* 0 when path is (now) a directory. With private set it must also be ours and closed
 * to group and others: -13 and a line that says how to fix it otherwise, since whoever
 * else can write there can plant sockets and registry records. */
static int ensure_dir(const char *path, bool private)
{
        if (mkdir(path, 0700) < 0 && errno != EEXIST) {
                if (errno != ENOENT || g_mkdir_with_parents(path, 0700) < 0) {
                        dlog_print(DLOG_ERROR, LOG_TAG, "cannot create directory %s: %s", path,
                                   strerror(errno));
                        return -EIO;
                }
        }

        struct stat st;
        if (stat(path, &st) < 0 || !S_ISDIR(st.st_mode)) {
                dlog_print(DLOG_ERROR, LOG_TAG, "runtime path %s is not a directory", path);
                return -EIO;
        }
        if (private && st.st_uid != geteuid()) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "refusing runtime directory %s: it belongs to uid %u, not to uid %u; "
                           "remove it, or set VELNA_RUNTIME_DIR to a directory of your own",
                           path, (unsigned)st.st_uid, (unsigned)geteuid());
                return -EACCES;
        }
        if (private && (st.st_mode & 077) != 0) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "refusing runtime directory %s: mode %04o lets group or others in; "
                           "run chmod 700 %s, or set VELNA_RUNTIME_DIR to another directory",
                           path, (unsigned)(st.st_mode & 07777), path);
                return -EACCES;
        }
        return 0;
}

/* One read of at most size - 1 bytes, NUL-terminated in buf: 0, -2 when the file is
 * absent, -5. */
static int file_read_small(const char *path, char *buf, size_t size)
{
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
                return errno == ENOENT ? -ENOENT : -EIO;
        ssize_t n = read(fd, buf, size - 1);
        close(fd);
        if (n < 0)
                return -EIO;
        buf[n] = '\0';
        return 0;
}

/* Reads /proc/<pid>/stat: the state letter and the start time (field 22). 0, -2 when
 * there is no such process, -5 when the file cannot be read or parsed. */
static int proc_stat_read(pid_t pid, char *state, unsigned long long *start_time)
{
        char path[64], buf[1024];
        snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
        int r = file_read_small(path, buf, sizeof(buf));
        if (r < 0)
                return r;

        /* The command name may hold spaces and parentheses: fields follow the last ')'. */
        char *p = strrchr(buf, ')');
        if (!p)
                return -EIO;
        p++;

        char st = 0;
        unsigned long long start = 0;
        int field = 2;
        char *save = NULL;
        for (char *tok = strtok_r(p, " ", &save); tok; tok = strtok_r(NULL, " ", &save)) {
                field++;
                if (field == 3)
                        st = tok[0];
                if (field == 22) {
                        start = strtoull(tok, NULL, 10);
                        break;
                }
        }
        if (field != 22)
                return -EIO;

        *state = st;
        *start_time = start;
        return 0;
}

static bool pid_owned_by_us(pid_t pid)
{
        char path[64];
        struct stat st;
        snprintf(path, sizeof(path), "/proc/%d", (int)pid);
        return stat(path, &st) == 0 && st.st_uid == geteuid();
}

/* The start time of a live, non-zombie process of ours. */
static int live_start_time(pid_t pid, unsigned long long *start_time)
{
        char state;
        if (pid <= 0 || proc_stat_read(pid, &state, start_time) < 0)
                return -ENOENT;
        if (state == 'Z' || state == 'X' || state == 'x')
                return -ENOENT;
        if (!pid_owned_by_us(pid))
                return -ENOENT;
        return 0;
}

static bool record_is_live(pid_t pid, unsigned long long start_time)
{
        unsigned long long now;
        return live_start_time(pid, &now) == 0 && now == start_time;
}

static int file_write_atomic(const char *dir, const char *name, const char *text)
{
        static unsigned counter;
        char *tmp = g_strdup_printf("%s/.tmp-%d-%u", dir, (int)getpid(), counter++);
        char *dst = g_strdup_printf("%s/%s", dir, name);
        size_t len = strlen(text);
        int r = -EIO;

        int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd >= 0) {
                ssize_t n = write(fd, text, len);
                if (close(fd) == 0 && n == (ssize_t)len && rename(tmp, dst) == 0)
                        r = 0;
        }
        if (r < 0) {
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot write %s: %s", dst, strerror(errno));
                unlink(tmp);
        }
        g_free(tmp);
        g_free(dst);
        return r;
}

/* run/<app_id>: 0 and the recorded pid and start time, -2 when absent or unreadable. */
static int app_record_read(const char *runtime, const char *app_id, pid_t *pid,
                           unsigned long long *start_time)
{
        char buf[RECORD_MAX];
        char *path = g_strdup_printf("%s/run/%s", runtime, app_id);
        int r = file_read_small(path, buf, sizeof(buf));
        g_free(path);
        if (r < 0)
                return -ENOENT;

        int p = 0;
        if (sscanf(buf, "%d %llu", &p, start_time) != 2 || p <= 0)
                return -ENOENT;
        *pid = p;
        return 0;
}

/* pid/<pid>: 0 and the start time and app id (newly allocated), -2 otherwise. */
static int pid_record_read(const char *runtime, pid_t pid, unsigned long long *start_time,
                           char **app_id)
{
        char buf[RECORD_MAX];
        char *path = g_strdup_printf("%s/pid/%d", runtime, (int)pid);
        int r = file_read_small(path, buf, sizeof(buf));
        g_free(path);
        if (r < 0)
                return -ENOENT;

        char *end = NULL;
        *start_time = strtoull(buf, &end, 10);
        if (!end || *end != ' ')
                return -ENOENT;
        char *id = g_strndup(end + 1, strcspn(end + 1, "\n"));
        if (!velna_app_id_is_valid(id)) {
                g_free(id);
                return -ENOENT;
        }
        *app_id = id;
        return 0;
}

/* Drops the reverse index of a dead instance when it still names app_id. */
static void pid_record_forget(const char *runtime, pid_t pid, const char *app_id)
{
        unsigned long long start;
        char *id = NULL;
        if (pid_record_read(runtime, pid, &start, &id) < 0)
                return;
        if (strcmp(id, app_id) == 0 && !record_is_live(pid, start)) {
                char *path = g_strdup_printf("%s/pid/%d", runtime, (int)pid);
                unlink(path);
                g_free(path);
        }
        g_free(id);
}

static int registry_claim(const char *runtime, const char *app_id, pid_t pid)
{
        unsigned long long start;
        if (live_start_time(pid, &start) < 0)
                return -ENOENT;

        pid_t holder;
        unsigned long long holder_start;
        if (app_record_read(runtime, app_id, &holder, &holder_start) == 0) {
                if (holder == pid && holder_start == start)
                        return 0;
                if (record_is_live(holder, holder_start))
                        return -EEXIST;
                pid_record_forget(runtime, holder, app_id);
        }

        char *run_dir = g_strdup_printf("%s/run", runtime);
        char *pid_dir = g_strdup_printf("%s/pid", runtime);
        char *app_text = g_strdup_printf("%d %llu\n", (int)pid, start);
        char *pid_text = g_strdup_printf("%llu %s\n", start, app_id);
        char pid_name[32];
        snprintf(pid_name, sizeof(pid_name), "%d", (int)pid);

        /* The reverse index first: a reader trusts it only when run/<app> agrees. */
        int r = file_write_atomic(pid_dir, pid_name, pid_text);
        if (r == 0)
                r = file_write_atomic(run_dir, app_id, app_text);

        g_free(run_dir);
        g_free(pid_dir);
        g_free(app_text);
        g_free(pid_text);
        return r;
}

static void hex_encode(const guint8 *digest, size_t chars, char *out)
{
        static const char hex[] = "0123456789abcdef";
        for (size_t i = 0; i < chars; i++)
                out[i] = hex[(digest[i / 2] >> ((i % 2) ? 0 : 4)) & 0xf];
        out[chars] = '\0';
}

static bool socket_kind_is_valid(const char *kind)
{
        size_t len = kind ? strlen(kind) : 0;
        if (len == 0 || len > 8)
                return false;
        for (size_t i = 0; i < len; i++)
                if (!isalnum((unsigned char)kind[i]))
                        return false;
        return true;
}

/* The characters an app id may hold; a table, not the locale's classes: the check runs
 * several times on every request. */
static const bool app_id_char[256] = {
        ['a' ... 'z'] = true, ['A' ... 'Z'] = true, ['0' ... '9'] = true,
        ['.'] = true,         ['_'] = true,         ['-'] = true,
};

bool velna_app_id_is_valid(const char *app_id)
{
        if (!app_id)
                return false;
        size_t len = 0;
        for (; len < 256 && app_id[len]; len++) {
                if (!app_id_char[(unsigned char)app_id[len]])
                        return false;
        }
        if (len == 0 || len > 255)
                return false;
        return !(app_id[0] == '.' && (len == 1 || (len == 2 && app_id[1] == '.')));
}

int velna_runtime_dir(char **path)
{
        if (!path)
                return -EINVAL;

        g_mutex_lock(&runtime_lock);
        unsigned gen[2] = { velna_env_generation(&runtime_env), velna_env_generation(&xdg_env) };
        char *known = runtime_known && gen[0] == runtime_known_gen[0] &&
                                      gen[1] == runtime_known_gen[1]
                              ? strdup(runtime_known)
                              : NULL;
        g_mutex_unlock(&runtime_lock);
        if (known) {
                *path = known;
                return 0;
        }

        char *root = runtime_dir_candidate();
        int r = ensure_dir(root, true);
        for (size_t i = 0; r == 0 && i < G_N_ELEMENTS(runtime_subdirs); i++) {
                char *sub = g_strdup_printf("%s/%s", root, runtime_subdirs[i]);
                struct stat st;
                if (stat(sub, &st) < 0 || !S_ISDIR(st.st_mode))
                        r = ensure_dir(sub, false);
                g_free(sub);
        }
        if (r < 0) {
                g_free(root);
                return r;
        }

        char *out = strdup(root);
        g_mutex_lock(&runtime_lock);
        g_free(runtime_known);
        runtime_known = root;
        runtime_known_gen[0] = gen[0];
        runtime_known_gen[1] = gen[1];
        g_mutex_unlock(&runtime_lock);
        if (!out)
                return -ENOMEM;
        *path = out;
        return 0;
}

int velna_socket_path(const char *kind, const char *app_id, const char *name, char *out,
                      size_t out_size)
{
        if (!socket_kind_is_valid(kind) || !velna_app_id_is_valid(app_id) || !name || !out)
                return -EINVAL;

        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return r;

        GChecksum *sum = g_checksum_new(G_CHECKSUM_SHA256);
        g_checksum_update(sum, (const guchar *)kind, (gssize)strlen(kind) + 1);
        g_checksum_update(sum, (const guchar *)app_id, (gssize)strlen(app_id) + 1);
        g_checksum_update(sum, (const guchar *)name, (gssize)strlen(name));
        guint8 digest[32];
        gsize digest_len = sizeof(digest);
        g_checksum_get_digest(sum, digest, &digest_len);
        g_checksum_free(sum);

        char hash[SOCKET_HASH_CHARS + 1];
        hex_encode(digest, SOCKET_HASH_CHARS, hash);

        size_t limit = sizeof(((struct sockaddr_un *)0)->sun_path);
        if (out_size < limit)
                limit = out_size;
        int n = snprintf(out, out_size, "%s/s/%s-%s", runtime, kind, hash);
        if (n < 0 || (size_t)n >= limit) {
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "runtime directory %s leaves no room for socket names "
                           "(a socket path needs %d bytes, at most %zu fit)",
                           runtime, n, limit - 1);
                if (out_size > 0)
                        out[0] = '\0';
                r = -ENAMETOOLONG;
        }
        free(runtime);
        return r;
}

const char *velna_self_app_id(void)
{
        const char *id = velna_env_get(&app_id_env);
        return velna_app_id_is_valid(id) ? id : NULL;
}

int velna_self_register(void)
{
        /* Claimed already by this very process (not a forked child) under this id. */
        static pid_t claimed_by;
        static char claimed_id[256];

        const char *id = velna_self_app_id();
        pid_t holder = 0;
        if (id && claimed_by == getpid() && strcmp(claimed_id, id) == 0 &&
            running_registry_get_pid(id, &holder) == 0 && holder == claimed_by)
                return 0;
        if (!id) {
                const char *raw = getenv("VELNA_APP_ID");
                if (raw && *raw)
                        dlog_print(DLOG_WARN, LOG_TAG, "VELNA_APP_ID \"%s\" is not a valid app id",
                                   raw);
                return -EINVAL;
        }

        int r = running_registry_register(id, getpid());
        if (r == -EEXIST)
                dlog_print(DLOG_ERROR, LOG_TAG,
                           "app id %s is already held by another running process", id);
        if (r == 0) {
                claimed_by = getpid();
                g_strlcpy(claimed_id, id, sizeof claimed_id);
        }
        return r;
}

int running_registry_lock(const char *app_id)
{
        if (!velna_app_id_is_valid(app_id))
                return -EINVAL;

        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return r;

        char *path = g_strdup_printf("%s/lock/%s", runtime, app_id);
        int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0)
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot open lock %s: %s", path, strerror(errno));
        g_free(path);
        free(runtime);
        if (fd < 0)
                return -EIO;

        while (flock(fd, LOCK_EX) < 0) {
                if (errno != EINTR) {
                        close(fd);
                        return -EIO;
                }
        }
        return fd;
}

void running_registry_unlock(int lock_fd)
{
        if (lock_fd < 0)
                return;
        flock(lock_fd, LOCK_UN);
        close(lock_fd);
}

int running_registry_register_locked(const char *app_id, pid_t pid)
{
        if (!velna_app_id_is_valid(app_id) || pid <= 0)
                return -EINVAL;

        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return r;

        r = registry_claim(runtime, app_id, pid);
        free(runtime);
        return r;
}

int running_registry_register(const char *app_id, pid_t pid)
{
        if (!velna_app_id_is_valid(app_id) || pid <= 0)
                return -EINVAL;

        int lock = running_registry_lock(app_id);
        if (lock < 0)
                return lock;

        int r = running_registry_register_locked(app_id, pid);
        running_registry_unlock(lock);
        return r;
}

int running_registry_get_pid(const char *app_id, pid_t *pid)
{
        if (!velna_app_id_is_valid(app_id) || !pid)
                return -EINVAL;

        char *runtime = NULL;
        int r = velna_runtime_dir(&runtime);
        if (r < 0)
                return -ENOENT;

        pid_t holder;
        unsigned long long start;
        r = app_record_read(runtime, app_id, &holder, &start);
        free(runtime);
        if (r < 0 || !record_is_live(holder, start))
                return -ENOENT;

        *pid = holder;
        return 0;
}

/* The app id under which pid was last claimed, when run/ and pid/ agree on it. With
 * exited_ok, a pid that no process holds any more still counts: the record is then the
 * last claim made under it. A pid held by a process started at another time never does.
 * 0 and a newly allocated id, -2, -12. */
static int registry_app_of_pid(pid_t pid, bool exited_ok, char **app_id)
{
        char *runtime = NULL;
        if (velna_runtime_dir(&runtime) < 0)
                return -ENOENT;

        unsigned long long start;
        char *id = NULL;
        int r = pid_record_read(runtime, pid, &start, &id);
        if (r == 0) {
                pid_t holder;
                unsigned long long holder_start;
                if (app_record_read(runtime, id, &holder, &holder_start) < 0 || holder != pid ||
                    holder_start != start)
                        r = -ENOENT;
        }
        free(runtime);

        if (r == 0 && !record_is_live(pid, start)) {
                char state;
                unsigned long long now;
                int p = proc_stat_read(pid, &state, &now);
                bool exited = p == -ENOENT || (p == 0 && now == start); /* gone, or a zombie */
                if (!exited_ok || !exited)
                        r = -ENOENT;
        }
        if (r < 0) {
                g_free(id);
                return -ENOENT;
        }
        char *out = strdup(id);
        g_free(id);
        if (!out)
                return -ENOMEM;
        *app_id = out;
        return 0;
}

int running_registry_lookup_pid(pid_t pid, char **app_id)
{
        if (pid <= 0 || !app_id)
                return -EINVAL;
        return registry_app_of_pid(pid, false, app_id);
}

/* The pid is the peer's from connect time: a process that has exited since keeps its
 * name until another process holds its pid. */
int running_registry_identify_peer(pid_t pid, char **app_id)
{
        if (pid <= 0 || !app_id)
                return -EINVAL;
        return registry_app_of_pid(pid, true, app_id);
}

bool velna_pid_alive(pid_t pid)
{
        unsigned long long start;
        char state;
        if (pid <= 0 || proc_stat_read(pid, &state, &start) < 0)
                return false;
        return state != 'Z' && state != 'X' && state != 'x';
}
