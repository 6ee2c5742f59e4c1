// SPDX-License-Identifier: MIT
// Fuzzes what is read from a bundle's Info.plist (XML or binary): the
// allowed-clients list a privileged listener admits by, and the keys that
// requirements look up with info[...]. The list is refused as a whole
// unless the bytes are a dictionary with a list of strings in the right
// place, and every listed client is parsed and evaluated as a requirement.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "codesignInt.h"
#include "serviceInt.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

using namespace halcyx;
using namespace halcyx::service;

namespace {

// Requirements over the Info dictionary, parsed once.
const std::vector<codesign::Requirement> &InfoRequirements() {
   static const std::vector<codesign::Requirement> reqs = [] {
      std::vector<codesign::Requirement> out;
      for (const char *text : {"info[CFBundleIdentifier] = \"com.zorvex.halcyx.cdshelper\"",
                               "info[CFBundleIdentifier] exists",
                               "info[CFBundleVersion] >= \"1\" or info[XPCService] exists",
                               "info[CFBundleName] = *\"Halcyx\"*"}) {
         codesign::Requirement req;
         std::string error;
         CHECK(codesign::ParseRequirement(text, &req, &error));
         out.push_back(std::move(req));
      }
      return out;
   }();
   return reqs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 64 * 1024) {
      return 0;
   }
   const std::string_view bytes(reinterpret_cast<const char *>(data), size);
   std::vector<std::string> clients;
   BundleFault fault = AllowedClientsOf(bytes, &clients);
   CHECK(fault >= kNoFault && fault <= kCopyFailed && fault != kNoMainBundle);
   CHECK(fault == kNoFault || clients.empty());

   codesign::Evidence ev;
   if (!codesign::ParseInfoPlist(bytes, &ev.info)) {
      CHECK(fault == kNoServiceDictionary && !ev.info);
      return 0;
   }
   for (const codesign::Requirement &req : InfoRequirements()) {
      codesign::EvaluateRequirement(req, ev);
   }
   size_t evaluated = 0;
   for (const std::string &text : clients) {
      codesign::Requirement req;
      std::string error;
      if (evaluated++ < 8 && codesign::ParseRequirement(text, &req, &error)) {
         codesign::EvaluateRequirement(req, ev);
      }
   }
   return 0;
}
