// SPDX-License-Identifier: MIT
// Path calls on library strings: link targets of every length the buffer
// growth has to handle, canonical paths, and the errors callers see.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "posix.h"
#include "temp_dir.h"

using halcyx::test::TempDirTest;

namespace fs = std::filesystem;

namespace {

using PosixPaths = TempDirTest;

TEST_F(PosixPaths, ReadLinkReturnsTargetsOfAnyLengthAndRealPathResolves) {
   // The first buffer holds 2048 bytes and grows by 1024: targets at and
   // around each boundary, up to the longest the system accepts.
   for (size_t length : {1u, 2047u, 2048u, 2049u, 3072u, 4095u}) {
      std::string target(length, 't');
      fs::path link = dir_ / std::to_string(length);
      ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << length;
      char *read = Posix_ReadLink(link.c_str());
      ASSERT_NE(read, nullptr) << length;
      EXPECT_EQ(read, target);
      free(read);
   }
   fs::create_directories(dir_ / "a" / "b");
   fs::create_directory_symlink(dir_ / "a" / "b", dir_ / "link");
   char *real = Posix_RealPath((dir_ / "link" / ".." / "b" / ".").c_str());
   EXPECT_STREQ(real, (dir_ / "a" / "b").c_str());
   free(real);
}

TEST_F(PosixPaths, FailuresKeepTheSystemError) {
   std::ofstream(dir_ / "file") << "x";
   ASSERT_EQ(symlink("bad-\xff", (dir_ / "bad").c_str()), 0);
   struct Case {
      char *(*call)(const char *);
      fs::path path;
      int error;
   } cases[] = {
      {Posix_ReadLink, dir_ / "missing", ENOENT},
      {Posix_ReadLink, dir_ / "file", EINVAL},
      {Posix_ReadLink, dir_ / "bad", ERANGE},  // a target that is not text
      {Posix_RealPath, dir_ / "missing" / "x", ENOENT},
      {Posix_RealPath, dir_ / "file" / "x", ENOTDIR},
      {Posix_RealPath, "", EINVAL},  // no path at all
   };
   for (const Case &c : cases) {
      errno = 0;
      EXPECT_EQ(c.call(c.path.empty() ? nullptr : c.path.c_str()), nullptr) << c.path;
      EXPECT_EQ(errno, c.error) << c.path;
   }
}

}  // namespace
