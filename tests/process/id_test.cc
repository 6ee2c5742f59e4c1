// Process identity checked from the outside: the probe program runs as a
// set-user-ID root program started by an unprivileged user, from paths of
// chosen lengths, and reports what it sees.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "hostinfo.h"
#include "id.h"
#include "setuid_install.h"

using halcyx::test::ChildResult;
using halcyx::test::LogEntries;
using halcyx::test::RunAsNobody;
using halcyx::test::RunInChild;
using halcyx::test::SetuidInstall;

namespace fs = std::filesystem;

namespace {

// The probe's "key rest-of-line" output.
std::map<std::string, std::string> Report(const ChildResult &r) {
   std::map<std::string, std::string> report;
   std::istringstream lines(r.out);
   std::string line;
   while (std::getline(lines, line)) {
      size_t blank = line.find(' ');
      if (blank != std::string::npos) {
         report[line.substr(0, blank)] = line.substr(blank + 1);
      }
   }
   return report;
}

TEST(SuperUserBracket, RaisesOnlyTheCallingThreadOfASetuidProcess) {
   SetuidInstall install(PROBE_PATH, SCRATCH_DIR);
   if (install.Path().empty()) {
      GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
   }
   // The same program without the bit: nothing to borrow, nothing to raise.
   std::string plain = install.Dir() + "/plain_probe";
   fs::copy_file(install.Path(), plain);
   ASSERT_EQ(chmod(plain.c_str(), 0755), 0);

   const std::string nobody = std::to_string(getpwnam("nobody")->pw_uid);
   struct Case {
      std::string program;
      std::map<std::string, std::string> expected;
   } cases[] = {
      {install.Path(),
       {{"setugid", "1"}, {"begin", nobody}, {"raised", "0 " + nobody}, {"nested", "-1"},
        {"lowered", nobody + " " + nobody}}},
      {plain,
       {{"setugid", "0"}, {"begin", nobody}, {"raised", nobody + " " + nobody},
        {"nested", nobody}, {"lowered", nobody + " " + nobody}}},
   };
   for (const Case &c : cases) {
      ChildResult r = RunAsNobody(c.program, {"process_probe", "ids"});
      ASSERT_EQ(r.ExitCode(), 0) << c.program << " (126: no identity change, 127: no exec)\n"
                                 << r.err;
      EXPECT_EQ(Report(r), c.expected) << c.program << "\n" << r.out;
   }
}

TEST(SuperUserBracket, PlainProcessIsNotSetugid) { EXPECT_FALSE(Id_IsSetUGid()); }

// Creates the directories for, and returns, a path of exactly length bytes
// below dir.
std::string PathOfLength(const std::string &dir, size_t length) {
   std::string path = dir;
   while (length - path.size() > 256) {
      path += "/" + std::string(199, 'd');
      fs::create_directory(path);
   }
   return path + "/" + std::string(length - path.size() - 1, 'p');
}

TEST(ModulePath, ReportsTheExecutableUpToTheSizeLimit) {
   fs::create_directories(SCRATCH_DIR);
   std::string dir = std::string(SCRATCH_DIR) + "/modulepath-XXXXXX";
   ASSERT_NE(mkdtemp(dir.data()), nullptr);
   for (size_t length : {1023u, 1024u, 1500u}) {
      std::string program = PathOfLength(dir, length);
      ASSERT_EQ(program.size(), length);
      fs::copy_file(PROBE_PATH, program);
      ChildResult r = RunInChild([&] {
         execl(program.c_str(), "process_probe", "modulepath", nullptr);
         _exit(127);
      });
      ASSERT_EQ(r.ExitCode(), 0) << length;
      if (length < 1024) {
         EXPECT_EQ(Report(r)["modulepath"], program);
         EXPECT_TRUE(LogEntries(r.out).empty()) << r.out;
      } else {
         EXPECT_EQ(Report(r)["modulepath"], "(null)");
         EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{
                                         "Warning: HOSTINFO: Hostinfo_GetModulePath: "
                                         "_NSGetExecutablePath failed.\nmodulepath (null)\n"})
            << length;
      }
   }
   fs::remove_all(dir);
}

TEST(ModulePath, OnlyPrivilegeZeroOrOneIsAccepted) {
   std::string self = fs::read_symlink("/proc/self/exe");
   for (uint32_t privilege : {0u, 1u}) {
      char *path = Hostinfo_GetModulePath(privilege);
      ASSERT_NE(path, nullptr);
      EXPECT_EQ(path, self);
      free(path);
   }
   ChildResult r = RunInChild([] {
      if (Hostinfo_GetModulePath(2) != nullptr) {
         _exit(1);
      }
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{
                                   "Warning: Hostinfo_GetModulePath: invalid privilege "
                                   "parameter\n"});
}

}  // namespace
