/* Installed apps: <VELNA_APPS_DIR>/<app-id>.app manifests in key-file syntax, parsed
 * once and cached.
 *
 * The apps directory is watched with inotify. Every lookup first reads the watch
 * (non-blocking): any change in the directory drops the whole cache, and with no change
 * pending the cached manifest answers without a stat. The kernel queues the event
 * before the writer's call returns, so a manifest written, replaced or removed by any
 * process is seen by the next lookup after that. Where no watch can be set (no inotify,
 * no directory yet, the user's watches used up) and for a manifest that is a symbolic
 * link (its target may change elsewhere), a cached manifest is reused while the file's
 * device, inode, size, modification and change times stay the same: one stat(2). */
#include "app_registry_internal.h"
#include "install_paths_internal.h"

#include "env_internal.h"
#include "runtime_internal.h"
#include "str_hash_internal.h"

#include <app_info.h>
#include <dlog.h>
#include <package_manager.h>

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define LOG_TAG "VELNA"
#define MANIFEST_MAX_SIZE (1024 * 1024)
#define RACY_WINDOW_S 1
#define GROUP_APPLICATION "Application"
#define GROUP_METADATA "Metadata"

/* A manifest and its reference count; the public part comes first so that a
 * const velna_manifest * leads back to it. */
typedef struct {
        velna_manifest m;
        gint refs;
} manifest_box;

typedef struct {
        dev_t dev;
        ino_t ino;
        off_t size;
        struct timespec mtime;
        struct timespec ctime;
        struct timespec parsed_at; /* wall clock when the file was read */
        bool linked;               /* a symbolic link: always revalidated by stat */
        manifest_box *box;         /* one reference held by the cache */
} cache_entry;

struct app_info_s {
        const velna_manifest *manifest; /* one reference */
};

static GMutex cache_lock;
static GHashTable *cache; /* manifest path -> cache_entry */
static int watch_fd = -1; /* inotify on watch_dir, non-blocking; -1 when none */
static char *watch_dir;
static velna_env_watch apps_dir_env = VELNA_ENV_WATCH("VELNA_APPS_DIR");

#define WATCH_EVENTS                                                                    \
        (IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | \
         IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR)

static void manifest_box_free(manifest_box *box)
{
        velna_manifest *m = &box->m;
        g_free(m->app_id);
        g_free(m->package);
        g_free(m->info_package);
        g_free(m->exec);
        g_strfreev(m->allowed_clients);
        g_strfreev(m->metadata_keys);
        g_strfreev(m->metadata_values);
        g_free(box);
}

static void cache_entry_free(gpointer data)
{
        cache_entry *entry = data;
        velna_manifest_unref(&entry->box->m);
        g_free(entry);
}

/* Borrowed: from the environment or the installation, valid until VELNA_APPS_DIR
 * changes. */
static const char *apps_dir_borrowed(void)
{
        const char *env = velna_env_get(&apps_dir_env);
        return env && *env ? env : velna_default_apps_dir();
}

static char *apps_dir(void)
{
        return g_strdup(apps_dir_borrowed());
}

/* File times have the kernel's coarse granularity: two writes within one tick may leave
 * the same times and size. An entry read less than RACY_WINDOW after the file's last
 * change is not trusted (it is read again) until a later read settles it. */
static bool entry_is_racy(const cache_entry *e)
{
        long long changed = e->ctime.tv_sec > e->mtime.tv_sec ? e->ctime.tv_sec : e->mtime.tv_sec;
        return (long long)e->parsed_at.tv_sec <= changed + RACY_WINDOW_S;
}

static bool stat_matches(const cache_entry *e, const struct stat *st)
{
        return !entry_is_racy(e) && e->dev == st->st_dev && e->ino == st->st_ino && e->size == st->st_size &&
               e->mtime.tv_sec == st->st_mtim.tv_sec && e->mtime.tv_nsec == st->st_mtim.tv_nsec &&
               e->ctime.tv_sec == st->st_ctim.tv_sec && e->ctime.tv_nsec == st->st_ctim.tv_nsec;
}

/* Reads the whole file. 0 and its bytes (g_free) and stat, -2 when absent, -5. */
static int manifest_read(const char *path, char **text, gsize *len, struct stat *st)
{
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
                if (errno == ENOENT)
                        return -ENOENT;
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot open manifest %s: %s", path,
                           strerror(errno));
                return -EIO;
        }

        int r = 0;
        if (fstat(fd, st) < 0 || !S_ISREG(st->st_mode) || st->st_size > MANIFEST_MAX_SIZE) {
                dlog_print(DLOG_ERROR, LOG_TAG, "manifest %s is not a regular file of at most %d bytes",
                           path, MANIFEST_MAX_SIZE);
                r = -EIO;
        }
        char *buf = r == 0 ? g_malloc((gsize)st->st_size + 1) : NULL;
        gsize done = 0;
        while (r == 0 && done < (gsize)st->st_size) {
                ssize_t n = read(fd, buf + done, (size_t)st->st_size - done);
                if (n < 0 && errno == EINTR)
                        continue;
                if (n <= 0)
                        break; /* shorter than stat said: parse what is there */
                done += (gsize)n;
        }
        close(fd);
        if (r < 0) {
                g_free(buf);
                return r;
        }
        buf[done] = '\0';
        *text = buf;
        *len = done;
        return 0;
}

/* A stripped string value, or NULL when the key is absent. */
static char *application_string(GKeyFile *kf, const char *key)
{
        char *value = g_key_file_get_string(kf, GROUP_APPLICATION, key, NULL);
        return value ? g_strstrip(value) : NULL;
}

static char **allowed_clients_parse(const char *raw)
{
        char **parts = g_strsplit(raw, ";", -1);
        GPtrArray *list = g_ptr_array_new();
        for (char **p = parts; *p; p++) {
                char *id = g_strstrip(*p);
                if (*id)
                        g_ptr_array_add(list, g_strdup(id));
        }
        g_ptr_array_add(list, NULL);
        g_strfreev(parts);
        return (char **)g_ptr_array_free(list, FALSE);
}

/* [Metadata] in file order with the raw values; a key that appears twice keeps its
 * first place and its last value, as the key file itself does. */
static void metadata_parse(GKeyFile *kf, velna_manifest *m)
{
        gsize n = 0;
        char **keys = g_key_file_get_keys(kf, GROUP_METADATA, &n, NULL);
        m->metadata_keys = g_new0(char *, n + 1);
        m->metadata_values = g_new0(char *, n + 1);
        GHashTable *seen = g_hash_table_new(g_str_hash, g_str_equal);

        for (gsize i = 0; keys && i < n; i++) {
                if (!g_hash_table_add(seen, keys[i]))
                        continue;
                char *value = g_key_file_get_value(kf, GROUP_METADATA, keys[i], NULL);
                m->metadata_keys[m->metadata_count] = g_strdup(keys[i]);
                m->metadata_values[m->metadata_count] = value ? value : g_strdup("");
                m->metadata_count++;
        }
        g_hash_table_destroy(seen);
        g_strfreev(keys);
}

/* 0 and a new manifest with one reference, or -5 with a log line that says why. */
static int manifest_parse(const char *app_id, const char *path, const char *text, gsize len,
                          manifest_box **out)
{
        GKeyFile *kf = g_key_file_new();
        GError *error = NULL;
        if (!g_key_file_load_from_data(kf, text, len, G_KEY_FILE_NONE, &error)) {
                dlog_print(DLOG_ERROR, LOG_TAG, "manifest %s is malformed: %s", path,
                           error->message);
                g_error_free(error);
                g_key_file_free(kf);
                return -EIO;
        }

        manifest_box *box = g_new0(manifest_box, 1);
        box->refs = 1;
        velna_manifest *m = &box->m;
        m->app_id = g_strdup(app_id);
        m->package = application_string(kf, "Package");
        if (!m->package || !*m->package) {
                dlog_print(DLOG_ERROR, LOG_TAG, "manifest %s is malformed: no Package in [%s]",
                           path, GROUP_APPLICATION);
                manifest_box_free(box);
                g_key_file_free(kf);
                return -EIO;
        }

        m->info_package = application_string(kf, "InfoPackage");
        if (!m->info_package || !*m->info_package) {
                g_free(m->info_package);
                m->info_package = g_strdup(m->package);
        }
        m->exec = application_string(kf, "Exec");
        if (m->exec && !*m->exec) {
                g_free(m->exec);
                m->exec = NULL;
        }
        char *allowed = g_key_file_get_value(kf, GROUP_APPLICATION, "AllowedClients", NULL);
        if (allowed)
                m->allowed_clients = allowed_clients_parse(allowed);
        g_free(allowed);
        metadata_parse(kf, m);

        g_key_file_free(kf);
        *out = box;
        return 0;
}

static void watch_drop_locked(void)
{
        if (watch_fd >= 0)
                close(watch_fd);
        watch_fd = -1;
        g_free(watch_dir);
        watch_dir = NULL;
        if (cache)
                g_hash_table_remove_all(cache);
}

/* True when dir is watched and every cached manifest in it is still current: pending
 * changes have been read and the cache dropped for them. False when no watch can be
 * set; the caller then revalidates by stat. Called with cache_lock held. */
static bool watch_current_locked(const char *dir)
{
        if (watch_fd >= 0 && strcmp(watch_dir, dir) != 0)
                watch_drop_locked();
        if (watch_fd < 0) {
                int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
                if (fd < 0)
                        return false;
                if (inotify_add_watch(fd, dir, WATCH_EVENTS) < 0) {
                        close(fd);
                        return false;
                }
                watch_drop_locked(); /* what was cached before the watch is not trusted */
                watch_fd = fd;
                watch_dir = g_strdup(dir);
                return true;
        }

        char buf[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
        bool changed = false, lost = false;
        for (;;) {
                ssize_t n = read(watch_fd, buf, sizeof buf);
                if (n <= 0)
                        break; /* EAGAIN: nothing more pending */
                changed = true;
                for (char *p = buf; p < buf + n;) {
                        const struct inotify_event *ev = (const struct inotify_event *)p;
                        if (ev->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF))
                                lost = true; /* the directory itself went away */
                        p += sizeof *ev + ev->len;
                }
        }
        if (lost)
                watch_drop_locked();
        else if (changed && cache)
                g_hash_table_remove_all(cache);
        return !lost;
}

/* The cached manifest for path when the watch vouches for it; a new reference. */
static manifest_box *cache_lookup_watched(const char *dir, const char *path)
{
        manifest_box *box = NULL;
        g_mutex_lock(&cache_lock);
        cache_entry *e = watch_current_locked(dir) && cache ? g_hash_table_lookup(cache, path) : NULL;
        if (e && !e->linked) {
                box = e->box;
                g_atomic_int_inc(&box->refs);
        }
        g_mutex_unlock(&cache_lock);
        return box;
}

/* The cached manifest for path when it is still current; a new reference. */
static manifest_box *cache_lookup(const char *path, const struct stat *st)
{
        manifest_box *box = NULL;
        g_mutex_lock(&cache_lock);
        cache_entry *e = cache ? g_hash_table_lookup(cache, path) : NULL;
        if (e && stat_matches(e, st)) {
                box = e->box;
                g_atomic_int_inc(&box->refs);
        }
        g_mutex_unlock(&cache_lock);
        return box;
}

static void cache_store(const char *path, const struct stat *st, manifest_box *box)
{
        cache_entry *e = g_new0(cache_entry, 1);
        e->dev = st->st_dev;
        e->ino = st->st_ino;
        e->size = st->st_size;
        e->mtime = st->st_mtim;
        e->ctime = st->st_ctim;
        e->box = box;
        struct stat link;
        e->linked = lstat(path, &link) == 0 && S_ISLNK(link.st_mode);
        clock_gettime(CLOCK_REALTIME, &e->parsed_at);
        g_atomic_int_inc(&box->refs);

        g_mutex_lock(&cache_lock);
        if (!cache)
                cache = g_hash_table_new_full(velna_str_hash, g_str_equal, g_free, cache_entry_free);
        g_hash_table_replace(cache, g_strdup(path), e);
        g_mutex_unlock(&cache_lock);
}

static void cache_forget(const char *path)
{
        g_mutex_lock(&cache_lock);
        if (cache)
                g_hash_table_remove(cache, path);
        g_mutex_unlock(&cache_lock);
}

static int manifest_load_path(const char *app_id, const char *dir, const char *path,
                              manifest_box **out)
{
        if ((*out = cache_lookup_watched(dir, path)))
                return 0;

        struct stat st;
        if (stat(path, &st) < 0) {
                cache_forget(path);
                if (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG)
                        return -ENOENT;
                dlog_print(DLOG_ERROR, LOG_TAG, "cannot read manifest %s: %s", path,
                           strerror(errno));
                return -EIO;
        }
        if ((*out = cache_lookup(path, &st)))
                return 0;

        char *text = NULL;
        gsize len = 0;
        int r = manifest_read(path, &text, &len, &st);
        if (r == 0)
                r = manifest_parse(app_id, path, text, len, out);
        g_free(text);
        if (r < 0) {
                cache_forget(path);
                return r;
        }
        cache_store(path, &st, *out);
        return 0;
}

int velna_manifest_load(const char *app_id, const velna_manifest **out)
{
        if (!velna_app_id_is_valid(app_id) || !out)
                return -EINVAL;

        /* Every request looks up two or three manifests: the path is put together on
         * the stack unless the directory's name is unusually long. */
        const char *dir = apps_dir_borrowed();
        size_t dir_len = strlen(dir), id_len = strlen(app_id);
        char stack[512];
        char *path = stack;
        if (dir_len + id_len + sizeof "/.app" > sizeof stack)
                path = g_malloc(dir_len + id_len + sizeof "/.app");
        memcpy(path, dir, dir_len);
        path[dir_len] = '/';
        memcpy(path + dir_len + 1, app_id, id_len);
        memcpy(path + dir_len + 1 + id_len, ".app", sizeof ".app");

        manifest_box *box = NULL;
        int r = manifest_load_path(app_id, dir, path, &box);
        if (path != stack)
                g_free(path);
        if (r < 0)
                return r;

        *out = &box->m;
        return 0;
}

void velna_manifest_unref(const velna_manifest *manifest)
{
        if (!manifest)
                return;
        manifest_box *box = (manifest_box *)manifest;
        if (g_atomic_int_dec_and_test(&box->refs))
                manifest_box_free(box);
}

bool velna_manifest_allows_client(const velna_manifest *manifest, const char *client_app_id)
{
        if (!manifest)
                return false;
        if (!manifest->allowed_clients)
                return true;
        if (!client_app_id)
                return false;
        for (char **id = manifest->allowed_clients; *id; id++)
                if (strcmp(*id, client_app_id) == 0)
                        return true;
        return false;
}

static int copy_out(const char *value, char **out)
{
        char *copy = strdup(value);
        if (!copy)
                return -ENOMEM;
        *out = copy;
        return 0;
}

int app_info_create(const char *app_id, app_info_h *app_info)
{
        if (!app_info)
                return -EINVAL;

        const velna_manifest *m = NULL;
        int r = velna_manifest_load(app_id, &m);
        if (r < 0)
                return r;

        struct app_info_s *info = malloc(sizeof(*info));
        if (!info) {
                velna_manifest_unref(m);
                return -ENOMEM;
        }
        info->manifest = m;
        *app_info = info;
        return 0;
}

int app_info_destroy(app_info_h app_info)
{
        if (!app_info)
                return -EINVAL;
        velna_manifest_unref(app_info->manifest);
        free(app_info);
        return 0;
}

int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback,
                              void *user_data)
{
        if (!app_info || !callback)
                return -EINVAL;

        const velna_manifest *m = app_info->manifest;
        for (size_t i = 0; i < m->metadata_count; i++)
                if (!callback(m->metadata_keys[i], m->metadata_values[i], user_data))
                        break;
        return 0;
}

int app_info_get_package(app_info_h app_info, char **package)
{
        if (!app_info || !package)
                return -EINVAL;
        return copy_out(app_info->manifest->info_package, package);
}

int app_info_get_app_id(app_info_h app_info, char **app_id)
{
        if (!app_info || !app_id)
                return -EINVAL;
        return copy_out(app_info->manifest->app_id, app_id);
}

int app_info_get_apps_dir(char **dir)
{
        if (!dir)
                return -EINVAL;
        char *found = apps_dir();
        char *out = strdup(found);
        g_free(found);
        if (!out)
                return -ENOMEM;
        *dir = out;
        return 0;
}

int app_info_get_exec(app_info_h app_info, char **exec)
{
        if (!app_info || !exec)
                return -EINVAL;
        if (!app_info->manifest->exec)
                return -ENOENT;
        return copy_out(app_info->manifest->exec, exec);
}

int package_manager_get_package_id_by_app_id(const char *app_id, char **package_id)
{
        if (!package_id)
                return -EINVAL;

        const velna_manifest *m = NULL;
        int r = velna_manifest_load(app_id, &m);
        if (r < 0)
                return r;
        r = copy_out(m->package, package_id);
        velna_manifest_unref(m);
        return r;
}
