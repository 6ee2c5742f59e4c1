// SPDX-License-Identifier: MIT
// Atomic hash tables under concurrent use (also under ThreadSanitizer: no
// fork). Threads take the same keys in the same order, to collide often.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "hashTable.h"

namespace {

constexpr int kThreads = 6;
constexpr uintptr_t kKeys = 64;

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
uintptr_t N(const void *p) { return reinterpret_cast<uintptr_t>(p); }
const void *K(uintptr_t n) { return reinterpret_cast<const void *>(n + 1); }

// Runs body(threadIndex) on kThreads threads released together.
template <typename F>
void RunTogether(F body) {
   std::latch start(kThreads);
   std::vector<std::jthread> threads;  // joined on return
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&, t] {
         start.arrive_and_wait();
         body(t);
      });
   }
}

// Even threads insert, odd ones look up or insert, each with its own heap
// value per key: losers free theirs, the table frees the winners', and the
// sanitizers see a value lost or freed twice. A duplicate entry shows in the
// count.
TEST(AtomicHashTableRace, InsertAndLookupOrInsertAgreeOnOneWinnerPerKey) {
   std::vector<std::string> keys;
   for (uintptr_t k = 0; k < kKeys; k++) {
      keys.push_back("key-" + std::to_string(k));
   }
   for (int round = 0; round < 200; round++) {
      HashTable *ht =
         HashTable_Alloc(64, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, free);
      std::vector<std::vector<void *>> seen(kThreads, std::vector<void *>(kKeys));
      RunTogether([&](int t) {
         for (uintptr_t k = 0; k < kKeys; k++) {
            auto *mine = static_cast<uintptr_t *>(malloc(sizeof(uintptr_t)));
            *mine = k;
            bool won = t % 2 == 0 ? HashTable_Insert(ht, keys[k].c_str(), mine)
                                  : HashTable_LookupOrInsert(ht, keys[k].c_str(), mine) == mine;
            if (!won) {
               free(mine);
            }
            ASSERT_TRUE(HashTable_Lookup(ht, keys[k].c_str(), &seen[t][k]));
         }
      });
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys);
      for (uintptr_t k = 0; k < kKeys; k++) {
         void *stored = nullptr;
         ASSERT_TRUE(HashTable_Lookup(ht, keys[k].c_str(), &stored));
         ASSERT_EQ(*static_cast<uintptr_t *>(stored), k);
         for (int t = 0; t < kThreads; t++) {
            ASSERT_EQ(seen[t][k], stored) << "thread " << t << " key " << k;
         }
      }
      HashTable_Free(ht);
   }
}

// Values are (key << 16) | counter; freeEntryFn counts each dropped one.
constexpr uintptr_t kCounters = 8;
constexpr uintptr_t kTotal = kThreads * 400;  // replacements per key and phase
std::atomic<int> gDrops[kCounters][2 * kTotal + 1];
void CountDrop(void *value) { gDrops[N(value) >> 16][N(value) & 0xffff].fetch_add(1); }

// Counters go up by ReplaceIfEqual, then by ReplaceOrInsert; in the end
// every value from 0 to 2 * kTotal has been dropped exactly once.
TEST(AtomicHashTableRace, ReplacementsLoseNoUpdateAndDropEachValueOnce) {
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_ATOMIC, CountDrop);
   for (uintptr_t k = 0; k < kCounters; k++) {
      ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k << 16)));
   }
   RunTogether([&](int) {
      for (uintptr_t n = 0; n < kTotal / kThreads * kCounters; n++) {
         void *old;
         do {
            ASSERT_TRUE(HashTable_Lookup(ht, K(n % kCounters), &old));
         } while (!HashTable_ReplaceIfEqual(ht, K(n % kCounters), old, V(N(old) + 1)));
      }
   });
   std::atomic<uintptr_t> next[kCounters];
   for (auto &n : next) {
      n = kTotal + 1;  // a lost or repeated update shows in the drop counts
   }
   RunTogether([&](int) {
      for (uintptr_t n = 0; n < kTotal / kThreads * kCounters; n++) {
         uintptr_t k = n % kCounters;
         EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, K(k), V((k << 16) | next[k].fetch_add(1))));
      }
   });
   HashTable_Free(ht);
   for (uintptr_t k = 0; k < kCounters; k++) {
      for (uintptr_t c = 0; c <= 2 * kTotal; c++) {
         ASSERT_EQ(gDrops[k][c].load(), 1) << k << ":" << c;
      }
   }
}

TEST(AtomicHashTableRace, AllocOnceInstallsExactlyOneCompleteTable) {
   for (int round = 0; round < 300; round++) {
      HashTable *var = nullptr;
      std::vector<HashTable *> got(kThreads);
      RunTogether([&](int t) {
         got[t] = HashTable_AllocOnce(&var, 16, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
         HashTable_Insert(got[t], K(static_cast<uintptr_t>(t)), V(1));
      });
      for (int t = 0; t < kThreads; t++) {
         ASSERT_EQ(got[t], var);
      }
      // The leak checker sees a losing table that was not freed.
      EXPECT_EQ(HashTable_GetNumElements(var), static_cast<size_t>(kThreads));
      HashTable_Free(var);
   }
}

}  // namespace
