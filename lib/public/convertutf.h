// SPDX-License-Identifier: MIT
/*
 * Conversions between UTF-32, UTF-16 and UTF-8, and a UTF-8 sequence check,
 * with the rules of the long-published Unicode, Inc. reference converters.
 *
 * Each function converts from *sourceStart up to sourceEnd into *targetStart
 * up to targetEnd and advances both pointers past what it consumed and
 * produced. Where it stops, the source pointer is at the first unit of the
 * character it stopped on. Results:
 *   - conversionOK      the whole source was converted;
 *   - sourceExhausted   the source ends inside a character: a high
 *                       surrogate as the last UTF-16 unit, or fewer UTF-8
 *                       bytes left than the lead byte announces (judged by
 *                       the lead byte alone, before the bytes are checked);
 *   - targetExhausted   the target cannot hold the whole next character;
 *                       nothing of it is written;
 *   - sourceIllegal     see below.
 * Ill-formed input:
 *   - UTF-8 (shortest form, no surrogates, at most U+10FFFF) is checked in
 *     both modes: an ill-formed sequence stops the call with sourceIllegal.
 *   - An unpaired UTF-16 surrogate, or a surrogate value in UTF-32, stops
 *     strict mode with sourceIllegal. Lenient mode passes it through as its
 *     own value, except UTF-32 to UTF-16, which writes U+FFFD.
 *   - A UTF-32 value above U+10FFFF becomes U+FFFD (to UTF-8 in both modes,
 *     to UTF-16 in lenient mode; strict UTF-32 to UTF-16 drops it); the call
 *     goes on but reports sourceIllegal unless a later character does not
 *     fit.
 */
#ifndef HALCYX_CONVERTUTF_H
#define HALCYX_CONVERTUTF_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

typedef uint32_t UTF32;
typedef uint16_t UTF16;
typedef uint8_t UTF8;

typedef enum {
   conversionOK,
   sourceExhausted,
   targetExhausted,
   sourceIllegal
} ConversionResult;

typedef enum {
   strictConversion = 0,
   lenientConversion
} ConversionFlags;

ConversionResult ConvertUTF8toUTF16(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF16 **targetStart, UTF16 *targetEnd,
                                    ConversionFlags flags);
ConversionResult ConvertUTF16toUTF8(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags);
ConversionResult ConvertUTF8toUTF32(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF32 **targetStart, UTF32 *targetEnd,
                                    ConversionFlags flags);
ConversionResult ConvertUTF32toUTF8(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags);
ConversionResult ConvertUTF16toUTF32(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                     UTF32 **targetStart, UTF32 *targetEnd,
                                     ConversionFlags flags);
ConversionResult ConvertUTF32toUTF16(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                     UTF16 **targetStart, UTF16 *targetEnd,
                                     ConversionFlags flags);

/*
 * True when the UTF-8 sequence that begins at source (as long as its lead
 * byte announces) ends at or before sourceEnd and is well-formed; whatever
 * follows it is not looked at. False for an empty range.
 */
bool isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd);

HALCYX_EXTERN_C_END

#endif /* HALCYX_CONVERTUTF_H */
