// SPDX-License-Identifier: MIT
// Runs test programs the way the product starts its set-user-ID programs:
// installed root-owned with the set-user-ID bit, started by "nobody".
#ifndef HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H
#define HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H

#include <string>
#include <vector>

#include "child.h"

namespace halcyx::test {

// A copy of program, mode 04755 root:root, in a fresh directory of the
// temporary directory, or of fallbackDir when that is mounted nosuid. Path()
// is empty when not root or the bit would not be honoured. Removed at the end.
class SetuidInstall {
public:
   SetuidInstall(const std::string &program, const std::string &fallbackDir);
   ~SetuidInstall();
   SetuidInstall(const SetuidInstall &) = delete;
   SetuidInstall &operator=(const SetuidInstall &) = delete;

   const std::string &Path() const { return path_; }
   const std::string &Dir() const { return dir_; }

private:
   std::string dir_, path_;
};

// Runs program as "nobody" without supplementary groups, with exactly args
// (argv[0] included) and PATH plus environment. Exit 126: the identity
// change failed; 127: the program did not start.
ChildResult RunAsNobody(const std::string &program, const std::vector<std::string> &args,
                        const std::vector<std::string> &environment = {});

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_SETUID_INSTALL_H
