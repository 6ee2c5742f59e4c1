#include "setuid_install.h"

#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace halcyx::test {

namespace {

// A fresh directory under base that everybody may search, or "".
std::string MakeSearchableDir(const fs::path &base) {
   std::error_code ec;
   fs::create_directories(base, ec);
   std::string pattern = (base / "halcyx-setuid-XXXXXX").string();
   if (mkdtemp(pattern.data()) == nullptr || chmod(pattern.c_str(), 0755) != 0) {
      return "";
   }
   struct statvfs vfs;
   if (statvfs(pattern.c_str(), &vfs) != 0 || (vfs.f_flag & ST_NOSUID) != 0) {
      rmdir(pattern.c_str());
      return "";
   }
   return pattern;
}

}  // namespace

SetuidInstall::SetuidInstall(const std::string &program, const std::string &fallbackDir) {
   if (geteuid() != 0) {
      return;
   }
   dir_ = MakeSearchableDir(fs::temp_directory_path());
   if (dir_.empty()) {
      dir_ = MakeSearchableDir(fallbackDir);
   }
   if (dir_.empty()) {
      return;
   }
   std::string target = dir_ + "/" + fs::path(program).filename().string();
   std::error_code ec;
   if (fs::copy_file(program, target, ec) && chown(target.c_str(), 0, 0) == 0 &&
       chmod(target.c_str(), 04755) == 0) {
      path_ = target;
   }
}

SetuidInstall::~SetuidInstall() {
   if (!dir_.empty()) {
      std::error_code ignored;
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
      auto vector = [](const std::vector<std::string> &strings) {
         std::vector<char *> v;
         for (const auto &s : strings) {
            v.push_back(const_cast<char *>(s.c_str()));
         }
         v.push_back(nullptr);
         return v;
      };
      std::vector<std::string> env = environment;
      env.push_back("PATH=/usr/bin:/bin");
      execve(program.c_str(), vector(args).data(), vector(env).data());
      _exit(127);
   });
}

}  // namespace halcyx::test
