// Conversions between UTF-32, UTF-16 and UTF-8.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "convertutf.h"

namespace {

using U8 = std::vector<UTF8>;
using U16 = std::vector<UTF16>;
using U32 = std::vector<UTF32>;

template <typename S, typename T>
using Converter = ConversionResult (*)(const S **, const S *, T **, T *, ConversionFlags);

template <typename T>
constexpr T kSentinel = static_cast<T>(0xA5A5A5A5u);

template <typename T>
struct Outcome {
   ConversionResult result;
   size_t consumed;       // source units the pointer moved past
   std::vector<T> out;    // the units written
};

/*
 * Converts `src` into a target of exactly `capacity` units (so the
 * sanitizers see any write past it), and checks that neither pointer left
 * its buffer and that nothing beyond the reported output was written.
 */
template <typename S, typename T>
Outcome<T> Convert(Converter<S, T> convert, const std::vector<S> &src, size_t capacity,
               ConversionFlags flags) {
   std::vector<T> target(capacity, kSentinel<T>);
   const S *s = src.data();
   T *t = target.data();
   ConversionResult r = convert(&s, src.data() + src.size(), &t,
                                target.data() + target.size(), flags);
   size_t consumed = static_cast<size_t>(s - src.data());
   size_t produced = static_cast<size_t>(t - target.data());
   EXPECT_LE(consumed, src.size());
   EXPECT_LE(produced, capacity);
   for (size_t i = produced; i < capacity; i++) {
      EXPECT_EQ(target[i], kSentinel<T>) << "written past the output at " << i;
   }
   target.resize(produced);
   return {r, consumed, target};
}

// Roomy enough for any conversion of `src`.
template <typename S, typename T>
Outcome<T> ConvertAll(Converter<S, T> convert, const std::vector<S> &src,
                  ConversionFlags flags) {
   return Convert(convert, src, 4 * src.size() + 4, flags);
}

constexpr UTF32 kFFFD = 0xFFFD;

bool IsScalar(UTF32 c) {
   return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

U32 AllScalars() {
   U32 all;
   for (UTF32 c = 0; c <= 0x10FFFF; c++) {
      if (IsScalar(c)) {
         all.push_back(c);
      }
   }
   return all;
}

/*
 * UTF-8 decoding written from the bit patterns rather than from a table:
 * true when b[0..n) is one well-formed sequence, which is then *value.
 */
bool BitPatternDecode(const UTF8 *b, size_t n, UTF32 *value) {
   static const UTF8 kLeadMask[] = {0, 0x80, 0xE0, 0xF0, 0xF8};
   static const UTF8 kLeadBits[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
   static const UTF32 kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
   if (n < 1 || n > 4 || (b[0] & kLeadMask[n]) != kLeadBits[n]) {
      return false;
   }
   UTF32 v = b[0] & static_cast<UTF8>(~kLeadMask[n] & 0xFF);
   for (size_t i = 1; i < n; i++) {
      if ((b[i] & 0xC0) != 0x80) {
         return false;
      }
      v = (v << 6) | (b[i] & 0x3F);
   }
   *value = v;
   return v >= kShortest[n] && IsScalar(v);
}

// ---------------------------------------------------------------------------

TEST(EveryScalar, RoundTripsThroughAllSixConverters) {
   const U32 all = AllScalars();
   // 128 one-byte, 1920 two-byte, 61440 three-byte, 1048576 four-byte.
   const size_t utf8Size = 128 + 1920 * 2 + 61440 * 3 + 1048576 * 4;
   const size_t utf16Size = 63488 + 1048576 * 2;

   auto u8 = Convert(ConvertUTF32toUTF8, all, utf8Size, strictConversion);
   ASSERT_EQ(u8.result, conversionOK);
   ASSERT_EQ(u8.out.size(), utf8Size);
   auto u16 = Convert(ConvertUTF32toUTF16, all, utf16Size, strictConversion);
   ASSERT_EQ(u16.result, conversionOK);
   ASSERT_EQ(u16.out.size(), utf16Size);

   auto back32From8 = Convert(ConvertUTF8toUTF32, u8.out, all.size(), strictConversion);
   EXPECT_EQ(back32From8.result, conversionOK);
   EXPECT_TRUE(back32From8.out == all);
   auto back32From16 = Convert(ConvertUTF16toUTF32, u16.out, all.size(), strictConversion);
   EXPECT_EQ(back32From16.result, conversionOK);
   EXPECT_TRUE(back32From16.out == all);
   auto u16From8 = Convert(ConvertUTF8toUTF16, u8.out, utf16Size, strictConversion);
   EXPECT_EQ(u16From8.result, conversionOK);
   EXPECT_TRUE(u16From8.out == u16.out);
   auto u8From16 = Convert(ConvertUTF16toUTF8, u16.out, utf8Size, strictConversion);
   EXPECT_EQ(u8From16.result, conversionOK);
   EXPECT_TRUE(u8From16.out == u8.out);
}

TEST(EveryScalar, Utf8IsShortestFormAndSortsLikeTheScalars) {
   const U32 all = AllScalars();
   auto u8 = ConvertAll(ConvertUTF32toUTF8, all, strictConversion);
   ASSERT_EQ(u8.result, conversionOK);
   const UTF8 *p = u8.out.data();
   const UTF8 *end = p + u8.out.size();
   std::string previous;
   for (UTF32 c : all) {
      size_t n = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
      ASSERT_LE(n, static_cast<size_t>(end - p));
      UTF32 v = 0;
      ASSERT_TRUE(BitPatternDecode(p, n, &v)) << std::hex << c;
      ASSERT_EQ(v, c);
      ASSERT_TRUE(isLegalUTF8Sequence(p, p + n)) << std::hex << c;
      std::string current(reinterpret_cast<const char *>(p), n);
      ASSERT_LT(previous, current) << std::hex << c;
      previous = current;
      p += n;
   }
   EXPECT_EQ(p, end);
}

TEST(EveryScalar, Utf16UsesPairsExactlyAboveTheBmp) {
   for (UTF32 c : {0xFFFFu, 0x10000u, 0x1F600u, 0x10FFFFu, 0xD7FFu, 0xE000u}) {
      auto u16 = ConvertAll(ConvertUTF32toUTF16, U32{c}, strictConversion);
      ASSERT_EQ(u16.result, conversionOK);
      if (c < 0x10000) {
         EXPECT_EQ(u16.out, U16{static_cast<UTF16>(c)});
      } else {
         ASSERT_EQ(u16.out.size(), 2u);
         EXPECT_EQ(u16.out[0], static_cast<UTF16>(0xD800 + ((c - 0x10000) >> 10)));
         EXPECT_EQ(u16.out[1], static_cast<UTF16>(0xDC00 + ((c - 0x10000) & 0x3FF)));
      }
   }
}

// ---------------------------------------------------------------------------

struct Known {
   UTF32 scalar;
   U8 utf8;
   U16 utf16;
};

const std::vector<Known> &KnownEncodings() {
   static const std::vector<Known> known = {
      {0x0000, {0x00}, {0x0000}},
      {0x0041, {0x41}, {0x0041}},
      {0x007F, {0x7F}, {0x007F}},
      {0x0080, {0xC2, 0x80}, {0x0080}},
      {0x00E9, {0xC3, 0xA9}, {0x00E9}},
      {0x07FF, {0xDF, 0xBF}, {0x07FF}},
      {0x0800, {0xE0, 0xA0, 0x80}, {0x0800}},
      {0x20AC, {0xE2, 0x82, 0xAC}, {0x20AC}},
      {0xD7FF, {0xED, 0x9F, 0xBF}, {0xD7FF}},
      {0xE000, {0xEE, 0x80, 0x80}, {0xE000}},
      {0xFFFD, {0xEF, 0xBF, 0xBD}, {0xFFFD}},
      {0xFFFF, {0xEF, 0xBF, 0xBF}, {0xFFFF}},
      {0x10000, {0xF0, 0x90, 0x80, 0x80}, {0xD800, 0xDC00}},
      {0x1F600, {0xF0, 0x9F, 0x98, 0x80}, {0xD83D, 0xDE00}},
      {0x10FFFF, {0xF4, 0x8F, 0xBF, 0xBF}, {0xDBFF, 0xDFFF}},
   };
   return known;
}

TEST(KnownEncoding, BoundaryValuesInEveryDirection) {
   for (const auto &k : KnownEncodings()) {
      SCOPED_TRACE(testing::Message() << std::hex << "U+" << k.scalar);
      for (auto flags : {strictConversion, lenientConversion}) {
         EXPECT_EQ(ConvertAll(ConvertUTF32toUTF8, U32{k.scalar}, flags).out, k.utf8);
         EXPECT_EQ(ConvertAll(ConvertUTF32toUTF16, U32{k.scalar}, flags).out, k.utf16);
         EXPECT_EQ(ConvertAll(ConvertUTF8toUTF32, k.utf8, flags).out, U32{k.scalar});
         EXPECT_EQ(ConvertAll(ConvertUTF16toUTF32, k.utf16, flags).out, U32{k.scalar});
         EXPECT_EQ(ConvertAll(ConvertUTF8toUTF16, k.utf8, flags).out, k.utf16);
         EXPECT_EQ(ConvertAll(ConvertUTF16toUTF8, k.utf16, flags).out, k.utf8);
      }
      EXPECT_TRUE(isLegalUTF8Sequence(k.utf8.data(), k.utf8.data() + k.utf8.size()));
   }
}

TEST(KnownEncoding, EmptySourceIsOkAndMovesNothing) {
   const UTF8 *s8 = nullptr;
   UTF32 *t32 = nullptr;
   EXPECT_EQ(ConvertUTF8toUTF32(&s8, nullptr, &t32, nullptr, strictConversion),
             conversionOK);
   EXPECT_EQ(s8, nullptr);
   EXPECT_EQ(t32, nullptr);
   UTF32 one[1];
   const UTF32 *s32 = one;
   UTF8 *t8 = nullptr;
   EXPECT_EQ(ConvertUTF32toUTF8(&s32, one, &t8, nullptr, lenientConversion),
             conversionOK);
   EXPECT_EQ(s32, one);
}

// ---------------------------------------------------------------------------
// A target too small for the next character: stop before it, write nothing
// of it. Checked at every capacity from 0 to the full size.

template <typename S, typename T>
void CheckEverySplit(Converter<S, T> convert, const std::vector<std::vector<S>> &srcChars,
                     const std::vector<std::vector<T>> &outChars, ConversionFlags flags) {
   std::vector<S> src;
   std::vector<T> whole;
   for (size_t i = 0; i < srcChars.size(); i++) {
      src.insert(src.end(), srcChars[i].begin(), srcChars[i].end());
      whole.insert(whole.end(), outChars[i].begin(), outChars[i].end());
   }
   for (size_t capacity = 0; capacity <= whole.size() + 1; capacity++) {
      SCOPED_TRACE(testing::Message() << "capacity " << capacity);
      // The whole characters that fit.
      size_t fitChars = 0, fitUnits = 0, fitSource = 0;
      while (fitChars < outChars.size() &&
             fitUnits + outChars[fitChars].size() <= capacity) {
         fitUnits += outChars[fitChars].size();
         fitSource += srcChars[fitChars].size();
         fitChars++;
      }
      auto o = Convert(convert, src, capacity, flags);
      EXPECT_EQ(o.result, fitChars == outChars.size() ? conversionOK : targetExhausted);
      EXPECT_EQ(o.consumed, fitSource);
      EXPECT_TRUE(o.out == std::vector<T>(whole.begin(), whole.begin() + fitUnits));
   }
}

struct SplitCase {
   std::vector<U32> u32;
   std::vector<U16> u16;
   std::vector<U8> u8;
};

SplitCase ValidMix() {
   SplitCase c;
   for (UTF32 v : {0x41u, 0x1F600u, 0xE9u, 0x20ACu, 0x10FFFFu, 0x7Fu, 0x800u, 0x10000u}) {
      for (const auto &k : KnownEncodings()) {
         if (k.scalar == v) {
            c.u32.push_back({v});
            c.u16.push_back(k.utf16);
            c.u8.push_back(k.utf8);
         }
      }
   }
   return c;
}

TEST(TargetExhausted, EverySplitPointOfEveryConverter) {
   const SplitCase c = ValidMix();
   ASSERT_EQ(c.u32.size(), 8u);
   for (auto flags : {strictConversion, lenientConversion}) {
      CheckEverySplit(ConvertUTF32toUTF8, c.u32, c.u8, flags);
      CheckEverySplit(ConvertUTF32toUTF16, c.u32, c.u16, flags);
      CheckEverySplit(ConvertUTF16toUTF8, c.u16, c.u8, flags);
      CheckEverySplit(ConvertUTF16toUTF32, c.u16, c.u32, flags);
      CheckEverySplit(ConvertUTF8toUTF16, c.u8, c.u16, flags);
      CheckEverySplit(ConvertUTF8toUTF32, c.u8, c.u32, flags);
   }
}

// Lenient UTF-32 to UTF-8 cuts at a whole character even where a
// replacement (three bytes) stands for a single bad value.
TEST(TargetExhausted, LenientReplacementIsAlsoWholeOrNothing) {
   const U8 fffd = {0xEF, 0xBF, 0xBD};
   std::vector<U32> src = {{0x41}, {0x110000}, {0xE9}, {0xD800}, {0xFFFFFFFF}, {0x1F600}};
   std::vector<U8> out = {{0x41}, fffd, {0xC3, 0xA9}, fffd, fffd, {0xF0, 0x9F, 0x98, 0x80}};
   CheckEverySplit(ConvertUTF32toUTF8, src, out, lenientConversion);
   std::vector<U16> src16 = {{0x41}, {0xDC00}, {0xD800, 0xDC00}, {0xDBFF}, {0x42}};
   std::vector<U8> out16 = {{0x41}, fffd, {0xF0, 0x90, 0x80, 0x80}, fffd, {0x42}};
   CheckEverySplit(ConvertUTF16toUTF8, src16, out16, lenientConversion);
   std::vector<U8> src8 = {{0x41}, {0xC0}, {0x80}, {0xE2, 0x82}, {0x42}};
   std::vector<U16> out8 = {{0x41}, {0xFFFD}, {0xFFFD}, {0xFFFD}, {0x42}};
   CheckEverySplit(ConvertUTF8toUTF16, src8, out8, lenientConversion);
}

// ---------------------------------------------------------------------------

TEST(SourceExhausted, HighSurrogateAtTheEnd) {
   for (auto flags : {strictConversion, lenientConversion}) {
      for (UTF16 high : {0xD800, 0xDBFF}) {
         U16 src = {0x41, 0xD83D, 0xDE00, high};
         auto to8 = ConvertAll(ConvertUTF16toUTF8, src, flags);
         EXPECT_EQ(to8.result, sourceExhausted);
         EXPECT_EQ(to8.consumed, 3u);
         EXPECT_EQ(to8.out, (U8{0x41, 0xF0, 0x9F, 0x98, 0x80}));
         auto to32 = ConvertAll(ConvertUTF16toUTF32, src, flags);
         EXPECT_EQ(to32.result, sourceExhausted);
         EXPECT_EQ(to32.consumed, 3u);
         EXPECT_EQ(to32.out, (U32{0x41, 0x1F600}));
      }
   }
}

TEST(SourceExhausted, EveryProperPrefixOfAUtf8SequenceAtTheEnd) {
   for (const auto &k : KnownEncodings()) {
      for (size_t cut = 1; cut < k.utf8.size(); cut++) {
         SCOPED_TRACE(testing::Message() << std::hex << "U+" << k.scalar << " cut " << cut);
         U8 src = {0x7A};
         src.insert(src.end(), k.utf8.begin(), k.utf8.begin() + cut);
         EXPECT_FALSE(isLegalUTF8Sequence(src.data() + 1, src.data() + src.size()));
         for (auto flags : {strictConversion, lenientConversion}) {
            auto to32 = ConvertAll(ConvertUTF8toUTF32, src, flags);
            EXPECT_EQ(to32.result, sourceExhausted);
            EXPECT_EQ(to32.consumed, 1u);
            EXPECT_EQ(to32.out, U32{0x7A});
            auto to16 = ConvertAll(ConvertUTF8toUTF16, src, flags);
            EXPECT_EQ(to16.result, sourceExhausted);
            EXPECT_EQ(to16.consumed, 1u);
            EXPECT_EQ(to16.out, U16{0x7A});
         }
      }
   }
}

// ---------------------------------------------------------------------------

struct IllFormed {
   const char *what;
   U8 bytes;
   U32 lenient;  // one U+FFFD per maximal ill-formed part
};

const std::vector<IllFormed> &IllFormedUtf8() {
   static const std::vector<IllFormed> cases = {
      {"lone continuation", {0x80}, {kFFFD}},
      {"last continuation", {0xBF}, {kFFFD}},
      {"overlong 2-byte C0", {0xC0, 0x80}, {kFFFD, kFFFD}},
      {"overlong 2-byte C1", {0xC1, 0xBF}, {kFFFD, kFFFD}},
      {"overlong 3-byte", {0xE0, 0x9F, 0xBF}, {kFFFD, kFFFD, kFFFD}},
      {"overlong 3-byte NUL", {0xE0, 0x80, 0x80}, {kFFFD, kFFFD, kFFFD}},
      {"overlong 4-byte", {0xF0, 0x8F, 0xBF, 0xBF}, {kFFFD, kFFFD, kFFFD, kFFFD}},
      {"high surrogate", {0xED, 0xA0, 0x80}, {kFFFD, kFFFD, kFFFD}},
      {"low surrogate", {0xED, 0xBF, 0xBF}, {kFFFD, kFFFD, kFFFD}},
      {"above U+10FFFF", {0xF4, 0x90, 0x80, 0x80}, {kFFFD, kFFFD, kFFFD, kFFFD}},
      {"lead F5", {0xF5, 0x80, 0x80, 0x80}, {kFFFD, kFFFD, kFFFD, kFFFD}},
      {"old 5-byte form", {0xF8, 0x88, 0x80, 0x80, 0x80}, {kFFFD, kFFFD, kFFFD, kFFFD, kFFFD}},
      {"byte FE", {0xFE}, {kFFFD}},
      {"byte FF", {0xFF}, {kFFFD}},
      {"2-byte cut by ASCII", {0xC3, 0x28}, {kFFFD, 0x28}},
      {"3-byte cut by ASCII", {0xE2, 0x82, 0x41}, {kFFFD, 0x41}},
      {"4-byte cut by ASCII", {0xF0, 0x9F, 0x98, 0x41}, {kFFFD, 0x41}},
      {"3-byte cut by a lead", {0xE2, 0xC3, 0xA9}, {kFFFD, 0xE9}},
      {"lead then lead", {0xC3, 0xC3}, {kFFFD, kFFFD}},
      {"extra continuation", {0xC3, 0xA9, 0xA9}, {0xE9, kFFFD}},
   };
   return cases;
}

TEST(IllFormedUtf8, StrictStopsAtTheSequenceLenientReplacesMaximalParts) {
   for (const auto &c : IllFormedUtf8()) {
      SCOPED_TRACE(c.what);
      U8 src = {0x61};
      src.insert(src.end(), c.bytes.begin(), c.bytes.end());
      src.push_back(0x7A);
      // Where strict mode stops: the first byte that is not part of a
      // well-formed character.
      size_t good = 1;
      for (UTF32 v : c.lenient) {
         if (v == kFFFD) {
            break;
         }
         good += ConvertAll(ConvertUTF32toUTF8, U32{v}, strictConversion).out.size();
      }

      auto strict = ConvertAll(ConvertUTF8toUTF32, src, strictConversion);
      EXPECT_EQ(strict.result, sourceIllegal);
      EXPECT_EQ(strict.consumed, good);
      EXPECT_EQ(strict.out.size(), good == 1 ? 1u : 2u);
      EXPECT_EQ(strict.out[0], 0x61u);
      auto strict16 = ConvertAll(ConvertUTF8toUTF16, src, strictConversion);
      EXPECT_EQ(strict16.result, sourceIllegal);
      EXPECT_EQ(strict16.consumed, good);

      U32 expected = {0x61};
      expected.insert(expected.end(), c.lenient.begin(), c.lenient.end());
      expected.push_back(0x7A);
      auto lenient = ConvertAll(ConvertUTF8toUTF32, src, lenientConversion);
      EXPECT_EQ(lenient.result, conversionOK);
      EXPECT_EQ(lenient.consumed, src.size());
      EXPECT_EQ(lenient.out, expected);
      auto lenient16 = ConvertAll(ConvertUTF8toUTF16, src, lenientConversion);
      EXPECT_EQ(lenient16.result, conversionOK);
      EXPECT_EQ(lenient16.out, U16(expected.begin(), expected.end()));

      // The first character decides: legal exactly when it is not replaced.
      EXPECT_EQ(isLegalUTF8Sequence(c.bytes.data(), c.bytes.data() + c.bytes.size()),
                c.lenient[0] != kFFFD);
   }
}

// Bytes that can no longer become well-formed are ill-formed even when the
// source ends right after them: more input would not help.
TEST(IllFormedUtf8, DeadPrefixAtTheEndIsIllegalNotExhausted) {
   for (const U8 &tail : {U8{0xE0, 0x80}, U8{0xED, 0xA0}, U8{0xF4, 0x90}, U8{0xF0, 0x80},
                          U8{0xC0}, U8{0xF5}}) {
      U8 src = {0x61};
      src.insert(src.end(), tail.begin(), tail.end());
      auto strict = ConvertAll(ConvertUTF8toUTF32, src, strictConversion);
      EXPECT_EQ(strict.result, sourceIllegal);
      EXPECT_EQ(strict.consumed, 1u);
      auto lenient = ConvertAll(ConvertUTF8toUTF32, src, lenientConversion);
      EXPECT_EQ(lenient.result, conversionOK);
      EXPECT_EQ(lenient.out.size(), 1 + tail.size());
   }
}

/*
 * Every 1-, 2- and 3-byte string, and every 4-byte string whose last two
 * bytes come from a set straddling the continuation range: the converter
 * and isLegalUTF8Sequence accept exactly what the bit-pattern definition
 * accepts, and decode it to the same value.
 */
TEST(IllFormedUtf8, AgreesWithTheBitPatternDefinitionOnEveryShortString) {
   size_t legal[5] = {};
   auto check = [&](const UTF8 *b, size_t n) {
      UTF32 expected = 0;
      bool ok = BitPatternDecode(b, n, &expected);
      // UTF-8 is prefix-free: at most one prefix is a whole character.
      bool firstIsLegal = false;
      for (size_t k = 1; k <= n && !firstIsLegal; k++) {
         UTF32 ignored;
         firstIsLegal = BitPatternDecode(b, k, &ignored);
      }
      if (isLegalUTF8Sequence(b, b + n) != firstIsLegal) {
         ADD_FAILURE() << "isLegalUTF8Sequence disagrees, length " << n << " first bytes "
                       << std::hex << int(b[0]) << " " << int(b[n > 1 ? 1 : 0]);
         return false;
      }
      const UTF8 *s = b;
      UTF32 out[4];
      UTF32 *t = out;
      ConversionResult r = ConvertUTF8toUTF32(&s, b + n, &t, out + 4, strictConversion);
      if (ok && (r != conversionOK || t - out != 1 || out[0] != expected)) {
         ADD_FAILURE() << "well-formed input not decoded, " << std::hex << expected;
         return false;
      }
      if (!ok && r == conversionOK && t - out == 1) {
         ADD_FAILURE() << "ill-formed input decoded as one character " << std::hex << out[0];
         return false;
      }
      legal[n] += ok;
      return true;
   };
   UTF8 b[4];
   for (unsigned b0 = 0; b0 < 256; b0++) {
      b[0] = static_cast<UTF8>(b0);
      ASSERT_TRUE(check(b, 1));
      for (unsigned b1 = 0; b1 < 256; b1++) {
         b[1] = static_cast<UTF8>(b1);
         ASSERT_TRUE(check(b, 2));
         for (unsigned b2 = 0; b2 < 256; b2++) {
            b[2] = static_cast<UTF8>(b2);
            ASSERT_TRUE(check(b, 3));
         }
         static const UTF8 kEdges[] = {0x00, 0x7F, 0x80, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
         for (UTF8 b2 : kEdges) {
            for (UTF8 b3 : kEdges) {
               b[2] = b2;
               b[3] = b3;
               ASSERT_TRUE(check(b, 4));
            }
         }
      }
   }
   EXPECT_EQ(legal[1], 128u);
   EXPECT_EQ(legal[2], 1920u);
   EXPECT_EQ(legal[3], 61440u);
}

TEST(IsLegalUtf8Sequence, JudgesOnlyTheFirstSequence) {
   const UTF8 text[] = {0x41, 0x42, 0xC3, 0xA9, 0xE2, 0x82, 0xAC};
   EXPECT_FALSE(isLegalUTF8Sequence(text, text));           // empty
   EXPECT_TRUE(isLegalUTF8Sequence(text, text + 1));        // "A"
   EXPECT_TRUE(isLegalUTF8Sequence(text, text + 2));        // "A", then "B"
   EXPECT_TRUE(isLegalUTF8Sequence(text + 2, text + 4));    // é
   EXPECT_FALSE(isLegalUTF8Sequence(text + 2, text + 3));   // é cut
   EXPECT_TRUE(isLegalUTF8Sequence(text + 2, text + 5));    // é, then a cut lead
   EXPECT_FALSE(isLegalUTF8Sequence(text + 3, text + 4));   // continuation only
   EXPECT_TRUE(isLegalUTF8Sequence(text + 4, text + 7));    // €
   EXPECT_FALSE(isLegalUTF8Sequence(text + 4, text + 6));   // € cut
}

// ---------------------------------------------------------------------------

TEST(IllegalCodePoints, Utf32SurrogatesAndOutOfRange) {
   for (UTF32 bad : {0xD800u, 0xDBFFu, 0xDC00u, 0xDFFFu, 0x110000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
      SCOPED_TRACE(testing::Message() << std::hex << bad);
      U32 src = {0x41, bad, 0x42};
      auto s8 = ConvertAll(ConvertUTF32toUTF8, src, strictConversion);
      EXPECT_EQ(s8.result, sourceIllegal);
      EXPECT_EQ(s8.consumed, 1u);
      EXPECT_EQ(s8.out, U8{0x41});
      auto s16 = ConvertAll(ConvertUTF32toUTF16, src, strictConversion);
      EXPECT_EQ(s16.result, sourceIllegal);
      EXPECT_EQ(s16.consumed, 1u);
      EXPECT_EQ(s16.out, U16{0x41});

      auto l8 = ConvertAll(ConvertUTF32toUTF8, src, lenientConversion);
      EXPECT_EQ(l8.result, conversionOK);
      EXPECT_EQ(l8.out, (U8{0x41, 0xEF, 0xBF, 0xBD, 0x42}));
      auto l16 = ConvertAll(ConvertUTF32toUTF16, src, lenientConversion);
      EXPECT_EQ(l16.result, conversionOK);
      EXPECT_EQ(l16.out, (U16{0x41, 0xFFFD, 0x42}));
   }
}

// Surrogate values in UTF-32 never combine into a pair on the way out.
TEST(IllegalCodePoints, Utf32SurrogatePairIsNotACharacter) {
   auto l16 = ConvertAll(ConvertUTF32toUTF16, U32{0xD83D, 0xDE00}, lenientConversion);
   EXPECT_EQ(l16.result, conversionOK);
   EXPECT_EQ(l16.out, (U16{0xFFFD, 0xFFFD}));
}

struct Utf16Case {
   const char *what;
   U16 src;
   size_t strictConsumed;  // where strict mode stops with sourceIllegal
   U32 lenient;
   ConversionResult lenientResult;
};

TEST(IllegalCodePoints, UnpairedUtf16Surrogates) {
   const std::vector<Utf16Case> cases = {
      {"lone low", {0x41, 0xDC00, 0x42}, 1, {0x41, kFFFD, 0x42}, conversionOK},
      {"high then ASCII", {0x41, 0xD800, 0x42}, 1, {0x41, kFFFD, 0x42}, conversionOK},
      {"high then high then low", {0xD800, 0xD83D, 0xDE00}, 0, {kFFFD, 0x1F600}, conversionOK},
      {"reversed pair", {0xDE00, 0xD83D, 0x42}, 0, {kFFFD, kFFFD, 0x42}, conversionOK},
      {"low then high at the end", {0x41, 0xDC00, 0xD800}, 1, {0x41, kFFFD}, sourceExhausted},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.what);
      auto s32 = ConvertAll(ConvertUTF16toUTF32, c.src, strictConversion);
      EXPECT_EQ(s32.result, sourceIllegal);
      EXPECT_EQ(s32.consumed, c.strictConsumed);
      auto s8 = ConvertAll(ConvertUTF16toUTF8, c.src, strictConversion);
      EXPECT_EQ(s8.result, sourceIllegal);
      EXPECT_EQ(s8.consumed, c.strictConsumed);

      auto l32 = ConvertAll(ConvertUTF16toUTF32, c.src, lenientConversion);
      EXPECT_EQ(l32.result, c.lenientResult);
      EXPECT_EQ(l32.out, c.lenient);
      auto l8 = ConvertAll(ConvertUTF16toUTF8, c.src, lenientConversion);
      EXPECT_EQ(l8.result, c.lenientResult);
      EXPECT_EQ(l8.consumed, l32.consumed);
      EXPECT_EQ(l8.out, ConvertAll(ConvertUTF32toUTF8, c.lenient, strictConversion).out);
   }
}

}  // namespace
