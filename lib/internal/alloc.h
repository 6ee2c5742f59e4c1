// SPDX-License-Identifier: MIT
/*
 * The library's allocation seam.
 *
 * Library code that must react to allocation failure (the safe wrappers,
 * buffers, tables, the formatting engine) allocates through these calls
 * rather than through the C library directly, so that tests can make any
 * allocation fail on demand. In production the hooks are the C library's
 * own functions and cost one indirect call.
 *
 * Memory obtained here is released with free().
 */
#ifndef HALCYX_INTERNAL_ALLOC_H
#define HALCYX_INTERNAL_ALLOC_H

#include <cstddef>

namespace halcyx {

struct AllocHooks {
   void *(*malloc)(size_t size);
   void *(*calloc)(size_t nmemb, size_t size);
   void *(*realloc)(void *ptr, size_t size);
};

// Set only by tests, and only while no other thread allocates.
extern AllocHooks gAllocHooks;

inline void *Malloc(size_t size) { return gAllocHooks.malloc(size); }
inline void *Calloc(size_t nmemb, size_t size) { return gAllocHooks.calloc(nmemb, size); }
inline void *Realloc(void *ptr, size_t size) { return gAllocHooks.realloc(ptr, size); }

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_ALLOC_H
