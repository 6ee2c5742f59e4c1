// SPDX-License-Identifier: MIT
// Product location: process tags, the key table, and the product root found
// from a real bundle tree, from the environment and from the product file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "child.h"
#include "internal/location.h"
#include "location.h"
#include "probe_report.h"
#include "setuid_install.h"
#include "temp_dir.h"

using namespace halcyx::test;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> Tail(const std::string &out) {  // log entries after the first
   auto log = LogEntries(out);
   return std::vector<std::string>(log.begin() + (log.empty() ? 0 : 1), log.end());
}

std::vector<std::string> InitLog(const std::vector<const char *> &tags) {
   auto r = RunInChild([&] {
      for (const char *tag : tags) {
         Location_Init(tag);
      }
   });
   EXPECT_EQ(r.ExitCode(), 0);
   return LogEntries(r.out);
}

TEST(LocationInit, KnownTagOnceIsSilent) {
   EXPECT_TRUE(InitLog({"halcyx-opener"}).empty());
   EXPECT_TRUE(InitLog({"halcyx-daemon"}).empty());
}

TEST(LocationInit, UnknownOrRepeatedTagsWarnWithThePreviousCount) {
   EXPECT_EQ(InitLog({"Halcyx-Opener"}),
             std::vector<std::string>{
                "Warning: Location_Init: Invalid initialization: sUpCount 0, "
                "processTag Halcyx-Opener.\n"});
   EXPECT_EQ(InitLog({"halcyx-opener", "halcyx-daemon", "nope"}),
             (std::vector<std::string>{
                "Warning: Location_Init: Invalid initialization: sUpCount 4, "
                "processTag halcyx-daemon.\n",
                "Warning: Location_Init: Invalid initialization: sUpCount 4, "
                "processTag nope.\n"}));
}

TEST(LocationKeys, SubPathsAreExactAndUnknownKeysAreNull) {
   EXPECT_STREQ(Location_GetSubPath("rootDir"), "");
   EXPECT_STREQ(Location_GetSubPath("serviceDaemonFile"),
                "/Contents/Library/services/Zorvex Halcyx Services");
   EXPECT_STREQ(Location_GetSubPath("zxnetSinfferFile"), "/Contents/Library/zxnet-sniffer");
   EXPECT_EQ(Location_GetSubPath("zxnetSnifferFile"), nullptr);
   EXPECT_EQ(Location_GetSubPath("rootdir"), nullptr);
   EXPECT_EQ(Location_GetSubPath(""), nullptr);
}

class LocationRoot : public TempDirTest {
protected:
   // The probe at program (reached through whatever link) looks key up
   // under tag, with the environment variable set.
   static ChildResult Locate(const fs::path &program, const char *tag, const char *key) {
      return RunInChild([&] {
         setenv("ZORVEX_LOCATION_ROOT_FULLPATH", "/from/environment", 1);
         execl(program.c_str(), "process_probe", "location", tag, "/nonexistent", "keep", key,
               nullptr);
         _exit(127);
      });
   }

};

TEST_F(LocationRoot, KnownTagsStripTheirUpCountFromTheRealExecutablePath) {
   fs::path bundle = dir_ / "X.app", services = bundle / "Contents/Library/services";
   fs::create_directories(services);
   fs::copy_file(PROBE_PATH, services / "Open Zorvex Halcyx Services");
   fs::create_symlink(services / "Open Zorvex Halcyx Services", dir_ / "link");
   // A program directly in a directory below /: up-counts run out of slashes.
   fs::copy_file(PROBE_PATH, dir_ / "probe");
   bool shallow = std::count(dir_.native().begin(), dir_.native().end(), '/') == 2;
   std::string tooLarge =
      "Warning: LocationGetRoot: sUpCount (4) is too large for " + (dir_ / "probe").native() + "\n";
   struct Case {
      fs::path program;
      const char *tag, *key;
      std::string expected;
      std::vector<std::string> log;
   } cases[] = {
      {dir_ / "link", "halcyx-opener", "rootDir", bundle, {}},
      {dir_ / "link", "halcyx-opener", "idFile", bundle / "Contents/Library/zorvex-id", {}},
      {dir_ / "link", "zorvex-id", "rootDir", bundle / "Contents", {}},
      {dir_ / "link", "halcyx-opener", "nosuchKey", "(null)", {}},
      {dir_ / "probe", "zorvex-id", "idFile", "/Contents/Library/zorvex-id", {}},
      {dir_ / "probe", "halcyx-opener", "rootDir", "(null)", {tooLarge}},
   };
   for (const Case &c : cases) {
      if (!shallow && c.program == dir_ / "probe") {
         continue;  // the temporary directory is deeper than one level below /
      }
      ChildResult r = Locate(c.program, c.tag, c.key);
      ASSERT_EQ(r.ExitCode(), 0) << "127: the probe did not start";
      EXPECT_EQ(ProbeReport(r.err)[c.key], c.expected) << c.tag << " " << c.key;
      EXPECT_EQ(LogEntries(r.out), c.log);
   }
}

TEST_F(LocationRoot, UnknownTagTakesTheEnvironmentThenTheProductFileAsTheyStand) {
   const std::vector<std::string> unable = {
      "LocationLastUsed: Failed opening lastLocationUsed.\n",
      "Warning: LocationGetRoot: Unable to determine the product location. It is likely "
      "that the product has never been run on this machine.\n"};
   const char *kVariable = "ZORVEX_LOCATION_ROOT_FULLPATH";
   fs::path file = dir_ / "lastLocationUsed";
   struct Case {
      const char *variable;  // the variable's name; null: no such source
      const char *value;     // null: not set
      std::string content;   // of the product file; "-": no file
      bool productFile;      // false: no such source
      std::string expected;
      std::vector<std::string> log;
   } cases[] = {
      {kVariable, "/env/X.app/", "/file/X.app", true, "/env/X.app/", {}},
      {kVariable, nullptr, "/file/X.app\n", true, "/file/X.app\n", {}},
      {nullptr, "/env", std::string("/a\0b", 4), true, "/a", {}},
      {nullptr, nullptr, "/" + std::string(1022, 'a'), true, "/" + std::string(1022, 'a'), {}},
      {nullptr, nullptr, "/" + std::string(1023, 'a'), true, "(null)", unable},
      {nullptr, nullptr, "-", true, "(null)", unable},
      {nullptr, nullptr, "-", false, fs::canonical("/proc/self/exe"), {}},
      {kVariable, nullptr, "-", false, "(null)", {}},
   };
   for (const Case &c : cases) {
      fs::remove(file);
      if (c.content != "-") {
         std::ofstream(file, std::ios::binary) << c.content;
      }
      ChildResult r = RunInChild([&] {
         Location_Init("no-such-program");
         halcyx::gLocationRootVariable = c.variable;
         halcyx::gLocationProductFile = c.productFile ? file.c_str() : nullptr;
         c.value != nullptr ? setenv(kVariable, c.value, 1) : unsetenv(kVariable);
         char *root = Location_Get("rootDir");
         fprintf(stderr, "%s", root != nullptr ? root : "(null)");
         free(root);
      });
      EXPECT_EQ(r.err, c.expected);
      EXPECT_EQ(Tail(r.out), c.log) << c.expected.substr(0, 40);
   }
}

TEST(LocationSetuid, UnknownTagRefusesEveryOutsideSource) {
   SetuidInstall install(PROBE_PATH, SCRATCH_DIR);
   if (install.Path().empty()) {
      GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
   }
   std::string productFile = install.Dir() + "/lastLocationUsed";
   std::ofstream(productFile) << "/file/X.app";
   // Also after the program has lowered its effective user ID to the caller's.
   for (const char *identity : {"keep", "lower"}) {
      ChildResult r = RunAsNobody(install.Path(),
                                  {"process_probe", "location", "no-such-program", productFile,
                                   identity, "rootDir"},
                                  {"ZORVEX_LOCATION_ROOT_FULLPATH=/env/X.app"});
      ASSERT_EQ(r.ExitCode(), 0) << identity << " (126: no identity change, 127: no exec)";
      EXPECT_EQ(ProbeReport(r.err)["rootDir"], "(null)");
      EXPECT_EQ(Tail(r.out), std::vector<std::string>{"Warning: LocationGetRoot: Cannot get "
                                                      "location root of a setuid process.\n"});
   }
}

}  // namespace
