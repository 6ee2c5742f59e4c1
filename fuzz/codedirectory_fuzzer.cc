// SPDX-License-Identifier: MIT
// Fuzzes the code-directory parser: whatever it accepts must be exactly the
// canonical text that the formatter writes for the parsed values.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "codesignInt.h"

using namespace halcyx::codesign;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 8 * 1024) {
      return 0;
   }
   std::string text(reinterpret_cast<const char *>(data), size);
   CodeDirectory cd;
   if (ParseCodeDirectory(text, &cd) && FormatCodeDirectory(cd) != text) {
      abort();
   }
   return 0;
}
