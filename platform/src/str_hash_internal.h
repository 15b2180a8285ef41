/* The string hash of the platform's tables (the manifest cache, keyed by path; the
 * message port's destinations, keyed by app id and port; a big bundle's index). Those
 * keys run to tens of bytes and some are hashed on every request; this takes them eight
 * bytes at a time, where g_str_hash takes one. A GHashFunc: use with g_str_equal. */
#ifndef VELNA_STR_HASH_INTERNAL_H
#define VELNA_STR_HASH_INTERNAL_H

#include <glib.h>

guint velna_str_hash(gconstpointer key);

#endif
