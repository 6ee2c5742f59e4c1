// SPDX-License-Identifier: MIT
/*
 * Safe allocation wrappers and memory helpers.
 *
 * The safe wrappers never return a null pointer for a non-empty request:
 * allocation failure ends the process through Panic. The "0" forms take no
 * source position; the "1" forms take a bug number (-1 for none), a source
 * file name and a line number, which the fatal message names. Callers use
 * the Util_Safe* macros, which fill in their own position.
 */
#ifndef HALCYX_UTIL_H
#define HALCYX_UTIL_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* malloc(size); size 0 may return null without a panic. */
void *UtilSafeMalloc0(size_t size);
void *UtilSafeMalloc1(size_t size, int bugNumber, const char *file, int lineno);

/* realloc(ptr, size); a null result for a non-zero size is fatal. */
void *UtilSafeRealloc0(void *ptr, size_t size);
void *UtilSafeRealloc1(void *ptr, size_t size, int bugNumber,
                       const char *file, int lineno);

/* calloc(nmemb, size); null when neither count nor size is 0 is fatal. */
void *UtilSafeCalloc0(size_t nmemb, size_t size);
void *UtilSafeCalloc1(size_t nmemb, size_t size, int bugNumber,
                      const char *file, int lineno);

/* strdup; null in, null out. */
char *UtilSafeStrdup0(const char *s);
char *UtilSafeStrdup1(const char *s, int bugNumber, const char *file, int lineno);

/*
 * Copies s up to its first NUL within n bytes (n bytes when there is none)
 * and terminates the copy; null in, null out. n = SIZE_MAX is fatal.
 */
char *UtilSafeStrndup0(const char *s, size_t n);
char *UtilSafeStrndup1(const char *s, size_t n, int bugNumber,
                       const char *file, int lineno);

/* A copy of size bytes of src; null for size 0 or a failed allocation. */
void *Util_Memdup(const void *src, size_t size);

/*
 * memcpy that moves 8-byte words when both pointers and the size are
 * multiples of 8, 4-byte words when they are multiples of 4. Returns dest.
 */
void *Util_Memcpy(void *dest, const void *src, size_t count);

/* free(ptr). */
void Util_Memfree(void *ptr);

#define Util_SafeMalloc(size) UtilSafeMalloc1((size), -1, __FILE__, __LINE__)
#define Util_SafeRealloc(ptr, size) \
   UtilSafeRealloc1((ptr), (size), -1, __FILE__, __LINE__)
#define Util_SafeCalloc(nmemb, size) \
   UtilSafeCalloc1((nmemb), (size), -1, __FILE__, __LINE__)
#define Util_SafeStrdup(s) UtilSafeStrdup1((s), -1, __FILE__, __LINE__)
#define Util_SafeStrndup(s, n) UtilSafeStrndup1((s), (n), -1, __FILE__, __LINE__)

HALCYX_EXTERN_C_END

#endif /* HALCYX_UTIL_H */
