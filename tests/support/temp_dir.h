// SPDX-License-Identifier: MIT
// A test fixture with a fresh directory of its own under the temporary
// directory (its real path), removed with everything in it afterwards.
#ifndef HALCYX_TESTS_SUPPORT_TEMP_DIR_H
#define HALCYX_TESTS_SUPPORT_TEMP_DIR_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace halcyx::test {

class TempDirTest : public ::testing::Test {
protected:
   void SetUp() override {
      std::string pattern = (std::filesystem::temp_directory_path() / "halcyx-XXXXXX").string();
      ASSERT_NE(mkdtemp(pattern.data()), nullptr);
      dir_ = std::filesystem::canonical(pattern);
   }
   void TearDown() override {
      std::error_code ignored;
      std::filesystem::remove_all(dir_, ignored);
   }

   std::filesystem::path dir_;
};

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_TEMP_DIR_H
