// Atomic hash tables under concurrent use. Runs under ThreadSanitizer as
// well, so it never forks.
//
// Every thread works through the same keys in the same order, so that
// threads collide on one key and one bucket head as often as possible, and
// each race is repeated on fresh tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "hashTable.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 20;
constexpr uintptr_t kKeys = 2000;

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
uintptr_t N(const void *p) { return reinterpret_cast<uintptr_t>(p); }
const void *K(uintptr_t n) { return reinterpret_cast<const void *>(n + 1); }

// Thread t's value for key k: distinct for every (t, k), key in the high bits.
uintptr_t ValueOf(int t, uintptr_t k) { return (k << 8) | static_cast<uintptr_t>(t + 1); }

// Runs body(threadIndex) on kThreads threads released together.
template <typename F>
void RunTogether(F body) {
   std::latch start(kThreads);
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&, t] {
         start.arrive_and_wait();
         body(t);
      });
   }
   for (auto &th : threads) {
      th.join();
   }
}

TEST(AtomicHashTableRace, InsertHasOneWinnerPerKeyAndLookupsSeeIt) {
   for (int round = 0; round < kRounds; round++) {
      HashTable *ht = HashTable_Alloc(256, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
      std::vector<std::atomic<int>> winners(kKeys);
      RunTogether([&](int t) {
         for (uintptr_t k = 0; k < kKeys; k++) {
            if (HashTable_Insert(ht, K(k), V(ValueOf(t, k)))) {
               winners[k].fetch_add(1);
            }
            void *v = nullptr;
            ASSERT_TRUE(HashTable_Lookup(ht, K(k), &v));
            ASSERT_EQ(N(v) >> 8, k);
         }
      });
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys);
      for (uintptr_t k = 0; k < kKeys; k++) {
         ASSERT_EQ(winners[k].load(), 1) << k;
      }
      HashTable_Free(ht);
   }
}

TEST(AtomicHashTableRace, LookupOrInsertAgreesOnOneValueWithCopiedKeys) {
   std::vector<std::string> keys;
   for (uintptr_t k = 0; k < kKeys; k++) {
      keys.push_back("key-" + std::to_string(k));
   }
   // Heap values: losers free their own, the table frees the winners', and
   // the sanitizers see any value lost or freed twice.
   for (int round = 0; round < kRounds; round++) {
      HashTable *ht =
         HashTable_Alloc(64, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, free);
      std::vector<std::vector<void *>> seen(kThreads, std::vector<void *>(kKeys));
      RunTogether([&](int t) {
         for (uintptr_t k = 0; k < kKeys; k++) {
            auto *mine = static_cast<uintptr_t *>(malloc(sizeof(uintptr_t)));
            *mine = ValueOf(t, k);
            seen[t][k] = HashTable_LookupOrInsert(ht, keys[k].c_str(), mine);
            if (seen[t][k] != mine) {
               free(mine);
            }
         }
      });
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys);
      for (uintptr_t k = 0; k < kKeys; k++) {
         void *stored = nullptr;
         ASSERT_TRUE(HashTable_Lookup(ht, keys[k].c_str(), &stored));
         ASSERT_EQ(*static_cast<uintptr_t *>(stored) >> 8, k);
         for (int t = 0; t < kThreads; t++) {
            ASSERT_EQ(seen[t][k], stored) << "thread " << t << " key " << k;
         }
      }
      HashTable_Free(ht);
   }
}

// Values are (key << 16) | counter; freeEntryFn counts each dropped one.
constexpr uintptr_t kCounters = 16;
constexpr uintptr_t kIncrements = 500;
std::atomic<int> gDrops[kCounters][kThreads * kIncrements + 1];
void CountDrop(void *value) { gDrops[N(value) >> 16][N(value) & 0xffff].fetch_add(1); }

TEST(AtomicHashTableRace, ReplaceIfEqualLosesNoUpdateAndDropsEachValueOnce) {
   for (auto &counts : gDrops) {
      std::fill(std::begin(counts), std::end(counts), 0);
   }
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_ATOMIC, CountDrop);
   for (uintptr_t k = 0; k < kCounters; k++) {
      ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k << 16)));
   }
   RunTogether([&](int) {
      for (uintptr_t n = 0; n < kIncrements; n++) {
         for (uintptr_t k = 0; k < kCounters; k++) {
            void *old;
            do {
               ASSERT_TRUE(HashTable_Lookup(ht, K(k), &old));
            } while (!HashTable_ReplaceIfEqual(ht, K(k), old, V(N(old) + 1)));
         }
      }
   });
   const uintptr_t total = kThreads * kIncrements;
   for (uintptr_t k = 0; k < kCounters; k++) {
      void *v = nullptr;
      ASSERT_TRUE(HashTable_Lookup(ht, K(k), &v));
      EXPECT_EQ(N(v), (k << 16) | total);
      for (uintptr_t c = 0; c < total; c++) {
         ASSERT_EQ(gDrops[k][c].load(), 1) << k << ":" << c;
      }
   }
   HashTable_Free(ht);
}

TEST(AtomicHashTableRace, ReplaceOrInsertDropsEachValueOnce) {
   // Heap values: one freed twice, or never, shows under the sanitizers.
   HashTable *ht = HashTable_Alloc(8, HASH_ISTRING_KEY | HASH_FLAG_ATOMIC, free);
   const char *keys[] = {"alpha", "ALPHA", "Beta", "gamma"};  // three keys
   std::atomic<int> inserted{0};
   RunTogether([&](int t) {
      for (int n = 0; n < 2000; n++) {
         if (!HashTable_ReplaceOrInsert(ht, keys[(n + t) % 4], malloc(8))) {
            inserted.fetch_add(1);
         }
      }
   });
   EXPECT_EQ(inserted.load(), 3);
   EXPECT_EQ(HashTable_GetNumElements(ht), 3u);
   HashTable_Free(ht);
}

TEST(AtomicHashTableRace, AllocOnceInstallsExactlyOneTable) {
   for (int round = 0; round < 50; round++) {
      HashTable *var = nullptr;
      std::vector<HashTable *> got(kThreads);
      RunTogether([&](int t) {
         got[t] = HashTable_AllocOnce(&var, 16, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
         // The table must be complete when another thread receives it.
         HashTable_Insert(got[t], K(static_cast<uintptr_t>(t)), V(1));
      });
      for (int t = 0; t < kThreads; t++) {
         ASSERT_EQ(got[t], var);
      }
      // All insertions reached the survivor; the leak checker sees any
      // losing table that was not freed.
      EXPECT_EQ(HashTable_GetNumElements(var), static_cast<size_t>(kThreads));
      HashTable_Free(var);
   }
}

}  // namespace
