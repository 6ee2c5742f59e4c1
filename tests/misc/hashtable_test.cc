// Hash tables, single-threaded: placement and order, key types, value
// ownership, and the fatal paths.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "child.h"
#include "hashTable.h"
#include "internal/alloc.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
const void *K(uintptr_t n) { return reinterpret_cast<const void *>(n); }

std::vector<void *> gDropped;  // values passed to freeEntryFn, in order
void RecordDrop(void *value) { gDropped.push_back(value); }

template <typename T>
std::vector<T> KeysOf(const HashTable *ht) {
   const void **keys;
   size_t n;
   HashTable_KeyArray(ht, &keys, &n);
   std::vector<T> out;
   for (size_t i = 0; i < n; i++) {
      if constexpr (std::is_same_v<T, std::string>) {
         out.emplace_back(static_cast<const char *>(keys[i]));
      } else {
         out.push_back(reinterpret_cast<uintptr_t>(keys[i]));
      }
   }
   free(keys);
   return out;
}

template <typename T>
std::vector<T> Placed(uint32_t buckets, int keyType, const std::vector<T> &keys) {
   HashTable *ht = HashTable_Alloc(buckets, keyType, nullptr);
   for (const T &k : keys) {
      if constexpr (std::is_same_v<T, std::string>) {
         EXPECT_TRUE(HashTable_Insert(ht, k.c_str(), nullptr));
      } else {
         EXPECT_TRUE(HashTable_Insert(ht, K(k), nullptr));
      }
   }
   std::vector<T> order = KeysOf<T>(ht);
   HashTable_Free(ht);
   return order;
}

using Strings = std::vector<std::string>;
using Ints = std::vector<uintptr_t>;

// Expected orders were worked out by hand from the hash and fold rules:
// buckets ascending, newest first within a bucket.
TEST(HashTablePlacement, StringsByRotateXorHashAndFold) {
   const Strings keys = {"a", "b", "apple", "banana", "cherry", "", "Key", "\xe9t\xe9", "zz"};
   // Buckets: "" and cherry 0, apple 1, a 2, banana and zz 3, Key 4, the
   // non-ASCII key 6 (its bytes hash as unsigned), b 7.
   EXPECT_EQ(Placed(8, HASH_STRING_KEY, keys),
             (Strings{"", "cherry", "apple", "a", "zz", "banana", "Key", "\xe9t\xe9", "b"}));
   EXPECT_EQ(Placed(2, HASH_STRING_KEY, keys),
             (Strings{"zz", "\xe9t\xe9", "", "cherry", "banana", "Key", "apple", "b", "a"}));
   EXPECT_EQ(Placed(1, HASH_STRING_KEY, Strings{"x", "y"}), (Strings{"y", "x"}));
   const Strings words = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta"};
   // Buckets 142, 150, 273, 306, 367, 519 of 1024; 89139 ... 118364 of 2^17.
   EXPECT_EQ(Placed(1024, HASH_STRING_KEY, words),
             (Strings{"zeta", "beta", "epsilon", "delta", "gamma", "alpha"}));
   EXPECT_EQ(Placed(131072, HASH_STRING_KEY, words),
             (Strings{"gamma", "beta", "zeta", "delta", "epsilon", "alpha"}));
   // Case-insensitive keys hash lower-cased: Hello and WORLD share bucket 4.
   EXPECT_EQ(Placed(8, HASH_ISTRING_KEY, Strings{"Hello", "hello2", "WORLD"}),
             (Strings{"WORLD", "Hello", "hello2"}));
}

TEST(HashTablePlacement, IntegersFoldTheirHighHalf) {
   // 0x100000001 and all ones hash to 0 because the high half is xored in.
   EXPECT_EQ(Placed(8, HASH_INT_KEY, Ints{1, 2, 3, 7, 8, 0x100000001, 0xdeadbeef, 1000,
                                          UINTPTR_MAX}),
             (Ints{UINTPTR_MAX, 0x100000001, 8, 2, 1, 7, 1000, 3, 0xdeadbeef}));
   const Ints numbers = {0xdeadbeefcafe, 12345, 0x7f3a12400030};
   // Buckets 221, 754, 937 of 1024 and 2367, 55829, 86881 of 2^17.
   EXPECT_EQ(Placed(1024, HASH_INT_KEY, numbers), (Ints{12345, 0x7f3a12400030, 0xdeadbeefcafe}));
   EXPECT_EQ(Placed(131072, HASH_INT_KEY, numbers),
             (Ints{0x7f3a12400030, 12345, 0xdeadbeefcafe}));
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
   EXPECT_TRUE(HashTable_Delete(folded, "kEy"));
   EXPECT_EQ(HashTable_GetNumElements(exact), 2u);
   EXPECT_EQ(HashTable_GetNumElements(folded), 0u);
   HashTable_Free(exact);
   HashTable_Free(folded);
}

TEST(HashTableKeys, CopiedKeysAreOwnedByTheTable) {
   // The sanitizers see a copy leaked or freed twice on any removal path.
   HashTable *ht = HashTable_Alloc(4, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   char key[] = "mutable";
   ASSERT_TRUE(HashTable_Insert(ht, key, V(1)));
   ASSERT_FALSE(HashTable_Insert(ht, key, V(2)));
   key[0] = 'M';
   EXPECT_FALSE(HashTable_Lookup(ht, key, nullptr));
   EXPECT_EQ(KeysOf<std::string>(ht), Strings{"mutable"});
   ASSERT_FALSE(HashTable_ReplaceOrInsert(ht, "other", V(3)));
   ASSERT_TRUE(HashTable_ReplaceOrInsert(ht, "other", V(4)));
   EXPECT_TRUE(HashTable_Delete(ht, "mutable"));
   ASSERT_TRUE(HashTable_Insert(ht, "third", V(5)));
   void *v;
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "third", &v));
   HashTable_Clear(ht);
   ASSERT_TRUE(HashTable_Insert(ht, "last", V(6)));
   HashTable_Free(ht);
   // Integer keys are not strings: copyKey leaves them alone.
   ht = HashTable_Alloc(4, HASH_INT_KEY | HASH_FLAG_COPYKEY, nullptr);
   ASSERT_TRUE(HashTable_Insert(ht, K(42), V(1)));
   EXPECT_EQ(KeysOf<uintptr_t>(ht), Ints{42});
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

   void *ValueOf(const char *key) {
      void *v = nullptr;
      EXPECT_TRUE(HashTable_Lookup(ht_, key, &v)) << key;
      return v;
   }

   HashTable *ht_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, HashTableValues, ::testing::Values(0, HASH_FLAG_ATOMIC),
                         [](const auto &info) { return info.param ? "Atomic" : "Plain"; });

TEST_P(HashTableValues, InsertionKeepsThePresentValue) {
   EXPECT_TRUE(HashTable_Insert(ht_, "k", V(1)));
   EXPECT_FALSE(HashTable_Insert(ht_, "k", V(2)));
   EXPECT_EQ(HashTable_LookupOrInsert(ht_, "k", V(3)), V(1));
   EXPECT_EQ(HashTable_LookupOrInsert(ht_, "new", V(4)), V(4));
   EXPECT_EQ(ValueOf("k"), V(1));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_EQ(HashTable_GetNumElements(ht_), 2u);
}

TEST_P(HashTableValues, ReplacementDropsOnlyReplacedValues) {
   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht_, "k", V(1)));
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht_, "k", V(2)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(ht_, "k", V(9), V(3)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(ht_, "absent", nullptr, V(3)));
   EXPECT_EQ(gDropped, std::vector<void *>{V(1)});
   EXPECT_TRUE(HashTable_ReplaceIfEqual(ht_, "k", V(2), V(3)));
   EXPECT_EQ(gDropped, (std::vector<void *>{V(1), V(2)}));
   EXPECT_EQ(ValueOf("k"), V(3));
   EXPECT_EQ(HashTable_GetNumElements(ht_), 1u);
}

TEST_P(HashTableValues, RemovalDropsOrHandsOverFromAnyChainPosition) {
   // "" and "cherry" share bucket 0, "banana" and "zz" bucket 3.
   for (const char *k : {"", "cherry", "banana", "zz", "a"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, V(static_cast<uintptr_t>(k[0] + 1))));
   }
   EXPECT_TRUE(HashTable_Delete(ht_, ""));  // tail of its chain
   EXPECT_EQ(gDropped, std::vector<void *>{V(1)});
   void *v = nullptr;
   EXPECT_TRUE(HashTable_LookupAndDelete(ht_, "zz", &v));  // head of its chain
   EXPECT_EQ(v, V('z' + 1));
   EXPECT_EQ(gDropped.size(), 1u);
   EXPECT_TRUE(HashTable_LookupAndDelete(ht_, "a", nullptr));
   EXPECT_EQ(gDropped, (std::vector<void *>{V(1), V('a' + 1)}));
   EXPECT_FALSE(HashTable_Delete(ht_, "a"));
   EXPECT_FALSE(HashTable_LookupAndDelete(ht_, "", &v));
   EXPECT_EQ(KeysOf<std::string>(ht_), (Strings{"cherry", "banana"}));
   EXPECT_EQ(HashTable_GetNumElements(ht_), 2u);
}

TEST_P(HashTableValues, WalksFollowBucketAndChainOrder) {
   void **values = reinterpret_cast<void **>(1);
   size_t n = 99;
   HashTable_ToArray(ht_, &values, &n);
   EXPECT_EQ(values, nullptr);
   EXPECT_EQ(n, 0u);
   for (const char *k : {"a", "b", "", "cherry"}) {
      ASSERT_TRUE(HashTable_Insert(ht_, k, V(static_cast<uintptr_t>(k[0] + 1))));
   }
   // cherry and "" in bucket 0 (newest first), a in 2, b in 7.
   const std::vector<void *> order = {V('c' + 1), V(1), V('a' + 1), V('b' + 1)};
   HashTable_ToArray(ht_, &values, &n);
   EXPECT_EQ(std::vector<void *>(values, values + n), order);
   free(values);
   Strings seen;
   auto visit = [](const void *key, void *, void *data) {
      auto *out = static_cast<Strings *>(data);
      out->emplace_back(static_cast<const char *>(key));
      return out->size() == 3 ? 42 : 0;
   };
   EXPECT_EQ(HashTable_ForEach(ht_, visit, &seen), 42);
   EXPECT_EQ(seen, (Strings{"cherry", "", "a"}));
   HashTable_Clear(ht_);
   EXPECT_EQ(gDropped, order);
   EXPECT_EQ(HashTable_GetNumElements(ht_), 0u);
   EXPECT_EQ(HashTable_ForEach(ht_, visit, &seen), 0);
   ASSERT_TRUE(HashTable_Insert(ht_, "a", V(7)));
   HashTable_Free(ht_);
   ht_ = nullptr;
   EXPECT_EQ(gDropped.back(), V(7));
}

// Tables without freeEntryFn clear in bulk, and removed entries are reused;
// neither may lose or mix up an entry.
TEST_P(HashTableValues, ManyKeysSurviveRemovalReuseAndClearing) {
   HashTable *ht = HashTable_Alloc(64, HASH_INT_KEY | GetParam(), nullptr);
   constexpr uintptr_t kKeys = 3000;
   for (int round = 0; round < 2; round++) {
      for (uintptr_t k = 1; k <= kKeys; k++) {
         ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k * 2)));
      }
      for (uintptr_t k = 1; k <= kKeys; k += 2) {
         ASSERT_TRUE(HashTable_Delete(ht, K(k)));
      }
      for (uintptr_t k = 1; k <= kKeys; k += 4) {
         ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k * 3)));
      }
      ASSERT_EQ(HashTable_GetNumElements(ht), kKeys / 2 + kKeys / 4);
      for (uintptr_t k = 1; k <= kKeys; k++) {
         void *v = nullptr;
         bool present = k % 2 == 0 || k % 4 == 1;
         ASSERT_EQ(HashTable_Lookup(ht, K(k), &v), present) << k;
         ASSERT_EQ(v, present ? V(k % 2 == 0 ? k * 2 : k * 3) : nullptr) << k;
      }
      HashTable_Clear(ht);
      ASSERT_FALSE(HashTable_Lookup(ht, K(2), nullptr));
   }
   HashTable_Free(ht);
   HashTable_Free(nullptr);
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
   EXPECT_EQ(PanicOf([] { HashTable_Insert(HashTable_Alloc(4, 3, nullptr), "k", nullptr); }),
             message);
   EXPECT_EQ(PanicOf([] {
                HashTable_Lookup(HashTable_Alloc(4, 7 | HASH_FLAG_ATOMIC, nullptr), "k", nullptr);
             }),
             message);
}

TEST(HashTableFatal, EntryAllocationFailureIsFatal) {
   EXPECT_EQ(PanicOf([] {
                HashTable *ht = HashTable_Alloc(4, HASH_STRING_KEY, nullptr);
                halcyx::gAllocHooks.malloc = [](size_t) -> void * { return nullptr; };
                HashTable_Insert(ht, "k", nullptr);
             }),
             "Panic: Unrecoverable memory allocation failure\n");
}

}  // namespace
