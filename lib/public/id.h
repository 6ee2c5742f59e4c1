// SPDX-License-Identifier: MIT
/*
 * User and group identity of the running process.
 *
 * Id_BeginSuperUser and Id_EndSuperUser bracket work that needs root in a
 * set-user-ID root program that otherwise runs with the caller's user ID.
 * They change the calling thread's credentials only: other threads keep
 * running with theirs. Call them in pairs, on the same thread:
 *
 *    uid_t previous = Id_BeginSuperUser();
 *    ... work as root ...
 *    Id_EndSuperUser(previous);
 */
#ifndef HALCYX_ID_H
#define HALCYX_ID_H

#include <sys/types.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/*
 * Makes the calling thread's effective user ID root. Returns the effective
 * user ID that was in force, or (uid_t)-1 when the thread already ran as root
 * (then nothing changed).
 */
uid_t Id_BeginSuperUser(void);

/*
 * Undoes Id_BeginSuperUser: the thread's effective user ID becomes previous
 * again and its effective group ID the real group ID. Nothing happens when
 * previous is (uid_t)-1 or already the effective user ID. A failure is
 * logged and otherwise ignored.
 */
void Id_EndSuperUser(uid_t previous);

/* True when the process runs with borrowed identity (set-user-ID or -group). */
bool Id_IsSetUGid(void);

/* setgid, setreuid and setresuid for the whole process: 0 or -1 with errno. */
int Id_SetGid(gid_t gid);
int Id_SetREUid(uid_t ruid, uid_t euid);
int Id_SetRESUid(uid_t uid, uid_t euid, uid_t suid);

HALCYX_EXTERN_C_END

#endif /* HALCYX_ID_H */
