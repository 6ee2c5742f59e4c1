// The formatting engine: every place where it differs by design from the C
// library's printf, the allocating sink, positional arguments and failures.
#include <gtest/gtest.h>

#include <clocale>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bsd_output.h"
#include "child.h"
#include "internal/alloc.h"
#include "str.h"
#include "string/bsd_vsnprintf_int.h"

// Non-standard conversions and prefixes are the point of these tests.
// Each compiler skips the groups only the other one knows.
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat-invalid-specifier"

using halcyx::test::RunInChild;

namespace {

// The engine into a caller's buffer with the current (C) locale; the result
// must have fitted.
std::string Fmt(const char *format, ...) {
   char buf[1024];
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf(&out, sizeof buf, format, ap);
   va_end(ap);
   EXPECT_GE(r, 0) << format;
   EXPECT_EQ(static_cast<size_t>(r), strlen(buf)) << format;
   return buf;
}

// The engine with explicit locale parameters.
std::string Core(const char *grouping, char sep, const char *point, const char *format, ...) {
   char buf[1024];
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf_core(&out, const_cast<char *>(grouping), sep,
                              const_cast<char *>(point), sizeof buf, format, ap);
   va_end(ap);
   EXPECT_GE(r, 0) << format;
   return r < 0 ? "<error>" : std::string(buf, static_cast<size_t>(r));
}

int EngineResult(char *buf, size_t size, const char *format, ...) {
   char *out = buf;
   va_list ap;
   va_start(ap, format);
   int r = bsd_vsnprintf(&out, size, format, ap);
   va_end(ap);
   return r;
}

// Replaces the allocation hooks while alive; counts calls and records the
// sizes asked for, and fails the calls whose number (from 1) is listed.
class AllocationProbe {
public:
   explicit AllocationProbe(std::vector<int> failing = {}) : saved_(halcyx::gAllocHooks) {
      failing_ = std::move(failing);
      calls_ = 0;
      sizes_.clear();
      halcyx::gAllocHooks = {
         [](size_t size) -> void * { return Next(size) ? malloc(size) : nullptr; },
         [](size_t n, size_t size) -> void * { return Next(n * size) ? calloc(n, size) : nullptr; },
         [](void *p, size_t size) -> void * { return Next(size) ? realloc(p, size) : nullptr; },
      };
   }
   ~AllocationProbe() { halcyx::gAllocHooks = saved_; }
   AllocationProbe(const AllocationProbe &) = delete;
   AllocationProbe &operator=(const AllocationProbe &) = delete;

   static const std::vector<size_t> &Sizes() { return sizes_; }

private:
   static bool Next(size_t size) {
      sizes_.push_back(size);
      int call = ++calls_;
      for (int f : failing_) {
         if (f == call || f == 0) {
            return false;
         }
      }
      return true;
   }

   halcyx::AllocHooks saved_;
   static inline std::vector<int> failing_;  // 0 fails every call
   static inline std::vector<size_t> sizes_;
   static inline int calls_;
};

// ---------------------------------------------------------------------------

TEST(PointerConversion, UpperCaseHexWithoutPrefixOrForcedWidth) {
   EXPECT_EQ(Fmt("%p", reinterpret_cast<void *>(0x7ffe1234abcdULL)), "7FFE1234ABCD");
   EXPECT_EQ(Fmt("%p", nullptr), "0");
   EXPECT_EQ(Fmt("[%8p|%-6p|%#p]", reinterpret_cast<void *>(0xabc), reinterpret_cast<void *>(0x1f),
                 reinterpret_cast<void *>(0xff)),
             "[     ABC|1F    |FF]");
   EXPECT_EQ(Fmt("%p", reinterpret_cast<void *>(UINTPTR_MAX)), "FFFFFFFFFFFFFFFF");
}

TEST(SizePrefixes, WindowsStylePrefixesSelectArgumentWidth) {
   // A wrong argument width would shift every later argument.
   EXPECT_EQ(Fmt("%I64d|%d", 1LL << 40, 7), "1099511627776|7");
   EXPECT_EQ(Fmt("%I64x|%d", ~0ULL, 8), "ffffffffffffffff|8");
   EXPECT_EQ(Fmt("%Id|%Iu|%d", static_cast<ssize_t>(-5), SIZE_MAX, 9),
             "-5|18446744073709551615|9");
   EXPECT_EQ(Fmt("%I32d|%I32u|%d", -3, 4000000000u, 10), "-3|4000000000|10");
   // "I" followed by anything but 32/64 is the size prefix, so "6" is a width.
   EXPECT_EQ(Fmt("%I6d|", static_cast<size_t>(42)), "    42|");
}

TEST(SizePrefixes, LegacyForms) {
   EXPECT_EQ(Fmt("%D %O %U", -1L, 8L, ULONG_MAX), "-1 10 18446744073709551615");
   EXPECT_EQ(Fmt("%qd %Ld %jd %td %zd %Zd", -1LL, 2LL, INTMAX_MIN, static_cast<ptrdiff_t>(-4),
                 static_cast<ssize_t>(5), static_cast<ssize_t>(6)),
             "-1 2 -9223372036854775808 -4 5 6");
}

TEST(UnknownConversion, PrintsItselfWithWidthAndFlags) {
   EXPECT_EQ(Fmt("%a"), "a");
   EXPECT_EQ(Fmt("%A|%m|%y"), "A|m|y");
   EXPECT_EQ(Fmt("[%5a][%-3k][%05w]"), "[    a][k  ][0000w]");
   EXPECT_EQ(Fmt("100%%"), "100%");
   EXPECT_EQ(Fmt("[%3%]"), "[  %]");
   // Consumes no argument.
   EXPECT_EQ(Fmt("%v%d", 5), "v5");
}

TEST(UnknownConversion, NulAfterPercentEndsOutput) {
   EXPECT_EQ(Fmt("abc%"), "abc");
   EXPECT_EQ(Fmt("abc%-08"), "abc");
   EXPECT_EQ(Fmt("abc%ll"), "abc");
}

TEST(FloatRounding, ZeroPrecisionRoundsHalfAwayFromZero) {
   EXPECT_EQ(Fmt("%.0f", 2.5), "3");
   EXPECT_EQ(Fmt("%.0f", -2.5), "-3");
   EXPECT_EQ(Fmt("%.0f %.0f %.0f", 0.5, 1.5, 3.5), "1 2 4");
   EXPECT_EQ(Fmt("%.0f", 0.49999999999999994), "0");
   EXPECT_EQ(Fmt("%.0f", -0.3), "-0");
   EXPECT_EQ(Fmt("%#.0f|%5.0f", 2.5, 1e20), "3.|100000000000000000000");
}

TEST(FloatRounding, DtoaModeThreeWithNoDigits) {
   int decpt = 0;
   int sign = 0;
   char *end = nullptr;
   char *d = halcyx::bsdfmt::dtoa(2.5, 3, 0, &decpt, &sign, &end);
   ASSERT_NE(d, nullptr);
   EXPECT_EQ(std::string(d, end), "3");
   EXPECT_EQ(decpt, 1);
   EXPECT_EQ(sign, 0);
   halcyx::bsdfmt::freedtoa(d);

   d = halcyx::bsdfmt::dtoa(-1234.5, 3, 0, &decpt, &sign, &end);
   ASSERT_NE(d, nullptr);
   EXPECT_EQ(std::string(d, end), "1235");
   EXPECT_EQ(decpt, 4);
   EXPECT_EQ(sign, 1);
   halcyx::bsdfmt::freedtoa(d);
}

TEST(FloatSpecialValues, InfinityAndNanFollowConversionCase) {
   const double inf = HUGE_VAL;
   EXPECT_EQ(Fmt("%f|%F|%e|%G", inf, inf, inf, inf), "inf|INF|inf|INF");
   EXPECT_EQ(Fmt("%f|%E", -inf, -inf), "-inf|-INF");
   EXPECT_EQ(Fmt("%g|%F", std::nan(""), std::nan("")), "nan|NAN");
   EXPECT_EQ(Fmt("%+f|% e", inf, inf), "+inf| inf");
   // Zero padding would turn "inf" into a number-looking string.
   EXPECT_EQ(Fmt("[%08f][%-6F]", -inf, inf), "[    -inf][INF   ]");
   EXPECT_EQ(Fmt("%Lf", static_cast<long double>(inf)), "inf");
}

TEST(FloatExponentForm, AtLeastTwoExponentDigitsWithSign) {
   EXPECT_EQ(Fmt("%e", 15000000.0), "1.500000e+07");
   EXPECT_EQ(Fmt("%E", 2e-123), "2.000000E-123");
   EXPECT_EQ(Fmt("%.0e|%#.0e", 2e-123, 2e-123), "2e-123|2.e-123");
   EXPECT_EQ(Fmt("%.2e", 0.0), "0.00e+00");
   EXPECT_EQ(Fmt("%g|%G|%g", 1e-5, 1e100, 123456789.0), "1e-05|1E+100|1.23457e+08");
   EXPECT_EQ(Fmt("%12.3e|%-12.3E|", -1234.5, 1234.5), "  -1.234e+03|1.234E+03   |");
}

TEST(FloatPlainForm, DecimalPointStringComesFromTheCall) {
   EXPECT_EQ(Core(nullptr, '.', ",", "%.2f|%e|%#.0f", 3.14159, 1.5, 2.0), "3,14|1,500000e+00|2,");
   EXPECT_EQ(Core(nullptr, '.', "<>", "%.1f|%.0f|%g", 3.25, 7.0, 0.5), "3<>2|7|0<>5");
}

TEST(Grouping, IntegersFollowTheGroupingString) {
   EXPECT_EQ(Core("\3", ',', ".", "%'d", 1234567), "1,234,567");
   EXPECT_EQ(Core("\3", ',', ".", "%'d|%'d|%'d", 999, -1000, 0), "999|-1,000|0");
   // The last size repeats.
   EXPECT_EQ(Core("\3\2", ',', ".", "%'lld", 123456789012LL), "1,23,45,67,89,012");
   // 127 ends grouping: only the first group is separated.
   EXPECT_EQ(Core("\3\177", ' ', ".", "%'d", 123456789), "123456 789");
   EXPECT_EQ(Core("\1\2\177", '.', ".", "%'u", 123456u), "123.45.6");
   EXPECT_EQ(Core("", ',', ".", "%'d", 1234567), "1234567");
   EXPECT_EQ(Core(nullptr, ',', ".", "%'d", 1234567), "1234567");
   EXPECT_EQ(Core("\3", ',', ".", "%'llu", ULLONG_MAX), "18,446,744,073,709,551,615");
}

TEST(Grouping, OnlyDecimalConversionsAndNumbersAreGrouped) {
   EXPECT_EQ(Core("\3", ',', ".", "%'x|%'o|%'p|%d", 0x1234567, 01234567,
                  reinterpret_cast<void *>(0x1234567), 1234567),
             "1234567|1234567|1234567|1234567");
   EXPECT_EQ(Core("\3", ',', ".", "%'12d|%-'12d|%'012d", 1234567, 1234567, 1234567),
             "   1,234,567|1,234,567   |0001,234,567");
}

TEST(Grouping, FloatIntegerPartIsGrouped) {
   EXPECT_EQ(Core("\3", ',', ".", "%'.2f", 1234567.891), "1,234,567.89");
   EXPECT_EQ(Core("\3", ',', ".", "%'.1f|%'.0f", 999.5, 1234.0), "999.5|1,234");
   // Digits beyond what the conversion produced come back as zeros.
   EXPECT_EQ(Core("\3", ',', ".", "%'f", 1e20), "100,000,000,000,000,000,000.000000");
   EXPECT_EQ(Core("\3\2", ' ', ",", "%'.1f", 1234567.25), "12 34 567,2");
   EXPECT_EQ(Core("\3", ',', ".", "%'g|%'e", 1234567.0, 1234567.0), "1.23457e+06|1.234567e+06");
}

TEST(Grouping, CLocaleFormHasNoSeparators) {
   char buf[64];
   auto call = [&](const char *format, ...) {
      char *out = buf;
      va_list ap;
      va_start(ap, format);
      int r = bsd_vsnprintf_c_locale(&out, sizeof buf, format, ap);
      va_end(ap);
      return r;
   };
   EXPECT_EQ(call("%'d %'.1f", 1234567, 1234.5), 14);
   EXPECT_STREQ(buf, "1234567 1234.5");
}

TEST(PositionalArguments, ReorderAndReuse) {
   EXPECT_EQ(Fmt("%2$s %1$s", "world", "hello"), "hello world");
   EXPECT_EQ(Fmt("%1$s-%1$s-%2$d", "x", 3), "x-x-3");
   EXPECT_EQ(Fmt("%3$.*2$f|%1$*2$d", 7, 2, 3.14159), "3.14| 7");
   EXPECT_EQ(Fmt("%2$Lf %1$lld %3$ls %4$p", 5LL, 1.5L, L"w", nullptr), "1.500000 5 w 0");
}

TEST(PositionalArguments, MoreThanEightGrowTheTypeTable) {
   // Mixed widths past the fixed table: a wrong type would misalign the rest.
   std::string s =
      Fmt("%20$d %19$s %18$f %17$lld %16$c %15$d %14$d %13$d %12$d %11$d %10$d "
          "%9$d %8$d %7$d %6$d %5$d %4$d %3$d %2$d %1$d",
          1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 'q', 1LL << 50, 0.5, "s19", 20);
   EXPECT_EQ(s, "20 s19 0.500000 1125899906842624 q 15 14 13 12 11 10 9 8 7 6 5 4 3 2 1");
   EXPECT_EQ(Fmt("%9$s%1$s", "a", 0, 0, 0, 0, 0, 0, 0, "i"), "ia");
}

TEST(PositionalArguments, TableAllocationFailureAborts) {
   auto r = RunInChild([] {
      AllocationProbe fail({0});
      char buf[64];
      EngineResult(buf, sizeof buf, "%8$d", 1, 2, 3, 4, 5, 6, 7, 8);
   });
   EXPECT_TRUE(WIFSIGNALED(r.waitStatus));
   EXPECT_EQ(WTERMSIG(r.waitStatus), SIGABRT);

   // Positions up to 7 fit the call's own 8-entry table: no allocation.
   r = RunInChild([] {
      AllocationProbe fail({0});
      char buf[64];
      if (EngineResult(buf, sizeof buf, "%7$d%1$d", 1, 2, 3, 4, 5, 6, 7) != 2) {
         _exit(3);
      }
   });
   EXPECT_EQ(r.ExitCode(), 0);
}

TEST(CountConversion, StoresBytesSoFarThroughEveryWidth) {
   signed char hh = 0;
   short h = 0;
   int i = 0;
   long l = 0;
   long long ll = 0;
   ssize_t z = 0;
   ptrdiff_t t = 0;
   intmax_t j = 0;
   std::string s = Fmt("a%hhnbb%hnccc%ndddd%ln%lln%zn%tne%jn", &hh, &h, &i, &l, &ll, &z, &t, &j);
   EXPECT_EQ(s, "abbcccdddde");
   EXPECT_EQ(hh, 1);
   EXPECT_EQ(h, 3);
   EXPECT_EQ(i, 6);
   EXPECT_EQ(l, 10);
   EXPECT_EQ(ll, 10);
   EXPECT_EQ(z, 10);
   EXPECT_EQ(t, 10);
   EXPECT_EQ(j, 11);
}

TEST(CountConversion, CountsBytesThatDidNotFit) {
   char buf[4];
   int n = 0;
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%s%n!", "abcdefgh", &n), 9);
   EXPECT_EQ(n, 8);
   EXPECT_STREQ(buf, "abc");
}

TEST(Strings, NullPrintsNull) {
   EXPECT_EQ(Fmt("%s|%ls|%S", static_cast<char *>(nullptr), static_cast<wchar_t *>(nullptr),
                 static_cast<wchar_t *>(nullptr)),
             "(null)|(null)|(null)");
   EXPECT_EQ(Fmt("[%.3s][%8s]", static_cast<char *>(nullptr), static_cast<char *>(nullptr)),
             "[(nu][  (null)]");
}

TEST(Strings, PrecisionCountsBytesAndNeverSplitsACharacter) {
   EXPECT_EQ(Fmt("%.2s", "\xC3\xA9"), "\xC3\xA9");
   EXPECT_EQ(Fmt("[%.1s]", "\xC3\xA9"), "[]");
   EXPECT_EQ(Fmt("[%.3s][%.4s][%.5s]", "a\xE2\x82\xAC", "a\xE2\x82\xAC", "a\xE2\x82\xAC"),
             "[a][a\xE2\x82\xAC][a\xE2\x82\xAC]");
   EXPECT_EQ(Fmt("[%5.2s]", "a\xC3\xA9"), "[    a]");
   EXPECT_EQ(Fmt("[%.4s]", "\xF0\x9F\x98\x80z"), "[\xF0\x9F\x98\x80]");
   EXPECT_EQ(Fmt("[%.3s]", "\xF0\x9F\x98\x80z"), "[]");
   // Stops at the terminator before the precision.
   EXPECT_EQ(Fmt("[%.10s]", "ab"), "[ab]");
}

TEST(WideStrings, ConvertedToUtf8WithPrecisionInBytes) {
   EXPECT_EQ(Fmt("%ls|%S", L"wide", L"\u00e9t\u00e9"), "wide|\xC3\xA9t\xC3\xA9");
   EXPECT_EQ(Fmt("[%.3ls][%.2ls][%.1ls]", L"\u00e9t\u00e9", L"\u20ac", L"\u00e9"),
             "[\xC3\xA9t][][]");
   EXPECT_EQ(Fmt("[%6ls][%-4.4S]", L"\u00e9", L"\U0001F600x"),
             "[    \xC3\xA9][\xF0\x9F\x98\x80]");
   // Values that are not characters become U+FFFD.
   const wchar_t bad[] = {static_cast<wchar_t>(0xD800), L'a', 0};
   EXPECT_EQ(Fmt("%ls", bad), "\xEF\xBF\xBD"
                              "a");
}

TEST(WideStrings, CutAtAWholeCharacterAndEndedByFourZeros) {
   std::wstring text(100, L'\u20ac');
   char *u = BSDFmt_WCharToUTF8(text.c_str(), 250);
   ASSERT_NE(u, nullptr);
   EXPECT_EQ(strlen(u), 249u);
   for (int k = 1; k <= 3; k++) {
      EXPECT_EQ(u[249 + k], '\0');
   }
   free(u);

   u = BSDFmt_WCharToUTF8(L"", -1);
   ASSERT_NE(u, nullptr);
   EXPECT_EQ(memcmp(u, "\0\0\0\0", 4), 0);
   free(u);
}

TEST(WideStrings, AllocationFailureFailsTheCall) {
   char buf[32];
   {
      AllocationProbe fail({0});
      EXPECT_EQ(BSDFmt_WCharToUTF8(L"abc", -1), nullptr);
      EXPECT_EQ(EngineResult(buf, sizeof buf, "x%lsy", L"abc"), -1);
   }
}

TEST(WideCharacter, ConvertedInTheCurrentLocaleOrTheCallFails) {
   EXPECT_EQ(Fmt("%lc%C", static_cast<wint_t>(L'x'), static_cast<wint_t>(L'y')), "xy");
   char buf[16];
   // The C locale cannot encode U+00E9.
   EXPECT_EQ(EngineResult(buf, sizeof buf, "ab%lcd", static_cast<wint_t>(0xE9)), -1);

   ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
   EXPECT_EQ(Fmt("%lc", static_cast<wint_t>(0xE9)), "\xC3\xA9");
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%lc", static_cast<wint_t>(0xD800)), -1);
   setlocale(LC_CTYPE, "C");
}

TEST(AllocatingSink, FirstCapacityFollowsTheFormatLength) {
   auto capacities = [](const std::string &format, const char *arg) {
      AllocationProbe probe;
      char *out = nullptr;
      size_t length = 0;
      out = Str_Asprintf(&length, format.c_str(), arg);
      EXPECT_NE(out, nullptr);
      free(out);
      return AllocationProbe::Sizes();
   };
   EXPECT_EQ(capacities("", ""), std::vector<size_t>{1});
   EXPECT_EQ(capacities("%s", "short"), std::vector<size_t>{64});
   EXPECT_EQ(capacities(std::string(63, 'x'), ""), std::vector<size_t>{64});
   EXPECT_EQ(capacities(std::string(64, 'x'), ""), std::vector<size_t>{128});
   // Growth: (used + piece + capacity) rounded down to a multiple of the
   // capacity, so 100 bytes into 64 give 128, and 100 more give 256.
   std::string hundred(100, 'a');
   EXPECT_EQ(capacities("%s", hundred.c_str()), (std::vector<size_t>{64, 128}));
}

TEST(AllocatingSink, GrowthByWholeMultiplesOfTheCapacity) {
   std::string hundred(100, 'a');
   AllocationProbe probe;
   char *out = Str_Asprintf(nullptr, "%s%s%s", hundred.c_str(), hundred.c_str(), hundred.c_str());
   ASSERT_NE(out, nullptr);
   EXPECT_EQ(strlen(out), 300u);
   free(out);
   // 64; 100 → 128; 100 + 100 + 128 = 328 → 256; 200 + 100 + 256 = 556 → 512.
   EXPECT_EQ(AllocationProbe::Sizes(), (std::vector<size_t>{64, 128, 256, 512}));
}

TEST(AllocatingSink, FailureLeavesThePointerAndLeaksNothing) {
   std::string hundred(100, 'a');
   for (int failing : {1, 2}) {
      AllocationProbe fail({failing});
      char *out = nullptr;
      char **where = &out;
      size_t length = 77;
      EXPECT_EQ(Str_Asprintf(&length, "%s", hundred.c_str()), nullptr) << failing;
      EXPECT_EQ(length, 77u);
      EXPECT_EQ(*where, nullptr);
   }
   {
      // The digit copy of a float conversion is an allocation too.
      AllocationProbe fail({1});
      char buf[32];
      EXPECT_EQ(EngineResult(buf, sizeof buf, "%f", 1.5), -1);
   }
}

TEST(CallerBuffer, ReturnsFullLengthAndKeepsWhatFits) {
   char buf[8];
   memset(buf, 'Z', sizeof buf);
   EXPECT_EQ(EngineResult(buf, 5, "%s-%d", "abcdef", 12), 9);
   EXPECT_STREQ(buf, "abcd");
   EXPECT_EQ(buf[5], 'Z');
   // Size 0 writes nothing at all.
   EXPECT_EQ(EngineResult(buf, 0, "%d", 12345), 5);
   EXPECT_EQ(buf[0], 'a');
}

TEST(LengthLimit, OutputBeyondIntMaxFails) {
   char buf[8];
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%2147483647d%d", 1, 2), -1);
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%2147483648d", 1), -1);
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%*d", INT_MIN, 1), -1);
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%.2147483647f", 1.0), -1);
   // Counted in full though almost nothing is stored.
   EXPECT_EQ(EngineResult(buf, sizeof buf, "%2147483646d", 1), 2147483646);
   EXPECT_STREQ(buf, "       ");
}

}  // namespace
