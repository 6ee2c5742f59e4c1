// Atomic hash tables under concurrent use. Runs under ThreadSanitizer as
// well, so it never forks.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hashTable.h"

namespace {

constexpr int kThreads = 8;
constexpr uintptr_t kKeys = 2000;

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
const void *IntKey(uintptr_t n) { return reinterpret_cast<const void *>(n + 1); }

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

// Value v of thread t for key k: distinct for every (t, k).
uintptr_t ValueOf(int t, uintptr_t k) { return (k << 8) | static_cast<uintptr_t>(t + 1); }

constexpr int kRounds = 20;

// Every thread inserts the keys in the same order, so that threads collide
// on the same key and bucket head as often as possible.
TEST(AtomicHashTableRace, InsertHasOneWinnerPerKey) {
   for (int round = 0; round < kRounds; round++) {
      HashTable *ht = HashTable_Alloc(256, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
      std::vector<std::atomic<int>> winners(kKeys);
      RunTogether([&](int t) {
         for (uintptr_t k = 0; k < kKeys; k++) {
            if (HashTable_Insert(ht, IntKey(k), V(ValueOf(t, k)))) {
               winners[k].fetch_add(1);
            }
         }
      });
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys);
      for (uintptr_t k = 0; k < kKeys; k++) {
         ASSERT_EQ(winners[k].load(), 1) << k;
         void *v = nullptr;
         ASSERT_TRUE(HashTable_Lookup(ht, IntKey(k), &v));
         ASSERT_EQ(reinterpret_cast<uintptr_t>(v) >> 8, k);
      }
      HashTable_Free(ht);
   }
}

// Heap values that losers free themselves and the table frees at the end:
// a value freed twice or lost shows under the sanitizers.
TEST(AtomicHashTableRace, LookupOrInsertAgreesOnOneValueWithCopiedKeys) {
   std::vector<std::string> keys;
   for (uintptr_t k = 0; k < kKeys; k++) {
      keys.push_back("key-" + std::to_string(k));
   }
   for (int round = 0; round < kRounds; round++) {
      HashTable *ht =
         HashTable_Alloc(64, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, free);
      std::vector<std::vector<void *>> seen(kThreads, std::vector<void *>(kKeys));
      RunTogether([&](int t) {
         for (uintptr_t i = 0; i < kKeys; i++) {
            uintptr_t k = kKeys - 1 - i;
            auto *mine = static_cast<uintptr_t *>(malloc(sizeof(uintptr_t)));
            *mine = ValueOf(t, k);
            void *got = HashTable_LookupOrInsert(ht, keys[k].c_str(), mine);
            if (got != mine) {
               free(mine);
            }
            seen[t][k] = got;
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

// Every value a successful replacement drops, by key and count.
constexpr uintptr_t kCounterKeys = 16;
constexpr uintptr_t kIncrements = 500;
std::atomic<int> gDropCount[kCounterKeys][kThreads * kIncrements + 1];

void CountDrop(void *value) {
   auto v = reinterpret_cast<uintptr_t>(value);
   gDropCount[v >> 16][v & 0xffff].fetch_add(1);
}

TEST(AtomicHashTableRace, ReplaceIfEqualCountsWithoutLostUpdates) {
   for (auto &row : gDropCount) {
      for (auto &c : row) {
         c.store(0);
      }
   }
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_ATOMIC, CountDrop);
   // A value encodes (key << 16) | counter.
   for (uintptr_t k = 0; k < kCounterKeys; k++) {
      ASSERT_TRUE(HashTable_Insert(ht, IntKey(k), V(k << 16)));
   }
   RunTogether([&](int t) {
      for (uintptr_t n = 0; n < kIncrements; n++) {
         for (uintptr_t i = 0; i < kCounterKeys; i++) {
            uintptr_t k = (i + static_cast<uintptr_t>(t)) % kCounterKeys;
            for (;;) {
               void *old = nullptr;
               ASSERT_TRUE(HashTable_Lookup(ht, IntKey(k), &old));
               if (HashTable_ReplaceIfEqual(ht, IntKey(k), old,
                                            V(reinterpret_cast<uintptr_t>(old) + 1))) {
                  break;
               }
            }
         }
      }
   });
   const uintptr_t total = kThreads * kIncrements;
   for (uintptr_t k = 0; k < kCounterKeys; k++) {
      void *v = nullptr;
      ASSERT_TRUE(HashTable_Lookup(ht, IntKey(k), &v));
      EXPECT_EQ(reinterpret_cast<uintptr_t>(v), (k << 16) | total);
      // Each superseded counter value was dropped exactly once.
      for (uintptr_t c = 0; c < total; c++) {
         ASSERT_EQ(gDropCount[k][c].load(), 1) << k << ":" << c;
      }
      EXPECT_EQ(gDropCount[k][total].load(), 0);
   }
   EXPECT_EQ(HashTable_GetNumElements(ht), kCounterKeys);
   HashTable_Free(ht);
}

TEST(AtomicHashTableRace, ReplaceOrInsertDropsEachValueOnce) {
   // Heap values: freeing one twice, or never, shows under the sanitizers.
   HashTable *ht = HashTable_Alloc(8, HASH_ISTRING_KEY | HASH_FLAG_ATOMIC, free);
   const char *keys[] = {"alpha", "ALPHA", "Beta", "gamma"};  // three keys
   std::atomic<int> inserted{0};
   RunTogether([&](int t) {
      for (int n = 0; n < 400; n++) {
         const char *key = keys[(n + t) % 4];
         if (!HashTable_ReplaceOrInsert(ht, key, malloc(8))) {
            inserted.fetch_add(1);
         }
      }
   });
   EXPECT_EQ(inserted.load(), 3);
   EXPECT_EQ(HashTable_GetNumElements(ht), 3u);
   HashTable_Free(ht);
}

TEST(AtomicHashTableRace, LookupsSeeCompleteEntriesWhileOthersInsert) {
   HashTable *ht = HashTable_Alloc(128, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY,
                                   nullptr);
   std::vector<std::string> keys;
   for (uintptr_t k = 0; k < kKeys; k++) {
      keys.push_back("k" + std::to_string(k));
   }
   RunTogether([&](int t) {
      for (uintptr_t i = 0; i < kKeys; i++) {
         if (t % 2 == 0) {
            HashTable_Insert(ht, keys[i].c_str(), V(i + 1));
         } else {
            void *v = nullptr;
            uintptr_t k = kKeys - 1 - i;
            if (HashTable_Lookup(ht, keys[k].c_str(), &v)) {
               ASSERT_EQ(v, V(k + 1));
            }
         }
      }
   });
   EXPECT_EQ(HashTable_GetNumElements(ht), kKeys);
   HashTable_Free(ht);
}

TEST(AtomicHashTableRace, AllocOnceInstallsExactlyOneTable) {
   for (int round = 0; round < 50; round++) {
      HashTable *var = nullptr;
      std::vector<HashTable *> got(kThreads);
      RunTogether([&](int t) {
         got[t] = HashTable_AllocOnce(&var, 16, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
         // Use the table at once: it must be complete when another thread
         // receives it.
         HashTable_Insert(got[t], IntKey(static_cast<uintptr_t>(t)), V(1));
      });
      for (int t = 0; t < kThreads; t++) {
         ASSERT_EQ(got[t], var);
      }
      // Every thread's insertion went into the one surviving table; the
      // losers' tables were freed (the leak checker sees any that were not).
      EXPECT_EQ(HashTable_GetNumElements(var), static_cast<size_t>(kThreads));
      HashTable_Free(var);
   }
}

}  // namespace
