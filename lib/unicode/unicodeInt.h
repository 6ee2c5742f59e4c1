// SPDX-License-Identifier: MIT
/*
 * Inside the string layer: the conversion primitives that the public
 * functions of lib/public/unicode.h are built on.
 */
#ifndef HALCYX_UNICODE_UNICODEINT_H
#define HALCYX_UNICODE_UNICODEINT_H

#include <cstddef>
#include <sys/types.h>

#include "unicode.h"

/*
 * lengthInBytes bytes of buffer (already measured, never -1) in a resolved
 * encoding, as a new string, or null. Strict: the input must be valid and
 * is never altered. Not strict: bad input is substituted.
 */
char *UnicodeAllocInternal(const void *buffer, ssize_t lengthInBytes, int32_t encoding,
                           bool strict);
/*
 * The first length bytes of str (-1: all) in encoding as a new buffer with
 * a terminator of the encoding's unit width, or null. Its length in bytes
 * without the terminator goes to *resultLength when that is not null.
 */
void *UnicodeGetAllocBytesInternal(const char *str, int32_t encoding, ssize_t length,
                                   size_t *resultLength);
/* False only for US-ASCII with a byte >= 0x80 within the length. */
bool UnicodeSanityCheck(const void *buffer, ssize_t lengthInBytes, int32_t encoding);

#endif  // HALCYX_UNICODE_UNICODEINT_H
