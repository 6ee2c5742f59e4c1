// Fuzzes the UTF converters with the input read as UTF-8, UTF-16 and UTF-32.
//
// Invariants checked:
//   - pointers never pass their ends, and nothing is written past the output
//     (targets are allocated to their exact size for the sanitizers);
//   - strict UTF-8 decoding stops exactly where a walk with
//     isLegalUTF8Sequence stops, and re-encoding what it decoded, through
//     UTF-32 or UTF-16, gives back the same bytes;
//   - lenient conversion never reports sourceIllegal, only yields scalar
//     values, and agrees with strict conversion on the well-formed prefix;
//   - a target too small cuts the output at a whole character.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "convertutf.h"

namespace {

#define CHECK(cond)                                                       \
   do {                                                                   \
      if (!(cond)) {                                                      \
         __builtin_trap();                                                \
      }                                                                   \
   } while (0)

constexpr size_t kMaxInput = 4096;

template <typename S, typename T>
using Converter = ConversionResult (*)(const S **, const S *, T **, T *, ConversionFlags);

template <typename T>
struct Outcome {
   ConversionResult result;
   size_t consumed;
   std::vector<T> out;
};

template <typename S, typename T>
Outcome<T> Run(Converter<S, T> convert, const S *src, size_t n, size_t capacity,
               ConversionFlags flags) {
   std::vector<T> target(capacity);
   const S *s = src;
   T *t = target.data();
   ConversionResult r = convert(&s, src + n, &t, target.data() + capacity, flags);
   CHECK(s >= src && s <= src + n);
   CHECK(t >= target.data() && t <= target.data() + capacity);
   target.resize(static_cast<size_t>(t - target.data()));
   return {r, static_cast<size_t>(s - src), target};
}

// memcmp, but fine with the null pointers of empty buffers.
bool SameBytes(const void *a, const void *b, size_t n) {
   return n == 0 || memcmp(a, b, n) == 0;
}

// Length of the UTF-8 sequence a well-formed lead byte begins.
size_t SequenceLength(UTF8 lead) {
   return lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

bool IsScalar(UTF32 c) {
   return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

bool AllScalars(const std::vector<UTF32> &v) {
   for (UTF32 c : v) {
      if (!IsScalar(c)) {
         return false;
      }
   }
   return true;
}

// Length of the prefix made of whole well-formed sequences, and their count.
size_t LegalPrefix(const UTF8 *p, size_t n, size_t *count) {
   size_t at = 0;
   *count = 0;
   while (at < n) {
      size_t k = 1;
      while (k <= 4 && at + k <= n && !isLegalUTF8Sequence(p + at, p + at + k)) {
         k++;
      }
      if (k > 4 || at + k > n) {
         break;
      }
      at += k;
      ++*count;
   }
   return at;
}

void FuzzUtf8(const UTF8 *data, size_t n) {
   size_t chars = 0;
   size_t legal = LegalPrefix(data, n, &chars);

   auto strict = Run(ConvertUTF8toUTF32, data, n, n, strictConversion);
   CHECK(strict.consumed == legal);
   CHECK(strict.out.size() == chars);
   CHECK(AllScalars(strict.out));
   CHECK((strict.result == conversionOK) == (legal == n));
   CHECK(strict.result != targetExhausted);

   auto back = Run(ConvertUTF32toUTF8, strict.out.data(), strict.out.size(), legal,
                   strictConversion);
   CHECK(back.result == conversionOK);
   CHECK(back.out.size() == legal && SameBytes(back.out.data(), data, legal));

   auto u16 = Run(ConvertUTF8toUTF16, data, n, 2 * n, strictConversion);
   CHECK(u16.result == strict.result && u16.consumed == legal);
   auto back16 = Run(ConvertUTF16toUTF8, u16.out.data(), u16.out.size(), legal,
                     strictConversion);
   CHECK(back16.result == conversionOK);
   CHECK(back16.out.size() == legal && SameBytes(back16.out.data(), data, legal));

   auto lenient = Run(ConvertUTF8toUTF32, data, n, n, lenientConversion);
   CHECK(lenient.result == conversionOK || lenient.result == sourceExhausted);
   CHECK(lenient.result == conversionOK ? lenient.consumed == n
                                        : n - lenient.consumed < 4);
   CHECK(lenient.consumed >= legal && AllScalars(lenient.out));
   CHECK(lenient.out.size() >= chars &&
         SameBytes(lenient.out.data(), strict.out.data(), chars * sizeof(UTF32)));
   auto lenient16 = Run(ConvertUTF8toUTF16, data, n, 2 * n, lenientConversion);
   auto viaUtf32 = Run(ConvertUTF32toUTF16, lenient.out.data(), lenient.out.size(),
                       2 * n, strictConversion);
   CHECK(lenient16.result == lenient.result && lenient16.out == viaUtf32.out);

   // A small target: the output is a prefix of the full output, and when cut,
   // the next character would not have fitted.
   size_t capacity = n > 0 ? data[0] % 16 : 0;
   auto cut = Run(ConvertUTF8toUTF16, data, n, capacity, lenientConversion);
   CHECK(cut.out.size() <= lenient16.out.size());
   CHECK(std::equal(cut.out.begin(), cut.out.end(), lenient16.out.begin()));
   if (cut.result == targetExhausted) {
      size_t next = lenient16.out[cut.out.size()] - 0xD800u < 0x400 ? 2 : 1;
      CHECK(cut.out.size() + next > capacity);
   } else {
      CHECK(cut.result == lenient16.result && cut.out == lenient16.out);
   }
}

// Valid UTF-8 out of anything in lenient mode; exact round trips in strict.
template <typename S>
void FuzzWide(Converter<S, UTF8> toUtf8, Converter<UTF8, S> fromUtf8,
              const UTF8 *data, size_t n) {
   std::vector<S> src(n / sizeof(S));
   if (!src.empty()) {
      memcpy(src.data(), data, src.size() * sizeof(S));
   }

   auto lenient = Run(toUtf8, src.data(), src.size(), 4 * src.size(), lenientConversion);
   CHECK(lenient.result == conversionOK || lenient.result == sourceExhausted);
   auto check = Run(ConvertUTF8toUTF32, lenient.out.data(), lenient.out.size(),
                    lenient.out.size(), strictConversion);
   CHECK(check.result == conversionOK);

   auto strict = Run(toUtf8, src.data(), src.size(), 4 * src.size(), strictConversion);
   CHECK(strict.result != targetExhausted);
   auto back = Run(fromUtf8, strict.out.data(), strict.out.size(), src.size(),
                   strictConversion);
   CHECK(back.result == conversionOK && back.out.size() == strict.consumed);
   CHECK(SameBytes(back.out.data(), src.data(), strict.consumed * sizeof(S)));

   // Cut at a whole character: what was written is a prefix of the full
   // lenient output and ends on a sequence boundary.
   size_t capacity = n > 0 ? data[n - 1] % 16 : 0;
   auto cut = Run(toUtf8, src.data(), src.size(), capacity, lenientConversion);
   CHECK(cut.out.size() <= lenient.out.size());
   CHECK(std::equal(cut.out.begin(), cut.out.end(), lenient.out.begin()));
   if (cut.result == targetExhausted) {
      CHECK(cut.out.size() + SequenceLength(lenient.out[cut.out.size()]) > capacity);
   } else {
      CHECK(cut.result == lenient.result && cut.out == lenient.out);
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > kMaxInput) {
      return 0;
   }
   FuzzUtf8(data, size);
   FuzzWide<UTF16>(ConvertUTF16toUTF8, ConvertUTF8toUTF16, data, size);
   FuzzWide<UTF32>(ConvertUTF32toUTF8, ConvertUTF8toUTF32, data, size);
   return 0;
}
