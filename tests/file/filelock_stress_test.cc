// SPDX-License-Identifier: MIT
// Lock files across real processes: eight lockers on one path, some of them
// killed at random points. Every locker records in shared memory what it
// holds, so a second holder of a conflicting lock is seen at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "file_test_util.h"
#include "fileLock.h"

namespace fs = std::filesystem;

namespace {

constexpr int kLockers = 8;
constexpr int kVictims = 2;  // the last ones, killed while they work
#ifndef STRESS_ROUNDS
#define STRESS_ROUNDS 1000
#endif
constexpr int kRounds = STRESS_ROUNDS;

enum Holding : int { kNone = 0, kShared = 1, kExclusive = 2 };

struct Shared {
   std::atomic<int> holding[kLockers];
   std::atomic<int> violations;
   long counter;  // plain on purpose: only exclusive holders touch it
   std::atomic<long> exclusiveDone[kLockers];
};

// True when another locker holds something that conflicts with `mine`.
bool Conflicts(Shared *s, int self, int mine) {
   for (int j = 0; j < kLockers; j++) {
      int other = s->holding[j].load();
      if (j != self && other != kNone && (mine == kExclusive || other == kExclusive)) {
         return true;
      }
   }
   return false;
}

[[noreturn]] void Locker(Shared *s, int self, const std::string &path) {
   for (int round = 0; round < kRounds; round++) {
      bool exclusive = (round + self) % 4 == 0;
      int err = 0;
      FileLockToken *token = FileLock_Lock(path.c_str(), !exclusive, FILELOCK_WAIT_FOREVER, &err, nullptr);
      if (token == nullptr) {
         _exit(10 + err % 100);
      }
      int mine = exclusive ? kExclusive : kShared;
      s->holding[self].store(mine);
      if (Conflicts(s, self, mine)) {
         s->violations++;
      }
      if (exclusive) {
         long seen = s->counter;
         sched_yield();
         s->counter = seen + 1;
         s->exclusiveDone[self]++;
      }
      s->holding[self].store(kNone);
      if (!FileLock_Unlock(token, &err, nullptr)) {
         _exit(5);
      }
   }
   _exit(0);
}

TEST(LockFileContention, KilledLockersNeverBreakExclusion) {
   halcyx::test::TempDir tmp;
   std::string path = tmp.Path("shared");
   auto *s = static_cast<Shared *>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   ASSERT_NE(s, MAP_FAILED);
   new (s) Shared{};

   pid_t pids[kLockers];
   for (int i = 0; i < kLockers; i++) {
      pids[i] = fork();
      ASSERT_GE(pids[i], 0);
      if (pids[i] == 0) {
         Locker(s, i, path);
      }
   }
   std::mt19937 rng(static_cast<unsigned>(getpid()));
   for (int v = kLockers - kVictims; v < kLockers; v++) {
      usleep(std::uniform_int_distribution<useconds_t>(20000, 400000)(rng));
      kill(pids[v], SIGKILL);
   }

   // A dead locker's slot is cleared while it is still a zombie: until it is
   // reaped its member counts as live, so nobody can have taken over yet.
   int finished = 0;
   for (int left = kLockers; left > 0; left--) {
      siginfo_t info{};
      ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
      int who = 0;
      while (pids[who] != info.si_pid) {
         who++;
      }
      s->holding[who].store(kNone);
      int status;
      ASSERT_EQ(waitpid(info.si_pid, &status, 0), info.si_pid);
      if (who < kLockers - kVictims) {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "locker " << who << " status " << status;
         finished++;
      }
   }
   EXPECT_EQ(finished, kLockers - kVictims);
   EXPECT_EQ(s->violations.load(), 0);
   long all = 0;
   for (int i = 0; i < kLockers; i++) {
      all += s->exclusiveDone[i].load();
   }
   // A victim may die between its increment and its own count.
   EXPECT_GE(s->counter, all);
   EXPECT_LE(s->counter, all + kVictims);

   // Whatever the victims left behind is stale and goes with the next lock.
   int err;
   FileLockToken *last = FileLock_Lock(path.c_str(), false, 10000, &err, nullptr);
   ASSERT_NE(last, nullptr) << err;
   EXPECT_TRUE(FileLock_Unlock(last, &err, nullptr));
   EXPECT_FALSE(fs::exists(path + ".lck"));
   munmap(s, sizeof(Shared));
}

}  // namespace
