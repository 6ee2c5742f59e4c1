// SPDX-License-Identifier: MIT
// Lock files: an uncontended lock and unlock against the bare system calls
// the protocol cannot do without (make the lock directory, create, write and
// rename a member, read the directory twice, unlink, remove the directory),
// on tmpfs and on the file system of the build tree. And the hand-off under
// contention: how long after a release the waiting process holds the lock.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fileLock.h"

namespace fs = std::filesystem;

namespace {

// A scratch directory under base, removed with its contents at exit.
class Scratch {
public:
   explicit Scratch(const std::string &base) {
      std::string tmpl = base + "/filelock_bench.XXXXXX";
      dir_ = mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
   }
   ~Scratch() {
      std::error_code ec;
      fs::remove_all(dir_, ec);
   }
   const std::string &Dir() const { return dir_; }

private:
   std::string dir_;
};

std::string BuildTreeDir() {
   return fs::read_symlink("/proc/self/exe").parent_path();
}

void ReadDirectory(const char *path) {
   DIR *d = opendir(path);
   while (readdir(d) != nullptr) {
   }
   closedir(d);
}

void RawProtocol(benchmark::State &state, const std::string &base) {
   Scratch scratch(base);
   std::string lck = scratch.Dir() + "/target.lck";
   std::string e = lck + "/E12345.lck";
   std::string m = lck + "/M12345.lck";
   char record[512] = "uuid=52 1-1 1 X 1 lc=1";
   for (auto _ : state) {
      mkdir(lck.c_str(), 0777);
      int fd = open(e.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
      benchmark::DoNotOptimize(write(fd, record, sizeof record));
      close(fd);
      rename(e.c_str(), m.c_str());
      ReadDirectory(lck.c_str());
      ReadDirectory(lck.c_str());
      unlink(m.c_str());
      rmdir(lck.c_str());
   }
}

void LockUnlock(benchmark::State &state, const std::string &base) {
   Scratch scratch(base);
   std::string path = scratch.Dir() + "/target";
   int err;
   for (auto _ : state) {
      FileLockToken *token = FileLock_Lock(path.c_str(), false, 0, &err, nullptr);
      if (token == nullptr) {
         state.SkipWithError("lock failed");
         break;
      }
      FileLock_Unlock(token, &err, nullptr);
   }
}

BENCHMARK_CAPTURE(RawProtocol, tmpfs, "/dev/shm")->Name("BM_LockUnlockTmpfs/baseline");
BENCHMARK_CAPTURE(LockUnlock, tmpfs, "/dev/shm")->Name("BM_LockUnlockTmpfs/halcyx");
BENCHMARK_CAPTURE(RawProtocol, build, BuildTreeDir())->Name("BM_LockUnlockBuildFs/baseline");
BENCHMARK_CAPTURE(LockUnlock, build, BuildTreeDir())->Name("BM_LockUnlockBuildFs/halcyx");

// Milliseconds from the holder's release to the waiter's acquisition.
void BM_ContendedHandoff(benchmark::State &state) {
   Scratch scratch("/dev/shm");
   std::string path = scratch.Dir() + "/target";
   auto *acquiredAt = static_cast<std::atomic<int64_t> *>(
      mmap(nullptr, sizeof(std::atomic<int64_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   auto now = [] {
      return std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::steady_clock::now().time_since_epoch())
         .count();
   };
   double worst = 0;
   for (auto _ : state) {
      int err;
      FileLockToken *held = FileLock_Lock(path.c_str(), false, 0, &err, nullptr);
      pid_t pid = fork();
      if (pid == 0) {
         FileLockToken *t = FileLock_Lock(path.c_str(), false, FILELOCK_WAIT_FOREVER, &err, nullptr);
         acquiredAt->store(now());
         FileLock_Unlock(t, &err, nullptr);
         _exit(0);
      }
      usleep(150000);  // the waiter is asleep in its poll by now
      int64_t released = now();
      FileLock_Unlock(held, &err, nullptr);
      waitpid(pid, nullptr, 0);
      double ms = static_cast<double>(acquiredAt->load() - released) / 1000.0;
      worst = std::max(worst, ms);
      state.SetIterationTime(ms / 1000.0);
   }
   state.counters["worst_ms"] = worst;
   munmap(acquiredAt, sizeof(std::atomic<int64_t>));
}
BENCHMARK(BM_ContendedHandoff)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace
