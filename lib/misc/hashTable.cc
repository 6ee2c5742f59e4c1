// SPDX-License-Identifier: MIT
/*
 * Hash tables.
 *
 * Atomic tables publish entries and values with release stores and read
 * them with acquire loads, so a thread that finds an entry also sees the
 * key, value and chain behind it. An entry's next link is written only
 * while the entry is unpublished (and by removal, which callers serialise),
 * so chain walks read it without atomics. Non-atomic tables use plain
 * accesses throughout.
 *
 * Entries of a non-atomic table come from slabs that the table owns:
 * removal keeps a removed entry for reuse, and clearing releases whole
 * slabs, so neither insertion nor freeing pays one heap call per key.
 * Atomic tables, whose entries are made by racing threads, allocate each
 * entry on its own. Every entry keeps its key's full hash, so a chain walk
 * compares string keys only when their hashes match.
 */
#include "hashTable.h"

#include <atomic>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "internal/fatal.h"
#include "log.h"
#include "util.h"

// The lookup path is inlined whole into each public entry point.
#define HT_INLINE inline __attribute__((always_inline))

struct HashTableEntry {
   HashTableEntry *next;
   const void *key;
   void *value;
   uint32_t hash;
};

// A block of entries for a non-atomic table. The entries follow the header,
// aligned to their size, so that no entry straddles two cache lines.
struct HashTableSlab {
   static constexpr uintptr_t kEntryAlign = 32;

   HashTableSlab *next;
   uint32_t capacity;
   uint32_t used;

   static size_t BytesFor(uint32_t capacity) {
      return sizeof(HashTableSlab) + kEntryAlign + capacity * sizeof(HashTableEntry);
   }
   HashTableEntry *Entries() {
      auto start = reinterpret_cast<uintptr_t>(this + 1);
      start = (start + kEntryAlign - 1) & ~(kEntryAlign - 1);
      return reinterpret_cast<HashTableEntry *>(start);
   }
};
static_assert(sizeof(HashTableEntry) == HashTableSlab::kEntryAlign);

struct HashTable {
   uint32_t numEntries;
   uint32_t numBits;
   uint32_t keyType;
   bool atomic;
   bool copyKey;
   HashTableFreeEntryFn freeEntryFn;
   HashTableEntry **buckets;
   alignas(std::atomic_ref<uint64_t>::required_alignment) uint64_t numElements;
   uint32_t mask;                // numEntries - 1
   HashTableSlab *slabs;         // newest first; non-atomic tables only
   HashTableEntry *freeEntries;  // removed entries kept for reuse
};

namespace {

template <typename T>
HT_INLINE T Load(const T &slot, bool atomic) {
   return atomic ? std::atomic_ref<T>(const_cast<T &>(slot)).load(std::memory_order_acquire)
                 : slot;
}

template <typename T>
void Store(T &slot, T value, bool atomic) {
   if (atomic) {
      std::atomic_ref<T>(slot).store(value, std::memory_order_release);
   } else {
      slot = value;
   }
}

constexpr uint32_t RotateLeft5(uint32_t h) { return (h << 5) | (h >> 27); }

// Key policies. kHashFirst: comparing stored hashes is cheaper than
// comparing the keys themselves.
struct StringKey {
   static constexpr bool kHashFirst = true;
   static uint32_t Hash(const void *key) {
      uint32_t h = 0;
      for (auto *s = static_cast<const unsigned char *>(key); *s != '\0'; s++) {
         h = RotateLeft5(h ^ *s);
      }
      return h;
   }
   static bool Equal(const void *a, const void *b) {
      return strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
   }
};

struct IStringKey {
   static constexpr bool kHashFirst = true;
   static uint32_t Hash(const void *key) {
      uint32_t h = 0;
      for (auto *s = static_cast<const unsigned char *>(key); *s != '\0'; s++) {
         h = RotateLeft5(h ^ static_cast<uint32_t>(tolower(*s)));
      }
      return h;
   }
   static bool Equal(const void *a, const void *b) {
      return strcasecmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
   }
};

struct IntKey {
   static constexpr bool kHashFirst = false;
   static uint32_t Hash(const void *key) {
      auto k = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
      return static_cast<uint32_t>(((k >> 32) ^ k) * 48271u);
   }
   static bool Equal(const void *a, const void *b) { return a == b; }
};

// Calls f with the key policy of the table's key type.
template <typename F>
decltype(auto) WithKeyType(const HashTable *ht, F &&f) {
   switch (ht->keyType) {
   case HASH_STRING_KEY:
      return f(StringKey{});
   case HASH_ISTRING_KEY:
      return f(IStringKey{});
   case HASH_INT_KEY:
      return f(IntKey{});
   default:
      halcyx::PanicNotReached("lib/misc/hashTable", 148);
   }
}

// Folds a hash to a bucket index. Repeating h = (h >> numBits) ^ (h & mask)
// while h > mask xors every numBits-wide piece of h into the low piece, and
// pieces above the highest non-zero one contribute nothing, so the index is
// the xor of all pieces. Xor-shifting by numBits, 2 numBits, 4 numBits ...
// gathers them in a number of steps fixed per table, without the repeated
// form's data-dependent exit.
HT_INLINE uint32_t Fold(uint32_t h, uint32_t numBits, uint32_t mask) {
   if (numBits == 0) {
      return 0;  // a single bucket; the repeated form would never end
   }
   for (uint32_t shift = numBits; shift < 32; shift *= 2) {
      h ^= h >> shift;
   }
   return h & mask;
}

HT_INLINE HashTableEntry *&Bucket(const HashTable *ht, uint32_t hash) {
   return ht->buckets[Fold(hash, ht->numBits, ht->mask)];
}

template <typename K>
HT_INLINE HashTableEntry *FindInChain(HashTableEntry *e, const void *key, uint32_t hash) {
   while (e != nullptr && !((!K::kHashFirst || e->hash == hash) && K::Equal(e->key, key))) {
      e = e->next;
   }
   return e;
}

template <typename K>
HT_INLINE HashTableEntry *Find(const HashTable *ht, const void *key) {
   uint32_t hash = K::Hash(key);
   return FindInChain<K>(Load(Bucket(ht, hash), ht->atomic), key, hash);
}

constexpr uint32_t kFirstSlab = 8;
constexpr uint32_t kLargestSlab = 1024;

HashTableEntry *NewEntry(HashTable *ht) {
   if (ht->atomic) {
      return static_cast<HashTableEntry *>(UtilSafeMalloc0(sizeof(HashTableEntry)));
   }
   if (ht->freeEntries != nullptr) {
      HashTableEntry *e = ht->freeEntries;
      ht->freeEntries = e->next;
      return e;
   }
   HashTableSlab *slab = ht->slabs;
   if (slab == nullptr || slab->used == slab->capacity) {
      uint32_t capacity = slab == nullptr                 ? kFirstSlab
                          : slab->capacity < kLargestSlab ? slab->capacity * 2
                                                          : kLargestSlab;
      auto *fresh =
         static_cast<HashTableSlab *>(UtilSafeMalloc0(HashTableSlab::BytesFor(capacity)));
      fresh->next = slab;
      fresh->capacity = capacity;
      fresh->used = 0;
      ht->slabs = slab = fresh;
   }
   return &slab->Entries()[slab->used++];
}

// Frees the entry's copied key and gives the entry back.
void ReleaseEntry(HashTable *ht, HashTableEntry *e) {
   if (ht->copyKey) {
      free(const_cast<void *>(e->key));
   }
   if (ht->atomic) {
      free(e);
   } else {
      e->next = ht->freeEntries;
      ht->freeEntries = e;
   }
}

void DropValue(const HashTable *ht, void *value) {
   if (ht->freeEntryFn != nullptr) {
      ht->freeEntryFn(value);
   }
}

// The entry that already holds key, or null after inserting (key, value)
// at the head of its chain. In an atomic table a lost race for the bucket
// head rescans the chain, since the winner may have inserted the same key.
template <typename K>
HashTableEntry *LookupOrInsertEntry(HashTable *ht, const void *key, void *value) {
   uint32_t hash = K::Hash(key);
   HashTableEntry *&slot = Bucket(ht, hash);
   HashTableEntry *head = Load(slot, ht->atomic);
   HashTableEntry *prepared = nullptr;
   for (;;) {
      HashTableEntry *found = FindInChain<K>(head, key, hash);
      if (found != nullptr) {
         if (prepared != nullptr) {
            ReleaseEntry(ht, prepared);
         }
         return found;
      }
      if (prepared == nullptr) {
         prepared = NewEntry(ht);
         prepared->key = ht->copyKey ? UtilSafeStrdup0(static_cast<const char *>(key)) : key;
         prepared->value = value;
         prepared->hash = hash;
      }
      prepared->next = head;
      if (!ht->atomic) {
         slot = prepared;
         ht->numElements++;
         return nullptr;
      }
      if (std::atomic_ref<HashTableEntry *>(slot).compare_exchange_strong(
             head, prepared, std::memory_order_acq_rel, std::memory_order_acquire)) {
         std::atomic_ref<uint64_t>(ht->numElements).fetch_add(1, std::memory_order_relaxed);
         return nullptr;
      }
   }
}

HashTableEntry *LookupOrInsert(HashTable *ht, const void *key, void *value) {
   return WithKeyType(ht, [&](auto k) {
      return LookupOrInsertEntry<decltype(k)>(ht, key, value);
   });
}

// Removes key, handing its value to *value or, without value, to
// freeEntryFn. Never lock-free: callers serialise removal.
template <typename K>
bool Remove(HashTable *ht, const void *key, void **value) {
   uint32_t hash = K::Hash(key);
   HashTableEntry *&slot = Bucket(ht, hash);
   HashTableEntry *prev = nullptr;
   for (HashTableEntry *e = slot; e != nullptr; prev = e, e = e->next) {
      if ((K::kHashFirst && e->hash != hash) || !K::Equal(e->key, key)) {
         continue;
      }
      if (prev == nullptr) {
         Store(slot, e->next, ht->atomic);
      } else {
         prev->next = e->next;
      }
      ht->numElements--;
      void *old = e->value;
      ReleaseEntry(ht, e);
      if (value != nullptr) {
         *value = old;
      } else {
         DropValue(ht, old);
      }
      return true;
   }
   return false;
}

// Calls f(entry) in walk order until it returns non-zero; returns that.
template <typename F>
int Walk(const HashTable *ht, F &&f) {
   for (uint32_t i = 0; i < ht->numEntries; i++) {
      for (HashTableEntry *e = ht->buckets[i]; e != nullptr; e = e->next) {
         if (int result = f(e); result != 0) {
            return result;
         }
      }
   }
   return 0;
}

// A new array of one pointer per entry, filled by pick(entry), in walk order.
template <typename T, typename Pick>
void BuildArray(const HashTable *ht, T ***array, size_t *size, Pick pick) {
   *array = nullptr;
   *size = ht->numElements;
   if (*size == 0) {
      return;
   }
   auto *out = static_cast<T **>(UtilSafeMalloc0(*size * sizeof(T *)));
   size_t n = 0;
   Walk(ht, [&](HashTableEntry *e) {
      out[n++] = pick(e);
      return 0;
   });
   *array = out;
}

HashTable *HashTableCreate(uint32_t numEntries, int flags,
                           HashTableFreeEntryFn freeEntryFn) {
   if (!std::has_single_bit(numEntries)) {
      Panic("%s only takes powers of 2 \n", "HashTable_Alloc");
   }
   auto *ht = static_cast<HashTable *>(UtilSafeMalloc0(sizeof(HashTable)));
   ht->numEntries = numEntries;
   ht->numBits = static_cast<uint32_t>(std::countr_zero(numEntries));
   ht->mask = numEntries - 1;
   ht->keyType = static_cast<uint32_t>(flags) & HASH_KEY_TYPE_MASK;
   ht->atomic = (flags & HASH_FLAG_ATOMIC) != 0;
   // Integer keys are not strings: there is nothing to copy.
   ht->copyKey = (flags & HASH_FLAG_COPYKEY) != 0 && ht->keyType != HASH_INT_KEY;
   ht->freeEntryFn = freeEntryFn;
   ht->buckets = static_cast<HashTableEntry **>(
      UtilSafeCalloc0(numEntries, sizeof(HashTableEntry *)));
   ht->numElements = 0;
   ht->slabs = nullptr;
   ht->freeEntries = nullptr;
   return ht;
}

}  // namespace

extern "C" {

HashTable *HashTable_Alloc(uint32_t numEntries, int flags,
                           HashTableFreeEntryFn freeEntryFn) {
   return HashTableCreate(numEntries, flags, freeEntryFn);
}

HashTable *HashTable_AllocOnce(HashTable **var, uint32_t numEntries, int flags,
                               HashTableFreeEntryFn freeEntryFn) {
   std::atomic_ref<HashTable *> slot(*var);
   HashTable *installed = slot.load(std::memory_order_acquire);
   if (installed != nullptr) {
      return installed;
   }
   HashTable *mine = HashTableCreate(numEntries, flags, freeEntryFn);
   if (slot.compare_exchange_strong(installed, mine, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
      return mine;
   }
   HashTable_FreeUnsafe(mine);
   return installed;
}

void HashTable_Clear(HashTable *ht) {
   if (ht->freeEntryFn == nullptr && !ht->copyKey && !ht->atomic) {
      // Nothing to hand back per entry: the slabs go as a whole below.
      memset(ht->buckets, 0, ht->numEntries * sizeof(HashTableEntry *));
   } else {
      for (uint32_t i = 0; i < ht->numEntries; i++) {
         HashTableEntry *e = ht->buckets[i];
         ht->buckets[i] = nullptr;
         while (e != nullptr) {
            HashTableEntry *next = e->next;
            if (ht->copyKey) {
               free(const_cast<void *>(e->key));
            }
            DropValue(ht, e->value);
            if (ht->atomic) {
               free(e);
            }
            e = next;
         }
      }
   }
   while (ht->slabs != nullptr) {
      HashTableSlab *next = ht->slabs->next;
      free(ht->slabs);
      ht->slabs = next;
   }
   ht->freeEntries = nullptr;
   ht->numElements = 0;
}

void HashTable_FreeUnsafe(HashTable *ht) {
   if (ht == nullptr) {
      return;
   }
   HashTable_Clear(ht);
   free(ht->buckets);
   free(ht);
}

void HashTable_Free(HashTable *ht) { HashTable_FreeUnsafe(ht); }

bool HashTable_Lookup(const HashTable *ht, const void *key, void **value) {
   HashTableEntry *e = WithKeyType(ht, [&](auto k) { return Find<decltype(k)>(ht, key); });
   if (e == nullptr) {
      return false;
   }
   if (value != nullptr) {
      *value = Load(e->value, ht->atomic);
   }
   return true;
}

bool HashTable_Insert(HashTable *ht, const void *key, void *value) {
   return LookupOrInsert(ht, key, value) == nullptr;
}

void *HashTable_LookupOrInsert(HashTable *ht, const void *key, void *value) {
   HashTableEntry *e = LookupOrInsert(ht, key, value);
   return e == nullptr ? value : Load(e->value, ht->atomic);
}

bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value) {
   HashTableEntry *e = LookupOrInsert(ht, key, value);
   if (e == nullptr) {
      return false;
   }
   if (!ht->atomic) {
      DropValue(ht, e->value);
      e->value = value;
   } else if (ht->freeEntryFn != nullptr) {
      // Exchange, so that exactly one replacer drops each old value.
      void *old = std::atomic_ref<void *>(e->value).exchange(value, std::memory_order_acq_rel);
      ht->freeEntryFn(old);
   } else {
      Store(e->value, value, true);
   }
   return true;
}

bool HashTable_ReplaceIfEqual(HashTable *ht, const void *key, void *expectedValue,
                              void *newValue) {
   HashTableEntry *e = WithKeyType(ht, [&](auto k) { return Find<decltype(k)>(ht, key); });
   if (e == nullptr) {
      return false;
   }
   if (!ht->atomic) {
      if (e->value != expectedValue) {
         return false;
      }
      DropValue(ht, expectedValue);
      e->value = newValue;
      return true;
   }
   if (!std::atomic_ref<void *>(e->value).compare_exchange_strong(
          expectedValue, newValue, std::memory_order_acq_rel, std::memory_order_acquire)) {
      return false;
   }
   DropValue(ht, expectedValue);
   return true;
}

bool HashTable_Delete(HashTable *ht, const void *key) {
   return HashTable_LookupAndDelete(ht, key, nullptr);
}

bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value) {
   return WithKeyType(ht, [&](auto k) { return Remove<decltype(k)>(ht, key, value); });
}

size_t HashTable_GetNumElements(const HashTable *ht) {
   if (ht->atomic) {
      return std::atomic_ref<uint64_t>(const_cast<uint64_t &>(ht->numElements))
         .load(std::memory_order_relaxed);
   }
   return ht->numElements;
}

void HashTable_KeyArray(const HashTable *ht, const void ***keys, size_t *size) {
   BuildArray(ht, keys, size, [](HashTableEntry *e) { return e->key; });
}

void HashTable_ToArray(const HashTable *ht, void ***values, size_t *size) {
   BuildArray(ht, values, size, [](HashTableEntry *e) { return e->value; });
}

int HashTable_ForEach(const HashTable *ht, HashTableForEachCallback callback,
                      void *clientData) {
   return Walk(ht, [&](HashTableEntry *e) { return callback(e->key, e->value, clientData); });
}

}  // extern "C"
