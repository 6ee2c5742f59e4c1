// SPDX-License-Identifier: MIT
/*
 * Safe allocation wrappers: allocation failure ends the process.
 */
#include "util.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "internal/alloc.h"
#include "log.h"

namespace {

// Where a "0" form was called from: nowhere in particular.
struct Anywhere {
   [[noreturn]] void Fail() const {
      Panic("Unrecoverable memory allocation failure\n");
   }
};

// Where a "1" form was called from.
struct SourcePosition {
   int bugNumber;
   const char *file;
   int line;

   [[noreturn]] void Fail() const {
      if (bugNumber == -1) {
         Panic("Unrecoverable memory allocation failure at %s:%d\n", file, line);
      }
      Panic("Unrecoverable memory allocation failure at %s:%d.  Bug number: %d\n",
            file, line, bugNumber);
   }
};

template <typename Where>
void *SafeMalloc(size_t size, const Where &where) {
   void *p = halcyx::Malloc(size);
   if (p == nullptr && size != 0) {
      where.Fail();
   }
   return p;
}

template <typename Where>
void *SafeRealloc(void *ptr, size_t size, const Where &where) {
   void *p = halcyx::Realloc(ptr, size);
   if (p == nullptr && size != 0) {
      where.Fail();
   }
   return p;
}

template <typename Where>
void *SafeCalloc(size_t nmemb, size_t size, const Where &where) {
   void *p = halcyx::Calloc(nmemb, size);
   if (p == nullptr && nmemb != 0 && size != 0) {
      where.Fail();
   }
   return p;
}

template <typename Where>
char *SafeStrndup(const char *s, size_t n, const Where &where) {
   if (s == nullptr) {
      return nullptr;
   }
   size_t length = strnlen(s, n);
   if (length == SIZE_MAX) {
      where.Fail();
   }
   auto *copy = static_cast<char *>(halcyx::Malloc(length + 1));
   if (copy == nullptr) {
      where.Fail();
   }
   memcpy(copy, s, length);
   copy[length] = '\0';
   return copy;
}

template <typename Where>
char *SafeStrdup(const char *s, const Where &where) {
   return s == nullptr ? nullptr : SafeStrndup(s, strlen(s), where);
}

// Copies count bytes as count / sizeof(Word) words; memcpy of a constant
// size compiles to a single load and store and keeps the access well-typed.
template <typename Word>
void CopyWords(void *dest, const void *src, size_t count) {
   auto *d = static_cast<unsigned char *>(dest);
   auto *s = static_cast<const unsigned char *>(src);
   for (size_t i = 0; i < count; i += sizeof(Word)) {
      memcpy(d + i, s + i, sizeof(Word));
   }
}

bool AllMultiplesOf(uintptr_t unit, const void *a, const void *b, size_t count) {
   return ((reinterpret_cast<uintptr_t>(a) | reinterpret_cast<uintptr_t>(b) | count) &
           (unit - 1)) == 0;
}

}  // namespace

extern "C" {

void *UtilSafeMalloc0(size_t size) { return SafeMalloc(size, Anywhere{}); }
void *UtilSafeMalloc1(size_t size, int bugNumber, const char *file, int lineno) {
   return SafeMalloc(size, SourcePosition{bugNumber, file, lineno});
}

void *UtilSafeRealloc0(void *ptr, size_t size) { return SafeRealloc(ptr, size, Anywhere{}); }
void *UtilSafeRealloc1(void *ptr, size_t size, int bugNumber, const char *file,
                       int lineno) {
   return SafeRealloc(ptr, size, SourcePosition{bugNumber, file, lineno});
}

void *UtilSafeCalloc0(size_t nmemb, size_t size) {
   return SafeCalloc(nmemb, size, Anywhere{});
}
void *UtilSafeCalloc1(size_t nmemb, size_t size, int bugNumber, const char *file,
                      int lineno) {
   return SafeCalloc(nmemb, size, SourcePosition{bugNumber, file, lineno});
}

char *UtilSafeStrdup0(const char *s) { return SafeStrdup(s, Anywhere{}); }
char *UtilSafeStrdup1(const char *s, int bugNumber, const char *file, int lineno) {
   return SafeStrdup(s, SourcePosition{bugNumber, file, lineno});
}

char *UtilSafeStrndup0(const char *s, size_t n) { return SafeStrndup(s, n, Anywhere{}); }
char *UtilSafeStrndup1(const char *s, size_t n, int bugNumber, const char *file,
                       int lineno) {
   return SafeStrndup(s, n, SourcePosition{bugNumber, file, lineno});
}

void *Util_Memdup(const void *src, size_t size) {
   if (size == 0) {
      return nullptr;
   }
   void *copy = halcyx::Malloc(size);
   if (copy != nullptr) {
      memcpy(copy, src, size);
   }
   return copy;
}

void *Util_Memcpy(void *dest, const void *src, size_t count) {
   if (AllMultiplesOf(8, dest, src, count)) {
      CopyWords<uint64_t>(dest, src, count);
   } else if (AllMultiplesOf(4, dest, src, count)) {
      CopyWords<uint32_t>(dest, src, count);
   } else {
      memcpy(dest, src, count);
   }
   return dest;
}

void Util_Memfree(void *ptr) { free(ptr); }

}  // extern "C"
