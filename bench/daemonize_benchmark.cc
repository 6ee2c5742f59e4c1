// SPDX-License-Identifier: MIT
// Hostinfo_Daemonize of a program that exits at once, against posix_spawn of
// the same program, at two descriptor limits.
//
// Both sides wait for the program to end: the baseline for its child, ours
// (a child subreaper, so the daemon is handed to us instead of to init) for
// the adopted daemon, after Hostinfo_Daemonize itself has waited for the
// first child and the exec. The limit is the benchmark's argument; a host
// that refuses it reports an error for that pair.
//
// Real time on a busy host mostly measures the scheduler; the counter
// "cpu_us" (this process and every child it reaped, per launch) does not.
//
// Names pair as BM_Launch/posix_spawn/LIMIT and BM_Launch/halcyx/LIMIT.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hostinfo.h"

extern char **environ;

namespace {

constexpr char kProgram[] = "/bin/true";

// CPU seconds of this process and of the children it has reaped.
double CpuWithChildren() {
   double total = 0;
   for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
      struct rusage usage;
      getrusage(who, &usage);
      total += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
   }
   return total;
}

void ReportCpu(benchmark::State &state, double start) {
   state.counters["cpu_us"] = benchmark::Counter(
      (CpuWithChildren() - start) * 1e6 / static_cast<double>(state.iterations()));
}

bool SetDescriptorLimit(benchmark::State &state) {
   // Only the soft limit moves unless the hard one is too low: a lowered
   // hard limit could not be raised again for the next benchmark.
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = static_cast<rlim_t>(state.range(0));
   if (limit.rlim_cur > limit.rlim_max) {
      limit.rlim_max = limit.rlim_cur;
   }
   if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      state.SkipWithError("cannot set the descriptor limit (needs CAP_SYS_RESOURCE)");
      return false;
   }
   return true;
}

void Baseline(benchmark::State &state) {
   if (!SetDescriptorLimit(state)) {
      return;
   }
   char *argv[] = {const_cast<char *>("true"), nullptr};
   double start = CpuWithChildren();
   for (auto _ : state) {
      pid_t pid;
      if (posix_spawn(&pid, kProgram, nullptr, nullptr, argv, environ) != 0) {
         state.SkipWithError("posix_spawn failed");
         return;
      }
      int status;
      waitpid(pid, &status, 0);
   }
   ReportCpu(state, start);
}

void Halcyx(benchmark::State &state) {
   if (!SetDescriptorLimit(state)) {
      return;
   }
   prctl(PR_SET_CHILD_SUBREAPER, 1);
   const char *argv[] = {"true", nullptr};
   double start = CpuWithChildren();
   for (auto _ : state) {
      if (!Hostinfo_Daemonize(kProgram, argv, 0, nullptr, nullptr, 0)) {
         state.SkipWithError("Hostinfo_Daemonize failed");
         return;
      }
      int status;
      waitpid(-1, &status, 0);
   }
   ReportCpu(state, start);
}

}  // namespace

BENCHMARK(Baseline)->Name("BM_Launch/posix_spawn")->Arg(1024)->Arg(16384)->Arg(1 << 20)->UseRealTime();
BENCHMARK(Halcyx)->Name("BM_Launch/halcyx")->Arg(1024)->Arg(16384)->Arg(1 << 20)->UseRealTime();
