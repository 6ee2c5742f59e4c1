// SPDX-License-Identifier: MIT
// Cold starts as their callers pay for them, wall clock, with a sample
// bundle of about 100 MiB over its 28 components:
//
//   BM_ColdStart/baseline   cp -a of the bundle, then sha256sum over every
//                           file of the bundle and of the copy
//   BM_ColdStart/halcyx     one opener process from no daemon to the verdict
//                           (deletes and rebuilds the Services tree,
//                           verifying each component before and after its
//                           copy, and starts the daemon)
//   BM_Hundred/baseline     one cold start plus half the time of 100 hot
//                           openers run one after another
//   BM_Hundred/halcyx       100 openers started at once with no daemon; all
//                           must succeed and exactly one daemon must start
//
// Everything runs in a private tmpfs sandbox in this process's own mount
// namespace, the openers set-user-ID root from the bundle, started as
// "nobody". Needs root. The times are wall clock, so compare them with
//   TIME=real scripts/bench-ratios.sh build/bench/coldstart_benchmark
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <signal.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "private_tmp.h"

namespace fs = std::filesystem;

namespace {

const fs::path kDir = SANDBOX_DIR;
const fs::path kApp = kDir / "Zorvex Halcyx.app";
const fs::path kOpener = kApp / "Contents/Library/services/Open Zorvex Halcyx Services";
const fs::path kCopy = kDir / "copy.app";
const fs::path kDaemonLog = kDir / "log/Zorvex Halcyx Services.log";
constexpr uid_t kNobody = 65534;
constexpr int kPadMib = 100;

using Clock = std::chrono::steady_clock;

// Starts argv, as nobody when asked, standard output to /dev/null.
pid_t Start(const std::vector<std::string> &args, bool asNobody) {
   pid_t pid = fork();
   if (pid != 0) {
      return pid;
   }
   std::vector<char *> argv;
   for (const std::string &arg : args) {
      argv.push_back(const_cast<char *>(arg.c_str()));
   }
   argv.push_back(nullptr);
   char path[] = "PATH=/usr/bin:/bin";
   char *envp[] = {path, nullptr};
   int null = open("/dev/null", O_RDWR);
   dup2(null, 0);
   dup2(null, 1);
   if (asNobody && (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
                    setresuid(kNobody, kNobody, kNobody) != 0)) {
      _exit(126);
   }
   execve(argv[0], argv.data(), envp);
   _exit(127);
}

bool Succeeded(pid_t pid) {
   int status = 0;
   return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
          WEXITSTATUS(status) == 0;
}

// Starts count openers at once and waits for all; true when all succeeded.
bool Openers(int count) {
   std::vector<pid_t> pids;
   for (int i = 0; i < count; i++) {
      pids.push_back(Start({kOpener.string(), "0"}, true));
   }
   bool ok = true;
   for (pid_t pid : pids) {
      ok = Succeeded(pid) && ok;
   }
   return ok;
}

int DaemonsStarted() {
   std::ifstream log(kDaemonLog);
   int n = 0;
   for (std::string line; std::getline(log, line);) {
      n += line.find("started, pid") != std::string::npos;
   }
   return n;
}

// Everything this process started and still runs is a daemon: stop it.
void StopDaemons() {
   std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
   for (pid_t pid; children >> pid;) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
   }
}

double Seconds(Clock::time_point since) {
   return std::chrono::duration<double>(Clock::now() - since).count();
}

// sha256sum over every regular file under dir.
std::vector<std::string> Sha256Command(const fs::path &dir) {
   std::vector<std::string> args = {"/usr/bin/sha256sum"};
   for (const auto &entry : fs::recursive_directory_iterator(dir)) {
      if (entry.is_regular_file() && !entry.is_symlink()) {
         args.push_back(entry.path().string());
      }
   }
   return args;
}

void BM_ColdStartBaseline(benchmark::State &state) {
   for (auto _ : state) {
      fs::remove_all(kCopy);
      auto start = Clock::now();
      bool ok = Succeeded(Start({"/bin/cp", "-a", kApp.string(), kCopy.string()}, false)) &&
                Succeeded(Start(Sha256Command(kApp), false)) &&
                Succeeded(Start(Sha256Command(kCopy), false));
      state.SetIterationTime(Seconds(start));
      if (!ok) {
         state.SkipWithError("cp or sha256sum failed");
         break;
      }
   }
}

void BM_ColdStartHalcyx(benchmark::State &state) {
   for (auto _ : state) {
      StopDaemons();
      auto start = Clock::now();
      bool ok = Openers(1);
      state.SetIterationTime(Seconds(start));
      if (!ok) {
         state.SkipWithError("the opener failed");
         break;
      }
   }
   StopDaemons();
}

void BM_HundredBaseline(benchmark::State &state) {
   for (auto _ : state) {
      StopDaemons();
      auto start = Clock::now();
      bool ok = Openers(1);
      double cold = Seconds(start);
      // 100 hot openers' time: one after another, shared by the 2 cores
      // of the machine these figures are quoted for.
      start = Clock::now();
      for (int i = 0; i < 100; i++) {
         ok = Openers(1) && ok;
      }
      state.SetIterationTime(cold + Seconds(start) / 2);
      if (!ok) {
         state.SkipWithError("an opener failed");
         break;
      }
   }
   StopDaemons();
}

void BM_HundredHalcyx(benchmark::State &state) {
   for (auto _ : state) {
      StopDaemons();
      int before = DaemonsStarted();
      auto start = Clock::now();
      bool ok = Openers(100);
      state.SetIterationTime(Seconds(start));
      if (!ok || DaemonsStarted() != before + 1) {
         state.SkipWithError(ok ? "not exactly one daemon started" : "an opener failed");
         break;
      }
   }
   StopDaemons();
}

BENCHMARK(BM_ColdStartBaseline)->Name("BM_ColdStart/baseline")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColdStartHalcyx)->Name("BM_ColdStart/halcyx")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HundredBaseline)->Name("BM_Hundred/baseline")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HundredHalcyx)->Name("BM_Hundred/halcyx")->UseManualTime()->Unit(benchmark::kMillisecond);

// A private /tmp with the sandbox in it; the padded bundle made there, owned
// by nobody, with the opener set-user-ID root.
const char *SetUpSandbox() {
   if (geteuid() != 0) {
      return "needs root";
   }
   if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || unshare(CLONE_NEWNS) != 0 ||
       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       !halcyx::test::CoverTmpKeeping({PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR}) ||
       mkdir(kDir.c_str(), 0755) != 0) {
      return "cannot make the private sandbox";
   }
   for (const char *dir : {"run", "log", "Library/Application Support/Zorvex/Zorvex Halcyx"}) {
      fs::create_directories(kDir / dir);
   }
   const std::string bundle = "'" + kApp.string() + "'";
   const std::string make = std::string(SAMPLE_BUNDLE_SCRIPT) + " " + bundle + " " SIGN_TOOL
                            " " SIGNING_IDENTITY " '" SANDBOX_OPENER "' '" SANDBOX_DAEMON "' "
                            SAMPLE_PROGRAM " " SAMPLE_LIBRARY " " +
                            std::to_string(kPadMib) + " && chown -R nobody " + bundle;
   if (system(make.c_str()) != 0 || chown(kOpener.c_str(), 0, 0) != 0 ||
       chmod(kOpener.c_str(), 04755) != 0) {
      return "cannot make the sample bundle";
   }
   return Openers(1) ? nullptr : "the first opener failed";
}

}  // namespace

int main(int argc, char **argv) {
   benchmark::Initialize(&argc, argv);
   if (const char *why = SetUpSandbox()) {
      fprintf(stderr, "coldstart_benchmark: %s\n", why);
      return 1;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   StopDaemons();
   return 0;
}
