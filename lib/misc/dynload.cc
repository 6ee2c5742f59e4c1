// SPDX-License-Identifier: MIT
/*
 * Lazy loading of optional shared libraries; see lib/internal/dynload.h.
 */
#include "internal/dynload.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <sched.h>

namespace halcyx {

namespace {

// The version digits after ".so." in soname ("libicuuc.so.72" gives "72").
const char *SonameVersion(const char *soname) {
   const char *so = std::strstr(soname, ".so.");
   return so == nullptr ? "" : so + 4;
}

bool ResolveAll(const DynLibrary &lib, void *handle, const char *soname) {
   char suffix[32] = "";
   if (lib.suffixFormat != nullptr) {
      // The format is the caller's constant with at most one "%s".
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
      std::snprintf(suffix, sizeof suffix, lib.suffixFormat, SonameVersion(soname));
#pragma GCC diagnostic pop
   }
   char name[128];
   for (size_t i = 0; i < lib.numSymbols; i++) {
      int n = std::snprintf(name, sizeof name, "%s%s", lib.symbols[i].name, suffix);
      void *address = n > 0 && static_cast<size_t>(n) < sizeof name ? DynLoadSymbol(handle, name) : nullptr;
      if (address == nullptr) {
         for (size_t j = 0; j < i; j++) {
            *lib.symbols[j].slot = nullptr;
         }
         return false;
      }
      *lib.symbols[i].slot = address;
   }
   return true;
}

bool LoadNow(const DynLibrary &lib) {
   for (size_t i = 0; i < lib.numSonames; i++) {
      void *handle = DynLoadOpen(lib.sonames[i]);
      if (handle == nullptr) {
         continue;
      }
      if (ResolveAll(lib, handle, lib.sonames[i])) {
         return true;  // kept loaded for the life of the process
      }
      DynLoadClose(handle);
   }
   return false;
}

}  // namespace

bool DynLoad(const DynLibrary &lib, DynLoadState *state) {
   std::atomic_ref<int> once(state->once);
   if (once.load(std::memory_order_acquire) == 2) {
      return state->loaded;
   }
   int expected = 0;
   if (once.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
      state->loaded = LoadNow(lib);
      once.store(2, std::memory_order_release);
      return state->loaded;
   }
   while (once.load(std::memory_order_acquire) != 2) {
      sched_yield();
   }
   return state->loaded;
}

}  // namespace halcyx
