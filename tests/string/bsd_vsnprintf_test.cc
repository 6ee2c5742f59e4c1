// SPDX-License-Identifier: MIT
// The formatting engine where it differs by design from the C library's
// printf, its allocating sink, positional arguments and failures.
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bsd_output.h"
#include "child.h"
#include "alloc_seam.h"
#include "str.h"
#include "string/bsd_vsnprintf_int.h"

// Non-standard conversions and prefixes are the point of these tests.
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-invalid-specifier"

namespace {

// The engine into a 1 KiB buffer: its text, or "<r>" when it returned r < 0.
std::string Fmt(const char *format, ...) {
   char buf[1024];
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf(&out, sizeof buf, format, ap);
   va_end(ap);
   return r < 0 ? "<" + std::to_string(r) + ">" : std::string(buf, static_cast<size_t>(r));
}

// The same with grouping, separator and decimal point given.
std::string Core(const char *grouping, char sep, const char *point, const char *format, ...) {
   char buf[1024];
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf_core(&out, const_cast<char *>(grouping), sep, const_cast<char *>(point),
                              sizeof buf, format, ap);
   va_end(ap);
   return r < 0 ? "<error>" : std::string(buf, static_cast<size_t>(r));
}

int Result(char *buf, size_t size, const char *format, ...) {
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf(&out, size, format, ap);
   va_end(ap);
   return r;
}

struct Row { std::string got, want; };

void ExpectRows(const std::vector<Row> &rows) {
   for (size_t i = 0; i < rows.size(); i++) EXPECT_EQ(rows[i].got, rows[i].want) << "row " << i;
}

void *Ptr(uintptr_t v) { return reinterpret_cast<void *>(v); }

TEST(EngineDiffersByDesign, ConversionsAndPrefixes) {
   ExpectRows({
      // "%p": upper case, no prefix, no forced width; null is "0".
      {Fmt("%p", Ptr(0x7ffe1234abcd)), "7FFE1234ABCD"},
      {Fmt("%p", nullptr), "0"},
      {Fmt("[%8p|%-6p|%#p]", Ptr(0xabc), Ptr(0x1f), Ptr(0xff)), "[     ABC|1F    |FF]"},
      // "I", "I32", "I64" select the argument's width; a wrong one shifts the next argument.
      {Fmt("%I64d|%d", 1LL << 40, 7), "1099511627776|7"},
      {Fmt("%I64x|%d", ~0ULL, 8), "ffffffffffffffff|8"},
      {Fmt("%Id|%Iu|%d", static_cast<ssize_t>(-5), SIZE_MAX, 9), "-5|18446744073709551615|9"},
      {Fmt("%I32d|%I32u|%d", -3, 4000000000u, 10), "-3|4000000000|10"},
      {Fmt("%I6d|", static_cast<size_t>(42)), "    42|"},
      {Fmt("%D %O %U %qd %Ld %Zd", -1L, 8L, ULONG_MAX, -1LL, 2LL, static_cast<ssize_t>(6)),
       "-1 10 18446744073709551615 -1 2 6"},
      // Unknown conversions print themselves, with width and flags, reading nothing.
      {Fmt("%a|%A|%m"), "a|A|m"},
      {Fmt("[%5a][%-3k][%05w][%3%]"), "[    a][k  ][0000w][  %]"},
      {Fmt("%v%d", 5), "v5"}, {Fmt("abc%-08"), "abc"},
   });
}

TEST(EngineDiffersByDesign, FloatingPoint) {
   ExpectRows({
      // "%.0f" rounds halfway cases away from zero.
      {Fmt("%.0f %.0f %.0f %.0f %.0f", 0.5, 1.5, 2.5, 3.5, -2.5), "1 2 3 4 -3"},
      {Fmt("%.0f|%.0f", 0.49999999999999994, -0.3), "0|-0"},
      {Fmt("%#.0f|%5.0f", 2.5, 1e20), "3.|100000000000000000000"},
      // A long double is narrowed (infinity, NaN and exponents agree with
      // the C library and are compared there).
      {Fmt("%Lf|%Le", static_cast<long double>(HUGE_VAL), 1.5e-300L), "inf|1.500000e-300"},
      // The decimal point string comes from the call.
      {Core(nullptr, '.', ",", "%.2f|%e|%#.0f", 3.14159, 1.5, 2.0), "3,14|1,500000e+00|2,"},
      {Core(nullptr, '.', "<>", "%.1f|%g", 3.25, 0.5), "3<>2|0<>5"},
   });
}

TEST(EngineDiffersByDesign, Grouping) {
   ExpectRows({
      {Core("\3", ',', ".", "%'d|%'d|%'d|%'d", 1234567, 999, -1000, 0), "1,234,567|999|-1,000|0"},
      {Core("\3\2", ',', ".", "%'lld", 123456789012LL), "1,23,45,67,89,012"},  // the last repeats
      {Core("\3\177", ' ', ".", "%'d", 123456789), "123456 789"},  // 127 ends grouping
      {Core("\1\2\177", '.', ".", "%'u", 123456u), "123.45.6"},
      {Core("", ',', ".", "%'d", 1234567), "1234567"},
      {Core(nullptr, ',', ".", "%'d", 1234567), "1234567"},
      {Core("\3", ',', ".", "%'llu", ULLONG_MAX), "18,446,744,073,709,551,615"},
      {Core("\3", ',', ".", "%'x|%'o|%'p|%d", 0x1234567, 01234567, Ptr(0x1234567), 1234567),
       "1234567|1234567|1234567|1234567"},
      {Core("\3", ',', ".", "%'12d|%-'12d|%'012d", 1234567, 1234567, 1234567),
       "   1,234,567|1,234,567   |0001,234,567"},
      {Core("\3", ',', ".", "%'.2f|%'.0f|%'f", 1234567.891, 1234.0, 1e20),
       "1,234,567.89|1,234|100,000,000,000,000,000,000.000000"},
      {Core("\3\2", ' ', ",", "%'.1f", 1234567.25), "12 34 567,2"},
      {Core("\3", ',', ".", "%'g|%'e", 1234567.0, 1234567.0), "1.23457e+06|1.234567e+06"},
   });
   char buf[64];  // the C locale form has no separators
   EXPECT_EQ(Str_Sprintf_C_Locale(buf, sizeof buf, "%'d %'.1f", 1234567, 1234.5), 14);
   EXPECT_STREQ(buf, "1234567 1234.5");
}

TEST(EngineDiffersByDesign, StringsAndCharacters) {
   const wchar_t bad[] = {static_cast<wchar_t>(0xD800), L'a', static_cast<wchar_t>(0x110000), 0};
   ExpectRows({
      {Fmt("%s|%ls|%S|[%.3s][%8s]", static_cast<char *>(nullptr), static_cast<wchar_t *>(nullptr),
           static_cast<wchar_t *>(nullptr), static_cast<char *>(nullptr), static_cast<char *>(nullptr)),
       "(null)|(null)|(null)|[(nu][  (null)]"},
      // Precision counts bytes and never splits a character.
      {Fmt("[%.2s][%.1s]", "\xC3\xA9", "\xC3\xA9"), "[\xC3\xA9][]"},
      {Fmt("[%5.2s][%.10s]", "a\xC3\xA9", "ab"), "[    a][ab]"},
      {Fmt("[%.4s][%.3s]", "\xF0\x9F\x98\x80z", "\xF0\x9F\x98\x80z"), "[\xF0\x9F\x98\x80][]"},
      {Fmt("%ls|%S", L"wide", L"\u00e9t\u00e9"), "wide|\xC3\xA9t\xC3\xA9"},
      {Fmt("[%.3ls][%.2ls][%.1ls]", L"\u00e9t\u00e9", L"\u20ac", L"\u00e9"), "[\xC3\xA9t][][]"},
      {Fmt("[%6ls][%-4.4S]", L"\u00e9", L"\U0001F600x"), "[    \xC3\xA9][\xF0\x9F\x98\x80]"},
      // The string ends before the precision, inside a character.
      {Fmt("[%.10s][%.4s]", "ab\xE2\x82", "ab\xE2\x82"), "[ab][ab]"},
      {Fmt("%ls", bad), "\xED\xA0\x80" "a\xEF\xBF\xBD"},  // a surrogate passes through
      {Fmt("%lc%C", static_cast<wint_t>(L'x'), static_cast<wint_t>(L'y')), "xy"},
      {Fmt("ab%lcd", static_cast<wint_t>(0xE9)), "<-1>"},  // not in the C locale
   });
   ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
   EXPECT_EQ(Fmt("%lc|", static_cast<wint_t>(0xE9)), "\xC3\xA9|");
   EXPECT_EQ(Fmt("%lc", static_cast<wint_t>(0xD800)), "<-1>");
   setlocale(LC_CTYPE, "C");
}

TEST(EngineDiffersByDesign, PositionalArguments) {
   ExpectRows({
      {Fmt("%2$s %1$s|%1$s-%2$s", "world", "hello"), "hello world|world-hello"},
      {Fmt("%3$.*2$f|%1$*2$d", 7, 2, 3.14159), "3.14| 7"},
      {Fmt("%2$Lf %1$lld %3$ls %4$p", 5LL, 1.5L, L"w", nullptr), "1.500000 5 w 0"},
      // Past the call's own table of 8, mixed widths: a wrong type misaligns the rest.
      {Fmt("%20$d %19$s %18$f %17$lld %16$c %15$d %14$d %13$d %12$d %11$d %10$d "
           "%9$d %8$d %7$d %6$d %5$d %4$d %3$d %2$d %1$d",
           1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 'q', 1LL << 50, 0.5, "s19", 20),
       "20 s19 0.500000 1125899906842624 q 15 14 13 12 11 10 9 8 7 6 5 4 3 2 1"},
      {Fmt("%9$s%1$s", "a", 0, 0, 0, 0, 0, 0, 0, "i"), "ia"},
   });
   // Up to position 7 no table is allocated; beyond, a failed allocation aborts.
   for (bool beyond : {false, true}) {
      auto r = halcyx::test::RunInChild([beyond] {
         halcyx::test::AllocationSeam fail;
         fail.FailAll();
         char buf[64];
         _exit((beyond ? Result(buf, sizeof buf, "%8$d", 1, 2, 3, 4, 5, 6, 7, 8)
                       : Result(buf, sizeof buf, "%7$d%1$d", 1, 2, 3, 4, 5, 6, 7)) == 2 ? 0 : 3);
      });
      EXPECT_TRUE(beyond ? WIFSIGNALED(r.waitStatus) && WTERMSIG(r.waitStatus) == SIGABRT : r.ExitCode() == 0);
   }
}

TEST(EngineDiffersByDesign, CountStoresThroughEveryWidthAndCountsWhatDidNotFit) {
   signed char hh = 0;
   short h = 0;
   int i = 0;
   long l = 0;
   long long ll = 0;
   ssize_t z = 0;
   intmax_t j = 0;
   EXPECT_EQ(Fmt("a%hhnbb%hnccc%ndddd%ln%lln%zne%jn", &hh, &h, &i, &l, &ll, &z, &j), "abbcccdddde");
   EXPECT_EQ(std::vector<long long>({hh, h, i, l, ll, z, j}), std::vector<long long>({1, 3, 6, 10, 10, 10, 11}));
   hh = 0;
   EXPECT_EQ(Fmt("%300d%hhn", 1, &hh), std::string(299, ' ') + "1");
   EXPECT_EQ(hh, static_cast<signed char>(300));
   char buf[4];
   EXPECT_EQ(Result(buf, sizeof buf, "%s%n!", "abcdefgh", &i), 9);
   EXPECT_EQ(i, 8);
   EXPECT_STREQ(buf, "abc");
}

TEST(EngineFailures, LengthLimitsAndAllocation) {
   char buf[8];
   EXPECT_EQ(Result(buf, sizeof buf, "%2147483647d%d", 1, 2), -1);
   EXPECT_EQ(Result(buf, sizeof buf, "%2147483648d", 1), -1);
   EXPECT_EQ(Result(buf, sizeof buf, "%*d", INT_MIN, 1), -1);
   EXPECT_EQ(Result(buf, sizeof buf, "%.2147483647f", 1.0), -1);
   EXPECT_EQ(Result(buf, sizeof buf, "%2147483646d", 1), 2147483646);
   EXPECT_STREQ(buf, "       ");
   {  // a wide string's conversion allocates; a float's digits do not
      halcyx::test::AllocationSeam fail;
      fail.FailAll();
      EXPECT_EQ(Result(buf, sizeof buf, "x%lsy", L"abc"), -1);
      EXPECT_EQ(Result(buf, sizeof buf, "%.0f|%e|%.17f", 2.5, 1e300, -1e308), 344);
      EXPECT_EQ(fail.Requests().size(), 1u);
   }
   std::string hundred(100, 'a');
   for (size_t failing : {1, 2}) {
      halcyx::test::AllocationSeam fail;
      fail.FailCalls({failing});
      size_t length = 77;
      EXPECT_EQ(Str_Asprintf(&length, "%s", hundred.c_str()), nullptr) << failing;
      EXPECT_EQ(length, 77u);
   }
}

// The digits must be the very digits ecvt and fcvt give, whether computed
// exactly or taken from the reentrant forms, including fcvt's long integer
// parts and halfway cases.
TEST(FloatDigits, SameAsEcvtAndFcvt) {
   std::mt19937_64 gen(7);
   std::vector<double> values = {0.0, -0.0, 0.5, 2.5, -2.5, 9.9999995, 1e22, 1e23, 1e300,
                                 -1.7976931348623157e308, 4.9e-324, HUGE_VAL, -HUGE_VAL, NAN};
   for (int i = 0; i < 1000; i++) {
      uint64_t bits = gen();
      double v;
      memcpy(&v, &bits, sizeof v);
      values.push_back(v);
      // Ordinary magnitudes, and binary fractions that fall exactly halfway.
      double mantissa = static_cast<double>(gen() >> 11);
      values.push_back(std::ldexp(i % 2 ? mantissa : -mantissa, static_cast<int>(gen() % 140) - 110));
      values.push_back(static_cast<double>(gen() % 100000) / (1 << (gen() % 20)));
   }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
   for (double v : values) {
      for (int ndigits : {1, 2, 6, 17, 30}) {
         halcyx::bsdfmt::DtoaBuffer buf;
         int decpt, sign, wantDecpt, wantSign;
         char *end;
         for (int mode : {2, 3}) {
            const char *got = halcyx::bsdfmt::dtoa(v, mode, ndigits, &decpt, &sign, &end, buf);
            std::string want = mode == 2 ? ecvt(v, ndigits, &wantDecpt, &wantSign)
                                         : fcvt(v, ndigits, &wantDecpt, &wantSign);
            ASSERT_TRUE(got == want && decpt == wantDecpt && sign == wantSign)
               << v << " mode " << mode << " " << ndigits << ": " << got << " " << want;
         }
      }
   }
#pragma GCC diagnostic pop
}

// The first capacity is 64 (1 for empty output, 128 when the format alone
// fills 64); growth takes (used + piece + capacity) down to a multiple of the
// capacity.
TEST(AllocatingSink, CapacityRule) {
   auto capacities = [](const std::string &format, const std::string &arg) {
      halcyx::test::AllocationSeam probe;
      char *out = Str_Asprintf(nullptr, format.c_str(), arg.c_str(), arg.c_str(), arg.c_str());
      EXPECT_NE(out, nullptr);
      free(out);
      return probe.Requests();
   };
   using V = std::vector<size_t>;
   EXPECT_EQ(capacities("", ""), V{1});
   EXPECT_EQ(capacities("%s", "short"), V{64});
   EXPECT_EQ(capacities(std::string(63, 'x'), ""), V{64});
   EXPECT_EQ(capacities(std::string(64, 'x'), ""), V{128});
   EXPECT_EQ(capacities("%s", std::string(100, 'a')), (V{64, 128}));
   EXPECT_EQ(capacities("%s%s%s", std::string(100, 'a')), (V{64, 128, 256, 512}));
}

}  // namespace
