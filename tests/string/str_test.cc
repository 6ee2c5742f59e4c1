// SPDX-License-Identifier: MIT
// The Str_ helpers: bounded formatting with UTF-8 trimming, allocating forms,
// and the bounded copies whose overflow is fatal.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "child.h"
#include "alloc_seam.h"
#include "internal/unique.h"
#include "str.h"
#include "string/bsd_vsnprintf_int.h"

#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat-truncation"

namespace {

// Refuses every allocation while alive.
struct FailingSeam : halcyx::test::AllocationSeam {
   FailingSeam() { FailAll(); }
};

char *SafeVasprintf(const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   char *s = Str_SafeVasprintf(nullptr, format, ap);
   va_end(ap);
   return s;
}

TEST(Utf8Boundary, KeepsOnlyCompleteSequences) {
   using halcyx::bsdfmt::Utf8BoundaryLength;
   const char *text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a é € 😀
   const size_t expected[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10};
   for (size_t p = 0; p <= 10; p++) EXPECT_EQ(Utf8BoundaryLength(text, p), expected[p]) << p;
   EXPECT_EQ(Utf8BoundaryLength("\x80", 1), 1u);  // a continuation byte first counts as a lead
   EXPECT_EQ(Utf8BoundaryLength("ab\xC3\x80\x80", 5), 2u);
   EXPECT_EQ(Utf8BoundaryLength("x\xFE\x80\x80\x80\x80\x80\x80", 8), 8u);  // up to 7 bytes
   EXPECT_EQ(Utf8BoundaryLength("x\xFF\x80\x80\x80\x80\x80\x80\x80", 9), 1u);
}

TEST(StrSnprintf, TruncationKeepsWholeCharactersAndNeverWritesAtSizeZero) {
   char buf[8] = "QQQQQQQ";
   EXPECT_EQ(Str_Snprintf(buf, 0, "x"), -1);
   EXPECT_EQ(buf[0], 'Q');
   {
      halcyx::test::AllocationSeam seam;  // a null buffer never selects allocation
      EXPECT_EQ(Str_Snprintf(nullptr, 0, "x%s", "y"), -1);
      EXPECT_TRUE(seam.Requests().empty());
   }
   EXPECT_EQ(Str_Snprintf(buf, 1, "x"), -1);
   EXPECT_EQ(std::string(buf, 2), std::string("\0Q", 2));
   for (size_t size : {4, 5}) {
      EXPECT_EQ(Str_Snprintf(buf, size, "ab%s", "\xE2\x82\xAC"), -1);
      EXPECT_STREQ(buf, "ab");
   }
   EXPECT_EQ(Str_Snprintf(buf, 6, "ab%s", "\xE2\x82\xAC"), 5);
   // An engine error leaves what was stored before it.
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "ab%lcd", static_cast<wint_t>(0xE9)), -1);
   EXPECT_STREQ(buf, "ab");
}

TEST(StrAllocating, LengthAndFailure) {
   size_t length = 99;
   std::string big(5000, 'x');
   EXPECT_EQ(halcyx::UniqueCStr(Str_Asprintf(&length, "<%s>%d", big.c_str(), 7)).get(), "<" + big + ">7");
   EXPECT_EQ(length, 5003u);
   EXPECT_STREQ(halcyx::UniqueCStr(Str_SafeAsprintf(&length, "%s-%s", "a", "b")).get(), "a-b");
   EXPECT_EQ(length, 3u);
   {
      FailingSeam seam;
      EXPECT_EQ(Str_Asprintf(&length, "%d", 1), nullptr);
   }
   EXPECT_EQ(length, 3u);
}

TEST(StrCopies, FitExactlyOrSucceed) {
   char buf[6] = "ab";
   EXPECT_STREQ(Str_Strncat(buf, sizeof buf, "cdefgh", 3), "abcde");  // exact fit
   char buf2[6] = "ab";
   EXPECT_STREQ(Str_Strncat(buf2, sizeof buf2, "xyz", 100), "abxyz");  // n beyond src is fine
   char four[4];
   EXPECT_STREQ(Str_Strcpy(four, "abc", sizeof four), "abc");
   EXPECT_STREQ(Str_Strncpy(four, sizeof four, "abcdefgh", 3), "abc");  // only copied bytes count
   char six[6] = "ab";
   EXPECT_STREQ(Str_Strcat(six, "cde", sizeof six), "abcde");
   EXPECT_EQ(Str_Sprintf(four, sizeof four, "%d", 123), 3);
   EXPECT_EQ(Str_Strlen("abc", 2), 2u);
   EXPECT_EQ(Str_Strlen(four, 10), 3u);
}

// Every fatal path: exactly one log line naming the line, and exit status 1.
TEST(StrFatal, OverflowEndsTheProcessWithItsLine) {
   const std::string small = "Buffer too small\n";
   const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { char b[4]; Str_Sprintf(b, sizeof b, "%s", "abcd"); }, "str:213 " + small},
      {[] { char b[4]; Str_Sprintf(b, 0, ""); }, "str:213 " + small},
      {[] { char b[16]; Str_Sprintf(b, sizeof b, "%lc", static_cast<wint_t>(0xE9)); }, "str:213 " + small},
      {[] { char b[4]; Str_Sprintf_C_Locale(b, sizeof b, "%.2f", 1.5); }, "str:176 " + small},
      {[] { char b[4]; Str_Strcpy(b, "abcd", sizeof b); }, "str:283 " + small},
      {[] { char b[4]; Str_Strncpy(b, sizeof b, "abcdefgh", 4); }, "str:321 " + small},
      {[] { char b[6] = "ab"; Str_Strcat(b, "cdef", sizeof b); }, "str:443 " + small},
      {[] { char b[6] = "ab"; Str_Strncat(b, sizeof b, "cdefgh", 4); }, "str:497 " + small},
      {[] { char b[6] = "ab"; Str_Strncat(b, sizeof b, "cdef", 100); }, "str:497 " + small},
      {[] { char b[4] = {'a', 'b', 'c', 'd'}; Str_Strncat(b, sizeof b, "", 0); }, "str:497 " + small},
      {[] { FailingSeam seam; Str_SafeAsprintf(nullptr, "%d", 1); }, "VERIFY lib/string/str:656 \n"},
      {[] { Str_SafeAsprintf(nullptr, "%lc", static_cast<wint_t>(0xE9)); }, "VERIFY lib/string/str:656 \n"},
      {[] { FailingSeam seam; SafeVasprintf("x"); }, "VERIFY lib/string/str:656 \n"},
   };
   for (const auto &[body, message] : cases) {
      auto r = halcyx::test::RunInChild(body);
      EXPECT_EQ(r.ExitCode(), 1) << message;
      std::string want = "Panic: " + (message.starts_with("str:") ? "lib/string/" + message : message);
      EXPECT_EQ(halcyx::test::LogEntries(r.out), std::vector<std::string>{want});
   }
}

TEST(StrSearchAndCase, BoundedSearchAndAsciiOnlyCase) {
   const char *abc = "abc", *s = "aaab";
   const char withNul[] = "ab\0cd";
   EXPECT_EQ(Str_Strnstr(abc, "", 3), abc);
   EXPECT_EQ(Str_Strnstr(abc, "abcd", 10), nullptr);
   EXPECT_EQ(Str_Strnstr(abc, "bc", 3), abc + 1);
   EXPECT_EQ(Str_Strnstr(abc, "bc", 2), nullptr);
   EXPECT_EQ(Str_Strnstr(s, "aab", 4), s + 1);
   EXPECT_EQ(Str_Strnstr(withNul, "cd", sizeof withNul), nullptr);
   char text[] = "@AZ[`az{ W\xC3\x89rld \xC3\xA9 \xFF";
   EXPECT_EQ(Str_ToUpper(text), text);
   EXPECT_STREQ(text, "@AZ[`AZ{ W\xC3\x89RLD \xC3\xA9 \xFF");
   EXPECT_STREQ(Str_ToLower(text), "@az[`az{ w\xC3\x89rld \xC3\xA9 \xFF");
}

}  // namespace
