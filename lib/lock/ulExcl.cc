// SPDX-License-Identifier: MIT
/*
 * The exclusive lock.
 */
#include <cstdlib>
#include <new>

#include "lock/ulInt.h"
#include "log.h"
#include "util.h"

namespace halcyx::mxuser {

void MXUserDumpExclLock(Header *header) {
   auto *lock = reinterpret_cast<MXUserExclLock *>(header);
   Warning("%s: Exclusive lock @ %p\n", "MXUserDumpExclLock", static_cast<void *>(lock));
   Warning("\tsignature 0x%X\n", header->signature);
   Warning("\tname %s\n", header->name);
   Warning("\trank 0x%X\n", header->rank);
   Warning("\tserial number %llu\n", static_cast<unsigned long long>(header->serialNumber));
   Warning("\tlock count %d\n", lock->recursiveLock.Count());
   Warning("\taddress of owner data %p\n",
           reinterpret_cast<void *>(lock->recursiveLock.Owner()));
}

namespace {

// caller: the return address that names the lock when name is null.
MXUserExclLock *CreateExclLock(const char *name, MX_Rank rank, void *caller) {
   void *memory = UtilSafeCalloc0(1, sizeof(MXUserExclLock));
   auto *lock = new (memory) MXUserExclLock();
   char *properName = MXUserMakeName(name, 'X', caller);
   if (!lock->recursiveLock.Init()) {
      Panic("%s: native lock initialization routine failed\n", "MXUser_CreateExclLock");
   }
   MXUserInitHeader(&lock->header, kKindExcl, properName, rank, MXUserDumpExclLock);
   MXUserSetupStatistics("MXUser_CreateExclLock");
   MXUserAddToList(&lock->header);
   return lock;
}

}  // namespace

}  // namespace halcyx::mxuser

using namespace halcyx::mxuser;

// The C entry points hand a lock across calls, which the analysis cannot
// follow; it checks the native lock and the guard type instead.
extern "C" {

MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank) {
   return CreateExclLock(name, rank, __builtin_return_address(0));
}

void MXUser_AcquireExclLock(MXUserExclLock *lock) HALCYX_NO_TSA { lock->recursiveLock.Acquire(); }

void MXUser_ReleaseExclLock(MXUserExclLock *lock) HALCYX_NO_TSA { lock->recursiveLock.Release(); }

bool MXUser_TryAcquireExclLock(MXUserExclLock *lock) HALCYX_NO_TSA {
   return lock->recursiveLock.TryAcquire();
}

bool MXUser_IsCurThreadHoldingExclLock(MXUserExclLock *lock) {
   return lock->recursiveLock.IsCurThreadHolding();
}

void MXUser_DestroyExclLock(MXUserExclLock *lock) {
   if (lock == nullptr) {
      return;
   }
   if (lock->recursiveLock.Count() > 0) {
      MXUserDumpAndPanic(&lock->header, "%s: Destroy of an acquired exclusive lock\n",
                   "MXUser_DestroyExclLock");
   }
   lock->recursiveLock.Destroy();
   MXUserRemoveFromList(&lock->header);
   MXUserFreeLock(lock);
}

MXUserExclLock *MXUser_CreateSingletonExclLockInt(MXUserExclLock **lockStorage,
                                                  const char *name, MX_Rank rank) {
   void *caller = __builtin_return_address(0);
   return MXUserInstallSingleton(
      lockStorage, [&] { return CreateExclLock(name, rank, caller); }, MXUser_DestroyExclLock);
}

}  // extern "C"
