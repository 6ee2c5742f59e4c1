// SPDX-License-Identifier: MIT
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
   for (UTF32 c = 0; c <= 0x10FFFF; c++) if (c < 0xD800 || c > 0xDFFF) all.push_back(c);
   // Shortest forms only: 128 one-byte, 1920 two-byte, 61440 three-byte.
   const size_t n8 = 128 + 1920 * 2 + 61440 * 3 + 1048576 * 4, n16 = 63488 + 1048576 * 2;
   auto u8 = Convert(ConvertUTF32toUTF8, all, kStrict, n8);
   auto u16 = Convert(ConvertUTF32toUTF16, all, kStrict, n16);
   ASSERT_TRUE(u8.result == conversionOK && u8.out.size() == n8);
   ASSERT_TRUE(u16.result == conversionOK && u16.out.size() == n16);
   auto ok = [](const auto &o, const auto &want) { return o.result == conversionOK && o.out == want; };
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
   for (const auto &k : kKnown) u32.push_back({k.c}), u16.push_back(k.u16), u8.push_back(k.u8);
   for (auto flags : {kStrict, kLenient}) {
      CheckEveryCapacity(ConvertUTF32toUTF8, u32, u8, flags);
      CheckEveryCapacity(ConvertUTF32toUTF16, u32, u16, flags);
      CheckEveryCapacity(ConvertUTF16toUTF8, u16, u8, flags);
      CheckEveryCapacity(ConvertUTF16toUTF32, u16, u32, flags);
      CheckEveryCapacity(ConvertUTF8toUTF16, u8, u16, flags);
      CheckEveryCapacity(ConvertUTF8toUTF32, u8, u32, flags);
   }
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
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, src, flags), (O32{sourceExhausted, 3, {0x41, 0x1F600}}));
      EXPECT_EQ(Convert(ConvertUTF16toUTF8, src, flags), (O8{sourceExhausted, 3, {0x41, 0xF0, 0x9F, 0x98, 0x80}}));
   }
}

// UTF-32 and UTF-16 input: what each direction does with surrogates and
// values above U+10FFFF, between "A" and "B".
TEST(IllFormed, WideInputByDirectionAndMode) {
   struct Case { UTF32 bad; O8 strict8, lenient8; O16 strict16, lenient16; };
   const U8 fffd = {0x41, 0xEF, 0xBF, 0xBD, 0x42};
   for (const Case &c : std::vector<Case>{
           {0xD800, {sourceIllegal, 1, {0x41}}, {conversionOK, 3, {0x41, 0xED, 0xA0, 0x80, 0x42}},
            {sourceIllegal, 1, {0x41}}, {conversionOK, 3, {0x41, R, 0x42}}},
           {0xDFFF, {sourceIllegal, 1, {0x41}}, {conversionOK, 3, {0x41, 0xED, 0xBF, 0xBF, 0x42}},
            {sourceIllegal, 1, {0x41}}, {conversionOK, 3, {0x41, R, 0x42}}},
           // Above U+10FFFF: replaced (to UTF-8 even in strict mode) or, in
           // strict UTF-16, dropped; either way the call goes on to the end.
           {0x110000, {sourceIllegal, 3, fffd}, {sourceIllegal, 3, fffd},
            {sourceIllegal, 3, {0x41, 0x42}}, {conversionOK, 3, {0x41, R, 0x42}}},
           {0xFFFFFFFF, {sourceIllegal, 3, fffd}, {sourceIllegal, 3, fffd},
            {sourceIllegal, 3, {0x41, 0x42}}, {conversionOK, 3, {0x41, R, 0x42}}}}) {
      const U32 src = {0x41, c.bad, 0x42};
      SCOPED_TRACE(testing::Message() << std::hex << c.bad);
      EXPECT_EQ(Convert(ConvertUTF32toUTF8, src, kStrict), c.strict8);
      EXPECT_EQ(Convert(ConvertUTF32toUTF8, src, kLenient), c.lenient8);
      EXPECT_EQ(Convert(ConvertUTF32toUTF16, src, kStrict), c.strict16);
      EXPECT_EQ(Convert(ConvertUTF32toUTF16, src, kLenient), c.lenient16);
   }
   // A value above U+10FFFF is reported, but a later character that does not
   // fit is what the call ends with.
   EXPECT_EQ(Convert(ConvertUTF32toUTF8, U32{0x110000, 0xE9}, kLenient, 4),
             (O8{targetExhausted, 1, {0xEF, 0xBF, 0xBD}}));

   // Strict mode stops at an unpaired UTF-16 surrogate; lenient mode passes
   // it through as its own value.
   struct Case16 { U16 src; size_t strictStop; U32 lenient; U8 lenient8; };
   for (const Case16 &c : std::vector<Case16>{
           {{0x41, 0xDC00, 0x42}, 1, {0x41, 0xDC00, 0x42}, {0x41, 0xED, 0xB0, 0x80, 0x42}},
           {{0x41, 0xD800, 0x42}, 1, {0x41, 0xD800, 0x42}, {0x41, 0xED, 0xA0, 0x80, 0x42}},
           {{0xD800, 0xD83D, 0xDE00}, 0, {0xD800, 0x1F600}, {0xED, 0xA0, 0x80, 0xF0, 0x9F, 0x98, 0x80}},
           {{0xDE00, 0xD83D, 0x42}, 0, {0xDE00, 0xD83D, 0x42}, {0xED, 0xB8, 0x80, 0xED, 0xA0, 0xBD, 0x42}}}) {
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, c.src, kStrict),
                (O32{sourceIllegal, c.strictStop, U32(&c.src[0], &c.src[c.strictStop])}));
      EXPECT_EQ(Convert(ConvertUTF16toUTF8, c.src, kStrict).consumed, c.strictStop);
      EXPECT_EQ(Convert(ConvertUTF16toUTF32, c.src, kLenient), (O32{conversionOK, 3, c.lenient}));
      EXPECT_EQ(Convert(ConvertUTF16toUTF8, c.src, kLenient).out, c.lenient8);
   }
}

// UTF-8 input is checked in both modes and never replaced. Whether a bad
// sequence is "cut by the end" (sourceExhausted) or ill-formed (sourceIllegal)
// depends only on the length its lead byte announces and the bytes left.
TEST(IllFormed, Utf8RefusedInBothModes) {
   struct Case { U8 src; ConversionResult result; size_t consumed; };
   for (const Case &c : std::vector<Case>{
           {{0x41, 0xC0, 0x80, 0x42}, sourceIllegal, 1},        // overlong
           {{0x41, 0x80, 0x42}, sourceIllegal, 1},              // lone continuation
           {{0x41, 0x80}, sourceIllegal, 1},                    // ... at the end too
           {{0x61, 0xE0, 0x9F, 0x80}, sourceIllegal, 1},        // overlong, 3 bytes
           {{0x61, 0xF0, 0x8F, 0xBF, 0xBF}, sourceIllegal, 1},  // overlong, 4 bytes
           {{0x61, 0xED, 0xA0, 0x80}, sourceIllegal, 1},        // surrogate
           {{0x61, 0xF4, 0x90, 0x80, 0x80}, sourceIllegal, 1},  // above U+10FFFF
           {{0x61, 0xF5, 0x80, 0x80, 0x80}, sourceIllegal, 1},  // lead above F4
           {{0x61, 0xF8, 0x88, 0x80, 0x80, 0x80}, sourceIllegal, 1},  // 5-byte form
           {{0x61, 0xE2, 0x82, 0x41}, sourceIllegal, 1},        // cut by ASCII
           {{0x61, 0xE2, 0xC3, 0xA9, 0x7A}, sourceIllegal, 1},  // cut by a lead
           {{0xC3, 0xA9, 0xA9, 0x7A}, sourceIllegal, 2},        // extra continuation
           {{0x41, 0xE2, 0x28}, sourceExhausted, 1},  // E2 announces 3 bytes, 2 are left
           {{0x61, 0xF5, 0x80, 0x7A}, sourceExhausted, 1},
           {{0x61, 0xFF, 0x7A}, sourceExhausted, 1},  // FF announces 6
       }) {
      SCOPED_TRACE(testing::Message() << std::hex << int(c.src[c.consumed]));
      auto prefix = Convert(ConvertUTF8toUTF32, U8(&c.src[0], &c.src[c.consumed]), kStrict);
      ASSERT_EQ(prefix.result, conversionOK);
      for (auto flags : {kStrict, kLenient}) {
         EXPECT_EQ(Convert(ConvertUTF8toUTF32, c.src, flags), (O32{c.result, c.consumed, prefix.out}));
         auto o16 = Convert(ConvertUTF8toUTF16, c.src, flags);
         EXPECT_TRUE(o16.result == c.result && o16.consumed == c.consumed);
      }
      EXPECT_FALSE(isLegalUTF8Sequence(&c.src[c.consumed], &c.src[0] + c.src.size()));
      EXPECT_TRUE(isLegalUTF8Sequence(&c.src[0], &c.src[0] + c.src.size()));
   }
   const UTF8 x = 0x41;
   EXPECT_FALSE(isLegalUTF8Sequence(&x, &x));
}

}  // namespace
