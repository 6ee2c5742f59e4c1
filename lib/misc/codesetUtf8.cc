// SPDX-License-Identifier: MIT
/*
 * UTF-8 validation.
 *
 * The reference is the published UTF-8 automaton: a byte-class table and 16
 * transitions per state, state 0 accepting and state 1 rejecting, run a byte
 * at a time (CodeSetValidateUtf8Dfa). It rejects overlong forms, encoded
 * surrogates, values above U+10FFFF and sequences cut short at the end.
 *
 * CodeSet_IsValidUTF8 gives the same answers faster, by one of two paths:
 *   - with AVX2 (checked at run time), 64-byte blocks of ASCII are skipped
 *     with one test, and other blocks are checked 32 bytes at a time by
 *     classifying every byte together with its predecessors through three
 *     16-entry tables (the lookup method of Keiser and Lemire), which flags
 *     exactly the byte pairs and triples that the automaton rejects;
 *   - otherwise, runs of ASCII are skipped 16 or 64 bytes at a time whenever
 *     the automaton is in state 0 (where an ASCII byte changes nothing), and
 *     other characters are stepped through with a one-load form of the same
 *     transition table.
 * Both are checked against the automaton by the tests and a fuzz target.
 */
#include <array>
#include <cstring>
#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codeset.h"
#include "misc/codesetInt.h"

namespace halcyx {

namespace {

// The automaton: 256 byte classes, then 16 transitions for each of 9 states.
constexpr uint8_t kUtf8Dfa[256 + 9 * 16] = {
   // 0x00..0x7F: class 0
   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
   // 0x80..0x8F: 1, 0x90..0x9F: 9, 0xA0..0xBF: 7
   1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9,
   7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
   // 0xC0..0xC1: 8, 0xC2..0xDF: 2
   8, 8, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2,
   // 0xE0: 10, 0xE1..0xEC: 3, 0xED: 4, 0xEE..0xEF: 3, 0xF0: 11, 0xF1..0xF3: 6, 0xF4: 5,
   // 0xF5..0xFF: 8
   10, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 4, 3, 3, 11, 6, 6, 6, 5, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
   // state 0: accept
   0, 1, 2, 3, 5, 8, 7, 1, 1, 1, 4, 6, 1, 1, 1, 1,
   // state 1: reject
   1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
   // state 2: one continuation byte to go
   1, 0, 1, 1, 1, 1, 1, 0, 1, 0, 1, 1, 1, 1, 1, 1,
   // state 3: two to go
   1, 2, 1, 1, 1, 1, 1, 2, 1, 2, 1, 1, 1, 1, 1, 1,
   // state 4: after E0, A0..BF then one
   1, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1, 1, 1, 1, 1, 1,
   // state 5: after ED, 80..9F then one
   1, 2, 1, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1, 1, 1, 1,
   // state 6: after F0, 90..BF then two
   1, 1, 1, 1, 1, 1, 1, 3, 1, 3, 1, 1, 1, 1, 1, 1,
   // state 7: after F1..F3, any then two
   1, 3, 1, 1, 1, 1, 1, 3, 1, 3, 1, 1, 1, 1, 1, 1,
   // state 8: after F4, 80..8F then two
   1, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
};

constexpr uint32_t kAccept = 0;
constexpr uint32_t kReject = 1;

inline uint32_t DfaStep(uint32_t state, uint8_t byte) {
   return kUtf8Dfa[256 + state * 16 + kUtf8Dfa[byte]];
}

/*
 * The same automaton with one load per byte: entry b packs, for every state
 * s, the next state after byte b at bit 6 * s, and states are kept as those
 * bit offsets (6 * s). Derived from kUtf8Dfa at compile time.
 */
constexpr std::array<uint64_t, 256> MakeShiftDfa() {
   std::array<uint64_t, 256> table{};
   for (size_t b = 0; b < 256; b++) {
      for (uint64_t s = 0; s < 9; s++) {
         uint64_t next = kUtf8Dfa[256 + s * 16 + kUtf8Dfa[b]];
         table[b] |= (6 * next) << (6 * s);
      }
   }
   return table;
}
constexpr std::array<uint64_t, 256> kShiftDfa = MakeShiftDfa();
constexpr uint64_t kShiftAccept = 6 * kAccept;
constexpr uint64_t kShiftReject = 6 * kReject;

inline uint64_t ShiftDfaStep(uint64_t state, uint8_t byte) {
   return (kShiftDfa[byte] >> state) & 63;
}

// Offset of the first byte >= 0x80 in [p, end), or end - p.
inline size_t AsciiPrefix(const uint8_t *p, const uint8_t *end) {
   const uint8_t *start = p;
#if defined(__SSE2__)
   while (end - p >= 64) {
      __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
      __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16));
      __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 32));
      __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 48));
      if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d))) != 0) {
         break;
      }
      p += 64;
   }
   while (end - p >= 16) {
      int mask = _mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
      if (mask != 0) {
         return static_cast<size_t>(p - start) + static_cast<size_t>(__builtin_ctz(mask));
      }
      p += 16;
   }
#else
   while (end - p >= 8) {
      uint64_t word;
      std::memcpy(&word, p, sizeof word);
      uint64_t high = word & 0x8080808080808080ull;
      if (high != 0) {
         return static_cast<size_t>(p - start) + static_cast<size_t>(__builtin_ctzll(high) / 8);
      }
      p += 8;
   }
#endif
   while (p < end && *p < 0x80) {
      p++;
   }
   return static_cast<size_t>(p - start);
}

}  // namespace

bool CodeSetValidateUtf8Dfa(const uint8_t *buf, size_t size) {
   uint32_t state = kAccept;
   for (size_t i = 0; i < size; i++) {
      state = DfaStep(state, buf[i]);
      if (state == kReject) {
         return false;
      }
   }
   return state == kAccept;
}

bool CodeSetValidateUtf8Scalar(const uint8_t *p, size_t size) {
   const uint8_t *end = p + size;
   uint64_t state = kShiftAccept;
   while (p < end) {
      // In the accepting state an ASCII byte leads back to it: skip them.
      p += AsciiPrefix(p, end);
      // Then one character of two to four bytes, or a rejection; the
      // automaton returns to the accepting state at the end of each.
      do {
         if (p == end) {
            return state == kShiftAccept;
         }
         state = ShiftDfaStep(state, *p++);
      } while (state > kShiftReject);
      if (state == kShiftReject) {
         return false;
      }
   }
   return true;
}

#if defined(__x86_64__)

namespace {

// The error bits of the lookup method: each names a byte pair that cannot
// occur, keyed by the high nibble of the first byte, its low nibble and the
// high nibble of the second.
constexpr uint8_t kTooShort = 1 << 0;      // a lead not followed by a continuation
constexpr uint8_t kTooLong = 1 << 1;       // ASCII followed by a continuation
constexpr uint8_t kOverlong3 = 1 << 2;     // E0 80..9F
constexpr uint8_t kTooLarge = 1 << 3;      // F4 90..BF, F5.. 90..BF
constexpr uint8_t kSurrogate = 1 << 4;     // ED A0..BF
constexpr uint8_t kOverlong2 = 1 << 5;     // C0..C1 any
constexpr uint8_t kTooLarge1000 = 1 << 6;  // F5.. 80..8F
constexpr uint8_t kOverlong4 = 1 << 6;     // F0 80..8F
constexpr uint8_t kTwoConts = 1 << 7;      // continuation after continuation
constexpr uint8_t kCarry = kTooShort | kTooLong | kTwoConts;

__attribute__((target("avx2"))) inline __m256i Table16(uint8_t t0, uint8_t t1, uint8_t t2,
                                                        uint8_t t3, uint8_t t4, uint8_t t5,
                                                        uint8_t t6, uint8_t t7, uint8_t t8,
                                                        uint8_t t9, uint8_t t10, uint8_t t11,
                                                        uint8_t t12, uint8_t t13, uint8_t t14,
                                                        uint8_t t15) {
   return _mm256_setr_epi8(
      static_cast<char>(t0), static_cast<char>(t1), static_cast<char>(t2), static_cast<char>(t3),
      static_cast<char>(t4), static_cast<char>(t5), static_cast<char>(t6), static_cast<char>(t7),
      static_cast<char>(t8), static_cast<char>(t9), static_cast<char>(t10),
      static_cast<char>(t11), static_cast<char>(t12), static_cast<char>(t13),
      static_cast<char>(t14), static_cast<char>(t15), static_cast<char>(t0),
      static_cast<char>(t1), static_cast<char>(t2), static_cast<char>(t3), static_cast<char>(t4),
      static_cast<char>(t5), static_cast<char>(t6), static_cast<char>(t7), static_cast<char>(t8),
      static_cast<char>(t9), static_cast<char>(t10), static_cast<char>(t11),
      static_cast<char>(t12), static_cast<char>(t13), static_cast<char>(t14),
      static_cast<char>(t15));
}

// Set to zero by its one user before use: a default member initializer
// would need AVX2 outside the functions compiled for it.
struct Avx2Checker {
   __m256i error;
   __m256i prevInput;
   __m256i prevIncomplete;

   // The bytes of input shifted by n, with the last n of prevInput in front.
   template <int n>
   __attribute__((target("avx2"))) static __m256i Prev(__m256i input, __m256i prev) {
      return _mm256_alignr_epi8(input, _mm256_permute2x128_si256(prev, input, 0x21), 16 - n);
   }

   __attribute__((target("avx2"))) static __m256i HighNibbles(__m256i v) {
      return _mm256_and_si256(_mm256_srli_epi16(v, 4), _mm256_set1_epi8(0x0F));
   }

   __attribute__((target("avx2"))) void Check(__m256i input) {
      const __m256i prev1 = Prev<1>(input, prevInput);
      const __m256i byte1High = _mm256_shuffle_epi8(
         Table16(kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong,
                 kTwoConts, kTwoConts, kTwoConts, kTwoConts, kTooShort | kOverlong2, kTooShort,
                 kTooShort | kOverlong3 | kSurrogate,
                 kTooShort | kTooLarge | kTooLarge1000 | kOverlong4),
         HighNibbles(prev1));
      constexpr uint8_t kLarge = kCarry | kTooLarge | kTooLarge1000;
      const __m256i byte1Low = _mm256_shuffle_epi8(
         Table16(kCarry | kOverlong3 | kOverlong2 | kOverlong4, kCarry | kOverlong2, kCarry,
                 kCarry, kCarry | kTooLarge, kLarge, kLarge, kLarge, kLarge, kLarge, kLarge,
                 kLarge, kLarge, kLarge | kSurrogate, kLarge, kLarge),
         _mm256_and_si256(prev1, _mm256_set1_epi8(0x0F)));
      constexpr uint8_t kCont = kTooLong | kOverlong2 | kTwoConts;
      const __m256i byte2High = _mm256_shuffle_epi8(
         Table16(kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
                 kTooShort, kCont | kOverlong3 | kTooLarge1000 | kOverlong4,
                 kCont | kOverlong3 | kTooLarge, kCont | kSurrogate | kTooLarge,
                 kCont | kSurrogate | kTooLarge, kTooShort, kTooShort, kTooShort, kTooShort),
         HighNibbles(input));
      const __m256i special = _mm256_and_si256(_mm256_and_si256(byte1High, byte1Low), byte2High);
      // Third and fourth bytes of a sequence must be continuations, which the
      // pair check sees as "two continuations": the two must coincide.
      const __m256i third = _mm256_subs_epu8(Prev<2>(input, prevInput), _mm256_set1_epi8(0x60));
      const __m256i fourth = _mm256_subs_epu8(Prev<3>(input, prevInput), _mm256_set1_epi8(0x70));
      const __m256i must23 =
         _mm256_and_si256(_mm256_or_si256(third, fourth), _mm256_set1_epi8(char(0x80)));
      error = _mm256_or_si256(error, _mm256_xor_si256(must23, special));
      prevInput = input;
   }

   // Non-zero where the last bytes of input begin a sequence they do not end.
   __attribute__((target("avx2"))) static __m256i Incomplete(__m256i input) {
      const __m256i limit = _mm256_setr_epi8(
         -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
         -1, -1, -1, -1, -1, -1, -1, char(0xF0 - 1), char(0xE0 - 1), char(0xC0 - 1));
      return _mm256_subs_epu8(input, limit);
   }

   __attribute__((target("avx2"))) void Block(const uint8_t *p) {
      __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
      __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + 32));
      if (_mm256_movemask_epi8(_mm256_or_si256(a, b)) == 0) {
         error = _mm256_or_si256(error, prevIncomplete);
         prevInput = b;
         prevIncomplete = _mm256_setzero_si256();
         return;
      }
      Check(a);
      Check(b);
      prevIncomplete = Incomplete(b);
   }
};

}  // namespace

__attribute__((target("avx2"))) bool CodeSetValidateUtf8Avx2(const uint8_t *p, size_t size) {
   Avx2Checker checker;
   checker.error = checker.prevInput = checker.prevIncomplete = _mm256_setzero_si256();
   size_t i = 0;
   for (; i + 64 <= size; i += 64) {
      checker.Block(p + i);
   }
   if (i < size) {
      // The tail, padded with NULs: a sequence cut by the end meets ASCII.
      uint8_t tail[64] = {};
      std::memcpy(tail, p + i, size - i);
      checker.Block(tail);
   }
   __m256i error = _mm256_or_si256(checker.error, checker.prevIncomplete);
   return _mm256_testz_si256(error, error) != 0;
}

bool CodeSetHasAvx2() {
   static const bool kHas = __builtin_cpu_supports("avx2");
   return kHas;
}

#else

bool CodeSetValidateUtf8Avx2(const uint8_t *p, size_t size) {
   return CodeSetValidateUtf8Scalar(p, size);
}

bool CodeSetHasAvx2() { return false; }

#endif

bool CodeSetValidateUtf8(const uint8_t *p, size_t size) {
   // Short strings are not worth a padded block.
   if (size >= 64 && CodeSetHasAvx2()) {
      return CodeSetValidateUtf8Avx2(p, size);
   }
   return CodeSetValidateUtf8Scalar(p, size);
}

}  // namespace halcyx

int CodeSet_GetUtf8(const char *string, const char *end, uint32_t *uchar) {
   if (string == nullptr || end <= string) {
      return 0;
   }
   auto p = reinterpret_cast<const uint8_t *>(string);
   size_t avail = static_cast<size_t>(end - string);
   uint32_t state = halcyx::kAccept;
   uint32_t cp = 0;
   for (size_t i = 0; i < avail && i < 4; i++) {
      uint8_t byteClass = halcyx::kUtf8Dfa[p[i]];
      cp = state == halcyx::kAccept ? (0xFFu >> byteClass) & p[i] : (p[i] & 0x3Fu) | (cp << 6);
      state = halcyx::DfaStep(state, p[i]);
      if (state == halcyx::kReject) {
         return 0;
      }
      if (state == halcyx::kAccept) {
         if (uchar != nullptr) {
            *uchar = cp;
         }
         return static_cast<int>(i + 1);
      }
   }
   return 0;
}

