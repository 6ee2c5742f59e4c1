// SPDX-License-Identifier: MIT
// CodeSet_Init without a directory asks product location for "icuDir" when
// the program links the location module (this test does; codeset_test does
// not, and covers the fixed fallback directory).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "child.h"
#include "codeset.h"
#include "location.h"

namespace {

bool Latin1Converts() {
   char *out = nullptr;
   bool ok = CodeSet_GenericToGeneric("latin1", "\xE9", 1, "UTF-8", 0, &out, nullptr);
   free(out);
   return ok;
}

TEST(EngineSelection, IcuDirectoryFromProductLocation) {
   ASSERT_NE(Location_Get_Addr(), nullptr);
   char pattern[] = "/tmp/codeset-location.XXXXXX";
   std::filesystem::path root = mkdtemp(pattern);
   std::filesystem::create_directories(root / "Contents/Resources/icu");
   std::ofstream(root / "Contents/Resources/icu/icudt44l.dat") << "switch";
   auto r = halcyx::test::RunInChild([&root] {
      setenv(LOCATION_ROOT_VARIABLE, root.c_str(), 1);
      if (!CodeSet_Init(nullptr) || !Latin1Converts()) {
         _exit(10);
      }
      // Location has no answer: the built-in engine, which has no Latin-1.
      unsetenv(LOCATION_ROOT_VARIABLE);
      if (!CodeSet_Init(nullptr) || Latin1Converts()) {
         _exit(11);
      }
   });
   std::filesystem::remove_all(root);
   EXPECT_EQ(r.ExitCode(), 0) << r.out;
}

}  // namespace
