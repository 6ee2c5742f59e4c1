// SPDX-License-Identifier: MIT
// The diagnostic log, the fatal path and the safe allocation wrappers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "child.h"
#include "alloc_seam.h"
#include "internal/unique.h"
#include "log.h"
#include "util.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

TEST(LogEntry, StampPrefixAndMessage) {
   auto r = RunInChild([] {
      Log("plain %d\n", 1);
      Warning("careful %s\n", "now");
   });
   ASSERT_EQ(r.ExitCode(), 0);
   std::regex line(R"(\d{4}-(0[1-9]|1[0-2])-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}\| plain 1
\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}\| Warning: careful now
)");
   EXPECT_TRUE(std::regex_match(r.out, line)) << r.out;
}

TEST(LogEntry, PanicWritesThenExitsWithStatusOne) {
   auto r = RunInChild([] {
      atexit([] { fputs("exit handlers ran\n", stderr); });
      Panic("gone %d\n", 7);
   });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{"Panic: gone 7\n"});
   EXPECT_EQ(r.err, "exit handlers ran\n");
}

TEST(LogEntry, OverlongMessageLeavesOnlyStampAndPrefix) {
   auto r = RunInChild([] {
      std::string body(2000, 'x');
      Warning("%s\n", body.c_str());
      Log("%s", std::string(1023, 'y').c_str());
      Log("%s", std::string(1024, 'z').c_str());
   });
   ASSERT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(LogEntries(r.out),
             (std::vector<std::string>{"Warning: ", std::string(1023, 'y'), ""}));
}

TEST(LogEntry, DescriptorMinusOneSilencesEverythingButPanicStillExits) {
   auto r = RunInChild([] {
      // A path that cannot be opened switches logging off.
      ASSERT_EQ(ServiceImplLogOpen("/nonexistent-dir/log"), -1);
      Log("a\n");
      Warning("b\n");
      Panic("c\n");
   });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_EQ(r.out, "");
}

TEST(LogEntry, LogOpenTruncatesAndRedirects) {
   char path[] = "/tmp/halcyx-log-XXXXXX";
   int fd = mkstemp(path);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(write(fd, "old contents that must go\n", 26), 26);
   close(fd);
   auto r = RunInChild([&] {
      int logFd = ServiceImplLogOpen(path);
      ASSERT_GE(logFd, 0);
      Log("to file\n");
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(r.out, "");
   std::ifstream in(path);
   EXPECT_EQ(LogEntries(std::string(std::istreambuf_iterator<char>(in), {})), std::vector<std::string>{"to file\n"});
   unlink(path);
}

std::string PanicOf(const std::function<void()> &body) {
   auto r = RunInChild([&] {
      halcyx::test::AllocationSeam seam;
      seam.FailAll();
      body();
   });
   EXPECT_EQ(r.ExitCode(), 1) << "no panic";
   auto entries = LogEntries(r.out);
   return entries.size() == 1 ? entries[0] : r.out;
}

TEST(SafeAllocation, FailureMessagesByForm) {
   for (auto body : {+[] { UtilSafeMalloc0(8); }, +[] { UtilSafeRealloc0(nullptr, 8); }, +[] { UtilSafeCalloc0(2, 8); },
                     +[] { UtilSafeStrdup0("abc"); }, +[] { UtilSafeStrndup0("abc", 2); }})
      EXPECT_EQ(PanicOf(body), "Panic: Unrecoverable memory allocation failure\n");

   EXPECT_EQ(PanicOf([] { UtilSafeMalloc1(8, -1, "x.c", 7); }),
             "Panic: Unrecoverable memory allocation failure at x.c:7\n");
   EXPECT_EQ(PanicOf([] { UtilSafeCalloc1(1, 1, 4242, "y.c", 12); }),
             "Panic: Unrecoverable memory allocation failure at y.c:12.  Bug number: 4242\n");
   EXPECT_EQ(PanicOf([] { UtilSafeStrdup1("s", -1, "z.c", 1); }),
             "Panic: Unrecoverable memory allocation failure at z.c:1\n");
}

TEST(SafeAllocation, EmptyRequestsAndNullStringsAreNotFatal) {
   auto r = RunInChild([] {
      halcyx::test::AllocationSeam seam;
      seam.FailAll();
      UtilSafeMalloc0(0);
      UtilSafeRealloc1(nullptr, 0, -1, "x.c", 1);
      UtilSafeCalloc0(0, 16);
      UtilSafeCalloc0(16, 0);
      if (UtilSafeStrdup0(nullptr) != nullptr || UtilSafeStrndup0(nullptr, 4) != nullptr ||
          Util_Memdup("abc", 3) != nullptr) {
         _exit(3);
      }
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out;
}

TEST(SafeAllocation, StrndupStopsAtNulOrBound) {
   auto take = [](char *s) { return std::string(halcyx::UniqueCStr(s).get()); };
   char unterminated[4] = {'w', 'x', 'y', 'z'};
   EXPECT_EQ(take(UtilSafeStrndup0("abcdef", 3)), "abc");
   EXPECT_EQ(take(UtilSafeStrndup0("ab\0cd", 5)), "ab");
   EXPECT_EQ(take(UtilSafeStrndup0(unterminated, sizeof unterminated)), "wxyz");
   EXPECT_EQ(Util_Memdup("abc", 0), nullptr);
}

TEST(UtilMemcpy, EveryAlignmentAndLengthCopiesExactly) {
   alignas(8) unsigned char src[64];
   for (size_t i = 0; i < sizeof src; i++) src[i] = static_cast<unsigned char>(i * 7 + 1);
   for (size_t so = 0; so < 8; so++) {
      for (size_t d = 0; d < 8; d++) {
         for (size_t n = 0; n <= 40; n++) {
            alignas(8) unsigned char dst[64];
            memset(dst, 0xEE, sizeof dst);
            ASSERT_EQ(Util_Memcpy(dst + d, src + so, n), dst + d);
            ASSERT_EQ(memcmp(dst + d, src + so, n), 0);
            for (size_t i = 0; i < sizeof dst; i++) {
               if (i < d || i >= d + n) {
                  ASSERT_EQ(dst[i], 0xEE) << "wrote outside the range";
               }
            }
         }
      }
   }
}

}  // namespace
