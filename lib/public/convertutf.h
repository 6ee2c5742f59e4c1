/*
 * Conversions between UTF-32, UTF-16 and UTF-8, and a UTF-8 sequence check.
 *
 * Each function converts from *sourceStart up to sourceEnd into *targetStart
 * up to targetEnd and advances both pointers past what it consumed and
 * produced. It stops with
 *   - conversionOK      when the whole source was converted;
 *   - sourceExhausted   when the source ends inside a character (for example
 *                       a high surrogate or a cut UTF-8 sequence at the end);
 *   - targetExhausted   when the target cannot hold the whole next character;
 *                       the pointers then stay before that character;
 *   - sourceIllegal     in strict mode, on an unpaired surrogate, a value
 *                       above U+10FFFF or an ill-formed UTF-8 sequence; the
 *                       source pointer stays at the offending unit.
 * In lenient mode an out-of-range or unpaired value becomes U+FFFD instead,
 * and conversion goes on, so lenient mode never reports sourceIllegal. Each
 * maximal ill-formed part of UTF-8 input (the longest prefix of a well-formed
 * sequence, or a single byte) becomes one U+FFFD.
 * Only a proper prefix of a well-formed character counts as cut by the end of
 * the source: bytes that can no longer become well-formed are ill-formed even
 * at the end. Well-formed means a Unicode scalar value (U+0000..U+10FFFF minus
 * the surrogates) in its shortest form.
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
 * True when the UTF-8 sequence that begins at source is well-formed and ends
 * at or before sourceEnd; whatever follows it is not looked at. False for an
 * empty range.
 */
bool isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd);

HALCYX_EXTERN_C_END

#endif /* HALCYX_CONVERTUTF_H */
