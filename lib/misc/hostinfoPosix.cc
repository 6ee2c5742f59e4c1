/*
 * Host services about the running process: its executable's path, and the
 * launch of detached daemons.
 */
#include "hostinfo.h"

#include <unistd.h>

#include "internal/unique.h"
#include "log.h"
#include "util.h"

namespace {

// The platform's path limit for the executable's own path, terminator included.
constexpr size_t kModulePathSize = 1024;

}  // namespace

extern "C" {

char *Hostinfo_GetModulePath(uint32_t privilege) {
   if (privilege != 0 && privilege != 1) {
      Warning("%s: invalid privilege parameter\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   halcyx::UniqueCStr path(static_cast<char *>(UtilSafeMalloc0(kModulePathSize)));
   // A full buffer may be a cut-off path: it fits only with room for the NUL.
   ssize_t length = readlink("/proc/self/exe", path.get(), kModulePathSize);
   if (length < 0 || static_cast<size_t>(length) >= kModulePathSize) {
      Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   path.get()[length] = '\0';
   return path.release();
}

}  // extern "C"
