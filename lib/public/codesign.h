// SPDX-License-Identifier: MIT
/*
 * Code signature verification and bundle identifiers (library
 * halcyx_codesign, which links libcrypto and libplist).
 *
 * Signed code is a regular file carrying its signature in two extended
 * attributes, or a bundle (a directory with Contents/Info.plist) carrying
 * it in Contents/_CodeSignature. codesignVerify accepts the code only when
 * the signature is intact, names the given identifier, chains to one of the
 * vendor roots built into the verifier, and its leaf certificate's common
 * name contains "Zorvex, Inc." or "Tarnwick Wireless LLC". Every failure
 * writes one Log line:
 *   "PrivilegedHelper: Failed to verify the code signature of %s due to %d"
 * with the path and a code: 1 the path is not UTF-8; 2 it is empty or too
 * long; 3 the code cannot be opened (missing, a symbolic link, not a regular
 * file or bundle, a file named with a trailing "/"); 5 the identifier cannot
 * be placed in the requirement (C0 or C1 control characters, quotes or
 * backslashes); 6 the requirement does not parse; 7 the code carries no
 * signature, or the signature, the certificate chain or the requirement
 * fails.
 *
 * Reentrant; nothing is cached between calls.
 */
#ifndef HALCYX_CODESIGN_H
#define HALCYX_CODESIGN_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* Opens path without following a symbolic link and verifies it. */
bool codesignVerify(const char *path, const char *identifier);

/*
 * Verifies the code behind fd: a regular file or a bundle directory opened
 * for reading. Everything is read through fd, or relative to it without
 * following links, and neither its file offset nor its directory offset
 * moves. path only names the code in the log line. The descriptor stays
 * open.
 *
 * What a true result establishes: the file, or the bundle's files, held the
 * signed bytes while they were read. Renaming something else over the path
 * afterwards does not change what fd reaches. Writing into the same file
 * does: a caller that reads or runs from fd later gets the verified bytes
 * only if nobody else can write it in between.
 */
bool codesignVerifyFd(int fd, const char *path, const char *identifier);

/*
 * codesignVerifyFd, and also fails (code 7) unless nobody but root can
 * change the code: a regular file, or the bundle directory and every
 * directory and file in it, owned by root, not writable by group or others,
 * on one local file system that this kernel serves (not a network or FUSE
 * file system). Then what is read through fd later is what was verified,
 * unless root changes it, or a writer already held it open before it became
 * root's (a copy made by root has no such writer).
 */
bool codesignVerifyFdRootOnly(int fd, const char *path, const char *identifier);

/*
 * The CFBundleIdentifier of the bundle at path (its Contents/Info.plist, XML
 * or binary), newly allocated (release with free), or null after one Log
 * line: "CoreFoundationUtils: Failed to get bundle identifier for %s due to
 * (%d).\n" with code 1 (path not UTF-8), 2 (empty or too long), 3 (not a
 * directory that can be opened; a symbolic link is not followed) or 4 (no
 * readable Info.plist or no string identifier in it); or "Failed to get C string from CFString.\n" when the
 * identifier cannot be copied as UTF-8.
 */
char *getBundleIdentifier(const char *path);

HALCYX_EXTERN_C_END

#endif /* HALCYX_CODESIGN_H */
