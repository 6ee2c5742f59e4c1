// SPDX-License-Identifier: MIT
/*
 * Advisory lock files shared between processes and hosts.
 *
 * Locking a path P never touches P: the lock lives in the directory
 * "P.lck" beside it, which holds one 512-byte member file per holder or
 * waiter. Shared and exclusive locks are served in ticket order, so the
 * scheme needs no operating-system lock and works on network file systems.
 * Members left behind by dead processes of this host are removed when a
 * waiter meets them. A shared lock on a location where nothing can be
 * created (read-only file system, no permission) succeeds as an implicit
 * read lock that writes and deletes nothing.
 *
 * Errors are POSIX numbers; a time-out is EAGAIN, lack of progress EBUSY,
 * a bad path EINVAL. Every failure also appends a message to *msgs when
 * msgs is not null.
 */
#ifndef HALCYX_FILELOCK_H
#define HALCYX_FILELOCK_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

typedef struct MsgList MsgList;
typedef struct FileLockToken FileLockToken;

/* Wait without a time limit. */
#define FILELOCK_WAIT_FOREVER 0xFFFFFFFFu

/*
 * Locks path (exclusively unless readOnly), waiting at most msecMaxWaitTime
 * milliseconds (0: try once). Returns the token, owned by the caller until
 * FileLock_Unlock, or null with *err set (err may be null).
 */
FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t msecMaxWaitTime, int *err, MsgList **msgs);

/* Releases and frees the token; false with *err on failure (the token is freed either way). */
bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgs);

/* True when some process holds or waits for a lock on path. */
bool FileLock_IsLocked(const char *path, int *err, MsgList **msgs);

HALCYX_EXTERN_C_END

#endif /* HALCYX_FILELOCK_H */
