// SPDX-License-Identifier: MIT
// A private temporary directory for file-layer tests, removed with all it
// holds (by nftw, not by the code under test).
#ifndef HALCYX_TESTS_FILE_TEST_UTIL_H
#define HALCYX_TESTS_FILE_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <cstring>
#include <ftw.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace halcyx::test {

class TempDir {
public:
   explicit TempDir(const char *under = "/tmp") {
      std::string tmpl = std::string(under) + "/halcyx-file-XXXXXX";
      if (mkdtemp(tmpl.data()) == nullptr) {
         ADD_FAILURE() << "mkdtemp under " << under << ": " << strerror(errno);
      }
      root_ = tmpl;
   }
   ~TempDir() { RemoveAll(root_); }
   TempDir(const TempDir &) = delete;
   TempDir &operator=(const TempDir &) = delete;

   // root + "/" + rel; the root itself for "".
   std::string Path(const std::string &rel) const {
      return rel.empty() ? root_ : root_ + "/" + rel;
   }

   // Writes a file, creating the directories before it.
   void Write(const std::string &rel, const std::string &data, mode_t mode = 0644) const {
      MakeParents(rel);
      int fd = open(Path(rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
      ASSERT_GE(fd, 0) << rel << ": " << strerror(errno);
      ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
      close(fd);
   }

   void Link(const std::string &text, const std::string &rel) const {
      MakeParents(rel);
      ASSERT_EQ(symlink(text.c_str(), Path(rel).c_str()), 0) << rel;
   }

   bool Exists(const std::string &rel) const {
      struct stat st;
      return lstat(Path(rel).c_str(), &st) == 0;
   }

   std::string Read(const std::string &rel) const {
      std::string out;
      FILE *f = fopen(Path(rel).c_str(), "re");
      if (f != nullptr) {
         char buf[4096];
         size_t n;
         while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
            out.append(buf, n);
         }
         fclose(f);
      }
      return out;
   }

   static void RemoveAll(const std::string &path) {
      nftw(
         path.c_str(),
         [](const char *p, const struct stat *, int type, struct FTW *) {
            if (type == FTW_DP) {
               chmod(p, 0700);  // in case a test took the rights away
               rmdir(p);
            } else {
               unlink(p);
            }
            return 0;
         },
         16, FTW_DEPTH | FTW_PHYS);
   }

private:
   void MakeParents(const std::string &rel) const {
      for (size_t slash = rel.find('/'); slash != std::string::npos;
           slash = rel.find('/', slash + 1)) {
         mkdir(Path(rel.substr(0, slash)).c_str(), 0755);
      }
   }

   std::string root_;
};

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_FILE_TEST_UTIL_H
