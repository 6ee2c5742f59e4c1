// SPDX-License-Identifier: MIT
// The environment scrub, run on real process environments: a probe is
// exec'd with a crafted environment and prints what survives.
#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

#include "child.h"

using halcyx::test::RunInChild;

namespace {

struct Scrubbed {
   int exitCode;
   std::vector<std::string> kept;
};

Scrubbed Scrub(const std::vector<std::string> &environment) {
   auto r = RunInChild([&] {
      std::vector<char *> envp;
      for (const auto &entry : environment) {
         envp.push_back(const_cast<char *>(entry.c_str()));
      }
      envp.push_back(nullptr);
      char *argv[] = {const_cast<char *>("scrub_probe"), nullptr};
      execve(SCRUB_PROBE_PATH, argv, envp.data());
      _exit(127);
   });
   Scrubbed s{r.ExitCode(), {}};
   for (size_t start = 0; start < r.out.size();) {
      size_t end = r.out.find('\0', start);
      s.kept.push_back(r.out.substr(start, end - start));
      start = end + 1;
   }
   return s;
}

TEST(EnvironmentScrub, RemovesFunctionsAndShellStartupVariables) {
   auto s = Scrub({"FOO=() { :; }; echo pwned", "PATH=/bin", "BASH_ENV=/tmp/x", "ENV=",
                   "SHELLOPTS=xtrace", "HOME=/root"});
   EXPECT_EQ(s.exitCode, 0);
   EXPECT_EQ(s.kept, (std::vector<std::string>{"PATH=/bin", "HOME=/root"}));
}

TEST(EnvironmentScrub, NearMissesAndEntriesWithoutEqualsAreKept) {
   std::vector<std::string> nearMisses = {
      "XENV=1",          "env=1",        "Env=1",           "BASH_ENVX=1",
      "SHELLOPTSX=1",    "shellopts=1",  "F=(){ :; }",      "G= () { :; }",
      "H=() :",          "I=()  {",      "NOEQUALSSIGN",    "ENV",
      "J=x() { :; }",    "K=(",          "BASH_ENV",        "L=() }",
   };
   auto s = Scrub(nearMisses);
   EXPECT_EQ(s.exitCode, 0);
   EXPECT_EQ(s.kept, nearMisses);
}

TEST(EnvironmentScrub, ManyOffendersAllGoAndSurvivorsKeepTheirOrder) {
   std::vector<std::string> environment;
   std::vector<std::string> survivors;
   for (int i = 0; i < 60; i++) {
      std::string n = std::to_string(i);
      environment.push_back("F" + n + "=() { echo " + n + "; }");
      environment.push_back("KEEP" + n + "=" + n);
      survivors.push_back("KEEP" + n + "=" + n);
      if (i % 7 == 0) {
         environment.push_back(i % 2 ? "ENV=" + n : "SHELLOPTS=" + n);
      }
   }
   environment.push_back("BASH_ENV=last");
   auto s = Scrub(environment);
   EXPECT_EQ(s.exitCode, 0);
   EXPECT_EQ(s.kept, survivors);
}

TEST(EnvironmentScrub, ValueMatchIgnoresTheName) {
   // The test is on the value after the first "=", whatever the name is.
   auto s = Scrub({"A=B=() { x; }", "lower=() {", "X_Y.Z=() {"});
   EXPECT_EQ(s.exitCode, 0);
   EXPECT_EQ(s.kept, (std::vector<std::string>{"A=B=() { x; }"}));
}

TEST(EnvironmentScrub, AnOffenderThatCannotBeUnsetEndsTheProcessSilently) {
   // A function definition under an empty name cannot be unset.
   auto s = Scrub({"PATH=/bin", "=() { :; }"});
   EXPECT_EQ(s.exitCode, 1);
   EXPECT_TRUE(s.kept.empty());
}

}  // namespace
