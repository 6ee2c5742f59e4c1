// SPDX-License-Identifier: MIT
// The formatting engine against the C library on the formats the system
// uses most: an error message, the log time stamp, a path join, and the two
// floating-point forms.
//
// Every benchmark is a pair, "BM_<Case>/glibc" and "BM_<Case>/halcyx", run
// in the same process on the same arguments; scripts/bench-ratios.sh prints
// the halcyx/glibc time ratio of each pair.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "str.h"

namespace {

// The engine through its public entry points, the C library through
// snprintf and asprintf. Each format below is used only with arguments of
// the types it names.
struct Glibc {
   template <class... T>
   static int Snprintf(char *buf, size_t size, const char *format, T... args) {
      return snprintf(buf, size, format, args...);
   }
   template <class... T>
   static char *Asprintf(const char *format, T... args) {
      char *out = nullptr;
      return asprintf(&out, format, args...) < 0 ? nullptr : out;
   }
};

struct Halcyx {
   template <class... T>
   static int Snprintf(char *buf, size_t size, const char *format, T... args) {
      return Str_Snprintf(buf, size, format, args...);
   }
   template <class... T>
   static char *Asprintf(const char *format, T... args) {
      return Str_Asprintf(nullptr, format, args...);
   }
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Values are read through DoNotOptimize each round so that no call can be
// folded at compile time.
template <class Impl, class... T>
void FormatInto(benchmark::State &state, const char *format, T... args) {
   char buf[256];
   for (auto _ : state) {
      (benchmark::DoNotOptimize(args), ...);
      int n = Impl::Snprintf(buf, sizeof buf, format, args...);
      benchmark::DoNotOptimize(n);
      benchmark::DoNotOptimize(buf);
   }
}

template <class Impl, class... T>
void FormatAllocated(benchmark::State &state, const char *format, T... args) {
   for (auto _ : state) {
      (benchmark::DoNotOptimize(args), ...);
      char *out = Impl::Asprintf(format, args...);
      benchmark::DoNotOptimize(out);
      free(out);
   }
}

#pragma GCC diagnostic pop

const char kError[] = "%s: connect errno %d.\n";
const char kStamp[] = "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ";
const char kPath[] = "%s/%s%s";
const char kFixed[] = "%.6f";
const char kExponent[] = "%e";

const char *const kDir = "/var/run/halcyx/sessions";
const char *const kName = "opener-4711";
const char *const kSuffix = ".lock";
const char *const kWho = "rendezvous";

template <class Impl>
void BM_Snprintf_Error(benchmark::State &state) {
   FormatInto<Impl>(state, kError, kWho, 111);
}
template <class Impl>
void BM_Snprintf_Stamp(benchmark::State &state) {
   FormatInto<Impl>(state, kStamp, 2026, 11, 22, 3, 14, 15, 926);
}
template <class Impl>
void BM_Snprintf_Path(benchmark::State &state) {
   FormatInto<Impl>(state, kPath, kDir, kName, kSuffix);
}
template <class Impl>
void BM_Snprintf_Fixed(benchmark::State &state) {
   FormatInto<Impl>(state, kFixed, 3141.5926535);
}
template <class Impl>
void BM_Snprintf_Exponent(benchmark::State &state) {
   FormatInto<Impl>(state, kExponent, 6.02214076e23);
}

template <class Impl>
void BM_Asprintf_Error(benchmark::State &state) {
   FormatAllocated<Impl>(state, kError, kWho, 111);
}
template <class Impl>
void BM_Asprintf_Stamp(benchmark::State &state) {
   FormatAllocated<Impl>(state, kStamp, 2026, 11, 22, 3, 14, 15, 926);
}
template <class Impl>
void BM_Asprintf_Path(benchmark::State &state) {
   FormatAllocated<Impl>(state, kPath, kDir, kName, kSuffix);
}
template <class Impl>
void BM_Asprintf_Fixed(benchmark::State &state) {
   FormatAllocated<Impl>(state, kFixed, 3141.5926535);
}
template <class Impl>
void BM_Asprintf_Exponent(benchmark::State &state) {
   FormatAllocated<Impl>(state, kExponent, 6.02214076e23);
}

#define PAIR(name)                                              \
   BENCHMARK(name<Glibc>)->Name(#name "/glibc");                \
   BENCHMARK(name<Halcyx>)->Name(#name "/halcyx")

PAIR(BM_Snprintf_Error);
PAIR(BM_Snprintf_Stamp);
PAIR(BM_Snprintf_Path);
PAIR(BM_Snprintf_Fixed);
PAIR(BM_Snprintf_Exponent);
PAIR(BM_Asprintf_Error);
PAIR(BM_Asprintf_Stamp);
PAIR(BM_Asprintf_Path);
PAIR(BM_Asprintf_Fixed);
PAIR(BM_Asprintf_Exponent);

}  // namespace
