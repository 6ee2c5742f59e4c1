// SPDX-License-Identifier: MIT
// Path names: the slash rules as tables, and the resolution of names that
// exist only in part.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "file.h"
#include "temp_dir.h"

namespace {

// Takes ownership of a returned text; null becomes "(null)".
std::string Take(char *s) {
   std::string out = s == nullptr ? "(null)" : s;
   free(s);
   return out;
}

struct SlashCase {
   const char *path;
   const char *splitDir, *splitBase;  // File_SplitName
   const char *nameDir, *nameBase;    // File_GetPathName
   const char *stripped;              // File_StripSlashes
   const char *collapsed;             // File_StripFwdSlashes
   const char *parent;                // File_GetParent
};

const SlashCase kSlashCases[] = {
   {"", "", "", "", "", "", "", "/"},
   {"/", "/", "", "", "", "", "/", "/"},
   {"a", "", "a", "", "a", "a", "a", "/"},
   {"/b", "/", "b", "", "b", "/b", "/b", "/"},
   {"a/", "a/", "", "a", "", "a", "a/", ""},
   {"a//", "a//", "", "a", "", "a", "a/", ""},
   {"/a/b", "/a/", "b", "/a", "b", "/a/b", "/a/b", "/a"},
   {"/a//b", "/a//", "b", "/a", "b", "/a//b", "/a/b", "/a"},
   {"a//b", "a//", "b", "a", "b", "a//b", "a/b", "a"},
   {"/a/b/", "/a/b/", "", "/a/b", "", "/a/b", "/a/b/", "/a"},
   {"//a///b/", "//a///b/", "", "//a///b", "", "//a///b", "/a/b/", "//a"},
   {"//", "//", "", "", "", "", "/", "/"},
};

TEST(PathSlashes, EveryFunctionFollowsItsRule) {
   for (const SlashCase &c : kSlashCases) {
      SCOPED_TRACE(std::string("path '") + c.path + "'");
      char *volume, *dir, *base;
      File_SplitName(c.path, &volume, &dir, &base);
      EXPECT_EQ(Take(volume), "");
      EXPECT_EQ(Take(dir), c.splitDir);
      EXPECT_EQ(Take(base), c.splitBase);
      File_GetPathName(c.path, &dir, &base);
      EXPECT_EQ(Take(dir), c.nameDir);
      EXPECT_EQ(Take(base), c.nameBase);
      EXPECT_EQ(Take(File_StripSlashes(c.path)), c.stripped);
      EXPECT_EQ(Take(File_StripFwdSlashes(c.path)), c.collapsed);
      char *p = strdup(c.path);
      EXPECT_EQ(File_GetParent(&p), std::string(c.path) == "/");
      EXPECT_EQ(Take(p), c.parent);
   }
   // Out-arguments are optional one by one.
   char *base;
   File_SplitName("/x/y", nullptr, nullptr, &base);
   EXPECT_EQ(Take(base), "y");
   File_GetPathName("/x/y", nullptr, &base);
   EXPECT_EQ(Take(base), "y");
}

TEST(PathSlashes, JoinDropsTheSeamSlashesOnly) {
   const struct { const char *dir, *base, *joined; } cases[] = {
      {"/", "x", "/x"},        {"a/", "//b", "a/b"},   {"", "b", "/b"},
      {"a//b//", "c//d", "a//b/c//d"}, {"a", "", "a/"}, {"", "", "/"},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Take(File_PathJoin(c.dir, c.base)), c.joined) << c.dir << " + " << c.base;
   }
   EXPECT_TRUE(File_IsFullPath("/x"));
   EXPECT_FALSE(File_IsFullPath("x/"));
   EXPECT_FALSE(File_IsFullPath(nullptr));
}

TEST(PathExtensions, OnlyTheLastComponentCounts) {
   EXPECT_EQ(Take(File_RemoveExtension("/a.b/c.tar.gz")), "/a.b/c.tar");
   EXPECT_EQ(Take(File_RemoveExtension("/a.b/c")), "/a.b/c");
   EXPECT_EQ(Take(File_RemoveExtension("/home/.profile")), "/home/");
   EXPECT_EQ(Take(File_RemoveExtension(".profile")), "");

   EXPECT_EQ(Take(File_ReplaceExtension("/d.x/f", ".new", 0)), "/d.x/f.new");
   EXPECT_EQ(Take(File_ReplaceExtension("/d/f.old", ".new", 0)), "/d/f.new");
   EXPECT_EQ(Take(File_ReplaceExtension("/d/f.old", ".new", 2, ".vmx", ".old")), "/d/f.new");
   // A listed extension must match whole and exactly.
   EXPECT_EQ(Take(File_ReplaceExtension("/d/f.olde", ".new", 1, ".old")), "/d/f.olde.new");
   EXPECT_EQ(Take(File_ReplaceExtension("/d/f.OLD", ".new", 1, ".old")), "/d/f.OLD.new");
}

TEST(PathPrefixMap, PrefixMustEndAtAComponentBoundary) {
   const char *oldOnes[] = {"/ab", "/abc/", "/"};
   const char *newOnes[] = {"/n", "/n//", "/root"};
   EXPECT_EQ(Take(File_MapPathPrefix("/abc/x", oldOnes, newOnes, 1)), "(null)");
   EXPECT_EQ(Take(File_MapPathPrefix("/abc/x", oldOnes, newOnes, 2)), "/n/x");
   EXPECT_EQ(Take(File_MapPathPrefix("/abc", oldOnes, newOnes, 2)), "/n");
   EXPECT_EQ(Take(File_MapPathPrefix("/ab/x", oldOnes, newOnes, 2)), "/n/x");
   // "/" without its slash is the empty prefix, which every absolute path has.
   EXPECT_EQ(Take(File_MapPathPrefix("/q", oldOnes + 2, newOnes + 2, 1)), "/root/q");
   EXPECT_EQ(Take(File_MapPathPrefix("/abc/x", oldOnes, newOnes, 0)), "(null)");
}

// The real directory sits behind a link, so resolution is visible.
class FullPath : public halcyx::test::TempDirTest {
protected:
   void SetUp() override {
      TempDirTest::SetUp();
      ASSERT_EQ(mkdir((dir_ / "real").c_str(), 0700), 0);
      ASSERT_EQ(symlink("real", (dir_ / "link").c_str()), 0);
      base_ = dir_.string();
   }
   std::string base_;
};

TEST_F(FullPath, KeepsWhatDoesNotExistBelowTheLongestExistingAncestor) {
   std::string real = base_ + "/real";
   EXPECT_EQ(Take(File_FullPath((base_ + "/link").c_str())), real);
   EXPECT_EQ(Take(File_FullPath((base_ + "/link/missing/sub//file").c_str())),
             real + "/missing/sub//file");
   EXPECT_EQ(Take(File_FullPath("/halcyx-missing-root//x")), "/halcyx-missing-root//x");

   // Relative names are taken below the current directory, in a child so
   // that the test's own directory stays.
   auto r = halcyx::test::RunInChild([&] {
      ASSERT_EQ(chdir((base_ + "/link").c_str()), 0);
      EXPECT_EQ(Take(File_FullPath("missing/sub/file")), real + "/missing/sub/file");
      EXPECT_EQ(Take(File_FullPath("")), real);
      EXPECT_EQ(Take(File_FullPath(nullptr)), real);
      EXPECT_EQ(Take(File_FullPath("..")), base_);
      if (::testing::Test::HasFailure()) _exit(1);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out << r.err;
}

TEST_F(FullPath, DeletedCurrentDirectoryGivesNullAndSaysWhy) {
   auto r = halcyx::test::RunInChild([&] {
      std::string gone = base_ + "/real/gone";
      ASSERT_EQ(mkdir(gone.c_str(), 0700), 0);
      ASSERT_EQ(chdir(gone.c_str()), 0);
      ASSERT_EQ(rmdir(gone.c_str()), 0);
      _exit(File_FullPath("x") == nullptr && File_Cwd("C:") == nullptr ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   auto lines = halcyx::test::LogEntries(r.out);
   ASSERT_EQ(lines.size(), 3u) << r.out;
   EXPECT_EQ(lines[0], "Warning: FILE: File_Cwd: getcwd() failed: No such file or directory\n");
   EXPECT_EQ(lines[1], "Warning: FILE: File_Cwd: Drive letter C: on Linux?\n");
}

}  // namespace
