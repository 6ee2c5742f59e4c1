// SPDX-License-Identifier: MIT
// User-level locks: names, dumps and the fatal paths (run in child processes).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "lock/ulInt.h"
#include "userlock.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;
using Lines = std::vector<std::string>;
namespace mx = halcyx::mxuser;

namespace {

// Upper-case hexadecimal without a prefix, as the library prints "%p".
std::string Hex(uint64_t v) {
   char text[20];
   snprintf(text, sizeof text, "%llX", static_cast<unsigned long long>(v));
   return text;
}
std::string Ptr(const void *p) { return Hex(reinterpret_cast<uintptr_t>(p)); }

/*
 * A signature's low 28 bits are the time in seconds when the process made
 * its first lock. Make that first lock here, before any test, and check its
 * stamp against the clock read on both sides of it: time() is a coarse
 * clock, so a second can turn over between any two readings.
 */
const uint32_t kSignatureBase = [] {
   auto before = static_cast<uint32_t>(time(nullptr));
   MXUserExclLock *first = MXUser_CreateExclLock("first", 0);
   auto after = static_cast<uint32_t>(time(nullptr));
   uint32_t base = first->header.signature & 0x0FFFFFFFu;
   MXUser_DestroyExclLock(first);
   if (base < (before & 0x0FFFFFFFu) || base > (after & 0x0FFFFFFFu)) {
      fprintf(stderr, "first lock stamped %u, outside the clock's [%u, %u]\n", base,
              before & 0x0FFFFFFFu, after & 0x0FFFFFFFu);
      abort();
   }
   return base;
}();
constexpr uint32_t kExclusive = 0x40000000u, kRecursive = 0x20000000u;

// The dump of a lock named name with rank, serial number serial, acquired
// count times by this thread; refs is dumped for a recursive lock only.
template <typename L>
Lines Dump(L *lock, const char *name, const char *rank, const char *serial, int count,
           int refs = 0) {
   constexpr bool excl = std::is_same_v<L, MXUserExclLock>;
   Lines lines = {
      std::string(excl ? "MXUserDumpExclLock: Exclusive" : "MXUserDumpRecLock: Recursive") +
         " lock @ " + Ptr(lock) + "\n",
      "\tsignature 0x" + Hex((excl ? kExclusive : kRecursive) | kSignatureBase) + "\n",
      std::string("\tname ") + name + "\n", std::string("\trank ") + rank + "\n",
      std::string("\tserial number ") + serial + "\n"};
   if (!excl) lines.push_back("\treference count " + std::to_string(refs) + "\n");
   lines.push_back("\tlock count " + std::to_string(count) + "\n");
   lines.push_back("\taddress of owner data " + Ptr(reinterpret_cast<void *>(pthread_self())) + "\n");
   return lines;
}

// Written by a child just before its fatal call: the log entries it expects
// (it alone knows its addresses), each ended by NUL, on stderr.
void Expect(Lines dump, const std::string &panic) {
   for (auto &line : dump) line.insert(0, "Warning: ");
   dump.push_back("Panic: " + panic);
   for (const auto &line : dump) fwrite(line.c_str(), 1, line.size() + 1, stderr);
   fflush(stderr);
}

const std::map<std::string, void (*)()> kFatalCases = {
   {"DestroyOfAcquiredExclusiveLock", [] {
       mx::SetNextSerialNumberForTest(81985529216486895ull);
       MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
       MXUser_AcquireExclLock(lock);
       MXUser_AcquireExclLock(lock);
       Expect(Dump(lock, "fatal-x", "0x42", "81985529216486895", 2),
              "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
       MXUser_DestroyExclLock(lock);
    }},
   {"DestroyOfLastReferenceOfAcquiredRecursiveLock", [] {
       mx::SetNextSerialNumberForTest(4294967296ull);
       MXUserRecLock *lock = MXUser_CreateRecLock("fatal-r", 0xFEDCBA98);
       MXUser_IncRefRecLock(lock);
       MXUser_AcquireRecLock(lock);
       MXUser_DestroyRecLock(lock);  // drops the extra reference only
       Expect(Dump(lock, "fatal-r", "0xFEDCBA98", "4294967296", 1, 0),
              "MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n");
       MXUser_DecRefRecLock(lock);
    }},
   {"CorruptLockIsDumpedRaw", [] {
       mx::SetNextSerialNumberForTest(12);
       MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
       MXUser_AcquireExclLock(lock);
       mx::Header *h = &lock->header;
       h->signature ^= 0x10000000u;  // now neither kind's signature
       Expect({"MXUserDumpAndPanic: Corrupt lock @ " + Ptr(h) + "\n", "\tname " + Ptr(h->name) + "\n",
               "\tsignature 0x" + Hex(0x50000000u | kSignatureBase) + "\n", "\trank 0x42\n",
               "\tdumpFunc " + Ptr(reinterpret_cast<void *>(mx::MXUserDumpExclLock)) + "\n",
               "\tstatsFunc 0\n", "\titem.next " + Ptr(h->item.next) + "\n",
               "\titem.prev " + Ptr(h->item.prev) + "\n", "\tserial number 12\n"},
              "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
       MXUser_DestroyExclLock(lock);
    }},
   {"WaitHoldingTheLockTwice", [] {
       mx::SetNextSerialNumberForTest(1);
       MXUserExclLock *lock = MXUser_CreateExclLock("cv", 0);
       MXUserCondVar *cv = MXUser_CreateCondVarExclLock(lock);
       MXUser_AcquireExclLock(lock);
       MXUser_AcquireExclLock(lock);
       Expect(Dump(lock, "cv", "0x0", "1", 2),
              "MXUserWaitCondVar: lock cv for condVar (" + Ptr(cv) + ") held 2 times\n");
       MXUser_WaitCondVarExclLock(lock, cv);
    }},
   {"SerialNumberWrap", [] {
       mx::SetNextSerialNumberForTest(UINT64_MAX);
       MXUser_CreateExclLock("last", 0);
       Expect({}, "MXUserAllocSerialNumber: too many locks!\n");
       MXUser_CreateRecLock("wrapped", 0);
    }},
};

class LockFatal : public ::testing::TestWithParam<std::pair<const std::string, void (*)()>> {};

TEST_P(LockFatal, LogsExactlyTheExpectedEntriesAndExitsWithOne) {
   auto r = RunInChild(GetParam().second);
   EXPECT_EQ(r.ExitCode(), 1) << r.out << r.err;
   Lines expected;
   std::istringstream err(r.err);
   for (std::string item; std::getline(err, item, '\0');) expected.push_back(item);
   EXPECT_EQ(LogEntries(r.out), expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, LockFatal, ::testing::ValuesIn(kFatalCases),
                         [](const auto &info) { return info.param.first; });

MXUserExclLock *gNested;

TEST(LockFatalNesting, SixthNestedDumpCallsThePanicHookOrEndsSilently) {
   for (bool hooked : {true, false}) {
      auto r = RunInChild([hooked] {
         gNested = MXUser_CreateExclLock("fatal-x", 0x42);
         MXUser_AcquireExclLock(gNested);
         // The fatal path runs into the same broken lock again each time.
         mx::gEndProcessForTest = [](const char *) {
            mx::MXUserDumpAndPanic(&gNested->header, "again\n");
         };
         if (hooked) MXUser_InstallPanicHook([] { _exit(MXUser_InPanic() ? 42 : 43); });
         MXUser_DestroyExclLock(gNested);
      });
      EXPECT_EQ(r.ExitCode(), hooked ? 42 : 1);
      auto log = LogEntries(r.out);
      ASSERT_EQ(log.size(), 5u * 7u) << r.out;  // five full dumps, then nothing
      EXPECT_EQ(log[28], log[0]);
   }
}

// One call site each; the empty asm keeps the call from being a tail call,
// whose return address would be the helper's caller's.
template <typename L, L *(*create)(const char *, MX_Rank)> __attribute__((noinline)) L *Unnamed() {
   L *lock = create(nullptr, 0);
   asm volatile("" : : "r"(lock) : "memory");
   return lock;
}

// An unnamed lock is "<prefix>-<address>", the address lying in the creating helper.
template <typename L, L *(*create)(const char *, MX_Rank), void (*destroy)(L *)>
void ExpectNamedAfterCallSite(char prefix) {
   L *lock = Unnamed<L, create>();
   auto helper = reinterpret_cast<uintptr_t>(&Unnamed<L, create>);
   uintptr_t addr = strtoull(lock->header.name + 2, nullptr, 16);
   EXPECT_EQ(std::string(1, prefix) + "-" + Hex(addr), lock->header.name);
   EXPECT_TRUE(addr > helper && addr < helper + 4096) << lock->header.name;
   destroy(lock);
}

TEST(LockNames, UnnamedAreNamedAfterTheCreatingCallNamedAreCopiedRankIsKept) {
   ExpectNamedAfterCallSite<MXUserExclLock, MXUser_CreateExclLock, MXUser_DestroyExclLock>('X');
   ExpectNamedAfterCallSite<MXUserRecLock, MXUser_CreateRecLock, MXUser_DestroyRecLock>('R');
   char name[] = "mine";
   MXUserRecLock *lock = MXUser_CreateRecLock(name, 0xDEADBEEF);
   name[0] = 'X';
   EXPECT_STREQ(MXUser_GetRecLockName(lock), "mine");
   EXPECT_EQ(MXUser_GetRecLockRank(lock), 0xDEADBEEFu);
   MXUser_DestroyRecLock(lock);
}

}  // namespace
