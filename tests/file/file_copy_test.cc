// SPDX-License-Identifier: MIT
// Copy and move: trees with links, special files and undecodable names,
// refusal to write through planted links, and (as root, in a private mount
// namespace) moves across file systems, a full file system in the middle
// of a copy, and extended attributes surviving a complete copy.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "file.h"
#include "file_test_util.h"
#include "internal/unique.h"
#include "msg.h"
#include "msgList.h"
#include "stat_swap.h"

namespace {

using halcyx::test::RunInChild;
using halcyx::test::TempDir;

// The pending user messages in English, taken (and cleared).
std::string PendingMessages() {
   MsgList *list = Msg_GetMsgListAndReset();
   halcyx::UniqueCStr text(MsgList_ToEnglishString(list));
   MsgList_Free(list);
   return text ? text.get() : "";
}

std::string LinkText(const std::string &path) {
   char buf[4096];
   ssize_t n = readlink(path.c_str(), buf, sizeof buf);
   return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

TEST(FileCopy, NeverOverwritesUnlessAskedAndNeverThroughALink) {
   TempDir t;
   t.Write("src", std::string(20000, 's'));
   t.Write("empty", "");
   t.Write("existing", "keep");
   t.Write("victim", "keep too");
   t.Link(t.Path("victim"), "planted");
   PendingMessages();

   EXPECT_FALSE(File_Copy(t.Path("src").c_str(), t.Path("existing").c_str(), false));
   EXPECT_EQ(errno, EEXIST);
   EXPECT_EQ(t.Read("existing"), "keep");
   // The handle layer's message is carried whole, identifier included.
   EXPECT_EQ(PendingMessages(), "Unable to create a new '" + t.Path("existing") +
                                   "' file: @&!*@*@(msg.fileio.exists)The file already exists.\n\n");

   EXPECT_TRUE(File_Copy(t.Path("src").c_str(), t.Path("existing").c_str(), true));
   EXPECT_EQ(t.Read("existing"), std::string(20000, 's'));
   EXPECT_TRUE(File_Copy(t.Path("empty").c_str(), t.Path("empty2").c_str(), false));
   EXPECT_TRUE(t.Exists("empty2"));
   EXPECT_EQ(t.Read("empty2"), "");

   EXPECT_FALSE(File_Copy(t.Path("src").c_str(), t.Path("planted").c_str(), true));
   EXPECT_EQ(t.Read("victim"), "keep too");
   EXPECT_EQ(LinkText(t.Path("planted")), t.Path("victim"));
   PendingMessages();

   EXPECT_FALSE(File_Copy(t.Path("missing").c_str(), t.Path("x").c_str(), true));
   EXPECT_EQ(PendingMessages(), "Unable to open the '" + t.Path("missing") +
                                   "' file for read access: "
                                   "@&!*@*@(msg.fileio.notfound)Could not find the file.\n\n");
}

TEST(FileMove, WithinOneFileSystemIsARename) {
   TempDir t;
   t.Write("a", "moved");
   ASSERT_EQ(chmod(t.Path("a").c_str(), 0751), 0);
   bool asRename = false;
   EXPECT_TRUE(File_Move(t.Path("a").c_str(), t.Path("b").c_str(), &asRename));
   EXPECT_TRUE(asRename);
   EXPECT_FALSE(t.Exists("a"));
   struct stat st;
   ASSERT_EQ(stat(t.Path("b").c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0751u);  // the same file, not a copy

   auto r = RunInChild([&] { _exit(File_SetFilePermissions(t.Path("missing").c_str(), 0644) ? 2 : 0); });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(halcyx::test::LogEntries(r.out),
             std::vector<std::string>{"FILE: File_SetFilePermissions: failed to change "
                                      "permissions on file \"" + t.Path("missing") +
                                      "\": No such file or directory\n"});
}

TEST(FileCopyTree, LinksAreRecreatedOrFollowedAndSpecialFilesRecreated) {
   TempDir t;
   t.Write("src/a/file", "A");
   t.Write("src/top", "T");
   t.Link("../top", "src/a/rel");
   t.Link(t.Path("src/a"), "src/abs");
   ASSERT_EQ(mkfifo(t.Path("src/fifo").c_str(), 0640), 0);
   ASSERT_EQ(mkdir(t.Path("plain").c_str(), 0755), 0);
   ASSERT_EQ(mkdir(t.Path("followed").c_str(), 0755), 0);

   ASSERT_TRUE(File_CopyTree(t.Path("src").c_str(), t.Path("plain").c_str(), false, false))
      << PendingMessages();
   EXPECT_EQ(t.Read("plain/a/file"), "A");
   EXPECT_EQ(LinkText(t.Path("plain/a/rel")), "../top");
   EXPECT_EQ(LinkText(t.Path("plain/abs")), t.Path("src/a"));
   struct stat st;
   ASSERT_EQ(lstat(t.Path("plain/fifo").c_str(), &st), 0);
   EXPECT_TRUE(S_ISFIFO(st.st_mode));

   ASSERT_EQ(unlink(t.Path("src/fifo").c_str()), 0);
   ASSERT_TRUE(File_CopyTree(t.Path("src").c_str(), t.Path("followed").c_str(), false, true))
      << PendingMessages();
   ASSERT_EQ(lstat(t.Path("followed/a/rel").c_str(), &st), 0);
   EXPECT_TRUE(S_ISREG(st.st_mode));
   EXPECT_EQ(t.Read("followed/a/rel"), "T");
   EXPECT_EQ(t.Read("followed/abs/file"), "A");

   // A link back up to a directory being copied ends the copy.
   t.Link("..", "src/a/up");
   ASSERT_EQ(mkdir(t.Path("looped").c_str(), 0755), 0);
   PendingMessages();
   EXPECT_FALSE(File_CopyTree(t.Path("src").c_str(), t.Path("looped").c_str(), false, true));
   EXPECT_EQ(errno, ELOOP);
   std::string said = PendingMessages();
   EXPECT_NE(said.find("/up' to '" + t.Path("looped/")), std::string::npos) << said;
   EXPECT_NE(said.find("': Too many levels of symbolic links"), std::string::npos) << said;
   ASSERT_EQ(unlink(t.Path("src/a/up").c_str()), 0);

   // Copying again without overwriting stops at the first entry that exists.
   PendingMessages();
   EXPECT_FALSE(File_CopyTree(t.Path("src").c_str(), t.Path("followed").c_str(), false, true));
   EXPECT_NE(PendingMessages().find("Unable to copy '"), std::string::npos);

   t.Write("notdir", "");
   EXPECT_FALSE(File_CopyTree(t.Path("notdir").c_str(), t.Path("plain").c_str(), true, false));
   EXPECT_FALSE(File_CopyTree(t.Path("src").c_str(), t.Path("notdir").c_str(), true, false));
   EXPECT_EQ(PendingMessages(),
             "Source path '" + t.Path("notdir") + "' is not a directory.\n" +
                "Destination path '" + t.Path("notdir") + "' is not a directory.\n");
}

TEST(FileCopyTree, NeverGoesThroughALinkItDoesNotFollow) {
   TempDir outside;
   outside.Write("secret", "s");
   TempDir t;
   t.Write("src/a/file", "A");
   t.Write("src/b/file", "B");
   t.Link(outside.Path(""), "dst/a");  // planted in the destination
   PendingMessages();
   EXPECT_FALSE(File_CopyTree(t.Path("src").c_str(), t.Path("dst").c_str(), true, false));
   EXPECT_FALSE(outside.Exists("file"));
   EXPECT_EQ(PendingMessages(), "Unable to copy '" + t.Path("src/a") + "' to '" + t.Path("dst/a") +
                                   "': Not a directory\n\n");

   // A source directory swapped for a link after it was looked at.
   t.Write("src2/sub/f", "");
   ASSERT_EQ(mkdir(t.Path("dst2").c_str(), 0755), 0);
   halcyx::test::ArmSwap("sub", [&] {
      ASSERT_EQ(rename(t.Path("src2/sub").c_str(), t.Path("moved").c_str()), 0);
      ASSERT_EQ(symlink(outside.Path("").c_str(), t.Path("src2/sub").c_str()), 0);
   });
   EXPECT_FALSE(File_CopyTree(t.Path("src2").c_str(), t.Path("dst2").c_str(), true, false));
   EXPECT_FALSE(t.Exists("dst2/sub/secret"));
   PendingMessages();
}

TEST(FileCopyTree, UndecodableNameStopsTheCopyWithAMessage) {
   TempDir t;
   t.Write("src/bad\xff", "x");
   ASSERT_EQ(mkdir(t.Path("dst").c_str(), 0755), 0);
   auto r = RunInChild([&] {
      bool ok = File_CopyTree(t.Path("src").c_str(), t.Path("dst").c_str(), true, false);
      std::string said = PendingMessages();
      _exit(!ok && said == "Unable to get information on '" + t.Path("src") +
                              "/\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd' when copying files.\n\n" ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out;
}

// Runs body in a child with its own mount namespace and a tmpfs of the
// given size mounted on mountPoint. Root only.
halcyx::test::ChildResult WithTmpfs(const std::string &mountPoint, const char *size,
                                    const std::function<void()> &body) {
   return RunInChild([&] {
      if (unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, size) != 0) {
         perror("private tmpfs");
         _exit(99);
      }
      body();
   });
}

class FileAcrossMounts : public ::testing::Test {
protected:
   void SetUp() override {
      if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
      ASSERT_EQ(mkdir(t_.Path("mnt").c_str(), 0755), 0);
   }
   TempDir t_;
};

// A move across file systems copies, then deletes the source; one whose
// source cannot be deleted (a read-only mount) still succeeds.
TEST_F(FileAcrossMounts, MoveCopiesThenDeletesTheSourceIfItCan) {
   std::string data(100000, 'm');
   t_.Write("src", data);
   auto r = WithTmpfs(t_.Path("mnt"), "size=1m", [&] {
      bool asRename = true;
      bool ok = File_Move(t_.Path("src").c_str(), t_.Path("mnt/dst").c_str(), &asRename);
      if (!ok || asRename || errno != 0 || t_.Exists("src") || t_.Read("mnt/dst") != data) _exit(2);
      if (mount(nullptr, t_.Path("mnt").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) _exit(98);
      asRename = true;
      ok = File_Move(t_.Path("mnt/dst").c_str(), t_.Path("back").c_str(), &asRename);
      _exit(ok && !asRename && errno == 0 && t_.Read("mnt/dst") == data && t_.Read("back") == data ? 0 : 3);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.err;
}

TEST_F(FileAcrossMounts, FullFileSystemRemovesTheHalfWrittenCopy) {
   t_.Write("big", std::string(1 << 20, 'b'));
   auto r = WithTmpfs(t_.Path("mnt"), "size=64k", [&] {
      bool ok = File_Copy(t_.Path("big").c_str(), t_.Path("mnt/big").c_str(), false);
      int err = errno;
      std::string said = PendingMessages();
      bool told = said.find("Write error: ") == 0 &&
                  said.find("There is no space left on the device") != std::string::npos;
      _exit(!ok && err == ENOSPC && told && !t_.Exists("mnt/big") ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.err;

   // The complete copy leaves an empty file for its caller to remove.
   r = WithTmpfs(t_.Path("mnt"), "size=64k", [&] {
      int in = open(t_.Path("big").c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
      int out = open(t_.Path("mnt/big").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
      bool ok = File_CopyDescriptorAll(in, out);
      int err = errno;
      struct stat st;
      _exit(!ok && err == ENOSPC && fstat(out, &st) == 0 && st.st_size == 0 ? 0 : 2);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.err;
   EXPECT_EQ(halcyx::test::LogEntries(r.out),
             std::vector<std::string>{"FILE: File_CopyDescriptorAll: data copy failed: "
                                      "No space left on device\n"});
}

TEST_F(FileAcrossMounts, CompleteCopyCarriesAttributesOwnerModeAndTimes) {
   t_.Write("signed", std::string(70000, 'x'), 0600);
   std::string src = t_.Path("signed");
   const std::string signature(3000, '\x5a');
   ASSERT_EQ(setxattr(src.c_str(), "user.zorvex.cs.CodeSignature", signature.data(),
                      signature.size(), 0), 0);
   ASSERT_EQ(setxattr(src.c_str(), "user.empty", "", 0, 0), 0);
   ASSERT_EQ(chown(src.c_str(), 65534, 65534), 0);
   ASSERT_EQ(chmod(src.c_str(), 04751), 0);
   const struct timespec times[2] = {{1000000000, 5}, {1100000000, 7}};

   // Once within one file system (the kernel copies) and once across two.
   for (const char *dst : {"same", "mnt/other"}) {
      SCOPED_TRACE(dst);
      // Reading the source moves its access time on.
      ASSERT_EQ(utimensat(AT_FDCWD, src.c_str(), times, 0), 0);
      auto r = WithTmpfs(t_.Path("mnt"), "size=1m", [&] {
         int in = open(src.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
         int out = open(t_.Path(dst).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
         if (!File_CopyDescriptorAll(in, out)) {
            perror("copy");
            _exit(2);
         }
         char value[4096];
         ssize_t n = fgetxattr(out, "user.zorvex.cs.CodeSignature", value, sizeof value);
         struct stat st;
         fstat(out, &st);
         bool same = n == static_cast<ssize_t>(signature.size()) &&
                     std::string(value, static_cast<size_t>(n)) == signature &&
                     fgetxattr(out, "user.empty", value, sizeof value) == 0 &&
                     st.st_size == 70000 && st.st_uid == 65534 && st.st_gid == 65534 &&
                     (st.st_mode & 07777) == 04751 && st.st_mtim.tv_sec == 1100000000 &&
                     st.st_mtim.tv_nsec == 7 && st.st_atim.tv_sec == 1000000000 &&
                     t_.Read(dst) == std::string(70000, 'x');
         _exit(same ? 0 : 3);
      });
      EXPECT_EQ(r.ExitCode(), 0) << r.err;
   }
}

}  // namespace
