// Installs a copy of a test program set-user-ID root in a private directory
// and runs it as an unprivileged user, the way the product's programs are
// started. Only root can do either; on a file system mounted nosuid the
// fallback directory (inside the build tree) is tried instead of the
// temporary directory.
#ifndef HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H
#define HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H

#include <string>
#include <vector>

#include "child.h"

namespace halcyx::test {

class SetuidInstall {
public:
   // Copies program as root:root mode 04755; Path() is empty when that
   // failed or the bit would not be honoured.
   SetuidInstall(const std::string &program, const std::string &fallbackDir);
   ~SetuidInstall();
   SetuidInstall(const SetuidInstall &) = delete;
   SetuidInstall &operator=(const SetuidInstall &) = delete;

   const std::string &Path() const { return path_; }
   const std::string &Dir() const { return dir_; }

private:
   std::string dir_;
   std::string path_;
};

// Runs program as "nobody" (no supplementary groups) with exactly args
// (argv[0] included) and an environment of PATH and the given entries. Exit
// 126 means the identity change failed, 127 that the program did not start.
ChildResult RunAsNobody(const std::string &program, const std::vector<std::string> &args,
                        const std::vector<std::string> &environment = {});

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H
