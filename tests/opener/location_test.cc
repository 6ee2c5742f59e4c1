// Process tags and the key table of the product location.
#include <gtest/gtest.h>

#include "child.h"
#include "location.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

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

}  // namespace
