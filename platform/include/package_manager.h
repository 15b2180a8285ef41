/* Package manager. */
#ifndef VELNA_PACKAGE_MANAGER_H
#define VELNA_PACKAGE_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Everything declared here is exported from libvelna-platform; nothing else is. */
#pragma GCC visibility push(default)

/* The manifest's Package; newly allocated, free with free(). -2 for an app that is not
 * installed, -22 for an invalid app id, -5 for a malformed manifest. */
int package_manager_get_package_id_by_app_id(const char *app_id, char **package_id);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
