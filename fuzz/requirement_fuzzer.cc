// SPDX-License-Identifier: MIT
// Fuzzes the requirement parser, and evaluates whatever parses against the
// evidence of a signature that established nothing (no chain, no info).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "codesignInt.h"

using namespace halcyx::codesign;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 32 * 1024) {
      return 0;
   }
   std::string text(reinterpret_cast<const char *>(data), size);
   Requirement req;
   std::string error;
   if (!ParseRequirement(text, &req, &error)) {
      if (error.find(" at offset ") == std::string::npos) {
         abort();  // every error names where it stopped
      }
      return 0;
   }
   Evidence ev;
   EvaluateRequirement(req, ev);
   return 0;
}
