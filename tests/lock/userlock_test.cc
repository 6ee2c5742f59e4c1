// User-level locks: names, dumps and the fatal paths (run in child processes).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "lock/ulInt.h"
#include "str.h"
#include "userlock.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;
using Lines = std::vector<std::string>;
namespace mx = halcyx::mxuser;

namespace {

// Formats with the library's engine, so expectations follow its "%p" form.
template <typename... A> std::string Fmt(const char *format, A... args) {
   char text[256];
   return Str_Sprintf(text, sizeof text, format, args...) < 0 ? "(too long)" : text;
}

// The dump of a lock created with name and rank, acquired count times by
// this thread; refs is dumped for a recursive lock only.
template <typename L> Lines Dump(L *lock, const char *name, MX_Rank rank, int count, int refs = 0) {
   constexpr bool excl = std::is_same_v<L, MXUserExclLock>;
   uint32_t kind = excl ? mx::kKindExcl : mx::kKindRec;
   Lines lines = {Fmt("%s @ %p\n", excl ? "MXUserDumpExclLock: Exclusive lock"
                                        : "MXUserDumpRecLock: Recursive lock", (void *)lock),
                  Fmt("\tsignature 0x%X\n", kind << 28 | (lock->header.signature & 0x0FFFFFFFu)),
                  Fmt("\tname %s\n", name), Fmt("\trank 0x%X\n", rank),
                  Fmt("\tserial number %llu\n", (unsigned long long)lock->header.serialNumber),
                  Fmt("\treference count %d\n", refs), Fmt("\tlock count %d\n", count),
                  Fmt("\taddress of owner data %p\n", (void *)pthread_self())};
   if (excl) lines.erase(lines.begin() + 5);
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
       MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
       MXUser_AcquireExclLock(lock);
       MXUser_AcquireExclLock(lock);
       Expect(Dump(lock, "fatal-x", 0x42, 2),
              "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
       MXUser_DestroyExclLock(lock);
    }},
   {"DestroyOfLastReferenceOfAcquiredRecursiveLock", [] {
       MXUserRecLock *lock = MXUser_CreateRecLock("fatal-r", 7);
       MXUser_IncRefRecLock(lock);
       MXUser_AcquireRecLock(lock);
       MXUser_DestroyRecLock(lock);  // drops the extra reference only
       Expect(Dump(lock, "fatal-r", 7, 1, 0),
              "MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n");
       MXUser_DecRefRecLock(lock);
    }},
   {"CorruptLockIsDumpedRaw", [] {
       MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
       MXUser_AcquireExclLock(lock);
       mx::Header *h = &lock->header;
       h->signature ^= 0x10000000u;  // now neither kind's signature
       Expect({Fmt("MXUserDumpAndPanic: Corrupt lock @ %p\n", (void *)h),
               Fmt("\tname %p\n", (void *)h->name), Fmt("\tsignature 0x%X\n", h->signature),
               "\trank 0x42\n", Fmt("\tdumpFunc %p\n", (void *)mx::MXUserDumpExclLock),
               Fmt("\tstatsFunc %p\n", nullptr), Fmt("\titem.next %p\n", (void *)h->item.next),
               Fmt("\titem.prev %p\n", (void *)h->item.prev),
               Fmt("\tserial number %llu\n", (unsigned long long)h->serialNumber)},
              "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
       MXUser_DestroyExclLock(lock);
    }},
   {"WaitHoldingTheLockTwice", [] {
       MXUserExclLock *lock = MXUser_CreateExclLock("cv", 0);
       MXUserCondVar *cv = MXUser_CreateCondVarExclLock(lock);
       MXUser_AcquireExclLock(lock);
       MXUser_AcquireExclLock(lock);
       Expect(Dump(lock, "cv", 0, 2),
              Fmt("MXUserWaitCondVar: lock cv for condVar (%p) held 2 times\n", cv));
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
   EXPECT_EQ(Fmt("%c-%p", prefix, (void *)addr), lock->header.name);
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
