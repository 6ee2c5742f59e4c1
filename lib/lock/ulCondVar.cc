// SPDX-License-Identifier: MIT
/*
 * Condition variables bound to an exclusive or a recursive lock.
 */
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "internal/fatal.h"
#include "lock/ulInt.h"
#include "log.h"
#include "util.h"

struct MXUserCondVar {
   // The header of the lock the variable is bound to.
   halcyx::mxuser::Header *ownerLock;
   pthread_cond_t condObject;
};

namespace halcyx::mxuser {

namespace {

MXUserCondVar *CreateCondVar(Header *header) {
   auto *condVar = static_cast<MXUserCondVar *>(UtilSafeCalloc0(1, sizeof(MXUserCondVar)));
   condVar->ownerLock = header;
   pthread_condattr_t attr;
   // Timed waits measure on the monotonic clock, immune to clock changes.
   if (pthread_condattr_init(&attr) != 0 ||
       pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) != 0 ||
       pthread_cond_init(&condVar->condObject, &attr) != 0) {
      Panic("%s: native lock initialization routine failed\n", "MXUserCreateCondVar");
   }
   pthread_condattr_destroy(&attr);
   return condVar;
}

/*
 * Waits with the lock held once by the caller. The native wait gives up and
 * retakes the mutex; the owner tracking is cleared around it so that other
 * threads see the lock as free while the caller sleeps.
 *
 * A lock held more than once is fatal rather than released in full: the
 * outer acquisition belongs to a critical section that did not expect the
 * lock to be handed to another thread in its middle.
 */
bool Wait(Header *header, MXRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait) {
   if (condVar->ownerLock != header) {
      MXUserDumpAndPanic(header, "%s: invalid use of lock %s with condVar (%p; %s)\n",
                   "MXUserWaitCondVar", header->name, static_cast<void *>(condVar),
                   condVar->ownerLock->name);
   }
   if (!lock->IsCurThreadHolding()) {
      MXUserDumpAndPanic(header, "%s: lock %s for condVar (%p) not owned\n", "MXUserWaitCondVar",
                   header->name, static_cast<void *>(condVar));
   }
   if (lock->Count() != 1) {
      MXUserDumpAndPanic(header, "%s: lock %s for condVar (%p) held %d times\n",
                   "MXUserWaitCondVar", header->name, static_cast<void *>(condVar),
                   lock->Count());
   }

   lock->DropForWait();
   int err;
   if (msecWait == MXUSER_WAIT_INFINITE) {
      err = pthread_cond_wait(&condVar->condObject, lock->Native());
   } else {
      struct timespec deadline;
      clock_gettime(CLOCK_MONOTONIC, &deadline);
      deadline.tv_sec += msecWait / 1000;
      deadline.tv_nsec += static_cast<long>(msecWait % 1000) * 1000000L;
      if (deadline.tv_nsec >= 1000000000L) {
         deadline.tv_sec += 1;
         deadline.tv_nsec -= 1000000000L;
      }
      err = pthread_cond_timedwait(&condVar->condObject, lock->Native(), &deadline);
   }
   // Every outcome of the native wait returns with the mutex held again.
   lock->RetakeAfterWait();
   if (err != 0 && err != ETIMEDOUT) {
      MXUserDumpAndPanic(header, "%s: failure %d on condVar (%p; %s)\n", "MXUserWaitCondVar", err,
                   static_cast<void *>(condVar), header->name);
   }
   return err == 0;
}

MXRecLock *NativeOf(MXUserRecLock *lock) {
   if (lock->vmmLock != nullptr) {
      PanicNotImplemented("lib/lock/ulCondVar", __LINE__);
   }
   return &lock->recursiveLock;
}

}  // namespace

}  // namespace halcyx::mxuser

using namespace halcyx::mxuser;

extern "C" {

MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock) {
   return CreateCondVar(&lock->header);
}

void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar) {
   Wait(&lock->header, &lock->recursiveLock, condVar, MXUSER_WAIT_INFINITE);
}

bool MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait) {
   return Wait(&lock->header, &lock->recursiveLock, condVar, msecWait);
}

MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock) {
   NativeOf(lock);
   return CreateCondVar(&lock->header);
}

void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar) {
   Wait(&lock->header, NativeOf(lock), condVar, MXUSER_WAIT_INFINITE);
}

bool MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar,
                                    uint32_t msecWait) {
   return Wait(&lock->header, NativeOf(lock), condVar, msecWait);
}

void MXUser_SignalCondVar(MXUserCondVar *condVar) {
   pthread_cond_signal(&condVar->condObject);
}

void MXUser_BroadcastCondVar(MXUserCondVar *condVar) {
   pthread_cond_broadcast(&condVar->condObject);
}

void MXUser_DestroyCondVar(MXUserCondVar *condVar) {
   if (condVar == nullptr) {
      return;
   }
   pthread_cond_destroy(&condVar->condObject);
   free(condVar);
}

}  // extern "C"
