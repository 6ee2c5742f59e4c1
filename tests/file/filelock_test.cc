// SPDX-License-Identifier: MIT
// Lock files within one host: the directory protocol against what other
// processes (live, dead or foreign) leave in a lock directory.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "child.h"
#include "file_test_util.h"
#include "file/fileLockInt.h"
#include "err.h"
#include "fileLock.h"
#include "internal/unique.h"
#include "msgList.h"

namespace fs = std::filesystem;
using namespace halcyx::filelock;
using halcyx::test::RunInChild;

// The process's file-creation mask is shared by all its threads: library
// code must never change it. Every call is counted.
std::atomic<int> gUmaskCalls;
extern "C" mode_t umask(mode_t mask) noexcept {
   gUmaskCalls++;
   return static_cast<mode_t>(syscall(SYS_umask, mask));
}

namespace {

// A process of this host that has already ended.
std::string DeadExecutionID() {
   pid_t pid = fork();
   if (pid == 0) _exit(0);
   waitpid(pid, nullptr, 0);
   return std::to_string(pid) + "-1";
}

class LockDir : public ::testing::Test {
public:
   halcyx::test::TempDir tmp_;
   std::string dir_ = tmp_.Path(""), path_ = dir_ + "/target", lck_ = path_ + ".lck";

   // A member file of this host as another locker would leave it.
   // Its location checksum is this lock directory's unless lc is given.
   void Plant(const std::string &name, const std::string &execID, size_t size = kMemberSize,
              const std::string &lc = "") {
      std::string text = std::string(GetMachineID()) + " " + execID + " 1 X 0 lc=" +
                         (lc.empty() ? std::to_string(LocationChecksum(lck_.c_str())) : lc);
      text.resize(size, '\0');
      tmp_.Write("target.lck/" + name, text);
   }
};

TEST(MemberFormat, ParsesValidRecordsAndRejectsProblematicOnes) {
   struct Case { const char *text; bool ok; const char *execID = nullptr; uint32_t ticket = 0; const char *lc = nullptr; };
   const Case cases[] = {
      {"uuid=52-aa 123-456 7 X 456 lc=99", true, "123-456", 7, "99"},
      {"uuid=52-aa 123-456 7 S 456", true, "123-456", 7, nullptr},
      // A bare process id is read as pid-starttime.
      {"OLDID 123 4 S 99 lc=5", true, "123-99", 4, "5"}, {"OLDID 123 4 S 99", true, "123", 4, nullptr},
      {"id 1-2 3 X", false}, {"id 1-2 3x X 2", false}, {"id 1-2 4294967296 X 2", false}, {"id 1-2 3 Y 2", false},
      {"id 1-2 3 X 2 novalue", false}, {"id 1-2 3 X 2 k=", false},
      {"id 1-2 3 X 2 a=1 b=1 c=1 d=1 e=1 f=1 g=1 h=1 i=1 j=1 k=1", true, "1-2", 3, nullptr},
      {"id 1-2 3 X 2 a=1 b=1 c=1 d=1 e=1 f=1 g=1 h=1 i=1 j=1 k=1 l=1", false},
   };
   for (const auto &c : cases) {
      LockValues v;
      char **argv = nullptr;
      int argc = 0;
      EXPECT_EQ(ParseMember(c.text, &v, &argv, &argc), c.ok) << c.text;
      if (c.ok) {
         EXPECT_STREQ(v.executionID, c.execID) << c.text;
         EXPECT_EQ(v.ticket, c.ticket) << c.text;
         EXPECT_STREQ(v.locationChecksum, c.lc) << c.text;
      }
      FreeArgv(argv, argc);
      FreeValues(&v);
   }
}

TEST(MemberFormat, NamesAndLocationChecksum) {
   for (const char *good : {"M00000.lck", "D65535.lck", "E12345.lck", "M123456.lck"}) EXPECT_TRUE(ValidName(good));
   for (const char *bad : {"X00000.lck", "M0000.lck", "M0000a.lck", "M00000.lc", "junk", "M"})
      EXPECT_FALSE(ValidName(bad)) << bad;
   // Bytes above 0x7f count as negative, as on every other host.
   EXPECT_EQ(LocationChecksum(""), 5381u);
   EXPECT_EQ(LocationChecksum("a"), 5381u * 33 + 'a');
   EXPECT_EQ(LocationChecksum("\xff"), 5381u * 33 - 1);
}

TEST(MachineIdentity, MatchesAcrossForms) {
   const char *local = GetMachineID();
   const char *old = GetOldMachineID();
   ASSERT_EQ(strlen(old), 16u);
   if (strncmp(local, "uuid=", 5) != 0) GTEST_SKIP() << "no SHA-1 on this host";
   struct Case { const char *a, *b; bool match; } cases[] = {
      {local, local, true}, {local, old, true}, {local, "not*base64", false}, {old, local, false}, {old, old, true},
   };
   for (const auto &c : cases) EXPECT_EQ(MachineIDMatch(c.a, c.b), c.match) << c.a << " vs " << c.b;
}

TEST(MachineIdentity, OldFormsMatchByHardwareAlone) {
   // Hardware bytes 0xff come out as "/" in Base64, written "-" in the ID.
   const uint64_t hardware = 0xffffffffffff0000ull;
   halcyx::UniqueCStr local(OldMachineID(0x01020304, hardware));
   halcyx::UniqueCStr renamed(OldMachineID(0x0a0b0c0d, hardware));
   halcyx::UniqueCStr otherHardware(OldMachineID(0x01020304, hardware ^ 0x10000));
   ASSERT_NE(strchr(local.get(), '-'), nullptr) << local.get();
   struct Case { const char *a, *b; bool match; } cases[] = {
      {local.get(), local.get(), true}, {local.get(), renamed.get(), true},
      {local.get(), otherHardware.get(), false}, {local.get(), "not*base64", false},
      {"not*base64", local.get(), false},
   };
   for (const auto &c : cases) EXPECT_EQ(OldMachineIDMatch(c.a, c.b), c.match) << c.a << " vs " << c.b;
}

TEST(ExecutionIdentity, ValidOnlyWhileThatProcessRuns) {
   char *own = GetExecutionID();
   ASSERT_NE(own, nullptr);
   std::string self = own;
   free(own);
   uint64_t start = std::stoull(self.substr(self.find('-') + 1));
   std::string pid = std::to_string(getpid());
   struct Case { std::string id; bool valid; } cases[] = {
      {self, true}, {pid + "-0", true}, {pid, true}, {DeadExecutionID(), false},
      {pid + "-" + std::to_string(start + 1), false},  // a recycled process id
      {DeadExecutionID() + "x", false},  // trailing text is not read
      {"garbage", true},  // unparsable: never delete on a guess
   };
   for (const auto &c : cases) EXPECT_EQ(ValidExecutionID(c.id.c_str()), c.valid) << c.id;

   // Each process carries its own start time: one started later reads later.
   usleep(50000);
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   pid_t child = fork();
   if (child == 0) {
      char c;
      close(fds[1]);
      _exit(read(fds[0], &c, 1) < 0 ? 1 : 0);
   }
   uint64_t childStart = 0;
   EXPECT_TRUE(ProcessStartTime(child, &childStart));
   EXPECT_GT(childStart, start);
   close(fds[0]);
   close(fds[1]);
   waitpid(child, nullptr, 0);
}

TEST(LockPath, Normalization) {
   struct Case { const char *in; std::string out; } cases[] = {
      {"file", "./file"}, {"", "./"},  // a bare name stays relative
      {"//file", "/file"}, {".//x", fs::current_path().string() + "/x"},
   };
   for (const auto &c : cases) {
      halcyx::UniqueCStr n(NormalizePath(c.in));
      ASSERT_NE(n.get(), nullptr) << c.in;
      EXPECT_EQ(n.get(), c.out) << c.in;
   }
   // Failures reach the caller's message list, newest first.
   int err = 0;
   MsgList *msgs = nullptr;
   EXPECT_EQ(FileLock_Lock(nullptr, false, 0, &err, &msgs), nullptr);
   EXPECT_EQ(err, EINVAL);
   EXPECT_FALSE(FileLock_Unlock(nullptr, &err, nullptr));
   EXPECT_EQ(err, EINVAL);
   EXPECT_EQ(FileLock_Lock("/no/such/dir/x", false, 0, &err, &msgs), nullptr);
   EXPECT_EQ(err, ENOENT);
   ASSERT_NE(msgs, nullptr);
   EXPECT_STREQ(MsgList_GetMsgID(msgs), "msg.fileLock.posix");
   EXPECT_EQ(halcyx::UniqueCStr(MsgList_ToEnglishString(msgs)).get(),
             std::string("A file locking error (2) has occurred: ") + Err_Errno2String(ENOENT) +
                ".\nA file locking error (22) has occurred: " + Err_Errno2String(EINVAL) + ".\n");
   MsgList_Free(msgs);
}

// The lock directory is open to every user, made without touching the umask.
TEST_F(LockDir, SharedLockersShareExclusiveOnesExcludeInADirectoryOpenToAll) {
   umask(022);
   gUmaskCalls = 0;
   struct Case { bool firstShared, secondShared, secondGets; } cases[] = {
      {true, true, true}, {true, false, false}, {false, true, false}, {false, false, false},
   };
   for (const auto &c : cases) {
      int err = -1;
      FileLockToken *first = FileLock_Lock(path_.c_str(), c.firstShared, 0, &err, nullptr);
      ASSERT_NE(first, nullptr);
      struct stat st;
      ASSERT_EQ(stat(lck_.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 07777, 0777u);
      EXPECT_TRUE(FileLock_IsLocked(path_.c_str(), &err, nullptr));
      // Another process, so that the member is judged as a live neighbour's.
      auto r = RunInChild([&] {
         int e = -1;
         FileLockToken *second = FileLock_Lock(path_.c_str(), c.secondShared, 0, &e, nullptr);
         if (second != nullptr) _exit(FileLock_Unlock(second, &e, nullptr) ? 0 : 3);
         _exit(e == EAGAIN ? 1 : 2);
      });
      EXPECT_EQ(r.ExitCode(), c.secondGets ? 0 : 1) << c.firstShared << c.secondShared << r.out;
      EXPECT_TRUE(FileLock_Unlock(first, &err, nullptr));
      EXPECT_FALSE(FileLock_IsLocked(path_.c_str(), &err, nullptr));
      EXPECT_EQ(err, 0);
      EXPECT_FALSE(fs::exists(lck_)) << "an empty lock directory is removed";
   }
   EXPECT_EQ(gUmaskCalls, 0);
}

TEST_F(LockDir, TouchingTheHoldersMemberDoesNotReleaseIt) {
   int err = -1;
   FileLockToken *held = FileLock_Lock(path_.c_str(), false, 0, &err, nullptr);
   ASSERT_NE(held, nullptr);
   std::string member = fs::directory_iterator(lck_)->path().string();
   FileLockToken *second = nullptr;
   int secondErr = -1;
   std::thread waiter([&] { second = FileLock_Lock(path_.c_str(), false, 1500, &secondErr, nullptr); });
   usleep(500000);  // the waiter is waiting for the holder by now
   EXPECT_EQ(chmod(member.c_str(), 0600), 0);
   EXPECT_EQ(utimensat(AT_FDCWD, member.c_str(), nullptr, 0), 0);
   waiter.join();
   EXPECT_EQ(second, nullptr) << "two holders of one exclusive lock";
   EXPECT_EQ(secondErr, EAGAIN);
   if (second != nullptr) FileLock_Unlock(second, &err, nullptr);
   EXPECT_TRUE(FileLock_Unlock(held, &err, nullptr));
}

TEST_F(LockDir, LeftoversAreCleared) {
   // holdsLock: the leftover still blocks an exclusive try.
   struct Case { const char *what; std::function<void(LockDir *)> plant; bool holdsLock; } cases[] = {
      {"foreign file", [](LockDir *t) { t->tmp_.Write("target.lck/junk", "x"); }, false},
      {"foreign directory", [](LockDir *t) { fs::create_directories(t->lck_ + "/sub"); }, false},
      {"short member", [](LockDir *t) { t->Plant("M00001.lck", "1-1", 511); }, false},
      {"unparsable member", [](LockDir *t) { t->tmp_.Write("target.lck/M00002.lck", std::string(512, 'g')); }, false},
      {"dead local holder", [](LockDir *t) { t->Plant("M00003.lck", DeadExecutionID()); }, false},
      {"moved lock directory",  // our own process, but written for another place
       [](LockDir *t) { t->Plant("M00004.lck", halcyx::UniqueCStr(GetExecutionID()).get(), kMemberSize, "1"); }, false},
      {"live local holder", [](LockDir *t) { t->Plant("M00005.lck", "1-0"); }, true},  // init never ends
      {"lock path is a regular file", [](LockDir *t) { t->tmp_.Write("target.lck", "x"); }, false},
      {"lock path is a link to a directory",
       [](LockDir *t) { t->tmp_.Write("elsewhere/keep", ""); t->tmp_.Link(t->dir_ + "/elsewhere", "target.lck"); }, false},
      {"member is a link to another file",
       [](LockDir *t) { t->tmp_.Write("secret", std::string(512, 's')); t->tmp_.Link(t->dir_ + "/secret", "target.lck/M00006.lck"); }, false},
      {"member is a FIFO", [](LockDir *t) { fs::create_directories(t->lck_); mkfifo((t->lck_ + "/M00007.lck").c_str(), 0644); }, false},
   };
   for (const auto &c : cases) {
      auto r = RunInChild([&] {
         c.plant(this);  // here, so that "own" members are the locker's own
         int e;
         FileLockToken *t = FileLock_Lock(path_.c_str(), false, 0, &e, nullptr);
         _exit(t != nullptr ? 0 : e == EAGAIN ? 1 : 2);
      });
      EXPECT_EQ(r.ExitCode(), c.holdsLock ? 1 : 0) << c.what << "\n" << r.out;
      if (!c.holdsLock) {
         // The child's own member stays (it never unlocked); nothing else.
         auto it = fs::directory_iterator(lck_);
         EXPECT_EQ(it->path().filename().string()[0], 'M') << c.what;
         EXPECT_EQ(++it, fs::directory_iterator()) << c.what;
      }
      EXPECT_EQ(r.out.find("'ssss"), std::string::npos) << "another file's contents logged";
      fs::remove_all(lck_);
   }
   EXPECT_TRUE(tmp_.Exists("elsewhere/keep"));
   EXPECT_EQ(fs::file_size(dir_ + "/secret"), 512u);
}

TEST_F(LockDir, ReadOnlyLocationGivesImplicitReadLock) {
   ASSERT_EQ(chmod(dir_.c_str(), 0555), 0);
   auto r = RunInChild([&] {
      // Root may write anywhere: take a plain user's rights.
      if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
      int e = 0;
      if (FileLock_Lock(path_.c_str(), false, 0, &e, nullptr) != nullptr || e != EACCES) _exit(11);
      FileLockToken *t = FileLock_Lock(path_.c_str(), true, 0, &e, nullptr);
      if (t == nullptr || e != 0) _exit(12);
      _exit(FileLock_Unlock(t, &e, nullptr) && e == 0 ? 0 : 13);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out;
   EXPECT_NE(r.out.find("implicit S lock succeeded"), std::string::npos) << r.out;
   EXPECT_FALSE(fs::exists(lck_));
}

TEST(LockRandom, ForkedChildDrawsItsOwnNumbers) {
   SimpleRandom();
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   auto r = RunInChild([&] {
      uint32_t v = SimpleRandom();
      (void)!write(fds[1], &v, sizeof v);
   });
   uint32_t child = 0;
   ASSERT_EQ(read(fds[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
   close(fds[0]);
   close(fds[1]);
   EXPECT_NE(child, SimpleRandom());
   (void)r;
}

}  // namespace
