// SPDX-License-Identifier: MIT
// HashTable against std::unordered_map, per operation, at the same load
// factor: N keys in a power-of-two bucket count B >= N (HashTable) and in
// std::unordered_map after rehash(B), which picks the next prime >= B.
//
// Baselines and what they share with HashTable:
// - String keys: std::unordered_map<std::string_view, void *> with
//   std::hash<std::string_view>. Like a table without HASH_FLAG_COPYKEY it
//   stores the caller's key characters by reference; unlike HashTable it is
//   handed each key's length instead of finding the NUL.
// - Integer keys: std::unordered_map<uintptr_t, void *> with
//   std::hash<uintptr_t> (the identity). "Int" keys are uniformly random
//   64-bit values; "Ptr" keys are pointer-like values 48 bytes apart, which
//   the identity hash modulo a prime spreads without a single collision.
// Insertion runs create, insert N keys and destroy per iteration for both.
// Lookups run over the keys in a shuffled order, with string keys that are
// equal to the stored ones but not the same pointers; misses use keys that
// are not present.
//
// Names pair as BM_<Group>/baseline and BM_<Group>/halcyx.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "hashTable.h"

namespace {

uint32_t BucketsFor(size_t n) {
   uint32_t b = 2;
   while (b < n) {
      b *= 2;
   }
   return b;
}

void *ValueOf(size_t i) { return reinterpret_cast<void *>(i + 1); }

struct StringKeys {
   std::vector<std::string> present;
   std::vector<std::string> hits;  // equal to present, in other memory
   std::vector<std::string> absent;
   std::vector<size_t> order;  // a shuffled permutation of 0..N-1

   explicit StringKeys(size_t n) {
      for (size_t i = 0; i < n; i++) {
         present.push_back("key-" + std::to_string(i * 7919));
         hits.push_back(present.back());
         absent.push_back("nokey-" + std::to_string(i * 7919));
         order.push_back(i);
      }
      std::shuffle(order.begin(), order.end(), std::mt19937(42));
   }
};

struct IntKeys {
   std::vector<uintptr_t> present;
   std::vector<uintptr_t> absent;
   const std::vector<uintptr_t> &hits = present;
   std::vector<size_t> order;

   explicit IntKeys(size_t n) {
      std::mt19937_64 random(7);
      for (size_t i = 0; i < n; i++) {
         present.push_back(random());
         absent.push_back(random());
         order.push_back(i);
      }
      std::shuffle(order.begin(), order.end(), std::mt19937(42));
   }
};

struct PtrKeys : IntKeys {
   explicit PtrKeys(size_t n) : IntKeys(n) {
      const uintptr_t base = 0x7f3a12400000;
      for (size_t i = 0; i < n; i++) {
         present[i] = base + i * 48;
         absent[i] = base + i * 48 + 16;
      }
   }
};

const void *AsKey(const std::string &s) { return s.c_str(); }
const void *AsKey(uintptr_t k) { return reinterpret_cast<const void *>(k); }
std::string_view AsMapKey(const std::string &s) { return s; }
uintptr_t AsMapKey(uintptr_t k) { return k; }

template <typename Keys> struct Kind;
template <> struct Kind<StringKeys> {
   using Map = std::unordered_map<std::string_view, void *>;
   static constexpr int kFlags = HASH_STRING_KEY;
};
template <> struct Kind<IntKeys> {
   using Map = std::unordered_map<uintptr_t, void *>;
   static constexpr int kFlags = HASH_INT_KEY;
};
template <> struct Kind<PtrKeys> : Kind<IntKeys> {};

template <typename Keys>
void InsertBaseline(benchmark::State &state, size_t n) {
   Keys keys(n);
   for (auto _ : state) {
      typename Kind<Keys>::Map map;
      map.rehash(BucketsFor(n));
      for (size_t i = 0; i < n; i++) {
         map.emplace(AsMapKey(keys.present[i]), ValueOf(i));
      }
      benchmark::DoNotOptimize(map.size());
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

template <typename Keys>
void InsertHalcyx(benchmark::State &state, size_t n) {
   Keys keys(n);
   for (auto _ : state) {
      HashTable *ht = HashTable_Alloc(BucketsFor(n), Kind<Keys>::kFlags, nullptr);
      for (size_t i = 0; i < n; i++) {
         HashTable_Insert(ht, AsKey(keys.present[i]), ValueOf(i));
      }
      benchmark::DoNotOptimize(HashTable_GetNumElements(ht));
      HashTable_Free(ht);
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

template <typename Keys>
void LookupBaseline(benchmark::State &state, size_t n, bool hit) {
   Keys keys(n);
   typename Kind<Keys>::Map map;
   map.rehash(BucketsFor(n));
   for (size_t i = 0; i < n; i++) {
      map.emplace(AsMapKey(keys.present[i]), ValueOf(i));
   }
   const auto &probe = hit ? keys.hits : keys.absent;
   for (auto _ : state) {
      size_t found = 0;
      for (size_t i : keys.order) {
         auto it = map.find(AsMapKey(probe[i]));
         found += it != map.end() ? reinterpret_cast<uintptr_t>(it->second) : 0;
      }
      benchmark::DoNotOptimize(found);
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

template <typename Keys>
void LookupHalcyx(benchmark::State &state, size_t n, bool hit) {
   Keys keys(n);
   HashTable *ht = HashTable_Alloc(BucketsFor(n), Kind<Keys>::kFlags, nullptr);
   for (size_t i = 0; i < n; i++) {
      HashTable_Insert(ht, AsKey(keys.present[i]), ValueOf(i));
   }
   const auto &probe = hit ? keys.hits : keys.absent;
   for (auto _ : state) {
      size_t found = 0;
      for (size_t i : keys.order) {
         void *v = nullptr;
         found += HashTable_Lookup(ht, AsKey(probe[i]), &v) ? reinterpret_cast<uintptr_t>(v) : 0;
      }
      benchmark::DoNotOptimize(found);
   }
   HashTable_Free(ht);
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

template <typename Keys>
void RegisterKind(const std::string &kind) {
   for (size_t n : {size_t{1000}, size_t{100000}}) {
      std::string suffix = "_" + std::to_string(n);
      auto pair = [&](const std::string &op, auto baseline, auto halcyx) {
         std::string group = "BM_Hash" + kind + op + suffix;
         benchmark::RegisterBenchmark((group + "/baseline").c_str(), baseline);
         benchmark::RegisterBenchmark((group + "/halcyx").c_str(), halcyx);
      };
      pair("Insert", [n](benchmark::State &s) { InsertBaseline<Keys>(s, n); },
           [n](benchmark::State &s) { InsertHalcyx<Keys>(s, n); });
      pair("LookupHit", [n](benchmark::State &s) { LookupBaseline<Keys>(s, n, true); },
           [n](benchmark::State &s) { LookupHalcyx<Keys>(s, n, true); });
      pair("LookupMiss", [n](benchmark::State &s) { LookupBaseline<Keys>(s, n, false); },
           [n](benchmark::State &s) { LookupHalcyx<Keys>(s, n, false); });
   }
}

const bool kRegistered = [] {
   RegisterKind<StringKeys>("String");
   RegisterKind<IntKeys>("Int");
   RegisterKind<PtrKeys>("Ptr");
   return true;
}();

}  // namespace
