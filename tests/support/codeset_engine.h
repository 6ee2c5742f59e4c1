// SPDX-License-Identifier: MIT
// Switches the code-set layer between its engines for a test: the ICU
// engine is chosen by a temporary directory holding an "icudt44l.dat" file,
// the built-in one by CodeSet_DontUseIcu. The built-in engine is restored
// when the switch goes out of scope.
#ifndef HALCYX_TESTS_SUPPORT_CODESET_ENGINE_H
#define HALCYX_TESTS_SUPPORT_CODESET_ENGINE_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "codeset.h"

namespace halcyx::test {

class IcuEngine {
public:
   IcuEngine() {
      char pattern[] = "/tmp/codeset-icu.XXXXXX";
      dir_ = mkdtemp(pattern);
      std::ofstream(dir_ + "/icudt44l.dat") << "switch";
      CodeSet_Init(dir_.c_str());
   }
   ~IcuEngine() {
      CodeSet_DontUseIcu();
      std::filesystem::remove_all(dir_);
   }
   IcuEngine(const IcuEngine &) = delete;
   IcuEngine &operator=(const IcuEngine &) = delete;
   const std::string &Dir() const { return dir_; }

private:
   std::string dir_;
};

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_CODESET_ENGINE_H
