// SPDX-License-Identifier: MIT
// Fuzzes the UTF converters with the input read as UTF-8, UTF-16 and UTF-32:
// pointers stay in bounds, UTF-8 decoding stops where isLegalUTF8Sequence
// does and for the reason the lead byte gives, in both modes; valid input
// round-trips; lenient output extends strict output.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "convertutf.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

namespace {

template <typename S, typename T>
using Converter = ConversionResult (*)(const S **, const S *, T **, T *, ConversionFlags);

template <typename T>
struct Outcome { ConversionResult result; size_t consumed; std::vector<T> out; };

template <typename S, typename T>
Outcome<T> Run(Converter<S, T> convert, const std::vector<S> &src, size_t capacity,
               ConversionFlags flags) {
   std::vector<T> target(capacity);
   const S *s = src.data();
   T *t = target.data();
   ConversionResult r = convert(&s, src.data() + src.size(), &t, t + capacity, flags);
   CHECK(s >= src.data() && s <= src.data() + src.size());
   CHECK(t >= target.data() && t <= target.data() + capacity);
   target.resize(static_cast<size_t>(t - target.data()));
   return {r, static_cast<size_t>(s - src.data()), target};
}

template <typename T>
bool IsPrefix(const std::vector<T> &prefix, const std::vector<T> &of) {
   return prefix.size() <= of.size() && std::equal(prefix.begin(), prefix.end(), of.begin());
}

void FuzzUtf8(const std::vector<UTF8> &in) {
   size_t legal = 0, chars = 0;  // whole sequences at the start, by isLegalUTF8Sequence
   for (size_t k = 1; k <= 6 && legal + k <= in.size(); k++) {
      if (isLegalUTF8Sequence(&in[legal], &in[legal] + k)) {
         legal += k, chars++, k = 0;
      }
   }
   auto strict = Run(ConvertUTF8toUTF32, in, in.size(), strictConversion);
   CHECK(strict.consumed == legal && strict.out.size() == chars);
   if (legal == in.size()) {
      CHECK(strict.result == conversionOK);
   } else {
      // The lead byte's announced length alone decides "cut by the end".
      const UTF8 lead = in[legal];
      size_t announced = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4
                       : lead < 0xFC ? 5 : 6;
      CHECK(strict.result == (in.size() - legal < announced ? sourceExhausted : sourceIllegal));
   }
   auto lenient = Run(ConvertUTF8toUTF32, in, in.size(), lenientConversion);
   CHECK(lenient.result == strict.result && lenient.consumed == legal && lenient.out == strict.out);
   auto back = Run(ConvertUTF32toUTF8, strict.out, legal, strictConversion);
   CHECK(back.result == conversionOK && std::equal(in.begin(), in.begin() + legal,
                                                   back.out.begin(), back.out.end()));
   auto u16 = Run(ConvertUTF8toUTF16, in, 2 * in.size(), lenientConversion);
   CHECK(u16.result == strict.result && u16.consumed == legal &&
         Run(ConvertUTF16toUTF8, u16.out, legal, strictConversion).out == back.out);
}

template <typename S>
void FuzzWide(Converter<S, UTF8> toUtf8, Converter<UTF8, S> fromUtf8, const uint8_t *data,
              size_t size) {
   std::vector<S> src(size / sizeof(S));
   if (!src.empty()) {
      memcpy(src.data(), data, src.size() * sizeof(S));
   }
   auto strict = Run(toUtf8, src, 4 * src.size(), strictConversion);
   // Values above U+10FFFF come back as U+FFFD; strict mode goes on past them.
   std::vector<S> expected(src.begin(), src.begin() + strict.consumed);
   std::replace_if(expected.begin(), expected.end(), [](S v) { return v > 0x10FFFF; }, 0xFFFD);
   auto back = Run(fromUtf8, strict.out, src.size(), strictConversion);
   CHECK(back.result == conversionOK && back.out == expected);
   // Lenient mode passes what strict mode stops at, so it goes at least as far.
   auto lenient = Run(toUtf8, src, 4 * src.size(), lenientConversion);
   CHECK(lenient.result != targetExhausted && lenient.consumed >= strict.consumed &&
         IsPrefix(strict.out, lenient.out));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size <= 4096) {
      FuzzUtf8(std::vector<UTF8>(data, data + size));
      FuzzWide<UTF16>(ConvertUTF16toUTF8, ConvertUTF8toUTF16, data, size);
      FuzzWide<UTF32>(ConvertUTF32toUTF8, ConvertUTF8toUTF32, data, size);
   }
   return 0;
}
