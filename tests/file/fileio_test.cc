// SPDX-License-Identifier: MIT
// File handles: open outcomes, the read and write loops, messages, the
// handle's advisory lock and replace-by-rename.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <pwd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "setuid_install.h"
#include "file_test_util.h"
#include "fileIO.h"
#include "fileLock.h"

namespace fs = std::filesystem;
using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

class Handles : public ::testing::Test {
protected:
   void SetUp() override { tmp_.Write("existing", "abcd"); }

   halcyx::test::TempDir tmp_;
   std::string dir_ = tmp_.Path(""), existing_ = tmp_.Path("existing");
};

struct HookCall { int calls = 0; std::string path; int flags = 0; };
HookCall gHook;

int RecordingOpener(const char *path, int flags) {
   gHook.calls++;
   gHook.path = path;
   gHook.flags = flags;
   return open(path, flags);
}

TEST_F(Handles, OpenOutcomes) {
   std::string longName = dir_ + "/" + std::string(NAME_MAX + 1, 'n');
   struct Case {
      const char *what;
      std::string path;
      uint32_t access;
      int action;
      uint32_t result;
      int err;  // expected errno on failure
   } cases[] = {
      {"missing, open existing", dir_ + "/missing", FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN, FILEIO_FILE_NOT_FOUND, ENOENT},
      {"existing, create new", existing_, FILEIO_ACCESS_WRITE, FILEIO_ACTION_CREATE, FILEIO_OPEN_ERROR_EXIST, EEXIST},
      {"exclusive bits", existing_, FILEIO_ACCESS_WRITE | FILEIO_ACCESS_EXCLUSIVE_READ | FILEIO_ACCESS_EXCLUSIVE_WRITE, FILEIO_ACTION_OPEN_CREATE, FILEIO_OPEN_ERROR_EXIST, EEXIST},
      {"name too long", longName, FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN, FILEIO_FILE_NAME_TOO_LONG, ENAMETOOLONG},
      {"directory for writing", dir_, FILEIO_ACCESS_WRITE, FILEIO_ACTION_OPEN, FILEIO_ERROR, EISDIR},
      {"no such action", existing_, FILEIO_ACCESS_READ, 5, FILEIO_ERROR, EINVAL},
      {"mandatory lock", existing_, FILEIO_ACCESS_READ | FILEIO_ACCESS_LOCK_MANDATORY_REQ, FILEIO_ACTION_OPEN, FILEIO_LOCK_FAILED, -1},
      {"privileged create", dir_ + "/p2", FILEIO_ACCESS_PRIVILEGED | FILEIO_ACCESS_WRITE, FILEIO_ACTION_OPEN_CREATE, FILEIO_NO_PERMISSION, EACCES},
      {"privileged truncate", existing_, FILEIO_ACCESS_PRIVILEGED | FILEIO_ACCESS_WRITE, FILEIO_ACTION_OPEN_CREATE_TRUNCATE, FILEIO_NO_PERMISSION, EACCES},
      {"existing, open", existing_, FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN, FILEIO_SUCCESS, 0},
      {"privileged open", existing_, FILEIO_ACCESS_PRIVILEGED | FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN, FILEIO_SUCCESS, 0},
   };
   FileIO_SetPrivilegedOpener(RecordingOpener);
   for (const auto &c : cases) {
      gHook = {};
      FileIODescriptor fd;
      errno = 0;
      EXPECT_EQ(FileIO_Open(&fd, c.path.c_str(), c.access, c.action), c.result) << c.what;
      if (c.result == FILEIO_SUCCESS) {
         EXPECT_TRUE(FileIO_IsValid(&fd)) << c.what;
         EXPECT_EQ(FileIO_Close(&fd), FILEIO_SUCCESS);
      } else {
         if (c.err >= 0) {
            EXPECT_EQ(errno, c.err) << c.what;
         }
         EXPECT_FALSE(FileIO_IsValid(&fd)) << c.what;
         EXPECT_EQ(fd.fileName, nullptr) << c.what;
         EXPECT_EQ(fd.lockToken, nullptr) << c.what;
      }
      bool privileged = (c.access & FILEIO_ACCESS_PRIVILEGED) != 0;
      EXPECT_EQ(gHook.calls, privileged && c.result == FILEIO_SUCCESS ? 1 : 0) << c.what;
   }
   // The hook sees the path and the open flags unchanged.
   EXPECT_EQ(gHook.path, existing_);
   EXPECT_EQ(gHook.flags, O_RDONLY | O_CLOEXEC);
   FileIO_SetPrivilegedOpener(nullptr);
   EXPECT_FALSE(fs::exists(dir_ + "/p2"));
   EXPECT_EQ(fs::file_size(existing_), 4u);

   FileIODescriptor fd;
   errno = 0;
   EXPECT_EQ(FileIO_Open(&fd, nullptr, FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN), FILEIO_ERROR);
   EXPECT_EQ(errno, EFAULT);
}

TEST_F(Handles, ReadAndWriteLoops) {
   FileIODescriptor fd;
   char buf[10];
   size_t got = 99;
   ASSERT_EQ(FileIO_Open(&fd, existing_.c_str(), FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_Read(&fd, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(got, 4u);
   EXPECT_EQ(std::string(buf, 4), "abcd");
   FileIO_Close(&fd);

   // A full device: the write reports how far it came.
   ASSERT_EQ(FileIO_Open(&fd, "/dev/full", FILEIO_ACCESS_WRITE, FILEIO_ACTION_OPEN), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_Write(&fd, buf, sizeof buf, &got), FILEIO_WRITE_ERROR_NOSPC);
   EXPECT_EQ(got, 0u);
   FileIO_Close(&fd);
}

TEST_F(Handles, FatalMisuse) {
   struct Case {
      std::function<void()> body;
      const char *message;
   } cases[] = {
      {[] { FileIO_MsgError(FILEIO_ERROR_LAST); }, "NOT_IMPLEMENTED lib/file/fileIO:150 \n"},
      {[&] {
          FileIODescriptor fd;
          FileIO_Open(&fd, existing_.c_str(), FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN);
          char c;
          FileIO_Read(&fd, &c, size_t{1} << 31, nullptr);
       },
       "VERIFY lib/file/fileIOPosix:1026 \n"},
   };
   for (const auto &c : cases) {
      auto r = RunInChild(c.body);
      EXPECT_EQ(r.ExitCode(), 1) << c.message;
      auto entries = LogEntries(r.out);
      ASSERT_EQ(entries.size(), 1u) << r.out;
      EXPECT_EQ(entries[0], std::string("Panic: ") + c.message);
   }
}

// Without a hook, a privileged open raises to root for the open alone.
TEST(PrivilegedOpen, SuperUserOnlyForTheOpen) {
   halcyx::test::SetuidInstall install(PROBE_PATH, SCRATCH_DIR);
   if (install.Path().empty()) GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
   std::string secret = install.Dir() + "/root-only";
   std::ofstream(secret) << "s";
   ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
   auto r = halcyx::test::RunAsNobody(install.Path(), {"fileio_probe", secret});
   ASSERT_EQ(r.ExitCode(), 0) << "126: no identity change, 127: no exec\n" << r.err;
   EXPECT_EQ(r.out, "plain 7\nprivileged 0\neuid " + std::to_string(getpwnam("nobody")->pw_uid) + "\n");
}

TEST(HandleMessages, TextsOfResults) {
   EXPECT_STREQ(FileIO_MsgError(FILEIO_SUCCESS), "@&!*@*@(msg.fileio.success)Success");
   EXPECT_STREQ(FileIO_ErrorEnglish(FILEIO_LOCK_FAILED), "Failed to lock the file");
   EXPECT_STREQ(FileIO_ErrorEnglish(FILEIO_WRITE_ERROR_DQUOT),
                FileIO_ErrorEnglish(FILEIO_WRITE_ERROR_NOSPC));
   auto r = RunInChild([] { fputs(FileIO_MsgError(99), stderr); });
   EXPECT_EQ(r.err, "@&!*@*@(msg.fileio.unknown)Unknown error");
   auto entries = LogEntries(r.out);
   ASSERT_EQ(entries.size(), 1u);
   EXPECT_EQ(entries[0], "Warning: FileIO_MsgError: bad code 99\n");
}

TEST_F(Handles, AdvisoryLockIsHeldWhileOpen) {
   FileIODescriptor fd;
   ASSERT_EQ(FileIO_Open(&fd, existing_.c_str(), FILEIO_ACCESS_READ_WRITE | FILEIO_ACCESS_LOCK_BEST, FILEIO_ACTION_OPEN),
             FILEIO_SUCCESS);
   int err;
   EXPECT_TRUE(FileLock_IsLocked(existing_.c_str(), &err, nullptr));
   // Another process gives up after the handle layer's wait: a time-out is a
   // generic error, not "lock failed".
   auto r = RunInChild([&] {
      FileIODescriptor other;
      _exit(FileIO_Open(&other, existing_.c_str(), FILEIO_ACCESS_READ | FILEIO_ACCESS_LOCK_ADVISORY, FILEIO_ACTION_OPEN));
   });
   EXPECT_EQ(r.ExitCode(), static_cast<int>(FILEIO_ERROR)) << r.out;
   EXPECT_NE(r.out.find("FILE: FileIO_Lock on '" + existing_ + "' failed:"), std::string::npos);
   EXPECT_EQ(FileIO_Close(&fd), FILEIO_SUCCESS);
   EXPECT_FALSE(FileLock_IsLocked(existing_.c_str(), &err, nullptr));
   EXPECT_FALSE(fs::exists(existing_ + ".lck"));
}

TEST_F(Handles, DescriptorLockExcludesSecondOpen) {
   const uint32_t locked = FILEIO_ACCESS_READ | FILEIO_ACCESS_FLOCK, nonblock = locked | FILEIO_ACCESS_NONBLOCK;
   FileIODescriptor a, b;
   ASSERT_EQ(FileIO_Open(&a, existing_.c_str(), locked, FILEIO_ACTION_OPEN), FILEIO_SUCCESS);
   EXPECT_EQ(FileIO_Open(&b, existing_.c_str(), nonblock, FILEIO_ACTION_OPEN), FILEIO_ERROR);
   EXPECT_EQ(errno, EWOULDBLOCK);
   // The lock is part of the open: its failure is told as the open's.
   auto r = RunInChild([&] { FileIO_Open(&b, existing_.c_str(), nonblock, FILEIO_ACTION_OPEN); });
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{"FILE:open error on " + existing_ +
                                                         ": Resource temporarily unavailable\n"});
   FileIO_Close(&a);
   ASSERT_EQ(FileIO_Open(&b, existing_.c_str(), locked, FILEIO_ACTION_OPEN), FILEIO_SUCCESS);
   FileIO_Close(&b);
}

TEST_F(Handles, AtomicReplaceKeepsModeAndSwapsDescriptors) {
   ASSERT_EQ(chmod(existing_.c_str(), 0640), 0);
   FileIODescriptor curr, temp;
   ASSERT_EQ(FileIO_Open(&curr, existing_.c_str(), FILEIO_ACCESS_READ_WRITE, FILEIO_ACTION_OPEN), FILEIO_SUCCESS);
   std::ofstream(existing_ + "~") << "stale";
   ASSERT_EQ(FileIO_AtomicTempFile(&curr, &temp), FILEIO_SUCCESS);
   struct stat st;
   ASSERT_EQ(fstat(temp.fd, &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0640u);
   EXPECT_EQ(st.st_size, 0);
   ASSERT_EQ(FileIO_Write(&temp, "new", 3, nullptr), FILEIO_SUCCESS);
   ASSERT_TRUE(FileIO_AtomicUpdateEx(&temp, &curr));
   EXPECT_FALSE(FileIO_IsValid(&temp));
   EXPECT_FALSE(fs::exists(existing_ + "~"));
   char buf[8];
   size_t got;
   ASSERT_EQ(lseek(curr.fd, 0, SEEK_SET), 0);
   EXPECT_EQ(FileIO_Read(&curr, buf, sizeof buf, &got), FILEIO_READ_ERROR_EOF);
   EXPECT_EQ(std::string(buf, got), "new");
   FileIO_Close(&curr);
}

}  // namespace
