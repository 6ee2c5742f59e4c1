// SPDX-License-Identifier: MIT
/*
 * Common definitions of the library's public headers.
 *
 * Every public header is plain C and can be included from C or C++; the
 * functions they declare have C linkage, so any program of the product can
 * link the static library whatever language it is written in.
 */
#ifndef HALCYX_BASE_H
#define HALCYX_BASE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
#define HALCYX_EXTERN_C_BEGIN extern "C" {
#define HALCYX_EXTERN_C_END }
#else
#define HALCYX_EXTERN_C_BEGIN
#define HALCYX_EXTERN_C_END
#endif

/* printf-style format checking for the caller's literal formats. */
#define HALCYX_PRINTF(fmtIndex, firstArg) \
   __attribute__((format(printf, fmtIndex, firstArg)))
#define HALCYX_NORETURN __attribute__((noreturn))

#endif /* HALCYX_BASE_H */
