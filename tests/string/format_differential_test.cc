// SPDX-License-Identifier: MIT
// The formatting engine against the C library on the conversions where the two
// agree by design, over formats and values generated from fixed seeds. Each
// case is compared into buffers of several sizes (ASCII output, so truncation
// cuts where snprintf cuts) and through Str_Asprintf against asprintf.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "format_model.h"
#include "str.h"

using fmtmodel::Arg;
using fmtmodel::Kind;

namespace {

struct Case { std::string format; std::vector<Arg> args; };

std::string Describe(const Case &c) {
   std::ostringstream os;
   os.precision(17);
   os << "format \"" << c.format << "\" args";
   for (const Arg &a : c.args) {
      std::visit([&](auto v) {
         if constexpr (std::is_arithmetic_v<decltype(v)> || std::is_same_v<decltype(v), const char *>) os << " (" << v << ")";
      }, a);
   }
   return os.str();
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Compares every form at every size; the first difference goes to *error.
void Compare(std::string *error, const std::vector<size_t> *sizes, const char *f, ...) {
   va_list ap;
   va_start(ap, f);
   auto with = [&](auto fn) {  // fn on a fresh copy of the arguments
      va_list aq;
      va_copy(aq, ap);
      auto r = fn(aq);
      va_end(aq);
      return r;
   };
   int n = with([&](va_list aq) { return vsnprintf(nullptr, 0, f, aq); });
   std::vector<size_t> all = *sizes;
   all.insert(all.end(), {static_cast<size_t>(n) + 1, static_cast<size_t>(n)});
   for (size_t size : all) {
      // Exactly size bytes, so that the address sanitizer sees a write past them.
      std::vector<char> ours(std::max<size_t>(size, 1), '\x7f'), theirs = ours;
      int r = with([&](va_list aq) { return Str_Vsnprintf(ours.data(), size, f, aq); });
      with([&](va_list aq) { return vsnprintf(theirs.data(), size, f, aq); });
      if (r != (static_cast<size_t>(n) < size ? n : -1) || ours != theirs) {
         *error = "size " + std::to_string(size) + ": got " + std::to_string(r) + " \"" +
                  std::string(ours.data(), strnlen(ours.data(), ours.size())) + "\", want \"" +
                  std::string(theirs.data(), strnlen(theirs.data(), theirs.size())) + "\"";
         break;
      }
   }
   size_t length = 0;
   char *libc = nullptr;
   char *mine = with([&](va_list aq) { return Str_Vasprintf(&length, f, aq); });
   int libcLength = with([&](va_list aq) { return vasprintf(&libc, f, aq); });
   va_end(ap);
   if (error->empty() && (mine == nullptr || static_cast<int>(length) != libcLength ||
                          strcmp(mine, libc) != 0)) {
      *error = std::string("Str_Asprintf: got ") + (mine ? mine : "null") + ", want " + libc;
   }
   free(mine);
   free(libc);
}

// Runs cases and reports at most a handful of mismatches.
class Runner {
public:
   ~Runner() { printf("%zu cases compared with the C library\n", count_); }
   void Check(const Case &c, const std::vector<size_t> &sizes = {}) {
      if (failures_ >= 10) return;
      count_++;
      std::string error;
      fmtmodel::Apply(c.args, [&](auto... a) { Compare(&error, &sizes, c.format.c_str(), a...); });
      if (!error.empty()) {
         failures_++;
         ADD_FAILURE() << error << "\n  " << Describe(c);
      }
   }

private:
   size_t count_ = 0;
   int failures_ = 0;
};

// mt19937_64's sequence is fixed by the standard; the library's distributions
// are not, so none is used.
struct Rng {
   std::mt19937_64 gen;
   size_t Below(size_t n) { return static_cast<size_t>(gen() % n); }
   int Between(int lo, int hi) { return lo + static_cast<int>(Below(static_cast<size_t>(hi - lo + 1))); }
   bool OneIn(size_t n) { return Below(n) == 0; }
};

// Zero, small numbers, powers of two and ten and their neighbours, their
// negatives, extremes, random bits of any length.
uint64_t InterestingBits(Rng &rng) {
   uint64_t p = 1;
   switch (rng.Below(6)) {
   case 0: return rng.Below(3);
   case 1: return (uint64_t{1} << rng.Below(64)) + static_cast<uint64_t>(rng.Between(-1, 1));
   case 2:
      for (size_t i = rng.Below(20); i > 0; i--) p *= 10;
      return p + static_cast<uint64_t>(rng.Between(-1, 1));
   case 3: return rng.OneIn(2) ? ~uint64_t{0} - rng.Below(3) : uint64_t{1} << 63 | rng.Below(2);
   case 4: return ~(rng.gen() >> rng.Below(64)) + 1;
   default: return rng.gen() >> rng.Below(64);
   }
}

// ecvt scales e and g values into [1, 10) in binary, off by a few units in
// the last place (more beyond 1e22) and gives 17 digits at most: keep only
// values whose printed digits such an error cannot change.
bool RoundingIsStable(double v, int digits) {
   double magnitude = std::fabs(v);
   if (!std::isfinite(v) || v == 0 || (magnitude >= 1 && magnitude < 10 && digits <= 17)) return true;
   if (digits > 17 || magnitude < 1e-300) return false;
   char text[80];
   snprintf(text, sizeof text, "%.39e", magnitude);
   char *e = strchr(text, 'e');
   int exponent = atoi(e + 1);
   *e = '\0';
   double error = (std::max(0, std::abs(exponent) - 22) + 3) * 0x1p-52 * strtod(text, nullptr) *
                  std::pow(10.0, digits - 1);
   std::string rest = text[0] + std::string(text + 2);
   double fraction = strtod(("0." + rest.substr(static_cast<size_t>(digits))).c_str(), nullptr);
   return error < 0.25 && std::fabs(fraction - 0.5) > 2 * error;
}

double RandomDouble(Rng &rng) {
   static const double kSpecial[] = {0.0, 1.0, 0.5, 0.1, 2.5, 1e22, 1e23, 9.5, 0.125, 1e-5,
                                     123456789.0, 1e15, 1e17, 999999.5, 9.9999995, 0x1p53,
                                     HUGE_VAL, NAN, 1.7976931348623157e308, 2.2250738585072014e-308};
   double v;
   switch (rng.Below(10)) {
   case 0: v = kSpecial[rng.Below(std::size(kSpecial))]; break;
   case 1: case 2: v = 1 + static_cast<double>(rng.gen() >> 11) * 0x1p-53 * 9; break;
   case 3: v = std::ldexp(1 + static_cast<double>(rng.gen() >> 11) * 0x1p-53, rng.Between(-1000, 1000)); break;
   default: {  // up to 15 significant digits
      std::string digits = std::to_string(rng.Between(1, 9));
      for (size_t n = rng.Below(15); n > 0; n--) digits += static_cast<char>('0' + rng.Below(10));
      int exponent = rng.OneIn(4) ? rng.Between(-300, 300) : rng.Between(-22, 22);
      v = strtod((digits + "e" + std::to_string(exponent)).c_str(), nullptr);
   }
   }
   return rng.OneIn(2) ? -v : v;
}

std::string RandomAscii(Rng &rng, size_t maxLength) {
   std::string s;
   for (size_t n = rng.Below(maxLength + 1); n > 0; n--) s += static_cast<char>(rng.Between(0x20, 0x7e));
   return s;
}

// One conversion: what its "*" width and precision read, then its value.
struct Conv {
   std::string flags, width, precision, size;
   char conv;
   std::vector<Arg> args;
   std::vector<char> roles;  // 'w', 'p' or 'v' per argument
};

struct Family {
   const char *convs, *flags;
   std::vector<const char *> sizes;
   int maxPrecision;  // -1: none
};
const Family kIntegers{"diouxX", " +-#0", {"", "", "hh", "h", "l", "ll", "j", "z", "t"}, 30};
const Family kChars{"c", "-", {""}, -1};
const Family kStrings{"s", "-", {""}, 45};
const Family kFloats{"eEfFgG", " +-#0", {"", "l"}, 17};
const Family *const kFamilies[] = {&kIntegers, &kChars, &kStrings, &kFloats, &kFloats};

Conv RandomConv(Rng &rng, const Family &fam, std::deque<std::string> &pool) {
   Conv c;
   c.conv = fam.convs[rng.Below(strlen(fam.convs))];
   c.size = fam.sizes[rng.Below(fam.sizes.size())];
   for (size_t n = rng.Below(4); n > 0; n--) c.flags += fam.flags[rng.Below(strlen(fam.flags))];
   if (strchr("diu", c.conv)) std::erase(c.flags, '#');  // undefined in C
   switch (rng.Below(5)) {
   case 0: c.width = std::to_string(rng.OneIn(10) ? rng.Between(41, 300) : rng.Between(1, 40)); break;
   case 1: c.width = std::to_string(rng.Between(1, 12)); break;
   case 2:
      c.width = "*";
      c.args.push_back(rng.OneIn(10) ? rng.Between(-300, 300) : rng.Between(-25, 25));
      c.roles.push_back('w');
      break;
   }
   int precision = -1;
   if (fam.maxPrecision >= 0 && !rng.OneIn(3)) {
      precision = rng.OneIn(4) ? 0 : rng.Between(0, fam.maxPrecision);
      if (rng.OneIn(3)) {
         c.precision = ".*";  // negative counts as none
         int given = rng.OneIn(4) ? rng.Between(-20, -1) : precision;
         precision = given < 0 ? -1 : given;
         c.args.push_back(given);
         c.roles.push_back('p');
      } else {
         c.precision = precision == 0 && rng.OneIn(3) ? "." : "." + std::to_string(precision);
      }
   }
   Kind kind = fmtmodel::KindOf(c.size, c.conv);
   uint64_t bits = InterestingBits(rng);
   switch (kind) {
   case fmtmodel::kInt:
      c.args.push_back(c.conv == 'c' ? rng.Between(rng.OneIn(8) ? 0 : 0x20, 0x7f) : static_cast<int>(bits));
      break;
   case fmtmodel::kUnsigned: c.args.push_back(static_cast<unsigned>(bits)); break;
   case fmtmodel::kLong: c.args.push_back(static_cast<long>(bits)); break;
   case fmtmodel::kULong: c.args.push_back(static_cast<unsigned long>(bits)); break;
   case fmtmodel::kLLong: c.args.push_back(static_cast<long long>(bits)); break;
   case fmtmodel::kULLong: c.args.push_back(static_cast<unsigned long long>(bits)); break;
   case fmtmodel::kStr:
      pool.push_back(RandomAscii(rng, rng.OneIn(10) ? 500 : 40));
      c.args.push_back(pool.back().c_str());
      break;
   default: {
      char lower = static_cast<char>(c.conv | 0x20);
      int digits = precision < 0 ? 6 : precision;
      digits = lower == 'e' ? digits + 1 : lower == 'g' ? std::max(digits, 1) : 0;
      if (lower == 'f' && precision == 0) {  // the engine rounds "%.0f" its own way
         if (c.precision == ".*") c.args.back() = 1; else c.precision = ".1";
      }
      double v;
      do v = RandomDouble(rng); while (lower != 'f' && !RoundingIsStable(v, digits));
      if (std::isnan(v)) {  // the sign of NaN is not printed alike everywhere
         v = std::fabs(v);
         std::erase(c.flags, '+');
         std::erase(c.flags, ' ');
      }
      c.args.push_back(v);
   }
   }
   c.roles.push_back('v');
   return c;
}

std::string RandomLiteral(Rng &rng) {
   static const char *const kLiterals[] = {"", " ", "x", ": ", "%%", "[", "\n", "abc%%def", "0"};
   if (!rng.OneIn(6)) return kLiterals[rng.Below(std::size(kLiterals))];
   std::string text;
   for (char ch : RandomAscii(rng, rng.OneIn(5) ? 200 : 12)) text += ch == '%' ? "%%" : std::string(1, ch);
   return text;
}

// Conversions between literal text, with at most three arguments in all;
// positional references pass the arguments shuffled and may repeat the last
// conversion.
Case RandomCase(Rng &rng, std::deque<std::string> &pool, size_t maxConvs, bool positional) {
   std::vector<Conv> convs;
   size_t argCount = 0;
   for (size_t n = 1 + rng.Below(maxConvs); n > 0; n--) {
      Conv c = RandomConv(rng, *kFamilies[rng.Below(std::size(kFamilies))], pool);
      if (argCount + c.args.size() > 3) break;
      argCount += c.args.size();
      convs.push_back(c);
   }
   std::vector<size_t> order(argCount);
   for (size_t i = 0; i < argCount; i++) order[i] = i;
   for (size_t i = argCount; positional && i > 1; i--) std::swap(order[i - 1], order[rng.Below(i)]);
   Case out{RandomLiteral(rng), std::vector<Arg>(argCount)};
   std::string directive;
   size_t slot = 0;
   for (Conv &c : convs) {
      std::string ref[3];  // width, precision, value
      for (size_t i = 0; i < c.args.size(); i++, slot++) {
         out.args[order[slot]] = c.args[i];
         ref[c.roles[i] == 'w' ? 0 : c.roles[i] == 'p' ? 1 : 2] = std::to_string(order[slot] + 1) + "$";
      }
      // glibc pads a positional negative "*" width with zeros on the right.
      if (positional && c.width == "*" && std::get<int>(c.args[0]) < 0) std::erase(c.flags, '0');
      if (!positional) ref[0] = ref[1] = ref[2] = "";
      directive = "%" + ref[2] + c.flags + c.width + (c.width == "*" ? ref[0] : "") + c.precision +
             (c.precision == ".*" ? ref[1] : "") + c.size + c.conv;
      out.format += directive + RandomLiteral(rng);
   }
   if (positional && rng.OneIn(3)) out.format += directive;
   return out;
}

}  // namespace

TEST(FormatAgreesWithLibc, SingleConversions) {
   Rng rng{std::mt19937_64(0x1f2e3d4c5b6a7988)};
   std::deque<std::string> pool;
   Runner runner;
   for (int i = 0; i < 60000; i++) runner.Check(RandomCase(rng, pool, 1, false));
}

// Every tenth mixture is also checked at every buffer size below 80.
TEST(FormatAgreesWithLibc, MixturesSequentialPositionalAndTruncated) {
   Rng rng{std::mt19937_64(0x313)};
   std::deque<std::string> pool;
   Runner runner;
   std::vector<size_t> all, none;
   for (size_t size = 0; size < 80; size++) all.push_back(size);
   for (int i = 0; i < 20000; i++) runner.Check(RandomCase(rng, pool, 3, i % 2 == 1), i % 10 == 0 ? all : none);
   const Case kFixed[] = {
      {"%%", {}}, {"100%% of %s%%", {"cases"}}, {"%3$s %1$s %2$s", {"a", "b", "c"}},
      {"%2$*1$d|%2$-*1$d|", {6, 42}}, {"%1$.*2$f %1$e", {3.25, 3}},
   };
   for (const Case &c : kFixed) runner.Check(c);
}

// A negative "*" width means "-" with its magnitude, and "-" beats "0", also
// when the width is fetched by position (where glibc differs).
TEST(FormatAgreesWithLibc, PositionalNegativeStarWidthPadsWithBlanks) {
   char buf[64];
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "[%2$0*1$d|%4$0*3$.1f]", -6, 42, -7, 2.5), 16);
   EXPECT_STREQ(buf, "[42    |2.5    ]");
}
