// SPDX-License-Identifier: MIT
// String operations: ranges, search, replacement, joining, case-insensitive
// ordering and the source-literal decoder.
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "child.h"
#include "unicode.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

std::string Take(char *s) {
   std::string copy = s == nullptr ? "<null>" : s;
   free(s);
   return copy;
}

const char kAEacuteEuro[] = "a\xC3\xA9\xE2\x82\xAC";  // U+0061 U+00E9 U+20AC

TEST(UnicodeRanges, SubstrReplaceAndJoin) {
   struct Case { ssize_t start, length; const char *expected; } substr[] = {
      {1, -1, "\xC3\xA9\xE2\x82\xAC"}, {1, 1, "\xC3\xA9"}, {2, 99, "\xE2\x82\xAC"}, {10, -1, ""},
      {-4, 2, ""}, {0, -1, kAEacuteEuro},
   };
   for (const Case &c : substr) {
      EXPECT_EQ(Take(Unicode_Substr(kAEacuteEuro, c.start, c.length)), c.expected)
         << c.start << "," << c.length;
   }
   EXPECT_EQ(Unicode_Substr(nullptr, 0, -1), nullptr);

   EXPECT_EQ(Take(Unicode_ReplaceRange(kAEacuteEuro, 1, 1, "xyz", 1, -1)), "ayz\xE2\x82\xAC");
   EXPECT_EQ(Take(Unicode_ReplaceRange(kAEacuteEuro, 1, -1, "xyz", 0, 1)), "ax");
   EXPECT_EQ(Take(Unicode_ReplaceRange(kAEacuteEuro, 9, 0, "\xC3\xA9", 0, -1)),
             "a\xC3\xA9\xE2\x82\xAC\xC3\xA9");
   EXPECT_EQ(Take(Unicode_ReplaceRange("abc", 0, 0, "", 0, -1)), "abc");

   EXPECT_EQ(Take(Unicode_Join("a", "\xC3\xA9", "", "c", nullptr)), "a\xC3\xA9" "c");
   EXPECT_EQ(Unicode_Join(nullptr, "x", nullptr), nullptr);
   EXPECT_EQ(Take(Unicode_Format("%s-%d", "n", 7)), "n-7");
}

TEST(UnicodeFind, FirstAndLastWithinRanges) {
   struct Case {
      const char *str1;
      ssize_t start1, length1;
      const char *str2;
      ssize_t start2, length2, first, last;
   } cases[] = {
      {"abcabc", 0, -1, "bc", 0, -1, 1, 4}, {"abcabc", 0, -1, "", 0, -1, 0, 0},
      {"abcabc", 2, -1, "", 0, -1, 2, 2},
      {"abcabc", 2, 3, "bc", 0, -1, -1, -1},  // "cab"
      {"abcabc", 2, 4, "bc", 0, -1, 4, 4},
      {"abcabc", 0, 5, "xbcx", 1, 2, 1, 1},   // "bc" out of "xbcx", "abcab"
      {"ab", 0, -1, "abc", 0, -1, -1, -1},
      {"\xC3\xA9\xE2\x82\xAC\xC3\xA9", 0, -1, "\xC3\xA9", 0, -1, 0, 2},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(std::string(c.str1) + " / " + c.str2);
      EXPECT_EQ(Unicode_FindSubstrInRange(c.str1, c.start1, c.length1, c.str2, c.start2, c.length2), c.first);
      EXPECT_EQ(Unicode_FindLastSubstrInRange(c.str1, c.start1, c.length1, c.str2, c.start2, c.length2), c.last);
   }
}

TEST(UnicodeCompare, OrderAndCaseFolding) {
   struct Case { const char *a; const char *b; bool ignoreCase; int expected; } cases[] = {
      {"abc", "abc", false, 0}, {"abc", "abd", false, -1}, {"abc", "ab", false, 1},
      {"", "", false, 0}, {"ABC", "abc", false, -1}, {"ABC", "abc", true, 0},
      {"\xC3\x80" "B", "\xC3\xA0" "b", true, 0},             // U+00C0 B / U+00E0 b
      {"\xC2\xB5", "\xCE\xBC", true, 0},                      // micro sign / mu
      {"\xCE\xA3\xCE\x91\xCF\x82", "\xCF\x83\xCE\xB1\xCF\x83", true, 0},  // final sigma
      {"\xE1\x82\xA0", "\xE2\xB4\x80", true, 0},              // Georgian U+10A0 / U+2D00
      {"\xEF\xBC\xA1", "\xEF\xBD\x81", true, 0},              // fullwidth A / a
      {"\xE1\x8E\xA0", "\xEA\xAD\xB0", true, -1},             // Cherokee: not folded
      {"\xF0\x90\x80\x80", "\xEF\xBF\xBD", false, 1},         // U+10000 above U+FFFD
      {"\xEF\xBF\xBD", "\xF0\x90\x80\x80", false, -1},
      {"x\xF0\x9F\x98\x80", "x\xF0\x9F\x98\x81", false, -1},  // low surrogates differ
      {"\xFF", "a", false, -1},                                // not UTF-8: "less"
      {nullptr, "a", false, -1},
   };
   for (const Case &c : cases) {
      EXPECT_EQ(Unicode_CompareRange(c.a, 0, -1, c.b, 0, -1, c.ignoreCase), c.expected)
         << (c.a ? c.a : "null") << " / " << c.b;
   }
   EXPECT_EQ(Unicode_CompareRange("xxABCx", 2, 3, "abc", 0, -1, true), 0);
   EXPECT_EQ(Unicode_CompareRange("xxABCx", 2, -1, "abc", 0, -1, true), 1);
}

TEST(UnicodeAllocStatic, DecodesEscapes) {
   struct Case { const char *literal; const char *expected; } cases[] = {
      {"a\\u00e9\\U0001F600", "a\xC3\xA9\xF0\x9F\x98\x80"},
      {"\\q\\\\\\\"", "q\\\""}, {"\\u20AC end\\", "\xE2\x82\xAC end"}, {"", ""},
   };
   for (const Case &c : cases) {
      EXPECT_EQ(Take(UnicodeAllocStatic(c.literal, true)), c.expected) << c.literal;
   }
   EXPECT_EQ(Take(UnicodeAllocStatic("\\u00e9", false)), "\\u00e9");
}

TEST(UnicodeFatal, BadLiteralsAndInvalidStrings) {
   const std::string verify = R"(Panic: VERIFY lib/unicode/unicodeSimpleOperations:\d+ \n)";
   const std::string notImplemented = R"(Panic: NOT_IMPLEMENTED lib/unicode/unicodeSimpleOperations:\d+ \n)";
   struct Case {
      std::function<void()> body;
      std::string entry;  // regular expression for the one log entry
   } cases[] = {
      {[] { UnicodeAllocStatic("caf\xC3\xA9", true); }, verify},
      {[] { UnicodeAllocStatic("\\\xC3", true); }, verify},
      {[] { UnicodeAllocStatic("\\U00110000", true); }, verify},
      {[] { UnicodeAllocStatic("\\u00g9", true); }, notImplemented},
      {[] { UnicodeAllocStatic("\\u12", true); }, notImplemented},
      {[] { UnicodeAllocStatic("\\uD800", true); },
       R"(Panic: Unicode_AllocWithLength: Couldn't convert invalid buffer \[.*\] from UTF-16LE to Unicode\.\n)"},
      {[] { Unicode_Substr("a\xFF", 0, 1); }, R"(Panic: Unicode_Substr: invalid UTF8 string @ [0-9A-F]+\n)"},
      {[] { Unicode_FindSubstrInRange("a", 0, -1, "\xC0\x80", 0, -1); },
       R"(Panic: Unicode_FindSubstrInRange: invalid UTF8 string @ [0-9A-F]+\n)"},
   };
   for (const Case &c : cases) {
      auto r = RunInChild(c.body);
      EXPECT_EQ(r.ExitCode(), 1) << c.entry;
      auto entries = LogEntries(r.out);
      ASSERT_FALSE(entries.empty()) << c.entry << "\n" << r.out << r.err;
      EXPECT_TRUE(std::regex_match(entries.back(), std::regex(c.entry))) << entries.back();
   }
}

}  // namespace
