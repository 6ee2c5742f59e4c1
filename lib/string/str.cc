// SPDX-License-Identifier: MIT
/*
 * Bounded string helpers over the formatting engine.
 *
 * An overflow of a caller's buffer is a programming error: the helpers that
 * cannot report it end the process through Panic, naming this module's
 * source path and the line of the check. Text cut to fit a buffer is
 * trimmed back to a UTF-8 sequence boundary.
 */
#include "str.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bsd_output.h"
#include "internal/fatal.h"
#include "log.h"
#include "string/bsd_vsnprintf_int.h"

namespace {

constexpr const char *kModulePath = "lib/string/str";

// Lines of the fatal checks, as the system reports them.
constexpr int kLineSprintfCLocale = 176;
constexpr int kLineSprintf = 213;
constexpr int kLineStrcpy = 283;
constexpr int kLineStrncpy = 321;
constexpr int kLineStrcat = 443;
constexpr int kLineStrncat = 497;
constexpr int kLineSafeAsprintf = 656;

[[noreturn]] void BufferTooSmall(int line) {
   Panic("%s:%d Buffer too small\n", kModulePath, line);
}

using Engine = int (*)(char **, size_t, const char *, va_list);

/*
 * Formats into buf and returns the length when everything fitted. Otherwise
 * returns -1, with the buffer (if it has room for anything) terminated at a
 * UTF-8 boundary: a cut output is trimmed at size - 1, a failed one at the
 * end of what the engine stored.
 */
int FormatBounded(Engine engine, char *buf, size_t size, const char *format, va_list ap) {
   if (buf == nullptr) {
      // A null pointer would select the engine's allocating form; there is
      // no buffer to fill, so nothing can fit.
      return -1;
   }
   char *out = buf;
   int r = engine(&out, size, format, ap);
   if (r >= 0 && static_cast<size_t>(r) < size) {
      return r;
   }
   if (size == 0) {
      return -1;
   }
   size_t end = r >= 0 ? size - 1 : strnlen(buf, size - 1);
   buf[halcyx::bsdfmt::Utf8BoundaryLength(buf, end)] = '\0';
   return -1;
}

}  // namespace

extern "C" {

int Str_Vsnprintf(char *buf, size_t size, const char *format, va_list ap) {
   return FormatBounded(bsd_vsnprintf, buf, size, format, ap);
}

int Str_Snprintf(char *buf, size_t size, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   int r = FormatBounded(bsd_vsnprintf, buf, size, format, ap);
   va_end(ap);
   return r;
}

int Str_Sprintf(char *buf, size_t maxSize, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   int r = FormatBounded(bsd_vsnprintf, buf, maxSize, format, ap);
   va_end(ap);
   if (r < 0) {
      BufferTooSmall(kLineSprintf);
   }
   return r;
}

int Str_Sprintf_C_Locale(char *buf, size_t maxSize, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   int r = FormatBounded(bsd_vsnprintf_c_locale, buf, maxSize, format, ap);
   va_end(ap);
   if (r < 0) {
      BufferTooSmall(kLineSprintfCLocale);
   }
   return r;
}

char *Str_Vasprintf(size_t *length, const char *format, va_list ap) {
   char *buf = nullptr;
   int r = bsd_vsnprintf(&buf, 0, format, ap);
   if (r < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = static_cast<size_t>(r);
   }
   return buf;
}

char *Str_Asprintf(size_t *length, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   char *result = Str_Vasprintf(length, format, ap);
   va_end(ap);
   return result;
}

char *Str_SafeVasprintf(size_t *length, const char *format, va_list ap) {
   char *result = Str_Vasprintf(length, format, ap);
   if (result == nullptr) {
      halcyx::PanicVerify(kModulePath, kLineSafeAsprintf);
   }
   return result;
}

char *Str_SafeAsprintf(size_t *length, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   char *result = Str_Vasprintf(length, format, ap);
   va_end(ap);
   if (result == nullptr) {
      halcyx::PanicVerify(kModulePath, kLineSafeAsprintf);
   }
   return result;
}

char *Str_Strcpy(char *dst, const char *src, size_t maxSize) {
   size_t length = strlen(src);
   if (length >= maxSize) {
      BufferTooSmall(kLineStrcpy);
   }
   memcpy(dst, src, length + 1);
   return dst;
}

char *Str_Strncpy(char *dst, size_t dstSize, const char *src, size_t n) {
   size_t length = strnlen(src, n);
   if (length >= dstSize) {
      BufferTooSmall(kLineStrncpy);
   }
   memcpy(dst, src, length);
   dst[length] = '\0';
   return dst;
}

size_t Str_Strlen(const char *s, size_t maxLen) {
   const void *nul = memchr(s, '\0', maxLen);
   return nul == nullptr ? maxLen : static_cast<size_t>(static_cast<const char *>(nul) - s);
}

char *Str_Strnstr(const char *src, const char *sub, size_t n) {
   size_t subLength = strlen(sub);
   if (subLength == 0) {
      return const_cast<char *>(src);
   }
   size_t srcLength = Str_Strlen(src, n);
   const char *end = src + srcLength;
   const char *p = src;
   while (static_cast<size_t>(end - p) >= subLength) {
      const void *first = memchr(p, sub[0], static_cast<size_t>(end - p) - subLength + 1);
      if (first == nullptr) {
         return nullptr;
      }
      p = static_cast<const char *>(first);
      if (memcmp(p, sub, subLength) == 0) {
         return const_cast<char *>(p);
      }
      p++;
   }
   return nullptr;
}

char *Str_Strcat(char *buf, const char *src, size_t maxSize) {
   size_t bufLength = strlen(buf);
   size_t srcLength = strlen(src);
   // A wrapping sum is as much an overflow as a long one.
   if (bufLength + srcLength < bufLength || bufLength + srcLength >= maxSize) {
      BufferTooSmall(kLineStrcat);
   }
   memcpy(buf + bufLength, src, srcLength + 1);
   return buf;
}

char *Str_Strncat(char *buf, size_t bufSize, const char *src, size_t n) {
   size_t b = Str_Strlen(buf, bufSize);
   size_t room = bufSize - b;
   // Fatal exactly when what is really appended, plus the terminator, does
   // not fit: a large n alone is fine when src is short.
   if (n >= room && strlen(src) >= room) {
      BufferTooSmall(kLineStrncat);
   }
   size_t length = strnlen(src, n);
   memcpy(buf + b, src, length);
   buf[b + length] = '\0';
   return buf;
}

char *Str_ToLower(char *s) {
   for (char *p = s; *p != '\0'; p++) {
      if (*p >= 'A' && *p <= 'Z') {
         *p = static_cast<char>(*p + ('a' - 'A'));
      }
   }
   return s;
}

char *Str_ToUpper(char *s) {
   for (char *p = s; *p != '\0'; p++) {
      if (*p >= 'a' && *p <= 'z') {
         *p = static_cast<char>(*p - ('a' - 'A'));
      }
   }
   return s;
}

}  // extern "C"
