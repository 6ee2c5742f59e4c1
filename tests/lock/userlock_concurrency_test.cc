// User-level locks under several threads; also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "lock/ulInt.h"
#include "userlock.h"

namespace mx = halcyx::mxuser;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

// Both lock kinds behind one interface, so each behaviour is tested on both.
struct Excl {
   MXUserExclLock *lock = MXUser_CreateExclLock("excl", 1);
   ~Excl() { MXUser_DestroyExclLock(lock); }
   void Acquire() { MXUser_AcquireExclLock(lock); }
   void Release() { MXUser_ReleaseExclLock(lock); }
   bool TryAcquire() { return MXUser_TryAcquireExclLock(lock); }
   bool Holding() { return MXUser_IsCurThreadHoldingExclLock(lock); }
   MXUserCondVar *CondVar() { return MXUser_CreateCondVarExclLock(lock); }
   void Wait(MXUserCondVar *cv) { MXUser_WaitCondVarExclLock(lock, cv); }
   bool TimedWait(MXUserCondVar *cv, uint32_t ms) {
      return MXUser_TimedWaitCondVarExclLock(lock, cv, ms);
   }
};

struct Rec {
   MXUserRecLock *lock = MXUser_CreateRecLock("rec", 2);
   ~Rec() { MXUser_DestroyRecLock(lock); }
   void Acquire() { MXUser_AcquireRecLock(lock); }
   void Release() { MXUser_ReleaseRecLock(lock); }
   bool TryAcquire() { return MXUser_TryAcquireRecLock(lock); }
   bool Holding() { return MXUser_IsCurThreadHoldingRecLock(lock); }
   MXUserCondVar *CondVar() { return MXUser_CreateCondVarRecLock(lock); }
   void Wait(MXUserCondVar *cv) { MXUser_WaitCondVarRecLock(lock, cv); }
   bool TimedWait(MXUserCondVar *cv, uint32_t ms) {
      return MXUser_TimedWaitCondVarRecLock(lock, cv, ms);
   }
};

template <typename L> class LockBehaviour : public ::testing::Test {};
using Kinds = ::testing::Types<Excl, Rec>;
TYPED_TEST_SUITE(LockBehaviour, Kinds);

// What another thread sees of the lock right now.
template <typename L> bool OtherThreadGets(L &l) {
   bool got = false;
   std::thread([&] {
      EXPECT_FALSE(l.Holding());
      got = l.TryAcquire();
      if (got) {
         l.Release();
      }
   }).join();
   return got;
}

TYPED_TEST(LockBehaviour, OwnerReentersAndMustReleaseAsOftenAsItAcquired) {
   TypeParam l;
   l.Acquire();
   l.Acquire();
   EXPECT_TRUE(l.TryAcquire());
   EXPECT_TRUE(l.Holding());
   for (int held = 3; held > 0; held--) {
      EXPECT_FALSE(OtherThreadGets(l)) << "still held " << held << " times";
      l.Release();
   }
   EXPECT_FALSE(l.Holding());
   EXPECT_TRUE(OtherThreadGets(l));
}

TYPED_TEST(LockBehaviour, BlockedAcquirerWaitsForTheLastRelease) {
   TypeParam l;
   std::atomic<bool> got{false};
   l.Acquire();
   l.Acquire();
   std::thread other([&] {
      l.Acquire();
      got = true;
      l.Release();
   });
   std::this_thread::sleep_for(30ms);
   l.Release();
   std::this_thread::sleep_for(30ms);
   EXPECT_FALSE(got);
   l.Release();
   other.join();
   EXPECT_TRUE(got);
}

TYPED_TEST(LockBehaviour, MutualExclusionKeepsCounterIntact) {
   TypeParam l;
   long counter = 0;  // plain on purpose: only the lock protects it
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 20000; i++) {
            l.Acquire();
            if (i % 3 == 0) {
               l.Acquire();  // re-entry inside the critical section
               counter++;
               l.Release();
            } else {
               counter++;
            }
            l.Release();
         }
      });
   }
   for (auto &t : threads) t.join();
   EXPECT_EQ(counter, 4 * 20000);
}

TYPED_TEST(LockBehaviour, SignalAndBroadcastWakeWaitersWhoThenHoldTheLockOnce) {
   TypeParam l;
   MXUserCondVar *cv = l.CondVar();
   int ready = 0;  // these three are guarded by the lock
   int waiting = 0;
   int woken = 0;
   std::vector<std::thread> waiters;
   for (int t = 0; t < 3; t++) {
      waiters.emplace_back([&] {
         l.Acquire();
         waiting++;
         while (ready == 0) l.Wait(cv);
         EXPECT_TRUE(l.Holding());
         woken++;
         l.Release();
         EXPECT_FALSE(l.Holding());
      });
   }
   // Once all three are asleep, one signal wakes one waiter; only the
   // broadcast can wake the rest.
   for (bool all = false; !all;) {
      l.Acquire();
      all = waiting == 3;  // seen under the lock: the others are in Wait
      l.Release();
   }
   l.Acquire();
   ready = 1;
   MXUser_SignalCondVar(cv);
   l.Release();
   for (;;) {
      l.Acquire();
      bool one = woken >= 1;
      l.Release();
      if (one) break;
      std::this_thread::sleep_for(1ms);
   }
   MXUser_BroadcastCondVar(cv);
   for (auto &t : waiters) t.join();
   EXPECT_EQ(woken, 3);
   MXUser_DestroyCondVar(cv);
}

TYPED_TEST(LockBehaviour, TimedWaitTimesOutOrReturnsEarlyWhenSignalled) {
   TypeParam l;
   MXUserCondVar *cv = l.CondVar();
   l.Acquire();
   auto start = Clock::now();
   EXPECT_FALSE(l.TimedWait(cv, 120));
   auto waited = Clock::now() - start;
   EXPECT_GE(waited, 120ms);
   EXPECT_LT(waited, 2s);
   EXPECT_TRUE(l.Holding());

   bool flag = false;  // guarded by the lock
   std::thread signaller([&] {
      std::this_thread::sleep_for(30ms);
      l.Acquire();  // possible only because the waiter gave the lock up
      flag = true;
      MXUser_SignalCondVar(cv);
      l.Release();
   });
   start = Clock::now();
   while (!flag) {
      ASSERT_LT(Clock::now() - start, 10s);
      l.TimedWait(cv, 10000);
   }
   EXPECT_LT(Clock::now() - start, 5s);
   l.Release();
   signaller.join();
   MXUser_DestroyCondVar(cv);
}

template <typename Slot, typename Create>
void RaceSingleton(Create create, std::atomic<Slot *> &seen, int threads) {
   std::atomic<int> arrived{0};
   std::vector<std::thread> racers;
   std::atomic<bool> same{true};
   for (int t = 0; t < threads; t++) {
      racers.emplace_back([&] {
         arrived++;
         while (arrived < threads) {
            std::this_thread::yield();
         }
         Slot *lock = create();
         Slot *expected = nullptr;
         if (!seen.compare_exchange_strong(expected, lock) && expected != lock) {
            same = false;
         }
      });
   }
   for (auto &t : racers) t.join();
   EXPECT_TRUE(same);
}

TEST(LockSingleton, RacingCreatorsAllGetTheOneInstalledLock) {
   size_t before = mx::CountListedLocksForTest();
   for (int round = 0; round < 20; round++) {
      static MXUserExclLock *exclSlot;
      static MXUserRecLock *recSlot;
      exclSlot = nullptr;
      recSlot = nullptr;
      std::atomic<MXUserExclLock *> x{nullptr};
      std::atomic<MXUserRecLock *> r{nullptr};
      RaceSingleton([] { return MXUser_CreateSingletonExclLockInt(&exclSlot, "sx", 5); }, x, 6);
      RaceSingleton([] { return MXUser_CreateSingletonRecLockInt(&recSlot, "sr", 6); }, r, 6);
      ASSERT_EQ(x.load(), exclSlot);
      ASSERT_EQ(r.load(), recSlot);
      // Losers destroyed their own: exactly the two winners are listed.
      EXPECT_EQ(mx::CountListedLocksForTest(), before + 2);
      MXUser_DestroyExclLock(exclSlot);
      MXUser_DestroyRecLock(recSlot);
   }
}

TEST(LockList, ConcurrentCreateAndDestroyKeepsTheListConsistent) {
   size_t before = mx::CountListedLocksForTest();
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([] {
         std::vector<MXUserExclLock *> x;
         std::vector<MXUserRecLock *> r;
         for (int i = 0; i < 500; i++) {
            x.push_back(MXUser_CreateExclLock(nullptr, 0));
            r.push_back(MXUser_CreateRecLock("r", 0));
            if (i % 2 == 1) {  // destroy in an order unlike creation
               MXUser_DestroyExclLock(x[x.size() - 2]);
               x.erase(x.end() - 2);
               MXUser_DestroyRecLock(r.front());
               r.erase(r.begin());
            }
         }
         for (auto *l : x) MXUser_DestroyExclLock(l);
         for (auto *l : r) MXUser_DestroyRecLock(l);
      });
   }
   while (threads.size() < 6) {
      threads.emplace_back([] {
         for (int i = 0; i < 200; i++) EXPECT_NE(mx::CountListedLocksForTest(), SIZE_MAX);
      });
   }
   for (auto &t : threads) t.join();
   EXPECT_EQ(mx::CountListedLocksForTest(), before);
}

}  // namespace
