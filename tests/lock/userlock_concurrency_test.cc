// SPDX-License-Identifier: MIT
// User-level locks under several threads; also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "lock/ulInt.h"
#include "userlock.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace mx = halcyx::mxuser;

namespace {

// One lock of kind K (Excl or Rec), owned for the object's lifetime.
#define LOCK_KIND(K) \
   struct K { \
      using Lock = MXUser##K##Lock; \
      static Lock *Create(const char *name) { return MXUser_Create##K##Lock(name, 1); } \
      static Lock *Singleton(Lock **s) { return MXUser_CreateSingleton##K##LockInt(s, #K, 1); } \
      static void Destroy(Lock *l) { MXUser_Destroy##K##Lock(l); } \
      Lock *lock = Create(#K); \
      ~K() { Destroy(lock); } \
      void Acquire() { MXUser_Acquire##K##Lock(lock); } \
      void Release() { MXUser_Release##K##Lock(lock); } \
      bool TryAcquire() { return MXUser_TryAcquire##K##Lock(lock); } \
      bool Holding() { return MXUser_IsCurThreadHolding##K##Lock(lock); } \
      MXUserCondVar *CondVar() { return MXUser_CreateCondVar##K##Lock(lock); } \
      void Wait(MXUserCondVar *cv) { MXUser_WaitCondVar##K##Lock(lock, cv); } \
      bool TimedWait(MXUserCondVar *cv, uint32_t ms) { \
         return MXUser_TimedWaitCondVar##K##Lock(lock, cv, ms); \
      } \
   }
LOCK_KIND(Excl);
LOCK_KIND(Rec);

template <typename K> class Lock : public ::testing::Test {};
using Kinds = ::testing::Types<Excl, Rec>;
TYPED_TEST_SUITE(Lock, Kinds);

// Runs body(0) .. body(n - 1) on n threads started together; returns when all ended.
template <typename F> void RunThreads(int n, F body) {
   std::atomic<int> arrived{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < n; t++) {
      threads.emplace_back([&, t] {
         for (arrived++; arrived < n;) std::this_thread::yield();
         body(t);
      });
   }
   for (auto &t : threads) t.join();
}

template <typename K> bool OtherThreadGets(K &l) {
   bool got = false;
   RunThreads(1, [&](int) {
      EXPECT_FALSE(l.Holding());
      if ((got = l.TryAcquire())) l.Release();
   });
   return got;
}

TYPED_TEST(Lock, OwnerReentersAndMustReleaseAsOftenAsItAcquired) {
   TypeParam l;
   l.Acquire();
   l.Acquire();
   EXPECT_TRUE(l.TryAcquire());
   for (int held = 3; held > 0; held--) {
      EXPECT_TRUE(l.Holding());
      EXPECT_FALSE(OtherThreadGets(l)) << "still held " << held << " times";
      l.Release();
   }
   EXPECT_FALSE(l.Holding());
   EXPECT_TRUE(OtherThreadGets(l));
}

TYPED_TEST(Lock, MutualExclusionUnderContention) {
   TypeParam l;
   long counter = 0;  // plain on purpose: only the lock protects it
   RunThreads(4, [&](int) {
      for (int i = 0; i < 20000; i++) {
         l.Acquire();
         if (i % 2) l.Acquire();  // the owner re-enters while others wait
         counter++;
         if (i % 2) l.Release();
         l.Release();
      }
   });
   EXPECT_EQ(counter, 4 * 20000);
}

TYPED_TEST(Lock, TimedWaitTimesOutSignalAndBroadcastWakeWaiters) {
   TypeParam l;
   MXUserCondVar *cv = l.CondVar();
   l.Acquire();
   auto start = Clock::now();
   EXPECT_FALSE(l.TimedWait(cv, 120));
   EXPECT_GE(Clock::now() - start, 120ms);
   EXPECT_TRUE(l.Holding());
   l.Release();
   bool ready = false;  // guarded by the lock
   std::atomic<int> waiting{0}, woken{0};
   start = Clock::now();
   RunThreads(4, [&](int t) {
      if (t < 3) {  // waiter 0 has a time limit the test must stay far below
         l.Acquire();
         waiting++;
         while (!ready) t == 0 ? (void)l.TimedWait(cv, 60000) : l.Wait(cv);
         EXPECT_TRUE(l.Holding());
         woken++;
         l.Release();
         return;
      }
      while (waiting < 3) std::this_thread::yield();
      l.Acquire();  // so every waiter has given the lock up in its wait
      ready = true;
      MXUser_SignalCondVar(cv);
      l.Release();
      while (woken < 1) std::this_thread::yield();
      MXUser_BroadcastCondVar(cv);
   });
   EXPECT_LT(Clock::now() - start, 30s);
   MXUser_DestroyCondVar(cv);
}

TYPED_TEST(Lock, RacingSingletonCreatorsAllGetTheOneSurvivingLock) {
   size_t before = mx::CountListedLocksForTest();
   for (int round = 0; round < 100; round++) {
      static typename TypeParam::Lock *slot;
      slot = nullptr;
      std::vector<typename TypeParam::Lock *> got(6);
      RunThreads(6, [&](int t) { got[t] = TypeParam::Singleton(&slot); });
      EXPECT_EQ(got, decltype(got)(6, slot));
      EXPECT_EQ(mx::CountListedLocksForTest(), before + 1);  // the losers destroyed theirs
      TypeParam::Destroy(slot);
   }
}

TYPED_TEST(Lock, ConcurrentCreateAndDestroyKeepTheListConsistent) {
   size_t before = mx::CountListedLocksForTest();
   RunThreads(5, [](int t) {
      for (int i = 0; t == 4 && i < 200; i++) EXPECT_NE(mx::CountListedLocksForTest(), SIZE_MAX);
      std::vector<typename TypeParam::Lock *> locks;
      for (int i = 0; t < 4 && i < 1000; i++) {
         locks.push_back(TypeParam::Create(nullptr));
         if (i % 3 == 2) {  // destroy unlike the creation order: a middle one, the oldest
            TypeParam::Destroy(locks[locks.size() - 2]);
            locks.erase(locks.end() - 2);
            TypeParam::Destroy(locks.front());
            locks.erase(locks.begin());
         }
      }
      for (auto *l : locks) TypeParam::Destroy(l);
   });
   EXPECT_EQ(mx::CountListedLocksForTest(), before);
}

}  // namespace
