// SPDX-License-Identifier: MIT
// The installed opener against a hostile caller: one row per attack, each
// run by "nobody" against the sandbox opener installed set-user-ID root in
// a copy of the signed sample bundle. After every row the harness checks
// that no descriptor of the opener reached the daemon or stayed open here,
// that nothing outside the sandbox changed, that a running daemon runs from
// a complete and verified Services tree, and that the next opener, once the
// row's damage is put right, exits 0 from a verified tree.
//
// All rows share one private mount namespace and one sandbox (a tmpfs over
// SANDBOX_DIR), so each row starts from whatever the previous recovery left:
// a running daemon. Rows marked cold kill it first, so their opener
// rebuilds the tree. Steps inside the opener are reached through the
// sandbox build's pause points (FIFOs in the seam directory).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <grp.h>
#include <map>
#include <pwd.h>
#include <regex>
#include <iostream>
#include <set>
#include <sstream>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "private_tmp.h"
#include "sandbox_paths.h"
#include "serviceProtocol.h"

namespace fs = std::filesystem;

namespace {

using namespace halcyx::test::sandbox;
const fs::path kSeams = kDir / "seams";
const fs::path kTemporary = kPrefs / "lastLocationUsed.tmp";
// Outside the sandbox: root's files that links planted by a row point at,
// and the harness's record of each opener's output.
const fs::path kOutside = "/tmp/halcyx-outside";
const fs::path kVictim = kOutside / "victim";
const fs::path kMissing = kOutside / "missing";
const fs::path kLogs = "/tmp/halcyx-adv-logs";

constexpr int kAny = -100;       // status 0 or 1: any defined outcome
constexpr int kRunning = -101;   // still running when the row is done with it
constexpr int kPatience = 1500;  // polls of 20 ms for what a busy sanitized build may take
int Killed(int sig) { return 128 + sig; }

const char *kSubPaths[] = {
   "Contents/Library/zorvex-id",
   "Contents/Library/zxnet-bridge",
   "Contents/Library/zxnet-cfgcli",
   "Contents/Library/zxnet-cli",
   "Contents/Library/zxnet-dhcpd",
   "Contents/Library/zxnet-natd",
   "Contents/Library/zxnet-netifup",
   "Contents/Library/zxnet-sniffer",
   "Contents/Library/zorvex-usbarbitrator",
   "Contents/Library/productInfo",
   "Contents/Library/services/Zorvex Halcyx Services",
   "Contents/Library/services/services.sh",
   "Contents/Library/services/Open Zorvex USB Arbitrator Service",
   "Contents/Library/services/Zorvex USB Arbitrator Service",
   "Contents/Library/services/usbarbService.sh",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper.plist",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper.plist",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper.plist",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper",
   "Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper.plist",
   "Contents/Frameworks/libpng16.16.dylib",
   "Contents/Frameworks/libssl.3.dylib",
   "Contents/Frameworks/libcrypto.3.dylib",
   "Contents/Frameworks/libzorvexbase.dylib",
   "Contents/Frameworks/libnetcfg.dylib",
};
fs::path Component(int i) { return kApp / kSubPaths[i]; }
fs::path Pristine(int i) { return fs::path(SAMPLE_BUNDLE) / kSubPaths[i]; }

int Sh(const std::string &command) {
   int status = system(command.c_str());
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Quote(const fs::path &path) { return "'" + path.string() + "'"; }

std::string Slurp(const fs::path &path) {
   std::ifstream in(path, std::ios::binary);
   std::ostringstream text;
   text << in.rdbuf();
   return text.str();
}

void Poke(const fs::path &path, const std::string &text) { std::ofstream(path) << text; }

// Everything a caller controls when it starts the opener.
struct Launch {
   std::vector<std::string> args = {"0"};
   std::vector<std::string> env;
   std::vector<std::pair<int, int>> fds;  // (our descriptor, its number in the opener)
   int inherited = 0;                     // further descriptors from 3 up, onto kVictim
   mode_t mask = 022;
   std::vector<std::pair<int, rlim_t>> limits;  // soft and hard
   bool closeStandard = false;
   bool noArgv = false;  // an empty argument vector, argv[0] included
};

struct Opener {
   pid_t pid = -1;
   fs::path out, err;
};

// What one row does; empty members do nothing.
struct Row {
   std::string name;
   bool cold = false;                              // kill the daemon first
   std::function<void(Launch &)> setup = {};       // files, and how the opener is started
   int status = 0;                                 // exit status (Killed(sig), kAny, kRunning)
   std::string log = {};                           // expected in the opener's output
   std::function<void(const Opener &)> during = {};  // while the opener runs
   std::function<void()> after = {};               // further checks
   std::function<void()> repair = {};              // undoes the row's damage before recovery
};
void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

uid_t sNobody;
std::string sSkip;
int sRuns;

// Starts the installed opener as nobody, the caller's side set up as asked.
Opener Start(const Launch &launch) {
   Opener run;
   run.out = kLogs / ("out" + std::to_string(sRuns));
   run.err = kLogs / ("err" + std::to_string(sRuns++));
   std::vector<std::string> args = launch.args;
   args.insert(args.begin(), kOpener.string());
   std::vector<std::string> env = launch.env;
   env.push_back("PATH=/usr/bin:/bin");
   env.push_back("ASAN_OPTIONS=detect_leaks=0");
   std::vector<char *> argv, envp;
   for (auto [from, to] : {std::pair{&args, &argv}, std::pair{&env, &envp}}) {
      for (std::string &s : *from) {
         to->push_back(s.data());
      }
      to->push_back(nullptr);
   }
   if (launch.noArgv) {
      argv = {nullptr};
   }
   int out = open(run.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   int err = open(run.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   int victim = open(kVictim.c_str(), O_RDONLY | O_CLOEXEC);
   run.pid = fork();
   if (run.pid == 0) {
      // Out of the way of every target number first.
      std::vector<std::pair<int, int>> fds;
      for (auto [from, to] : launch.fds) {
         fds.emplace_back(fcntl(from, F_DUPFD_CLOEXEC, 2000), to);
      }
      int null = open("/dev/null", O_RDONLY);
      dup2(null, 0);
      dup2(out, 1);
      dup2(err, 2);
      for (int fd = 3; fd < 3 + launch.inherited; fd++) {
         dup2(victim, fd);
      }
      std::set<int> keep;
      for (auto [from, to] : fds) {
         dup2(from, to);
         keep.insert(to);
      }
      for (int fd = 3 + launch.inherited; fd < 2000; fd++) {
         if (keep.count(fd) == 0) {
            close(fd);
         }
      }
      if (launch.closeStandard) {
         close(0);
         close(1);
         close(2);
      }
      umask(launch.mask);
      for (auto [resource, value] : launch.limits) {
         const struct rlimit limit = {value, value};
         setrlimit(resource, &limit);
      }
      if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
          setresuid(sNobody, sNobody, sNobody) != 0) {
         _exit(126);
      }
      execve(kOpener.c_str(), argv.data(), envp.data());
      _exit(127);
   }
   close(out);
   close(err);
   close(victim);
   return run;
}

// The exit status (128 + signal when killed), or kRunning after seconds.
int Wait(pid_t pid, double seconds = 30) {
   int status = 0;
   for (int i = 0; i < seconds * 50; i++, usleep(20000)) {
      if (waitpid(pid, &status, WNOHANG) == pid) {
         return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
   }
   return kRunning;
}

void Reap(pid_t pid) {
   kill(pid, SIGKILL);
   waitpid(pid, nullptr, 0);
}

std::vector<pid_t> Children() {
   std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
   return {std::istream_iterator<pid_t>(children), {}};
}

// Running daemons: our children (we are their subreaper) running the tree's.
std::vector<pid_t> Daemons() {
   std::vector<pid_t> daemons;
   for (pid_t pid : Children()) {
      std::error_code ec;
      fs::path exe = fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
      if (exe == kDaemon || exe.string().starts_with(kDaemon.string() + " (deleted)")) {
         daemons.push_back(pid);
      }
   }
   return daemons;
}

void KillDaemons() {
   for (pid_t pid : Daemons()) {
      Reap(pid);
   }
}

// The targets of a process's descriptors, by number.
std::map<int, std::string> Descriptors(const std::string &pid) {
   std::map<int, std::string> fds;
   std::error_code ec;
   for (const auto &entry : fs::directory_iterator("/proc/" + pid + "/fd", ec)) {
      fds[std::stoi(entry.path().filename())] = fs::read_symlink(entry.path(), ec).string();
   }
   return fds;
}

// Empty when the daemon holds only what it was given and made: standard
// descriptors, its log, its listening socket and the watch pipe. Callers
// still being dropped hold a socket for a moment, so it looks a few times.
std::string DaemonDescriptorProblem(pid_t daemon) {
   std::string problem;
   for (int attempt = 0; attempt < 50; attempt++, usleep(100000)) {
      problem.clear();
      int sockets = 0;
      int pipes = 0;
      for (auto [fd, target] : Descriptors(std::to_string(daemon))) {
         sockets += target.starts_with("socket:");
         pipes += target.starts_with("pipe:");
         if (target != "/dev/null" && target != kDaemonLog && !target.starts_with("socket:") &&
             !target.starts_with("pipe:")) {
            problem += " " + std::to_string(fd) + "->" + target;
         }
      }
      if (sockets > 1 || pipes > 1) {
         problem += " " + std::to_string(sockets) + " sockets, " + std::to_string(pipes) + " pipes";
      }
      if (problem.empty()) {
         break;
      }
   }
   return problem;
}

// Empty when the Services tree is complete: every component root's, with
// its mode, the pristine bundle's bytes and a valid signature. Only root
// can change the tree, and every rebuild makes it anew, so a tree found
// complete is not read again while it is the same directory.
std::string TreeProblem() {
   static std::pair<ino_t, long> verified;
   struct stat tree = {};
   const bool found = stat(kTree.c_str(), &tree) == 0;
   const std::pair<ino_t, long> now = {tree.st_ino,
                                       tree.st_ctim.tv_sec * 1000000000 + tree.st_ctim.tv_nsec};
   if (found && now == verified) {
      return "";
   }
   std::string problem;
   std::string verify = std::string(SIGN_TOOL) + " -v";
   for (int i = 0; i < static_cast<int>(std::size(kSubPaths)); i++) {
      const fs::path copy = kTree / kSubPaths[i];
      struct stat st = {};
      struct stat pristine = {};
      stat(Pristine(i).c_str(), &pristine);
      mode_t mode = (pristine.st_mode & 0111) != 0 ? 0755 : 0644;
      if (lstat(copy.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
          st.st_gid != 0 || (st.st_mode & 07777) != mode || Slurp(copy) != Slurp(Pristine(i))) {
         problem += " " + copy.string();
      }
      verify += " " + Quote(copy);
   }
   if (problem.empty() && Sh(verify + " >/dev/null 2>&1") != 0) {
      problem = " a signature does not verify";
   }
   if (problem.empty()) {
      verified = now;
   }
   return problem;
}

// What a row may not change outside the sandbox: every name under the
// private /tmp except the sandbox and our logs, with its type, owner, mode,
// size, time and content.
std::map<std::string, std::string> Outside() {
   std::map<std::string, std::string> seen;
   std::error_code ec;
   for (auto it = fs::recursive_directory_iterator("/tmp", ec);
        it != fs::recursive_directory_iterator(); it.increment(ec)) {
      const fs::path &p = it->path();
      if (p == kDir || p == kLogs || p.string().starts_with(PROJECT_BINARY_DIR) ||
          p.string().starts_with(PROJECT_SOURCE_DIR)) {
         it.disable_recursion_pending();
         continue;
      }
      struct stat st = {};
      lstat(p.c_str(), &st);
      seen[p] = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " " +
                std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_nsec) + " " +
                std::to_string(S_ISREG(st.st_mode) ? std::hash<std::string>{}(Slurp(p)) : 0);
   }
   // The product's real fixed paths: a sandbox opener never touches them.
   for (const char *real : {"/var/run/Zorvex Halcyx Services.lock",
                            "/var/run/Zorvex Halcyx Services.sock", "/Library",
                            "/var/log/Zorvex Halcyx Services.log"}) {
      seen[real] = fs::exists(fs::symlink_status(real)) ? "exists" : "absent";
   }
   return seen;
}

// The names whose entries differ between two snapshots.
std::string Changed(const std::map<std::string, std::string> &before,
                    const std::map<std::string, std::string> &after) {
   std::string changed;
   for (const auto &[name, entry] : after) {
      auto it = before.find(name);
      changed += it == before.end() || it->second != entry ? " " + name : "";
   }
   for (const auto &[name, entry] : before) {
      changed += after.count(name) == 0 ? " " + name + " (gone)" : "";
   }
   return changed;
}

// Waits until the opener reaches a pause point, which it then holds until
// Release; -1 when it never came.
int Reach(const std::string &point) {
   for (int i = 0; i < kPatience; i++, usleep(20000)) {
      int fd = open((kSeams / point).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd >= 0) {
         unlink((kSeams / point).c_str());
         return fd;
      }
   }
   return -1;
}

void Release(int fifo) {
   if (fifo >= 0) {
      EXPECT_EQ(write(fifo, "g", 1), 1);
      close(fifo);
   }
}

// Arms a pause point for the next opener to pass it.
void Arm(const std::string &point) {
   ASSERT_EQ(mkfifo((kSeams / point).c_str(), 0666), 0) << point;
   chmod((kSeams / point).c_str(), 0666);
}

// A FIFO, link, directory or another user's file in place of path.
enum class Kind { Link, LinkToMissing, Fifo, Directory, OthersFile };
void Plant(const fs::path &path, Kind kind) {
   fs::remove_all(path);
   switch (kind) {
   case Kind::Link: fs::create_symlink(kVictim, path); break;
   case Kind::LinkToMissing: fs::create_symlink(kMissing, path); break;
   case Kind::Fifo: mkfifo(path.c_str(), 0644); break;
   case Kind::Directory: fs::create_directory(path); break;
   case Kind::OthersFile:
      Poke(path, "someone else's\n");
      ASSERT_EQ(chown(path.c_str(), sNobody, 65534), 0);
      chmod(path.c_str(), 0666);
      break;
   }
}

void RestoreComponent(int i) {
   fs::remove_all(Component(i));
   ASSERT_EQ(Sh("cp -a " + Quote(Pristine(i)) + " " + Quote(Component(i)) +
                " && chown nobody " + Quote(Component(i))),
             0);
}

// A caller's listening socket in place of the daemon's: it greets, and
// records everything the opener sends it.
struct Impostor {
   std::thread thread;
   std::string bytes;
   std::vector<struct stat> received;
};

class Sandbox : public ::testing::Test {
protected:
   static void SetUpTestSuite() {
      const struct passwd *nobody = getpwnam("nobody");
      if (geteuid() != 0 || nobody == nullptr) {
         sSkip = "needs root and the user nobody";
         return;
      }
      sNobody = nobody->pw_uid;
      if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          !halcyx::test::CoverTmpKeeping({PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR}) ||
          mkdir(kDir.c_str(), 0755) != 0 ||
          mount("halcyx-test", kDir.c_str(), "tmpfs", 0, "mode=0755") != 0) {
         sSkip = "cannot make a private mount namespace";
         return;
      }
      for (const fs::path &dir : {kHost, kRun, kDir / "log", kSeams, kOutside / "lib", kLogs}) {
         fs::create_directories(dir);
      }
      Poke(kVictim, "root's own file\n");
      chmod(kOutside.c_str(), 0755);
      // Libraries no loader may take for a set-user-ID program.
      for (const char *name : {"libc.so.6", "libstdc++.so.6", "libm.so.6", "libasan.so.8"}) {
         fs::copy_file(PRELOAD_LIBRARY, kOutside / "lib" / name);
      }
      if (Sh("cp -a '" SAMPLE_BUNDLE "' " + Quote(kApp) + " && chown -R nobody " + Quote(kApp) +
             " && chown root:root " + Quote(kOpener) + " && chmod 04755 " + Quote(kOpener)) != 0) {
         sSkip = "cannot install the bundle";
      }
   }

   static void TearDownTestSuite() {
      for (pid_t pid : Children()) {
         Reap(pid);
      }
   }

   void SetUp() override {
      if (!sSkip.empty()) {
         GTEST_SKIP() << sSkip;
      }
   }
};

class AdversarialOpener : public Sandbox, public ::testing::WithParamInterface<Row> {};

TEST_P(AdversarialOpener, DefinedOutcomeAndRecovery) {
   const Row &row = GetParam();
   if (row.cold) {
      KillDaemons();
   }
   const auto ownBefore = Descriptors("self");
   const auto outsideBefore = Outside();
   Launch launch;
   if (row.setup) {
      row.setup(launch);
   }
   if (HasFatalFailure() || IsSkipped()) {
      return;
   }
   Opener run = Start(launch);
   if (row.during) {
      row.during(run);
   }
   int status = Wait(run.pid, row.status == kRunning ? 0.5 : 30);
   std::string out = Slurp(run.out);
   if (row.status == kAny) {
      EXPECT_TRUE(status == 0 || status == 1) << status << "\n" << out << Slurp(run.err);
   } else {
      EXPECT_EQ(status, row.status) << out << Slurp(run.err);
   }
   if (status == kRunning) {
      Reap(run.pid);
   }
   EXPECT_NE(out.find(row.log), std::string::npos) << out;
   if (row.after) {
      row.after();
   }

   // What every attack must leave as it was.
   EXPECT_EQ(Descriptors("self"), ownBefore) << "a descriptor stays open in the caller";
   EXPECT_EQ(Changed(outsideBefore, Outside()), "") << "changed outside the sandbox";
   for (pid_t daemon : Daemons()) {
      EXPECT_EQ(DaemonDescriptorProblem(daemon), "") << "reached the daemon";
      EXPECT_EQ(TreeProblem(), "") << "a daemon runs from an incomplete tree";
   }

   // Recovery: once the damage is undone, the next opener succeeds.
   for (const auto &armed : fs::directory_iterator(kSeams)) {
      fs::remove(armed.path());
   }
   if (row.repair) {
      row.repair();
   }
   Opener next = Start(Launch{});
   ASSERT_EQ(Wait(next.pid), 0) << Slurp(next.out) << Slurp(next.err);
   std::vector<pid_t> daemons = Daemons();
   ASSERT_EQ(daemons.size(), 1u);
   EXPECT_EQ(DaemonDescriptorProblem(daemons[0]), "");
   EXPECT_EQ(TreeProblem(), "");
}

// Pause points of one cold start, in the order the opener passes them.
const char *kColdSteps[] = {"locked",       "listening",   "prepare",  "tree-deleted",
                            "root-recorded", "verified-0", "copied-10", "daemon-started",
                            "greeted",      "sent"};
// Steps at which a stopped opener holds up the others (lock or listening
// socket held, no daemon yet).
bool HoldsOthers(const std::string &step) {
   return step != "daemon-started" && step != "greeted" && step != "sent";
}

std::vector<Row> Rows() {
   std::vector<Row> rows;
   auto env = [](std::vector<std::string> vars) {
      return [vars](Launch &l) { l.env = vars; };
   };
   auto limit = [](int resource, rlim_t value) {
      return [resource, value](Launch &l) { l.limits = {{resource, value}}; };
   };
   auto args = [](std::vector<std::string> a, int inherited = 0) {
      return [a, inherited](Launch &l) {
         l.args = a;
         l.inherited = inherited;
      };
   };
   auto daemonEnvLacks = [](std::vector<std::string> names) {
      return [names] {
         auto daemons = Daemons();
         ASSERT_EQ(daemons.size(), 1u);
         std::string environ =
            std::string(1, '\0') + Slurp("/proc/" + std::to_string(daemons[0]) + "/environ");
         for (const std::string &name : names) {
            EXPECT_EQ(environ.find('\0' + name + '='), std::string::npos) << name;
         }
      };
   };
   const std::string badFd = "Warning: ServiceImplSendFd: sendmsg errno " + std::to_string(EBADF);
   const std::string big(128 * 1024 - 64, 'x');

   // Start-up: what the caller's process hands down.
   const std::string lib = (kOutside / "lib").string();
   rows.push_back({"LD_PRELOAD", true, env({"LD_PRELOAD=" + lib + "/libc.so.6"}), 0});
   rows.push_back({"LD_LIBRARY_PATH", true, env({"LD_LIBRARY_PATH=" + lib}), 0});
   rows.push_back({"GLIBC_TUNABLES", true,
                   env({"GLIBC_TUNABLES=glibc.malloc.mxfast=glibc.malloc.mxfast=" +
                           std::string(4000, 'A'),
                        "GLIBC_TUNABLES=glibc.malloc.check=3:glibc.malloc.perturb=85"}),
                   0});
   rows.push_back({"shell start-up variables", true,
                   env({"BASH_FUNC_x%%=() { id; }", "BASH_ENV=/tmp/x", "ENV=/tmp/y",
                        "SHELLOPTS=xtrace", "PS4=$(id)", "IFS=/", "NOEQUALS", "=nameless"}),
                   0, "", nullptr,
                   daemonEnvLacks({"BASH_FUNC_x%%", "BASH_ENV", "ENV", "SHELLOPTS"})});
   rows.push_back({"1 MiB of environment in variables of the largest size", true,
                   env({"A=" + big, "B=" + big, "C=" + big, "D=" + big, "E=" + big, "F=" + big,
                        "G=" + big, "BASH_FUNC_" + big + "%%=() { :; }"}),
                   0, "", nullptr, daemonEnvLacks({"BASH_FUNC_" + big + "%%"})});
   for (mode_t mask : {0000, 0777}) {
      rows.push_back({mask == 0 ? "umask 000" : "umask 777", true,
                      [mask](Launch &l) {
                         l.mask = mask;
                         fs::remove(kLock);
                      },
                      0, "", nullptr, [] {
                         for (const fs::path &p : {kLock, kSock}) {
                            struct stat st = {};
                            EXPECT_EQ(lstat(p.c_str(), &st), 0);
                            EXPECT_EQ(st.st_mode & 07777, 0600u) << p;
                         }
                         struct stat st = {};
                         EXPECT_EQ(stat(kProductFile.c_str(), &st), 0);
                         EXPECT_EQ(st.st_mode & 07777, 0444u);
                         EXPECT_EQ(TreeProblem(), "");
                      }});
   }
   rows.push_back({"descriptor limit 4", true, limit(RLIMIT_NOFILE, 4), 1,
                   "Warning: ServiceImplPickSockSide: open errno " + std::to_string(EMFILE)});
   rows.push_back({"descriptor limit at the hard limit", true,
                   [](Launch &l) {
                      struct rlimit hard;
                      getrlimit(RLIMIT_NOFILE, &hard);
                      l.limits = {{RLIMIT_NOFILE, hard.rlim_max}};
                   },
                   0});
   for (rlim_t n : {5, 6, 7, 8, 10, 12}) {
      rows.push_back({"descriptor limit " + std::to_string(n) + " during the rebuild", true,
                      limit(RLIMIT_NOFILE, n), kAny});
   }
   rows.push_back({"file size limit 1 KiB", true, limit(RLIMIT_FSIZE, 1024), 1});
#ifndef HALCYX_SANITIZED
   rows.push_back({"address space 32 MiB", true, limit(RLIMIT_AS, 32 << 20), kAny});
#endif
   rows.push_back({"standard descriptors closed", true,
                   [](Launch &l) { l.closeStandard = true; }, 0});
   rows.push_back({"200 inherited descriptors", true, args({"0"}, 200), 0});
   rows.push_back({"argument naming the opener's own socket", false, args({"203"}, 200), 1, badFd});
   rows.push_back({"argument naming the opener's own lock", false, args({"4"}), 1, badFd});
   rows.push_back({"argument out of range", false, args({"99999999999999999999"}), 1, badFd});
   rows.push_back({"argument with blanks and a sign", false, args({" \t+1"}), 0});
   rows.push_back({"argument of 100 KiB", false, args({std::string(100 * 1024, '0') + "1"}), 0});
   rows.push_back({"three arguments", false, args({"0", "1", "2"}), 1,
                   "Warning: Invalid number of arguments.\n"});
   // The kernel makes an empty vector one empty argument: shell mode.
   rows.push_back({"empty argument vector", false, [](Launch &l) { l.noArgv = true; }, kRunning,
                   "", [](const Opener &run) {
                      std::string watched = "watching the liveness pipe of pid " +
                                            std::to_string(run.pid);
                      for (int i = 0; i < kPatience; i++, usleep(20000)) {
                         if (Slurp(kDaemonLog).find(watched) != std::string::npos) {
                            break;
                         }
                      }
                      EXPECT_NE(Slurp(kDaemonLog).find(watched), std::string::npos);
                   }});

   // Files: what may stand at each fixed path.
   const std::string unsafe = "Warning: ServiceImplPrepareDaemon: ";
   struct Planted {
      const char *name;
      fs::path path;
      Kind kind;
      int status;
      std::string log;
   };
   const Planted planted[] = {
      {"lock file a link out", kLock, Kind::LinkToMissing, 1,
       "ServiceImplPickSockSide: open errno " + std::to_string(ELOOP)},
      {"lock file a link to root's file", kLock, Kind::Link, 1,
       "ServiceImplPickSockSide: open errno " + std::to_string(ELOOP)},
      {"lock file a FIFO", kLock, Kind::Fifo, 0, ""},
      {"lock file a directory", kLock, Kind::Directory, 1,
       "ServiceImplPickSockSide: open errno " + std::to_string(EISDIR)},
      {"lock file another user's", kLock, Kind::OthersFile, 0, ""},
      {"socket a link out", kSock, Kind::LinkToMissing, 0, ""},
      {"socket a link to root's file", kSock, Kind::Link, 0, ""},
      {"socket a FIFO", kSock, Kind::Fifo, 0, ""},
      {"socket a directory", kSock, Kind::Directory, 1,
       "ServiceImplPickSockSide: unlink errno " + std::to_string(EISDIR)},
      {"socket another user's file", kSock, Kind::OthersFile, 0, ""},
      {"host directory a link", kHost, Kind::Link, 1, unsafe},
      {"host directory a FIFO", kHost, Kind::Fifo, 1, ""},
      {"host directory another user's file", kHost, Kind::OthersFile, 1, ""},
      {"Services tree a link", kTree, Kind::Link, 1, ""},
      {"Services tree a FIFO", kTree, Kind::Fifo, 1, ""},
      {"Services tree another user's file", kTree, Kind::OthersFile, 1, ""},
      {"product file a link out", kProductFile, Kind::LinkToMissing, 0, ""},
      {"product file a link to root's file", kProductFile, Kind::Link, 0, ""},
      {"product file a FIFO", kProductFile, Kind::Fifo, 0, ""},
      {"product file a directory", kProductFile, Kind::Directory, 1, ""},
      {"product file another user's", kProductFile, Kind::OthersFile, 0, ""},
      {"product file's parent a link", kPrefs, Kind::Link, 1, unsafe},
      {"product file's parent a FIFO", kPrefs, Kind::Fifo, 0, ""},
      {"product file's parent another user's file", kPrefs, Kind::OthersFile, 0, ""},
      {"temporary record a link out", kTemporary, Kind::LinkToMissing, 0, ""},
      {"temporary record a link to root's file", kTemporary, Kind::Link, 0, ""},
      {"temporary record a FIFO", kTemporary, Kind::Fifo, 0, ""},
      {"temporary record a directory", kTemporary, Kind::Directory, 1, ""},
      {"temporary record another user's", kTemporary, Kind::OthersFile, 0, ""},
   };
   for (const Planted &p : planted) {
      fs::path path = p.path;
      Kind kind = p.kind;
      bool dir = path == kHost || path == kPrefs;
      // What the opener replaced stays; what stopped it is taken away.
      bool remove = p.status != 0 || path == kLock;
      rows.push_back({p.name, true,
                      [path, kind](Launch &) {
                         fs::create_directories(kPrefs);
                         Plant(path, kind);
                      },
                      p.status, p.log, nullptr, nullptr, [path, dir, remove] {
                         if (remove) {
                            fs::remove_all(path);
                         }
                         if (dir) {
                            fs::create_directories(path);
                         }
                      }});
   }
   rows.push_back({"host directory another user's", true,
                   [](Launch &) { ASSERT_EQ(chown(kHost.c_str(), sNobody, 65534), 0); }, 1, unsafe,
                   nullptr, nullptr, [] { ASSERT_EQ(chown(kHost.c_str(), 0, 0), 0); }});
   rows.push_back({"product file's parent another user's", true,
                   [](Launch &) {
                      fs::create_directories(kPrefs);
                      ASSERT_EQ(chown(kPrefs.c_str(), sNobody, 65534), 0);
                   },
                   1, unsafe, nullptr, nullptr, [] { ASSERT_EQ(chown(kPrefs.c_str(), 0, 0), 0); }});
   rows.push_back({"Services tree another user's, holding links and FIFOs", true,
                   [](Launch &) {
                      fs::remove_all(kTree);
                      fs::create_directories(kTree / "Contents/Library");
                      fs::create_symlink(kVictim, kTree / "Contents/Library/zorvex-id");
                      fs::create_directory_symlink(kOutside, kTree / "Contents/Frameworks");
                      mkfifo((kTree / "Contents/fifo").c_str(), 0666);
                      ASSERT_EQ(Sh("chown -hR nobody " + Quote(kTree)), 0);
                   },
                   0});

   // A caller's own listener at the socket path: root hands it nothing but
   // the caller's own descriptor and the byte it sent.
   auto impostor = std::make_shared<Impostor>();
   rows.push_back({"socket the caller's, listening", true,
                   [impostor](Launch &l) {
                      fs::remove(kSock);
                      int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
                      struct sockaddr_un addr = {AF_UNIX, {}};
                      strcpy(addr.sun_path, kSock.c_str());
                      ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
                      ASSERT_EQ(chown(kSock.c_str(), sNobody, 65534), 0);
                      ASSERT_EQ(listen(s, 1), 0);
                      l.args = {"1"};
                      impostor->thread = std::thread([s, impostor] {
                         int conn = accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
                         close(s);
                         ServiceImplWriteOne(conn, 'G');
                         // All it is sent: bytes until the end, and descriptors.
                         char bytes[64];
                         alignas(struct cmsghdr) char control[CMSG_SPACE(64 * sizeof(int))];
                         struct iovec iov = {bytes, sizeof bytes};
                         struct msghdr msg = {};
                         msg.msg_iov = &iov;
                         msg.msg_iovlen = 1;
                         msg.msg_control = control;
                         msg.msg_controllen = sizeof control;
                         ssize_t n = recvmsg(conn, &msg, MSG_CMSG_CLOEXEC);
                         impostor->bytes.assign(bytes, n > 0 ? static_cast<size_t>(n) : 0);
                         impostor->received.clear();
                         for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
                            for (size_t i = 0; CMSG_LEN((i + 1) * sizeof(int)) <= c->cmsg_len;
                                 i++) {
                               int fd;
                               memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
                               impostor->received.emplace_back();
                               fstat(fd, &impostor->received.back());
                               close(fd);
                            }
                         }
                         ServiceImplWriteOne(conn, '1');
                         while ((n = read(conn, bytes, sizeof bytes)) > 0) {
                            impostor->bytes.append(bytes, static_cast<size_t>(n));
                         }
                         close(conn);
                      });
                   },
                   0, "", nullptr, [impostor] {
                      impostor->thread.join();
                      EXPECT_EQ(impostor->bytes, "G");
                      ASSERT_EQ(impostor->received.size(), 1u);
                      struct stat caller = {};
                      stat((kLogs / ("out" + std::to_string(sRuns - 1))).c_str(), &caller);
                      EXPECT_EQ(impostor->received[0].st_ino, caller.st_ino) << "not its own";
                      EXPECT_TRUE(Daemons().empty());
                   },
                   [] { fs::remove(kSock); }});

   // The bundle (the caller's own) changed while the tree is rebuilt.
   struct Swap {
      const char *name;
      const char *point;
      int component;
      std::function<void(const fs::path &)> change;
      int status;
      std::string log;
   };
   const auto unsigned_ = [](const fs::path &p) {
      fs::path fresh = p.string() + ".new";
      fs::copy_file("/bin/true", fresh);
      fs::rename(fresh, p);
   };
   const Swap swaps[] = {
      {"component renamed over after its check", "verified-10", 10, unsigned_, 0, ""},
      {"component made a link after its check", "verified-3", 3,
       [](const fs::path &p) { Plant(p, Kind::Link); }, 0, ""},
      {"component made a FIFO after its check", "verified-27", 27,
       [](const fs::path &p) { Plant(p, Kind::Fifo); }, 0, ""},
      {"component truncated after its check", "verified-5", 5,
       [](const fs::path &p) { ASSERT_EQ(truncate(p.c_str(), 7), 0); }, 1,
       "PrivilegedHelper: Failed to verify the code signature of " +
          (kTree / kSubPaths[5]).string()},
      {"component made a FIFO before its check", "copied-5", 6,
       [](const fs::path &p) { Plant(p, Kind::Fifo); }, 1,
       "Failed to verify the code signature of " + Component(6).string()},
      {"component made a link before its check", "copied-5", 6,
       [](const fs::path &p) { Plant(p, Kind::Link); }, 1,
       "Failed to verify the code signature of " + Component(6).string()},
   };
   for (const Swap &s : swaps) {
      std::string point = s.point;
      int component = s.component;
      auto change = s.change;
      rows.push_back({s.name, true, [point](Launch &) { Arm(point); }, s.status, s.log,
                      [point, component, change](const Opener &) {
                         int fifo = Reach(point);
                         EXPECT_GE(fifo, 0) << "never reached " << point;
                         change(Component(component));
                         Release(fifo);
                      },
                      nullptr, [component] { RestoreComponent(component); }});
   }

   // Processes: the opener killed or stopped at every step.
   for (const char *step : kColdSteps) {
      std::string point = step;
      rows.push_back({"killed at " + point, true, [point](Launch &) { Arm(point); },
                      Killed(SIGKILL), "",
                      [point](const Opener &run) {
                         int fifo = Reach(point);
                         EXPECT_GE(fifo, 0) << "never reached " << point;
                         kill(run.pid, SIGKILL);
                         close(fifo);
                      }});
      // Stopped in the middle of its exchange, it may outlast the daemon's
      // patience with a stalled caller: then it fails, as it should.
      const bool exchanging = point == "greeted" || point == "sent";
      rows.push_back({"stopped at " + point, true, [point](Launch &) { Arm(point); },
                      exchanging ? kAny : 0, "",
                      [point](const Opener &run) {
                         int fifo = Reach(point);
                         EXPECT_GE(fifo, 0) << "never reached " << point;
                         kill(run.pid, SIGSTOP);
                         Opener other = Start(Launch{});
                         int early = Wait(other.pid, HoldsOthers(point) ? 1 : 30);
                         EXPECT_EQ(early, HoldsOthers(point) ? kRunning : 0)
                            << "waits exactly while the stopped one holds the lock or socket";
                         kill(run.pid, SIGCONT);
                         Release(fifo);
                         if (early == kRunning) {
                            EXPECT_EQ(Wait(other.pid), 0);
                         }
                      }});
   }
   rows.push_back({"stopped connected to the daemon", false, [](Launch &) { Arm("connected"); }, 0,
                   "", [](const Opener &run) {
                      int fifo = Reach("connected");
                      kill(run.pid, SIGSTOP);
                      Opener other = Start(Launch{});
                      EXPECT_EQ(Wait(other.pid, 1), kRunning) << "did not wait for the lock";
                      kill(run.pid, SIGCONT);
                      Release(fifo);
                      EXPECT_EQ(Wait(other.pid), 0);
                   }});
   for (const char *step : {"greeted", "sent"}) {
      std::string point = step;
      // Once sent, the verdict may already be on its way.
      rows.push_back({"daemon killed at " + point, false,
                      [point](Launch &) { Arm(point); }, point == "sent" ? kAny : 1, "",
                      [point](const Opener &) {
                         int fifo = Reach(point);
                         KillDaemons();
                         Release(fifo);
                      }});
   }
   // A daemon that never greets: the opener waits, its caller can end it,
   // and it holds nothing afterwards.
   rows.push_back({"daemon never greets", true,
                   [](Launch &) {
                      const fs::path daemon = kApp / kDaemonSub;
                      fs::remove(daemon);
                      fs::copy_file("/bin/sleep", daemon);
                      ASSERT_EQ(Sh(std::string(SIGN_TOOL) + " -f -s " SIGNING_IDENTITY
                                   " -i 'Zorvex Halcyx Services' " + Quote(daemon) +
                                   " >/dev/null 2>&1 && chown nobody " + Quote(daemon)),
                                0);
                   },
                   Killed(SIGTERM), "", [](const Opener &run) {
                      for (int i = 0; i < kPatience && Daemons().empty(); i++) {
                         usleep(20000);
                      }
                      EXPECT_EQ(Daemons().size(), 1u);
                      EXPECT_EQ(Wait(run.pid, 0.5), kRunning) << "did not wait for the greeting";
                      pid_t caller = fork();
                      if (caller == 0) {
                         _exit(setresuid(sNobody, sNobody, sNobody) == 0 &&
                                     kill(run.pid, SIGTERM) == 0
                                  ? 0
                                  : 1);
                      }
                      EXPECT_EQ(Wait(caller), 0) << "its caller cannot end it";
                   },
                   [] {
                      int lock = open(kLock.c_str(), O_RDONLY | O_CLOEXEC);
                      EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0) << "lock left held";
                      close(lock);
                      KillDaemons();
                   },
                   [] { RestoreComponent(10); }});

   // Resources.
   rows.push_back({"no space left while the tree is rebuilt", true,
                   [](Launch &) {
                      ASSERT_EQ(
                         mount("halcyx-full", kHost.c_str(), "tmpfs", 0, "size=64k,mode=0755"), 0);
                   },
                   1, "", nullptr, nullptr,
                   [] { ASSERT_EQ(umount2(kHost.c_str(), MNT_DETACH), 0); }});
   return rows;
}

std::string RowName(const ::testing::TestParamInfo<Row> &info) {
   std::string name = std::to_string(info.index) + "_";
   for (char c : info.param.name) {
      name += isalnum(static_cast<unsigned char>(c)) ? c : '_';
   }
   return name;
}

INSTANTIATE_TEST_SUITE_P(Rows, AdversarialOpener, ::testing::ValuesIn(Rows()), RowName);

// The allocations one opener makes (the sandbox build counts them when
// asked to refuse the 0th).
unsigned long CountAllocations() {
   Launch launch;
   launch.env = {"HALCYX_TEST_FAIL_ALLOCATION=0"};
   Opener run = Start(launch);
   EXPECT_EQ(Wait(run.pid), 0) << Slurp(run.out);
   std::smatch m;
   std::string err = Slurp(run.err);
   const std::regex count("halcyx-test: ([0-9]+) allocations");
   return std::regex_search(err, m, count) ? std::stoul(m[1]) : 0;
}

// Every allocation of a hot start refused in turn, and of a cold start a
// sample: the first 64 (16 in sanitized builds), then a stride through the
// rest from an offset that changes from run to run (HALCYX_ADV_SEED repeats
// one; HALCYX_ADV_ALL=1 takes every one, which takes hours). Each run ends with exit 0 or 1, and a
// daemon runs only from a complete tree.
TEST_F(Sandbox, EveryRefusedAllocationEndsInADefinedOutcome) {
   const char *seedText = getenv("HALCYX_ADV_SEED");
   const unsigned long seed =
      seedText ? std::stoul(seedText) : static_cast<unsigned long>(time(nullptr));
   const bool all = getenv("HALCYX_ADV_ALL") != nullptr;
   std::cout << "HALCYX_ADV_SEED=" << seed << std::endl;
   for (bool cold : {false, true}) {
      SCOPED_TRACE(cold ? "cold start" : "hot start");
      if (cold) {
         KillDaemons();
      } else {
         ASSERT_EQ(Wait(Start(Launch{}).pid), 0);
      }
      const unsigned long total = CountAllocations();
      ASSERT_GT(total, 0u);
      std::vector<unsigned long> picks;
      #ifdef HALCYX_SANITIZED
      const unsigned long first = 16, samples = 16;  // a sanitized cold start is slow
#else
      const unsigned long first = 64, samples = 192;
#endif
      const unsigned long stride = cold && !all ? std::max(1ul, total / samples) : 1;
      for (unsigned long n = 1; n <= total; n += n <= first ? 1 : stride) {
         picks.push_back(n <= first || stride == 1 ? n : std::min(total, n + seed % stride));
      }
      std::cout << (cold ? "cold" : "hot") << " start: " << total << " allocations, "
                << picks.size() << " refused in turn" << std::endl;
      for (unsigned long n : picks) {
         if (cold) {
            KillDaemons();
         }
         Launch launch;
         launch.env = {"HALCYX_TEST_FAIL_ALLOCATION=" + std::to_string(n)};
         Opener run = Start(launch);
         int status = Wait(run.pid, 20);
         if (status == kRunning) {
            Reap(run.pid);
         }
         EXPECT_TRUE(status == 0 || status == 1)
            << "allocation " << n << ": status " << status << "\n"
            << Slurp(run.out) << Slurp(run.err);
         if (cold && !Daemons().empty()) {
            EXPECT_EQ(TreeProblem(), "") << "allocation " << n;
         }
      }
      for (const auto &armed : fs::directory_iterator(kSeams)) {
         fs::remove(armed.path());
      }
      Opener next = Start(Launch{});
      EXPECT_EQ(Wait(next.pid), 0) << Slurp(next.out);
   }
}

}  // namespace
