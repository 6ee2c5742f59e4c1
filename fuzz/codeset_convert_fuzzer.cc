// SPDX-License-Identifier: MIT
// Fuzzes the built-in conversion engine against ICU's: the first byte picks
// the pair of character sets and the flag, the rest is the input. Both
// engines must agree on success and on every output byte.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "codeset.h"
#include "misc/codesetInt.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   static const char *const kSets[] = {"UTF-8", "UTF-16LE", "UTF-16BE", "US-ASCII"};
   if (size == 0 || size > 4096) {
      return 0;
   }
   const char *from = kSets[data[0] & 3];
   const char *to = kSets[(data[0] >> 2) & 3];
   unsigned flags = (data[0] >> 4) % 3;
   auto in = reinterpret_cast<const char *>(data + 1);
   DynBuf ours, icu;
   DynBuf_Init(&ours);
   DynBuf_Init(&icu);
   CHECK(DynBuf_Append(&ours, "was", 3) && DynBuf_Append(&icu, "was", 3));
   bool oursOk = CodeSetOld_GenericToGenericDb(from, in, size - 1, to, flags, &ours);
   bool icuOk = halcyx::CodeSetIcuGenericToGenericDb(from, in, size - 1, to, flags, &icu);
   CHECK(oursOk == icuOk);
   CHECK(ours.size == icu.size && memcmp(ours.data, icu.data, ours.size) == 0);
   CHECK(oursOk || (ours.size == 3 && memcmp(ours.data, "was", 3) == 0));
   DynBuf_Destroy(&ours);
   DynBuf_Destroy(&icu);
   return 0;
}
