// SPDX-License-Identifier: MIT
// The opener's hot path as its callers pay for it: a whole process, started
// by an unprivileged user, handing descriptor 0 to a daemon that is already
// running. The baseline is a minimal static C program that makes the same
// system calls (bench/opener_baseline.c). Both run set-user-ID root from a
// private tmpfs sandbox in this process's own mount namespace, the opener
// from a copy of the signed sample bundle.
//
//   BM_HotPath/{baseline,halcyx}/1            one process at a time, its CPU time
//   BM_Concurrent/{baseline,halcyx}/{1,8,64}  that many started at once, wall clock
//
// Needs root to set the sandbox up; the measurements run as "nobody".
// scripts/bench-ratios.sh build/bench/opener_benchmark prints the ratios.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "private_tmp.h"

namespace fs = std::filesystem;

namespace {

const fs::path kDir = SANDBOX_DIR;
const fs::path kOpener =
   kDir / "Zorvex Halcyx.app/Contents/Library/services/Open Zorvex Halcyx Services";
const fs::path kBaseline = kDir / "bin/opener-baseline";
constexpr uid_t kNobody = 65534;

posix_spawn_file_actions_t gQuiet;  // standard output to /dev/null

bool Spawned(const fs::path &program, std::vector<pid_t> &pids, int count) {
   char arg0[] = "opener";
   char arg1[] = "0";
   char *argv[] = {arg0, arg1, nullptr};
   char path[] = "PATH=/usr/bin:/bin";
   char *envp[] = {path, nullptr};
   pids.clear();
   for (int i = 0; i < count; i++) {
      pid_t pid;
      if (posix_spawn(&pid, program.c_str(), &gQuiet, nullptr, argv, envp) != 0) {
         return false;
      }
      pids.push_back(pid);
   }
   bool ok = true;
   for (pid_t pid : pids) {
      int status = 0;
      ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
   }
   return ok;
}

// CPU time (user and system) of all waited-for children so far.
double ChildrenSeconds() {
   struct rusage ru;
   getrusage(RUSAGE_CHILDREN, &ru);
   return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
          static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

void Run(benchmark::State &state, const fs::path *program) {
   std::vector<pid_t> pids;
   int count = static_cast<int>(state.range(0));
   for (auto _ : state) {
      double before = ChildrenSeconds();
      if (!Spawned(*program, pids, count)) {
         state.SkipWithError("a process failed");
         break;
      }
      state.SetIterationTime(ChildrenSeconds() - before);
   }
   state.SetItemsProcessed(state.iterations() * count);
}

// The process's own cost: its CPU time, which the machine's load and the
// daemon's share do not blur. The concurrent runs are wall-clock throughput.
BENCHMARK_CAPTURE(Run, baseline, &kBaseline)->Name("BM_HotPath/baseline")->Arg(1)->UseManualTime();
BENCHMARK_CAPTURE(Run, halcyx, &kOpener)->Name("BM_HotPath/halcyx")->Arg(1)->UseManualTime();
BENCHMARK_CAPTURE(Run, baseline, &kBaseline)
   ->Name("BM_Concurrent/baseline")->Arg(1)->Arg(8)->Arg(64)->UseRealTime();
BENCHMARK_CAPTURE(Run, halcyx, &kOpener)
   ->Name("BM_Concurrent/halcyx")->Arg(1)->Arg(8)->Arg(64)->UseRealTime();

// A private /tmp with the sandbox in it, programs installed, daemon
// started by a first opener; then this process becomes "nobody" (root
// stays its saved user ID, to stop the daemon at the end).
const char *SetUpSandbox() {
   if (geteuid() != 0) {
      return "needs root";
   }
   // A private /tmp holds the sandbox; the first opener builds the Services
   // tree from the signed sample bundle.
   if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || unshare(CLONE_NEWNS) != 0 ||
       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       !halcyx::test::CoverTmpKeeping({PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR}) ||
       mkdir(kDir.c_str(), 0755) != 0) {
      return "cannot make the private sandbox";
   }
   for (const char *dir : {"bin", "run", "log", "Library/Application Support/Zorvex/Zorvex Halcyx"}) {
      fs::create_directories(kDir / dir);
   }
   const std::string copy = "cp -a '" SAMPLE_BUNDLE "' '" + kDir.string() + "/'";
   if (system(copy.c_str()) != 0 || chown(kOpener.c_str(), 0, 0) != 0) {
      return "cannot install the sample bundle";
   }
   fs::copy_file(OPENER_BASELINE, kBaseline);
   if (chmod(kOpener.c_str(), 04755) != 0 || chmod(kBaseline.c_str(), 04755) != 0 ||
       setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
       setresuid(kNobody, kNobody, 0) != 0) {
      return "cannot install the programs or become nobody";
   }
   posix_spawn_file_actions_init(&gQuiet);
   posix_spawn_file_actions_addopen(&gQuiet, 1, "/dev/null", O_WRONLY, 0);
   std::vector<pid_t> pids;
   return Spawned(kOpener, pids, 1) ? nullptr : "the first opener failed";
}

}  // namespace

int main(int argc, char **argv) {
   benchmark::Initialize(&argc, argv);
   if (const char *why = SetUpSandbox()) {
      fprintf(stderr, "opener_benchmark: %s\n", why);
      return 1;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   // The daemon was reparented to us; it runs as root, so root (kept as
   // the saved user ID) stops it.
   if (setresuid(0, 0, 0) != 0) {
      fprintf(stderr, "opener_benchmark: cannot stop the daemon\n");
   }
   std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
   for (pid_t pid; children >> pid;) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
   }
   return 0;
}
