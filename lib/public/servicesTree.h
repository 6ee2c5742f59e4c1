// SPDX-License-Identifier: MIT
/*
 * Root-owned copies for the Services tree (implemented in the opener's
 * archive, halcyx_opener).
 *
 *    if (copyAsRoot(bundleFile, treeFile, 0755) != 0) { ... }
 */
#ifndef HALCYX_SERVICES_TREE_H
#define HALCYX_SERVICES_TREE_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/*
 * Copies the regular file source to destination, neither followed if it is
 * a symbolic link: the data (destination created 0600 when missing, cut to
 * the source's length), every extended attribute (code signatures, POSIX
 * ACLs) and the times; then owner 0:0 (fchown) and mode (fchmod). Needs
 * root. Returns 0 on success, 1 when any step fails (errno of that step);
 * both descriptors are closed on every path.
 */
int copyAsRoot(const char *source, const char *destination, uint32_t mode);

/* 0 when path (followed) has owner 0 and group 0; non-zero otherwise or when stat fails. */
int ownerIsRoot(const char *path);

HALCYX_EXTERN_C_END

#endif /* HALCYX_SERVICES_TREE_H */
