// SPDX-License-Identifier: MIT
// The real opener, installed set-user-ID root in a copy of the signed sample
// bundle (owned by "nobody"), started by "nobody" as the product starts it:
// cold starts that rebuild the Services tree and start the reference
// daemon from it, and rendezvous with a daemon scripted by the test.
//
// The opener and daemon come from a sandbox build whose fixed paths all lie
// under SANDBOX_DIR. This process moves into a private mount namespace with
// a private /tmp (the source and build trees stay visible when they lie
// under /tmp) and covers that directory with a fresh tmpfs for every test,
// so nothing reaches the host; it is also the subreaper of everything it
// starts, so the daemons (which detach from the openers) are its children
// and die with each test.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <fstream>
#include <poll.h>
#include <pwd.h>
#include <regex>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

#include "private_tmp.h"
#include "sandbox_paths.h"
#include "serviceProtocol.h"
#include SANDBOX_CONFIG  // the sandbox opener's build constants

namespace fs = std::filesystem;

namespace {

using namespace halcyx::test::sandbox;

// Runs a shell command line; its exit status.
int Sh(const std::string &command) {
   int status = system(command.c_str());
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Quote(const fs::path &path) { return "'" + path.string() + "'"; }

void Sign(const fs::path &path, const std::string &identifier, const char *identity = SIGNING_IDENTITY) {
   ASSERT_EQ(Sh(std::string(SIGN_TOOL) + " -f -s " + identity + " -i '" + identifier + "' " +
                Quote(path) + " 2>/dev/null"),
             0);
}

std::string Slurp(const fs::path &path) {
   std::ifstream in(path);
   return {std::istreambuf_iterator<char>(in), {}};
}

struct FileId {
   dev_t dev;
   ino_t ino;
};

FileId IdOf(int fd) {
   struct stat st = {};
   fstat(fd, &st);
   return {st.st_dev, st.st_ino};
}

class SandboxedOpener : public ::testing::Test {
protected:
   static void SetUpTestSuite() {
      const struct passwd *nobody = getpwnam("nobody");
      if (geteuid() != 0 || nobody == nullptr) {
         sSkip = "needs root and the user nobody";
      } else if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || unshare(CLONE_NEWNS) != 0 ||
                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                 // A private /tmp: the sandbox directory never exists on the host.
                 !halcyx::test::CoverTmpKeeping({PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR}) ||
                 mkdir(kDir.c_str(), 0755) != 0) {
         sSkip = "cannot make a private mount namespace";
      } else {
         sNobody = nobody->pw_uid;
      }
   }

   void SetUp() override {
      if (!sSkip.empty()) {
         GTEST_SKIP() << sSkip;
      }
      ASSERT_EQ(mount("halcyx-test", kDir.c_str(), "tmpfs", 0, "mode=0755"), 0) << errno;
      for (const fs::path &dir : {kHost, kDir / "run", kDir / "log"}) {
         fs::create_directories(dir);
      }
      // The user's bundle: theirs, with modes the tree must not inherit.
      ASSERT_EQ(Sh("cp -a '" SAMPLE_BUNDLE "' " + Quote(kApp) + " && chown -R nobody " +
                   Quote(kApp) + " && find " + Quote(kApp / "Contents") +
                   " -type f -exec chmod 0700 {} +"),
                0);
      ASSERT_EQ(chown(kOpener.c_str(), 0, 0), 0);
      ASSERT_EQ(chmod(kOpener.c_str(), 04755), 0);
   }

   void TearDown() override {
      if (!sSkip.empty()) {
         return;
      }
      // Everything still running is ours: daemons were reparented to us.
      for (;;) {
         std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
         pid_t pid;
         bool any = false;
         while (children >> pid) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            any = true;
         }
         if (!any) {
            break;
         }
      }
      umount2(kDir.c_str(), MNT_DETACH);
   }

   // Starts the installed opener as nobody with args; fds maps the caller's
   // descriptors (source, number in the opener); stdin is /dev/null unless
   // mapped, stdout goes to the file *out when given.
   pid_t Spawn(std::vector<std::string> args, std::vector<std::pair<int, int>> fds = {},
               fs::path *out = nullptr, std::vector<std::string> env = {},
               uid_t user = sNobody) {
      std::string uid = "--reuid=" + std::to_string(user);
      std::vector<std::string> all = {"/usr/bin/setpriv", uid, "--regid=65534", "--clear-groups",
                                      "--", kOpener};
      all.insert(all.end(), args.begin(), args.end());
      env.push_back("PATH=/usr/bin:/bin");
      // A set-user-ID process cannot be stopped for leak checking.
      env.push_back("ASAN_OPTIONS=detect_leaks=0");

      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
      if (out != nullptr) {
         *out = kDir / ("out" + std::to_string(sSpawned++));
         posix_spawn_file_actions_addopen(&actions, 1, out->c_str(), O_WRONLY | O_CREAT, 0644);
      }
      for (auto [from, to] : fds) {
         posix_spawn_file_actions_adddup2(&actions, from, to);
      }
      // Whatever this process inherited stays out of the caller.
      for (int fd = 3; fd < 64; fd++) {
         if (std::none_of(fds.begin(), fds.end(), [fd](auto m) { return m.second == fd; })) {
            posix_spawn_file_actions_addclose(&actions, fd);
         }
      }
      pid_t pid = -1;
      int rc = posix_spawn(&pid, all[0].c_str(), &actions, nullptr, Argv(all).data(),
                           Argv(env).data());
      posix_spawn_file_actions_destroy(&actions);
      EXPECT_EQ(rc, 0) << "cannot start setpriv";
      return pid;
   }

   static std::vector<char *> Argv(std::vector<std::string> &strings) {
      std::vector<char *> v;
      for (auto &s : strings) {
         v.push_back(s.data());
      }
      v.push_back(nullptr);
      return v;
   }

   static int Wait(pid_t pid) {
      int status = 0;
      waitpid(pid, &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   // Wait for at most the given seconds; -2 when pid still runs then.
   static int WaitBriefly(pid_t pid, int seconds = 5) {
      int status = 0;
      for (int i = 0; i < seconds * 20; i++, usleep(50000)) {
         if (waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
         }
      }
      return -2;
   }

   // The matches of re in the daemon's log (each as its whole text and its
   // groups), waiting up to 5 s for at least n of them.
   static std::vector<std::vector<std::string>> DaemonLog(const std::string &re, size_t n = 0) {
      std::vector<std::vector<std::string>> found;
      const std::regex pattern(re);
      for (int i = 0; i < 100; i++) {
         std::string text = Slurp(kDaemonLog);
         found.clear();
         for (auto it = std::sregex_iterator(text.begin(), text.end(), pattern);
              it != std::sregex_iterator(); ++it) {
            found.emplace_back(it->begin(), it->end());
         }
         if (found.size() >= n) {
            break;
         }
         usleep(50000);
      }
      return found;
   }

   static pid_t DaemonPid() {
      auto started = DaemonLog("started, pid ([0-9]+)", 1);
      return started.size() == 1 ? std::stoi(started[0][1]) : -1;
   }

   static inline std::string sSkip;
   static inline uid_t sNobody;
   static inline int sSpawned;
};

// What the daemon logs about the descriptor it received from pid, handed
// over while the opener ran as the caller.
std::string Passed(pid_t pid, uid_t caller) {
   std::string uid = std::to_string(caller);
   return "pid " + std::to_string(pid) + " \\(uid " + uid + ", euid " + uid +
          "\\) passed a ([a-z ]+), device ([0-9]+), inode ([0-9]+)";
}

TEST_F(SandboxedOpener, StartsTheDaemonWhenNobodyListens) {
   struct Case {
      const char *name;
      bool staleSocket;
   };
   for (const Case &c : {Case{"no socket file", false}, Case{"stale socket file", true}}) {
      SCOPED_TRACE(c.name);
      TearDown();
      SetUp();
      if (c.staleSocket) {
         int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
         struct sockaddr_un addr = {AF_UNIX, {}};
         strcpy(addr.sun_path, kSock.c_str());
         ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
         close(s);
      }
      EXPECT_EQ(Wait(Spawn({"0"})), 0);
      EXPECT_EQ(DaemonLog("started, pid").size(), 1u);
   }
}

TEST_F(SandboxedOpener, DescriptorModeHandsOverTheCallersOwnObject) {
   int file = open((kDir / "note").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
   int input = open(kOpener.c_str(), O_RDONLY | O_CLOEXEC);
   struct Case {
      std::string arg;
      std::vector<std::pair<int, int>> fds;
      int expectedFd;  // the caller's descriptor the daemon must get; -1: none
   };
   const Case cases[] = {
      {"5", {{file, 5}}, file},     // cold start: this one starts the daemon
      {"abc", {{input, 0}}, input}, // not a number: descriptor 0
      {"-1", {}, -1},
      {"7", {{file, 5}}, -1},       // closed in the caller
      {"3", {}, -1},                // closed, and the number of the opener's first socket
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.arg);
      fs::path out;
      pid_t pid = Spawn({c.arg}, c.fds, &out);
      int status = Wait(pid);
      auto passed = DaemonLog(Passed(pid, sNobody));
      if (c.expectedFd < 0) {
         EXPECT_EQ(status, 1);
         EXPECT_TRUE(passed.empty()) << passed[0][0];
         EXPECT_NE(Slurp(out).find("Warning: ServiceImplSendFd: sendmsg errno " +
                                   std::to_string(EBADF) + ".\n"),
                   std::string::npos)
            << Slurp(out);
         continue;
      }
      EXPECT_EQ(status, 0) << Slurp(out);
      ASSERT_EQ(passed.size(), 1u);
      FileId id = IdOf(c.expectedFd);
      EXPECT_EQ(passed[0][2], std::to_string(id.dev));
      EXPECT_EQ(passed[0][3], std::to_string(id.ino));
   }
   EXPECT_EQ(DaemonLog("started, pid").size(), 1u);
   EXPECT_NE(Slurp(kDir / "note").find("received this descriptor from pid"), std::string::npos);
   // Socket and lock were made as root.
   for (const fs::path &p : {kLock, kSock}) {
      struct stat st;
      ASSERT_EQ(lstat(p.c_str(), &st), 0);
      EXPECT_EQ(st.st_uid, 0u) << p;
      EXPECT_EQ(st.st_mode & 07777, 0600u) << p;
   }
   close(file);
   close(input);
}

// The daemon here is a plain sleep: it keeps exactly what it inherited,
// while the opener waits for a greeting that never comes.
TEST_F(SandboxedOpener, DaemonInheritsOnlyItsSocketAndPipeAndNoScrubbedVariables) {
   fs::copy_file("/bin/sleep", kApp / kDaemonSub, fs::copy_options::overwrite_existing);
   Sign(kApp / kDaemonSub, "Zorvex Halcyx Services");
   pid_t opener = Spawn({"0"}, {}, nullptr,
                        {"BASH_ENV=/x", "ENV=/y", "SHELLOPTS=xtrace", "FN=() { :; }", "KEEP=1"});
   fs::path proc;
   for (int i = 0; i < 100 && proc.empty(); i++, usleep(50000)) {
      std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
      for (pid_t pid; children >> pid;) {
         std::error_code ec;
         if (pid != opener && fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec) == kDaemon) {
            proc = "/proc/" + std::to_string(pid);
         }
      }
   }
   ASSERT_FALSE(proc.empty()) << "no daemon started";

   std::istringstream cmdline(Slurp(proc / "cmdline"));
   std::vector<std::string> args(4);
   for (std::string &arg : args) {
      std::getline(cmdline, arg, '\0');
   }
   EXPECT_EQ(args[0], kDaemon);
   std::map<std::string, std::string> fds;
   for (const auto &entry : fs::directory_iterator(proc / "fd")) {
      fds[entry.path().filename()] = fs::read_symlink(entry.path());
   }
   ASSERT_EQ(fds.size(), 5u);
   for (const char *stdio : {"0", "1", "2"}) {
      EXPECT_EQ(fds[stdio], "/dev/null") << stdio;
   }
   EXPECT_TRUE(fds[args[1]].starts_with("socket:")) << args[1] << " " << fds[args[1]];
   EXPECT_TRUE(fds[args[2]].starts_with("pipe:")) << args[2] << " " << fds[args[2]];
   EXPECT_EQ(args[3], "");

   std::smatch m;
   std::string status = Slurp(proc / "status");
   ASSERT_TRUE(std::regex_search(status, m, std::regex("Uid:\t([0-9]+)\t([0-9]+)")));
   EXPECT_EQ(m[1], std::to_string(sNobody)) << "real user: the caller";
   EXPECT_EQ(m[2], "0") << "effective user: root";

   std::string environ = std::string(1, '\0') + Slurp(proc / "environ");
   EXPECT_NE(environ.find(std::string(1, '\0') + "KEEP=1"), std::string::npos);
   for (const char *scrubbed : {"BASH_ENV=", "ENV=", "SHELLOPTS=", "FN="}) {
      EXPECT_EQ(environ.find(std::string(1, '\0') + scrubbed), std::string::npos) << scrubbed;
   }
}

TEST_F(SandboxedOpener, HundredColdOpenersStartExactlyOneDaemon) {
   int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
   ASSERT_GE(inotify_add_watch(watch, (kDir / "run").c_str(), IN_DELETE | IN_MOVED_FROM), 0);
   std::vector<pid_t> openers;
   for (int i = 0; i < 100; i++) {
      openers.push_back(Spawn({"0"}));
   }
   for (pid_t pid : openers) {
      EXPECT_EQ(Wait(pid), 0) << pid;
   }
   EXPECT_EQ(DaemonLog("started, pid").size(), 1u);
   EXPECT_EQ(DaemonLog("passed a", 100).size(), 100u);
   std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
   std::vector<pid_t> left{std::istream_iterator<pid_t>(children), {}};
   EXPECT_EQ(left, std::vector<pid_t>{DaemonPid()});

   alignas(struct inotify_event) char events[4096];
   ssize_t n = read(watch, events, sizeof events);
   for (ssize_t at = 0; at < n;) {
      auto *e = reinterpret_cast<struct inotify_event *>(events + at);
      EXPECT_NE(std::string(e->len ? e->name : ""), kLock.filename()) << "lock file removed";
      at += sizeof *e + e->len;
   }
   EXPECT_TRUE(fs::exists(kLock));
   close(watch);
}

TEST_F(SandboxedOpener, ShellModePipeEndsExactlyWhenTheOpenerDies) {
   pid_t opener = Spawn({});
   ASSERT_EQ(DaemonLog("watching the liveness pipe of pid " + std::to_string(opener), 1).size(),
             1u);
   // It started the daemon, and its rendezvous is over: the watch pipe ends
   // although the opener lives on.
   EXPECT_EQ(DaemonLog("the opener that started this daemon has finished", 1).size(), 1u);
   usleep(300000);
   const std::string closed = "liveness pipe of pid " + std::to_string(opener) + " closed";
   EXPECT_TRUE(DaemonLog(closed).empty()) << "pipe ended while the opener lived";
   kill(opener, SIGKILL);
   Wait(opener);
   EXPECT_EQ(DaemonLog(closed, 1).size(), 1u);
}

// The daemon started for one user serves them all: its first caller can
// neither signal it, nor starve it through the limits it started with, nor
// hold every session.
TEST_F(SandboxedOpener, NoUserCanStopStarveOrCrowdOutTheDaemon) {
   struct rlimit saved;
   ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
   const struct rlimit eight = {8, saved.rlim_max};
   ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &eight), 0);
   fs::path out;
   pid_t first = Spawn({"0"}, {}, &out);
   ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
   ASSERT_EQ(Wait(first), 0) << Slurp(out);
   pid_t daemon = DaemonPid();
   ASSERT_GT(daemon, 0);

   const fs::path proc = "/proc/" + std::to_string(daemon);
   std::string status = Slurp(proc / "status");
   EXPECT_NE(status.find("\nUid:\t0\t0\t0\t0\n"), std::string::npos) << status;
   EXPECT_NE(status.find("\nGid:\t0\t0\t0\t0\n"), std::string::npos) << status;
   std::smatch m;
   std::string limits = Slurp(proc / "limits");
   ASSERT_TRUE(std::regex_search(limits, m, std::regex("Max open files +([0-9]+)")));
   EXPECT_GE(std::stoul(m[1]), 1024u);
   pid_t signaller = fork();
   if (signaller == 0) {
      _exit(setresuid(sNobody, sNobody, sNobody) == 0 && kill(daemon, SIGSTOP) != 0 &&
                  errno == EPERM
               ? 0
               : 1);
   }
   EXPECT_EQ(Wait(signaller), 0) << "the first caller's user could stop the daemon";

   // One user's shell-mode callers fill that user's 64 sessions; the next
   // one of the same user is refused, another user's is served.
   const int perUser = 64;
   for (int i = 0; i < perUser; i++) {
      Spawn({});
   }
   EXPECT_EQ(DaemonLog("watching the liveness pipe", perUser).size(), size_t{perUser});
   EXPECT_EQ(WaitBriefly(Spawn({})), 1) << "a session over the user's share";
   pid_t other = Spawn({}, {}, nullptr, {}, sNobody - 1);
   EXPECT_EQ(DaemonLog("watching the liveness pipe of pid " + std::to_string(other), 1).size(),
             1u);
}

// Whether some process holds the lock file's lock within 5 s.
bool LockTaken() {
   int fd = open(kLock.c_str(), O_RDONLY | O_CLOEXEC);
   bool taken = false;
   for (int i = 0; i < 500 && fd >= 0 && !taken; i++) {
      taken = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
      if (!taken) {
         flock(fd, LOCK_UN);
         usleep(10000);
      }
   }
   close(fd);
   return taken;
}

// Every opener waits on the lock, so its holder is out of its caller's
// reach: the sandbox's pausing user plays a caller who sends SIGSTOP to its
// opener while that holds the lock, and another user's opener still runs.
TEST_F(SandboxedOpener, ACallerCannotStopItsOpenerWhileItHoldsTheLock) {
   ASSERT_EQ(Wait(Spawn({"0"})), 0) << "no daemon";
   const uid_t attacker = HALCYX_TEST_PAUSE_UID;
   pid_t holder = Spawn({"0"}, {}, nullptr, {}, attacker);
   ASSERT_TRUE(LockTaken());
   pid_t signaller = fork();
   if (signaller == 0) {
      _exit(setresuid(attacker, attacker, attacker) == 0 && kill(holder, SIGSTOP) != 0 &&
                  errno == EPERM
               ? 0
               : 1);
   }
   EXPECT_EQ(Wait(signaller), 0) << "the caller stopped its opener holding the lock";
   EXPECT_EQ(WaitBriefly(Spawn({"0"})), 0) << "another user's opener did not finish";
   EXPECT_EQ(WaitBriefly(holder), 0);
}

// The wait for the lock and a connect that blocks under it end after the
// bound, as a failed open or connect.
TEST_F(SandboxedOpener, WaitsUnderTheLockEndAfterTheBound) {
   for (const std::string failure : {"open", "connect"}) {
      SCOPED_TRACE(failure);
      std::vector<int> held;  // a stuck lock holder, or a listener never accepting
      if (failure == "open") {
         held.push_back(open(kLock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
         ASSERT_EQ(flock(held[0], LOCK_EX), 0);
      } else {
         struct sockaddr_un addr = {AF_UNIX, {}};
         strcpy(addr.sun_path, kSock.c_str());
         held.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
         ASSERT_EQ(bind(held[0], reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
         ASSERT_EQ(listen(held[0], 0), 0);
         do {  // fill its queue
            held.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
         } while (connect(held.back(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0);
         ASSERT_EQ(errno, EAGAIN);
      }
      fs::path out;
      auto start = std::chrono::steady_clock::now();
      int status = WaitBriefly(Spawn({"0"}, {}, &out), HALCYX_RENDEZVOUS_BOUND_SECONDS + 3);
      std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
      EXPECT_EQ(status, 1) << "-2: still waiting";
      EXPECT_GE(waited.count(), HALCYX_RENDEZVOUS_BOUND_SECONDS - 0.1);
      EXPECT_NE(Slurp(out).find("Warning: ServiceImplPickSockSide: " + failure + " errno " +
                                std::to_string(EAGAIN) + ".\n"),
                std::string::npos)
         << Slurp(out);
      for (int fd : held) {
         close(fd);
      }
      unlink(kSock.c_str());
   }
}

// The test plays the daemon: it listens on the socket before the opener
// runs, then follows one script per case.
TEST_F(SandboxedOpener, FollowsTheDaemonsScript) {
   struct Case {
      const char *name;
      int closesBeforeGreeting;
      int verdict;  // -1: end-of-file instead of a verdict
      int status;
   };
   const Case cases[] = {
      {"daemon already listening", 0, '1', 0},
      {"closes before greeting, three times", 3, '1', 0},
      {"verdict other than 1", 0, '0', 1},
      {"end-of-file instead of a verdict", 0, -1, 1},
   };
   int file = open((kDir / "note").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
   for (const Case &c : cases) {
      SCOPED_TRACE(c.name);
      unlink(kSock.c_str());
      int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      struct sockaddr_un addr = {AF_UNIX, {}};
      strcpy(addr.sun_path, kSock.c_str());
      ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
      ASSERT_EQ(listen(listener, 8), 0);

      bool received = false;
      FileId got = {};
      std::thread daemon([&] {
         for (int i = 0; i < c.closesBeforeGreeting; i++) {
            close(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
         }
         int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
         int fd = -1;
         if (ServiceImplWriteOne(conn, 'G') && ServiceImplRecvFd(conn, &fd)) {
            received = true;
            got = IdOf(fd);
            close(fd);
            if (c.verdict >= 0) {
               ServiceImplWriteOne(conn, c.verdict);
            }
         }
         close(conn);
      });
      EXPECT_EQ(Wait(Spawn({"5"}, {{file, 5}})), c.status);
      daemon.join();
      close(listener);
      EXPECT_TRUE(received);
      EXPECT_EQ(got.ino, IdOf(file).ino);
   }
   EXPECT_FALSE(fs::exists(kDaemonLog)) << "no daemon may have been started";
   close(file);
}

// The components the tree is built from, in the order they are copied.
struct Component {
   const char *subPath;
   mode_t mode;
};
constexpr Component kComponents[] = {
   {"Contents/Library/zorvex-id", 0755},
   {"Contents/Library/zxnet-bridge", 0755},
   {"Contents/Library/zxnet-cfgcli", 0755},
   {"Contents/Library/zxnet-cli", 0755},
   {"Contents/Library/zxnet-dhcpd", 0755},
   {"Contents/Library/zxnet-natd", 0755},
   {"Contents/Library/zxnet-netifup", 0755},
   {"Contents/Library/zxnet-sniffer", 0755},
   {"Contents/Library/zorvex-usbarbitrator", 0755},
   {"Contents/Library/productInfo", 0644},
   {"Contents/Library/services/Zorvex Halcyx Services", 0755},
   {"Contents/Library/services/services.sh", 0755},
   {"Contents/Library/services/Open Zorvex USB Arbitrator Service", 0755},
   {"Contents/Library/services/Zorvex USB Arbitrator Service", 0755},
   {"Contents/Library/services/usbarbService.sh", 0755},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper", 0755},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper.plist", 0644},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper", 0755},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper.plist", 0644},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper", 0755},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper.plist", 0644},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper", 0755},
   {"Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper.plist", 0644},
   {"Contents/Frameworks/libpng16.16.dylib", 0644},
   {"Contents/Frameworks/libssl.3.dylib", 0644},
   {"Contents/Frameworks/libcrypto.3.dylib", 0644},
   {"Contents/Frameworks/libzorvexbase.dylib", 0644},
   {"Contents/Frameworks/libnetcfg.dylib", 0644},
};

// Cold starts from the bundle: what ends in the tree and the product file,
// which daemon runs, and what a bad component or an unsafe directory stops.
// Every failing case is followed by a cold start that recovers once the
// bundle or the directory is put right.
TEST_F(SandboxedOpener, ColdStartBuildsTheTreeFromVerifiedComponentsOnly) {
   const fs::path parent = kProductFile.parent_path();
   const fs::path temporary = kProductFile.string() + ".tmp";
   const fs::path unsafe = kHost.parent_path();
   struct Case {
      const char *name;
      std::function<void()> prepare;  // on the fresh sandbox
      int failingRow;                 // -1: the cold start succeeds
      std::string log;                // expected in the opener's output
      std::function<void()> repair;
   };
   auto row = [](int i) { return kApp / kComponents[i].subPath; };
   auto restore = [&](int i) {
      return [&, i] {
         ASSERT_EQ(Sh("cp -a '" SAMPLE_BUNDLE "/" + std::string(kComponents[i].subPath) + "' " +
                      Quote(row(i))),
                   0);
      };
   };
   auto refused = [&](int i, int code) {
      return "PrivilegedHelper: Failed to verify the code signature of " + row(i).string() +
             " due to " + std::to_string(code);
   };
   const Case cases[] = {
      {"product-file parent is a plain file",
       [&] {
          fs::create_directories(parent.parent_path());
          std::ofstream(parent) << "x";
       },
       -1, "", nullptr},
      {"older record and a read-only leftover temporary record",
       [&] {
          fs::create_directories(parent);
          std::ofstream(kProductFile) << "/an/older/root/much/longer/than/this/one\n";
          std::ofstream(temporary) << "half";
          chmod(temporary.c_str(), 0444);
       },
       -1, "", nullptr},
      {"component missing", [&] { fs::remove(row(10)); }, 10, refused(10, 3), restore(10)},
      {"component unsigned",
       [&] { ASSERT_EQ(Sh(std::string(SIGN_TOOL) + " --remove-signature " + Quote(row(4))), 0); },
       4, refused(4, 7), restore(4)},
      {"signed for another identifier",
       [&] { Sign(row(16), "com.zorvex.halcyx.diskhelper"); }, 16, refused(16, 7), restore(16)},
      {"signed by another organisation", [&] { Sign(row(27), "libnetcfg", OTHER_IDENTITY); }, 27,
       refused(27, 7), restore(27)},
      {"directory above the host directory open to others",
       [&] {
          fs::create_directories(kTree / "kept");
          chmod(unsafe.c_str(), 0777);
       },
       0, "Warning: ServiceImplPrepareDaemon: " + kHost.string() + " or a directory above it",
       [&] { chmod(unsafe.c_str(), 0755); }},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.name);
      TearDown();
      SetUp();
      c.prepare();
      int note = open((kDir / "note").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
      fs::path out;
      int status = Wait(Spawn({"5"}, {{note, 5}}, &out));
      close(note);
      EXPECT_NE(Slurp(out).find(c.log), std::string::npos) << Slurp(out);
      if (c.failingRow >= 0) {
         EXPECT_EQ(status, 1);
         EXPECT_FALSE(fs::exists(kDaemonLog)) << "a daemon started";
         if (c.failingRow == 0) {  // refused before anything was touched
            EXPECT_TRUE(fs::exists(kTree / "kept"));
            EXPECT_FALSE(fs::exists(kProductFile));
         }
         for (int i = 0; i < static_cast<int>(std::size(kComponents)); i++) {
            EXPECT_EQ(fs::exists(kTree / kComponents[i].subPath), i < c.failingRow) << i;
         }
         c.repair();
         status = Wait(Spawn({"0"}, {}, &out));
      }
      ASSERT_EQ(status, 0) << Slurp(out);

      for (const Component &component : kComponents) {
         const fs::path copy = kTree / component.subPath;
         struct stat st = {};
         EXPECT_EQ(lstat(copy.c_str(), &st), 0) << copy;
         EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && st.st_gid == 0) << copy;
         EXPECT_EQ(st.st_mode & 07777, component.mode) << copy;
         for (const char *attribute : {"user.zorvex.cs.CodeDirectory", "user.zorvex.cs.CodeSignature"}) {
            EXPECT_GT(getxattr(copy.c_str(), attribute, nullptr, 0), 0) << copy << attribute;
         }
      }
      EXPECT_EQ(Slurp(kProductFile), kApp.string());
      struct stat st = {};
      EXPECT_EQ(stat(kProductFile.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 07777, 0444u);
      EXPECT_FALSE(fs::exists(temporary));
      pid_t daemon = DaemonPid();
      ASSERT_GT(daemon, 0);
      EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(daemon) + "/exe"), kDaemon);
      if (c.failingRow < 0) {
         EXPECT_NE(Slurp(kDir / "note").find("received this descriptor"), std::string::npos);
      }
   }
}

}  // namespace
