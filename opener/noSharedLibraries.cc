// SPDX-License-Identifier: MIT
/*
 * The opener loads no shared library, ever: it is a static set-user-ID
 * program, and a dlopen there would map a second C library into a process
 * running as root. These definitions replace the library's dynamic loader
 * (they are linked ahead of it), so optional libraries are simply absent:
 * the code-set layer uses its built-in engine.
 *
 * libcrypto is linked in whole objects, and some of them reach the C
 * library's loader: its module, engine and provider loaders call dlopen,
 * and its socket layer calls the name resolver, which in a static program
 * loads name-service libraries. The opener is linked with --wrap for each
 * of those functions (halcyx_link_static_program), so every call of them
 * reaches the refusing definitions below, fails cleanly and maps nothing,
 * and the C library's versions are not even linked.
 */
#include <dlfcn.h>
#include <netdb.h>

#include "internal/dynload.h"

namespace halcyx {

void *DynLoadOpen(const char *) { return nullptr; }

void *DynLoadSymbol(void *, const char *) { return nullptr; }

void DynLoadClose(void *) {}

}  // namespace halcyx

extern "C" {

void *__wrap_dlopen(const char *, int) { return nullptr; }

void *__wrap_dlsym(void *, const char *) { return nullptr; }

int __wrap_dlclose(void *) { return -1; }

char *__wrap_dlerror() {
   static char refused[] = "this program loads no shared object";
   return refused;
}

int __wrap_dladdr(const void *, Dl_info *) { return 0; }

int __wrap_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **result) {
   *result = nullptr;
   return EAI_FAIL;
}

void __wrap_freeaddrinfo(addrinfo *) {}

int __wrap_getnameinfo(const sockaddr *, socklen_t, char *, socklen_t, char *, socklen_t, int) {
   return EAI_FAIL;
}

const char *__wrap_gai_strerror(int) { return "this program resolves no names"; }

hostent *__wrap_gethostbyname(const char *) {
   h_errno = NO_RECOVERY;
   return nullptr;
}

}  // extern "C"
