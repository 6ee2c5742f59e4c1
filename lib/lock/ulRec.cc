// SPDX-License-Identifier: MIT
/*
 * The recursive lock: reference counted, optionally bound to an external
 * lock.
 */
#include <cstdlib>
#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "util.h"

namespace halcyx::mxuser {

void MXUserDumpRecLock(Header *header) {
   auto *lock = reinterpret_cast<MXUserRecLock *>(header);
   Warning("%s: Recursive lock @ %p\n", "MXUserDumpRecLock", static_cast<void *>(lock));
   Warning("\tsignature 0x%X\n", header->signature);
   Warning("\tname %s\n", header->name);
   Warning("\trank 0x%X\n", header->rank);
   Warning("\tserial number %llu\n", static_cast<unsigned long long>(header->serialNumber));
   Warning("\treference count %u\n", lock->refCount.load(std::memory_order_relaxed));
   if (lock->vmmLock == nullptr) {
      Warning("\tlock count %d\n", lock->recursiveLock.Count());
      Warning("\taddress of owner data %p\n",
              reinterpret_cast<void *>(lock->recursiveLock.Owner()));
   } else {
      Warning("\tvmmLock %p\n", lock->vmmLock);
   }
}

namespace {

MXUserRecLock *AllocRecLock(const char *name, MX_Rank rank, void *caller) {
   void *memory = UtilSafeCalloc0(1, sizeof(MXUserRecLock));
   auto *lock = new (memory) MXUserRecLock();
   lock->refCount.store(1, std::memory_order_relaxed);
   lock->header.name = MXUserMakeName(name, 'R', caller);
   lock->header.rank = rank;
   return lock;
}

// caller: the return address that names the lock when name is null.
MXUserRecLock *CreateRecLock(const char *name, MX_Rank rank, void *caller) {
   MXUserRecLock *lock = AllocRecLock(name, rank, caller);
   if (!lock->recursiveLock.Init()) {
      Panic("%s: native lock initialization routine failed\n", "MXUser_CreateRecLock");
   }
   MXUserInitHeader(&lock->header, kKindRec, lock->header.name, rank, MXUserDumpRecLock);
   MXUserSetupStatistics("MXUser_CreateRecLock");
   MXUserAddToList(&lock->header);
   return lock;
}

/*
 * Drops one reference; the holder of the last one destroys the lock.
 * Reference counting makes the last release race-free: exactly one caller
 * sees the count go from 1 to 0, and after that nobody else holds a
 * reference that could reach the lock.
 */
void MXUserCondDestroyRecLock(MXUserRecLock *lock) {
   if (lock->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) {
      return;
   }
   if (lock->vmmLock == nullptr) {
      if (lock->recursiveLock.Count() > 0) {
         MXUserDumpAndPanic(&lock->header, "%s: Destroy of an acquired recursive lock\n",
                      "MXUserCondDestroyRecLock");
      }
      lock->recursiveLock.Destroy();
      MXUserRemoveFromList(&lock->header);
   }
   MXUserFreeLock(lock);
}

}  // namespace

MXUserRecLock *MXUserBindExternalRecLock(void *external, const ExternalLockOps *ops,
                                   const char *name, MX_Rank rank) {
   MXUserRecLock *lock = AllocRecLock(name, rank, __builtin_return_address(0));
   lock->vmmLock = external;
   lock->vmmOps = ops;
   lock->header.signature = MXUserGetSignature(kKindRec);
   lock->header.serialNumber = MXUserAllocSerialNumber();
   lock->header.dumpFunc = MXUserDumpRecLock;
   return lock;
}

}  // namespace halcyx::mxuser

using namespace halcyx::mxuser;

// The C entry points hand a lock across calls, which the analysis cannot
// follow; it checks the native lock and the guard type instead.
extern "C" {

MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank) {
   return CreateRecLock(name, rank, __builtin_return_address(0));
}

void MXUser_AcquireRecLock(MXUserRecLock *lock) HALCYX_NO_TSA {
   if (lock->vmmLock != nullptr) {
      lock->vmmOps->acquire(lock->vmmLock);
   } else {
      lock->recursiveLock.Acquire();
   }
}

void MXUser_ReleaseRecLock(MXUserRecLock *lock) HALCYX_NO_TSA {
   if (lock->vmmLock != nullptr) {
      lock->vmmOps->release(lock->vmmLock);
   } else {
      lock->recursiveLock.Release();
   }
}

bool MXUser_TryAcquireRecLock(MXUserRecLock *lock) HALCYX_NO_TSA {
   if (lock->vmmLock != nullptr) {
      return lock->vmmOps->tryAcquire(lock->vmmLock);
   }
   return lock->recursiveLock.TryAcquire();
}

bool MXUser_IsCurThreadHoldingRecLock(MXUserRecLock *lock) {
   if (lock->vmmLock != nullptr) {
      return lock->vmmOps->isCurThreadHolding(lock->vmmLock);
   }
   return lock->recursiveLock.IsCurThreadHolding();
}

void MXUser_IncRefRecLock(MXUserRecLock *lock) {
   lock->refCount.fetch_add(1, std::memory_order_relaxed);
}

void MXUser_DecRefRecLock(MXUserRecLock *lock) {
   if (lock != nullptr) {
      MXUserCondDestroyRecLock(lock);
   }
}

void MXUser_DestroyRecLock(MXUserRecLock *lock) { MXUser_DecRefRecLock(lock); }

const char *MXUser_GetRecLockName(MXUserRecLock *lock) { return lock->header.name; }

MX_Rank MXUser_GetRecLockRank(MXUserRecLock *lock) { return lock->header.rank; }

MXUserRecLock *MXUser_CreateSingletonRecLockInt(MXUserRecLock **lockStorage,
                                                const char *name, MX_Rank rank) {
   void *caller = __builtin_return_address(0);
   return MXUserInstallSingleton(
      lockStorage, [&] { return CreateRecLock(name, rank, caller); }, MXUser_DestroyRecLock);
}

}  // extern "C"
