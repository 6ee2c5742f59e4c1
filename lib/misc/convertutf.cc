// SPDX-License-Identifier: MIT
/*
 * Conversions between UTF-32, UTF-16 and UTF-8.
 *
 * These keep the outcomes of the long-published Unicode, Inc. reference
 * converters rule for rule, quirks included (the header lists them). The
 * directions that read UTF-8 or UTF-16 share one loop over "read one
 * character, write it whole"; the two that read UTF-32 keep their own
 * loops, because they go on past a value above U+10FFFF and report it at
 * the end, and UTF-32 to UTF-16 checks for room before it reads.
 */
#include "convertutf.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr UTF32 kReplacementChar = 0xFFFD;
constexpr UTF32 kMaxBmp = 0xFFFF;
constexpr UTF32 kMaxLegal = 0x10FFFF;
constexpr UTF32 kHighSurrogateFirst = 0xD800;
constexpr UTF32 kHighSurrogateLast = 0xDBFF;
constexpr UTF32 kLowSurrogateFirst = 0xDC00;
constexpr UTF32 kLowSurrogateLast = 0xDFFF;
constexpr UTF32 kHalfBase = 0x10000;

constexpr bool IsHighSurrogate(UTF32 c) {
   return c >= kHighSurrogateFirst && c <= kHighSurrogateLast;
}

constexpr bool IsLowSurrogate(UTF32 c) {
   return c >= kLowSurrogateFirst && c <= kLowSurrogateLast;
}

constexpr bool IsSurrogate(UTF32 c) {
   return c >= kHighSurrogateFirst && c <= kLowSurrogateLast;
}

// Bytes that follow a lead byte, by its high bits alone (00..BF: none,
// C0..DF: 1, E0..EF: 2, F0..F7: 3, F8..FB: 4, FC..FF: 5).
constexpr unsigned TrailingBytes(UTF8 lead) {
   return lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : lead < 0xF8 ? 3 : lead < 0xFC ? 4 : 5;
}

/*
 * True when the length bytes at s form a well-formed sequence. Lengths
 * above 4 never do. The second byte's range is narrowed after E0 (overlong),
 * ED (surrogates), F0 (overlong) and F4 (above U+10FFFF); lone continuation
 * bytes, C0, C1 and leads above F4 are refused.
 */
bool IsLegalUtf8(const UTF8 *s, unsigned length) {
   if (length > 4) {
      return false;
   }
   for (unsigned i = 2; i < length; i++) {
      if (s[i] < 0x80 || s[i] > 0xBF) {
         return false;
      }
   }
   if (length >= 2) {
      UTF8 second = s[1];
      UTF8 low = s[0] == 0xE0 ? 0xA0 : s[0] == 0xF0 ? 0x90 : 0x80;
      UTF8 high = s[0] == 0xED ? 0x9F : s[0] == 0xF4 ? 0x8F : 0xBF;
      if (second < low || second > high) {
         return false;
      }
   }
   return !(s[0] >= 0x80 && s[0] < 0xC2) && s[0] <= 0xF4;
}

// The value of a well-formed sequence of the given length.
UTF32 DecodeUtf8(const UTF8 *s, unsigned length) {
   static constexpr UTF8 kLeadPayload[5] = {0, 0x7F, 0x1F, 0x0F, 0x07};
   UTF32 c = s[0] & kLeadPayload[length];
   for (unsigned i = 1; i < length; i++) {
      c = (c << 6) | (s[i] & 0x3F);
   }
   return c;
}

/*
 * Writes c (at most U+10FFFF, surrogates included) as UTF-8 when it fits
 * before targetEnd; a larger value is written as U+FFFD. False, with
 * nothing written, when it does not fit.
 */
bool EncodeUtf8(UTF32 c, UTF8 *&target, const UTF8 *targetEnd) {
   static constexpr UTF8 kLeadMarker[5] = {0, 0x00, 0xC0, 0xE0, 0xF0};
   if (c > kMaxLegal) {
      c = kReplacementChar;
   }
   unsigned length = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
   if (targetEnd - target < static_cast<ptrdiff_t>(length)) {
      return false;
   }
   for (unsigned i = length - 1; i > 0; i--) {
      target[i] = static_cast<UTF8>(0x80 | (c & 0x3F));
      c >>= 6;
   }
   target[0] = static_cast<UTF8>(kLeadMarker[length] | c);
   target += length;
   return true;
}

// Writes a supplementary-plane value as a surrogate pair.
void EncodePair(UTF32 c, UTF16 *&target) {
   c -= kHalfBase;
   *target++ = static_cast<UTF16>(kHighSurrogateFirst + (c >> 10));
   *target++ = static_cast<UTF16>(kLowSurrogateFirst + (c & 0x3FF));
}

/*
 * Reads one UTF-16 character. A high surrogate followed by a low one gives
 * the pair's value; an unpaired surrogate is sourceIllegal in strict mode
 * and its own value in lenient mode; a high surrogate as the last unit is
 * sourceExhausted. On success source moves past the character.
 */
ConversionResult ReadUtf16(const UTF16 *&source, const UTF16 *sourceEnd, ConversionFlags flags,
                           UTF32 &c) {
   c = source[0];
   size_t units = 1;
   if (IsHighSurrogate(c)) {
      if (sourceEnd - source < 2) {
         return sourceExhausted;
      }
      if (IsLowSurrogate(source[1])) {
         c = ((c - kHighSurrogateFirst) << 10) + (source[1] - kLowSurrogateFirst) + kHalfBase;
         units = 2;
      } else if (flags == strictConversion) {
         return sourceIllegal;
      }
   } else if (IsLowSurrogate(c) && flags == strictConversion) {
      return sourceIllegal;
   }
   source += units;
   return conversionOK;
}

/*
 * Reads one UTF-8 character: sourceExhausted when the source ends before
 * the length its lead byte promises, sourceIllegal when the sequence is
 * ill-formed (both modes). On success source moves past the character.
 */
ConversionResult ReadUtf8(const UTF8 *&source, const UTF8 *sourceEnd, UTF32 &c) {
   unsigned length = TrailingBytes(source[0]) + 1;
   if (sourceEnd - source < static_cast<ptrdiff_t>(length)) {
      return sourceExhausted;
   }
   if (!IsLegalUtf8(source, length)) {
      return sourceIllegal;
   }
   c = DecodeUtf8(source, length);
   source += length;
   return conversionOK;
}

// Writes a scalar value as one UTF-16 unit or a pair, if it fits.
bool WriteUtf16(UTF32 c, UTF16 *&target, const UTF16 *targetEnd) {
   if (targetEnd - target < (c > kMaxBmp ? 2 : 1)) {
      return false;
   }
   if (c > kMaxBmp) {
      EncodePair(c, target);
   } else {
      *target++ = static_cast<UTF16>(c);
   }
   return true;
}

bool WriteUtf32(UTF32 c, UTF32 *&target, const UTF32 *targetEnd) {
   if (target >= targetEnd) {
      return false;
   }
   *target++ = c;
   return true;
}

/*
 * The loop of the directions that read UTF-8 or UTF-16: read one character
 * (read stops the call with any result other than conversionOK), then write
 * it whole or stop before it with targetExhausted.
 */
template <typename S, typename T, typename Read, typename Write>
ConversionResult Convert(const S **sourceStart, const S *sourceEnd, T **targetStart,
                         T *targetEnd, Read read, Write write) {
   ConversionResult result = conversionOK;
   const S *source = *sourceStart;
   T *target = *targetStart;
   while (source < sourceEnd) {
      const S *start = source;
      UTF32 c;
      result = read(source, sourceEnd, c);
      if (result != conversionOK) {
         break;
      }
      if (!write(c, target, targetEnd)) {
         source = start;
         result = targetExhausted;
         break;
      }
   }
   *sourceStart = source;
   *targetStart = target;
   return result;
}

}  // namespace

extern "C" {

ConversionResult ConvertUTF32toUTF16(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                     UTF16 **targetStart, UTF16 *targetEnd,
                                     ConversionFlags flags) {
   ConversionResult result = conversionOK;
   const UTF32 *source = *sourceStart;
   UTF16 *target = *targetStart;
   while (source < sourceEnd) {
      if (target >= targetEnd) {
         result = targetExhausted;
         break;
      }
      UTF32 c = *source;
      if (c <= kMaxBmp) {
         if (IsSurrogate(c)) {
            if (flags == strictConversion) {
               result = sourceIllegal;
               break;
            }
            c = kReplacementChar;
         }
         *target++ = static_cast<UTF16>(c);
      } else if (c > kMaxLegal) {
         // Strict mode skips the value and goes on, reporting it at the end.
         if (flags == strictConversion) {
            result = sourceIllegal;
         } else {
            *target++ = static_cast<UTF16>(kReplacementChar);
         }
      } else {
         if (targetEnd - target < 2) {
            result = targetExhausted;
            break;
         }
         EncodePair(c, target);
      }
      source++;
   }
   *sourceStart = source;
   *targetStart = target;
   return result;
}

ConversionResult ConvertUTF16toUTF32(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                     UTF32 **targetStart, UTF32 *targetEnd,
                                     ConversionFlags flags) {
   auto read = [flags](const UTF16 *&s, const UTF16 *end, UTF32 &c) {
      return ReadUtf16(s, end, flags, c);
   };
   return Convert(sourceStart, sourceEnd, targetStart, targetEnd, read, WriteUtf32);
}

ConversionResult ConvertUTF16toUTF8(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags) {
   auto read = [flags](const UTF16 *&s, const UTF16 *end, UTF32 &c) {
      return ReadUtf16(s, end, flags, c);
   };
   return Convert(sourceStart, sourceEnd, targetStart, targetEnd, read, EncodeUtf8);
}

ConversionResult ConvertUTF32toUTF8(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags) {
   ConversionResult result = conversionOK;
   const UTF32 *source = *sourceStart;
   UTF8 *target = *targetStart;
   while (source < sourceEnd) {
      UTF32 c = *source;
      if (flags == strictConversion && IsSurrogate(c)) {
         result = sourceIllegal;
         break;
      }
      if (!EncodeUtf8(c, target, targetEnd)) {
         result = targetExhausted;
         break;
      }
      if (c > kMaxLegal) {
         // Written as U+FFFD; the call goes on and reports it at the end.
         result = sourceIllegal;
      }
      source++;
   }
   *sourceStart = source;
   *targetStart = target;
   return result;
}

// Well-formed UTF-8 holds scalar values only, so the mode changes nothing.
ConversionResult ConvertUTF8toUTF16(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF16 **targetStart, UTF16 *targetEnd,
                                    ConversionFlags /* flags */) {
   return Convert(sourceStart, sourceEnd, targetStart, targetEnd, ReadUtf8, WriteUtf16);
}

ConversionResult ConvertUTF8toUTF32(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF32 **targetStart, UTF32 *targetEnd,
                                    ConversionFlags /* flags */) {
   return Convert(sourceStart, sourceEnd, targetStart, targetEnd, ReadUtf8, WriteUtf32);
}

bool isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd) {
   if (source >= sourceEnd) {
      return false;
   }
   unsigned length = TrailingBytes(source[0]) + 1;
   return sourceEnd - source >= static_cast<ptrdiff_t>(length) && IsLegalUtf8(source, length);
}

}  // extern "C"
