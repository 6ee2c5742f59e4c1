// Hash tables, single-threaded: placement and order, key types, value
// ownership, and the fatal paths.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "hashTable.h"
#include "internal/alloc.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
const void *IntKey(uintptr_t n) { return reinterpret_cast<const void *>(n); }

// Values passed to freeEntryFn, in order.
std::vector<void *> gDropped;
void RecordDrop(void *value) { gDropped.push_back(value); }

std::vector<std::string> StringKeys(const HashTable *ht) {
   const void **keys;
   size_t n;
   HashTable_KeyArray(ht, &keys, &n);
   std::vector<std::string> out;
   for (size_t i = 0; i < n; i++) {
      out.emplace_back(static_cast<const char *>(keys[i]));
   }
   free(keys);
   return out;
}

std::vector<uintptr_t> IntKeys(const HashTable *ht) {
   const void **keys;
   size_t n;
   HashTable_KeyArray(ht, &keys, &n);
   std::vector<uintptr_t> out;
   for (size_t i = 0; i < n; i++) {
      out.push_back(reinterpret_cast<uintptr_t>(keys[i]));
   }
   free(keys);
   return out;
}

// Expected orders were worked out by hand from the hash and fold rules:
// buckets ascending, newest first within a bucket.
TEST(HashTablePlacement, StringKeysByRotateXorHashAndFold) {
   const char *keys[] = {"a", "b", "apple", "banana", "cherry", "", "Key", "\xe9t\xe9", "zz"};
   HashTable *eight = HashTable_Alloc(8, HASH_STRING_KEY, nullptr);
   HashTable *two = HashTable_Alloc(2, HASH_STRING_KEY, nullptr);
   for (const char *k : keys) {
      ASSERT_TRUE(HashTable_Insert(eight, k, nullptr));
      ASSERT_TRUE(HashTable_Insert(two, k, nullptr));
   }
   // Buckets: "" and cherry 0, apple 1, a 2, banana and zz 3, Key 4,
   // the non-ASCII key 6 (its bytes hash as unsigned), b 7.
   EXPECT_EQ(StringKeys(eight), (std::vector<std::string>{"", "cherry", "apple", "a", "zz",
                                                          "banana", "Key", "\xe9t\xe9", "b"}));
   EXPECT_EQ(StringKeys(two), (std::vector<std::string>{"zz", "\xe9t\xe9", "", "cherry",
                                                        "banana", "Key", "apple", "b", "a"}));
   HashTable_Free(eight);
   HashTable_Free(two);
}

TEST(HashTablePlacement, IntegerKeysFoldTheirHighHalf) {
   const uintptr_t keys[] = {1, 2, 3, 7, 8, 0x100000001, 0xdeadbeef, 1000, UINTPTR_MAX};
   HashTable *ht = HashTable_Alloc(8, HASH_INT_KEY, nullptr);
   for (uintptr_t k : keys) {
      ASSERT_TRUE(HashTable_Insert(ht, IntKey(k), nullptr));
   }
   // 0x100000001 and all ones hash to 0 because the high half is xored in.
   EXPECT_EQ(IntKeys(ht), (std::vector<uintptr_t>{UINTPTR_MAX, 0x100000001, 8, 2, 1, 7, 1000,
                                                  3, 0xdeadbeef}));
   HashTable_Free(ht);
}

TEST(HashTablePlacement, WideTablesFoldEveryPiece) {
   const char *words[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta"};
   const uintptr_t numbers[] = {0xdeadbeefcafe, 12345, 0x7f3a12400030};
   HashTable *s10 = HashTable_Alloc(1024, HASH_STRING_KEY, nullptr);
   HashTable *s17 = HashTable_Alloc(131072, HASH_STRING_KEY, nullptr);
   HashTable *i10 = HashTable_Alloc(1024, HASH_INT_KEY, nullptr);
   HashTable *i17 = HashTable_Alloc(131072, HASH_INT_KEY, nullptr);
   for (const char *w : words) {
      ASSERT_TRUE(HashTable_Insert(s10, w, nullptr));
      ASSERT_TRUE(HashTable_Insert(s17, w, nullptr));
   }
   for (uintptr_t n : numbers) {
      ASSERT_TRUE(HashTable_Insert(i10, IntKey(n), nullptr));
      ASSERT_TRUE(HashTable_Insert(i17, IntKey(n), nullptr));
   }
   // Buckets 142, 150, 273, 306, 367, 519 of 1024.
   EXPECT_EQ(StringKeys(s10), (std::vector<std::string>{"zeta", "beta", "epsilon", "delta",
                                                        "gamma", "alpha"}));
   // Buckets 89139, 89897, 90089, 113427, 115367, 118364 of 131072.
   EXPECT_EQ(StringKeys(s17), (std::vector<std::string>{"gamma", "beta", "zeta", "delta",
                                                        "epsilon", "alpha"}));
   // Buckets 221, 754, 937 and 2367, 55829, 86881.
   EXPECT_EQ(IntKeys(i10), (std::vector<uintptr_t>{12345, 0x7f3a12400030, 0xdeadbeefcafe}));
   EXPECT_EQ(IntKeys(i17), (std::vector<uintptr_t>{0x7f3a12400030, 12345, 0xdeadbeefcafe}));
   for (HashTable *ht : {s10, s17, i10, i17}) {
      HashTable_Free(ht);
   }
}

TEST(HashTablePlacement, CaseInsensitiveKeysHashLowerCased) {
   HashTable *ht = HashTable_Alloc(8, HASH_ISTRING_KEY, nullptr);
   for (const char *k : {"Hello", "hello2", "WORLD"}) {
      ASSERT_TRUE(HashTable_Insert(ht, k, nullptr));
   }
   EXPECT_EQ(StringKeys(ht), (std::vector<std::string>{"WORLD", "Hello", "hello2"}));
   HashTable_Free(ht);
}

TEST(HashTablePlacement, SingleBucketTableWorks) {
   HashTable *ht = HashTable_Alloc(1, HASH_STRING_KEY, nullptr);
   ASSERT_TRUE(HashTable_Insert(ht, "x", V(1)));
   ASSERT_TRUE(HashTable_Insert(ht, "y", V(2)));
   EXPECT_TRUE(HashTable_Lookup(ht, "x", nullptr));
   EXPECT_EQ(StringKeys(ht), (std::vector<std::string>{"y", "x"}));
   HashTable_Free(ht);
}

TEST(HashTableKeys, CaseSensitivityFollowsKeyType) {
   HashTable *exact = HashTable_Alloc(16, HASH_STRING_KEY, nullptr);
   HashTable *folded = HashTable_Alloc(16, HASH_ISTRING_KEY, nullptr);
   ASSERT_TRUE(HashTable_Insert(exact, "Key", V(1)));
   ASSERT_TRUE(HashTable_Insert(folded, "Key", V(1)));
   void *v = nullptr;
   EXPECT_FALSE(HashTable_Lookup(exact, "key", &v));
   EXPECT_TRUE(HashTable_Insert(exact, "key", V(2)));
   EXPECT_TRUE(HashTable_Lookup(folded, "kEY", &v));
   EXPECT_EQ(v, V(1));
   EXPECT_FALSE(HashTable_Insert(folded, "KEY", V(2)));
   EXPECT_EQ(HashTable_GetNumElements(exact), 2u);
   EXPECT_EQ(HashTable_GetNumElements(folded), 1u);
   HashTable_Free(exact);
   HashTable_Free(folded);
}

TEST(HashTableKeys, CopiedKeysAreOwnedByTheTable) {
   HashTable *ht = HashTable_Alloc(4, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   char key[] = "mutable";
   ASSERT_TRUE(HashTable_Insert(ht, key, V(1)));
   ASSERT_FALSE(HashTable_Insert(ht, key, V(2)));
   const void **keys;
   size_t n;
   HashTable_KeyArray(ht, &keys, &n);
   ASSERT_EQ(n, 1u);
   EXPECT_NE(keys[0], key);
   free(keys);
   key[0] = 'M';
   EXPECT_FALSE(HashTable_Lookup(ht, key, nullptr));
   EXPECT_TRUE(HashTable_Lookup(ht, "mutable", nullptr));
   // Copies are freed on every removal path; the sanitizers see leaks and
   // double frees.
   ASSERT_TRUE(HashTable_ReplaceOrInsert(ht, "other", V(3)) == false);
   ASSERT_TRUE(HashTable_ReplaceOrInsert(ht, "other", V(4)));
   EXPECT_TRUE(HashTable_Delete(ht, "mutable"));
   ASSERT_TRUE(HashTable_Insert(ht, "third", V(5)));
   void *v;
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "third", &v));
   HashTable_Clear(ht);
   ASSERT_TRUE(HashTable_Insert(ht, "last", V(6)));
   HashTable_Free(ht);
}

TEST(HashTableKeys, CopyKeyLeavesIntegerKeysAlone) {
   HashTable *ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_COPYKEY, nullptr);
   ASSERT_TRUE(HashTable_Insert(ht, IntKey(42), V(1)));
   EXPECT_EQ(IntKeys(ht), std::vector<uintptr_t>{42});
   HashTable_Free(ht);
}

// Value semantics are the same with and without the atomic flag.
class HashTableValues : public ::testing::TestWithParam<int> {
protected:
   void SetUp() override {
      gDropped.clear();
      ht_ = HashTable_Alloc(8, HASH_STRING_KEY | GetParam(), RecordDrop);
   }
   void TearDown() override { HashTable_Free(ht_); }

   HashTable *ht_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, HashTableValues,
                         ::testing::Values(0, HASH_FLAG_ATOMIC),
                         [](const auto &info) { return info.param ? "Atomic" : "Plain"; });

TEST_P(HashTableValues, InsertKeepsThePresentValue) {
   EXPECT_TRUE(HashTable_Insert(ht_, "k", V(1)));
   EXPECT_FALSE(HashTable_Insert(ht_, "k", V(2)));
   void *v = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht_, "k", &v));
   EXPECT_EQ(v, V(1));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_EQ(HashTable_GetNumElements(ht_), 1u);
}

TEST_P(HashTableValues, LookupOrInsertReturnsTheStoredValue) {
   EXPECT_EQ(HashTable_LookupOrInsert(ht_, "k", V(1)), V(1));
   EXPECT_EQ(HashTable_LookupOrInsert(ht_, "k", V(2)), V(1));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_EQ(HashTable_GetNumElements(ht_), 1u);
}

TEST_P(HashTableValues, ReplaceOrInsertDropsOnlyReplacedValues) {
   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht_, "k", V(1)));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht_, "k", V(2)));
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht_, "k", V(3)));
   EXPECT_EQ(gDropped, (std::vector<void *>{V(1), V(2)}));
   void *v = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht_, "k", &v));
   EXPECT_EQ(v, V(3));
   EXPECT_EQ(HashTable_GetNumElements(ht_), 1u);
}

TEST_P(HashTableValues, ReplaceIfEqualNeedsTheExpectedValue) {
   EXPECT_FALSE(HashTable_ReplaceIfEqual(ht_, "k", V(1), V(2)));  // absent
   ASSERT_TRUE(HashTable_Insert(ht_, "k", V(1)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(ht_, "k", V(9), V(2)));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_TRUE(HashTable_ReplaceIfEqual(ht_, "k", V(1), V(2)));
   EXPECT_EQ(gDropped, std::vector<void *>{V(1)});
   void *v = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht_, "k", &v));
   EXPECT_EQ(v, V(2));
}

TEST_P(HashTableValues, DeleteDropsAndLookupAndDeleteHandsOver) {
   for (const char *k : {"a", "b", "c", "d"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, V(static_cast<uintptr_t>(k[0]))));
   }
   EXPECT_TRUE(HashTable_Delete(ht_, "a"));
   EXPECT_EQ(gDropped, std::vector<void *>{V('a')});
   void *v = nullptr;
   EXPECT_TRUE(HashTable_LookupAndDelete(ht_, "b", &v));
   EXPECT_EQ(v, V('b'));
   EXPECT_EQ(gDropped.size(), 1u);
   EXPECT_TRUE(HashTable_LookupAndDelete(ht_, "c", nullptr));
   EXPECT_EQ(gDropped, (std::vector<void *>{V('a'), V('c')}));
   EXPECT_FALSE(HashTable_Delete(ht_, "a"));
   EXPECT_FALSE(HashTable_LookupAndDelete(ht_, "zz", &v));
   EXPECT_EQ(HashTable_GetNumElements(ht_), 1u);
   EXPECT_TRUE(HashTable_Lookup(ht_, "d", nullptr));
}

TEST_P(HashTableValues, DeleteUnlinksFromAnyChainPosition) {
   // "", "cherry" share bucket 0 of 8; "banana", "zz" share bucket 3.
   for (const char *k : {"", "cherry", "banana", "zz", "a"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, nullptr));
   }
   EXPECT_TRUE(HashTable_Delete(ht_, ""));      // tail of its chain
   EXPECT_TRUE(HashTable_Delete(ht_, "zz"));    // head of its chain
   EXPECT_EQ(StringKeys(ht_), (std::vector<std::string>{"cherry", "a", "banana"}));
}

TEST_P(HashTableValues, ClearAndFreeDropEveryValueInWalkOrder) {
   for (const char *k : {"a", "b", "", "cherry"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, V(static_cast<uintptr_t>(k[0] + 1))));
   }
   HashTable_Clear(ht_);
   // Walk order: bucket 0 (cherry, then ""), a in 2, b in 7.
   EXPECT_EQ(gDropped, (std::vector<void *>{V('c' + 1), V(1), V('a' + 1), V('b' + 1)}));
   EXPECT_EQ(HashTable_GetNumElements(ht_), 0u);
   EXPECT_FALSE(HashTable_Lookup(ht_, "a", nullptr));
   ASSERT_TRUE(HashTable_Insert(ht_, "a", V(7)));
   HashTable_Free(ht_);
   ht_ = nullptr;
   EXPECT_EQ(gDropped.back(), V(7));
   EXPECT_EQ(gDropped.size(), 5u);
}

TEST_P(HashTableValues, ArraysAndForEachFollowWalkOrder) {
   const void **keys = reinterpret_cast<const void **>(1);
   void **values = reinterpret_cast<void **>(1);
   size_t n = 99;
   HashTable_KeyArray(ht_, &keys, &n);
   EXPECT_EQ(keys, nullptr);
   EXPECT_EQ(n, 0u);
   HashTable_ToArray(ht_, &values, &n);
   EXPECT_EQ(values, nullptr);
   for (const char *k : {"a", "b", "", "cherry"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, V(static_cast<uintptr_t>(k[0] + 1))));
   }
   HashTable_ToArray(ht_, &values, &n);
   ASSERT_EQ(n, 4u);
   EXPECT_EQ(std::vector<void *>(values, values + n),
             (std::vector<void *>{V('c' + 1), V(1), V('a' + 1), V('b' + 1)}));
   free(values);

   std::vector<std::string> seen;
   auto visit = [](const void *key, void *, void *data) {
      auto *out = static_cast<std::vector<std::string> *>(data);
      out->emplace_back(static_cast<const char *>(key));
      return out->size() == 3 ? 42 : 0;
   };
   EXPECT_EQ(HashTable_ForEach(ht_, visit, &seen), 42);
   EXPECT_EQ(seen, (std::vector<std::string>{"cherry", "", "a"}));
   int count = 0;
   auto countAll = [](const void *, void *, void *data) {
      ++*static_cast<int *>(data);
      return 0;
   };
   EXPECT_EQ(HashTable_ForEach(ht_, countAll, &count), 0);
   EXPECT_EQ(count, 4);
}

// Tables without freeEntryFn clear in bulk, and removed entries are reused;
// neither may lose or mix up an entry.
TEST_P(HashTableValues, ManyKeysSurviveRemovalReuseAndClearing) {
   HashTable *ht = HashTable_Alloc(64, HASH_INT_KEY | GetParam(), nullptr);
   constexpr uintptr_t kKeys = 3000;
   for (int round = 0; round < 2; round++) {
      for (uintptr_t k = 1; k <= kKeys; k++) {
         ASSERT_TRUE(HashTable_Insert(ht, IntKey(k), V(k * 2)));
      }
      for (uintptr_t k = 1; k <= kKeys; k += 2) {
         ASSERT_TRUE(HashTable_Delete(ht, IntKey(k)));
      }
      for (uintptr_t k = 1; k <= kKeys; k += 4) {
         ASSERT_TRUE(HashTable_Insert(ht, IntKey(k), V(k * 3)));
      }
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys / 2 + kKeys / 4);
      for (uintptr_t k = 1; k <= kKeys; k++) {
         void *v = nullptr;
         bool present = k % 2 == 0 || k % 4 == 1;
         ASSERT_EQ(HashTable_Lookup(ht, IntKey(k), &v), present) << k;
         if (present) {
            ASSERT_EQ(v, V(k % 2 == 0 ? k * 2 : k * 3)) << k;
         }
      }
      HashTable_Clear(ht);
      ASSERT_EQ(HashTable_GetNumElements(ht), 0u);
      ASSERT_FALSE(HashTable_Lookup(ht, IntKey(2), nullptr));
   }
   HashTable_Free(ht);
   EXPECT_TRUE(gDropped.empty());
}

TEST(HashTableLifetime, AllocOnceReturnsTheInstalledTable) {
   HashTable *var = nullptr;
   HashTable *first = HashTable_AllocOnce(&var, 4, HASH_STRING_KEY, nullptr);
   EXPECT_EQ(var, first);
   EXPECT_EQ(HashTable_AllocOnce(&var, 4, HASH_STRING_KEY, nullptr), first);
   HashTable_Free(var);
   HashTable_Free(nullptr);
   HashTable_FreeUnsafe(nullptr);
}

std::string PanicOf(const std::function<void()> &body) {
   auto r = RunInChild(body);
   EXPECT_EQ(r.ExitCode(), 1) << "no panic";
   auto entries = LogEntries(r.out);
   return entries.size() == 1 ? entries[0] : r.out;
}

TEST(HashTableFatal, BucketCountMustBeAPowerOfTwo) {
   const std::string message = "Panic: HashTable_Alloc only takes powers of 2 \n";
   EXPECT_EQ(PanicOf([] { HashTable_Alloc(3, HASH_STRING_KEY, nullptr); }), message);
   EXPECT_EQ(PanicOf([] { HashTable_Alloc(0, HASH_INT_KEY, nullptr); }), message);
   EXPECT_EQ(PanicOf([] {
                HashTable *var = nullptr;
                HashTable_AllocOnce(&var, 96, HASH_STRING_KEY, nullptr);
             }),
             message);
}

TEST(HashTableFatal, UnknownKeyTypeIsNotReached) {
   const std::string message = "Panic: NOT_REACHED lib/misc/hashTable:148 \n";
   for (int keyType : {3, 7}) {
      EXPECT_EQ(PanicOf([keyType] {
                   HashTable *ht = HashTable_Alloc(4, keyType, nullptr);
                   HashTable_Insert(ht, "k", nullptr);
                }),
                message);
      EXPECT_EQ(PanicOf([keyType] {
                   HashTable *ht = HashTable_Alloc(4, keyType | HASH_FLAG_ATOMIC, nullptr);
                   HashTable_Lookup(ht, "k", nullptr);
                }),
                message);
   }
}

TEST(HashTableFatal, EntryAllocationFailureIsFatal) {
   auto r = RunInChild([] {
      HashTable *ht = HashTable_Alloc(4, HASH_STRING_KEY, nullptr);
      halcyx::gAllocHooks.malloc = [](size_t) -> void * { return nullptr; };
      HashTable_Insert(ht, "k", nullptr);
   });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_EQ(LogEntries(r.out),
             std::vector<std::string>{"Panic: Unrecoverable memory allocation failure\n"});
}

}  // namespace
