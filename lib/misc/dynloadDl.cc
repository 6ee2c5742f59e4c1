// SPDX-License-Identifier: MIT
/*
 * The dynamic loader behind DynLoad. Kept in its own object so that a
 * program can replace these three functions (see lib/internal/dynload.h).
 */
#include <dlfcn.h>

#include "internal/dynload.h"

namespace halcyx {

void *DynLoadOpen(const char *soname) {
   // RTLD_LOCAL: the library's names never interpose on the program's.
   return dlopen(soname, RTLD_NOW | RTLD_LOCAL);
}

void *DynLoadSymbol(void *handle, const char *name) { return dlsym(handle, name); }

void DynLoadClose(void *handle) { dlclose(handle); }

}  // namespace halcyx
