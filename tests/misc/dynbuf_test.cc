// SPDX-License-Identifier: MIT
// Dynamic buffers: growth, failures that change nothing, ownership, fatal forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "child.h"
#include "dynbuf.h"
#include "alloc_seam.h"

namespace {

// Records the library's allocation requests, refusing them all when asked.
struct Seam : halcyx::test::AllocationSeam {
   explicit Seam(bool fail = false) { FailAll(fail); }
};

std::string Contents(const DynBuf &b) { return b.data ? std::string(b.data, b.size) : ""; }
auto State(const DynBuf &b) { return std::tuple(b.data, b.size, b.allocated, Contents(b)); }

TEST(DynBufGrowth, DoublesFrom128ThenStepsBy262144AndRequiredSizeWins) {
   DynBuf b{};
   std::vector<uint64_t> capacities;
   while (capacities.size() < 14) {
      DynBuf_SetSize(&b, b.allocated);  // full: one more byte must grow
      ASSERT_TRUE(DynBuf_Append(&b, "x", 1));
      capacities.push_back(b.allocated);
   }
   EXPECT_EQ(capacities, (std::vector<uint64_t>{128, 256, 512, 1024, 2048, 4096, 8192, 16384,
                                                32768, 65536, 131072, 262144, 524288, 786432}));
   ASSERT_TRUE(DynBuf_Enlarge(&b, 2000000));
   EXPECT_EQ(b.allocated, 2000000u);
   DynBuf_Destroy(&b);
   // Enlarge grows by the rule on every call, whether or not the minimum fits.
   std::vector<uint64_t> enlarged;
   for (uint64_t minSize : {1, 100, 256, 0}) {
      ASSERT_TRUE(DynBuf_Enlarge(&b, minSize));
      enlarged.push_back(b.allocated);
   }
   DynBuf_SafeEnlarge(&b, 1);
   enlarged.push_back(b.allocated);
   EXPECT_EQ(enlarged, (std::vector<uint64_t>{128, 256, 512, 1024, 2048}));
   // Pieces of every short length land whole when they fit.
   const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
   std::string want;
   for (size_t n = 0; n <= 20; n++) {
      ASSERT_TRUE(DynBuf_Append(&b, text.data() + n, n));
      want.append(text, n, n);
   }
   EXPECT_EQ(Contents(b), want);
   DynBuf_Destroy(&b);
}

TEST(DynBufFailure, RefusedOrWrappingGrowthLeavesTheBufferUnchanged) {
   for (const std::string initial : {"", "abc", "0123456789abcdef"}) {
      DynBuf b{}, dest;
      ASSERT_TRUE(DynBuf_Append(&b, initial.data(), initial.size()) && DynBuf_Trim(&b));
      ASSERT_EQ(b.allocated, initial.size());
      DynBuf_InitWithString(&dest, strdup("keep"));
      const auto before = State(b), destBefore = State(dest);
      {
         Seam seam(true);
         EXPECT_FALSE(DynBuf_Enlarge(&b, 0));
         EXPECT_FALSE(DynBuf_Append(&b, "xy", 2));
         EXPECT_FALSE(DynBuf_Insert(&b, 0, "xy", 2));
         EXPECT_TRUE(b.allocated == 0 || !DynBuf_Copy(&b, &dest));
         DynBuf_SetSize(&b, b.size / 2);
         EXPECT_EQ(DynBuf_Trim(&b), b.allocated == 0);
         DynBuf_SetSize(&b, initial.size());
      }
      EXPECT_EQ(State(b), before);
      EXPECT_EQ(State(dest), destBefore);
      DynBuf_Destroy(&dest);
      DynBuf_Destroy(&b);
   }
   char block[4] = "abc";
   DynBuf b;
   DynBuf_InitWithMemory(&b, UINT64_MAX - 100, block);
   DynBuf_SetSize(&b, UINT64_MAX - 100);
   Seam seam;
   EXPECT_FALSE(DynBuf_Append(&b, "abc", 200));  // size + 200 wraps around
   EXPECT_FALSE(DynBuf_Insert(&b, 0, "abc", 200));
   EXPECT_TRUE(seam.Requests().empty());
   EXPECT_TRUE(b.data == block && b.size == UINT64_MAX - 100 && b.allocated == b.size);
}

TEST(DynBufOwnership, CopyDetachDetachStringAndTrim) {
   DynBuf b, copy;
   DynBuf_InitWithString(&b, strdup("held"));  // allocated counts the terminator
   ASSERT_TRUE(DynBuf_Copy(&b, &copy));  // an own block of the same capacity
   EXPECT_TRUE(copy.data != b.data && copy.allocated == 5 && Contents(copy) == "held");
   char *data = b.data;
   EXPECT_EQ(DynBuf_Detach(&b), data);
   EXPECT_TRUE(b.data == nullptr && b.allocated == 0 && b.size == 4);
   free(data);
   Seam seam;
   data = DynBuf_DetachString(&copy);  // terminated in the spare byte
   EXPECT_STREQ(data, "held");
   free(data);
   DynBuf_Init(&b);
   data = DynBuf_DetachString(&b);  // no spare byte: grows by the rule
   EXPECT_EQ(data[0], '\0');
   free(data);
   EXPECT_EQ(seam.Requests(), std::vector<size_t>{128});
   DynBuf_Attach(&b, 4, strdup("wxyz"));
   DynBuf_SetSize(&b, 0);
   EXPECT_TRUE(DynBuf_Trim(&b) && b.data == nullptr && b.allocated == 0);
}

std::string PanicOf(const std::function<void()> &body) {
   auto r = halcyx::test::RunInChild([&] {
      Seam seam(true);
      body();
   });
   auto entries = halcyx::test::LogEntries(r.out);
   return r.ExitCode() == 1 && entries.size() == 1 ? entries[0] : "no panic: " + r.out;
}

std::string FailureAt(int line) {
   return "Panic: Unrecoverable memory allocation failure at " __FILE__ ":" +
          std::to_string(line) + "\n";
}

TEST(DynBufFatal, SafeFormsNameTheCallerAndDetachStringPanics) {
   DynBuf b{};
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeAppend(&b, "x", 1); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeInsert(&b, 0, "x", 1); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeEnlarge(&b, 10); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_DetachString(&b); }),
             "Panic: MEM_ALLOC lib/public/dynbuf:162 \n");
   DynBuf_SafeAppend(&b, "bc", 2);
   DynBuf_SafeInsert(&b, 0, "a", 1);
   EXPECT_EQ(Contents(b), "abc");
   DynBuf_Destroy(&b);
}

}  // namespace
