// User-level locks: names, dumps and the fatal paths (run in child processes).
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "lock/ulInt.h"
#include "str.h"
#include "userlock.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;
namespace mx = halcyx::mxuser;

namespace {

// Formats with the library's engine, so expectations follow its "%p" form.
HALCYX_PRINTF(1, 2) std::string Fmt(const char *format, ...) {
   char text[256];
   va_list ap;
   va_start(ap, format);
   int n = Str_Vsnprintf(text, sizeof text, format, ap);
   va_end(ap);
   return n < 0 ? "(too long)" : text;
}

// Expected log entries of a dump: the Warning prefix on each line.
std::vector<std::string> Warnings(std::vector<std::string> lines) {
   for (auto &line : lines) {
      line.insert(0, "Warning: ");
   }
   return lines;
}

// The first five dump lines, common to both kinds.
std::vector<std::string> DumpHead(const char *what, void *lock, mx::Header *h) {
   return {Fmt("%s @ %p\n", what, lock), Fmt("\tsignature 0x%X\n", h->signature),
           Fmt("\tname %s\n", h->name), Fmt("\trank 0x%X\n", h->rank),
           Fmt("\tserial number %llu\n", (unsigned long long)h->serialNumber)};
}

/*
 * Runs body in a child, which must end through Panic. Just before its fatal
 * call the child reports the log entries it expects (it alone knows its
 * addresses) on stderr with Expect, one NUL-ended item each. Returns the
 * entries logged and the entries expected.
 */
void Expect(std::vector<std::string> lines, const std::string &panic) {
   lines = Warnings(lines);
   lines.push_back("Panic: " + panic);
   for (const auto &line : lines) {
      fwrite(line.c_str(), 1, line.size() + 1, stderr);
   }
   fflush(stderr);
}

std::pair<std::vector<std::string>, std::vector<std::string>> FatalRun(
   const std::function<void()> &body) {
   auto r = RunInChild(body);
   EXPECT_EQ(r.ExitCode(), 1) << r.out << r.err;
   std::vector<std::string> expected;
   for (size_t at = 0; at < r.err.size();) {
      size_t end = r.err.find('\0', at);
      expected.push_back(r.err.substr(at, end - at));
      at = end + 1;
   }
   return {LogEntries(r.out), expected};
}

TEST(LockFatal, DestroyOfAcquiredExclusiveLockDumpsThenPanics) {
   auto [log, expected] = FatalRun([] {
      MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
      MXUser_AcquireExclLock(lock);
      MXUser_AcquireExclLock(lock);  // owner re-entry: count 2, no deadlock
      auto lines = DumpHead("MXUserDumpExclLock: Exclusive lock", lock, &lock->header);
      lines.push_back("\tlock count 2\n");
      lines.push_back(Fmt("\taddress of owner data %p\n", (void *)pthread_self()));
      Expect(lines, "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
      MXUser_DestroyExclLock(lock);
   });
   EXPECT_EQ(log, expected);
   ASSERT_GE(log.size(), 5u);
   EXPECT_EQ(log[2], "Warning: \tname fatal-x\n");
   EXPECT_EQ(log[3], "Warning: \trank 0x42\n");
   EXPECT_EQ(log[1].substr(0, 23), "Warning: \tsignature 0x4");  // kind 4
}

TEST(LockFatal, OnlyTheLastReferenceOfAnAcquiredRecursiveLockIsFatal) {
   auto [log, expected] = FatalRun([] {
      MXUserRecLock *lock = MXUser_CreateRecLock("fatal-r", 7);
      MXUser_IncRefRecLock(lock);
      MXUser_AcquireRecLock(lock);
      MXUser_DestroyRecLock(lock);  // drops the extra reference only
      auto lines = DumpHead("MXUserDumpRecLock: Recursive lock", lock, &lock->header);
      lines.insert(lines.end(), {"\treference count 0\n", "\tlock count 1\n",
                                 Fmt("\taddress of owner data %p\n", (void *)pthread_self())});
      Expect(lines, "MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n");
      MXUser_DecRefRecLock(lock);
   });
   EXPECT_EQ(log, expected);
   ASSERT_GE(log.size(), 2u);
   EXPECT_EQ(log[1].substr(0, 23), "Warning: \tsignature 0x2");  // kind 2
}

TEST(LockFatal, CorruptLockIsDumpedRawNotThroughItsDumpFunction) {
   auto [log, expected] = FatalRun([] {
      MXUserExclLock *lock = MXUser_CreateExclLock("fatal-x", 0x42);
      MXUser_AcquireExclLock(lock);
      mx::Header *h = &lock->header;
      h->signature ^= 0x10000000u;  // now neither kind's signature
      Expect({Fmt("MXUserDumpAndPanic: Corrupt lock @ %p\n", (void *)h),
              Fmt("\tname %p\n", (void *)h->name), Fmt("\tsignature 0x%X\n", h->signature),
              "\trank 0x42\n", Fmt("\tdumpFunc %p\n", (void *)h->dumpFunc),
              Fmt("\tstatsFunc %p\n", nullptr), Fmt("\titem.next %p\n", (void *)h->item.next),
              Fmt("\titem.prev %p\n", (void *)h->item.prev),
              Fmt("\tserial number %llu\n", (unsigned long long)h->serialNumber)},
             "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n");
      MXUser_DestroyExclLock(lock);
   });
   EXPECT_EQ(log, expected);
}

TEST(LockFatal, BoundExternalLockDumpsItsAddressAndIsNeverCheckedOnDestroy) {
   static const mx::ExternalLockOps ops = {
      [](void *) {}, [](void *) { return true; }, [](void *) {}, [](void *) { return true; }};
   static int external;
   auto [log, expected] = FatalRun([] {
      MXUserRecLock *bound = mx::MXUserBindExternalRecLock(&external, &ops, "bound", 3);
      MXUser_AcquireRecLock(bound);
      MXUser_DestroyRecLock(bound);  // the external lock answers for its state
      MXUserRecLock *lock = mx::MXUserBindExternalRecLock(&external, &ops, "bound", 3);
      auto lines = DumpHead("MXUserDumpRecLock: Recursive lock", lock, &lock->header);
      lines.insert(lines.end(), {"\treference count 1\n", Fmt("\tvmmLock %p\n", &external)});
      Expect(lines, "t: end\n");
      mx::MXUserDumpAndPanic(&lock->header, "%s: end\n", "t");
   });
   EXPECT_EQ(log, expected);
}

MXUserExclLock *gNested;

TEST(LockFatal, SixthNestedDumpCallsThePanicHookInsteadOfDumping) {
   auto nest = [](MXUserPanicHook hook) {
      return RunInChild([hook] {
         gNested = MXUser_CreateExclLock("fatal-x", 0x42);
         MXUser_AcquireExclLock(gNested);
         // The fatal path runs into the same broken lock again each time.
         mx::gEndProcessForTest = [](const char *) {
            mx::MXUserDumpAndPanic(&gNested->header, "again\n");
         };
         MXUser_InstallPanicHook(hook);
         MXUser_DestroyExclLock(gNested);
      });
   };
   auto hooked = nest([] { _exit(MXUser_InPanic() ? 42 : 43); });
   EXPECT_EQ(hooked.ExitCode(), 42);
   auto log = LogEntries(hooked.out);
   ASSERT_EQ(log.size(), 5u * 7u) << hooked.out;  // five full dumps, then silence
   EXPECT_EQ(log[28], log[0]);
   auto unhooked = nest(nullptr);
   EXPECT_EQ(unhooked.ExitCode(), 1);
   EXPECT_EQ(LogEntries(unhooked.out).size(), log.size());
}

TEST(LockFatal, CreationFailures) {
   auto tooMany = RunInChild([] {
      mx::SetNextSerialNumberForTest(UINT64_MAX);
      MXUser_CreateExclLock("last", 0);
      MXUser_CreateRecLock("wrapped", 0);
   });
   EXPECT_EQ(tooMany.ExitCode(), 1);
   EXPECT_EQ(LogEntries(tooMany.out),
             std::vector<std::string>{"Panic: MXUserAllocSerialNumber: too many locks!\n"});

   auto stats = RunInChild([] {
      mx::SetStatsModeForTest(3);
      MXUser_CreateRecLock("r", 0);
   });
   EXPECT_EQ(stats.ExitCode(), 1);
   EXPECT_EQ(LogEntries(stats.out),
             std::vector<std::string>{"Panic: MXUser_CreateRecLock: unknown stats mode: 3!\n"});
}

TEST(LockFatal, CondVarWaitMisuse) {
   auto held = [](int times) {
      return RunInChild([times] {
         MXUserRecLock *lock = MXUser_CreateRecLock("cv", 0);
         MXUserCondVar *cv = MXUser_CreateCondVarRecLock(lock);
         for (int i = 0; i < times; i++) MXUser_AcquireRecLock(lock);
         MXUser_TimedWaitCondVarRecLock(lock, cv, 1);
      });
   };
   auto notHeld = held(0);
   EXPECT_EQ(notHeld.ExitCode(), 1);
   EXPECT_NE(notHeld.out.find("Panic: MXUserWaitCondVar: lock cv for condVar"), std::string::npos);
   EXPECT_NE(notHeld.out.find(") not owned\n"), std::string::npos);
   auto twice = held(2);
   EXPECT_EQ(twice.ExitCode(), 1);
   EXPECT_NE(twice.out.find(") held 2 times\n"), std::string::npos) << twice.out;
   EXPECT_EQ(held(1).ExitCode(), 0);
}

// Each helper is one call site of its own; the empty asm after the call
// keeps it from becoming a tail call, whose return address would be the
// helper's caller.
__attribute__((noinline)) MXUserExclLock *UnnamedExcl() {
   MXUserExclLock *lock = MXUser_CreateExclLock(nullptr, 0);
   asm volatile("" : : "r"(lock) : "memory");
   return lock;
}
__attribute__((noinline)) MXUserRecLock *UnnamedRec() {
   MXUserRecLock *lock = MXUser_CreateRecLock(nullptr, 0);
   asm volatile("" : : "r"(lock) : "memory");
   return lock;
}

// The address in "<prefix>-<address>", checked to lie in the helper's code.
void ExpectNamedAfterCaller(const std::string &name, char prefix, void (*helper)()) {
   ASSERT_GE(name.size(), 3u);
   EXPECT_EQ(name.substr(0, 2), std::string(1, prefix) + "-");
   char *end;
   uintptr_t addr = strtoull(name.c_str() + 2, &end, 16);
   EXPECT_EQ(*end, '\0') << name;
   EXPECT_EQ(Fmt("%c-%p", prefix, (void *)addr), name);
   auto start = reinterpret_cast<uintptr_t>(helper);
   EXPECT_GT(addr, start) << name;
   EXPECT_LT(addr, start + 4096) << name;
}

TEST(LockNames, UnnamedLocksAreNamedAfterTheCreatingCall) {
   MXUserExclLock *x1 = UnnamedExcl();
   MXUserExclLock *x2 = UnnamedExcl();
   EXPECT_STREQ(x1->header.name, x2->header.name);
   ExpectNamedAfterCaller(x1->header.name, 'X', reinterpret_cast<void (*)()>(UnnamedExcl));
   MXUserRecLock *r = UnnamedRec();
   ExpectNamedAfterCaller(MXUser_GetRecLockName(r), 'R', reinterpret_cast<void (*)()>(UnnamedRec));
   MXUser_DestroyExclLock(x1);
   MXUser_DestroyExclLock(x2);
   MXUser_DestroyRecLock(r);
}

TEST(LockNames, NameIsCopiedAndRankKept) {
   char name[] = "mine";
   MXUserRecLock *lock = MXUser_CreateRecLock(name, 0xDEADBEEF);
   name[0] = 'X';
   EXPECT_STREQ(MXUser_GetRecLockName(lock), "mine");
   EXPECT_EQ(MXUser_GetRecLockRank(lock), 0xDEADBEEFu);
   MXUser_DestroyRecLock(lock);
}

}  // namespace
