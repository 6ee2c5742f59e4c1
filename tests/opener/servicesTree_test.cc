// SPDX-License-Identifier: MIT
// The prepare-daemon callback in this process, as root, for what the
// installed opener cannot be made to meet: a Library directory that cannot
// be created, and a bundle component swapped between its check and its
// copy. Seams: the link wraps codesignVerifyFd (the source check, just
// before the copy) and File_EnsureDirectoryEx.
//
// Each case runs in a child that moves into a private mount namespace,
// covers a temporary directory with a tmpfs, puts a copy of the signed
// sample bundle in it and chroots there, so the callback's fixed host
// directory and product file lie inside that tmpfs.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string_view>
#include <sys/mount.h>
#include <unistd.h>

#include "child.h"
#include "serviceImpl.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

std::function<void(const char *)> gAfterSourceCheck;
const char *gRefusedDirectory;

}  // namespace

extern "C" bool __real_codesignVerifyFd(int fd, const char *path, const char *identifier);
extern "C" bool __real_File_EnsureDirectoryEx(const char *path, int mode);

extern "C" bool __wrap_codesignVerifyFd(int fd, const char *path, const char *identifier) {
   bool valid = __real_codesignVerifyFd(fd, path, identifier);
   if (valid && gAfterSourceCheck) {
      gAfterSourceCheck(path);
   }
   return valid;
}

extern "C" bool __wrap_File_EnsureDirectoryEx(const char *path, int mode) {
   if (gRefusedDirectory != nullptr && std::string_view(path).ends_with(gRefusedDirectory)) {
      errno = EACCES;
      return false;
   }
   return __real_File_EnsureDirectoryEx(path, mode);
}

namespace {

const fs::path kTree = "/Library/Application Support/Zorvex/Zorvex Halcyx/Services/Contents";
const fs::path kDaemonSource = "/app/Contents/Library/services/Zorvex Halcyx Services";
const fs::path kDaemonCopy = kTree / "Library/services/Zorvex Halcyx Services";

std::string Slurp(const fs::path &path) {
   std::ifstream in(path, std::ios::binary);
   return {std::istreambuf_iterator<char>(in), {}};
}

class PrepareDaemon : public halcyx::test::TempDirTest {
protected:
   // Runs the callback in the chroot after setup; the child's standard
   // error carries "result=0|1" and what report() adds.
   halcyx::test::ChildResult Run(const std::function<void()> &setup,
                                 const std::function<std::string()> &report) {
      return halcyx::test::RunInChild([&] {
         const std::string copy = "cp -a '" SAMPLE_BUNDLE "' " + (dir_ / "app").string();
         if (unshare(CLONE_NEWNS) != 0 ||
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount("halcyx-test", dir_.c_str(), "tmpfs", 0, "mode=0755") != 0 ||
             system(copy.c_str()) != 0 || chroot(dir_.c_str()) != 0 || chdir("/") != 0) {
            _exit(125);
         }
         fs::create_directories(kTree.parent_path().parent_path());
         setenv("ZORVEX_LOCATION_ROOT_FULLPATH", "/app", 1);
         setup();
         bool result = ServiceImplPrepareDaemon();
         fprintf(stderr, "result=%d %s", result, report().c_str());
      });
   }

   void SetUp() override {
      if (geteuid() != 0) {
         GTEST_SKIP() << "needs root";
      }
      TempDirTest::SetUp();
   }
};

TEST_F(PrepareDaemon, FrameworksIsMadeEvenWhenLibraryCannotBe) {
   auto r = Run([] { gRefusedDirectory = "/Contents/Library"; },
                [] {
                   return "frameworks=" + std::to_string(fs::is_directory(kTree / "Frameworks")) +
                          " library=" + std::to_string(fs::exists(kTree / "Library"));
                });
   ASSERT_EQ(r.ExitCode(), 0) << "the child could not set up (125) or died\n" << r.out;
   EXPECT_EQ(r.err, "result=0 frameworks=1 library=0");
}

// A component swapped once its check has passed never ends in a tree for
// which the callback returns true.
TEST_F(PrepareDaemon, ComponentSwappedAfterItsCheckIsNeverInstalled) {
   struct Case {
      const char *name;
      void (*swap)(const char *path);
   };
   const Case cases[] = {
      {"another file renamed into its place",
       [](const char *path) {
          std::ofstream("/swapped") << "#!/bin/sh\necho swapped\n";
          rename("/swapped", path);
       }},
      {"rewritten in place",
       [](const char *path) {
          int fd = open(path, O_WRONLY | O_CLOEXEC);
          EXPECT_EQ(pwrite(fd, "#!/bin/sh\n", 10, 0), 10);
          close(fd);
       }},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.name);
      static std::string original;
      auto r = Run(
         [&] {
            original = Slurp(kDaemonSource);
            gAfterSourceCheck = [&](const char *path) {
               if (path == kDaemonSource) {
                  c.swap(path);
               }
            };
         },
         [] {
            return std::string("installed=") +
                   (Slurp(kDaemonCopy) == original ? "checked" : "other");
         });
      ASSERT_EQ(r.ExitCode(), 0) << "the child could not set up (125) or died\n" << r.out;
      EXPECT_TRUE(r.err.starts_with("result=")) << r.err;
      EXPECT_NE(r.err, "result=1 installed=other") << r.out;
   }
}

// Directories above the host directory and the product file: a sticky
// directory open to others (as /tmp) may only stand above a directory that
// exists; anything else not root's alone, or a link, leaves the old tree.
TEST_F(PrepareDaemon, RefusesDirectoriesAboveTheTreeThatOthersControl) {
   struct Case {
      const char *name;
      void (*setup)();
      const char *expected;
   };
   const Case cases[] = {
      {"sticky directory above existing ones",
       [] {
          fs::create_directories("/Library/Preferences");
          chmod("/Library", 01777);
       },
       "result=1 kept=0"},
      {"sticky directory above a missing one", [] { chmod("/Library", 01777); },
       "result=0 kept=1"},
      {"host directory owned by another user",
       [] { EXPECT_EQ(chown(kTree.parent_path().parent_path().c_str(), 65534, 0), 0); },
       "result=0 kept=1"},
      {"product file's parent behind a link",
       [] {
          fs::create_directories("/elsewhere");
          fs::create_directory_symlink("/elsewhere", "/Library/Preferences");
       },
       "result=0 kept=1"},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.name);
      auto r = Run(
         [&] {
            fs::create_directories(kTree);
            std::ofstream(kTree / "kept");
            c.setup();
         },
         [] { return "kept=" + std::to_string(fs::exists(kTree / "kept")); });
      ASSERT_EQ(r.ExitCode(), 0) << "the child could not set up (125) or died\n" << r.out;
      EXPECT_EQ(r.err, c.expected) << r.out;
      EXPECT_EQ(r.out.find("or a directory above it") != std::string::npos,
                std::string_view(c.expected) == "result=0 kept=1")
         << r.out;
   }
}

}  // namespace
