// Fuzzes the UTF converters with the input read as UTF-8, UTF-16 and UTF-32:
// pointers stay in bounds, strict decoding stops where isLegalUTF8Sequence
// does, valid input round-trips, and lenient mode never reports sourceIllegal.
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

void FuzzUtf8(const std::vector<UTF8> &in) {
   size_t legal = 0, chars = 0;  // whole sequences at the start, by isLegalUTF8Sequence
   for (size_t k = 1; k <= 4 && legal + k <= in.size(); k++) {
      if (isLegalUTF8Sequence(&in[legal], &in[legal] + k)) {
         legal += k, chars++, k = 0;
      }
   }
   auto strict = Run(ConvertUTF8toUTF32, in, in.size(), strictConversion);
   CHECK(strict.consumed == legal && strict.out.size() == chars);
   CHECK((strict.result == conversionOK) == (legal == in.size()));
   auto back = Run(ConvertUTF32toUTF8, strict.out, legal, strictConversion);
   CHECK(back.result == conversionOK && std::equal(in.begin(), in.begin() + legal,
                                                   back.out.begin(), back.out.end()));
   auto u16 = Run(ConvertUTF8toUTF16, in, 2 * in.size(), strictConversion);
   CHECK(u16.consumed == legal &&
         Run(ConvertUTF16toUTF8, u16.out, legal, strictConversion).out == back.out);
   auto lenient = Run(ConvertUTF8toUTF32, in, in.size(), lenientConversion);
   CHECK(lenient.result == conversionOK || lenient.result == sourceExhausted);
   CHECK(lenient.consumed >= legal && lenient.out.size() >= chars &&
         std::equal(strict.out.begin(), strict.out.end(), lenient.out.begin()));
}

template <typename S>
void FuzzWide(Converter<S, UTF8> toUtf8, Converter<UTF8, S> fromUtf8, const uint8_t *data,
              size_t size) {
   std::vector<S> src(size / sizeof(S));
   if (!src.empty()) {
      memcpy(src.data(), data, src.size() * sizeof(S));
   }
   auto lenient = Run(toUtf8, src, 4 * src.size(), lenientConversion);
   CHECK(lenient.result == conversionOK || lenient.result == sourceExhausted);
   CHECK(Run(ConvertUTF8toUTF32, lenient.out, lenient.out.size(), strictConversion).result ==
         conversionOK);
   auto strict = Run(toUtf8, src, 4 * src.size(), strictConversion);
   auto back = Run(fromUtf8, strict.out, src.size(), strictConversion);
   CHECK(back.result == conversionOK &&
         back.out == std::vector<S>(src.begin(), src.begin() + strict.consumed));
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
