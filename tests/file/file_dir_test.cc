// SPDX-License-Identifier: MIT
// Directory operations on real trees in a private temporary directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "file.h"
#include "file_test_util.h"
#include "log.h"
#include "stat_swap.h"

namespace {

using halcyx::test::TempDir;

TEST(FileUnlink, LinksTakeTheirTargetWithThemUnlessAskedNotTo) {
   TempDir t;
   t.Write("target", "x");
   t.Link("target", "link");
   EXPECT_EQ(File_UnlinkNoFollow(t.Path("link").c_str()), 0);
   EXPECT_TRUE(t.Exists("target"));

   // A relative link text names the file beside the link, whatever the
   // current directory holds under the same name.
   t.Link("target", "link");
   TempDir elsewhere;
   elsewhere.Write("target", "decoy");
   auto r = halcyx::test::RunInChild([&] {
      if (chdir(elsewhere.Path("").c_str()) != 0) _exit(3);
      int rc = File_Unlink(t.Path("link").c_str());
      _exit(rc == 0 && elsewhere.Exists("target") ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_FALSE(t.Exists("target"));
   EXPECT_FALSE(t.Exists("link"));

   // A dangling link goes alone.
   t.Link("gone", "dangling");
   errno = 0;
   EXPECT_EQ(File_Unlink(t.Path("dangling").c_str()), 0);
   EXPECT_FALSE(t.Exists("dangling"));

   errno = 0;
   EXPECT_EQ(File_Unlink(t.Path("missing").c_str()), ENOENT);
   EXPECT_EQ(errno, ENOENT);
   errno = 5;
   EXPECT_EQ(File_UnlinkIfExists(t.Path("missing").c_str()), 0);
   EXPECT_EQ(errno, 0);
   EXPECT_EQ(File_Unlink(nullptr), EFAULT);
}

TEST(FileDirectories, EnsureAcceptsOnlyDirectories) {
   TempDir t;
   ASSERT_EQ(mkdir(t.Path("d").c_str(), 0700), 0);
   t.Write("f", "");
   EXPECT_TRUE(File_EnsureDirectoryEx(t.Path("d").c_str(), 0755));
   int mode = 0;
   ASSERT_TRUE(File_GetFilePermissions(t.Path("d").c_str(), &mode));
   EXPECT_EQ(mode, S_IFDIR | 0700);
   errno = 0;
   EXPECT_FALSE(File_EnsureDirectoryEx(t.Path("f").c_str(), 0755));
   EXPECT_EQ(errno, ENOTDIR);
   EXPECT_FALSE(File_CreateDirectory(t.Path("d").c_str()));
   EXPECT_TRUE(File_EnsureDirectory(t.Path("new").c_str()));
   EXPECT_TRUE(File_IsDirectory(t.Path("new").c_str()));
   EXPECT_TRUE(File_IsEmptyDirectory(t.Path("new").c_str()));
   EXPECT_FALSE(File_IsEmptyDirectory(t.Path("").c_str()));
   EXPECT_FALSE(File_IsEmptyDirectory(t.Path("f").c_str()));
}

TEST(FileDirectories, HierarchyReportsTheFirstDirectoryItCreated) {
   TempDir t;
   ASSERT_EQ(mkdir(t.Path("a").c_str(), 0700), 0);
   char *first = nullptr;
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx(t.Path("a/b//c/").c_str(), 0750, &first));
   ASSERT_NE(first, nullptr);
   EXPECT_EQ(std::string(first), t.Path("a/b"));
   free(first);
   EXPECT_TRUE(File_IsDirectory(t.Path("a/b/c").c_str()));

   // Nothing new: success, and no first directory.
   char stale[] = "stale";
   first = stale;
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx(t.Path("a/b").c_str(), 0750, &first));
   EXPECT_EQ(first, nullptr);
   EXPECT_TRUE(File_CreateDirectoryHierarchyEx("", 0750, nullptr));

   // A plain file in the chain stops it with ENOTDIR.
   t.Write("a/b/file", "");
   auto r = halcyx::test::RunInChild([&] {
      char stale[] = "stale";
      char *made = stale;
      bool ok = File_CreateDirectoryHierarchyEx(t.Path("a/b/file/y").c_str(), 0750, &made);
      _exit(!ok && errno == ENOTDIR && made == nullptr ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(halcyx::test::LogEntries(r.out),
             std::vector<std::string>{"FILE: File_CreateDirectoryHierarchyEx: Failure on '" +
                                      t.Path("a/b/file") + "'. Error = 20\n"});

   // A later failure keeps what was made, and reports its first directory.
   std::string tooLong(NAME_MAX + 1, 'n');
   r = halcyx::test::RunInChild([&] {
      char *made = nullptr;
      bool ok = File_CreateDirectoryHierarchyEx(t.Path("a/x/" + tooLong + "/y").c_str(), 0750,
                                                &made);
      _exit(!ok && errno == ENAMETOOLONG && made != nullptr && t.Path("a/x") == made ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_TRUE(File_IsDirectory(t.Path("a/x").c_str()));
}

TEST(FileDirectories, TreeDeletionRemovesLinksNotWhatTheyPointTo) {
   TempDir outside;
   outside.Write("keep/file", "data");
   TempDir t;
   t.Write("tree/a/b/c", "1");
   t.Write("tree/top", "2");
   t.Link(outside.Path("keep"), "tree/a/dirlink");
   t.Link(outside.Path("keep/file"), "tree/filelink");
   ASSERT_EQ(mkfifo(t.Path("tree/a/fifo").c_str(), 0600), 0);
   t.Write("tree/a/\xff\xfe", "bad name");

   EXPECT_TRUE(File_DeleteDirectoryContent(t.Path("tree").c_str()));
   EXPECT_TRUE(File_IsEmptyDirectory(t.Path("tree").c_str()));
   EXPECT_TRUE(outside.Exists("keep/file"));

   t.Write("tree/again/x", "");
   EXPECT_TRUE(File_DeleteDirectoryTree(t.Path("tree").c_str()));
   EXPECT_FALSE(t.Exists("tree"));

   // Nothing there, or a path below a plain file: nothing to do.
   t.Write("plain", "");
   errno = 0;
   EXPECT_TRUE(File_DeleteDirectoryTree(t.Path("tree").c_str()));
   EXPECT_EQ(errno, 0);
   EXPECT_TRUE(File_DeleteDirectoryTree(t.Path("plain/below").c_str()));
   EXPECT_FALSE(File_DeleteDirectoryTree(t.Path("plain").c_str()));
   EXPECT_EQ(errno, ENOTDIR);
}

TEST(FileDirectories, TreeDeletionNeverEntersADirectorySwappedForALink) {
   TempDir outside;
   outside.Write("keep/file", "data");
   TempDir t;
   t.Write("tree/sub/x", "");
   // Between the look at "sub" and what follows, "sub" becomes a link out.
   halcyx::test::ArmSwap("sub", [&] {
      ASSERT_EQ(rename(t.Path("tree/sub").c_str(), t.Path("moved").c_str()), 0);
      ASSERT_EQ(symlink(outside.Path("keep").c_str(), t.Path("tree/sub").c_str()), 0);
   });
   EXPECT_TRUE(File_DeleteDirectoryTree(t.Path("tree").c_str()));
   EXPECT_TRUE(outside.Exists("keep/file"));
   EXPECT_FALSE(t.Exists("tree"));
   EXPECT_TRUE(t.Exists("moved/x"));
}

std::vector<std::string> List(const std::string &dir, int *count) {
   char **names = nullptr;
   *count = File_ListDirectory(dir.c_str(), &names);
   std::vector<std::string> out;
   for (int i = 0; i < *count; i++) {
      out.emplace_back(names[i]);
      free(names[i]);
   }
   free(names);
   std::sort(out.begin(), out.end());
   return out;
}

TEST(FileListing, InvalidNamesShareOneReplacementName) {
   TempDir t;
   ASSERT_EQ(mkdir(t.Path("empty").c_str(), 0700), 0);
   char *sentinel = nullptr;
   char **names = &sentinel;
   EXPECT_EQ(File_ListDirectory(t.Path("empty").c_str(), &names), 0);
   EXPECT_EQ(names, nullptr);
   errno = 0;
   EXPECT_EQ(File_ListDirectory(t.Path("missing").c_str(), nullptr), -1);
   EXPECT_EQ(errno, ENOENT);

   t.Write("d/plain", "");
   t.Write("d/\xc3\xa9t\xc3\xa9", "");  // valid UTF-8
   t.Write("d/bad\xff", "");
   t.Write("d/\xc3", "");
   auto r = halcyx::test::RunInChild([&] {
      int n;
      std::vector<std::string> listed = List(t.Path("d"), &n);  // sorted
      std::vector<std::string> want = {"plain", "\xc3\xa9t\xc3\xa9", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"};
      _exit(n == 3 && listed == want ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   auto lines = halcyx::test::LogEntries(r.out);
   std::sort(lines.begin(), lines.end());
   const std::string warning = "Warning: File_WalkDirectoryNext: file '" + t.Path("d") + "' in directory '";
   EXPECT_EQ(lines, (std::vector<std::string>{warning + "\\xC3' cannot be converted to UTF8\n",
                                              warning + "bad\\xFF' cannot be converted to UTF8\n"}));

   // A warning that cannot be written is no read error: the end of the
   // listing is still the end.
   ASSERT_EQ(unlink(t.Path("d/plain").c_str()), 0);
   ASSERT_EQ(unlink(t.Path("d/\xc3\xa9t\xc3\xa9").c_str()), 0);
   r = halcyx::test::RunInChild([&] {
      if (ServiceImplLogOpen("/dev/full") < 0) _exit(3);
      int n;
      List(t.Path("d"), &n);
      _exit(n == 1 ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0);
}

}  // namespace
