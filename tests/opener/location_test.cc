// Product location: process tags, the key table, and the product root found
// from a real bundle tree, from the environment and from the product file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <unistd.h>

#include "child.h"
#include "internal/location.h"
#include "location.h"
#include "setuid_install.h"

using halcyx::test::ChildResult;
using halcyx::test::LogEntries;
using halcyx::test::RunAsNobody;
using halcyx::test::RunInChild;
using halcyx::test::SetuidInstall;

namespace fs = std::filesystem;

namespace {

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

// The probe's "key=result" lines.
std::map<std::string, std::string> Lookups(const std::string &text) {
   std::map<std::string, std::string> found;
   std::istringstream lines(text);
   std::string line;
   while (std::getline(lines, line)) {
      size_t equals = line.find('=');
      if (equals != std::string::npos) {
         found[line.substr(0, equals)] = line.substr(equals + 1);
      }
   }
   return found;
}

class LocationTree : public ::testing::Test {
protected:
   void SetUp() override {
      std::string pattern = (fs::temp_directory_path() / "halcyx-loc-XXXXXX").string();
      ASSERT_NE(mkdtemp(pattern.data()), nullptr);
      dir_ = pattern;
   }
   void TearDown() override { fs::remove_all(dir_); }

   // Runs program (through whatever link) as the probe with tag.
   static ChildResult Locate(const fs::path &program, const char *tag,
                             const std::vector<std::string> &keys) {
      return RunInChild([&] {
         std::vector<const char *> argv = {"process_probe", "location", tag, "/nonexistent",
                                           "keep"};
         for (const auto &key : keys) {
            argv.push_back(key.c_str());
         }
         argv.push_back(nullptr);
         setenv("ZORVEX_LOCATION_ROOT_FULLPATH", "/from/environment", 1);
         execv(program.c_str(), const_cast<char **>(argv.data()));
         _exit(127);
      });
   }

   fs::path dir_;
};

TEST_F(LocationTree, KnownTagsStripTheirUpCountFromTheRealExecutablePath) {
   fs::path bundle = dir_ / "X.app";
   fs::path services = bundle / "Contents/Library/services";
   fs::create_directories(services);
   fs::path opener = services / "Open Zorvex Halcyx Services";
   fs::copy_file(PROBE_PATH, opener);
   fs::create_symlink(opener, dir_ / "link");
   std::string root = fs::canonical(bundle).string();

   ChildResult r = Locate(dir_ / "link", "halcyx-opener", {"rootDir", "idFile", "nosuchKey"});
   ASSERT_EQ(r.ExitCode(), 0) << "127: the probe did not start";
   EXPECT_TRUE(LogEntries(r.out).empty()) << r.out;
   EXPECT_EQ(Lookups(r.err), (std::map<std::string, std::string>{
                                {"rootDir", root},
                                {"idFile", root + "/Contents/Library/zorvex-id"},
                                {"nosuchKey", "(null)"}}));
   r = Locate(dir_ / "link", "zorvex-id", {"rootDir"});
   EXPECT_EQ(Lookups(r.err)["rootDir"], root + "/Contents");
}

TEST_F(LocationTree, UpCountsThatRunOutOfSlashes) {
   fs::path program = fs::canonical(dir_) / "probe";
   fs::copy_file(PROBE_PATH, program);
   const std::string text = program.string();
   if (std::count(text.begin(), text.end(), '/') != 3) {
      GTEST_SKIP() << "needs a temporary directory one level below /: " << program;
   }
   ChildResult r = Locate(program, "zorvex-id", {"rootDir", "idFile"});
   EXPECT_EQ(Lookups(r.err), (std::map<std::string, std::string>{
                                {"rootDir", ""}, {"idFile", "/Contents/Library/zorvex-id"}}));
   r = Locate(program, "halcyx-opener", {"rootDir"});
   EXPECT_EQ(Lookups(r.err)["rootDir"], "(null)");
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{"Warning: LocationGetRoot: sUpCount "
                                                         "(4) is too large for " +
                                                         text + "\n"});
}

TEST_F(LocationTree, UnknownTagTakesTheEnvironmentThenTheProductFileAsTheyStand) {
   const std::string unableWarning =
      "Warning: LocationGetRoot: Unable to determine the product location. It is likely "
      "that the product has never been run on this machine.\n";
   const std::string failedOpen = "LocationLastUsed: Failed opening lastLocationUsed.\n";
   fs::path file = dir_ / "lastLocationUsed";
   std::string self = fs::canonical("/proc/self/exe").string();
   struct Case {
      const char *variable;   // null: no environment source
      const char *value;      // null: variable not set
      std::string content;    // of the product file; "-" for no file at all
      bool productFile;       // false: no product-file source
      std::string expected;   // the root, or "(null)"
      std::vector<std::string> log;
   } cases[] = {
      {"ZORVEX_LOCATION_ROOT_FULLPATH", "/env/X.app/", "/file/X.app", true, "/env/X.app/", {}},
      {"ZORVEX_LOCATION_ROOT_FULLPATH", nullptr, "/file/X.app\n", true, "/file/X.app\n", {}},
      {nullptr, "ignored", std::string("/a\0b", 4), true, "/a", {}},
      {nullptr, nullptr, "/" + std::string(1022, 'a'), true, "/" + std::string(1022, 'a'), {}},
      {nullptr, nullptr, "/" + std::string(1023, 'a'), true, "(null)",
       {failedOpen, unableWarning}},
      {nullptr, nullptr, "-", true, "(null)", {failedOpen, unableWarning}},
      {nullptr, nullptr, "-", false, self, {}},
      {"ZORVEX_LOCATION_ROOT_FULLPATH", nullptr, "-", false, "(null)", {}},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.expected.substr(0, 40));
      fs::remove(file);
      if (c.content != "-") {
         std::ofstream(file, std::ios::binary) << c.content;
      }
      ChildResult r = RunInChild([&] {
         Location_Init("no-such-program");
         halcyx::gLocationRootVariable = c.variable;
         halcyx::gLocationProductFile = c.productFile ? file.c_str() : nullptr;
         if (c.value != nullptr) {
            setenv("ZORVEX_LOCATION_ROOT_FULLPATH", c.value, 1);
         } else {
            unsetenv("ZORVEX_LOCATION_ROOT_FULLPATH");
         }
         char *root = Location_Get("rootDir");
         fprintf(stderr, "%s", root != nullptr ? root : "(null)");
         free(root);
      });
      EXPECT_EQ(r.err, c.expected);
      auto log = LogEntries(r.out);
      EXPECT_EQ(std::vector<std::string>(log.begin() + 1, log.end()), c.log);
   }
}

TEST(LocationSetuid, UnknownTagRefusesEveryOutsideSource) {
   SetuidInstall install(PROBE_PATH, SCRATCH_DIR);
   if (install.Path().empty()) {
      GTEST_SKIP() << "needs root and a file system that honours set-user-ID";
   }
   std::string productFile = install.Dir() + "/lastLocationUsed";
   std::ofstream(productFile) << "/file/X.app";
   for (const char *identity : {"keep", "lower"}) {
      for (const char *variable : {"ZORVEX_LOCATION_ROOT_FULLPATH=/env/X.app", "UNRELATED=1"}) {
         ChildResult r =
            RunAsNobody(install.Path(),
                        {"process_probe", "location", "no-such-program", productFile.c_str(),
                         identity, "rootDir", "idFile"},
                        {variable});
         ASSERT_EQ(r.ExitCode(), 0) << identity << " (126: no identity change, 127: no exec)";
         EXPECT_EQ(Lookups(r.err), (std::map<std::string, std::string>{
                                      {"rootDir", "(null)"}, {"idFile", "(null)"}}));
         const std::string refused =
            "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n";
         auto log = LogEntries(r.out);
         EXPECT_EQ(std::vector<std::string>(log.begin() + 1, log.end()),
                   std::vector<std::string>(2, refused))
            << identity;
      }
   }
}

}  // namespace
