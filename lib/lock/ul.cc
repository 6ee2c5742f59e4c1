// SPDX-License-Identifier: MIT
/*
 * Machinery shared by both lock kinds: the native lock, signatures, serial
 * numbers, the process-wide lock list and the fatal dump path.
 */
#include <cstdlib>
#include <ctime>
#include <new>
#include <unistd.h>

#include "lock/ulInt.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace halcyx::mxuser {

// ---- Native lock with owner tracking ----

bool MXRecLock::Init() {
   count_.store(0, std::memory_order_relaxed);
   owner_.store(kNoOwner, std::memory_order_relaxed);
   return pthread_mutex_init(&mutex_, nullptr) == 0;
}

void MXRecLock::Destroy() { pthread_mutex_destroy(&mutex_); }

void MXRecLock::DropForWait() {
   count_.store(0, std::memory_order_relaxed);
   owner_.store(kNoOwner, std::memory_order_relaxed);
}

void MXRecLock::RetakeAfterWait() {
   count_.store(1, std::memory_order_relaxed);
   owner_.store(pthread_self(), std::memory_order_relaxed);
}

// ---- Signatures and serial numbers ----

namespace {

// Set once to a non-zero value; concurrent first users agree through CAS.
std::atomic<uint32_t> gSignatureBase{0};

// The next serial number; 0 means the counter wrapped.
std::atomic<uint64_t> gSerialNumber{1};

// 0: statistics off, the only mode this build sets.
std::atomic<int> gStatsMode{0};

}  // namespace

uint32_t MXUserGetSignature(uint32_t kind) {
   uint32_t base = gSignatureBase.load(std::memory_order_acquire);
   if (base == 0) {
      uint32_t now = static_cast<uint32_t>(time(nullptr));
      uint32_t expected = 0;
      if (!gSignatureBase.compare_exchange_strong(expected, now == 0 ? 1 : now,
                                                  std::memory_order_acq_rel)) {
         base = expected;  // another thread installed its value first
      } else {
         base = now == 0 ? 1 : now;
      }
   }
   return (kind << 28) | (base & 0x0FFFFFFFu);
}

uint64_t MXUserAllocSerialNumber() {
   uint64_t serial = gSerialNumber.fetch_add(1, std::memory_order_relaxed);
   if (serial == 0) {
      Panic("%s: too many locks!\n", "MXUserAllocSerialNumber");
   }
   return serial;
}

void SetNextSerialNumberForTest(uint64_t next) {
   gSerialNumber.store(next, std::memory_order_relaxed);
}

void SetStatsModeForTest(int mode) { gStatsMode.store(mode, std::memory_order_relaxed); }

void MXUserSetupStatistics(const char *caller) {
   int mode = gStatsMode.load(std::memory_order_relaxed);
   switch (mode) {
   case 0:
      break;
   case 1:
   case 2:
      // Statistics collection is not part of this build; a lock simply has
      // none, as in mode 0.
      break;
   default:
      Panic("%s: unknown stats mode: %d!\n", caller, mode);
   }
}

char *MXUserMakeName(const char *name, char prefix, void *address) {
   if (name != nullptr) {
      return UtilSafeStrdup0(name);
   }
   char made[48];
   Str_Sprintf(made, sizeof made, "%c-%p", prefix, address);
   return UtilSafeStrdup0(made);
}

// ---- The lock list ----

namespace {

// Created on first use and never freed: locks may be created and destroyed
// until the process ends.
std::atomic<MXRecLock *> gListGuard{nullptr};

// One item of the circular list, or null when it is empty. Guarded by
// gListGuard.
ListItem *gListHead = nullptr;

MXRecLock *ListGuard() {
   MXRecLock *guard = gListGuard.load(std::memory_order_acquire);
   if (guard != nullptr) {
      return guard;
   }
   void *memory = UtilSafeCalloc0(1, sizeof(MXRecLock));
   MXRecLock *fresh = new (memory) MXRecLock();
   if (!fresh->Init()) {
      Panic("%s: native lock initialization routine failed\n", "MXUserInternalSingleton");
   }
   MXRecLock *expected = nullptr;
   if (gListGuard.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
      return fresh;
   }
   // Another thread installed its guard first.
   fresh->Destroy();
   free(memory);
   return expected;
}

}  // namespace

void MXUserAddToList(Header *header) {
   MutexLock guard(ListGuard());
   ListItem *item = &header->item;
   if (gListHead == nullptr) {
      item->next = item;
      item->prev = item;
      gListHead = item;
   } else {
      item->next = gListHead;
      item->prev = gListHead->prev;
      gListHead->prev->next = item;
      gListHead->prev = item;
   }
}

void MXUserRemoveFromList(Header *header) {
   MutexLock guard(ListGuard());
   ListItem *item = &header->item;
   if (item->next == item) {
      gListHead = nullptr;
   } else {
      item->prev->next = item->next;
      item->next->prev = item->prev;
      if (gListHead == item) {
         gListHead = item->next;
      }
   }
   item->next = nullptr;
   item->prev = nullptr;
}

size_t CountListedLocksForTest() {
   MutexLock guard(ListGuard());
   if (gListHead == nullptr) {
      return 0;
   }
   size_t count = 1;
   for (ListItem *item = gListHead->next; item != gListHead; item = item->next) {
      // Links must agree in both directions.
      if (item->next->prev != item || item->prev->next != item) {
         return SIZE_MAX;
      }
      count++;
   }
   return count;
}

void MXUserInitHeader(Header *header, uint32_t kind, char *name, MX_Rank rank, DumpFunc dump) {
   header->signature = MXUserGetSignature(kind);
   header->name = name;
   header->rank = rank;
   header->serialNumber = MXUserAllocSerialNumber();
   header->dumpFunc = dump;
   header->statsFunc = nullptr;
}

// ---- Dumps and the fatal path ----

bool MXUserIsCorrupt(const Header *header) {
   if (header->signature == MXUserGetSignature(kKindExcl)) {
      return header->dumpFunc != MXUserDumpExclLock;
   }
   if (header->signature == MXUserGetSignature(kKindRec)) {
      return header->dumpFunc != MXUserDumpRecLock;
   }
   return true;
}

void (*gEndProcessForTest)(const char *message) = nullptr;

namespace {

// Entries into MXUserDumpAndPanic; each ends the process, so a count above one
// means the fatal path ran into another broken lock.
std::atomic<int> gDumpAndPanicEntries{0};
std::atomic<bool> gInPanic{false};
std::atomic<MXUserPanicHook> gPanicHook{nullptr};

constexpr int kMaxNestedDumps = 5;

void *AsPointer(DumpFunc f) { return reinterpret_cast<void *>(f); }

void DumpCorrupt(const Header *header) {
   Warning("%s: Corrupt lock @ %p\n", "MXUserDumpAndPanic", static_cast<const void *>(header));
   Warning("\tname %p\n", static_cast<void *>(header->name));
   Warning("\tsignature 0x%X\n", header->signature);
   Warning("\trank 0x%X\n", header->rank);
   Warning("\tdumpFunc %p\n", AsPointer(header->dumpFunc));
   Warning("\tstatsFunc %p\n", AsPointer(header->statsFunc));
   Warning("\titem.next %p\n", static_cast<void *>(header->item.next));
   Warning("\titem.prev %p\n", static_cast<void *>(header->item.prev));
   Warning("\tserial number %llu\n", static_cast<unsigned long long>(header->serialNumber));
}

}  // namespace

void MXUserDumpAndPanic(Header *header, const char *format, ...) {
   if (gDumpAndPanicEntries.fetch_add(1, std::memory_order_relaxed) >= kMaxNestedDumps) {
      // Dumping again is what nested; stop writing altogether.
      gInPanic.store(true, std::memory_order_relaxed);
      MXUserPanicHook hook = gPanicHook.load(std::memory_order_acquire);
      if (hook != nullptr) {
         hook();
      }
      _exit(1);
   }

   if (MXUserIsCorrupt(header)) {
      DumpCorrupt(header);
   } else {
      header->dumpFunc(header);
   }

   // The log writes at most this much of a message and drops a longer one
   // whole; formatting into the same size drops it here the same way.
   char message[1024];
   va_list ap;
   va_start(ap, format);
   if (Str_Vsnprintf(message, sizeof message, format, ap) < 0) {
      message[0] = '\0';
   }
   va_end(ap);
   if (gEndProcessForTest != nullptr) {
      gEndProcessForTest(message);
   }
   Panic("%s", message);
}

}  // namespace halcyx::mxuser

extern "C" {

void MXUser_InstallPanicHook(MXUserPanicHook hook) {
   halcyx::mxuser::gPanicHook.store(hook, std::memory_order_release);
}

bool MXUser_InPanic(void) {
   return halcyx::mxuser::gInPanic.load(std::memory_order_relaxed);
}

}  // extern "C"
