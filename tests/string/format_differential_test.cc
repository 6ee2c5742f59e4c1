// The formatting engine against the C library, on every conversion where the
// two agree by design.
//
// Each case is a format plus a typed argument list, generated from a fixed
// seed. Every case is checked through one helper: Str_Snprintf into a buffer
// large enough and into buffers of several smaller sizes (the output is
// ASCII, so truncation must cut exactly where snprintf cuts), and
// Str_Asprintf against asprintf. Arguments have exactly the C type the
// conversion reads, so every call is well defined.
//
// Out of scope here, because the engine differs on purpose: "%p", size
// prefixes the C library lacks, unknown conversion characters, grouping,
// truncation inside multi-byte text, and "%.0f" (which rounds halfway cases
// away from zero).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

#include "str.h"

namespace {

// The C types a conversion can read once default argument promotion is
// applied ("hh" and "h" read int). intmax_t, size_t and ptrdiff_t are one of
// these on every LP64 and ILP32 C library.
using Arg = std::variant<int, unsigned, long, unsigned long, long long,
                         unsigned long long, double, const char *>;

struct Case {
   std::string format;
   std::vector<Arg> args;
};

// ---------------------------------------------------------------------------
// Calling both implementations with one typed argument list.

// The four calls of one case, with the argument types fixed at compile time.
class Calls {
public:
   virtual ~Calls() = default;
   virtual int EngineSnprintf(char *buf, size_t size) const = 0;
   virtual int LibcSnprintf(char *buf, size_t size) const = 0;
   virtual char *EngineAsprintf(size_t *length) const = 0;
   virtual int LibcAsprintf(char **out) const = 0;
};

// The format is not a literal here by construction; its argument types are
// guaranteed by the generators instead of the compiler.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

template <class... T>
class CallsWith final : public Calls {
public:
   CallsWith(const char *format, T... args) : format_(format), args_(args...) {}

   int EngineSnprintf(char *buf, size_t size) const override {
      return std::apply([&](T... a) { return Str_Snprintf(buf, size, format_, a...); },
                        args_);
   }
   int LibcSnprintf(char *buf, size_t size) const override {
      return std::apply([&](T... a) { return snprintf(buf, size, format_, a...); },
                        args_);
   }
   char *EngineAsprintf(size_t *length) const override {
      return std::apply([&](T... a) { return Str_Asprintf(length, format_, a...); },
                        args_);
   }
   int LibcAsprintf(char **out) const override {
      return std::apply([&](T... a) { return asprintf(out, format_, a...); }, args_);
   }

private:
   const char *format_;
   std::tuple<T...> args_;
};

#pragma GCC diagnostic pop

template <class... T>
std::unique_ptr<Calls> MakeCalls(const char *format, T... args) {
   return std::make_unique<CallsWith<T...>>(format, args...);
}

// Generated cases pass at most three arguments: enough for a "*" width, a
// "*" precision and the value, or for three positional arguments.
std::unique_ptr<Calls> CallsFor(const Case &c) {
   const char *f = c.format.c_str();
   auto one = [f](auto a) -> std::unique_ptr<Calls> { return MakeCalls(f, a); };
   auto two = [f](auto a, auto b) -> std::unique_ptr<Calls> {
      return MakeCalls(f, a, b);
   };
   auto three = [f](auto a, auto b, auto x) -> std::unique_ptr<Calls> {
      return MakeCalls(f, a, b, x);
   };
   switch (c.args.size()) {
   case 0: return std::make_unique<CallsWith<>>(f);
   case 1: return std::visit(one, c.args[0]);
   case 2: return std::visit(two, c.args[0], c.args[1]);
   case 3: return std::visit(three, c.args[0], c.args[1], c.args[2]);
   }
   ADD_FAILURE() << "a case passes at most three arguments";
   return nullptr;
}

// ---------------------------------------------------------------------------
// Reporting.

std::string Escaped(const char *s, size_t n) {
   std::string out = "\"";
   for (size_t i = 0; i < n; i++) {
      unsigned char ch = static_cast<unsigned char>(s[i]);
      if (ch == '"' || ch == '\\') {
         out += '\\';
         out += static_cast<char>(ch);
      } else if (ch >= 0x20 && ch < 0x7f) {
         out += static_cast<char>(ch);
      } else {
         char hex[8];
         snprintf(hex, sizeof hex, "\\x%02x", ch);
         out += hex;
      }
   }
   return out + "\"";
}

std::string Escaped(const std::string &s) { return Escaped(s.data(), s.size()); }

std::string Describe(const Arg &arg) {
   struct {
      std::string operator()(int v) { return "(int)" + std::to_string(v); }
      std::string operator()(unsigned v) { return "(unsigned)" + std::to_string(v); }
      std::string operator()(long v) { return "(long)" + std::to_string(v); }
      std::string operator()(unsigned long v) {
         return "(unsigned long)" + std::to_string(v);
      }
      std::string operator()(long long v) { return "(long long)" + std::to_string(v); }
      std::string operator()(unsigned long long v) {
         return "(unsigned long long)" + std::to_string(v);
      }
      std::string operator()(double v) {
         char text[64];
         snprintf(text, sizeof text, "(double)%.17g [%a]", v, v);
         return text;
      }
      std::string operator()(const char *v) { return "(const char *)" + Escaped(v, strlen(v)); }
   } describe;
   return std::visit(describe, arg);
}

std::string Describe(const Case &c) {
   std::string out = "format " + Escaped(c.format) + " args (";
   for (size_t i = 0; i < c.args.size(); i++) {
      out += (i ? ", " : "") + Describe(c.args[i]);
   }
   return out + ")";
}

// ---------------------------------------------------------------------------
// The check every case goes through.

// Checks one buffer size: the return value (the length when it fitted, -1
// otherwise), the bytes up to and including the terminator, and that nothing
// is written when size is 0. The buffer is allocated with exactly size bytes
// so that the address sanitizer catches a write past it.
::testing::AssertionResult SameAtSize(const Calls &calls, const std::string &expected,
                                      size_t size) {
   if (size == 0) {
      char untouched = 'Z';
      int r = calls.EngineSnprintf(&untouched, 0);
      if (r != -1 || untouched != 'Z') {
         return ::testing::AssertionFailure()
                << "size 0: returned " << r << ", buffer byte " << Escaped(&untouched, 1);
      }
      return ::testing::AssertionSuccess();
   }
   std::unique_ptr<char[]> ours(new char[size]);
   std::unique_ptr<char[]> theirs(new char[size]);
   memset(ours.get(), 0x7f, size);
   memset(theirs.get(), 0x7f, size);
   int r = calls.EngineSnprintf(ours.get(), size);
   calls.LibcSnprintf(theirs.get(), size);
   int wanted = expected.size() < size ? static_cast<int>(expected.size()) : -1;
   size_t kept = std::min(expected.size(), size - 1);
   if (r != wanted || memcmp(ours.get(), theirs.get(), kept + 1) != 0) {
      return ::testing::AssertionFailure()
             << "size " << size << ": expected " << wanted << " "
             << Escaped(theirs.get(), kept + 1) << ", got " << r << " "
             << Escaped(ours.get(), kept + 1);
   }
   return ::testing::AssertionSuccess();
}

// Checks the case at every size in sizes (besides the full-size and
// one-too-small buffers, which every case gets) and the allocating form.
::testing::AssertionResult AgreesWithLibc(const Case &c, std::vector<size_t> sizes = {}) {
   std::unique_ptr<Calls> calls = CallsFor(c);
   if (!calls) {
      return ::testing::AssertionFailure() << Describe(c);
   }
   int n = calls->LibcSnprintf(nullptr, 0);
   if (n < 0) {
      return ::testing::AssertionFailure() << "the C library rejects " << Describe(c);
   }
   std::string expected(static_cast<size_t>(n) + 1, '\0');
   calls->LibcSnprintf(expected.data(), expected.size());
   expected.resize(static_cast<size_t>(n));

   sizes.push_back(expected.size() + 1);
   sizes.push_back(expected.size());
   for (size_t size : sizes) {
      auto same = SameAtSize(*calls, expected, size);
      if (!same) {
         return same << "\n  " << Describe(c) << "\n  full output " << Escaped(expected);
      }
   }

   size_t length = SIZE_MAX;
   char *ours = calls->EngineAsprintf(&length);
   char *theirs = nullptr;
   int theirLength = calls->LibcAsprintf(&theirs);
   bool same = ours != nullptr && theirLength >= 0 &&
               length == static_cast<size_t>(theirLength) &&
               memcmp(ours, theirs, length + 1) == 0;
   std::string got = ours ? Escaped(ours, length) : "null";
   free(ours);
   free(theirs);
   if (!same) {
      return ::testing::AssertionFailure()
             << "Str_Asprintf: expected " << Escaped(expected) << ", got " << got
             << " (length " << length << ")\n  " << Describe(c);
   }
   return ::testing::AssertionSuccess();
}

// Runs generated cases, stops the test after a handful of mismatches so that
// one fault does not bury the report, and records how many cases ran.
class CaseRunner {
public:
   ~CaseRunner() {
      ::testing::Test::RecordProperty("cases", std::to_string(count_));
      printf("%zu cases compared with the C library\n", count_);
   }

   void Check(const Case &c, std::vector<size_t> sizes = {}) {
      if (failures_ >= kMaxFailures) {
         return;
      }
      count_++;
      auto result = AgreesWithLibc(c, std::move(sizes));
      EXPECT_TRUE(result);
      if (!result) {
         failures_++;
      }
   }

private:
   static constexpr int kMaxFailures = 10;
   size_t count_ = 0;
   int failures_ = 0;
};

// ---------------------------------------------------------------------------
// Generators. std::mt19937_64's output sequence is fixed by the C++
// standard; the helpers below avoid the library's distributions, whose
// output is not, so the cases are the same everywhere.

class Rng {
public:
   explicit Rng(uint64_t seed) : gen_(seed) {}
   uint64_t Bits() { return gen_(); }
   // Uniform enough in [0, n).
   size_t Below(size_t n) { return static_cast<size_t>(gen_() % n); }
   int Between(int lo, int hi) { return lo + static_cast<int>(Below(static_cast<size_t>(hi - lo + 1))); }
   bool OneIn(size_t n) { return Below(n) == 0; }
   template <class T, size_t N>
   const T &Pick(const T (&items)[N]) { return items[Below(N)]; }

private:
   std::mt19937_64 gen_;
};

// A 64-bit pattern biased towards the values where conversions go wrong:
// zero, single digits, powers of two and ten and their neighbours, extremes.
uint64_t InterestingBits(Rng &rng) {
   switch (rng.Below(6)) {
   case 0: return rng.Below(10);
   case 1: {
      uint64_t p = uint64_t{1} << rng.Below(64);
      return p + static_cast<uint64_t>(rng.Between(-1, 1));
   }
   case 2: {
      uint64_t p = 1;
      for (size_t i = rng.Below(20); i > 0; i--) {
         p *= 10;
      }
      return p + static_cast<uint64_t>(rng.Between(-1, 1));
   }
   case 3: return ~uint64_t{0} - rng.Below(3);
   default: return rng.Bits() >> rng.Below(64);
   }
}

template <class T>
T InterestingInteger(Rng &rng) {
   uint64_t bits = InterestingBits(rng);
   if constexpr (std::is_signed_v<T>) {
      switch (rng.Below(8)) {
      case 0: return std::numeric_limits<T>::min();
      case 1: return std::numeric_limits<T>::max();
      case 2: bits = ~bits + 1; break;  // negative of a small or round value
      default: break;
      }
   }
   return static_cast<T>(bits);  // modular since C++20
}

// One conversion before rendering: the argument values of a "*" width or
// precision belong to it, and rendering decides between sequential and
// positional argument references.
struct Conv {
   enum class Field { kNone, kLiteral, kStar };
   std::string flags;
   Field width = Field::kNone;
   int widthValue = 0;
   Field precision = Field::kNone;
   int precisionValue = 0;  // also of an empty precision ("%.d" is "%.0d")
   bool emptyPrecision = false;
   std::string size;
   char conversion = 'd';
   std::optional<Arg> value;

   size_t ArgCount() const {
      return (width == Field::kStar) + (precision == Field::kStar) + value.has_value();
   }
   // The precision the conversion will use, or -1 for its default.
   int EffectivePrecision() const {
      if (precision == Field::kNone) {
         return -1;
      }
      return precisionValue < 0 ? -1 : precisionValue;
   }
};

std::string RandomFlags(Rng &rng, const char *allowed) {
   std::string flags;
   size_t n = strlen(allowed);
   for (size_t count = rng.Below(4); count > 0; count--) {
      flags += allowed[rng.Below(n)];
   }
   return flags;
}

void RandomWidth(Rng &rng, Conv &conv) {
   switch (rng.Below(5)) {
   case 0:
   case 1: break;
   case 2:
      conv.width = Conv::Field::kLiteral;
      conv.widthValue = rng.OneIn(10) ? rng.Between(41, 300) : rng.Between(1, 40);
      break;
   case 3:
      conv.width = Conv::Field::kLiteral;
      conv.widthValue = rng.Between(1, 12);
      break;
   default:
      // A negative "*" width means left adjustment by its magnitude.
      conv.width = Conv::Field::kStar;
      conv.widthValue = rng.OneIn(10) ? rng.Between(-300, 300) : rng.Between(-25, 25);
      break;
   }
}

// maxLiteral bounds the precision; a negative "*" precision counts as none.
void RandomPrecision(Rng &rng, Conv &conv, int minLiteral, int maxLiteral) {
   switch (rng.Below(4)) {
   case 0: break;
   case 1:
      conv.precision = Conv::Field::kStar;
      conv.precisionValue = rng.OneIn(4) ? rng.Between(-20, -1)
                                         : rng.Between(minLiteral, maxLiteral);
      break;
   default:
      conv.precision = Conv::Field::kLiteral;
      conv.precisionValue = rng.Between(minLiteral, maxLiteral);
      conv.emptyPrecision = conv.precisionValue == 0 && rng.OneIn(3);
      break;
   }
}

Conv IntegerConv(Rng &rng) {
   static const char kConversions[] = "diouxX";
   static const char *const kSizes[] = {"", "", "", "hh", "h", "l", "ll", "j", "z", "t"};
   Conv conv;
   conv.conversion = kConversions[rng.Below(6)];
   bool isSigned = conv.conversion == 'd' || conv.conversion == 'i';
   // "#" is defined only for o, x and X.
   conv.flags = RandomFlags(rng, isSigned || conv.conversion == 'u' ? " +-0" : " +-#0");
   RandomWidth(rng, conv);
   RandomPrecision(rng, conv, 0, rng.OneIn(10) ? 100 : 25);
   conv.size = rng.Pick(kSizes);
   const std::string &s = conv.size;
   if (s == "" ) {
      conv.value = isSigned ? Arg{InterestingInteger<int>(rng)}
                            : Arg{InterestingInteger<unsigned>(rng)};
   } else if (s == "hh" || s == "h") {
      // Promoted to int; the conversion narrows it again.
      conv.value = Arg{InterestingInteger<int>(rng)};
   } else if (s == "l") {
      conv.value = isSigned ? Arg{InterestingInteger<long>(rng)}
                            : Arg{InterestingInteger<unsigned long>(rng)};
   } else if (s == "ll") {
      conv.value = isSigned ? Arg{InterestingInteger<long long>(rng)}
                            : Arg{InterestingInteger<unsigned long long>(rng)};
   } else if (s == "j") {
      conv.value = isSigned ? Arg{std::in_place_type<intmax_t>, InterestingInteger<intmax_t>(rng)}
                            : Arg{std::in_place_type<uintmax_t>, InterestingInteger<uintmax_t>(rng)};
   } else if (s == "z") {
      using SignedSize = std::make_signed_t<size_t>;
      conv.value = isSigned
                      ? Arg{std::in_place_type<SignedSize>, InterestingInteger<SignedSize>(rng)}
                      : Arg{std::in_place_type<size_t>, InterestingInteger<size_t>(rng)};
   } else {
      using UnsignedDiff = std::make_unsigned_t<ptrdiff_t>;
      conv.value = isSigned
                      ? Arg{std::in_place_type<ptrdiff_t>, InterestingInteger<ptrdiff_t>(rng)}
                      : Arg{std::in_place_type<UnsignedDiff>, InterestingInteger<UnsignedDiff>(rng)};
   }
   return conv;
}

// Printable ASCII text, sometimes long enough to cross the engine's
// internal batching.
std::string RandomAscii(Rng &rng, size_t maxLength) {
   std::string s;
   for (size_t n = rng.Below(maxLength + 1); n > 0; n--) {
      s += static_cast<char>(rng.Between(0x20, 0x7e));
   }
   return s;
}

// Owns the text of generated "%s" arguments for the lifetime of a test.
class StringPool {
public:
   const char *Add(std::string s) {
      strings_.push_back(std::move(s));
      return strings_.back().c_str();
   }

private:
   std::deque<std::string> strings_;
};

Conv CharConv(Rng &rng) {
   Conv conv;
   conv.conversion = 'c';
   conv.flags = RandomFlags(rng, "-");
   RandomWidth(rng, conv);
   // Mostly printable; sometimes a control character or NUL, which is
   // output like any other byte.
   conv.value = Arg{rng.OneIn(8) ? rng.Between(0, 0x1f) : rng.Between(0x20, 0x7f)};
   return conv;
}

Conv StringConv(Rng &rng, StringPool &pool) {
   static const char *const kFixed[] = {"", "a", "hello, world", "%d %s %n", "    ",
                                        "0123456789abcdef0123456789ABCDEF"};
   Conv conv;
   conv.conversion = 's';
   conv.flags = RandomFlags(rng, "-");
   RandomWidth(rng, conv);
   RandomPrecision(rng, conv, 0, rng.OneIn(10) ? 400 : 40);
   if (rng.OneIn(3)) {
      conv.value = Arg{rng.Pick(kFixed)};
   } else {
      conv.value = Arg{pool.Add(RandomAscii(rng, rng.OneIn(10) ? 500 : 40))};
   }
   return conv;
}

// ---------------------------------------------------------------------------
// Floating point.
//
// The engine takes its digits from the C library's ecvt/fcvt. fcvt prints
// through the C library itself, so "f" and "F" agree for any value and any
// precision up to 17 (except precision 0, which the engine rounds its own
// way). ecvt, used for "e" and "g", first scales the value into [1, 10) by
// powers of ten in binary floating point, which may move it by a few units
// in the last place (more for large exponents, whose power of ten is itself
// rounded), and it gives at most 17 significant digits. So "e" and "g" cases
// are kept only where such an error cannot change the printed digits: the
// part of the exact value beyond the requested digits must be further from
// a halfway point than the scaling error. Values in [1, 10) are not scaled
// and need no margin.

// Significant digits ecvt is asked for by a conversion with this precision
// (-1 for the default).
int SignificantDigits(char conversion, int precision) {
   if (precision < 0) {
      precision = 6;
   }
   if (conversion == 'e' || conversion == 'E') {
      return precision + 1;
   }
   return precision == 0 ? 1 : precision;
}

// Whether printing v with `digits` significant digits comes out the same
// from any computation of v with relative error below that of ecvt's
// scaling.
bool RoundingIsStable(double v, int digits) {
   if (!std::isfinite(v) || v == 0) {
      return true;
   }
   if (digits > 17) {
      return false;
   }
   double magnitude = std::fabs(v);
   if (magnitude >= 1 && magnitude < 10) {
      return true;
   }
   if (magnitude < 1e-300) {
      return false;  // subnormal range: ecvt rescales twice
   }
   // 40 digits of the exact value, "d.ddd...e+XX".
   char text[80];
   snprintf(text, sizeof text, "%.39e", magnitude);
   char *e = strchr(text, 'e');
   int exponent = atoi(e + 1);
   *e = '\0';
   double mantissa = strtod(text, nullptr);
   // Each multiplication by ten beyond 1e22 may add half a unit in the last
   // place to the power of ten; the final product or quotient adds one more.
   double relativeError = (std::max(0, std::abs(exponent) - 22) + 3) * 0x1p-52;
   // The error in units of the last requested digit.
   double errorInUnits = relativeError * mantissa * std::pow(10.0, digits - 1);
   if (errorInUnits >= 0.25) {
      return false;
   }
   // The remainder beyond the requested digits, as a fraction of one unit.
   std::string rest;
   for (const char *p = text; *p != '\0'; p++) {
      if (*p >= '0' && *p <= '9') {
         rest += *p;
      }
   }
   double fraction = strtod(("0." + rest.substr(static_cast<size_t>(digits))).c_str(), nullptr);
   return std::fabs(fraction - 0.5) > 2 * errorInUnits;
}

// A value with few significant decimal digits, at any scale; or any value in
// [1, 10); or a special value.
double RandomDouble(Rng &rng) {
   double v;
   switch (rng.Below(10)) {
   case 0: {
      static const double kSpecial[] = {0.0, 1.0, 0.5, 0.1, 2.5, 1e22, 1e23, 9.5,
                                        0.125, 1e-5, 123456789.0, 1e15, 1e16, 1e17,
                                        999999.5, 9.9999995, 0x1p53, 0x1p-20,
                                        HUGE_VAL, 1.7976931348623157e308, 2.2250738585072014e-308};
      v = rng.Pick(kSpecial);
      break;
   }
   case 1:
   case 2:
      v = 1 + static_cast<double>(rng.Bits() >> 11) * 0x1p-53 * 9;
      break;
   case 3:
      // A double anywhere in the normal range.
      v = std::ldexp(1 + static_cast<double>(rng.Bits() >> 11) * 0x1p-53, rng.Between(-1000, 1000));
      break;
   default: {
      // Up to 15 significant digits, exponent mostly within exact powers of ten.
      std::string digits = std::to_string(rng.Between(1, 9));
      for (size_t n = rng.Below(15); n > 0; n--) {
         digits += static_cast<char>('0' + rng.Below(10));
      }
      int exponent = rng.OneIn(4) ? rng.Between(-300, 300) : rng.Between(-22, 22);
      v = strtod((digits + "e" + std::to_string(exponent)).c_str(), nullptr);
      break;
   }
   }
   return rng.OneIn(2) ? -v : v;
}

Conv FloatConv(Rng &rng) {
   static const char kConversions[] = "eEfFgG";
   Conv conv;
   conv.conversion = kConversions[rng.Below(6)];
   conv.flags = RandomFlags(rng, " +-#0");
   RandomWidth(rng, conv);
   for (;;) {
      Conv trial = conv;
      RandomPrecision(rng, trial, 0, 17);
      int precision = trial.EffectivePrecision();
      char lower = static_cast<char>(conv.conversion | 0x20);
      if (lower == 'f' && precision == 0) {
         continue;  // the engine rounds "%.0f" half away from zero
      }
      if (lower == 'e' && precision > 16) {
         continue;  // beyond the 17 significant digits ecvt gives
      }
      double v = RandomDouble(rng);
      if (lower != 'f' && !RoundingIsStable(v, SignificantDigits(lower, precision))) {
         continue;
      }
      trial.value = Arg{v};
      return trial;
   }
}

// Infinities and NaN take flags and width like any number; "0" pads with
// blanks for them. The sign of a NaN is left out: it is not printed the
// same way everywhere.
Conv NonFiniteConv(Rng &rng) {
   static const char kConversions[] = "eEfFgG";
   Conv conv;
   conv.conversion = kConversions[rng.Below(6)];
   RandomWidth(rng, conv);
   RandomPrecision(rng, conv, 1, 17);
   if (rng.OneIn(3)) {
      conv.flags = RandomFlags(rng, "-#0");
      conv.value = Arg{std::nan("")};
   } else {
      conv.flags = RandomFlags(rng, " +-#0");
      conv.value = Arg{rng.OneIn(2) ? HUGE_VAL : -HUGE_VAL};
   }
   return conv;
}

// ---------------------------------------------------------------------------
// Rendering conversions and literal text into a case.

struct Piece {
   std::string literal;  // used when conv is empty
   std::optional<Conv> conv;
};

std::string RenderSpec(const Conv &conv, const std::string &position,
                       const std::string &widthRef, const std::string &precisionRef) {
   std::string s = "%" + position + conv.flags;
   if (conv.width == Conv::Field::kLiteral) {
      s += std::to_string(conv.widthValue);
   } else if (conv.width == Conv::Field::kStar) {
      s += "*" + widthRef;
   }
   if (conv.precision == Conv::Field::kLiteral) {
      s += conv.emptyPrecision ? "." : "." + std::to_string(conv.precisionValue);
   } else if (conv.precision == Conv::Field::kStar) {
      s += ".*" + precisionRef;
   }
   return s + conv.size + conv.conversion;
}

// Sequential argument references: "*" values come before the value.
Case RenderSequential(const std::vector<Piece> &pieces) {
   Case c;
   for (const Piece &piece : pieces) {
      if (!piece.conv) {
         c.format += piece.literal;
         continue;
      }
      const Conv &conv = *piece.conv;
      c.format += RenderSpec(conv, "", "", "");
      if (conv.width == Conv::Field::kStar) {
         c.args.push_back(Arg{conv.widthValue});
      }
      if (conv.precision == Conv::Field::kStar) {
         c.args.push_back(Arg{conv.precisionValue});
      }
      if (conv.value) {
         c.args.push_back(*conv.value);
      }
   }
   return c;
}

// Positional references ("%2$d", "*1$"): the arguments are passed in a
// shuffled order and each conversion names its own. Some conversions are
// repeated verbatim, reading the same arguments a second time.
Case RenderPositional(Rng &rng, const std::vector<Piece> &pieces) {
   struct Refs {
      size_t width = 0, precision = 0, value = 0;  // slots
   };
   std::vector<Piece> adjusted = pieces;
   std::vector<Arg> slots;
   std::vector<Refs> refs;
   auto add = [&slots](Arg a) {
      slots.push_back(a);
      return slots.size() - 1;
   };
   for (Piece &piece : adjusted) {
      if (!piece.conv) {
         continue;
      }
      Conv &conv = *piece.conv;
      // The C library pads with zeros on the right when a positional "*"
      // width is negative and "0" is given; left adjustment pads with
      // blanks (see PositionalNegativeStarWidthPadsWithBlanks).
      if (conv.width == Conv::Field::kStar && conv.widthValue < 0) {
         std::erase(conv.flags, '0');
      }
      Refs r;
      if (conv.width == Conv::Field::kStar) {
         r.width = add(Arg{conv.widthValue});
      }
      if (conv.precision == Conv::Field::kStar) {
         r.precision = add(Arg{conv.precisionValue});
      }
      r.value = add(*conv.value);
      refs.push_back(r);
   }
   std::vector<size_t> order(slots.size());  // order[slot] = argument index
   for (size_t i = 0; i < order.size(); i++) {
      order[i] = i;
   }
   for (size_t i = order.size(); i > 1; i--) {
      std::swap(order[i - 1], order[rng.Below(i)]);
   }
   Case c;
   c.args.resize(slots.size());
   for (size_t i = 0; i < slots.size(); i++) {
      c.args[order[i]] = slots[i];
   }
   auto ref = [&order](size_t slot) { return std::to_string(order[slot] + 1) + "$"; };
   size_t next = 0;
   std::string repeated;
   for (const Piece &piece : adjusted) {
      if (!piece.conv) {
         c.format += piece.literal;
         continue;
      }
      const Refs &r = refs[next++];
      std::string spec = RenderSpec(*piece.conv, ref(r.value), ref(r.width), ref(r.precision));
      c.format += spec;
      if (rng.OneIn(4)) {
         repeated = spec;
      }
   }
   c.format += repeated;
   return c;
}

std::string RandomLiteral(Rng &rng) {
   static const char *const kLiterals[] = {"", " ", "x", ": ", "%%", "[", "]", "\n",
                                           "\t", "abc%%def", "/", "errno ", "-", "0"};
   if (rng.OneIn(6)) {
      std::string text;
      for (char ch : RandomAscii(rng, rng.OneIn(5) ? 200 : 12)) {
         text += ch == '%' ? std::string("%%") : std::string(1, ch);
      }
      return text;
   }
   return rng.Pick(kLiterals);
}

}  // namespace

// ---------------------------------------------------------------------------

TEST(FormatAgreesWithLibc, IntegerFlagsWidthPrecisionAndSize) {
   Rng rng(0x1f2e3d4c5b6a7988);
   CaseRunner runner;
   for (int i = 0; i < 15000; i++) {
      runner.Check(RenderSequential({{"", IntegerConv(rng)}}));
   }
}

// Every flag combination, on the values where flags interact most: zero
// (with and without precision 0), the sign boundaries, with "0" padding
// competing against precision and "-".
TEST(FormatAgreesWithLibc, IntegerFlagCombinationsExhaustive) {
   static const char kFlags[] = " +-#0";
   static const long long kValues[] = {0, 1, -1, 7, 8, 255, LLONG_MIN, LLONG_MAX};
   static const char *const kWidthPrecision[] = {"", "5", "5.0", ".0", ".", "1.3", "12.4", "-3"};
   CaseRunner runner;
   for (char conversion : std::string("diouxX")) {
      for (int mask = 0; mask < 32; mask++) {
         std::string flags;
         for (int b = 0; b < 5; b++) {
            if (mask & (1 << b)) {
               flags += kFlags[b];
            }
         }
         bool isSigned = conversion == 'd' || conversion == 'i';
         if (flags.find('#') != std::string::npos && (isSigned || conversion == 'u')) {
            continue;
         }
         for (const char *wp : kWidthPrecision) {
            bool star = wp[0] == '-';
            std::string spec = "%" + flags + (star ? "*" : wp) + "ll" + conversion;
            for (long long v : kValues) {
               Case c{"<" + spec + ">", {}};
               if (star) {
                  c.args.push_back(Arg{atoi(wp + 1) * -1});
               }
               c.args.push_back(isSigned ? Arg{v} : Arg{static_cast<unsigned long long>(v)});
               runner.Check(c);
            }
         }
      }
   }
}

TEST(FormatAgreesWithLibc, CharactersAndAsciiStrings) {
   Rng rng(0x5eed0002);
   StringPool pool;
   CaseRunner runner;
   for (int i = 0; i < 8000; i++) {
      runner.Check(RenderSequential({{"", rng.OneIn(4) ? CharConv(rng) : StringConv(rng, pool)}}));
   }
   runner.Check({"%%", {}});
   runner.Check({"100%% of %s%%", {Arg{"cases"}}});
}

TEST(FormatAgreesWithLibc, FloatingPointWithinEcvtPrecision) {
   Rng rng(0xf10a7);
   CaseRunner runner;
   for (int i = 0; i < 15000; i++) {
      runner.Check(RenderSequential({{"", FloatConv(rng)}}));
   }
}

TEST(FormatAgreesWithLibc, InfinityAndNan) {
   Rng rng(0x1f1f);
   CaseRunner runner;
   for (int i = 0; i < 1500; i++) {
      runner.Check(RenderSequential({{"", NonFiniteConv(rng)}}));
   }
}

// One to three conversions of any kind between literal text, at most three
// arguments in all.
std::vector<Piece> RandomMixture(Rng &rng, StringPool &pool) {
   std::vector<Piece> pieces;
   size_t args = 0;
   pieces.push_back({RandomLiteral(rng), {}});
   for (size_t n = 1 + rng.Below(3); n > 0; n--) {
      Conv conv;
      switch (rng.Below(5)) {
      case 0: conv = IntegerConv(rng); break;
      case 1: conv = CharConv(rng); break;
      case 2: conv = StringConv(rng, pool); break;
      default: conv = FloatConv(rng); break;
      }
      if (args + conv.ArgCount() > 3) {
         break;
      }
      args += conv.ArgCount();
      pieces.push_back({"", conv});
      pieces.push_back({RandomLiteral(rng), {}});
   }
   return pieces;
}

TEST(FormatAgreesWithLibc, MixturesWithLiteralText) {
   Rng rng(0x313);
   StringPool pool;
   CaseRunner runner;
   for (int i = 0; i < 8000; i++) {
      runner.Check(RenderSequential(RandomMixture(rng, pool)));
   }
}

TEST(FormatAgreesWithLibc, PositionalArguments) {
   Rng rng(0x9051);
   StringPool pool;
   CaseRunner runner;
   for (int i = 0; i < 6000; i++) {
      runner.Check(RenderPositional(rng, RandomMixture(rng, pool)));
   }
   runner.Check({"%3$s %1$s %2$s", {Arg{"a"}, Arg{"b"}, Arg{"c"}}});
   runner.Check({"%2$*1$d|%2$-*1$d|", {Arg{6}, Arg{42}}});
   runner.Check({"%1$.*2$f %1$e", {Arg{3.25}, Arg{3}}});
}

// A negative "*" width means "-" with its magnitude, and "-" overrides "0",
// whether the width is fetched in sequence or by position.
TEST(FormatAgreesWithLibc, PositionalNegativeStarWidthPadsWithBlanks) {
   char buf[64];
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "[%0*d]", -6, 42), 8);
   EXPECT_STREQ(buf, "[42    ]");
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "[%2$0*1$d]", -6, 42), 8);
   EXPECT_STREQ(buf, "[42    ]");
   EXPECT_EQ(Str_Snprintf(buf, sizeof buf, "[%2$0*1$.1f]", -7, 2.5), 9);
   EXPECT_STREQ(buf, "[2.5    ]");
}

// Every buffer size from 0 to past the full length: the result is -1 exactly
// when the output does not fit, and the truncated text is the longest prefix
// that leaves room for the terminator.
TEST(FormatAgreesWithLibc, TruncationAtEverySize) {
   Rng rng(0x7c);
   StringPool pool;
   CaseRunner runner;
   for (int i = 0; i < 1500; i++) {
      Case c = RenderSequential(RandomMixture(rng, pool));
      std::vector<size_t> sizes;
      for (size_t size = 0; size < 80; size++) {
         sizes.push_back(size);
      }
      runner.Check(c, sizes);
   }
}
