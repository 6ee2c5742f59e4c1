// SPDX-License-Identifier: MIT
/*
 * POSIX calls on the library's strings: paths in and out are UTF-8, given to
 * the system in the process's default encoding. Results are newly allocated
 * and owned by the caller. A path that cannot be converted fails with errno
 * ERANGE; otherwise errno is the failing system call's.
 */
#ifndef HALCYX_POSIX_H
#define HALCYX_POSIX_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* The canonical absolute path (links, "." and ".." resolved), or null. */
char *Posix_RealPath(const char *pathName);

/* The target text of a symbolic link, however long, or null. */
char *Posix_ReadLink(const char *pathName);

/* access(2) against the effective user and group IDs: 0, or -1 with errno. */
int Posix_EuidAccess(const char *pathName, int mode);

HALCYX_EXTERN_C_END

#endif /* HALCYX_POSIX_H */
