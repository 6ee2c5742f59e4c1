// SPDX-License-Identifier: MIT
/*
 * Process identity on Linux.
 *
 * The kernel keeps credentials per thread; glibc's set*id wrappers make a
 * change on every thread of the process (they signal each one). The super-user
 * bracket must change the calling thread only, so it makes the raw system
 * calls. A set-user-ID root program that has lowered its effective user ID
 * still holds root as its saved user ID, which is what lets a thread raise
 * itself back.
 */
#include "id.h"

#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "internal/fatal.h"
#include "log.h"

namespace {

// 32-bit x86 has 16-bit legacy calls under the plain names.
#ifdef SYS_setresuid32
constexpr long kSetresuid = SYS_setresuid32;
constexpr long kSetresgid = SYS_setresgid32;
#else
constexpr long kSetresuid = SYS_setresuid;
constexpr long kSetresgid = SYS_setresgid;
#endif

constexpr long kUnchanged = -1;

// The thread's own effective IDs; -1 leaves an ID as it is.
int ThreadSetEffectiveUid(uid_t euid) {
   return static_cast<int>(syscall(kSetresuid, kUnchanged, static_cast<long>(euid), kUnchanged));
}

int ThreadSetEffectiveGid(gid_t egid) {
   return static_cast<int>(syscall(kSetresgid, kUnchanged, static_cast<long>(egid), kUnchanged));
}

}  // namespace

extern "C" {

uid_t Id_BeginSuperUser(void) {
   uid_t euid = geteuid();
   if (euid == 0) {
      return static_cast<uid_t>(-1);
   }
   if (euid == static_cast<uid_t>(-1)) {
      halcyx::PanicVerify("lib/misc/idLinux", 925);
   }
   // A failure leaves the thread unprivileged; the work that needed root
   // then fails on its own and reports why.
   (void)ThreadSetEffectiveUid(0);
   return euid;
}

void Id_EndSuperUser(uid_t previous) {
   if (previous == static_cast<uid_t>(-1) || previous == geteuid()) {
      return;
   }
   if (ThreadSetEffectiveGid(getgid()) != 0 || ThreadSetEffectiveUid(previous) != 0) {
      Log("Failed to release super user privileges.\n");
   }
}

bool Id_IsSetUGid(void) {
   return getuid() != geteuid() || getgid() != getegid() || getauxval(AT_SECURE) == 1;
}

int Id_SetGid(gid_t gid) { return setgid(gid); }

int Id_SetREUid(uid_t ruid, uid_t euid) { return setreuid(ruid, euid); }

int Id_SetRESUid(uid_t uid, uid_t euid, uid_t suid) { return setresuid(uid, euid, suid); }

}  // extern "C"
