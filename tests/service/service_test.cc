// SPDX-License-Identifier: MIT
// The privileged service listener, run as a program inside a bundle whose
// Info.plist each case rewrites (the listener reads it for every
// connection), against client programs signed with the build's development
// identity, signed with another identifier, or not signed at all.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"

namespace fs = std::filesystem;
using halcyx::test::LogEntries;

namespace {

const char kService[] = "com.zorvex.test";
const char kRequireClient[] = "identifier \"test.client\" and anchor apple generic";

std::string Slurp(const fs::path &path) {
   std::ifstream in(path, std::ios::binary);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

void Spit(const fs::path &path, const std::string &data) {
   std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

// Starts argv with standard output appended to out (or discarded).
pid_t Spawn(const std::vector<std::string> &argv, const fs::path &out) {
   pid_t pid = fork();
   if (pid == 0) {
      int fd = open(out.empty() ? "/dev/null" : out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      dup2(fd, 1);
      close(fd);
      std::vector<char *> args;
      for (const auto &a : argv) {
         args.push_back(const_cast<char *>(a.c_str()));
      }
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);  // could not even start
   }
   return pid;
}

int Wait(pid_t pid) {
   int status = 0;
   waitpid(pid, &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Line(pid_t pid, const char *text) {
   char prefix[32];
   snprintf(prefix, sizeof prefix, "%5d: ", static_cast<int>(pid));
   return prefix + std::string(text);
}

// A log line as the case tables write it: "Warning: %5d: text" and plain
// "text" get the pid prefix; other warnings stand as written.
std::string Want(pid_t pid, const std::string &line) {
   if (line.rfind("Warning: %5d: ", 0) == 0) {
      return "Warning: " + Line(pid, line.c_str() + 14);
   }
   return line.rfind("Warning: ", 0) == 0 ? line : Line(pid, line.c_str());
}

class Service : public ::testing::Test {
protected:
   static void SetUpTestSuite() {
      char tmpl[] = "/tmp/halcyx-svc-XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      const fs::path macos = dir_ / "Listener.bundle/Contents/MacOS";
      fs::create_directories(macos);
      fs::create_directories(dir_ / "sock");
      const auto copy = fs::copy_options::overwrite_existing;
      fs::copy_file(TEST_LISTENER, macos / "listener", copy);
      fs::copy_file(TEST_CLIENT, dir_ / "signed", copy);
      fs::copy_file(TEST_CLIENT, dir_ / "other", copy);
      fs::copy_file(TEST_CLIENT, dir_ / "unsigned", copy);
      const std::string sign = std::string(HALCYX_SIGN_TOOL) + " -s " HALCYX_DEV_SIGNING_DIR
                               "/developer.identity.pem -i ";
      for (const auto &[id, path] : {std::pair{"test.client", dir_ / "signed"},
                                     {"test.other", dir_ / "other"},
                                     {"test.listener", macos / "listener"}}) {
         ASSERT_EQ(std::system((sign + id + " " + path.string()).c_str()), 0);
      }
      log_ = dir_ / "listener.log";
      listener_ = Spawn({(macos / "listener").string(), (dir_ / "sock").string(), kService}, log_);
      for (int i = 0; i < 500 && !fs::exists(dir_ / "sock" / (std::string(kService) + ".sock")); i++) {
         usleep(10 * 1000);
      }
      descriptors_ = ListenerDescriptors();
   }

   static size_t ListenerDescriptors() {
      const fs::path fds = "/proc/" + std::to_string(listener_) + "/fd";
      return static_cast<size_t>(std::distance(fs::directory_iterator(fds), {}));
   }

   static void TearDownTestSuite() {
      kill(listener_, SIGKILL);
      Wait(listener_);
      std::error_code ignored;
      fs::remove_all(dir_, ignored);
   }

   void SetUp() override {
      ASSERT_EQ(waitpid(listener_, nullptr, WNOHANG), 0) << "the listener is not running";
      Hook("none");
   }

   static void AllowedClients(const std::string &xml) {
      Spit(dir_ / "Listener.bundle/Contents/Info.plist",
           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
           "<key>CFBundleIdentifier</key><string>test.listener</string>" +
              xml + "</dict></plist>\n");
   }
   static void Requirements(const std::vector<std::string> &reqs) {
      std::string xml = "<key>XPCService</key><dict><key>_AllowedClients</key><array>";
      for (const auto &r : reqs) {
         xml += "<string>" + r + "</string>";
      }
      AllowedClients(xml + "</array></dict>");
   }
   static void Hook(const char *mode) { Spit(dir_ / "sock/hook", mode); }

   // Runs a client; returns its pid and exit status.
   static std::pair<pid_t, int> Run(const std::string &program, std::vector<std::string> args) {
      args.insert(args.begin(), {(dir_ / program).string(), (dir_ / "sock").string(), kService});
      pid_t pid = Spawn(args, "");
      return {pid, Wait(pid)};
   }

   // The listener's log entries since offset (only those naming pid, when
   // given), once there are count of them.
   static std::vector<std::string> EntriesSince(size_t offset, size_t count, pid_t pid = 0) {
      std::vector<std::string> entries;
      for (int i = 0; i < 500; i++) {
         entries = LogEntries(Slurp(log_).substr(offset));
         if (pid) {
            std::erase_if(entries, [&](const std::string &e) {
               return e.find(Line(pid, "")) == std::string::npos;
            });
         }
         if (entries.size() >= count) {
            break;
         }
         usleep(10 * 1000);
      }
      return entries;
   }
   static size_t LogSize() { return Slurp(log_).size(); }

   static fs::path dir_;
   static fs::path log_;
   static pid_t listener_;
   static size_t descriptors_;  // the listener's, once it listens
};

fs::path Service::dir_;
fs::path Service::log_;
pid_t Service::listener_ = -1;
size_t Service::descriptors_ = 0;

const std::vector<std::string> kOneClient = {kRequireClient};

// Admission: the list that the bundle holds, the client, and the lines
// that follow "Received connection" (the last one a Warning when refused).
TEST_F(Service, AdmissionFollowsTheBundlesRequirements) {
   const std::string closed = "Connection closed by client.\n";
   const std::string refused = "Warning: Validation failed. Canceling connection.\n";
   struct Case {
      const char *name;
      std::string plist;  // raw XPCService XML, used when reqs is empty
      std::vector<std::string> reqs;
      const char *client;
      int exit;
      std::vector<std::string> lines;  // %5d-prefixed unless they begin with "Warning"
   } cases[] = {
      {"signed", "", kOneClient, "signed", 0, {closed}},
      {"unsigned", "", kOneClient, "unsigned", 3, {"Failed validation. (3)\n", refused}},
      {"other identifier", "", kOneClient, "other", 3, {"Failed validation. (7)\n", refused}},
      {"second requirement", "", {"identifier \"test.other\"", kRequireClient}, "signed", 0,
       {"Failed validation. (7)\n", closed}},
      {"unparsable requirement", "", {"identifier (", kRequireClient}, "signed", 0,
       {"Failed validation. (6)\n", closed}},
      {"empty list", "<key>XPCService</key><dict><key>_AllowedClients</key><array/></dict>", {},
       "signed", 3, {refused}},
      {"no bundle", "", {}, "signed", 3, {"Warning: %5d: Unable to find main bundle.\n", refused}},
      {"no XPCService", "<key>Other</key><dict/>", {}, "signed", 3,
       {"Warning: %5d: Unable to find XPCService dictionary.\n", refused}},
      {"no list", "<key>XPCService</key><dict/>", {}, "signed", 3,
       {"Warning: %5d: Unable to find _AllowedClients array.\n", refused}},
      {"list not an array",
       "<key>XPCService</key><dict><key>_AllowedClients</key><string>x</string></dict>", {},
       "signed", 3, {"Warning: %5d: Unexpected _AllowedClients type.\n", refused}},
      {"entry not a text",
       "<key>XPCService</key><dict><key>_AllowedClients</key><array><integer>1</integer></array></dict>",
       {}, "signed", 3, {"Warning: %5d: Failed to copy requirement array.\n", refused}},
   };
   const fs::path info = dir_ / "Listener.bundle/Contents/Info.plist";
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      if (!c.reqs.empty()) {
         Requirements(c.reqs);
      } else {
         AllowedClients(c.plist);
      }
      if (std::string(c.name) == "no bundle") {
         fs::remove(info);
      }
      size_t offset = LogSize();
      auto [pid, status] = Run(c.client, {"send", "2"});
      EXPECT_EQ(status, c.exit);
      std::vector<std::string> want = {
         Line(pid, ("Received connection from " + fs::canonical(dir_ / c.client).string() + "\n").c_str())};
      for (const auto &l : c.lines) {
         want.push_back(Want(pid, l));
      }
      EXPECT_EQ(EntriesSince(offset, want.size()), want);
   }
}

// A client must be the admitted process, running the admitted executable,
// from its first byte to its last.
TEST_F(Service, IdentityAttacksAreRefused) {
   Requirements({kRequireClient, "identifier \"test.listener\""});
   const std::string refused = "Warning: Validation failed. Canceling connection.\n";
   const std::string foreign =
      "Connection received unexpected XPC Error: Message not sent by the admitted process\n";
   const std::string unidentified = "Failed validation. (1)\n";
   struct Case {
      const char *name;
      const char *hook;
      std::vector<std::string> args;
      std::vector<std::string> lines;  // after "Received connection"
   } cases[] = {
      {"writes before the hello", "delay", {"early"}, {refused}},
      {"execs an unsigned program", "none", {"exec", (dir_ / "unsigned").string()},
       {"Warning: %5d: " + foreign}},
      {"forked child writes", "none", {"fork"}, {"Warning: %5d: " + foreign}},
      {"exits during admission", "exit", {"exit"}, {unidentified, unidentified, refused}},
      {"pid reused during admission", "reuse", {"exit"}, {unidentified, unidentified, refused}},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      Hook(c.hook);
      size_t offset = LogSize();
      auto [pid, status] = Run("signed", c.args);
      EXPECT_EQ(status, 0);
      std::vector<std::string> got = EntriesSince(offset, c.lines.size() + 1);
      ASSERT_EQ(got.size(), c.lines.size() + 1);
      EXPECT_EQ(got[0].rfind(Line(pid, "Received connection from "), 0), 0u) << got[0];
      for (size_t i = 0; i < c.lines.size(); i++) {
         EXPECT_EQ(got[i + 1], Want(pid, c.lines[i]));
      }
   }
}

// A bad frame closes its own connection and nothing else; a root that is
// not a dictionary is only logged.
TEST_F(Service, BadFramesCloseOnlyTheirConnection) {
   Requirements(kOneClient);
   const std::string error = "Connection received unexpected XPC Error: ";
   const std::pair<const char *, std::string> cases[] = {
      {"oversized", error + "Malformed frame\n"},
      {"magic", error + "Malformed frame\n"},
      {"truncated", error + "Truncated frame\n"},
      {"garbage", error + "Message is not a property list\n"},
      {"nondict", "Connection received unexpected event type.\n"},
   };
   for (const auto &[kind, line] : cases) {
      SCOPED_TRACE(kind);
      size_t offset = LogSize();
      auto [pid, status] = Run("signed", {"frame", kind});
      EXPECT_EQ(status, 0);
      std::vector<std::string> got = EntriesSince(offset, 2, pid);
      ASSERT_GE(got.size(), 2u);
      EXPECT_EQ(got[1], Want(pid, "Warning: %5d: " + line));
      EXPECT_EQ(Run("signed", {"send", "1"}).second, 0);
   }
}

TEST_F(Service, ConnectionsAreServedAtOnceEachInOrder) {
   Requirements(kOneClient);
   EXPECT_EQ(Run("signed", {"many", "64", "20"}).second, 0);

   // A handler that sleeps on one connection holds up only that one.
   pid_t slow = Spawn({(dir_ / "signed").string(), (dir_ / "sock").string(), kService, "slow"}, "");
   usleep(200 * 1000);
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(Run("signed", {"send", "3"}).second, 0);
   EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
   EXPECT_EQ(Wait(slow), 0);
}

// Once its connections have ended, whichever way, the listener holds what
// it held when it started listening.
TEST_F(Service, ConnectionsLeaveNoDescriptorBehind) {
   Requirements(kOneClient);
   const std::pair<const char *, std::vector<std::string>> runs[] = {
      {"unsigned", {"send", "1"}}, {"signed", {"send", "3"}},
      {"signed", {"frame", "garbage"}}, {"signed", {"fork"}}};
   for (const auto &[client, args] : runs) {
      Run(client, args);
   }
   size_t count = 0;
   for (int i = 0; i < 500 && (count = ListenerDescriptors()) > descriptors_; i++) {
      usleep(10 * 1000);
   }
   EXPECT_EQ(count, descriptors_);
}

}  // namespace
