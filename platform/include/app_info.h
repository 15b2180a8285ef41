/* Application information from the installed manifests in VELNA_APPS_DIR. */
#ifndef VELNA_APP_INFO_H
#define VELNA_APP_INFO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

typedef struct app_info_s *app_info_h;

typedef bool (*app_info_metadata_cb)(const char *metadata_key, const char *metadata_value,
                                     void *user_data);

/* -2 for an app with no manifest, -22 for an invalid app id, -5 for a manifest that
 * cannot be read or parsed (logged with the reason). Destroy with app_info_destroy. */
int app_info_create(const char *app_id, app_info_h *app_info);
int app_info_destroy(app_info_h app_info);
/* Calls cb for each [Metadata] entry in file order until it returns false. */
int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback,
                              void *user_data);
/* InfoPackage (default: Package); newly allocated, free with free(). */
int app_info_get_package(app_info_h app_info, char **package);
/* Extensions. The app id, and the Exec line (-2 when the manifest has none); both newly
 * allocated, free with free(). */
int app_info_get_app_id(app_info_h app_info, char **app_id);
int app_info_get_exec(app_info_h app_info, char **exec);
/* Extension: the directory of installed manifests that app_info_create reads:
 * VELNA_APPS_DIR, else <prefix>/share/velna/apps of the tree that holds this library.
 * 0 and a newly allocated path (free with free()); -22 for a null argument, -12. */
int app_info_get_apps_dir(char **dir);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
