/* Paths of the installed tree, found at run time so that an install works wherever it was
 * put (any --prefix, DESTDIR staging, a package), not only where the build meant it to. */
#ifndef VELNA_INSTALL_PATHS_INTERNAL_H
#define VELNA_INSTALL_PATHS_INTERNAL_H

/* The apps directory used when VELNA_APPS_DIR is unset: <datadir>/velna/apps of the
 * prefix that holds this library, found from the library's own file. Where the library
 * cannot locate its file, the directory that the build configured. Owned by the layer,
 * valid for the life of the process. */
const char *velna_default_apps_dir(void);

#endif
