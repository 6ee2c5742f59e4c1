// SPDX-License-Identifier: MIT
// UTF-8 validation and UTF-8 to UTF-16LE conversion against their baselines.
//
// Inputs are 1 MiB: pure ASCII, and mixed text where 90% of the characters
// are ASCII and the rest 2-, 3- and 4-byte sequences in equal parts.
//   BM_Validate<Text>/dfa       the plain automaton, a byte at a time
//   BM_Validate<Text>/icu       ICU's strict conversion to UTF-16
//   BM_Validate<Text>/halcyx    CodeSet_IsValidUTF8
//   BM_<Function><Engine><Text>/icu_raw   ucnv_convertEx on open converters
//   BM_<Function><Engine><Text>/halcyx    CodeSet_GenericToGeneric or
//                                         CodeSet_Utf8ToUtf16le, either engine
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unicode/ucnv.h>

#include "codeset.h"
#include "misc/codesetInt.h"

namespace {

constexpr size_t kSize = 1 << 20;

std::string MakeText(bool mixed) {
   std::string s;
   std::mt19937 rng(7);
   while (s.size() < kSize) {
      uint32_t roll = rng() % 30;
      uint32_t cp = 0x20 + rng() % 95;
      if (mixed && roll < 3) {
         static const uint32_t kBase[] = {0x80, 0x800, 0x10000};
         static const uint32_t kSpan[] = {0x780, 0xD000, 0xF0000};
         cp = kBase[roll] + rng() % kSpan[roll];
      }
      uint8_t utf8[4];
      s.append(reinterpret_cast<char *>(utf8), halcyx::CodeSetEncodeUtf8(cp, utf8));
   }
   while (!CodeSet_IsValidUTF8(s.data(), s.size())) {
      s.pop_back();  // a sequence cut by the size limit
   }
   return s;
}

const std::string &Text(bool mixed) {
   static const std::string ascii = MakeText(false), text = MakeText(true);
   return mixed ? text : ascii;
}

void Finish(benchmark::State &state, size_t bytes) {
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void ValidateDfa(benchmark::State &state, bool mixed) {
   const std::string &s = Text(mixed);
   for (auto _ : state) {
      benchmark::DoNotOptimize(
         halcyx::CodeSetValidateUtf8Dfa(reinterpret_cast<const uint8_t *>(s.data()), s.size()));
   }
   Finish(state, s.size());
}

void ValidateIcu(benchmark::State &state, bool mixed) {
   const std::string &s = Text(mixed);
   UErrorCode err = U_ZERO_ERROR;
   UConverter *cnv = ucnv_open("UTF-8", &err);
   ucnv_setToUCallBack(cnv, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &err);
   std::vector<UChar> out(s.size() + 1);
   for (auto _ : state) {
      err = U_ZERO_ERROR;
      ucnv_toUChars(cnv, out.data(), static_cast<int32_t>(out.size()), s.data(),
                    static_cast<int32_t>(s.size()), &err);
      benchmark::DoNotOptimize(err);
   }
   ucnv_close(cnv);
   Finish(state, s.size());
}

void ValidateOurs(benchmark::State &state, bool mixed) {
   const std::string &s = Text(mixed);
   for (auto _ : state) {
      benchmark::DoNotOptimize(CodeSet_IsValidUTF8(s.data(), s.size()));
   }
   Finish(state, s.size());
}

// Selects an engine for the duration of one benchmark.
class Engine {
public:
   explicit Engine(bool icu) {
      if (icu) {
         dir_ = std::filesystem::temp_directory_path() / "codeset-bench-icu";
         std::filesystem::create_directories(dir_);
         std::ofstream(dir_ / "icudt44l.dat") << "switch";
         CodeSet_Init(dir_.c_str());
      } else {
         CodeSet_DontUseIcu();
      }
   }
   ~Engine() {
      CodeSet_DontUseIcu();
      if (!dir_.empty()) {
         std::filesystem::remove_all(dir_);
      }
   }

private:
   std::filesystem::path dir_;
};

void ConvertIcuRaw(benchmark::State &state, bool mixed) {
   const std::string &s = Text(mixed);
   UErrorCode err = U_ZERO_ERROR;
   UConverter *in = ucnv_open("UTF-8", &err);
   UConverter *out = ucnv_open("UTF-16LE", &err);
   std::vector<char> target(2 * s.size() + 4);
   UChar pivot[1024];
   for (auto _ : state) {
      err = U_ZERO_ERROR;
      char *t = target.data();
      const char *src = s.data();
      UChar *pivotSource = pivot, *pivotTarget = pivot;
      ucnv_convertEx(out, in, &t, target.data() + target.size(), &src, s.data() + s.size(), pivot,
                     &pivotSource, &pivotTarget, pivot + 1024, true, true, &err);
      benchmark::DoNotOptimize(t);
   }
   ucnv_close(in);
   ucnv_close(out);
   Finish(state, s.size());
}

// Through CodeSet_GenericToGeneric by names, or CodeSet_Utf8ToUtf16le.
void ConvertOurs(benchmark::State &state, bool generic, bool icu, bool mixed) {
   const std::string &s = Text(mixed);
   Engine engine(icu);
   for (auto _ : state) {
      char *out;
      size_t n;
      bool ok = generic ? CodeSet_GenericToGeneric("UTF-8", s.data(), s.size(), "UTF-16LE", 0,
                                                   &out, &n)
                        : CodeSet_Utf8ToUtf16le(s.data(), s.size(), &out, &n);
      if (!ok) {
         state.SkipWithError("conversion failed");
         break;
      }
      free(out);
   }
   Finish(state, s.size());
}

BENCHMARK_CAPTURE(ValidateDfa, ascii, false)->Name("BM_ValidateAscii/dfa");
BENCHMARK_CAPTURE(ValidateIcu, ascii, false)->Name("BM_ValidateAscii/icu");
BENCHMARK_CAPTURE(ValidateOurs, ascii, false)->Name("BM_ValidateAscii/halcyx");
BENCHMARK_CAPTURE(ValidateDfa, mixed, true)->Name("BM_ValidateMixed/dfa");
BENCHMARK_CAPTURE(ValidateIcu, mixed, true)->Name("BM_ValidateMixed/icu");
BENCHMARK_CAPTURE(ValidateOurs, mixed, true)->Name("BM_ValidateMixed/halcyx");

#define CONVERSION_PAIR(Group, generic, icu, mixed)                                 \
   BENCHMARK_CAPTURE(ConvertIcuRaw, raw, mixed)->Name("BM_" #Group "/icu_raw");     \
   BENCHMARK_CAPTURE(ConvertOurs, ours, generic, icu, mixed)->Name("BM_" #Group "/halcyx")

CONVERSION_PAIR(GenericIcuMixed, true, true, true);
CONVERSION_PAIR(GenericBuiltInMixed, true, false, true);
CONVERSION_PAIR(Utf8ToUtf16leIcuMixed, false, true, true);
CONVERSION_PAIR(Utf8ToUtf16leBuiltInMixed, false, false, true);
CONVERSION_PAIR(Utf8ToUtf16leIcuAscii, false, true, false);
CONVERSION_PAIR(Utf8ToUtf16leBuiltInAscii, false, false, false);

}  // namespace
