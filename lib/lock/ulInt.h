// SPDX-License-Identifier: MIT
/*
 * Internals shared by the user-level lock modules: the native lock with
 * owner tracking, the common lock header, the process-wide lock list,
 * signatures, serial numbers and the fatal dump path.
 */
#ifndef HALCYX_LOCK_ULINT_H
#define HALCYX_LOCK_ULINT_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <pthread.h>

#include "halcyx_base.h"
#include "userlock.h"

// Clang's thread-safety analysis; no-ops for other compilers.
#if defined(__clang__)
#define HALCYX_TSA(x) __attribute__((x))
#else
#define HALCYX_TSA(x)
#endif
#define HALCYX_CAPABILITY(x) HALCYX_TSA(capability(x))
#define HALCYX_SCOPED_CAPABILITY HALCYX_TSA(scoped_lockable)
#define HALCYX_ACQUIRE(...) HALCYX_TSA(acquire_capability(__VA_ARGS__))
#define HALCYX_RELEASE(...) HALCYX_TSA(release_capability(__VA_ARGS__))
#define HALCYX_TRY_ACQUIRE(...) HALCYX_TSA(try_acquire_capability(__VA_ARGS__))
#define HALCYX_NO_TSA HALCYX_TSA(no_thread_safety_analysis)

namespace halcyx::mxuser {

// Kinds in the top four bits of a signature.
constexpr uint32_t kKindExcl = 4;
constexpr uint32_t kKindRec = 2;

/*
 * A native mutex with an acquisition count and an owner.
 *
 * The owner re-entering never blocks: it only adds to the count. The count
 * and the owner are written only by the thread holding the mutex, but every
 * acquirer reads them for the re-entry test, so they are atomics. Relaxed
 * ordering is enough for that test: a thread reads owner == itself only if
 * it stored that value itself (no other thread ever stores it), and its own
 * later stores (owner back to none before unlocking) are always visible to
 * itself in program order, so it can never take a stale value for
 * ownership. A non-owner that reads a stale value merely goes on to the
 * mutex, which orders everything that matters.
 */
class HALCYX_CAPABILITY("mutex") MXRecLock {
public:
   // Returns false when the native mutex could not be initialised.
   bool Init();
   void Destroy();

   void Acquire() HALCYX_ACQUIRE();
   bool TryAcquire() HALCYX_TRY_ACQUIRE(true);
   void Release() HALCYX_RELEASE();

   bool IsCurThreadHolding() const {
      return count_.load(std::memory_order_relaxed) > 0 &&
             pthread_equal(owner_.load(std::memory_order_relaxed), pthread_self());
   }
   int Count() const { return count_.load(std::memory_order_relaxed); }
   pthread_t Owner() const { return owner_.load(std::memory_order_relaxed); }

   /*
    * For condition waits: the caller holds the lock exactly once. Drop
    * forgets the ownership before the mutex is given up by the wait; Retake
    * records it again once the wait has reacquired the mutex.
    */
   void DropForWait();
   void RetakeAfterWait();
   pthread_mutex_t *Native() { return &mutex_; }

private:
   pthread_mutex_t mutex_;
   std::atomic<int> count_{0};
   std::atomic<pthread_t> owner_{kNoOwner};

public:
   // "No owner": never the value of a live thread's pthread_t on Linux.
   static constexpr pthread_t kNoOwner = static_cast<pthread_t>(-1);
};

// Inline: these are the whole cost of an uncontended acquire and release.
inline void MXRecLock::Acquire() HALCYX_NO_TSA {
   if (IsCurThreadHolding()) {
      count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      return;
   }
   pthread_mutex_lock(&mutex_);
   // The count is 0 here: whoever held the mutex released it fully.
   count_.store(1, std::memory_order_relaxed);
   owner_.store(pthread_self(), std::memory_order_relaxed);
}

inline bool MXRecLock::TryAcquire() HALCYX_NO_TSA {
   if (IsCurThreadHolding()) {
      count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      return true;
   }
   if (pthread_mutex_trylock(&mutex_) != 0) {
      return false;
   }
   count_.store(1, std::memory_order_relaxed);
   owner_.store(pthread_self(), std::memory_order_relaxed);
   return true;
}

inline void MXRecLock::Release() HALCYX_NO_TSA {
   int count = count_.load(std::memory_order_relaxed) - 1;
   count_.store(count, std::memory_order_relaxed);
   if (count == 0) {
      // Forget the owner before the mutex can pass to another thread.
      owner_.store(kNoOwner, std::memory_order_relaxed);
      pthread_mutex_unlock(&mutex_);
   }
}

// Holds an MXRecLock for its own lifetime.
class HALCYX_SCOPED_CAPABILITY MutexLock {
public:
   explicit MutexLock(MXRecLock *lock) HALCYX_ACQUIRE(lock) : lock_(lock) { lock_->Acquire(); }
   ~MutexLock() HALCYX_RELEASE() { lock_->Release(); }
   MutexLock(const MutexLock &) = delete;
   MutexLock &operator=(const MutexLock &) = delete;

private:
   MXRecLock *lock_;
};

// Membership in the circular, doubly linked process-wide lock list.
struct ListItem {
   ListItem *next;
   ListItem *prev;
};

struct Header;
using DumpFunc = void (*)(Header *header);
using StatsFunc = void (*)(Header *header);

// The header shared by both lock kinds; always the first member.
struct Header {
   uint32_t signature;  // 0 once destroyed
   MX_Rank rank;
   char *name;
   DumpFunc dumpFunc;
   StatsFunc statsFunc;  // always null: statistics are off
   ListItem item;
   uint64_t serialNumber;
};

/*
 * Operations of an external lock that a recursive lock can be bound to
 * instead of using its own mutex.
 */
struct ExternalLockOps {
   void (*acquire)(void *external);
   bool (*tryAcquire)(void *external);
   void (*release)(void *external);
   bool (*isCurThreadHolding)(void *external);
};

// The signature of a live lock of the given kind in this process.
uint32_t MXUserGetSignature(uint32_t kind);

// The next serial number; fatal when the 64-bit counter wrapped.
uint64_t MXUserAllocSerialNumber();

// Creates the name "<prefix>-<address>" or copies name (never null result).
char *MXUserMakeName(const char *name, char prefix, void *address);

// Fills the common header and links the lock into the list.
void MXUserInitHeader(Header *header, uint32_t kind, char *name, MX_Rank rank,
                DumpFunc dump);
void MXUserAddToList(Header *header);
void MXUserRemoveFromList(Header *header);

/*
 * Sets up statistics for a new lock by the process's statistics mode.
 * Mode 0 (the only mode of this build) sets nothing; 1 and 2 would, and any
 * other mode is fatal with "%s: unknown stats mode: %d!\n" naming caller.
 */
void MXUserSetupStatistics(const char *caller);

/*
 * Writes the lock's dump with Warning (raw header fields when the lock is
 * corrupt), then ends the process through Panic with the formatted message.
 */
[[noreturn]] void MXUserDumpAndPanic(Header *header, const char *format, ...)
   HALCYX_PRINTF(2, 3);

// True when the header does not look like a live lock of either kind.
bool MXUserIsCorrupt(const Header *header);

void MXUserDumpExclLock(Header *header);
void MXUserDumpRecLock(Header *header);

/*
 * Releases a lock's memory once its native lock is gone and it has left the
 * list. The signature is cleared first, so a stale pointer to the lock is
 * recognised as corrupt by the dump path rather than trusted.
 */
template <typename Lock>
void MXUserFreeLock(Lock *lock) {
   lock->header.signature = 0;
   free(lock->header.name);
   lock->header.name = nullptr;
   free(lock);
}

/*
 * Returns the lock in *storage, making it with create() on first use.
 * Racing creators agree through one compare-and-swap of the slot; a loser
 * destroys its own lock, which nobody else has seen, and returns the
 * winner's. Never blocks.
 */
template <typename Lock, typename Create, typename Destroy>
Lock *MXUserInstallSingleton(Lock **storage, Create create, Destroy destroy) {
   std::atomic_ref<Lock *> slot(*storage);
   Lock *lock = slot.load(std::memory_order_acquire);
   if (lock != nullptr) {
      return lock;
   }
   Lock *fresh = create();
   if (slot.compare_exchange_strong(lock, fresh, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
      return fresh;
   }
   destroy(fresh);
   return lock;
}

/*
 * Test seams. Set only by tests, and only while no other lock is created
 * or dumped.
 */
// Sets the serial counter's next value.
void SetNextSerialNumberForTest(uint64_t next);
// Sets the statistics mode.
void SetStatsModeForTest(int mode);
// Replaces the final Panic of MXUserDumpAndPanic; the message is fully formatted.
extern void (*gEndProcessForTest)(const char *message);
// Number of locks in the list (takes the list guard).
size_t CountListedLocksForTest();

}  // namespace halcyx::mxuser

// Layouts of the opaque public types.
struct MXUserExclLock {
   halcyx::mxuser::Header header;
   halcyx::mxuser::MXRecLock recursiveLock;
   void *heldStatsMem;     // always null: statistics are off
   void *acquireStatsMem;  // always null: statistics are off
};

struct MXUserRecLock {
   halcyx::mxuser::Header header;
   halcyx::mxuser::MXRecLock recursiveLock;
   void *heldStatsMem;
   void *acquireStatsMem;
   std::atomic<uint32_t> refCount;
   // When set, the lock is the external lock and recursiveLock is unused.
   void *vmmLock;
   const halcyx::mxuser::ExternalLockOps *vmmOps;
};

namespace halcyx::mxuser {

/*
 * A recursive lock bound to an external lock: acquiring, releasing and the
 * holding test go to ops. Such a lock is not in the lock list, its own
 * mutex is never used, and destroying it never checks for an acquired
 * state (the external lock's owner answers for it).
 */
MXUserRecLock *MXUserBindExternalRecLock(void *external, const ExternalLockOps *ops,
                                   const char *name, MX_Rank rank);

}  // namespace halcyx::mxuser

#endif  // HALCYX_LOCK_ULINT_H
