/*
 * Conversions between UTF-32, UTF-16 and UTF-8.
 *
 * Every converter is one loop over (decode one character, encode it), so
 * the rules below hold the same way for all six directions:
 *   - A character is either written whole or not at all: when the target
 *     lacks room for all of its units the loop stops with targetExhausted
 *     and neither pointer moves past it.
 *   - A proper prefix of a well-formed character at the very end of the
 *     source (a high surrogate, or a UTF-8 lead byte with only some of its
 *     continuation bytes) stops with sourceExhausted before that prefix, so
 *     the caller can supply the rest and resume.
 *   - Anything else that is not a Unicode scalar value is ill-formed: a
 *     surrogate code unit without its partner, a UTF-32 value that is a
 *     surrogate or above U+10FFFF, or a UTF-8 sequence that is overlong,
 *     encodes a surrogate, exceeds U+10FFFF or breaks off before a byte that
 *     cannot continue it. Strict mode stops there with sourceIllegal and the
 *     source pointer at the first unit of the ill-formed part. Lenient mode
 *     writes U+FFFD in its place and goes on, so it never reports
 *     sourceIllegal; ill-formed UTF-8 is replaced one maximal subpart at a
 *     time (the longest prefix of a well-formed sequence, at least one byte),
 *     which is the practice Unicode recommends for U+FFFD substitution.
 */
#include "convertutf.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

constexpr UTF32 kReplacementChar = 0xFFFD;
constexpr UTF32 kMaxScalar = 0x10FFFF;
constexpr UTF32 kHighSurrogateFirst = 0xD800;
constexpr UTF32 kHighSurrogateLast = 0xDBFF;
constexpr UTF32 kLowSurrogateFirst = 0xDC00;
constexpr UTF32 kLowSurrogateLast = 0xDFFF;

constexpr bool IsHighSurrogate(UTF32 c) {
   return c >= kHighSurrogateFirst && c <= kHighSurrogateLast;
}

constexpr bool IsLowSurrogate(UTF32 c) {
   return c >= kLowSurrogateFirst && c <= kLowSurrogateLast;
}

constexpr bool IsSurrogate(UTF32 c) {
   return c >= kHighSurrogateFirst && c <= kLowSurrogateLast;
}

// What decoding one character from the source found.
enum class Decoded {
   kScalar,     // a scalar value, `units` long
   kTruncated,  // a proper prefix of a character, cut by the end of the source
   kIllFormed,  // `units` units that form no character (always at least 1)
};

struct Decoding {
   Decoded kind;
   UTF32 scalar;
   size_t units;
};

/*
 * Well-formed UTF-8, by lead byte: the sequence length and the range the
 * second byte must fall in. Every later byte is 80..BF. The narrowed second
 * byte ranges exclude overlong forms (E0, F0), surrogates (ED) and values
 * above U+10FFFF (F4). Lead bytes not listed (80..C1, F5..FF) begin nothing.
 */
struct Utf8LeadRule {
   UTF8 leadFirst;
   UTF8 leadLast;
   uint8_t length;
   UTF8 secondFirst;
   UTF8 secondLast;
};

constexpr Utf8LeadRule kUtf8LeadRules[] = {
   {0x00, 0x7F, 1, 0x00, 0x00},
   {0xC2, 0xDF, 2, 0x80, 0xBF},
   {0xE0, 0xE0, 3, 0xA0, 0xBF},
   {0xE1, 0xEC, 3, 0x80, 0xBF},
   {0xED, 0xED, 3, 0x80, 0x9F},
   {0xEE, 0xEF, 3, 0x80, 0xBF},
   {0xF0, 0xF0, 4, 0x90, 0xBF},
   {0xF1, 0xF3, 4, 0x80, 0xBF},
   {0xF4, 0xF4, 4, 0x80, 0x8F},
};

struct Utf8Lead {
   uint8_t length;  // 0: the byte cannot begin a sequence
   UTF8 secondFirst;
   UTF8 secondLast;
};

constexpr std::array<Utf8Lead, 256> kUtf8Leads = [] {
   std::array<Utf8Lead, 256> leads{};
   for (const auto &rule : kUtf8LeadRules) {
      for (unsigned b = rule.leadFirst; b <= rule.leadLast; b++) {
         leads[b] = {rule.length, rule.secondFirst, rule.secondLast};
      }
   }
   return leads;
}();

// Payload bits of the lead byte, and its marker bits, by sequence length.
constexpr UTF8 kUtf8LeadPayload[5] = {0x00, 0x7F, 0x1F, 0x0F, 0x07};
constexpr UTF8 kUtf8LeadMarker[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
constexpr UTF8 kContinuationFirst = 0x80;
constexpr UTF8 kContinuationLast = 0xBF;

struct Utf8 {
   using Unit = UTF8;

   static Decoding Decode(const UTF8 *s, const UTF8 *end) {
      const Utf8Lead &lead = kUtf8Leads[s[0]];
      if (lead.length == 0) {
         return {Decoded::kIllFormed, 0, 1};
      }
      UTF32 c = s[0] & kUtf8LeadPayload[lead.length];
      for (size_t i = 1; i < lead.length; i++) {
         if (s + i == end) {
            return {Decoded::kTruncated, 0, i};
         }
         UTF8 first = i == 1 ? lead.secondFirst : kContinuationFirst;
         UTF8 last = i == 1 ? lead.secondLast : kContinuationLast;
         if (s[i] < first || s[i] > last) {
            // s[0..i) is the maximal subpart; s[i] may begin the next one.
            return {Decoded::kIllFormed, 0, i};
         }
         c = (c << 6) | (s[i] & 0x3F);
      }
      return {Decoded::kScalar, c, lead.length};
   }

   static size_t Length(UTF32 c) {
      return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
   }

   static void Encode(UTF32 c, size_t length, UTF8 *t) {
      for (size_t i = length - 1; i > 0; i--) {
         t[i] = static_cast<UTF8>(0x80 | (c & 0x3F));
         c >>= 6;
      }
      t[0] = static_cast<UTF8>(kUtf8LeadMarker[length] | c);
   }
};

struct Utf16 {
   using Unit = UTF16;

   static Decoding Decode(const UTF16 *s, const UTF16 *end) {
      UTF32 u = s[0];
      if (IsHighSurrogate(u)) {
         if (s + 1 == end) {
            return {Decoded::kTruncated, 0, 1};
         }
         UTF32 low = s[1];
         if (!IsLowSurrogate(low)) {
            return {Decoded::kIllFormed, 0, 1};
         }
         UTF32 c = 0x10000 + ((u - kHighSurrogateFirst) << 10) +
                   (low - kLowSurrogateFirst);
         return {Decoded::kScalar, c, 2};
      }
      if (IsLowSurrogate(u)) {
         return {Decoded::kIllFormed, 0, 1};
      }
      return {Decoded::kScalar, u, 1};
   }

   static size_t Length(UTF32 c) { return c < 0x10000 ? 1 : 2; }

   static void Encode(UTF32 c, size_t length, UTF16 *t) {
      if (length == 1) {
         t[0] = static_cast<UTF16>(c);
         return;
      }
      c -= 0x10000;
      t[0] = static_cast<UTF16>(kHighSurrogateFirst + (c >> 10));
      t[1] = static_cast<UTF16>(kLowSurrogateFirst + (c & 0x3FF));
   }
};

struct Utf32 {
   using Unit = UTF32;

   static Decoding Decode(const UTF32 *s, const UTF32 * /* end */) {
      UTF32 c = s[0];
      if (c > kMaxScalar || IsSurrogate(c)) {
         return {Decoded::kIllFormed, 0, 1};
      }
      return {Decoded::kScalar, c, 1};
   }

   static size_t Length(UTF32 /* c */) { return 1; }

   static void Encode(UTF32 c, size_t /* length */, UTF32 *t) { t[0] = c; }
};

template <typename From, typename To>
ConversionResult Convert(const typename From::Unit **sourceStart,
                         const typename From::Unit *sourceEnd,
                         typename To::Unit **targetStart,
                         typename To::Unit *targetEnd,
                         ConversionFlags flags) {
   const typename From::Unit *source = *sourceStart;
   typename To::Unit *target = *targetStart;
   ConversionResult result = conversionOK;
   while (source < sourceEnd) {
      Decoding d = From::Decode(source, sourceEnd);
      if (d.kind == Decoded::kTruncated) {
         result = sourceExhausted;
         break;
      }
      if (d.kind == Decoded::kIllFormed) {
         if (flags == strictConversion) {
            result = sourceIllegal;
            break;
         }
         d.scalar = kReplacementChar;
      }
      size_t length = To::Length(d.scalar);
      if (static_cast<size_t>(targetEnd - target) < length) {
         result = targetExhausted;
         break;
      }
      To::Encode(d.scalar, length, target);
      source += d.units;
      target += length;
   }
   *sourceStart = source;
   *targetStart = target;
   return result;
}

}  // namespace

extern "C" {

ConversionResult ConvertUTF8toUTF16(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF16 **targetStart, UTF16 *targetEnd,
                                    ConversionFlags flags) {
   return Convert<Utf8, Utf16>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF16toUTF8(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags) {
   return Convert<Utf16, Utf8>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF8toUTF32(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF32 **targetStart, UTF32 *targetEnd,
                                    ConversionFlags flags) {
   return Convert<Utf8, Utf32>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF32toUTF8(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd,
                                    ConversionFlags flags) {
   return Convert<Utf32, Utf8>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF16toUTF32(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                     UTF32 **targetStart, UTF32 *targetEnd,
                                     ConversionFlags flags) {
   return Convert<Utf16, Utf32>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF32toUTF16(const UTF32 **sourceStart, const UTF32 *sourceEnd,
                                     UTF16 **targetStart, UTF16 *targetEnd,
                                     ConversionFlags flags) {
   return Convert<Utf32, Utf16>(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

bool isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd) {
   if (source >= sourceEnd) {
      return false;
   }
   return Utf8::Decode(source, sourceEnd).kind == Decoded::kScalar;
}

}
