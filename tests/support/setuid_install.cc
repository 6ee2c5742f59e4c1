// SPDX-License-Identifier: MIT
#include "setuid_install.h"

#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace halcyx::test {

SetuidInstall::SetuidInstall(const std::string &program, const std::string &fallbackDir) {
   for (const fs::path &base : {fs::temp_directory_path(), fs::path(fallbackDir)}) {
      std::error_code ec;
      fs::create_directories(base, ec);
      std::string dir = (base / "halcyx-setuid-XXXXXX").string();
      struct statvfs vfs;
      if (geteuid() != 0 || mkdtemp(dir.data()) == nullptr) {
         return;
      }
      dir_ = dir;
      if (statvfs(dir.c_str(), &vfs) == 0 && (vfs.f_flag & ST_NOSUID) == 0) {
         std::string target = dir + "/" + fs::path(program).filename().string();
         if (chmod(dir.c_str(), 0755) == 0 && fs::copy_file(program, target, ec) &&
             chown(target.c_str(), 0, 0) == 0 && chmod(target.c_str(), 04755) == 0) {
            path_ = target;
         }
         return;
      }
      fs::remove_all(dir, ec);
      dir_.clear();
   }
}

SetuidInstall::~SetuidInstall() {
   std::error_code ignored;
   if (!dir_.empty()) {
      fs::remove_all(dir_, ignored);
   }
}

ChildResult RunAsNobody(const std::string &program, const std::vector<std::string> &args,
                        const std::vector<std::string> &environment) {
   return RunInChild([&] {
      const struct passwd *nobody = getpwnam("nobody");
      if (nobody == nullptr || setgroups(0, nullptr) != 0 ||
          setresgid(nobody->pw_gid, nobody->pw_gid, nobody->pw_gid) != 0 ||
          setresuid(nobody->pw_uid, nobody->pw_uid, nobody->pw_uid) != 0) {
         _exit(126);
      }
      const std::vector<std::string> &constArgs = args;
      std::vector<std::string> env = environment;
      env.push_back("PATH=/usr/bin:/bin");
      const std::vector<std::string> &constEnv = env;
      std::vector<char *> argv, envp;
      for (auto [from, to] : {std::pair{&constArgs, &argv}, std::pair{&constEnv, &envp}}) {
         for (const auto &s : *from) {
            to->push_back(const_cast<char *>(s.c_str()));
         }
         to->push_back(nullptr);
      }
      execve(program.c_str(), argv.data(), envp.data());
      _exit(127);
   });
}

}  // namespace halcyx::test
