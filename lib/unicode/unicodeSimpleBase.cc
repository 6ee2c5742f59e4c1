// SPDX-License-Identifier: MIT
/*
 * Strings in and out of other encodings, validation, measures and escaping.
 *
 * UTF-8 and US-ASCII input is validated and copied as it is; everything else
 * goes through the code-set layer, which stops at bad input when the caller
 * relies on the result and substitutes it otherwise. Buffers handed out in
 * another encoding carry a terminator of that encoding's unit width.
 */
#include <cstdlib>
#include <cstring>

#include "codeset.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "log.h"
#include "unicode.h"
#include "unicode/unicodeInt.h"
#include "util.h"

namespace {

constexpr char kModulePath[] = "lib/unicode/unicodeSimpleBase";

// Bytes in one code unit of encoding (resolved).
size_t UnitWidth(int32_t encoding) {
   switch (encoding) {
   case UNICODE_ENCODING_UTF16_LE:
   case UNICODE_ENCODING_UTF16_BE:
   case UNICODE_ENCODING_UTF16_XE:
      return 2;
   case UNICODE_ENCODING_UTF32_LE:
   case UNICODE_ENCODING_UTF32_BE:
   case UNICODE_ENCODING_UTF32_XE:
      return 4;
   default:
      return 1;
   }
}

/*
 * The code-set name to convert a resolved encoding with. The table's names
 * for the host-order encodings ("UTF-16", "UTF-32") name the converters that
 * read a byte-order mark, default to big-endian and write a mark, so those
 * two are converted under the explicit name of this host's byte order.
 */
const char *ConverterName(int32_t encoding) {
   constexpr bool kBigEndianHost = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
   switch (encoding) {
   case UNICODE_ENCODING_UTF16_XE:
      return Unicode_EncodingEnumToName(kBigEndianHost ? UNICODE_ENCODING_UTF16_BE
                                                       : UNICODE_ENCODING_UTF16_LE);
   case UNICODE_ENCODING_UTF32_XE:
      return Unicode_EncodingEnumToName(kBigEndianHost ? UNICODE_ENCODING_UTF32_BE
                                                       : UNICODE_ENCODING_UTF32_LE);
   default:
      return Unicode_EncodingEnumToName(encoding);
   }
}

// A copy of length bytes with one terminating NUL, or null.
char *CopyWithTerminator(const void *bytes, size_t length) {
   auto copy = static_cast<char *>(malloc(length + 1));
   if (copy != nullptr) {
      if (length != 0) {
         std::memcpy(copy, bytes, length);
      }
      copy[length] = '\0';
   }
   return copy;
}

bool AllAscii(const void *buffer, size_t length) {
   auto p = static_cast<const uint8_t *>(buffer);
   for (size_t i = 0; i < length; i++) {
      if (p[i] >= 0x80) {
         return false;
      }
   }
   return true;
}

}  // namespace

ssize_t Unicode_LengthInBytes(const void *buffer, int32_t encoding) {
   if (buffer == nullptr) {
      return 0;
   }
   switch (UnitWidth(Unicode_ResolveEncoding(encoding))) {
   case 2:
      return 2 * Unicode_UTF16Strlen(static_cast<const uint16_t *>(buffer));
   case 4: {
      auto p = static_cast<const uint32_t *>(buffer);
      ssize_t n = 0;
      while (p[n] != 0) {
         n++;
      }
      return 4 * n;
   }
   default:
      return static_cast<ssize_t>(std::strlen(static_cast<const char *>(buffer)));
   }
}

ssize_t Unicode_UTF16Strlen(const uint16_t *utf16) {
   if (utf16 == nullptr) {
      return 0;
   }
   ssize_t n = 0;
   while (utf16[n] != 0) {
      n++;
   }
   return n;
}

uint16_t *Unicode_UTF16Strdup(const uint16_t *utf16) {
   if (utf16 == nullptr) {
      return nullptr;
   }
   size_t bytes = (static_cast<size_t>(Unicode_UTF16Strlen(utf16)) + 1) * sizeof(uint16_t);
   return static_cast<uint16_t *>(std::memcpy(Util_SafeMalloc(bytes), utf16, bytes));
}

ssize_t Unicode_LengthInCodePoints(const char *str) { return CodeSet_LengthInCodePoints(str); }

bool Unicode_IsStringValidUTF8(const char *str) { return CodeSet_IsStringValidUTF8(str); }

char *Unicode_Duplicate(const char *str) { return Util_SafeStrdup(str); }

bool UnicodeSanityCheck(const void *buffer, ssize_t lengthInBytes, int32_t encoding) {
   if (Unicode_ResolveEncoding(encoding) != UNICODE_ENCODING_US_ASCII) {
      return true;
   }
   size_t length = lengthInBytes < 0 ? std::strlen(static_cast<const char *>(buffer))
                                     : static_cast<size_t>(lengthInBytes);
   return AllAscii(buffer, length);
}

bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, int32_t encoding) {
   if (buffer == nullptr) {
      return true;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   auto bytes = static_cast<const char *>(buffer);
   if (encoding == UNICODE_ENCODING_UTF8) {
      return lengthInBytes < 0 ? CodeSet_IsStringValidUTF8(bytes)
                               : CodeSet_IsValidUTF8(bytes, static_cast<size_t>(lengthInBytes));
   }
   if (encoding == UNICODE_ENCODING_US_ASCII) {
      return UnicodeSanityCheck(buffer, lengthInBytes, encoding);
   }
   if (lengthInBytes < 0) {
      lengthInBytes = Unicode_LengthInBytes(buffer, encoding);
   }
   return CodeSet_Validate(bytes, static_cast<size_t>(lengthInBytes), ConverterName(encoding));
}

char *Unicode_EscapeBuffer(const void *buffer, ssize_t lengthInBytes, int32_t encoding) {
   if (buffer == nullptr) {
      return nullptr;
   }
   if (lengthInBytes < 0) {
      lengthInBytes = Unicode_LengthInBytes(buffer, encoding);
   }
   auto length = static_cast<size_t>(lengthInBytes);
   if (length > (SIZE_MAX - 1) / 4) {
      return nullptr;
   }
   auto out = static_cast<char *>(malloc(4 * length + 1));
   if (out == nullptr) {
      return nullptr;
   }
   static constexpr char kHex[] = "0123456789ABCDEF";
   auto in = static_cast<const uint8_t *>(buffer);
   char *o = out;
   for (size_t i = 0; i < length; i++) {
      uint8_t b = in[i];
      if (b < 0x20 || b == '\\' || b >= 0x7F) {
         *o++ = '\\';
         *o++ = 'x';
         *o++ = kHex[b >> 4];
         *o++ = kHex[b & 0xF];
      } else {
         *o++ = static_cast<char>(b);
      }
   }
   *o = '\0';
   return out;
}

char *UnicodeAllocInternal(const void *buffer, ssize_t lengthInBytes, int32_t encoding,
                           bool strict) {
   auto bytes = static_cast<const char *>(buffer);
   if (lengthInBytes < 0) {
      lengthInBytes = Unicode_LengthInBytes(buffer, encoding);
   }
   auto length = static_cast<size_t>(lengthInBytes);
   char *result = nullptr;
   if (!strict) {
      CodeSet_GenericToGeneric(ConverterName(encoding), bytes, length, "UTF-8",
                               CODESET_FLAG_SUBSTITUTE, &result, nullptr);
      return result;
   }
   switch (encoding) {
   case UNICODE_ENCODING_UTF8:
   case UNICODE_ENCODING_US_ASCII:
      return Unicode_IsBufferValid(buffer, lengthInBytes, encoding)
                ? CopyWithTerminator(buffer, length)
                : nullptr;
   case UNICODE_ENCODING_UTF16_LE:
      CodeSet_Utf16leToUtf8(bytes, length, &result, nullptr);
      return result;
   default:
      CodeSet_GenericToGeneric(ConverterName(encoding), bytes, length, "UTF-8",
                               CODESET_FLAG_STOP, &result, nullptr);
      return result;
   }
}

char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, int32_t encoding) {
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   if (lengthInBytes < 0) {
      lengthInBytes = Unicode_LengthInBytes(buffer, encoding);
   }
   char *result = UnicodeAllocInternal(buffer, lengthInBytes, encoding, true);
   if (result == nullptr) {
      char *escaped = Unicode_EscapeBuffer(buffer, lengthInBytes, encoding);
      Panic("%s: Couldn't convert invalid buffer [%s] from %s to Unicode.\n",
            "Unicode_AllocWithLength", escaped != nullptr ? escaped : "(couldn't escape bytes)",
            Unicode_EncodingEnumToName(encoding));
   }
   return result;
}

void *UnicodeGetAllocBytesInternal(const char *str, int32_t encoding, ssize_t length,
                                   size_t *resultLength) {
   if (str == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   size_t size = length < 0 ? std::strlen(str) : static_cast<size_t>(length);
   char *result = nullptr;
   size_t resultSize = size;
   switch (encoding) {
   case UNICODE_ENCODING_UTF8:
      result = CopyWithTerminator(str, size);
      break;
   case UNICODE_ENCODING_US_ASCII:
      result = AllAscii(str, size) ? CopyWithTerminator(str, size) : nullptr;
      break;
   case UNICODE_ENCODING_UTF16_LE:
      if (!CodeSet_Utf8ToUtf16le(str, size, &result, &resultSize)) {
         halcyx::PanicNotImplemented(kModulePath, __LINE__);
      }
      break;
   default:
      CodeSet_GenericToGeneric("UTF-8", str, size, ConverterName(encoding), CODESET_FLAG_STOP,
                               &result, &resultSize);
      break;
   }
   if (result != nullptr && resultLength != nullptr) {
      *resultLength = resultSize;
   }
   return result;
}

void *Unicode_GetAllocBytes(const char *str, int32_t encoding) {
   return UnicodeGetAllocBytesInternal(str, encoding, -1, nullptr);
}

void *Unicode_GetAllocBytesWithLength(const char *str, int32_t encoding, ssize_t lengthInBytes) {
   return UnicodeGetAllocBytesInternal(str, encoding, lengthInBytes, nullptr);
}

bool Unicode_CanGetBytesWithEncoding(const char *str, int32_t encoding) {
   if (str == nullptr) {
      return true;
   }
   void *bytes = UnicodeGetAllocBytesInternal(str, encoding, -1, nullptr);
   free(bytes);
   return bytes != nullptr;
}

namespace {

// Entries of a list: length itself, or up to and including the first null.
size_t ListLength(char *const *array, ssize_t length) {
   if (length >= 0) {
      return static_cast<size_t>(length);
   }
   size_t n = 0;
   while (array[n] != nullptr) {
      n++;
   }
   return n + 1;
}

}  // namespace

char **Unicode_AllocList(char **srcArray, ssize_t length, int32_t encoding) {
   if (srcArray == nullptr) {
      return nullptr;
   }
   size_t n = ListLength(srcArray, length);
   auto list = static_cast<char **>(Util_SafeCalloc(n + 1, sizeof(char *)));
   for (size_t i = 0; i < n; i++) {
      list[i] = Unicode_AllocWithLength(srcArray[i], -1, encoding);
   }
   return list;
}

char **Unicode_GetAllocList(char *const *srcArray, ssize_t length, int32_t encoding) {
   if (srcArray == nullptr) {
      return nullptr;
   }
   size_t n = ListLength(srcArray, length);
   auto list = static_cast<char **>(calloc(n + 1, sizeof(char *)));
   if (list == nullptr) {
      return nullptr;
   }
   for (size_t i = 0; i < n; i++) {
      if (srcArray[i] == nullptr) {
         continue;
      }
      list[i] = static_cast<char *>(Unicode_GetAllocBytes(srcArray[i], encoding));
      if (list[i] == nullptr) {
         halcyx::ErrnoSaver keep;
         for (size_t j = 0; j < i; j++) {
            free(list[j]);
         }
         free(list);
         return nullptr;
      }
   }
   return list;
}
