// SPDX-License-Identifier: MIT
// Process identity seen from outside: the probe runs set-user-ID root as
// "nobody", and from paths around the 1024-byte limit.
#include <gtest/gtest.h>

#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "hostinfo.h"
#include "id.h"
#include "probe_report.h"
#include "setuid_install.h"

using namespace halcyx::test;
namespace fs = std::filesystem;

namespace {

TEST(SuperUserBracket, RaisesOnlyTheCallingThreadAndOnlyWhenSetuid) {
   EXPECT_FALSE(Id_IsSetUGid());
   SetuidInstall install(PROBE_PATH, SCRATCH_DIR);
   if (install.Path().empty()) {
      GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
   }
   // The same program without the bit has nothing to raise to.
   std::string plain = install.Dir() + "/plain";
   fs::copy_file(install.Path(), plain);
   ASSERT_EQ(chmod(plain.c_str(), 0755), 0);

   const std::string n = std::to_string(getpwnam("nobody")->pw_uid);
   std::map<std::string, std::string> setuid = {
      {"setugid", "1"}, {"begin", n}, {"raised", "0 " + n}, {"nested", "-1"},
      {"lowered", n + " " + n}};
   std::map<std::string, std::string> unprivileged = {
      {"setugid", "0"}, {"begin", n}, {"raised", n + " " + n}, {"nested", n},
      {"lowered", n + " " + n}};
   for (auto [program, expected] : {std::pair{install.Path(), setuid}, {plain, unprivileged}}) {
      ChildResult r = RunAsNobody(program, {"process_probe", "ids"});
      ASSERT_EQ(r.ExitCode(), 0) << program << " (126: no identity change, 127: no exec)";
      EXPECT_EQ(ProbeReport(r.err), expected) << program;
   }
}

TEST(ModulePath, IsTheExecutableUpTo1023BytesAndPrivilegeIsZeroOrOne) {
   fs::create_directories(SCRATCH_DIR);
   std::string dir = std::string(SCRATCH_DIR) + "/modulepath-XXXXXX";
   ASSERT_NE(mkdtemp(dir.data()), nullptr);
   for (size_t length : {1023u, 1024u}) {
      std::string program = dir;
      while (length - program.size() > 256) {
         program += "/" + std::string(199, 'd');
         fs::create_directory(program);
      }
      program += "/" + std::string(length - program.size() - 1, 'p');
      fs::copy_file(PROBE_PATH, program);
      ChildResult r = RunInChild([&] {
         execl(program.c_str(), "process_probe", "modulepath", nullptr);
         _exit(127);
      });
      EXPECT_EQ(ProbeReport(r.err)["modulepath"], length < 1024 ? program : "(null)");
      std::vector<std::string> failed = {
         "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n"};
      EXPECT_EQ(LogEntries(r.out), length < 1024 ? std::vector<std::string>{} : failed);
   }
   fs::remove_all(dir);

   ChildResult r = RunInChild([] { _exit(Hostinfo_GetModulePath(2) == nullptr ? 0 : 1); });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{
                                   "Warning: Hostinfo_GetModulePath: invalid privilege "
                                   "parameter\n"});
}

}  // namespace
