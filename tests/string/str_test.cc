// The Str_ helpers: bounded formatting with UTF-8 trimming, allocating
// forms, and the bounded copies whose overflow is fatal.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "child.h"
#include "internal/alloc.h"
#include "str.h"
#include "string/bsd_vsnprintf_int.h"

// Each compiler skips the groups only the other one knows.
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat-truncation"
#pragma GCC diagnostic ignored "-Wformat-invalid-specifier"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

const char kEuro[] = "\xE2\x82\xAC";

// The single log entry a fatal path writes, checked with its exit status.
std::string FatalMessage(const std::function<void()> &body) {
   auto r = RunInChild(body);
   EXPECT_EQ(r.ExitCode(), 1) << "did not end the process";
   auto entries = LogEntries(r.out);
   return entries.size() == 1 ? entries[0] : "<" + r.out + ">";
}

// Succeeds quietly (exit 0, no log) or reports what happened.
void ExpectNotFatal(const std::function<void()> &body) {
   auto r = RunInChild(body);
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(r.out, "");
}

class FailingAllocations {
public:
   FailingAllocations() : saved_(halcyx::gAllocHooks) {
      halcyx::gAllocHooks = {[](size_t) -> void * { return nullptr; },
                             [](size_t, size_t) -> void * { return nullptr; },
                             [](void *, size_t) -> void * { return nullptr; }};
   }
   ~FailingAllocations() { halcyx::gAllocHooks = saved_; }

private:
   halcyx::AllocHooks saved_;
};

int Vsnprintf(char *buf, size_t size, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   int r = Str_Vsnprintf(buf, size, format, ap);
   va_end(ap);
   return r;
}

char *SafeVasprintf(size_t *length, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   char *s = Str_SafeVasprintf(length, format, ap);
   va_end(ap);
   return s;
}

// ---------------------------------------------------------------------------

TEST(Utf8Boundary, CompleteSequencesStayIncompleteOnesGo) {
   using halcyx::bsdfmt::Utf8BoundaryLength;
   const char *text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a é € 😀
   const size_t expected[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10};
   for (size_t p = 0; p <= 10; p++) {
      EXPECT_EQ(Utf8BoundaryLength(text, p), expected[p]) << p;
   }
}

TEST(Utf8Boundary, OddBytesFollowTheCountRule) {
   using halcyx::bsdfmt::Utf8BoundaryLength;
   // A continuation byte at position 0 is taken as the lead byte.
   EXPECT_EQ(Utf8BoundaryLength("\x80", 1), 1u);
   EXPECT_EQ(Utf8BoundaryLength("\x80\x80", 2), 0u);
   // A lead byte promising more than it has, or fewer, cuts at itself.
   EXPECT_EQ(Utf8BoundaryLength("ab\xC3\x80\x80", 5), 2u);
   // The 5- to 7-byte forms count like the others; 8 always cuts.
   EXPECT_EQ(Utf8BoundaryLength("x\xF8\x80\x80\x80\x80", 6), 6u);
   EXPECT_EQ(Utf8BoundaryLength("x\xFE\x80\x80\x80\x80\x80\x80", 8), 8u);
   EXPECT_EQ(Utf8BoundaryLength("x\xFF\x80\x80\x80\x80\x80\x80\x80", 9), 1u);
}

TEST(StrSnprintf, TruncationTrimsToACharacterBoundary) {
   char buf[16];
   std::string text = std::string("ab") + kEuro;
   EXPECT_EQ(Str_Snprintf(buf, 4, "%s", text.c_str()), -1);
   EXPECT_STREQ(buf, "ab");
   EXPECT_EQ(Str_Snprintf(buf, 5, "%s", text.c_str()), -1);
   EXPECT_STREQ(buf, "ab");
   EXPECT_EQ(Str_Snprintf(buf, 6, "%s", text.c_str()), 5);
   EXPECT_EQ(buf, text);
   // ASCII is cut anywhere.
   EXPECT_EQ(Str_Snprintf(buf, 4, "%d", 123456), -1);
   EXPECT_STREQ(buf, "123");
}

TEST(StrSnprintf, SizeZeroAndOne) {
   char buf[4] = {'Q', 'Q', 'Q', 'Q'};
   EXPECT_EQ(Str_Snprintf(buf, 0, "x"), -1);
   EXPECT_EQ(buf[0], 'Q');
   EXPECT_EQ(Str_Snprintf(buf, 1, "x"), -1);
   EXPECT_EQ(buf[0], '\0');
   EXPECT_EQ(buf[1], 'Q');
   EXPECT_EQ(Str_Snprintf(buf, 1, ""), 0);
}

TEST(StrSnprintf, ExactFitAndEngineErrors) {
   char buf[8];
   EXPECT_EQ(Vsnprintf(buf, 8, "%s", "1234567"), 7);
   EXPECT_STREQ(buf, "1234567");
   EXPECT_EQ(Vsnprintf(buf, 7, "%s", "1234567"), -1);
   EXPECT_STREQ(buf, "123456");
   // An engine error leaves what was stored before it, terminated.
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "ab%lcd", static_cast<wint_t>(0xE9)), -1);
   EXPECT_STREQ(buf, "ab");
}

TEST(StrSprintf, OverflowIsFatalWithItsLine) {
   EXPECT_EQ(FatalMessage([] {
                char buf[4];
                Str_Sprintf(buf, sizeof buf, "%s", "abcd");
             }),
             "Panic: lib/string/str:213 Buffer too small\n");
   EXPECT_EQ(FatalMessage([] {
                char buf[4];
                Str_Sprintf_C_Locale(buf, sizeof buf, "%.2f", 1.5);
             }),
             "Panic: lib/string/str:176 Buffer too small\n");
   EXPECT_EQ(FatalMessage([] {
                char buf[4];
                Str_Sprintf(buf, 0, "");
             }),
             "Panic: lib/string/str:213 Buffer too small\n");
   EXPECT_EQ(FatalMessage([] {
                char buf[16];
                Str_Sprintf(buf, sizeof buf, "%lc", static_cast<wint_t>(0xE9));
             }),
             "Panic: lib/string/str:213 Buffer too small\n");
}

TEST(StrSprintf, ReturnsTheLengthWhenItFits) {
   char buf[16];
   EXPECT_EQ(Str_Sprintf(buf, sizeof buf, "%s=%d", "k", 42), 4);
   EXPECT_STREQ(buf, "k=42");
   EXPECT_EQ(Str_Sprintf_C_Locale(buf, sizeof buf, "%.3f", 0.5), 5);
   EXPECT_STREQ(buf, "0.500");
}

TEST(StrAsprintf, AllocatesAndReportsLength) {
   size_t length = 99;
   char *s = Str_Asprintf(&length, "");
   ASSERT_NE(s, nullptr);
   EXPECT_STREQ(s, "");
   EXPECT_EQ(length, 0u);
   free(s);

   std::string big(5000, 'x');
   s = Str_Asprintf(&length, "<%s>%d", big.c_str(), 7);
   ASSERT_NE(s, nullptr);
   EXPECT_EQ(length, 5003u);
   EXPECT_EQ(s, "<" + big + ">7");
   free(s);

   s = Str_Asprintf(nullptr, "%s", "no length");
   EXPECT_STREQ(s, "no length");
   free(s);
}

TEST(StrAsprintf, FailureReturnsNullAndLeavesLength) {
   FailingAllocations fail;
   size_t length = 12345;
   EXPECT_EQ(Str_Asprintf(&length, "%d", 1), nullptr);
   EXPECT_EQ(length, 12345u);
}

TEST(StrSafeAsprintf, AnyFailureIsFatal) {
   const std::string verify = "Panic: VERIFY lib/string/str:656 \n";
   EXPECT_EQ(FatalMessage([] {
                FailingAllocations fail;
                Str_SafeAsprintf(nullptr, "%d", 1);
             }),
             verify);
   EXPECT_EQ(FatalMessage([] { Str_SafeAsprintf(nullptr, "%lc", static_cast<wint_t>(0xE9)); }),
             verify);
   EXPECT_EQ(FatalMessage([] {
                FailingAllocations fail;
                SafeVasprintf(nullptr, "x");
             }),
             verify);
   size_t length = 0;
   char *s = Str_SafeAsprintf(&length, "%s-%s", "a", "b");
   EXPECT_STREQ(s, "a-b");
   EXPECT_EQ(length, 3u);
   free(s);
}

TEST(StrStrcpy, CopiesWhenItFitsElseFatal) {
   char buf[4];
   EXPECT_EQ(Str_Strcpy(buf, "abc", sizeof buf), buf);
   EXPECT_STREQ(buf, "abc");
   EXPECT_EQ(FatalMessage([] {
                char small[4];
                Str_Strcpy(small, "abcd", sizeof small);
             }),
             "Panic: lib/string/str:283 Buffer too small\n");
}

TEST(StrStrncpy, CopiesAtMostNAndAlwaysTerminates) {
   char buf[8];
   memset(buf, 'Z', sizeof buf);
   EXPECT_EQ(Str_Strncpy(buf, sizeof buf, "abcdef", 3), buf);
   EXPECT_STREQ(buf, "abc");
   EXPECT_STREQ(Str_Strncpy(buf, sizeof buf, "xy", 100), "xy");
   // Only the bytes really copied must fit.
   EXPECT_STREQ(Str_Strncpy(buf, 4, "abcdefgh", 3), "abc");
   EXPECT_EQ(FatalMessage([] {
                char small[4];
                Str_Strncpy(small, sizeof small, "abcdefgh", 4);
             }),
             "Panic: lib/string/str:321 Buffer too small\n");
}

TEST(StrStrlen, BoundedByMaxLen) {
   EXPECT_EQ(Str_Strlen("abc", 10), 3u);
   EXPECT_EQ(Str_Strlen("abc", 2), 2u);
   char unterminated[3] = {'x', 'y', 'z'};
   EXPECT_EQ(Str_Strlen(unterminated, sizeof unterminated), 3u);
   EXPECT_EQ(Str_Strlen("", 0), 0u);
}

TEST(StrStrnstr, SearchesOnlyTheBoundedSource) {
   const char *abc = "abc";
   EXPECT_EQ(Str_Strnstr(abc, "", 3), abc);
   EXPECT_EQ(Str_Strnstr(abc, "abcd", 10), nullptr);
   EXPECT_EQ(Str_Strnstr(abc, "bc", 3), abc + 1);
   EXPECT_EQ(Str_Strnstr(abc, "bc", 2), nullptr);
   const char *s = "aaab";
   EXPECT_EQ(Str_Strnstr(s, "aab", 4), s + 1);
   // The source's terminator bounds the search before n does.
   const char withNul[] = "ab\0cd";
   EXPECT_EQ(Str_Strnstr(withNul, "cd", sizeof withNul), nullptr);
}

TEST(StrStrcat, AppendsWhenItFitsElseFatal) {
   char buf[6] = "ab";
   EXPECT_EQ(Str_Strcat(buf, "cde", sizeof buf), buf);
   EXPECT_STREQ(buf, "abcde");
   EXPECT_EQ(FatalMessage([] {
                char small[6] = "ab";
                Str_Strcat(small, "cdef", sizeof small);
             }),
             "Panic: lib/string/str:443 Buffer too small\n");
}

TEST(StrStrncat, FatalExactlyWhenTheAppendedBytesDoNotFit) {
   char buf[6] = "ab";
   EXPECT_STREQ(Str_Strncat(buf, sizeof buf, "cdefgh", 3), "abcde");
   char buf2[6] = "ab";
   // n alone exceeds the room, but src is short enough.
   EXPECT_STREQ(Str_Strncat(buf2, sizeof buf2, "xyz", 100), "abxyz");
   const std::string fatal = "Panic: lib/string/str:497 Buffer too small\n";
   EXPECT_EQ(FatalMessage([] {
                char small[6] = "ab";
                Str_Strncat(small, sizeof small, "cdefgh", 4);
             }),
             fatal);
   EXPECT_EQ(FatalMessage([] {
                char small[6] = "ab";
                Str_Strncat(small, sizeof small, "cdef", 100);
             }),
             fatal);
   // A buffer without a terminator inside bufSize has no room at all.
   EXPECT_EQ(FatalMessage([] {
                char full[4] = {'a', 'b', 'c', 'd'};
                Str_Strncat(full, sizeof full, "", 0);
             }),
             fatal);
   ExpectNotFatal([] {
      char room[6] = "ab";
      Str_Strncat(room, sizeof room, "cdefgh", 3);
   });
}

TEST(StrCase, OnlyAsciiLettersChange) {
   char text[] = "Hello, W\xC3\x89rld \xC3\xA9 [z]";
   EXPECT_EQ(Str_ToUpper(text), text);
   EXPECT_STREQ(text, "HELLO, W\xC3\x89RLD \xC3\xA9 [Z]");
   EXPECT_STREQ(Str_ToLower(text), "hello, w\xC3\x89rld \xC3\xA9 [z]");
   char edges[] = "@AZ[`az{";
   EXPECT_STREQ(Str_ToLower(edges), "@az[`az{");
   EXPECT_STREQ(Str_ToUpper(edges), "@AZ[`AZ{");
}

}  // namespace
