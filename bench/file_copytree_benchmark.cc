// SPDX-License-Identifier: MIT
// File_CopyTree against `cp -a`, both as whole processes copying the same
// tree of about 100 MiB in a few thousand files on the build file system.
//
// The source tree is made once under the build directory and reused; each
// iteration copies it to a fresh destination, which is removed (untimed)
// afterwards, and the file system is synced (untimed) before the next
// copy. Both sides read a source already in the page cache.
//
// Names pair as BM_CopyTree/baseline (cp -a) and BM_CopyTree/halcyx.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

constexpr int kDirs = 64;
constexpr int kFilesPerDir = 48;  // 3,072 files
constexpr size_t kTotalBytes = 100u << 20;

const std::string kWorkDir = HALCYX_BENCH_WORK_DIR "/copytree";
const std::string kSource = kWorkDir + "/src";
const std::string kDest = kWorkDir + "/dst";

void RemoveTree(const std::string &path) {
   nftw(
      path.c_str(),
      [](const char *p, const struct stat *, int type, struct FTW *) {
         return type == FTW_DP ? rmdir(p) : unlink(p);
      },
      32, FTW_DEPTH | FTW_PHYS);
}

// Sizes from 1 byte to about 4 x the mean, so that small and large files
// both count; the same tree on every run.
void MakeSourceOnce() {
   std::string stamp = kWorkDir + "/src.complete";
   struct stat st;
   if (stat(stamp.c_str(), &st) == 0) {
      return;
   }
   RemoveTree(kWorkDir);
   mkdir(HALCYX_BENCH_WORK_DIR, 0755);
   mkdir(kWorkDir.c_str(), 0755);
   mkdir(kSource.c_str(), 0755);
   const size_t files = static_cast<size_t>(kDirs) * kFilesPerDir;
   const size_t mean = kTotalBytes / files;
   std::vector<char> block(4 * mean + 1);
   uint32_t x = 2463534242u;
   for (char &c : block) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<char>(x);
   }
   for (int d = 0; d < kDirs; d++) {
      std::string dir = kSource + "/d" + std::to_string(d);
      mkdir(dir.c_str(), 0755);
      for (int f = 0; f < kFilesPerDir; f++) {
         x = x * 1103515245u + 12345u;
         size_t size = 1 + (x >> 8) % (2 * mean);
         std::string path = dir + "/f" + std::to_string(f);
         int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
         if (fd < 0 || write(fd, block.data() + (x % mean), size) != static_cast<ssize_t>(size)) {
            fprintf(stderr, "making %s: %s\n", path.c_str(), strerror(errno));
            exit(1);
         }
         close(fd);
      }
      std::string link = dir + "/link";
      if (symlink("f0", link.c_str()) != 0) {
         fprintf(stderr, "making %s: %s\n", link.c_str(), strerror(errno));
         exit(1);
      }
   }
   close(open(stamp.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

// Runs argv to completion; returns the child's user + system CPU seconds.
double Run(std::vector<const char *> argv) {
   argv.push_back(nullptr);
   pid_t pid;
   if (posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char **>(argv.data()),
                   environ) != 0) {
      fprintf(stderr, "cannot start %s\n", argv[0]);
      exit(1);
   }
   int status;
   struct rusage usage;
   while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
   }
   if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      fprintf(stderr, "%s failed\n", argv[0]);
      exit(1);
   }
   auto seconds = [](const struct timeval &tv) { return tv.tv_sec + tv.tv_usec / 1e6; };
   return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void CopyTree(benchmark::State &state, std::vector<const char *> argv) {
   MakeSourceOnce();
   RemoveTree(kDest);
   sync();
   double cpu = 0;
   for (auto _ : state) {
      cpu += Run(argv);
      state.PauseTiming();
      RemoveTree(kDest);
      // Start every copy with nothing left to write back, so that neither
      // side pays for the other's dirty pages.
      sync();
      state.ResumeTiming();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
   // The copying process's own CPU time: steadier than wall time on a
   // shared machine, though it leaves out waiting for the disk.
   state.counters["child_cpu_s"] = benchmark::Counter(cpu, benchmark::Counter::kAvgIterations);
}

void Baseline(benchmark::State &state) {
   CopyTree(state, {"/bin/cp", "-a", kSource.c_str(), kDest.c_str()});
}

void Halcyx(benchmark::State &state) {
   CopyTree(state, {HALCYX_COPYTREE_TOOL, kSource.c_str(), kDest.c_str()});
}

}  // namespace

BENCHMARK(Baseline)->Name("BM_CopyTree/baseline")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Halcyx)->Name("BM_CopyTree/halcyx")->Unit(benchmark::kMillisecond)->UseRealTime();
