// SPDX-License-Identifier: MIT
/*
 * Operations on strings: comparison, substrings, search, replacement,
 * joining, formatting and the source-literal decoder.
 *
 * Ranges count code points, so every operation that takes one works on the
 * string's code points (UTF-32) and converts the result back; comparison
 * works on UTF-16 units, folding case through a fixed table, and orders
 * supplementary characters by code point rather than by their surrogates.
 * Starts and lengths are pinned the same way everywhere: a start that is
 * negative or past the end becomes the end, a length that is negative or
 * reaches past the end becomes "to the end".
 */
#include <cstdint>
#include <cstring>
#include <endian.h>

#include "codeset.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "log.h"
#include "str.h"
#include "unicode.h"
#include "util.h"

// UnicodeSimpleCaseFold: the case-folding table over UTF-16 units.
#include "unicode/unicodeSimpleCaseFold.inc"

namespace {

constexpr const char *kModulePath = "lib/unicode/unicodeSimpleOperations";

using halcyx::UniqueCStr;
using halcyx::UniqueMalloc;

// A string's code points, ended by a 0 code point.
struct CodePoints {
   UniqueMalloc<uint32_t> units;
   ssize_t length = 0;
};

// str as code points; invalid UTF-8 ends the process naming the caller.
CodePoints ToCodePoints(const char *function, const char *str) {
   char *utf32 = nullptr;
   if (!CodeSet_UTF8ToUTF32(str, &utf32) || utf32 == nullptr) {
      Panic("%s: invalid UTF8 string @ %p\n", function, static_cast<const void *>(str));
   }
   CodePoints cp;
   cp.units.reset(reinterpret_cast<uint32_t *>(utf32));
   while (cp.units.get()[cp.length] != 0) {
      cp.length++;
   }
   return cp;
}

void PinRange(ssize_t total, ssize_t *start, ssize_t *length) {
   if (*start < 0 || *start > total) {
      *start = total;
   }
   if (*length < 0 || *length > total - *start) {
      *length = total - *start;
   }
}

// length code points from start as a new string.
char *FromCodePoints(const CodePoints &cp, ssize_t start, ssize_t length) {
   uint32_t *units = cp.units.get();
   uint32_t saved = units[start + length];
   units[start + length] = 0;
   char *utf8 = nullptr;
   bool ok = CodeSet_UTF32ToUTF8(reinterpret_cast<const char *>(units + start), &utf8);
   units[start + length] = saved;
   if (!ok) {
      halcyx::PanicNotReached(kModulePath, __LINE__);  // the code points came from UTF-8
   }
   return utf8;
}

uint16_t FoldCase(uint16_t unit) {
   const uint16_t *page = UnicodeSimpleCaseFold[unit >> 8];
   return page == nullptr ? unit : page[unit & 0xFF];
}

bool IsHighSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// A string as UTF-16 units (host order) with their count.
struct Utf16 {
   UniqueCStr bytes;
   size_t units = 0;

   uint16_t At(size_t i) const {
      if (i >= units) {
         return 0;
      }
      uint16_t le;
      memcpy(&le, bytes.get() + 2 * i, sizeof le);
      return le16toh(le);
   }
   // The code point at a difference: a surrogate pair counts as one.
   uint32_t ValueAt(size_t i, uint16_t unit) const {
      uint16_t next = At(i + 1);
      if (IsHighSurrogate(unit) && IsLowSurrogate(next)) {
         return 0x10000 + ((uint32_t{unit} - 0xD800) << 10) + (next - 0xDC00);
      }
      return unit;
   }
};

bool ToUtf16(const char *str, Utf16 *out) {
   char *bytes = nullptr;
   size_t size = 0;
   if (str == nullptr || !CodeSet_Utf8ToUtf16le(str, strlen(str), &bytes, &size)) {
      return false;
   }
   out->bytes.reset(bytes);
   out->units = size / 2;
   return true;
}

// str itself for the whole string, else the range as a new string.
const char *Range(const char *str, ssize_t start, ssize_t length, UniqueCStr *holder) {
   if (str == nullptr || (start == 0 && length == -1)) {
      return str;
   }
   holder->reset(Unicode_Substr(str, start, length));
   return holder->get();
}

ssize_t Find(const char *function, bool last, const char *str1, ssize_t start1,
             ssize_t length1, const char *str2, ssize_t start2, ssize_t length2) {
   if (str1 == nullptr || str2 == nullptr) {
      return -1;
   }
   CodePoints haystack = ToCodePoints(function, str1);
   CodePoints needle = ToCodePoints(function, str2);
   PinRange(haystack.length, &start1, &length1);
   PinRange(needle.length, &start2, &length2);
   if (length1 < length2) {
      return -1;
   }
   if (length2 == 0) {
      return start1;
   }
   const uint32_t *sought = needle.units.get() + start2;
   size_t bytes = static_cast<size_t>(length2) * sizeof(uint32_t);
   ssize_t lastStart = start1 + length1 - length2;
   for (ssize_t n = 0; n <= lastStart - start1; n++) {
      ssize_t i = last ? lastStart - n : start1 + n;
      if (memcmp(haystack.units.get() + i, sought, bytes) == 0) {
         return i;
      }
   }
   return -1;
}

}  // namespace

int Unicode_CompareRange(const char *str1, ssize_t start1, ssize_t length1, const char *str2,
                         ssize_t start2, ssize_t length2, bool ignoreCase) {
   // Every failure reads as "less": callers cannot tell them apart.
   UniqueCStr holder1, holder2;
   const char *s1 = Range(str1, start1, length1, &holder1);
   const char *s2 = Range(str2, start2, length2, &holder2);
   Utf16 a, b;
   if (!ToUtf16(s1, &a) || !ToUtf16(s2, &b)) {
      return -1;
   }
   for (size_t i = 0;; i++) {
      uint16_t ua = a.At(i);
      uint16_t ub = b.At(i);
      if (ignoreCase) {
         ua = FoldCase(ua);
         ub = FoldCase(ub);
      }
      if (ua != ub) {
         uint32_t va = a.ValueAt(i, ua);
         uint32_t vb = b.ValueAt(i, ub);
         if (va == vb) {
            halcyx::PanicNotReached(kModulePath, __LINE__);
         }
         return va < vb ? -1 : 1;
      }
      if (ua == 0) {
         return 0;
      }
   }
}

char *Unicode_Substr(const char *str, ssize_t start, ssize_t length) {
   if (str == nullptr) {
      return nullptr;
   }
   CodePoints cp = ToCodePoints("Unicode_Substr", str);
   PinRange(cp.length, &start, &length);
   return FromCodePoints(cp, start, length);
}

ssize_t Unicode_FindSubstrInRange(const char *str1, ssize_t start1, ssize_t length1,
                                  const char *str2, ssize_t start2, ssize_t length2) {
   return Find("Unicode_FindSubstrInRange", false, str1, start1, length1, str2, start2,
               length2);
}

ssize_t Unicode_FindLastSubstrInRange(const char *str1, ssize_t start1, ssize_t length1,
                                      const char *str2, ssize_t start2, ssize_t length2) {
   return Find("Unicode_FindLastSubstrInRange", true, str1, start1, length1, str2, start2,
               length2);
}

char *Unicode_ReplaceRange(const char *destination, ssize_t destinationStart,
                           ssize_t destinationLength, const char *source, ssize_t sourceStart,
                           ssize_t sourceLength) {
   if (destination == nullptr) {
      return nullptr;
   }
   CodePoints dest = ToCodePoints("Unicode_ReplaceRange", destination);
   PinRange(dest.length, &destinationStart, &destinationLength);
   UniqueCStr before(FromCodePoints(dest, 0, destinationStart));
   UniqueCStr middle(Unicode_Substr(source, sourceStart, sourceLength));
   ssize_t rest = destinationStart + destinationLength;
   UniqueCStr after(FromCodePoints(dest, rest, dest.length - rest));
   return Unicode_Join(before.get(), middle ? middle.get() : "", after.get(), nullptr);
}

char *Unicode_Join(const char *first, ...) {
   if (first == nullptr) {
      return nullptr;
   }
   char *result = Util_SafeStrdup(first);
   va_list args;
   va_start(args, first);
   for (const char *next; result != nullptr && (next = va_arg(args, const char *)) != nullptr;) {
      char *joined = Unicode_Format("%s%s", result, next);
      free(result);
      result = joined;
   }
   va_end(args);
   return result;
}

char *Unicode_Format(const char *fmt, ...) {
   va_list args;
   va_start(args, fmt);
   char *result = Str_Vasprintf(nullptr, fmt, args);
   va_end(args);
   return result;
}

namespace {

// The value of count hexadecimal digits at p; a non-digit is fatal.
uint32_t ReadHex(const char *p, int count) {
   uint32_t value = 0;
   for (int i = 0; i < count; i++) {
      char c = p[i];
      uint32_t digit;
      if (c >= '0' && c <= '9') {
         digit = static_cast<uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
         digit = static_cast<uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
         digit = static_cast<uint32_t>(c - 'A' + 10);
      } else {
         halcyx::PanicNotImplemented(kModulePath, __LINE__);
      }
      value = value << 4 | digit;
   }
   return value;
}

}  // namespace

char *UnicodeAllocStatic(const char *asciiBytes, bool unescape) {
   if (asciiBytes == nullptr) {
      return nullptr;
   }
   if (!unescape) {
      return Util_SafeStrdup(asciiBytes);
   }

   // Never more units than bytes, plus the terminator.
   size_t size = strlen(asciiBytes);
   UniqueMalloc<uint16_t> units(
      static_cast<uint16_t *>(Util_SafeMalloc((size + 1) * sizeof(uint16_t))));
   uint16_t *out = units.get();
   auto put = [&out](uint32_t unit) { *out++ = htole16(static_cast<uint16_t>(unit)); };

   for (const char *p = asciiBytes; *p != '\0';) {
      auto c = static_cast<unsigned char>(*p);
      if (c >= 0x80) {
         halcyx::PanicVerify(kModulePath, __LINE__);
      }
      if (c != '\\') {
         put(c);
         p++;
         continue;
      }
      auto escaped = static_cast<unsigned char>(p[1]);
      if (escaped == '\0') {
         break;  // a backslash at the very end ends the string
      }
      if (escaped >= 0x80) {
         halcyx::PanicVerify(kModulePath, __LINE__);
      }
      if (escaped == 'u') {
         put(ReadHex(p + 2, 4));
         p += 6;
      } else if (escaped == 'U') {
         uint32_t cp = ReadHex(p + 2, 8);
         if (cp >= 0x110000) {
            halcyx::PanicVerify(kModulePath, __LINE__);
         }
         if (cp > 0xFFFF) {
            put(0xD800 + ((cp - 0x10000) >> 10));
            put(0xDC00 + ((cp - 0x10000) & 0x3FF));
         } else {
            put(cp);
         }
         p += 10;
      } else {
         put(escaped);
         p += 2;
      }
   }
   *out = 0;
   return Unicode_AllocWithLength(units.get(), -1, UNICODE_ENCODING_UTF16_LE);
}
