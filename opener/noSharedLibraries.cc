/*
 * The opener loads no shared library, ever: it is a static set-user-ID
 * program, and a dlopen there would map a second C library into a process
 * running as root. These definitions replace the library's dynamic loader
 * (they are linked ahead of it), so optional libraries are simply absent:
 * the code-set layer uses its built-in engine.
 */
#include "internal/dynload.h"

namespace halcyx {

void *DynLoadOpen(const char *) { return nullptr; }

void *DynLoadSymbol(void *, const char *) { return nullptr; }

void DynLoadClose(void *) {}

}  // namespace halcyx
