// SPDX-License-Identifier: MIT
/*
 * Code-set conversion and UTF-8 validation.
 *
 * Converts byte buffers between character sets named as ICU names them
 * ("UTF-8", "UTF-16LE", "ISO-8859-1", ...). Two engines do the work: ICU,
 * loaded on first use and chosen by CodeSet_Init only when its data file
 * "icudt44l.dat" is present in the ICU data directory, and a built-in engine
 * that converts among UTF-8, UTF-16LE, UTF-16BE and US-ASCII. Every public
 * conversion asks which engine is active and forwards to it; a pair that the
 * built-in engine does not know simply fails.
 *
 * Conventions:
 *   - The plain forms return a new buffer (the caller frees it) terminated by
 *     4 zero bytes, so it is terminated for 8-, 16- and 32-bit units alike,
 *     and store its length without those 4 bytes in *sizeOut when sizeOut is
 *     not null. On failure they return false and leave *bufOut untouched.
 *   - The "Db" forms append to a DynBuf; on failure its size and contents
 *     are as they were (its allocation may have grown), whichever engine
 *     converted.
 *   - flags: CODESET_FLAG_STOP fails at the first invalid or unmappable
 *     sequence, CODESET_FLAG_SUBSTITUTE replaces it with the converter's
 *     substitution character, CODESET_FLAG_SKIP drops it. Any other value
 *     ends the process.
 *   - On this platform the current code set is always "UTF-8".
 *
 *    char *utf16;
 *    size_t n;
 *    if (CodeSet_Utf8ToUtf16le("h\xC3\xA9", 3, &utf16, &n)) {   // n == 4
 *       ...
 *       free(utf16);
 *    }
 */
#ifndef HALCYX_CODESET_H
#define HALCYX_CODESET_H

#include "dynbuf.h"
#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

#define CODESET_FLAG_STOP 0u
#define CODESET_FLAG_SUBSTITUTE 1u
#define CODESET_FLAG_SKIP 2u

/*
 * Chooses the engine: ICU when "<dir>/icudt44l.dat" exists and is not a
 * directory, the built-in engine otherwise. dir is icuDataDir when given,
 * else the product location's "icuDir" (no answer: built-in engine). Does
 * not load ICU. Always returns true.
 */
bool CodeSet_Init(const char *icuDataDir);
/* Forces the built-in engine from now on. */
void CodeSet_DontUseIcu(void);
/* "UTF-8". */
const char *CodeSet_GetCurrentCodeSet(void);

/* An empty or null input succeeds and appends nothing. */
bool CodeSet_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut, unsigned int flags, DynBuf *db);
bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned int flags, char **bufOut,
                              size_t *sizeOut);

/* Fixed pairs; all stop at the first invalid sequence. */
bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut);
bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut);
bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut);
/*
 * UTF-8 into the current code set. With ICU active this is a copy of the
 * bytes with one terminator (a size of (size_t)-1 is refused); the built-in
 * engine validates them.
 */
bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/*
 * Composes decomposed UTF-8 (normalisation form C). Loads ICU whichever
 * engine is active; false when the input is not valid UTF-8 or ICU is not
 * available.
 */
bool CodeSet_Utf8FormDToUtf8FormC(const char *bufIn, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);

/* True when ICU can open a converter for name (loads ICU). */
bool CodeSet_IsEncodingSupported(const char *name);
/*
 * True when size is 0 or every byte of buf is valid in the character set
 * code, as ICU decodes it. size >= 2^31, or a converter that cannot be
 * opened, ends the process.
 */
bool CodeSet_Validate(const char *buf, size_t size, const char *code);

/*
 * Well-formed UTF-8: shortest forms of U+0000..U+10FFFF without surrogates,
 * no sequence cut short at the end. NUL bytes are allowed, except by
 * CodeSet_IsValidUTF8String. A null buf is valid only with size 0.
 */
bool CodeSet_IsValidUTF8(const char *buf, size_t size);
bool CodeSet_IsStringValidUTF8(const char *string);
bool CodeSet_IsValidUTF8String(const char *buf, size_t size);

/* Code points of a NUL-terminated string, or -1 when it is not valid UTF-8. */
int CodeSet_LengthInCodePoints(const char *utf8);
/*
 * Decodes the sequence at string (never reading at or past end) into
 * *uchar when uchar is not null. Returns its length in bytes, or 0 when it
 * is not well-formed or is cut by end.
 */
int CodeSet_GetUtf8(const char *string, const char *end, uint32_t *uchar);
/*
 * A NUL-terminated string to a new array of code points ended by a 0 code
 * point (*utf32, the caller frees it), and back. False on invalid input
 * (for the second: a surrogate or a value above 0x10FFFF); *result is then
 * untouched. A null string gives true and a null result.
 */
bool CodeSet_UTF8ToUTF32(const char *utf8, char **utf32);
bool CodeSet_UTF32ToUTF8(const char *utf32, char **utf8);

HALCYX_EXTERN_C_END

#endif /* HALCYX_CODESET_H */
