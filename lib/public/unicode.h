// SPDX-License-Identifier: MIT
/*
 * Unicode strings: the system's string type and its encodings.
 *
 * A string is a NUL-terminated UTF-8 byte string on the heap, owned by
 * whoever received it and released with free(). A null pointer means "no
 * string" and most operations pass it through. Text enters and leaves this
 * form only here: buffers in other encodings are converted by the code-set
 * layer (codeset.h), and encodings are named by a signed 32-bit enumerator
 * (the constants below, and further values from the encoding table up to
 * 323).
 *
 * Lengths of buffers count bytes, ranges count code points. A length of -1
 * measures a buffer to its terminator, whose width follows the encoding: a
 * 16-bit zero for UTF-16, a 32-bit zero for UTF-32, one byte otherwise.
 *
 * Conversions the caller relies on (Unicode_AllocWithLength, Unicode_AllocList)
 * end the process through Panic when the input cannot be converted; those
 * whose result may be absent return null.
 *
 *    char *name = Unicode_AllocWithLength(bytes, -1, UNICODE_ENCODING_DEFAULT);
 *    uint16_t *wide = Unicode_GetAllocBytes(name, UNICODE_ENCODING_UTF16_LE);
 *    free(wide);
 *    free(name);
 */
#ifndef HALCYX_UNICODE_H
#define HALCYX_UNICODE_H

#include <sys/types.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

#define UNICODE_ENCODING_DEFAULT (-1)  /* the current code set of the process */
#define UNICODE_ENCODING_UNKNOWN (-2)
#define UNICODE_ENCODING_UTF8 0
#define UNICODE_ENCODING_UTF16_LE 1
#define UNICODE_ENCODING_UTF16_BE 2
#define UNICODE_ENCODING_UTF16_XE 3    /* host byte order */
#define UNICODE_ENCODING_UTF32_LE 4
#define UNICODE_ENCODING_UTF32_BE 5
#define UNICODE_ENCODING_UTF32_XE 6    /* host byte order */
#define UNICODE_ENCODING_US_ASCII 7
#define UNICODE_ENCODING_ISO_8859_1 8
#define UNICODE_ENCODING_WINDOWS_1252 35
#define UNICODE_ENCODING_LIMIT 324     /* valid enumerators are below this */

/* ---- Initialisation ---------------------------------------------------- */

/*
 * One-time initialisation of the string layer and the code-set layer,
 * idempotent and safe to race. The arguments and environment are accepted
 * as given: the current code set is UTF-8, so they need no conversion.
 * A code-set layer that cannot be initialised ends the process.
 */
void Unicode_Init(int argc, char ***argv, char ***envp);
/*
 * As Unicode_Init for a program whose arguments arrive as UTF-16 arrays:
 * when argv (envp) is not null it receives a new array of strings converted
 * from wargv (wenvp); argc counts wargv, wenvp ends at its first null.
 */
void Unicode_InitW(int argc, uint16_t **wargv, uint16_t **wenvp, char ***argv, char ***envp);
/* As Unicode_Init, with the ICU data directory to search. */
void Unicode_InitEx(int argc, char ***argv, char ***envp, const char *icuDataDir);
/*
 * Frees the encoding-name cache; a later lookup creates it again. Not to be
 * called while another thread may look a name up.
 */
void Unicode_Shutdown(void);

/* ---- Allocation and conversion ---------------------------------------- */

/*
 * A new string from lengthInBytes bytes of buffer in encoding (-1 for the
 * default). Null buffer gives null. Input that cannot be converted ends the
 * process.
 */
char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, int32_t encoding);
/*
 * Each element of srcArray converted by Unicode_AllocWithLength (length -1)
 * into a new null-terminated array. A negative length means srcArray ends
 * at its first null element.
 */
char **Unicode_AllocList(char **srcArray, ssize_t length, int32_t encoding);
/*
 * Each string of srcArray converted by Unicode_GetAllocBytes into a new
 * null-terminated array; null (and nothing kept) as soon as one non-null
 * element cannot be converted. A negative length as above.
 */
char **Unicode_GetAllocList(char *const *srcArray, ssize_t length, int32_t encoding);
/*
 * str in encoding as a new buffer terminated as the encoding's units are,
 * or null when str is null or cannot be represented. The "WithLength" form
 * converts only the first lengthInBytes bytes (-1: all).
 */
void *Unicode_GetAllocBytes(const char *str, int32_t encoding);
void *Unicode_GetAllocBytesWithLength(const char *str, int32_t encoding, ssize_t lengthInBytes);
/* True when Unicode_GetAllocBytes would succeed (and for null). */
bool Unicode_CanGetBytesWithEncoding(const char *str, int32_t encoding);
/* A copy of str (null gives null); allocation failure is fatal. */
char *Unicode_Duplicate(const char *str);

/* ---- Validation and measures ------------------------------------------- */

/* True when the buffer is valid in encoding; a null buffer is valid. */
bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, int32_t encoding);
bool Unicode_IsStringValidUTF8(const char *str);
/* Bytes before the terminator of encoding's unit width. */
ssize_t Unicode_LengthInBytes(const void *buffer, int32_t encoding);
/* 16-bit units before a 16-bit zero. */
ssize_t Unicode_UTF16Strlen(const uint16_t *utf16);
/* A copy including the terminator; null gives null; failure is fatal. */
uint16_t *Unicode_UTF16Strdup(const uint16_t *utf16);
/* Code points in str (-1 when it is not valid UTF-8). */
ssize_t Unicode_LengthInCodePoints(const char *str);
/*
 * A new printable copy of the buffer: bytes 0x00-0x1F, 0x5C ('\\'), 0x7F
 * and 0x80-0xFF become "\\x" and two upper-case hexadecimal digits.
 * Null when buffer is null or on allocation failure.
 */
char *Unicode_EscapeBuffer(const void *buffer, ssize_t lengthInBytes, int32_t encoding);

/* ---- Encoding names ------------------------------------------------------ */

/* The enumerator for an encoding name (or alias), or -2 with a log line. */
int32_t Unicode_EncodingNameToEnum(const char *encodingName);
/* The preferred name of an enumerator (-1: the default); unknown is fatal. */
const char *Unicode_EncodingEnumToName(int32_t encoding);
/* -1 becomes the default encoding; every other value is returned as is. */
int32_t Unicode_ResolveEncoding(int32_t encoding);
int32_t Unicode_GetCurrentEncoding(void);
bool Unicode_IsEncodingValid(int32_t encoding);

/* ---- Operations ---------------------------------------------------------- */

/*
 * Starts and lengths count code points; a negative length means to the end.
 * Unicode_CompareRange returns -1, 0 or 1 (-1 also when a range or a
 * conversion fails); the find functions return a code-point index into str1
 * or -1.
 */
int Unicode_CompareRange(const char *str1, ssize_t start1, ssize_t length1, const char *str2,
                         ssize_t start2, ssize_t length2, bool ignoreCase);
char *Unicode_Substr(const char *str, ssize_t start, ssize_t length);
ssize_t Unicode_FindSubstrInRange(const char *str1, ssize_t start1, ssize_t length1,
                                  const char *str2, ssize_t start2, ssize_t length2);
ssize_t Unicode_FindLastSubstrInRange(const char *str1, ssize_t start1, ssize_t length1,
                                      const char *str2, ssize_t start2, ssize_t length2);
char *Unicode_ReplaceRange(const char *destination, ssize_t destinationStart,
                           ssize_t destinationLength, const char *source, ssize_t sourceStart,
                           ssize_t sourceLength);
/* Concatenation of its arguments up to the first null; null first gives null. */
char *Unicode_Join(const char *first, ...);
/* A new string formatted by the formatting engine, or null on failure. */
char *Unicode_Format(const char *fmt, ...);
/*
 * A string from a 7-bit source literal; with unescape, "\\uXXXX",
 * "\\UXXXXXXXX" and "\\c" escapes are decoded.
 */
char *UnicodeAllocStatic(const char *asciiBytes, bool unescape);

HALCYX_EXTERN_C_END

#endif /* HALCYX_UNICODE_H */
