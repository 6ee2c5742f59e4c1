// SPDX-License-Identifier: MIT
// DynBuf_Append of small pieces against std::string::append.
//
// Each iteration starts from an empty buffer, appends 4,096 pieces of 1 to
// 16 bytes (the same sequence for both) and releases the buffer, so growth
// is part of the cost on both sides.
//
// Names pair as BM_<Group>/baseline and BM_<Group>/halcyx.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "dynbuf.h"

namespace {

constexpr size_t kPieces = 4096;
constexpr char kText[] = "0123456789abcdefghijklmnopqrstuv";

std::vector<size_t> PieceLengths() {
   std::vector<size_t> lengths;
   uint32_t x = 12345;
   for (size_t i = 0; i < kPieces; i++) {
      x = x * 1103515245u + 12345u;
      lengths.push_back(1 + (x >> 16) % 16);
   }
   return lengths;
}

void Baseline(benchmark::State &state) {
   const std::vector<size_t> lengths = PieceLengths();
   size_t bytes = 0;
   for (auto _ : state) {
      std::string s;
      for (size_t n : lengths) {
         s.append(kText, n);
      }
      bytes = s.size();
      benchmark::DoNotOptimize(s.data());
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPieces));
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void Halcyx(benchmark::State &state) {
   const std::vector<size_t> lengths = PieceLengths();
   size_t bytes = 0;
   for (auto _ : state) {
      DynBuf b;
      DynBuf_Init(&b);
      for (size_t n : lengths) {
         DynBuf_Append(&b, kText, n);
      }
      bytes = DynBuf_GetSize(&b);
      benchmark::DoNotOptimize(DynBuf_Get(&b));
      DynBuf_Destroy(&b);
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPieces));
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

}  // namespace

BENCHMARK(Baseline)->Name("BM_DynBufAppendSmall/baseline");
BENCHMARK(Halcyx)->Name("BM_DynBufAppendSmall/halcyx");
