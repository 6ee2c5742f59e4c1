// SPDX-License-Identifier: MIT
/*
 * The library's own locks: an exclusive lock, a recursive lock and
 * condition variables bound to either.
 *
 * Both lock kinds wrap a native mutex with owner tracking. Every lock
 * carries a name, a rank (its lock-ordering class, stored and dumped only),
 * a signature and a serial number, and sits in one process-wide list, so a
 * misused or corrupt lock is dumped to the log before the process ends.
 *
 * Owner re-entry: a thread that already holds a lock (of either kind) and
 * acquires it again never blocks; the lock counts the acquisitions and is
 * handed to another thread only after as many releases. The exclusive lock
 * therefore behaves like a recursive one for its owner, without diagnostic.
 *
 * Misuse that is detected (destroying an acquired lock, waiting on a
 * condition variable without holding its lock exactly once) writes the
 * lock's dump with Warning and ends the process through Panic (status 1).
 * Releasing a lock the caller does not hold is undefined.
 *
 * Typical use of a process-wide named lock:
 *
 *    static MXUserExclLock *gSlot;   // only ever touched by the call below
 *    MXUserExclLock *lock =
 *       MXUser_CreateSingletonExclLockInt(&gSlot, "myLock", RANK_x);
 *    MXUser_AcquireExclLock(lock);
 *    ...
 *    MXUser_ReleaseExclLock(lock);
 */
#ifndef HALCYX_USERLOCK_H
#define HALCYX_USERLOCK_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

typedef uint32_t MX_Rank;

typedef struct MXUserExclLock MXUserExclLock;
typedef struct MXUserRecLock MXUserRecLock;
typedef struct MXUserCondVar MXUserCondVar;

/* Passed as the timeout of a timed wait: wait without a time limit. */
#define MXUSER_WAIT_INFINITE 0xFFFFFFFFu

/*
 * Creation. The name is copied; a null name makes "X-<address>" (exclusive)
 * or "R-<address>" (recursive), the address being the creating caller's
 * return address. Never returns null: allocation or native mutex failure
 * ends the process.
 */
MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank);
MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank);

/*
 * Returns the lock held in *lockStorage, creating and installing it on first
 * use. Safe against concurrent first callers: exactly one lock is installed
 * and every caller gets it; a losing creator destroys its own lock. Never
 * blocks on a global lock. *lockStorage must start null (a static) and be
 * accessed only through these functions.
 */
MXUserExclLock *MXUser_CreateSingletonExclLockInt(MXUserExclLock **lockStorage,
                                                  const char *name, MX_Rank rank);
MXUserRecLock *MXUser_CreateSingletonRecLockInt(MXUserRecLock **lockStorage,
                                                const char *name, MX_Rank rank);

/* Exclusive lock. Destroy ignores null and is fatal while acquired. */
void MXUser_AcquireExclLock(MXUserExclLock *lock);
void MXUser_ReleaseExclLock(MXUserExclLock *lock);
/* True when acquired; false when another thread holds the lock. */
bool MXUser_TryAcquireExclLock(MXUserExclLock *lock);
bool MXUser_IsCurThreadHoldingExclLock(MXUserExclLock *lock);
void MXUser_DestroyExclLock(MXUserExclLock *lock);

/*
 * Recursive lock. It is reference counted (1 at creation): IncRef adds a
 * reference, DecRef and Destroy drop one (null is ignored), and only the
 * last reference destroys the lock; that final destroy is fatal while the
 * lock is acquired.
 */
void MXUser_AcquireRecLock(MXUserRecLock *lock);
void MXUser_ReleaseRecLock(MXUserRecLock *lock);
bool MXUser_TryAcquireRecLock(MXUserRecLock *lock);
bool MXUser_IsCurThreadHoldingRecLock(MXUserRecLock *lock);
void MXUser_IncRefRecLock(MXUserRecLock *lock);
void MXUser_DecRefRecLock(MXUserRecLock *lock);
void MXUser_DestroyRecLock(MXUserRecLock *lock);
/* The lock's own copy of its name; valid while the lock lives. */
const char *MXUser_GetRecLockName(MXUserRecLock *lock);
MX_Rank MXUser_GetRecLockRank(MXUserRecLock *lock);

/*
 * Condition variables, each bound at creation to one lock, which must
 * outlive it. Wait and TimedWait must be called by the thread holding that
 * lock exactly once (an owner that re-entered would hand the lock to
 * another thread in the middle of its outer critical section, so that is
 * fatal, as is waiting without holding the lock or with another lock).
 * The lock is released while waiting and held again, once, on return.
 *
 * A wait may also return without a signal (spurious wake-up): callers wait
 * in a loop on their own condition. TimedWait measures its limit in
 * milliseconds on the monotonic clock and returns false when the limit
 * passed, true otherwise.
 *
 * Signal wakes at least one waiter, Broadcast all; both may be called with
 * or without the lock held. Destroy ignores null; no thread may be waiting.
 * A condition variable cannot be bound to a recursive lock that is bound
 * to an external lock (that is fatal).
 */
MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock);
void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar);
bool MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait);
MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock);
void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar);
bool MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar,
                                    uint32_t msecWait);
void MXUser_SignalCondVar(MXUserCondVar *condVar);
void MXUser_BroadcastCondVar(MXUserCondVar *condVar);
void MXUser_DestroyCondVar(MXUserCondVar *condVar);

/*
 * The panic hook. Fatal lock diagnostics can nest (a dump or the fatal
 * path itself runs into another broken lock); from the sixth nested entry
 * on, the process is marked as in panic and the hook is called instead of
 * dumping again. When no hook is installed, or the hook returns, the
 * process ends at once with _exit(1), writing nothing more.
 */
typedef void (*MXUserPanicHook)(void);
void MXUser_InstallPanicHook(MXUserPanicHook hook);
/* True once fatal lock diagnostics have nested too deeply. */
bool MXUser_InPanic(void);

HALCYX_EXTERN_C_END

#endif /* HALCYX_USERLOCK_H */
