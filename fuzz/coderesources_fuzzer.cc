// SPDX-License-Identifier: MIT
// Fuzzes the CodeResources reader: whatever it accepts must be exactly the
// text that the writer makes of the parsed seal, and read back unchanged.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "codesignInt.h"

using namespace halcyx::codesign;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 256 * 1024) {
      return 0;
   }
   std::string text(reinterpret_cast<const char *>(data), size);
   Seal seal, again;
   if (!ParseCodeResources(text, &seal)) {
      return 0;
   }
   const std::string canonical = FormatCodeResources(seal);
   if (canonical != text || !ParseCodeResources(canonical, &again) || again.size() != seal.size()) {
      abort();
   }
   for (const auto &[path, e] : seal) {
      const SealedEntry &f = again[path];
      if (f.isLink != e.isLink || f.target != e.target || f.hash != e.hash) {
         abort();
      }
   }
   return 0;
}
