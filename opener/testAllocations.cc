// SPDX-License-Identifier: MIT
/*
 * Allocation failure on demand, sandbox build only (see testSeams.h). The
 * opener is linked with --wrap for malloc, calloc and realloc, so every
 * allocation of the program, the C library and the linked-in libraries
 * passes through here (in sanitizer builds, whose C library is shared, only
 * those of the statically linked code).
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "testSeams.h"

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *pointer, size_t size);
}

namespace {

bool sArmed;
unsigned long sFailAt;
unsigned long sCount;

// Writes text and a decimal number to standard error without allocating.
void Say(const char *before, unsigned long n, const char *after) {
   char digits[24];
   size_t at = sizeof digits;
   do {
      digits[--at] = static_cast<char>('0' + n % 10);
      n /= 10;
   } while (n != 0);
   ssize_t ignored = write(STDERR_FILENO, before, strlen(before));
   ignored = write(STDERR_FILENO, digits + at, sizeof digits - at);
   ignored = write(STDERR_FILENO, after, strlen(after));
   (void)ignored;
}

bool Refuse() {
   if (!sArmed || ++sCount != sFailAt) {
      return false;
   }
   Say("halcyx-test: allocation ", sCount, " refused\n");
   errno = ENOMEM;
   return true;
}

void ReportCount() { Say("halcyx-test: ", sCount, " allocations\n"); }

}  // namespace

extern "C" {

void *__wrap_malloc(size_t size) { return Refuse() ? nullptr : __real_malloc(size); }

void *__wrap_calloc(size_t count, size_t size) {
   return Refuse() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *pointer, size_t size) {
   return Refuse() ? nullptr : __real_realloc(pointer, size);
}

void HalcyxTestAllocationsArm(void) {
   const char *text = getenv("HALCYX_TEST_FAIL_ALLOCATION");
   if (text == nullptr) {
      return;
   }
   sFailAt = strtoul(text, nullptr, 10);
   if (sFailAt == 0) {
      atexit(ReportCount);
   }
   sArmed = true;
}

}  // extern "C"
