// SPDX-License-Identifier: MIT
/*
 * Fatal consistency checks.
 *
 * Each ends the process through Panic with the module's source path and a
 * line, in the system's fixed forms "VERIFY %s:%d \n",
 * "NOT_IMPLEMENTED %s:%d \n" and "NOT_REACHED %s:%d \n". The path is the
 * module's ("lib/string/str"), not the compiler's file name.
 */
#ifndef HALCYX_INTERNAL_FATAL_H
#define HALCYX_INTERNAL_FATAL_H

#include "log.h"

namespace halcyx {

[[noreturn]] inline void PanicVerify(const char *path, int line) {
   Panic("VERIFY %s:%d \n", path, line);
}

[[noreturn]] inline void PanicNotImplemented(const char *path, int line) {
   Panic("NOT_IMPLEMENTED %s:%d \n", path, line);
}

[[noreturn]] inline void PanicNotReached(const char *path, int line) {
   Panic("NOT_REACHED %s:%d \n", path, line);
}

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_FATAL_H
