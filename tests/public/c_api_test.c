// SPDX-License-Identifier: MIT
/*
 * Every public header, compiled as C, and a few calls through the C API from
 * a C translation unit: the names must link unmangled.
 */
#include "all_public_headers.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void) {
   char buf[32];
   if (Str_Snprintf(buf, sizeof buf, "%s-%d", "c", 42) != 4 || strcmp(buf, "c-42") != 0) {
      fprintf(stderr, "Str_Snprintf from C: %s\n", buf);
      return 1;
   }
   char *copy = UtilSafeStrdup0("from C");
   int ok = copy != NULL && strcmp(copy, "from C") == 0;
   Util_Memfree(copy);
   if (!ok) {
      return 1;
   }
   if (Unicode_EncodingNameToEnum("utf8") != UNICODE_ENCODING_UTF8 ||
       !CodeSet_IsValidUTF8("\xC3\xA9", 2)) {
      fputs("Unicode/CodeSet from C\n", stderr);
      return 1;
   }
   puts("C API ok");
   return 0;
}
