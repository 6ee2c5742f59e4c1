// SPDX-License-Identifier: MIT
// Daemon launch observed from outside: the probe runs as the daemon, reports
// its process ID on one kept pipe and lives until the test closes another,
// while the test reads its state from /proc.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include "child.h"
#include "hostinfo.h"
#include "temp_dir.h"

using namespace halcyx::test;
namespace fs = std::filesystem;

namespace {

std::string Slurp(const fs::path &path) {
   std::ifstream in(path);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

class Daemonize : public TempDirTest {
protected:
   void TearDown() override {
      Release();
      TempDirTest::TearDown();
   }

   // A fresh pair of pipes for the next daemon, all ends close-on-exec
   // here: being kept must override that in the daemon.
   void Pipes() {
      Release();
      ASSERT_EQ(pipe2(report_, O_CLOEXEC) | pipe2(hold_, O_CLOEXEC), 0);
      kept_[0] = kept_[2] = report_[1];  // the keep list need not be sorted or unique
      kept_[1] = hold_[0];
   }

   // Starts the probe as a daemon on the pipes, then closes the caller's
   // copies of the daemon's ends.
   bool Launch(uint32_t flags, const std::string &pidPath, const char *program = PROBE_PATH) {
      std::string reportFd = std::to_string(kept_[0]), holdFd = std::to_string(kept_[1]);
      const char *args[] = {"process_probe", "daemon", reportFd.c_str(), holdFd.c_str(), nullptr};
      bool started = Hostinfo_Daemonize(program, args, flags,
                                        pidPath.empty() ? nullptr : pidPath.c_str(), kept_, 4);
      int error = errno;
      close(kept_[0]);
      close(kept_[1]);
      errno = error;
      return started;
   }

   // The daemon's process ID, or 0 when none wrote to the pipe before every
   // copy of its write end was gone.
   pid_t ReportedPid() {
      char text[32] = {};
      return read(report_[0], text, sizeof text - 1) > 0 ? atoi(text) : 0;
   }

   // Lets the daemon end and waits until it has.
   void Release() {
      close(hold_[1]);
      char c;
      while (report_[0] >= 0 && read(report_[0], &c, 1) > 0) {
      }
      close(report_[0]);
      report_[0] = hold_[1] = -1;
   }

   int report_[2] = {-1, -1}, hold_[2] = {-1, -1}, kept_[4] = {-1, -1, -1, -1};
};

TEST_F(Daemonize, DaemonKeepsOnlyTheListedDescriptorsAndRunsDetached) {
   for (uint32_t flags : {0, HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOSETSID,
                          HOSTINFO_DAEMONIZE_LOCKPID}) {
      SCOPED_TRACE(testing::Message() << "flags " << flags);
      Pipes();
      int stray = open("/dev/null", O_RDONLY);  // inheritable, but not listed
      std::string pidPath = (dir_ / ("pid" + std::to_string(flags))).string();
      ASSERT_TRUE(Launch(flags, flags == 0 ? "" : pidPath));
      close(stray);
      pid_t pid = ReportedPid();
      ASSERT_GT(pid, 0);
      std::string proc = "/proc/" + std::to_string(pid);

      bool locked = flags & HOSTINFO_DAEMONIZE_LOCKPID;
      size_t listed = 0;
      for (const auto &entry : fs::directory_iterator(proc + "/fd")) {
         int fd = std::stoi(entry.path().filename());
         listed += fd <= 2 || fd == kept_[0] || fd == kept_[1];
         EXPECT_TRUE(fd <= 2 || fd == kept_[0] || fd == kept_[1] ||
                     (locked && fs::read_symlink(entry) == pidPath))
            << fd << " " << fs::read_symlink(entry);
      }
      EXPECT_EQ(listed, 5u);

      // Fields after the command: state, parent, process group, session.
      std::string stat = Slurp(proc + "/stat");
      std::istringstream fields(stat.substr(stat.rfind(')') + 2));
      char state;
      pid_t ppid, pgrp, session;
      fields >> state >> ppid >> pgrp >> session;
      EXPECT_NE(ppid, getpid());
      EXPECT_NE(session, pid) << "the daemon leads its session";
      bool detached = !(flags & HOSTINFO_DAEMONIZE_NOSETSID);
      EXPECT_EQ(session != getsid(0), detached);
      for (std::string fd : {"/fd/0", "/fd/1", "/fd/2"}) {
         EXPECT_EQ(fs::read_symlink(proc + fd),
                   detached ? "/dev/null" : fs::read_symlink("/proc/self" + fd));
      }
      EXPECT_EQ(fs::read_symlink(proc + "/cwd"),
                (flags & HOSTINFO_DAEMONIZE_NOCHDIR) ? fs::current_path() : "/");
      if (flags != 0) {
         EXPECT_EQ(Slurp(pidPath), std::to_string(pid) + "\n");
         int other = open(pidPath.c_str(), O_RDONLY | O_CLOEXEC);
         EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB) != 0, locked);
         close(other);
      }
      Release();
   }
}

// A caller whose own standard descriptors were closed gets its objects at 0
// to 2; kept there, they stay there, and only the unlisted 1 goes to
// /dev/null.
TEST_F(Daemonize, KeptStandardDescriptorsKeepTheirNumbers) {
   Pipes();
   ChildResult r = RunInChild([&] {
      if (dup2(report_[1], STDIN_FILENO) < 0 || dup2(hold_[0], STDERR_FILENO) < 0) _exit(3);
      kept_[0] = kept_[2] = STDIN_FILENO;
      kept_[1] = STDERR_FILENO;
      _exit(Launch(0, "") ? 0 : 1);
   });
   ASSERT_EQ(r.ExitCode(), 0) << r.out;
   close(report_[1]);
   close(hold_[0]);
   pid_t pid = ReportedPid();
   ASSERT_GT(pid, 0) << "the daemon got /dev/null for its kept descriptors";
   std::string proc = "/proc/" + std::to_string(pid) + "/fd/", self = "/proc/self/fd/";
   EXPECT_EQ(fs::read_symlink(proc + "0"), fs::read_symlink(self + std::to_string(report_[0])));
   EXPECT_EQ(fs::read_symlink(proc + "1"), "/dev/null");
   EXPECT_EQ(fs::read_symlink(proc + "2"), fs::read_symlink(self + std::to_string(hold_[1])));
}

// A kept number that names nothing in the caller is the next one free, so
// the launch's own status pipe takes it: it must not reach the daemon, or
// the caller waits for the daemon's end to learn that it started.
TEST_F(Daemonize, AKeptNumberThatNamedNothingPassesNothingOfTheLaunchs) {
   Pipes();
   ChildResult r = RunInChild([&] {
      int readEnd = dup(0), writeEnd = dup(0);
      close(readEnd);
      close(writeEnd);
      kept_[3] = writeEnd;
      alarm(5);
      _exit(Launch(0, "") ? 0 : 1);
   });
   close(report_[1]);
   close(hold_[0]);
   EXPECT_EQ(r.ExitCode(), 0) << "-1: still waiting after 5 s";
   EXPECT_GT(ReportedPid(), 0);
}

// Signals 1 to 32 go back to their default action; the real-time signals
// above keep the action the caller chose.
TEST(ResetProcessState, ResetsTheClassicSignalsOnly) {
   ChildResult r = RunInChild([] {
      const struct { int sig; bool reset; } cases[] = {{SIGHUP, true}, {SIGUSR1, true}, {SIGSYS, true},
                   {SIGRTMIN, false}, {SIGRTMIN + 5, false}, {SIGRTMAX, false}};
      for (const auto &c : cases) signal(c.sig, SIG_IGN);
      Hostinfo_ResetProcessState(nullptr, 0);
      for (const auto &c : cases) {
         struct sigaction now;
         if (sigaction(c.sig, nullptr, &now) != 0 ||
             (now.sa_handler == SIG_DFL) != c.reset) {
            _exit(c.sig);
         }
      }
   });
   EXPECT_EQ(r.ExitCode(), 0) << "the signal whose action is wrong";
}

TEST_F(Daemonize, FailuresStartNothingAndSayWhy) {
   std::string pidPath = (dir_ / "pid").string(), lockedPath = (dir_ / "locked").string();
   std::string noDir = (dir_ / "missing" / "pid").string();
   std::ofstream(lockedPath) << "1\n";
   int holder = open(lockedPath.c_str(), O_RDONLY | O_CLOEXEC);
   ASSERT_EQ(flock(holder, LOCK_EX), 0);
   struct Case { const char *program; uint32_t flags; std::string pidPath; int error; std::string message; } cases[] = {
      {"/nonexistent/daemon", 0, pidPath, ENOENT,
       "Child could not exec /nonexistent/daemon, read 4, error 2.\n"},
      {PROBE_PATH, HOSTINFO_DAEMONIZE_LOCKPID, lockedPath, EWOULDBLOCK,
       "Lock held on PID path [" + lockedPath + "], error 11, not daemonizing.\n"},
      {PROBE_PATH, 0, noDir, ENOENT, "Couldn't open PID path [" + noDir + "], error 2.\n"},
   };
   for (const Case &c : cases) {
      Pipes();
      ChildResult r = RunInChild([&] { _exit(Launch(c.flags, c.pidPath, c.program) ? 0 : errno); });
      close(kept_[0]);
      close(kept_[1]);
      EXPECT_EQ(r.ExitCode(), c.error);
      EXPECT_EQ(LogEntries(r.out),
                std::vector<std::string>{"Warning: Hostinfo_Daemonize: " + c.message});
      close(hold_[1]);
      hold_[1] = -1;
      EXPECT_EQ(ReportedPid(), 0) << "a daemon started: " << c.message;
      // A failed start removes its PID file, never one that is locked.
      EXPECT_EQ(fs::exists(c.pidPath), c.pidPath == lockedPath) << c.message;
   }
   EXPECT_EQ(Slurp(lockedPath), "1\n");
   close(holder);
}

// Up to a million possible descriptors, as far as the host lets us raise the
// limit; the benchmark measures the cost.
TEST(DaemonizeLimits, ManyPossibleDescriptorsCostNothing) {
   ChildResult r = RunInChild([] {
      struct rlimit many = {1 << 20, 1 << 20};
      if (setrlimit(RLIMIT_NOFILE, &many) != 0) {
         getrlimit(RLIMIT_NOFILE, &many);
         many.rlim_cur = many.rlim_max;
         if (many.rlim_max < 10000 || setrlimit(RLIMIT_NOFILE, &many) != 0) _exit(77);
      }
      const char *args[] = {"true", nullptr};
      auto start = std::chrono::steady_clock::now();
      bool started = Hostinfo_Daemonize("/bin/true", args, 0, nullptr, nullptr, 0);
      _exit(!started ? 1 : std::chrono::steady_clock::now() - start > std::chrono::seconds(1) ? 2 : 0);
   });
   if (r.ExitCode() == 77) GTEST_SKIP() << "cannot raise the descriptor limit to 10,000 or more";
   EXPECT_EQ(r.ExitCode(), 0) << "1: not started, 2: slower than a second\n" << r.out;
}

}  // namespace
