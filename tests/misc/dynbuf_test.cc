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

// While a Seam is alive the library's allocation requests are recorded,
// and refused while gFail is set.
bool gFail = false;
std::vector<size_t> gRequests;

class Seam {
public:
   Seam() : saved_(halcyx::gAllocHooks) {
      gFail = false;
      gRequests.clear();
      halcyx::gAllocHooks = {
         [](size_t size) { return Record(size) ? malloc(size) : nullptr; },
         [](size_t n, size_t size) { return Record(n * size) ? calloc(n, size) : nullptr; },
         [](void *p, size_t size) { return Record(size) ? realloc(p, size) : nullptr; }};
   }
   ~Seam() { halcyx::gAllocHooks = saved_; }

private:
   static bool Record(size_t size) {
      gRequests.push_back(size);
      return !gFail;
   }
   halcyx::AllocHooks saved_;
};

std::string Contents(const DynBuf &b) { return std::string(b.data, b.size); }

struct Snapshot {
   char *data;
   uint64_t size, allocated;
   std::string contents;
   explicit Snapshot(const DynBuf &b)
      : data(b.data), size(b.size), allocated(b.allocated), contents(b.data ? Contents(b) : "") {}
   bool operator==(const Snapshot &) const = default;
};

DynBuf WithContents(const std::string &s) {
   DynBuf b;
   DynBuf_Init(&b);
   EXPECT_TRUE(DynBuf_Append(&b, s.data(), s.size()));
   return b;
}

TEST(DynBufGrowth, DoublesFrom128ThenStepsBy262144) {
   DynBuf b;
   DynBuf_Init(&b);
   std::vector<uint64_t> capacities;
   while (capacities.size() < 15) {
      DynBuf_SetSize(&b, b.allocated);  // full: the next byte must grow
      ASSERT_TRUE(DynBuf_Append(&b, "x", 1));
      capacities.push_back(b.allocated);
   }
   EXPECT_EQ(capacities, (std::vector<uint64_t>{128, 256, 512, 1024, 2048, 4096, 8192, 16384,
                                                32768, 65536, 131072, 262144, 524288, 786432,
                                                1048576}));
   DynBuf_Destroy(&b);
}

TEST(DynBufGrowth, RequiredCapacityWinsAndRoomIsReused) {
   std::string big(1000, 'q');
   DynBuf b = WithContents(big);
   EXPECT_EQ(b.allocated, 1000u);
   ASSERT_TRUE(DynBuf_Enlarge(&b, 5000));
   EXPECT_EQ(b.allocated, 5000u);
   {
      Seam seam;
      ASSERT_TRUE(DynBuf_Enlarge(&b, 4000));
      ASSERT_TRUE(DynBuf_Append(&b, "abc", 3));
      ASSERT_TRUE(DynBuf_Append(&b, nullptr, 0));
      EXPECT_TRUE(gRequests.empty());
   }
   EXPECT_EQ(Contents(b), big + "abc");
   DynBuf_Destroy(&b);
}

TEST(DynBufGrowth, WrappingSizesFailWithoutAllocating) {
   char block[16] = "0123456789";
   DynBuf b;
   DynBuf_InitWithMemory(&b, UINT64_MAX - 100, block);
   DynBuf_SetSize(&b, UINT64_MAX - 100);  // size + 200 wraps around
   Seam seam;
   EXPECT_FALSE(DynBuf_Append(&b, "abc", 200));
   EXPECT_FALSE(DynBuf_Insert(&b, 0, "abc", 200));
   EXPECT_TRUE(gRequests.empty());
   EXPECT_EQ(b.data, block);
   EXPECT_EQ(b.size, UINT64_MAX - 100);
   EXPECT_EQ(b.allocated, UINT64_MAX - 100);
}

TEST(DynBufFailure, FailedAllocationLeavesBuffersUnchanged) {
   // Empty, and exactly full (after a trim and after growth).
   for (const std::string &initial : {std::string(), std::string("abc"), std::string(128, 'z')}) {
      SCOPED_TRACE(initial.size());
      DynBuf b = WithContents(initial);
      ASSERT_TRUE(DynBuf_Trim(&b));
      DynBuf dest = WithContents("keep");
      Snapshot before(b), destBefore(dest);
      {
         Seam seam;
         gFail = true;
         std::string fill(b.allocated - b.size + 1, 'f');
         EXPECT_FALSE(DynBuf_Enlarge(&b, b.allocated + 1));
         EXPECT_FALSE(DynBuf_Append(&b, fill.data(), fill.size()));
         EXPECT_FALSE(DynBuf_Insert(&b, 0, fill.data(), fill.size()));
         if (b.allocated != 0) {
            EXPECT_FALSE(DynBuf_Copy(&b, &dest));
            DynBuf_SetSize(&b, b.size - 1);
            EXPECT_FALSE(DynBuf_Trim(&b));
            DynBuf_SetSize(&b, b.size + 1);
         }
      }
      EXPECT_EQ(Snapshot(b), before);
      EXPECT_EQ(Snapshot(dest), destBefore);
      DynBuf_Destroy(&dest);
      DynBuf_Destroy(&b);
   }
}

TEST(DynBufEdit, InsertMovesTheTail) {
   DynBuf b = WithContents("held");
   ASSERT_TRUE(DynBuf_Insert(&b, 2, "XYZ", 3));
   ASSERT_TRUE(DynBuf_Insert(&b, 0, "<", 1));
   ASSERT_TRUE((DynBuf_Append)(&b, ">", 1));  // the function, not the inline form
   EXPECT_EQ(Contents(b), "<heXYZld>");
   std::string big(300, 'm');  // grows while inserting in the middle
   ASSERT_TRUE(DynBuf_Insert(&b, 3, big.data(), big.size()));
   EXPECT_EQ(Contents(b), "<he" + big + "XYZld>");
   DynBuf_Destroy(&b);
}

TEST(DynBufOwnership, DetachKeepsSizeAndDetachStringTerminates) {
   DynBuf b = WithContents("abcdef");
   char *data = b.data;
   void *detached = DynBuf_Detach(&b);
   EXPECT_EQ(detached, data);
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.allocated, 0u);
   EXPECT_EQ(b.size, 6u);
   free(detached);

   DynBuf_Init(&b);
   Seam seam;
   char *s = DynBuf_DetachString(&b);
   EXPECT_EQ(gRequests, std::vector<size_t>{128});  // the growth rule applies
   EXPECT_EQ(s[0], '\0');
   free(s);
   b = WithContents("abc");
   gRequests.clear();
   s = DynBuf_DetachString(&b);
   EXPECT_TRUE(gRequests.empty());  // a spare byte is used in place
   EXPECT_STREQ(s, "abc");
   free(s);
}

TEST(DynBufOwnership, AdoptedBlocksAreOwnedAndFreed) {
   DynBuf b;
   DynBuf_InitWithString(&b, strdup("hello"));
   EXPECT_EQ(b.size, 5u);
   EXPECT_EQ(b.allocated, 6u);
   ASSERT_TRUE(DynBuf_Append(&b, "!", 1));  // fits in the terminator's byte
   EXPECT_EQ(Contents(b), "hello!");
   auto *block = static_cast<char *>(malloc(4));
   memcpy(block, "wxyz", 4);
   DynBuf_Attach(&b, 4, block);  // frees the old block: the leak checker sees it if not
   EXPECT_EQ(Snapshot(b), (Snapshot(DynBuf{block, 4, 4})));
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Copy(&b, &copy));
   block[0] = 'W';
   EXPECT_EQ(Contents(copy), "wxyz");
   EXPECT_EQ(copy.allocated, 4u);
   DynBuf_SetSize(&b, 2);
   ASSERT_TRUE(DynBuf_Trim(&b));
   EXPECT_EQ(b.allocated, 2u);
   DynBuf_SetSize(&b, 0);
   ASSERT_TRUE(DynBuf_Trim(&b));
   EXPECT_EQ(b.data, nullptr);
   DynBuf_Destroy(&copy);
   EXPECT_EQ(Snapshot(copy), Snapshot(DynBuf{}));
   DynBuf_InitWithString(&b, nullptr);
   EXPECT_EQ(Snapshot(b), Snapshot(DynBuf{}));
}

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

std::string FailureAt(int line) {
   return "Panic: Unrecoverable memory allocation failure at " __FILE__ ":" +
          std::to_string(line) + "\n";
}

TEST(DynBufFatal, SafeFormsNameTheCallersPosition) {
   DynBuf b;
   DynBuf_Init(&b);
   // Each expected line is taken on the line of the call.
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeAppend(&b, "x", 1); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeInsert(&b, 0, "x", 1); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_SafeEnlarge(&b, 10); }), FailureAt(__LINE__));
   EXPECT_EQ(PanicOf([&] { DynBuf_DetachString(&b); }),
             "Panic: MEM_ALLOC lib/public/dynbuf:162 \n");
   EXPECT_EQ(DynBuf_SafeEnlarge(&b, 10), b.data);
   DynBuf_SafeAppend(&b, "bc", 2);
   DynBuf_SafeInsert(&b, 0, "a", 1);
   EXPECT_EQ(Contents(b), "abc");
   DynBuf_Destroy(&b);
}

}  // namespace
