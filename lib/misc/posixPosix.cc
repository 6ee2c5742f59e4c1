// SPDX-License-Identifier: MIT
/*
 * POSIX calls on the library's strings.
 *
 * Every call converts its path to the default encoding first; a path that
 * cannot be converted fails with ERANGE before any system call, and errno is
 * otherwise left to the system call, kept across the frees that follow it.
 */
#include "posix.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "internal/unique.h"
#include "unicode.h"
#include "util.h"

namespace {

// The path in the default encoding, or null: errno ERANGE when it cannot be
// converted, EINVAL when there is no path.
halcyx::UniqueCStr NativePath(const char *path) {
   if (path == nullptr) {
      errno = EINVAL;
      return nullptr;
   }
   int saved = errno;
   halcyx::UniqueCStr native(
      static_cast<char *>(Unicode_GetAllocBytes(path, UNICODE_ENCODING_DEFAULT)));
   errno = native ? saved : ERANGE;
   return native;
}

// A system result as a string; bytes that are not text in the default
// encoding (a link target is whatever its maker wrote) fail with ERANGE
// rather than end the process.
char *FromNative(const char *native) {
   if (!Unicode_IsBufferValid(native, -1, UNICODE_ENCODING_DEFAULT)) {
      errno = ERANGE;
      return nullptr;
   }
   halcyx::ErrnoSaver keep;
   return Unicode_AllocWithLength(native, -1, UNICODE_ENCODING_DEFAULT);
}

// A link target grows the buffer by this much each time it fills it.
constexpr size_t kLinkBufferStart = 2048;
constexpr size_t kLinkBufferStep = 1024;

}  // namespace

extern "C" {

char *Posix_RealPath(const char *pathName) {
   halcyx::UniqueCStr native = NativePath(pathName);
   if (!native) {
      return nullptr;
   }
   char resolved[PATH_MAX];
   if (realpath(native.get(), resolved) == nullptr) {
      return nullptr;
   }
   return FromNative(resolved);
}

char *Posix_ReadLink(const char *pathName) {
   halcyx::UniqueCStr native = NativePath(pathName);
   if (!native) {
      return nullptr;
   }
   for (size_t size = kLinkBufferStart;; size += kLinkBufferStep) {
      halcyx::UniqueCStr buffer(static_cast<char *>(UtilSafeMalloc0(size)));
      ssize_t length = readlink(native.get(), buffer.get(), size);
      if (length < 0) {
         return nullptr;
      }
      // A full buffer may hold a cut-off target: read again with more room.
      if (static_cast<size_t>(length) < size) {
         buffer.get()[length] = '\0';
         return FromNative(buffer.get());
      }
   }
}

int Posix_EuidAccess(const char *pathName, int mode) {
   halcyx::UniqueCStr native = NativePath(pathName);
   if (!native) {
      return -1;
   }
   return faccessat(AT_FDCWD, native.get(), mode, AT_EACCESS);
}

}  // extern "C"
