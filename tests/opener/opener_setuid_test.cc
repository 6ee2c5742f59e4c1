// The real opener binary, installed set-user-ID root in a private directory
// and started by an unprivileged user, as the product starts it.
#include <gtest/gtest.h>

#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <regex>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "child.h"

using halcyx::test::ChildResult;
using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace fs = std::filesystem;

namespace {

class SetuidOpener : public ::testing::Test {
protected:
   static void SetUpTestSuite() {
      if (geteuid() != 0) {
         return;
      }
      const struct passwd *nobody = getpwnam("nobody");
      if (nobody == nullptr) {
         return;
      }
      sUid = nobody->pw_uid;
      sGid = nobody->pw_gid;

      std::string pattern = (fs::temp_directory_path() / "halcyx-opener-XXXXXX").string();
      if (mkdtemp(pattern.data()) == nullptr) {
         return;
      }
      sDir = pattern;
      fs::permissions(sDir, fs::perms::owner_all | fs::perms::group_read |
                               fs::perms::group_exec | fs::perms::others_read |
                               fs::perms::others_exec);
      sOpener = sDir / "halcyx-opener";
      fs::copy_file(OPENER_PATH, sOpener);
      if (chown(sOpener.c_str(), 0, 0) != 0 || chmod(sOpener.c_str(), 04755) != 0) {
         sOpener.clear();
         return;
      }
      struct statvfs vfs;
      if (statvfs(sDir.c_str(), &vfs) != 0 || (vfs.f_flag & ST_NOSUID) != 0) {
         sOpener.clear();
      }
   }

   static void TearDownTestSuite() {
      if (!sDir.empty()) {
         std::error_code ignored;
         fs::remove_all(sDir, ignored);
      }
   }

   void SetUp() override {
      if (sOpener.empty()) {
         GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
      }
   }

   // Runs the installed opener as "nobody" with exactly these arguments
   // (argv[0] included) and a minimal environment.
   static ChildResult Run(const std::vector<std::string> &args) {
      return RunInChild([&] {
         std::vector<char *> argv;
         for (const auto &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
         }
         argv.push_back(nullptr);
         char path[] = "PATH=/usr/bin:/bin";
         char *envp[] = {path, nullptr};
         if (setgroups(0, nullptr) != 0 || setresgid(sGid, sGid, sGid) != 0 ||
             setresuid(sUid, sUid, sUid) != 0) {
            _exit(126);
         }
         execve(sOpener.c_str(), argv.data(), envp);
         _exit(127);
      });
   }

   static void ExpectStartLine(const std::vector<std::string> &entries) {
      ASSERT_FALSE(entries.empty());
      EXPECT_TRUE(std::regex_match(entries[0], std::regex("ServiceImpl_Opener: PID [0-9]+\n")))
         << entries[0];
   }

   static inline fs::path sDir;
   static inline fs::path sOpener;
   static inline uid_t sUid;
   static inline gid_t sGid;
};

TEST_F(SetuidOpener, WrongArgumentCountsFailWithoutLookingAtArguments) {
   for (const auto &args : std::vector<std::vector<std::string>>{
           {"halcyx-opener", "3", "4"}, {"halcyx-opener", "a", "b", "c", "d"}}) {
      ChildResult r = Run(args);
      EXPECT_EQ(r.ExitCode(), 1) << args.size() << " arguments";
      auto entries = LogEntries(r.out);
      ExpectStartLine(entries);
      EXPECT_EQ(std::vector<std::string>(entries.begin() + 1, entries.end()),
                std::vector<std::string>{"Warning: Invalid number of arguments.\n"});
   }
}

TEST_F(SetuidOpener, BothModesFailCleanlyWhileNoRendezvousExists) {
   for (const auto &args : std::vector<std::vector<std::string>>{
           {"halcyx-opener"}, {"halcyx-opener", "0"}, {"halcyx-opener", "abc"}}) {
      ChildResult r = Run(args);
      EXPECT_EQ(r.ExitCode(), 1) << r.out;
      auto entries = LogEntries(r.out);
      ExpectStartLine(entries);
      ASSERT_EQ(entries.size(), 2u) << r.out;
      EXPECT_EQ(entries[1], "Warning: ServiceImplOpener: The service rendezvous is not "
                            "available in this build.\n");
   }
}

}  // namespace
