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
// "nobody", each forked before its clock starts and released at a gate.
// Needs root. The times are wall clock, so compare them with
//   TIME=real scripts/bench-ratios.sh build/bench/coldstart_benchmark
#include <benchmark/benchmark.h>

#include <cerrno>
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
#include "sandbox_paths.h"

namespace fs = std::filesystem;

namespace {

using namespace halcyx::test::sandbox;
const fs::path kCopy = kDir / "copy.app";
constexpr uid_t kNobody = 65534;
constexpr int kPadMib = 100;

using Clock = std::chrono::steady_clock;

/*
 * Children are forked before the clock starts and held at a gate until it
 * opens, so a measurement holds the programs' own time and not this
 * process's fork loop: fork is serial in the parent, and on some virtual
 * machines it costs more than a whole hot opener.
 */
class Gate {
public:
   Gate() {
      if (pipe2(fds_, O_CLOEXEC) != 0) {
         fds_[0] = fds_[1] = -1;
      }
   }
   ~Gate() {
      Open();
      for (pid_t pid : pids_) {
         waitpid(pid, nullptr, 0);
      }
   }

   // Forks a child that waits at the gate, then runs args, as nobody when
   // asked, standard input and output on /dev/null.
   void Start(const std::vector<std::string> &args, bool asNobody) {
      pid_t pid = fork();
      if (pid != 0) {
         pids_.push_back(pid);
         return;
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
      close(fds_[1]);
      char byte;
      while (read(fds_[0], &byte, 1) < 0 && errno == EINTR) {
      }
      execve(argv[0], argv.data(), envp);
      _exit(127);
   }

   // Opens the gate, waits for every child and returns the seconds from
   // the opening to the last exit; *ok is false when any child failed.
   double Run(bool *ok) {
      auto start = Clock::now();
      Open();
      *ok = true;
      for (pid_t pid : pids_) {
         int status = 0;
         *ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
               WEXITSTATUS(status) == 0 && *ok;
      }
      pids_.clear();
      return std::chrono::duration<double>(Clock::now() - start).count();
   }

private:
   void Open() {
      for (int &fd : fds_) {
         if (fd >= 0) {
            close(fd);
            fd = -1;
         }
      }
   }

   int fds_[2];
   std::vector<pid_t> pids_;
};

// Runs count openers at once; the seconds they took, *ok false when any
// failed.
double Openers(int count, bool *ok) {
   Gate gate;
   for (int i = 0; i < count; i++) {
      gate.Start({kOpener.string(), "0"}, true);
   }
   return gate.Run(ok);
}

double Run(const std::vector<std::string> &args, bool *ok) {
   Gate gate;
   gate.Start(args, false);
   return gate.Run(ok);
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
      bool copied = false, hashed = false, rehashed = false;
      double seconds = Run({"/bin/cp", "-a", kApp.string(), kCopy.string()}, &copied);
      seconds += Run(Sha256Command(kApp), &hashed);
      seconds += Run(Sha256Command(kCopy), &rehashed);
      state.SetIterationTime(seconds);
      if (!copied || !hashed || !rehashed) {
         state.SkipWithError("cp or sha256sum failed");
         break;
      }
   }
}

void BM_ColdStartHalcyx(benchmark::State &state) {
   for (auto _ : state) {
      StopDaemons();
      bool ok = false;
      state.SetIterationTime(Openers(1, &ok));
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
      bool ok = false;
      double cold = Openers(1, &ok);
      // 100 hot openers' time: one after another, shared by the 2 cores
      // of the machine these figures are quoted for.
      double hot = 0;
      for (int i = 0; i < 100 && ok; i++) {
         hot += Openers(1, &ok);
      }
      state.SetIterationTime(cold + hot / 2);
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
      bool ok = false;
      state.SetIterationTime(Openers(100, &ok));
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
   bool ok = false;
   Openers(1, &ok);
   return ok ? nullptr : "the first opener failed";
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
