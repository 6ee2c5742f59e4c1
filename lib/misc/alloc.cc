// SPDX-License-Identifier: MIT
#include "internal/alloc.h"

#include <cstdlib>

namespace halcyx {

AllocHooks gAllocHooks = {
   [](size_t size) { return ::malloc(size); },
   [](size_t nmemb, size_t size) { return ::calloc(nmemb, size); },
   [](void *ptr, size_t size) { return ::realloc(ptr, size); },
};

}  // namespace halcyx
