// UTF converters: round trips, cuts at whole characters, and strict versus
// lenient handling of ill-formed input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "convertutf.h"

namespace {

using U8 = std::vector<UTF8>;
using U16 = std::vector<UTF16>;
using U32 = std::vector<UTF32>;
constexpr UTF32 R = 0xFFFD;

template <typename S, typename T>
using Converter = ConversionResult (*)(const S **, const S *, T **, T *, ConversionFlags);

template <typename T>
struct Outcome {
   ConversionResult result;
   size_t consumed;  // source units
   std::vector<T> out;
   bool operator==(const Outcome &) const = default;
};
using O8 = Outcome<UTF8>;
using O16 = Outcome<UTF16>;
using O32 = Outcome<UTF32>;
constexpr ConversionFlags kStrict = strictConversion, kLenient = lenientConversion;

// Converts into a target of exactly `capacity` units, so that the sanitizers
// see writes past it, and checks that nothing after the output was written.
template <typename S, typename T>
Outcome<T> Convert(Converter<S, T> convert, const std::vector<S> &src, ConversionFlags flags,
                   size_t capacity = SIZE_MAX) {
   std::vector<T> target(capacity == SIZE_MAX ? 4 * src.size() + 4 : capacity, T(0xA5A5A5A5u));
   const S *s = src.data();
   T *t = target.data();
   ConversionResult r =
      convert(&s, src.data() + src.size(), &t, target.data() + target.size(), flags);
   auto produced = static_cast<size_t>(t - target.data());
   EXPECT_LE(produced, target.size());
   EXPECT_TRUE(std::all_of(target.begin() + produced, target.end(),
                           [](T u) { return u == T(0xA5A5A5A5u); }));
   target.resize(produced);
   return {r, static_cast<size_t>(s - src.data()), target};
}

TEST(RoundTrip, EveryScalarThroughAllSixConverters) {
   U32 all;
   for (UTF32 c = 0; c <= 0x10FFFF; c++) {
      if (c < 0xD800 || c > 0xDFFF) {
         all.push_back(c);
      }
   }
   // Shortest forms only: 128 one-byte, 1920 two-byte, 61440 three-byte.
   const size_t n8 = 128 + 1920 * 2 + 61440 * 3 + 1048576 * 4, n16 = 63488 + 1048576 * 2;
   auto u8 = Convert(ConvertUTF32toUTF8, all, kStrict, n8);
   auto u16 = Convert(ConvertUTF32toUTF16, all, kStrict, n16);
   ASSERT_TRUE(u8.result == conversionOK && u8.out.size() == n8);
   ASSERT_TRUE(u16.result == conversionOK && u16.out.size() == n16);
   auto ok = [](const auto &o, const auto &want) {
      return o.result == conversionOK && o.out == want;
   };
   EXPECT_TRUE(ok(Convert(ConvertUTF8toUTF32, u8.out, kStrict, all.size()), all));
   EXPECT_TRUE(ok(Convert(ConvertUTF16toUTF32, u16.out, kStrict, all.size()), all));
   EXPECT_TRUE(ok(Convert(ConvertUTF8toUTF16, u8.out, kStrict, n16), u16.out));
   EXPECT_TRUE(ok(Convert(ConvertUTF16toUTF8, u16.out, kStrict, n8), u8.out));
}

struct Known { UTF32 c; U8 u8; U16 u16; };
const std::vector<Known> kKnown = {
   {0x41, {0x41}, {0x41}}, {0x7F, {0x7F}, {0x7F}}, {0x80, {0xC2, 0x80}, {0x80}},
   {0x7FF, {0xDF, 0xBF}, {0x7FF}}, {0x800, {0xE0, 0xA0, 0x80}, {0x800}},
   {0xD7FF, {0xED, 0x9F, 0xBF}, {0xD7FF}}, {0xE000, {0xEE, 0x80, 0x80}, {0xE000}},
   {0xFFFF, {0xEF, 0xBF, 0xBF}, {0xFFFF}}, {0x10000, {0xF0, 0x90, 0x80, 0x80}, {0xD800, 0xDC00}},
   {0x1F600, {0xF0, 0x9F, 0x98, 0x80}, {0xD83D, 0xDE00}},
   {0x10FFFF, {0xF4, 0x8F, 0xBF, 0xBF}, {0xDBFF, 0xDFFF}},
};

// Splits the concatenation of srcChars into a target of every capacity: the
// output stops after the last whole character that fits, and so does the
// source pointer.
template <typename S, typename T>
void CheckEveryCapacity(Converter<S, T> convert, const std::vector<std::vector<S>> &srcChars,
                        const std::vector<std::vector<T>> &outChars, ConversionFlags flags) {
   std::vector<S> src;
   std::vector<T> whole;
   for (size_t i = 0; i < srcChars.size(); i++) {
      src.insert(src.end(), srcChars[i].begin(), srcChars[i].end());
      whole.insert(whole.end(), outChars[i].begin(), outChars[i].end());
   }
   for (size_t capacity = 0; capacity <= whole.size(); capacity++) {
      size_t chars = 0, units = 0, consumed = 0;
      for (; chars < outChars.size() && units + outChars[chars].size() <= capacity; chars++) {
         units += outChars[chars].size();
         consumed += srcChars[chars].size();
      }
      auto o = Convert(convert, src, flags, capacity);
      EXPECT_EQ(o.result, chars == outChars.size() ? conversionOK : targetExhausted) << capacity;
      EXPECT_EQ(o.consumed, consumed) << capacity;
      EXPECT_TRUE(o.out == std::vector<T>(whole.begin(), whole.begin() + units)) << capacity;
   }
}

TEST(TargetExhausted, StopsBeforeTheFirstCharacterThatDoesNotFit) {
   std::vector<U32> u32;
   std::vector<U16> u16;
   std::vector<U8> u8;
   for (const auto &k : kKnown) {
      u32.push_back({k.c}), u16.push_back(k.u16), u8.push_back(k.u8);
   }
   for (auto flags : {kStrict, kLenient}) {
      CheckEveryCapacity(ConvertUTF32toUTF8, u32, u8, flags);
      CheckEveryCapacity(ConvertUTF32toUTF16, u32, u16, flags);
      CheckEveryCapacity(ConvertUTF16toUTF8, u16, u8, flags);
      CheckEveryCapacity(ConvertUTF16toUTF32, u16, u32, flags);
      CheckEveryCapacity(ConvertUTF8toUTF16, u8, u16, flags);
      CheckEveryCapacity(ConvertUTF8toUTF32, u8, u32, flags);
   }
   // A replacement character is whole or absent too.
   const U8 fffd = {0xEF, 0xBF, 0xBD};
   CheckEveryCapacity(ConvertUTF32toUTF8, {{0x41}, {0x110000}, {0xD800}, {0xE9}},
                      {{0x41}, fffd, fffd, {0xC3, 0xA9}}, kLenient);
}

TEST(SourceExhausted, CharacterCutByTheEndOfTheSource) {
   for (auto flags : {kStrict, kLenient}) {
      for (const auto &k : kKnown) {
         for (size_t cut = 1; cut < k.u8.size(); cut++) {
            U8 src = {0x7A};
            src.insert(src.end(), k.u8.begin(), k.u8.begin() + cut);
            EXPECT_EQ(Convert(ConvertUTF8toUTF32, src, flags), (O32{sourceExhausted, 1, {0x7A}}));
            EXPECT_FALSE(isLegalUTF8Sequence(src.data() + 1, src.data() + src.size()));
         }
      }
      const U16 src = {0x41, 0xD83D, 0xDE00, 0xDBFF};
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, src, flags),
                (O32{sourceExhausted, 3, {0x41, 0x1F600}}));
   }
}

TEST(IllFormed, Utf32SurrogatesAndValuesAboveTheLastScalar) {
   for (UTF32 bad : {0xD800u, 0xDFFFu, 0x110000u, 0xFFFFFFFFu}) {
      const U32 src = {0x41, bad, 0x42};
      EXPECT_EQ(Convert(ConvertUTF32toUTF8, src, kStrict), (O8{sourceIllegal, 1, {0x41}}));
      EXPECT_EQ(Convert(ConvertUTF32toUTF8, src, kLenient),
                (O8{conversionOK, 3, {0x41, 0xEF, 0xBF, 0xBD, 0x42}}));
   }
   // Surrogate values never pair up on the way out.
   EXPECT_EQ(Convert(ConvertUTF32toUTF16, U32{0xD83D, 0xDE00}, kLenient).out, (U16{R, R}));
}

TEST(IllFormed, UnpairedUtf16Surrogates) {
   struct Case { U16 src; size_t strictStop; U32 lenient; };
   for (const Case &c : std::vector<Case>{{{0x41, 0xDC00, 0x42}, 1, {0x41, R, 0x42}},
                                          {{0x41, 0xD800, 0x42}, 1, {0x41, R, 0x42}},
                                          {{0xD800, 0xD83D, 0xDE00}, 0, {R, 0x1F600}},
                                          {{0xDE00, 0xD83D, 0x42}, 0, {R, R, 0x42}}}) {
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, c.src, kStrict),
                (O32{sourceIllegal, c.strictStop, U32(&c.src[0], &c.src[c.strictStop])}));
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, c.src, kLenient), (O32{conversionOK, 3, c.lenient}));
   }
}

// Each case follows "a", once with "z" after it and once at the very end of
// the source: bytes that cannot become well-formed are ill-formed at the end
// too. Lenient mode writes one U+FFFD per maximal ill-formed part.
TEST(IllFormed, Utf8ClassesStrictStopsLenientReplaces) {
   struct Case { U8 bytes; size_t legalBytes; U32 lenient; };
   // Lone continuation, overlong (2, 3, 4 bytes), surrogate, above U+10FFFF,
   // leads F5, F8 and FF, sequences cut by ASCII, by C0 and by a lead, and an
   // extra continuation.
   for (const Case &c : std::vector<Case>{
           {{0x80}, 0, {R}}, {{0xC1, 0xBF}, 0, {R, R}}, {{0xE0, 0x9F}, 0, {R, R}},
           {{0xF0, 0x8F, 0xBF, 0xBF}, 0, {R, R, R, R}}, {{0xED, 0xA0, 0x80}, 0, {R, R, R}},
           {{0xF4, 0x90, 0x80}, 0, {R, R, R}}, {{0xF5, 0x80}, 0, {R, R}},
           {{0xF8, 0x88, 0x80, 0x80, 0x80}, 0, {R, R, R, R, R}}, {{0xFF}, 0, {R}},
           {{0xE2, 0x82, 0x41}, 0, {R, 0x41}}, {{0xF0, 0x9F, 0x98, 0xC0}, 0, {R, R}},
           {{0xE2, 0xC3, 0xA9}, 0, {R, 0xE9}}, {{0xC3, 0xA9, 0xA9}, 2, {0xE9, R}}}) {
      // isLegalUTF8Sequence judges the first sequence only.
      EXPECT_EQ(isLegalUTF8Sequence(&c.bytes[0], &c.bytes[0] + c.bytes.size()), c.legalBytes > 0);
      EXPECT_FALSE(isLegalUTF8Sequence(&c.bytes[0], &c.bytes[0]));
      for (bool atEnd : {false, true}) {
         U8 src = {0x61};
         src.insert(src.end(), c.bytes.begin(), c.bytes.end());
         U32 want = {0x61};
         want.insert(want.end(), c.lenient.begin(), c.lenient.end());
         if (!atEnd) {
            src.push_back(0x7A), want.push_back(0x7A);
         }
         SCOPED_TRACE(testing::Message() << std::hex << int(c.bytes[0]) << " at end " << atEnd);
         EXPECT_TRUE(isLegalUTF8Sequence(&src[0], &src[0] + src.size()));  // "a", then anything
         auto s32 = Convert(ConvertUTF8toUTF32, src, kStrict);
         EXPECT_TRUE(s32.result == sourceIllegal && s32.consumed == 1 + c.legalBytes);
         EXPECT_EQ(Convert(ConvertUTF8toUTF32, src, kLenient),
                   (O32{conversionOK, src.size(), want}));
      }
   }
}

}  // namespace
