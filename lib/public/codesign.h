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
 * file or bundle) or its signature objects are missing; 5 the identifier
 * cannot be placed in the requirement (control characters, quotes or
 * backslashes); 6 the requirement does not parse; 7 the signature, the
 * certificate chain or the requirement fails.
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
 * for reading. Everything is read through fd (without moving its offset),
 * so a caller that then copies or executes from
 * fd uses the bytes that were verified. path only names the code in the log
 * line. The descriptor stays open.
 */
bool codesignVerifyFd(int fd, const char *path, const char *identifier);

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
