// SPDX-License-Identifier: MIT
// Hash tables, single-threaded: placement, key types, value ownership and
// the fatal paths.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "child.h"
#include "hashTable.h"

namespace {

void *V(uintptr_t n) { return reinterpret_cast<void *>(n); }
const void *K(uintptr_t n) { return reinterpret_cast<const void *>(n); }
using Strings = std::vector<std::string>;

// The keys in walk order (buckets ascending, newest first in a bucket)
// after inserting `keys` into a table of `buckets` buckets. Integer keys are
// written in hex.
Strings Placed(uint32_t buckets, int keyType, const Strings &keys) {
   const bool ints = keyType == HASH_INT_KEY;
   HashTable *ht = HashTable_Alloc(buckets, keyType, nullptr);
   for (const std::string &k : keys) {
      EXPECT_TRUE(HashTable_Insert(ht, ints ? K(std::stoull(k, nullptr, 16)) : k.c_str(), nullptr));
   }
   const void **out;
   size_t n;
   HashTable_KeyArray(ht, &out, &n);
   Strings order;
   for (size_t i = 0; i < n; i++) {
      char hex[20];
      snprintf(hex, sizeof hex, "%" PRIxPTR, reinterpret_cast<uintptr_t>(out[i]));
      order.emplace_back(ints ? hex : static_cast<const char *>(out[i]));
   }
   free(out);
   HashTable_Free(ht);
   return order;
}

// Expected orders were worked out by hand from the hash and fold rules.
TEST(HashTablePlacement, ExactHashAndFold) {
   // Buckets of 8: "" and cherry 0, apple 1, a 2, banana and zz 3, Key 4,
   // the non-ASCII key 6 (its bytes hash as unsigned), b 7.
   const Strings keys = {"a", "b", "apple", "banana", "cherry", "", "Key", "\xe9t\xe9", "zz"};
   EXPECT_EQ(Placed(8, HASH_STRING_KEY, keys),
             (Strings{"", "cherry", "apple", "a", "zz", "banana", "Key", "\xe9t\xe9", "b"}));
   // Buckets 89139 ... 118364 of 2^17: folding xors in the high bits.
   const Strings words = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta"};
   EXPECT_EQ(Placed(131072, HASH_STRING_KEY, words),
             (Strings{"gamma", "beta", "zeta", "delta", "epsilon", "alpha"}));
   // Case-insensitive keys hash lower-cased: Hello and WORLD share bucket 4.
   EXPECT_EQ(Placed(8, HASH_ISTRING_KEY, Strings{"Hello", "hello2", "WORLD"}),
             (Strings{"WORLD", "Hello", "hello2"}));
   // Integers xor their high half in: 0x100000001 and all ones hash to 0.
   EXPECT_EQ(Placed(8, HASH_INT_KEY, {"1", "2", "3", "7", "8", "100000001", "deadbeef",
                                      "ffffffffffffffff"}),
             (Strings{"ffffffffffffffff", "100000001", "8", "2", "1", "7", "3", "deadbeef"}));
   EXPECT_EQ(Placed(131072, HASH_INT_KEY, {"deadbeefcafe", "3039", "7f3a12400030"}),
             (Strings{"7f3a12400030", "3039", "deadbeefcafe"}));
}

TEST(HashTableKeys, CaseInsensitiveAndCopiedKeys) {
   HashTable *ht = HashTable_Alloc(16, HASH_ISTRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   char key[] = "Key";
   ASSERT_TRUE(HashTable_Insert(ht, key, V(1)));
   key[0] = 'X';  // the table holds its own copy
   void *v = nullptr;
   EXPECT_TRUE(HashTable_Lookup(ht, "kEY", &v) && v == V(1));
   EXPECT_FALSE(HashTable_Insert(ht, "KEY", V(2)));
   EXPECT_FALSE(HashTable_Lookup(ht, key, nullptr));
   // The sanitizers see a copy leaked or freed twice on any removal path.
   EXPECT_FALSE(HashTable_ReplaceOrInsert(ht, "other", V(3)));
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "OTHER", V(4)));
   EXPECT_TRUE(HashTable_Delete(ht, "kEy"));
   EXPECT_TRUE(HashTable_Insert(ht, "third", V(5)));
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "third", &v) && v == V(5));
   HashTable_Clear(ht);
   ASSERT_TRUE(HashTable_Insert(ht, "last", V(6)));
   HashTable_Free(ht);
}

std::vector<void *> gDropped;  // values passed to freeEntryFn, in order
void RecordDrop(void *value) { gDropped.push_back(value); }

// Value ownership is the same with and without the atomic flag.
class HashTableValues : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, HashTableValues, ::testing::Values(0, HASH_FLAG_ATOMIC),
                         [](const auto &info) { return info.param ? "Atomic" : "Plain"; });

TEST_P(HashTableValues, FreeEntryFnGetsExactlyTheDroppedValues) {
   gDropped.clear();
   HashTable *ht = HashTable_Alloc(8, HASH_STRING_KEY | GetParam(), RecordDrop);
   using Values = std::vector<void *>;
   EXPECT_TRUE(HashTable_Insert(ht, "k", V(1)));
   EXPECT_FALSE(HashTable_Insert(ht, "k", V(2)));
   EXPECT_EQ(HashTable_LookupOrInsert(ht, "k", V(3)), V(1));
   EXPECT_TRUE(gDropped.empty());
   EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "k", V(4)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(ht, "k", V(1), V(5)));
   EXPECT_TRUE(HashTable_ReplaceIfEqual(ht, "k", V(4), V(6)));
   EXPECT_EQ(gDropped, (Values{V(1), V(4)}));
   // "" and "cherry" share bucket 0; removal works at both chain positions.
   for (const char *k : {"", "cherry", "zz"}) ASSERT_TRUE(HashTable_Insert(ht, k, V(k[0] + 10u)));
   EXPECT_TRUE(HashTable_Delete(ht, ""));
   void *v = nullptr;
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "cherry", &v) && v == V('c' + 10u));
   EXPECT_FALSE(HashTable_Delete(ht, "cherry"));
   EXPECT_TRUE(HashTable_LookupAndDelete(ht, "zz", nullptr));
   EXPECT_EQ(gDropped, (Values{V(1), V(4), V(10), V('z' + 10u)}));
   EXPECT_EQ(HashTable_GetNumElements(ht), 1u);
   ASSERT_TRUE(HashTable_Insert(ht, "a", V(7)));
   HashTable_Clear(ht);
   EXPECT_EQ(gDropped.size(), 6u);
   ASSERT_TRUE(HashTable_Insert(ht, "b", V(8)));
   HashTable_Free(ht);
   EXPECT_EQ(gDropped.back(), V(8));
}

// Without freeEntryFn entries are cleared in bulk and removed ones reused;
// neither may lose or mix up an entry.
TEST_P(HashTableValues, ManyKeysSurviveRemovalReuseAndClearing) {
   HashTable *ht = HashTable_Alloc(64, HASH_INT_KEY | GetParam(), nullptr);
   for (int round = 0; round < 2; round++) {
      for (uintptr_t k = 1; k <= 3000; k++) ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k * 2)));
      for (uintptr_t k = 1; k <= 3000; k += 2) ASSERT_TRUE(HashTable_Delete(ht, K(k)));
      for (uintptr_t k = 1; k <= 3000; k += 4) ASSERT_TRUE(HashTable_Insert(ht, K(k), V(k * 3)));
      ASSERT_EQ(HashTable_GetNumElements(ht), 2250u);
      for (uintptr_t k = 1; k <= 3000; k++) {
         void *v = nullptr;
         bool present = k % 2 == 0 || k % 4 == 1;
         ASSERT_EQ(HashTable_Lookup(ht, K(k), &v), present) << k;
         ASSERT_EQ(v, present ? V(k % 2 == 0 ? k * 2 : k * 3) : nullptr) << k;
      }
      HashTable_Clear(ht);
      ASSERT_FALSE(HashTable_Lookup(ht, K(2), nullptr));
   }
   HashTable_Free(ht);
}

std::string PanicOf(void (*body)()) {
   auto r = halcyx::test::RunInChild(body);
   EXPECT_EQ(r.ExitCode(), 1) << "no panic";
   auto entries = halcyx::test::LogEntries(r.out);
   return entries.size() == 1 ? entries[0] : r.out;
}

TEST(HashTableFatal, BucketCountNotAPowerOfTwoAndUnknownKeyType) {
   const std::string notPowerOfTwo = "Panic: HashTable_Alloc only takes powers of 2 \n";
   EXPECT_EQ(PanicOf([] { HashTable_Alloc(3, HASH_STRING_KEY, nullptr); }), notPowerOfTwo);
   EXPECT_EQ(PanicOf([] { HashTable_Alloc(0, HASH_INT_KEY, nullptr); }), notPowerOfTwo);
   EXPECT_EQ(PanicOf([] { HashTable_Insert(HashTable_Alloc(4, 3, nullptr), "k", nullptr); }),
             "Panic: NOT_REACHED lib/misc/hashTable:148 \n");
}

}  // namespace
