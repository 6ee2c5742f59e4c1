// Daemon launch observed from outside: the probe program runs as the daemon,
// reports its process ID on a kept pipe and lives until the test closes
// another one, while the test reads its state from /proc.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include "child.h"
#include "hostinfo.h"

using halcyx::test::ChildResult;
using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace fs = std::filesystem;

namespace {

std::set<int> OpenFds(pid_t pid) {
   std::set<int> fds;
   for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
      fds.insert(std::stoi(entry.path().filename()));
   }
   return fds;
}

// Parent, process group and session of pid.
struct Lineage {
   pid_t ppid, pgrp, session;
};

Lineage LineageOf(pid_t pid) {
   std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
   std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
   std::istringstream fields(text.substr(text.rfind(')') + 2));
   char state;
   Lineage l{};
   fields >> state >> l.ppid >> l.pgrp >> l.session;
   return l;
}

std::string ReadFile(const std::string &path) {
   std::ifstream in(path);
   return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class Daemonize : public ::testing::Test {
protected:
   void SetUp() override {
      std::string pattern = (fs::temp_directory_path() / "halcyx-daemonize-XXXXXX").string();
      ASSERT_NE(mkdtemp(pattern.data()), nullptr);
      dir_ = pattern;
   }

   void TearDown() override {
      ClosePipes();
      fs::remove_all(dir_);
   }

   // The pipes to one daemon. Close-on-exec here, like every descriptor of
   // ours: being kept must override that in the daemon.
   void OpenPipes() {
      ClosePipes();
      ASSERT_EQ(pipe2(report_, O_CLOEXEC), 0);
      ASSERT_EQ(pipe2(hold_, O_CLOEXEC), 0);
      kept_ = {report_[1], hold_[0]};
   }

   void ClosePipes() {
      CloseKept();
      for (int *fd : {&report_[0], &hold_[1]}) {
         close(*fd);
         *fd = -1;
      }
   }

   // Our copies of the daemon's ends.
   void CloseKept() {
      for (int *fd : {&report_[1], &hold_[0]}) {
         close(*fd);
         *fd = -1;
      }
   }

   bool Launch(uint32_t flags, const char *pidPath, const char *program = PROBE_PATH) {
      std::string reportFd = std::to_string(kept_[0]);
      std::string holdFd = std::to_string(kept_[1]);
      const char *args[] = {"process_probe", "daemon", reportFd.c_str(), holdFd.c_str(),
                            nullptr};
      bool started = Hostinfo_Daemonize(program, args, flags, pidPath, kept_.data(), 2);
      int error = errno;
      CloseKept();
      errno = error;
      return started;
   }

   // The daemon's process ID, or 0 when no daemon ever wrote to the pipe
   // (end-of-file once every copy of its write end is gone).
   pid_t ReportedPid() {
      char text[32] = {};
      ssize_t n = read(report_[0], text, sizeof text - 1);
      return n > 0 ? static_cast<pid_t>(atol(text)) : 0;
   }

   // Lets the daemon end and waits until it has.
   void Release() {
      close(hold_[1]);
      hold_[1] = -1;
      char c;
      while (read(report_[0], &c, 1) > 0) {
      }
   }

   fs::path dir_;
   int report_[2] = {-1, -1};
   int hold_[2] = {-1, -1};
   std::vector<int> kept_;
};

TEST_F(Daemonize, DaemonKeepsOnlyTheListedDescriptorsAndRunsDetached) {
   struct Case {
      uint32_t flags;
      bool pidFile;
   } cases[] = {
      {0, false},
      {HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOSETSID, true},
      {HOSTINFO_DAEMONIZE_LOCKPID, true},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(testing::Message() << "flags " << c.flags);
      OpenPipes();
      // An inheritable descriptor that is not listed must not survive.
      int stray = open("/dev/null", O_RDONLY);
      std::string pidPath = (dir_ / "daemon.pid").string();
      ASSERT_TRUE(Launch(c.flags, c.pidFile ? pidPath.c_str() : nullptr));
      close(stray);
      pid_t pid = ReportedPid();
      ASSERT_GT(pid, 0);

      bool locked = (c.flags & HOSTINFO_DAEMONIZE_LOCKPID) != 0;
      std::set<int> fds = OpenFds(pid);
      for (int fd : {0, 1, 2, kept_[0], kept_[1]}) {
         EXPECT_TRUE(fds.count(fd)) << fd;
      }
      EXPECT_EQ(fds.size(), locked ? 6u : 5u) << "only the PID file may be open besides";

      Lineage l = LineageOf(pid);
      EXPECT_NE(l.ppid, getpid());
      EXPECT_NE(l.session, pid) << "the daemon leads its session";
      bool detached = (c.flags & HOSTINFO_DAEMONIZE_NOSETSID) == 0;
      EXPECT_EQ(l.session != getsid(0), detached);
      std::string procDir = "/proc/" + std::to_string(pid);
      for (int fd : {0, 1, 2}) {
         std::string name = "/fd/" + std::to_string(fd);
         EXPECT_EQ(fs::read_symlink(procDir + name),
                   detached ? fs::path("/dev/null") : fs::read_symlink("/proc/self" + name));
      }
      EXPECT_EQ(fs::read_symlink(procDir + "/cwd"),
                (c.flags & HOSTINFO_DAEMONIZE_NOCHDIR) ? fs::current_path() : fs::path("/"));
      if (c.pidFile) {
         EXPECT_EQ(ReadFile(pidPath), std::to_string(pid) + "\n");
         int other = open(pidPath.c_str(), O_RDONLY | O_CLOEXEC);
         EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB) != 0, locked);
         close(other);
      }
      Release();
      fs::remove(pidPath);
   }
}

TEST_F(Daemonize, FailuresStartNothingAndSayWhy) {
   std::string pidPath = (dir_ / "daemon.pid").string();
   std::string lockedPath = (dir_ / "locked.pid").string();
   std::ofstream(lockedPath) << "1\n";
   int holder = open(lockedPath.c_str(), O_RDONLY | O_CLOEXEC);
   ASSERT_EQ(flock(holder, LOCK_EX), 0);
   std::string noDir = (dir_ / "missing" / "daemon.pid").string();

   struct Case {
      const char *program;
      uint32_t flags;
      std::string pidPath;
      int error;
      std::string message;
      bool pidFileAfter;
   } cases[] = {
      {"/nonexistent/daemon", 0, pidPath, ENOENT,
       "Child could not exec /nonexistent/daemon, read 4, error 2.\n", false},
      {PROBE_PATH, HOSTINFO_DAEMONIZE_LOCKPID, lockedPath, EWOULDBLOCK,
       "Lock held on PID path [" + lockedPath + "], error 11, not daemonizing.\n", true},
      {PROBE_PATH, 0, noDir, ENOENT, "Couldn't open PID path [" + noDir + "], error 2.\n",
       false},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.message);
      OpenPipes();
      ChildResult r = RunInChild([&] {
         bool started = Launch(c.flags, c.pidPath.empty() ? nullptr : c.pidPath.c_str(),
                               c.program);
         _exit(started ? 0 : errno);
      });
      CloseKept();
      EXPECT_EQ(r.ExitCode(), c.error);
      EXPECT_EQ(LogEntries(r.out),
                std::vector<std::string>{"Warning: Hostinfo_Daemonize: " + c.message});
      Release();
      EXPECT_EQ(ReportedPid(), 0) << "a daemon started";
      if (!c.pidPath.empty()) {
         EXPECT_EQ(fs::exists(c.pidPath), c.pidFileAfter);
      }
   }
   EXPECT_EQ(ReadFile(lockedPath), "1\n");
   close(holder);
}

// Up to a million possible descriptors, as far as this host lets us raise
// the limit; the benchmark measures the cost.
TEST(DaemonizeLimits, ManyPossibleDescriptorsCostNothing) {
   ChildResult r = RunInChild([] {
      struct rlimit many;
      getrlimit(RLIMIT_NOFILE, &many);
      many.rlim_cur = many.rlim_max = 1 << 20;
      if (setrlimit(RLIMIT_NOFILE, &many) != 0) {
         getrlimit(RLIMIT_NOFILE, &many);
         many.rlim_cur = many.rlim_max;
         if (many.rlim_max < 10000 || setrlimit(RLIMIT_NOFILE, &many) != 0) {
            _exit(77);
         }
      }
      const char *args[] = {"true", nullptr};
      auto start = std::chrono::steady_clock::now();
      bool started = Hostinfo_Daemonize("/bin/true", args, 0, nullptr, nullptr, 0);
      auto elapsed = std::chrono::steady_clock::now() - start;
      _exit(!started ? 1 : elapsed > std::chrono::seconds(1) ? 2 : 0);
   });
   if (r.ExitCode() == 77) {
      GTEST_SKIP() << "cannot raise the descriptor limit to 10,000 or more";
   }
   EXPECT_EQ(r.ExitCode(), 0) << "1: not started, 2: slower than a second\n" << r.out;
}

TEST(ResetProcessState, ClosesAllButTheKeptAndRestoresDefaults) {
   struct Case {
      std::vector<int> keep;
      std::string alive;
   } cases[] = {
      {{}, ""},
      {{9, 5, 9, -1, 1000}, " 5 9 1000"},
      {{3, 4, 12}, " 3 4 12"},
   };
   for (const Case &c : cases) {
      ChildResult r = RunInChild([&] {
         std::vector<int> candidates = {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 1000, 1001};
         for (int fd : candidates) {
            dup2(STDERR_FILENO, fd);
         }
         signal(SIGTERM, SIG_IGN);
         struct itimerval tick = {{10, 0}, {10, 0}};
         setitimer(ITIMER_REAL, &tick, nullptr);

         int result = Hostinfo_ResetProcessState(c.keep.data(), c.keep.size());

         struct sigaction action;
         sigaction(SIGTERM, nullptr, &action);
         struct itimerval timer;
         getitimer(ITIMER_REAL, &timer);
         printf("%s%s%s", result == 0 ? "" : "failed ", action.sa_handler == SIG_DFL ? "" : "handler ",
                timer.it_value.tv_sec == 0 ? "" : "timer ");
         printf("alive");
         for (int fd : candidates) {
            if (fcntl(fd, F_GETFD) >= 0) {
               printf(" %d", fd);
            }
         }
      });
      EXPECT_EQ(r.out, "alive" + c.alive);
   }
}

}  // namespace
