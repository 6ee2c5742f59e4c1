// SPDX-License-Identifier: MIT
// The reference daemon under socket activation: a listening socket at
// descriptor 3 with LISTEN_FDS and LISTEN_PID, as a service manager passes
// it. The daemon needs root (it makes itself root's in every ID and drops
// its capabilities); its log directory is covered by a tmpfs in a private
// mount namespace, so nothing reaches the host.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "serviceProtocol.h"

namespace {

// A started daemon: its pid and the read end of its standard output.
struct Daemon {
   pid_t pid = -1;
   int out = -1;
};

// Starts the daemon with fds[i] as descriptor 3 + i and the environment
// LISTEN_FDS=<fds.size()>, LISTEN_PID=<its pid, or pidOverride when given>.
Daemon Start(const std::vector<int> &fds, pid_t pidOverride = 0) {
   int out[2];
   if (pipe2(out, O_CLOEXEC) != 0) {
      return {};
   }
   const std::string count = "LISTEN_FDS=" + std::to_string(fds.size());
   pid_t pid = fork();
   if (pid == 0) {
      // Moved above the target numbers first, so no dup2 overwrites a source.
      std::vector<int> high;
      for (int fd : fds) {
         high.push_back(fcntl(fd, F_DUPFD, 100));
      }
      for (size_t i = 0; i < high.size(); i++) {
         dup2(high[i], 3 + static_cast<int>(i));
      }
      dup2(out[1], STDOUT_FILENO);
      char pidVar[32];
      snprintf(pidVar, sizeof pidVar, "LISTEN_PID=%d",
               pidOverride != 0 ? static_cast<int>(pidOverride) : static_cast<int>(getpid()));
      char *const argv[] = {const_cast<char *>(DAEMON_PATH), nullptr};
      char *const envp[] = {pidVar, const_cast<char *>(count.c_str()), nullptr};
      execve(DAEMON_PATH, argv, envp);
      _exit(127);
   }
   close(out[1]);
   return {pid, out[0]};
}

// Everything the daemon wrote to standard output before it exited or
// replaced it with its log; its exit status, or -1 when it is still running
// after 10 s (it is then killed) or ended by a signal.
int WaitExit(Daemon &d, std::string *output) {
   char buf[512];
   struct pollfd p = {d.out, POLLIN, 0};
   ssize_t n = 1;
   while (n > 0 && poll(&p, 1, 10000) == 1) {
      n = read(d.out, buf, sizeof buf);
      output->append(buf, n > 0 ? static_cast<size_t>(n) : 0);
   }
   close(d.out);
   int status = 0;
   for (int i = 0; i < 1000 && waitpid(d.pid, &status, WNOHANG) == 0; i++) {
      usleep(10000);
      if (i == 999) {
         kill(d.pid, SIGKILL);
         waitpid(d.pid, &status, 0);
         return -1;
      }
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SocketActivation : public ::testing::Test {
protected:
   static void SetUpTestSuite() {
      if (geteuid() != 0) {
         sSkip = "the daemon needs root";
      } else if (unshare(CLONE_NEWNS) != 0 ||
                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                 mount("halcyx-log", DAEMON_LOG_DIR, "tmpfs", 0, "mode=0755") != 0) {
         sSkip = "cannot cover the daemon's log directory in a private mount namespace";
      }
   }
   void SetUp() override {
      if (!sSkip.empty()) {
         GTEST_SKIP() << sSkip;
      }
   }

   // A listening Unix stream socket bound to an abstract name of its own.
   static int Listener() {
      int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      struct sockaddr_un addr = {};
      addr.sun_family = AF_UNIX;
      const std::string name = "halcyx-activation-" + std::to_string(getpid());
      memcpy(addr.sun_path + 1, name.data(), name.size());
      socklen_t size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
      EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&addr), size), 0) << errno;
      EXPECT_EQ(listen(fd, 4), 0);
      sAddr = addr;
      sAddrSize = size;
      return fd;
   }

   static inline std::string sSkip;
   static inline struct sockaddr_un sAddr;
   static inline socklen_t sAddrSize;
};

TEST_F(SocketActivation, ServesAFullRoundOnThePassedSocket) {
   int listener = Listener();
   Daemon d = Start({listener});
   close(listener);
   ASSERT_GT(d.pid, 0);

   int conn = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   ASSERT_EQ(connect(conn, reinterpret_cast<struct sockaddr *>(&sAddr), sAddrSize), 0) << errno;
   // The daemon writes one line into a writable descriptor it is handed.
   int line[2];
   ASSERT_EQ(pipe2(line, O_CLOEXEC), 0);
   unsigned char byte = 0;
   EXPECT_EQ(ServiceImplReadOne(conn, &byte), SERVICE_IMPL_READ_BYTE);
   EXPECT_TRUE(ServiceImplSendFd(conn, line[1]));
   EXPECT_EQ(ServiceImplReadOne(conn, &byte), SERVICE_IMPL_READ_BYTE);
   EXPECT_EQ(byte, '1');
   close(line[1]);
   close(conn);
   char text[256] = {};
   EXPECT_GT(read(line[0], text, sizeof text - 1), 0);
   EXPECT_NE(std::string(text).find("received this descriptor"), std::string::npos) << text;
   close(line[0]);

   // No watch pipe: it serves on until stopped.
   usleep(100000);
   ASSERT_EQ(waitpid(d.pid, nullptr, WNOHANG), 0);
   kill(d.pid, SIGTERM);
   std::string output;
   WaitExit(d, &output);
}

TEST_F(SocketActivation, RefusesWhatIsNotItsOneListeningSocket) {
   int pipeFds[2];
   ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
   int unbound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   // Listening, but not a Unix stream socket.
   int packets = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
   int inet = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct sockaddr_in loopback = {};
   loopback.sin_family = AF_INET;
   loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   ASSERT_EQ(bind(inet, reinterpret_cast<struct sockaddr *>(&loopback), sizeof loopback), 0);
   ASSERT_EQ(listen(inet, 1), 0);
   const struct sockaddr autobind = {AF_UNIX, {}};
   ASSERT_EQ(bind(packets, &autobind, sizeof(sa_family_t)), 0) << errno;
   ASSERT_EQ(listen(packets, 1), 0) << errno;
   int listener = Listener();
   const struct {
      const char *name;
      std::vector<int> fds;
      pid_t pid;  // 0: the daemon's own
      const char *message;
   } rows[] = {
      {"another process's pid", {listener}, getpid(), "is meant for pid"},
      {"two sockets", {listener, listener}, 0, "exactly one passed socket, got 2"},
      {"no socket", {}, 0, "exactly one passed socket, got 0"},
      {"a pipe", {pipeFds[0]}, 0, "not a listening Unix stream socket"},
      {"a socket that does not listen", {unbound}, 0, "not a listening Unix stream socket"},
      {"a sequenced-packet socket", {packets}, 0, "not a listening Unix stream socket"},
      {"an internet socket", {inet}, 0, "not a listening Unix stream socket"},
   };
   for (const auto &row : rows) {
      Daemon d = Start(row.fds, row.pid);
      ASSERT_GT(d.pid, 0);
      std::string output;
      EXPECT_EQ(WaitExit(d, &output), 1) << row.name << ": " << output;
      EXPECT_NE(output.find(row.message), std::string::npos) << row.name << ": " << output;
   }
   for (int fd : {pipeFds[0], pipeFds[1], unbound, packets, inet, listener}) {
      close(fd);
   }
}

}  // namespace
