// Dynamic buffers: growth, failure atomicity, ownership and the fatal forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "child.h"
#include "dynbuf.h"
#include "internal/alloc.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

// The library's allocations while a Seam is alive: recorded, and failed
// while gFail is set.
bool gFail = false;
std::vector<size_t> gRequests;

class Seam {
public:
   Seam() : saved_(halcyx::gAllocHooks) {
      gFail = false;
      gRequests.clear();
      halcyx::gAllocHooks = {
         [](size_t size) -> void * {
            gRequests.push_back(size);
            return gFail ? nullptr : malloc(size);
         },
         [](size_t n, size_t size) -> void * {
            gRequests.push_back(n * size);
            return gFail ? nullptr : calloc(n, size);
         },
         [](void *p, size_t size) -> void * {
            gRequests.push_back(size);
            return gFail ? nullptr : realloc(p, size);
         }};
   }
   ~Seam() { halcyx::gAllocHooks = saved_; }

private:
   halcyx::AllocHooks saved_;
};

struct Snapshot {
   char *data;
   uint64_t size;
   uint64_t allocated;
   std::string contents;

   explicit Snapshot(const DynBuf &b)
      : data(b.data), size(b.size), allocated(b.allocated),
        contents(b.data == nullptr ? "" : std::string(b.data, b.size)) {}
   bool operator==(const Snapshot &) const = default;
};

DynBuf WithContents(const std::string &s) {
   DynBuf b;
   DynBuf_Init(&b);
   EXPECT_TRUE(DynBuf_Append(&b, s.data(), s.size()));
   return b;
}

std::string Contents(const DynBuf &b) { return std::string(b.data, b.size); }

TEST(DynBufGrowth, DoublesFrom128ThenStepsBy262144) {
   DynBuf b;
   DynBuf_Init(&b);
   std::vector<uint64_t> capacities;
   // Fill to capacity, then append one byte: each append needs one more byte.
   while (capacities.size() < 15) {
      DynBuf_SetSize(&b, b.allocated);
      ASSERT_TRUE(DynBuf_Append(&b, "x", 1));
      capacities.push_back(b.allocated);
   }
   EXPECT_EQ(capacities, (std::vector<uint64_t>{128, 256, 512, 1024, 2048, 4096, 8192, 16384,
                                                32768, 65536, 131072, 262144, 524288, 786432,
                                                1048576}));
   DynBuf_Destroy(&b);
}

TEST(DynBufGrowth, RequiredCapacityWinsOverCandidate) {
   DynBuf b;
   DynBuf_Init(&b);
   std::string big(1000, 'q');
   ASSERT_TRUE(DynBuf_Append(&b, big.data(), big.size()));
   EXPECT_EQ(b.allocated, 1000u);
   ASSERT_TRUE(DynBuf_Enlarge(&b, 5000));
   EXPECT_EQ(b.allocated, 5000u);
   // Enough room already: nothing is reallocated.
   {
      Seam seam;
      ASSERT_TRUE(DynBuf_Enlarge(&b, 4000));
      ASSERT_TRUE(DynBuf_Append(&b, "abc", 3));
      EXPECT_TRUE(gRequests.empty());
   }
   EXPECT_EQ(b.allocated, 5000u);
   EXPECT_EQ(Contents(b), big + "abc");
   DynBuf_Destroy(&b);
}

TEST(DynBufGrowth, WrappingSizesFailWithoutAllocating) {
   char block[16] = "0123456789";
   DynBuf b;
   // A buffer that claims a huge size, so size + length wraps around.
   DynBuf_InitWithMemory(&b, UINT64_MAX - 100, block);
   DynBuf_SetSize(&b, UINT64_MAX - 100);
   const DynBuf before = b;
   Seam seam;
   EXPECT_FALSE(DynBuf_Append(&b, "abc", 200));
   EXPECT_FALSE(DynBuf_Insert(&b, 0, "abc", 200));
   EXPECT_TRUE(gRequests.empty());
   EXPECT_EQ(b.data, before.data);
   EXPECT_EQ(b.size, before.size);
   EXPECT_EQ(b.allocated, before.allocated);
}

TEST(DynBufFailure, FailedGrowthLeavesBufferUnchanged) {
   // Empty, exactly full after a trim, and exactly full after growth.
   for (const std::string &initial : {std::string(), std::string("abc"), std::string(128, 'z')}) {
      SCOPED_TRACE(initial.size());
      DynBuf b = WithContents(initial);
      ASSERT_TRUE(DynBuf_Trim(&b));
      Snapshot before(b);
      {
         Seam seam;
         gFail = true;
         std::string fill(b.allocated - b.size + 1, 'f');
         EXPECT_FALSE(DynBuf_Enlarge(&b, b.allocated + 1));
         EXPECT_FALSE(DynBuf_Append(&b, fill.data(), fill.size()));
         EXPECT_FALSE(DynBuf_Insert(&b, 0, fill.data(), fill.size()));
         EXPECT_EQ(gRequests.size(), 3u);
      }
      EXPECT_EQ(Snapshot(b), before);
      DynBuf_Destroy(&b);
   }
}

TEST(DynBufFailure, FailedTrimAndCopyChangeNothing) {
   DynBuf b = WithContents("abc");
   DynBuf dest = WithContents("keep");
   Snapshot before(b);
   Snapshot destBefore(dest);
   {
      Seam seam;
      gFail = true;
      EXPECT_FALSE(DynBuf_Trim(&b));
      EXPECT_FALSE(DynBuf_Copy(&b, &dest));
   }
   EXPECT_EQ(Snapshot(b), before);
   EXPECT_EQ(Snapshot(dest), destBefore);
   DynBuf_Destroy(&b);
   DynBuf_Destroy(&dest);
}

TEST(DynBufEdit, InsertMovesTheTail) {
   DynBuf b = WithContents("held");
   ASSERT_TRUE(DynBuf_Insert(&b, 2, "XYZ", 3));
   ASSERT_TRUE(DynBuf_Insert(&b, 0, "<", 1));
   ASSERT_TRUE(DynBuf_Insert(&b, b.size, ">", 1));
   ASSERT_TRUE(DynBuf_Insert(&b, 1, nullptr, 0));
   EXPECT_EQ(Contents(b), "<heXYZld>");
   // Growing in the middle of the contents keeps both halves.
   std::string big(300, 'm');
   ASSERT_TRUE(DynBuf_Insert(&b, 3, big.data(), big.size()));
   EXPECT_EQ(Contents(b), "<he" + big + "XYZld>");
   DynBuf_Destroy(&b);
}

TEST(DynBufEdit, EmptyAppendToEmptyBufferAllocatesNothing) {
   DynBuf b;
   DynBuf_Init(&b);
   Seam seam;
   EXPECT_TRUE(DynBuf_Append(&b, nullptr, 0));
   EXPECT_TRUE(gRequests.empty());
   EXPECT_EQ(b.data, nullptr);
}

TEST(DynBufOwnership, DetachHandsOverTheBlockButKeepsSize) {
   DynBuf b = WithContents("abcdef");
   char *data = b.data;
   void *detached = DynBuf_Detach(&b);
   EXPECT_EQ(detached, data);
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.allocated, 0u);
   EXPECT_EQ(b.size, 6u);
   free(detached);
}

TEST(DynBufOwnership, DetachStringTerminates) {
   DynBuf b;
   DynBuf_Init(&b);
   {
      Seam seam;
      char *s = DynBuf_DetachString(&b);
      // A fresh buffer grows by the growth rule, to 128 bytes.
      EXPECT_EQ(gRequests, std::vector<size_t>{128});
      EXPECT_EQ(s[0], '\0');
      free(s);
   }
   b = WithContents(std::string(128, 'a'));  // full: one more byte is needed
   char *full = DynBuf_DetachString(&b);
   EXPECT_EQ(std::string(full), std::string(128, 'a'));
   free(full);
   b = WithContents("abc");  // spare room: no reallocation
   {
      Seam seam;
      char *s = DynBuf_DetachString(&b);
      EXPECT_TRUE(gRequests.empty());
      EXPECT_STREQ(s, "abc");
      free(s);
   }
}

TEST(DynBufOwnership, InitWithStringAndAttachTakeTheBlock) {
   DynBuf b;
   DynBuf_InitWithString(&b, strdup("hello"));
   EXPECT_EQ(b.size, 5u);
   EXPECT_EQ(b.allocated, 6u);
   ASSERT_TRUE(DynBuf_Append(&b, "!", 1));  // fits in the terminator's byte
   EXPECT_EQ(Contents(b), "hello!");
   // Attach frees the old block (a leak would show under the leak checker).
   void *block = malloc(4);
   memcpy(block, "wxyz", 4);
   DynBuf_Attach(&b, 4, block);
   EXPECT_EQ(b.size, 4u);
   EXPECT_EQ(b.allocated, 4u);
   EXPECT_EQ(Contents(b), "wxyz");
   DynBuf_Destroy(&b);
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.size, 0u);
   DynBuf_InitWithString(&b, nullptr);
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.allocated, 0u);
}

TEST(DynBufOwnership, TrimShrinksToSizeAndFreesWhenEmpty) {
   DynBuf b = WithContents("abc");
   ASSERT_TRUE(DynBuf_Trim(&b));
   EXPECT_EQ(b.allocated, 3u);
   EXPECT_EQ(Contents(b), "abc");
   DynBuf_SetSize(&b, 0);
   ASSERT_TRUE(DynBuf_Trim(&b));
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.allocated, 0u);
   DynBuf empty;
   DynBuf_Init(&empty);
   ASSERT_TRUE(DynBuf_Trim(&empty));
   EXPECT_EQ(empty.data, nullptr);
}

TEST(DynBufOwnership, CopyIsIndependentWithTheSourceCapacity) {
   DynBuf src = WithContents("abc");
   DynBuf dest;
   ASSERT_TRUE(DynBuf_Copy(&src, &dest));
   EXPECT_NE(dest.data, src.data);
   EXPECT_EQ(dest.allocated, src.allocated);
   EXPECT_EQ(Contents(dest), "abc");
   src.data[0] = 'X';
   EXPECT_EQ(Contents(dest), "abc");
   DynBuf_Destroy(&src);
   DynBuf_Destroy(&dest);
}

// The Safe forms name the caller's position, so each expected line is taken
// on the line of the call.
std::string PanicOf(const std::function<void()> &body) {
   auto r = RunInChild([&] {
      Seam seam;
      gFail = true;
      body();
   });
   EXPECT_EQ(r.ExitCode(), 1) << "no panic";
   auto entries = LogEntries(r.out);
   return entries.size() == 1 ? entries[0] : r.out;
}

std::string AllocationFailureAt(int line) {
   return "Panic: Unrecoverable memory allocation failure at " + std::string(__FILE__) + ":" +
          std::to_string(line) + "\n";
}

TEST(DynBufFatal, SafeFormsNameTheCallersPosition) {
   DynBuf b;
   DynBuf_Init(&b);
   // clang-format off
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeAppend(&b, "x", 1); }), AllocationFailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeInsert(&b, 0, "x", 1); }), AllocationFailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeEnlarge(&b, 10); }), AllocationFailureAt(__LINE__));
   // clang-format on
}

TEST(DynBufFatal, SafeFormsSucceedQuietly) {
   DynBuf b;
   DynBuf_Init(&b);
   void *data = DynBuf_SafeEnlarge(&b, 10);
   EXPECT_EQ(data, b.data);
   DynBuf_SafeAppend(&b, "bc", 2);
   DynBuf_SafeInsert(&b, 0, "a", 1);
   EXPECT_EQ(Contents(b), "abc");
   DynBuf_Destroy(&b);
}

TEST(DynBufFatal, DetachStringThatCannotGrowPanics) {
   DynBuf b;
   DynBuf_Init(&b);
   EXPECT_EQ(PanicOf([&] { DynBuf_DetachString(&b); }),
             "Panic: MEM_ALLOC lib/public/dynbuf:162 \n");
}

}  // namespace
