// SPDX-License-Identifier: MIT
/*
 * Formatted output and bounded string helpers.
 *
 * Every message, path and log line of the system is built here. Output is
 * UTF-8: wide strings are converted, and truncation into a caller's buffer
 * never leaves a broken UTF-8 sequence at its end. Beyond the usual printf
 * conversions the engine accepts the "I", "I32" and "I64" size prefixes,
 * prints "%p" in upper-case hexadecimal without a prefix, and prints an
 * unknown conversion character as itself.
 *
 * The bounded copy helpers treat an overflow as a programming error and
 * end the process through Panic with "<path>:<line> Buffer too small".
 */
#ifndef HALCYX_STR_H
#define HALCYX_STR_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/*
 * The length written when the whole output fitted (length < size), -1
 * otherwise (truncated, size 0 or engine error). With size >= 1 the buffer
 * is always terminated, and on truncation it is cut back to a UTF-8
 * sequence boundary. A null buf is -1, and nothing is allocated.
 */
int Str_Vsnprintf(char *buf, size_t size, const char *format, va_list ap);
int Str_Snprintf(char *buf, size_t size, const char *format, ...)
   HALCYX_PRINTF(3, 4);

/* Like Str_Snprintf, but truncation or an engine error is fatal. */
int Str_Sprintf(char *buf, size_t maxSize, const char *format, ...)
   HALCYX_PRINTF(3, 4);
/* Str_Sprintf with "." as decimal point and no digit grouping. */
int Str_Sprintf_C_Locale(char *buf, size_t maxSize, const char *format, ...)
   HALCYX_PRINTF(3, 4);

/*
 * A newly allocated string (the caller frees it), or null on failure. On
 * success its length is stored through length when that is not null; on
 * failure length is left untouched.
 */
char *Str_Asprintf(size_t *length, const char *format, ...) HALCYX_PRINTF(2, 3);
char *Str_Vasprintf(size_t *length, const char *format, va_list ap);
/* As above, but any failure is fatal: never returns null. */
char *Str_SafeAsprintf(size_t *length, const char *format, ...)
   HALCYX_PRINTF(2, 3);
char *Str_SafeVasprintf(size_t *length, const char *format, va_list ap);

/* Copies src with its terminator; fatal when strlen(src) >= maxSize. */
char *Str_Strcpy(char *dst, const char *src, size_t maxSize);
/*
 * Copies at most n bytes of src (stopping at its terminator) and always
 * terminates dst; fatal when that length is >= dstSize.
 */
char *Str_Strncpy(char *dst, size_t dstSize, const char *src, size_t n);
/* Offset of the first NUL within maxLen bytes of s, or maxLen. */
size_t Str_Strlen(const char *s, size_t maxLen);
/*
 * First occurrence of sub within the first n bytes of src (stopping at
 * src's terminator), or null. An empty sub yields src.
 */
char *Str_Strnstr(const char *src, const char *sub, size_t n);
/* Appends src to buf; fatal when the result would not fit in maxSize. */
char *Str_Strcat(char *buf, const char *src, size_t maxSize);
/*
 * Appends at most n bytes of src to buf; fatal exactly when the bytes really
 * appended plus the terminator do not fit in bufSize.
 */
char *Str_Strncat(char *buf, size_t bufSize, const char *src, size_t n);
/* Change ASCII letters in place; every other byte is left alone. */
char *Str_ToLower(char *s);
char *Str_ToUpper(char *s);

HALCYX_EXTERN_C_END

#endif /* HALCYX_STR_H */
