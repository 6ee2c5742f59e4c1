// SPDX-License-Identifier: MIT
/*
 * Hash tables: chained tables from keys to pointer-sized values.
 *
 * Keys are NUL-terminated strings compared exactly (HASH_STRING_KEY),
 * strings compared without regard to case (HASH_ISTRING_KEY), or bare
 * pointer-sized integers (HASH_INT_KEY, the key pointer's value itself).
 * The table stores key pointers as given unless HASH_FLAG_COPYKEY asks it
 * to copy string keys on insertion (and free the copies on removal).
 *
 * Whenever the table drops a value (replacement, deletion, clearing,
 * freeing) it passes the value to the table's freeEntryFn, if there is one.
 * A non-atomic table keeps the memory of removed entries for its next
 * insertions and returns it on HashTable_Clear and HashTable_Free.
 *
 * Placement and order are fixed: a key's bucket is its hash folded to the
 * bucket count, a new entry stands at the head of its bucket's chain, and
 * every walk (clearing, freeing, the array builders, ForEach) goes through
 * the buckets from index 0 upwards and each chain from its head.
 *
 * Concurrency: a table created with HASH_FLAG_ATOMIC allows concurrent
 * HashTable_Insert, HashTable_LookupOrInsert, HashTable_ReplaceOrInsert,
 * HashTable_ReplaceIfEqual, HashTable_Lookup and HashTable_GetNumElements
 * without locks. Removal, clearing, freeing, the array builders and
 * HashTable_ForEach need outside locking in every table. A non-atomic table
 * needs outside locking for everything but concurrent lookups.
 *
 *    HashTable *ht = HashTable_Alloc(64, HASH_STRING_KEY | HASH_FLAG_COPYKEY, free);
 *    HashTable_Insert(ht, "name", strdup("value"));
 *    void *v;
 *    if (HashTable_Lookup(ht, "name", &v)) { ... }
 *    HashTable_Free(ht);
 */
#ifndef HALCYX_HASHTABLE_H
#define HALCYX_HASHTABLE_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* Key types: the low three bits of the creation flags. */
#define HASH_STRING_KEY 0  /* strcmp */
#define HASH_ISTRING_KEY 1 /* strcasecmp */
#define HASH_INT_KEY 2     /* the key pointer's bits */
#define HASH_KEY_TYPE_MASK 0x07

/* Lock-free insertion and replacement (compare-and-swap). */
#define HASH_FLAG_ATOMIC 0x08
/* String keys are copied on insertion and freed on removal. */
#define HASH_FLAG_COPYKEY 0x10

typedef struct HashTable HashTable;

/* Called on a value whenever the table drops it. */
typedef void (*HashTableFreeEntryFn)(void *value);

/* Called by HashTable_ForEach; a non-zero result stops the walk. */
typedef int (*HashTableForEachCallback)(const void *key, void *value, void *clientData);

/*
 * A new empty table of numEntries buckets. numEntries must be a power of
 * two (1 included); any other count ends the process with
 * Panic("%s only takes powers of 2 \n", "HashTable_Alloc"). A key type
 * outside the three above ends the process at the first use of a key.
 * Never returns null: allocation failure is fatal.
 */
HashTable *HashTable_Alloc(uint32_t numEntries, int flags, HashTableFreeEntryFn freeEntryFn);

/*
 * The table in *var, creating it as HashTable_Alloc does and installing it
 * when *var is null. Any number of threads may race on one variable: one
 * table is installed, every caller gets that one, and the losers' tables
 * are freed. *var must only be changed by this function while racing.
 */
HashTable *HashTable_AllocOnce(HashTable **var, uint32_t numEntries, int flags,
                               HashTableFreeEntryFn freeEntryFn);

/* Drops every entry and frees the table; a null table is ignored. */
void HashTable_Free(HashTable *ht);

/* As HashTable_Free, for tables that may have been shared between threads. */
void HashTable_FreeUnsafe(HashTable *ht);

/* Drops every entry; the table stays, empty. */
void HashTable_Clear(HashTable *ht);

/* True when key is present; its value goes to *value when value is not null. */
bool HashTable_Lookup(const HashTable *ht, const void *key, void **value);

/*
 * Inserts (key, value) when key is absent and returns true. When key is
 * present returns false and changes nothing; value is not freed.
 */
bool HashTable_Insert(HashTable *ht, const void *key, void *value);

/*
 * The value already stored under key, or, when key is absent, value after
 * storing it. In an atomic table every racing caller for one key gets the
 * same, winning, value.
 */
void *HashTable_LookupOrInsert(HashTable *ht, const void *key, void *value);

/*
 * Stores value under key. True when an old value was replaced (and passed
 * to freeEntryFn), false when key was newly inserted.
 */
bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value);

/*
 * When key holds expectedValue, stores newValue, passes expectedValue to
 * freeEntryFn and returns true; otherwise (key absent or holding another
 * value) returns false. Atomic in an atomic table.
 */
bool HashTable_ReplaceIfEqual(HashTable *ht, const void *key, void *expectedValue,
                              void *newValue);

/* Removes key; its value goes to freeEntryFn. True when key was present. */
bool HashTable_Delete(HashTable *ht, const void *key);

/*
 * As HashTable_Delete, but when value is not null the removed value is
 * handed to the caller in *value instead of going to freeEntryFn.
 */
bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value);

/* The number of entries; exact in atomic tables under concurrent insertion. */
size_t HashTable_GetNumElements(const HashTable *ht);

/*
 * *keys becomes a new array of every key (the table's own key pointers),
 * *size its length, in walk order. An empty table gives null and 0. The
 * caller frees the array, not the keys.
 */
void HashTable_KeyArray(const HashTable *ht, const void ***keys, size_t *size);

/* As HashTable_KeyArray, for the values. */
void HashTable_ToArray(const HashTable *ht, void ***values, size_t *size);

/*
 * Calls callback(key, value, clientData) for every entry in walk order and
 * returns the first non-zero result, or 0.
 */
int HashTable_ForEach(const HashTable *ht, HashTableForEachCallback callback,
                      void *clientData);

HALCYX_EXTERN_C_END

#endif /* HALCYX_HASHTABLE_H */
