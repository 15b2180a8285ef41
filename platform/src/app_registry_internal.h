/* Shared internals: parsed app manifests. */
#ifndef VELNA_APP_REGISTRY_INTERNAL_H
#define VELNA_APP_REGISTRY_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>

typedef struct velna_manifest {
        char *app_id;
        char *package;          /* [Application] Package, required */
        char *info_package;     /* InfoPackage, defaults to package */
        char *exec;             /* NULL when the manifest has no Exec */
        char **allowed_clients; /* NULL-terminated; NULL when the key is absent */
        size_t metadata_count;
        char **metadata_keys;   /* [Metadata] in file order */
        char **metadata_values;
} velna_manifest;

/* Loads <VELNA_APPS_DIR>/<app_id>.app (cached, revalidated by mtime and size). 0 and a
 * new reference in *out (release with velna_manifest_unref), -22 for an invalid id, -2
 * when not installed, -5 (and a log line with the reason) when malformed, -12. */
int velna_manifest_load(const char *app_id, const velna_manifest **out);
void velna_manifest_unref(const velna_manifest *manifest);

/* True when the manifest has no AllowedClients, or lists client_app_id (a NULL client
 * is allowed only when the key is absent). */
bool velna_manifest_allows_client(const velna_manifest *manifest, const char *client_app_id);

#endif
