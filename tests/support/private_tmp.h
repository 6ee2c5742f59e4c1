// SPDX-License-Identifier: MIT
// A private /tmp for tests and benchmarks that run installed programs in a
// sandbox under /tmp: a fresh tmpfs covers /tmp in the calling process's
// own mount namespace, so nothing they make there reaches the host.
#ifndef HALCYX_TESTS_SUPPORT_PRIVATE_TMP_H
#define HALCYX_TESTS_SUPPORT_PRIVATE_TMP_H

#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace halcyx::test {

// Covers /tmp with a tmpfs; each directory of keep that lies under /tmp (the
// source and build trees of a clone made there) stays visible at its own
// path, bound back from a descriptor taken before it was covered. Call it
// in a private mount namespace only.
inline bool CoverTmpKeeping(std::initializer_list<const char *> keep) {
   std::vector<std::pair<std::string, int>> held;
   bool ok = true;
   for (const char *path : keep) {
      if (std::string(path).rfind("/tmp/", 0) == 0) {
         int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
         ok = ok && fd >= 0;
         held.emplace_back(path, fd);
      }
   }
   ok = ok && mount("halcyx-tmp", "/tmp", "tmpfs", 0, "mode=1777") == 0;
   for (auto &[path, fd] : held) {
      std::error_code error;
      std::filesystem::create_directories(path, error);
      const std::string from = "/proc/self/fd/" + std::to_string(fd);
      ok = ok && !error && mount(from.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
      if (fd >= 0) {
         close(fd);
      }
   }
   return ok;
}

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_PRIVATE_TMP_H
