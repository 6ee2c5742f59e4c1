// SPDX-License-Identifier: MIT
// Fuzzes UTF-8 validation: every fast path must give the answer of the plain
// automaton, on the input as it is and shifted behind runs of ASCII so that
// each byte meets every block position.
#include <cstdint>
#include <cstring>
#include <string>

#include "codeset.h"
#include "misc/codesetInt.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 4096) {
      return 0;
   }
   for (size_t shift : {0, 1, 31, 63}) {
      std::string s(shift, 'a');
      s.append(reinterpret_cast<const char *>(data), size);
      auto bytes = reinterpret_cast<const uint8_t *>(s.data());
      bool expected = halcyx::CodeSetValidateUtf8Dfa(bytes, s.size());
      CHECK(CodeSet_IsValidUTF8(s.data(), s.size()) == expected);
      CHECK(halcyx::CodeSetValidateUtf8Scalar(bytes, s.size()) == expected);
      if (halcyx::CodeSetHasAvx2()) {
         CHECK(halcyx::CodeSetValidateUtf8Avx2(bytes, s.size()) == expected);
      }
      CHECK(CodeSet_IsValidUTF8String(s.data(), s.size()) ==
            (expected && std::memchr(s.data(), 0, s.size()) == nullptr));
   }
   return 0;
}
