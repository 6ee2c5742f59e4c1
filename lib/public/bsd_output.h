// SPDX-License-Identifier: MIT
/*
 * The formatting engine behind Str_*.
 *
 * outbuf points at the buffer pointer. When that pointer is null the engine
 * allocates the output (size is ignored) and stores it there on success;
 * otherwise it writes at most size bytes, terminated, into the caller's
 * buffer. The result is the length the complete output has, whether or not
 * it fitted, or -1 on error (allocation failure, wide-character conversion
 * failure, or a length beyond INT_MAX). Errors never end the process.
 */
#ifndef HALCYX_BSD_OUTPUT_H
#define HALCYX_BSD_OUTPUT_H

#include <wchar.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* Uses the current C locale's decimal point, thousands separator, grouping. */
int bsd_vsnprintf(char **outbuf, size_t size, const char *format, va_list ap);
/* Decimal point ".", thousands separator ",", no grouping. */
int bsd_vsnprintf_c_locale(char **outbuf, size_t size, const char *format,
                           va_list ap);
int bsd_vsnprintf_core(char **outbuf, char *grouping, char thousandsSep,
                       char *decimalPoint, size_t size, const char *format,
                       va_list ap);

/*
 * Converts a 32-bit wide string to a newly allocated UTF-8 string of at most
 * precision bytes (cut at a whole character; -1 for no limit), or null when
 * allocation fails. The conversion is lenient: a surrogate value passes
 * through as its three bytes, a value above U+10FFFF becomes U+FFFD. The
 * result ends with four zero bytes.
 */
char *BSDFmt_WCharToUTF8(const wchar_t *wideString, int precision);

HALCYX_EXTERN_C_END

#endif /* HALCYX_BSD_OUTPUT_H */
