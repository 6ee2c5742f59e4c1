// SPDX-License-Identifier: MIT
/*
 * Lazy loading of optional shared libraries (ICU, libcrypto).
 *
 * The opener starts once per request, so nothing it may not need is mapped
 * at start-up: a module that wants such a library describes the entry points
 * it calls in a table of slots and loads them on first use. Loading happens
 * at most once per table, is safe to race, and either fills every slot or
 * none (a half-loaded table would crash later instead of failing now).
 */
#ifndef HALCYX_INTERNAL_DYNLOAD_H
#define HALCYX_INTERNAL_DYNLOAD_H

#include <cstddef>

namespace halcyx {

struct DynSymbol {
   const char *name;  // without any version suffix
   void **slot;       // receives the address
};

struct DynLibrary {
   // Tried in order; the first that loads is used. Each entry is a file name
   // for dlopen ("libicuuc.so.72"); the system's search path applies (in a
   // set-user-ID process glibc ignores LD_LIBRARY_PATH).
   const char *const *sonames;
   size_t numSonames;
   const DynSymbol *symbols;
   size_t numSymbols;
   // Appended to every symbol name when set, for libraries that version their
   // exported names ("_72"); "%s" in it is replaced by the version digits that
   // follow ".so." in the soname that loaded.
   const char *suffixFormat;
};

/*
 * Loads lib once for the process. Returns true when every symbol resolved;
 * false (and every slot left null) when no soname loads, a symbol is
 * missing, or the program refuses shared libraries. Later calls return the first call's answer without work.
 * `state` is the caller's static storage for this library, zero-initialised.
 */
struct DynLoadState {
   int once;       // internal: 0 not tried, 1 in progress, 2 done
   bool loaded;    // internal: the answer
};

bool DynLoad(const DynLibrary &lib, DynLoadState *state);

/*
 * The platform's loader, one function each, with dlopen/dlsym/dlclose's
 * contracts. The library's own definitions use the dynamic loader. A
 * program that must never load a shared library (the opener, a static
 * set-user-ID program) links its own definitions that refuse, ahead of the
 * library, and so never links the dynamic ones.
 */
void *DynLoadOpen(const char *soname);
void *DynLoadSymbol(void *handle, const char *name);
void DynLoadClose(void *handle);

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_DYNLOAD_H
