// SPDX-License-Identifier: MIT
/*
 * The built-in conversion engine: UTF-8, UTF-16LE, UTF-16BE and US-ASCII.
 *
 * A conversion decodes the source one character at a time into a code point
 * and encodes it into the target. Its policy for bad input is the one ICU's
 * converters follow, so that the engines give the same bytes for the same
 * input and flag:
 *   - ill-formed source: each maximal ill-formed part (for UTF-8 the longest
 *     prefix of a well-formed sequence, or one byte; for UTF-16 one unpaired
 *     surrogate, or a trailing odd byte; for US-ASCII one byte >= 0x80) is
 *     one error;
 *   - an error stops the conversion (flag 0), becomes U+FFFD (flag 1) or is
 *     dropped (flag 2);
 *   - a code point that US-ASCII cannot hold is unmappable: flag 0 fails,
 *     flag 1 writes 0x1A, flag 2 drops it; default-ignorable code points
 *     (soft hyphen, joiners, variation selectors, ...) are dropped whatever
 *     the flag.
 * Names are resolved through the encoding table, so every alias of the four
 * sets works; any other set fails.
 */
#include <array>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codeset.h"
#include "internal/fatal.h"
#include "misc/codesetInt.h"
#include "unicode.h"

namespace {

using halcyx::kCodeSetModulePath;

enum class Form { kUtf8, kUtf16le, kUtf16be, kAscii, kNone };

Form FormOf(const char *name) {
   if (name == nullptr) {
      return Form::kNone;
   }
   int32_t encoding = std::strcmp(name, CodeSetOld_GetCurrentCodeSet()) == 0
                         ? Unicode_GetCurrentEncoding()
                         : Unicode_EncodingNameToEnum(name);
   switch (encoding) {
   case UNICODE_ENCODING_UTF8:
      return Form::kUtf8;
   case UNICODE_ENCODING_UTF16_LE:
      return Form::kUtf16le;
   case UNICODE_ENCODING_UTF16_BE:
      return Form::kUtf16be;
   case UNICODE_ENCODING_US_ASCII:
      return Form::kAscii;
   default:
      return Form::kNone;
   }
}

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kAsciiSubstitute = 0x1A;

// One decoded step: len bytes consumed; valid tells whether they form a
// character (cp) or one ill-formed part.
struct Step {
   uint32_t cp;
   uint32_t len;
   bool valid;
};

// Second-byte range of a UTF-8 lead byte, 0 for a byte that cannot lead.
struct LeadInfo {
   uint8_t length, lo, hi;
};

constexpr LeadInfo LeadOf(uint8_t b) {
   if (b >= 0xC2 && b <= 0xDF) return {2, 0x80, 0xBF};
   if (b == 0xE0) return {3, 0xA0, 0xBF};
   if (b == 0xED) return {3, 0x80, 0x9F};
   if (b >= 0xE1 && b <= 0xEF) return {3, 0x80, 0xBF};
   if (b == 0xF0) return {4, 0x90, 0xBF};
   if (b >= 0xF1 && b <= 0xF3) return {4, 0x80, 0xBF};
   if (b == 0xF4) return {4, 0x80, 0x8F};
   return {0, 0, 0};
}

constexpr std::array<LeadInfo, 256> MakeLeads() {
   std::array<LeadInfo, 256> leads{};
   for (size_t b = 0; b < 256; b++) {
      leads[b] = LeadOf(static_cast<uint8_t>(b));
   }
   return leads;
}
constexpr std::array<LeadInfo, 256> kLeads = MakeLeads();

Step DecodeUtf8(const uint8_t *p, const uint8_t *end) {
   uint8_t b = p[0];
   if (b < 0x80) {
      return {b, 1, true};
   }
   LeadInfo lead = kLeads[b];
   if (lead.length == 0) {
      return {0, 1, false};
   }
   uint32_t cp = b & (0x7F >> lead.length);
   uint32_t i = 1;
   for (; i < lead.length; i++) {
      if (p + i >= end) {
         return {0, i, false};  // cut short by the end of the input
      }
      uint8_t c = p[i];
      uint8_t lo = i == 1 ? lead.lo : 0x80;
      uint8_t hi = i == 1 ? lead.hi : 0xBF;
      if (c < lo || c > hi) {
         return {0, i, false};
      }
      cp = (cp << 6) | (c & 0x3F);
   }
   return {cp, i, true};
}

template <bool kBigEndian> uint32_t Unit16(const uint8_t *p) {
   return kBigEndian ? (uint32_t{p[0]} << 8) | p[1] : (uint32_t{p[1]} << 8) | p[0];
}

template <bool kBigEndian> Step DecodeUtf16(const uint8_t *p, const uint8_t *end) {
   if (end - p < 2) {
      return {0, static_cast<uint32_t>(end - p), false};
   }
   uint32_t u = Unit16<kBigEndian>(p);
   if (u < 0xD800 || u > 0xDFFF) {
      return {u, 2, true};
   }
   if (u >= 0xDC00) {
      return {0, 2, false};
   }
   if (end - p < 4) {
      // A high surrogate, perhaps with part of a unit, cut by the end.
      return {0, static_cast<uint32_t>(end - p), false};
   }
   uint32_t low = Unit16<kBigEndian>(p + 2);
   if (low < 0xDC00 || low > 0xDFFF) {
      return {0, 2, false};
   }
   return {0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00), 4, true};
}

Step Decode(Form form, const uint8_t *p, const uint8_t *end) {
   switch (form) {
   case Form::kUtf8:
      return DecodeUtf8(p, end);
   case Form::kUtf16le:
      return DecodeUtf16<false>(p, end);
   case Form::kUtf16be:
      return DecodeUtf16<true>(p, end);
   default:
      return p[0] < 0x80 ? Step{p[0], 1, true} : Step{0, 1, false};
   }
}

// Code points that ICU's callbacks drop without a word when a target cannot
// hold them: invisible formatting characters whose loss changes no text.
constexpr bool IsDefaultIgnorable(uint32_t c) {
   return c == 0x00AD || c == 0x034F || c == 0x061C || c == 0x115F || c == 0x1160 ||
          (c >= 0x17B4 && c <= 0x17B5) || (c >= 0x180B && c <= 0x180F) ||
          (c >= 0x200B && c <= 0x200F) || (c >= 0x202A && c <= 0x202E) ||
          (c >= 0x2060 && c <= 0x206F) || c == 0x3164 || (c >= 0xFE00 && c <= 0xFE0F) ||
          c == 0xFEFF || c == 0xFFA0 || (c >= 0xFFF0 && c <= 0xFFF8) ||
          (c >= 0x1BCA0 && c <= 0x1BCA3) || (c >= 0x1D173 && c <= 0x1D17A) ||
          (c >= 0xE0000 && c <= 0xE0FFF);
}

// Writes the encoding of cp (a scalar value) in form to out and returns its
// length, 0 when form cannot hold cp.
size_t Encode(Form form, uint32_t cp, uint8_t *out) {
   switch (form) {
   case Form::kUtf8:
      return halcyx::CodeSetEncodeUtf8(cp, out);
   case Form::kUtf16le:
   case Form::kUtf16be: {
      uint16_t units[2];
      size_t n = 1;
      if (cp < 0x10000) {
         units[0] = static_cast<uint16_t>(cp);
      } else {
         units[0] = static_cast<uint16_t>(0xD800 + ((cp - 0x10000) >> 10));
         units[1] = static_cast<uint16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
         n = 2;
      }
      int hiByte = form == Form::kUtf16be ? 0 : 1;
      for (size_t i = 0; i < n; i++) {
         out[2 * i + hiByte] = static_cast<uint8_t>(units[i] >> 8);
         out[2 * i + 1 - hiByte] = static_cast<uint8_t>(units[i]);
      }
      return 2 * n;
   }
   default:
      if (cp >= 0x80) {
         return 0;
      }
      out[0] = static_cast<uint8_t>(cp);
      return 1;
   }
}

// flags is one of the three known values. A failure leaves db's contents as
// they were, though its allocation may have grown.
bool Convert(Form from, const char *bufIn, size_t sizeIn, Form to, unsigned int flags,
             DynBuf *db) {
   if (from == Form::kNone || to == Form::kNone) {
      return false;
   }
   const uint64_t start = db->size;
   auto fail = [db, start] {
      db->size = start;
      return false;
   };
   auto p = reinterpret_cast<const uint8_t *>(bufIn);
   const uint8_t *end = p + sizeIn;
   while (p < end) {
      Step step = Decode(from, p, end);
      p += step.len;
      uint32_t cp = step.cp;
      if (!step.valid) {
         if (flags == CODESET_FLAG_STOP) {
            return fail();
         }
         if (flags == CODESET_FLAG_SKIP) {
            continue;
         }
         cp = kReplacement;
      }
      if (!halcyx::CodeSetReserve(db, 4)) {
         return fail();
      }
      auto out = reinterpret_cast<uint8_t *>(db->data) + db->size;
      size_t n = Encode(to, cp, out);
      if (n == 0 && !IsDefaultIgnorable(cp)) {
         if (flags == CODESET_FLAG_STOP) {
            return fail();
         }
         if (flags == CODESET_FLAG_SUBSTITUTE) {
            out[0] = kAsciiSubstitute;
            n = 1;
         }
      }
      db->size += n;
   }
   return true;
}

// UTF-8 to UTF-16LE, stopping at the first error: the hot path of the
// string layer. Runs of ASCII are widened 16 bytes at a time. db's size
// moves only on success.
bool Utf8ToUtf16leFast(const char *bufIn, size_t sizeIn, DynBuf *db) {
   // Every input byte gives at most one 16-bit unit.
   if (sizeIn > UINT64_MAX / 2 || !halcyx::CodeSetReserve(db, 2 * uint64_t{sizeIn})) {
      return false;
   }
   auto p = reinterpret_cast<const uint8_t *>(bufIn);
   const uint8_t *end = p + sizeIn;
   auto out = reinterpret_cast<uint8_t *>(db->data) + db->size;
   uint8_t *const outStart = out;
   while (p < end) {
#if defined(__SSE2__)
      if (end - p >= 16) {
         // Widen 16 bytes; when some are not ASCII, keep only the ASCII run
         // before the first of them (the rest is written again below). The
         // output has room: 32 bytes for 16 input bytes still to come.
         __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
         __m128i zero = _mm_setzero_si128();
         _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_unpacklo_epi8(v, zero));
         _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 16), _mm_unpackhi_epi8(v, zero));
         int mask = _mm_movemask_epi8(v);
         size_t ascii = mask == 0 ? 16 : static_cast<size_t>(__builtin_ctz(mask));
         p += ascii;
         out += 2 * ascii;
         if (ascii == 16) {
            continue;
         }
      }
#endif
      if (*p < 0x80) {
         out[0] = *p++;
         out[1] = 0;
         out += 2;
         continue;
      }
      Step step = DecodeUtf8(p, end);
      if (!step.valid) {
         return false;
      }
      p += step.len;
      out += Encode(Form::kUtf16le, step.cp, out);
   }
   db->size += static_cast<uint64_t>(out - outStart);
   return true;
}

}  // namespace

const char *CodeSetOld_GetCurrentCodeSet() { return "UTF-8"; }

bool CodeSetOld_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                   const char *codeOut, unsigned int flags, DynBuf *db) {
   if (flags > CODESET_FLAG_SKIP) {
      halcyx::PanicNotImplemented(kCodeSetModulePath, __LINE__);
   }
   if (bufIn == nullptr || sizeIn == 0) {
      return true;
   }
   Form from = FormOf(codeIn);
   Form to = FormOf(codeOut);
   if (from == Form::kUtf8 && to == Form::kUtf16le && flags == CODESET_FLAG_STOP) {
      return Utf8ToUtf16leFast(bufIn, sizeIn, db);
   }
   return Convert(from, bufIn, sizeIn, to, flags, db);
}

bool CodeSetOld_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                                 const char *codeOut, unsigned int flags, char **bufOut,
                                 size_t *sizeOut) {
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = CodeSetOld_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, flags, &db);
   return halcyx::CodeSetDbToResult(ok, &db, bufOut, sizeOut);
}

bool CodeSetOld_Utf8ToUtf16leDb(const char *bufIn, size_t sizeIn, DynBuf *db) {
   return sizeIn == 0 || Utf8ToUtf16leFast(bufIn, sizeIn, db);
}

bool CodeSetOld_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db) {
   return Convert(Form::kUtf16le, bufIn, sizeIn, Form::kUtf8, CODESET_FLAG_STOP, db);
}

bool CodeSetOld_Utf16beToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db) {
   return Convert(Form::kUtf16be, bufIn, sizeIn, Form::kUtf8, CODESET_FLAG_STOP, db);
}

bool CodeSetOld_AsciiToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db) {
   return Convert(Form::kAscii, bufIn, sizeIn, Form::kUtf8, CODESET_FLAG_STOP, db);
}

bool CodeSetOld_Utf8ToAsciiDb(const char *bufIn, size_t sizeIn, DynBuf *db) {
   return Convert(Form::kUtf8, bufIn, sizeIn, Form::kAscii, CODESET_FLAG_STOP, db);
}

namespace {

using DbConverter = bool (*)(const char *, size_t, DynBuf *);

bool ToResult(DbConverter convert, const char *bufIn, size_t sizeIn, char **bufOut,
              size_t *sizeOut) {
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = convert(bufIn, sizeIn, &db);
   return halcyx::CodeSetDbToResult(ok, &db, bufOut, sizeOut);
}

}  // namespace

bool CodeSetOld_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return ToResult(CodeSetOld_Utf8ToUtf16leDb, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return ToResult(CodeSetOld_Utf16leToUtf8Db, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_Utf16beToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return ToResult(CodeSetOld_Utf16beToUtf8Db, bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_AsciiToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return ToResult(CodeSetOld_AsciiToUtf8Db, bufIn, sizeIn, bufOut, sizeOut);
}

// The current code set is UTF-8, so these are the UTF-8 conversions; a copy
// out of UTF-8 still validates, as a conversion would.
bool CodeSetOld_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return ToResult(
      [](const char *in, size_t n, DynBuf *db) {
         return Convert(Form::kUtf8, in, n, Form::kUtf8, CODESET_FLAG_STOP, db);
      },
      bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut) {
   return CodeSetOld_Utf8ToUtf16le(bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut) {
   return CodeSetOld_Utf16leToUtf8(bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSetOld_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut) {
   return CodeSetOld_Utf16beToUtf8(bufIn, sizeIn, bufOut, sizeOut);
}
