// SPDX-License-Identifier: MIT
// The reference daemon given its socket as a service manager gives it: at
// descriptor 3, with LISTEN_FDS and LISTEN_PID. It needs root; its log
// directory is covered by a tmpfs in a private mount namespace.
#include <gtest/gtest.h>

#include <cerrno>
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

// Starts the daemon with fds[i] at descriptor 3 + i, LISTEN_FDS=fds.size()
// and LISTEN_PID=its own pid (or pidOverride); *out reads its stdout.
pid_t Start(const std::vector<int> &fds, int *out, pid_t pidOverride = 0) {
   int pipeFds[2];
   if (pipe2(pipeFds, O_CLOEXEC) != 0) {
      return -1;
   }
   const std::string count = "LISTEN_FDS=" + std::to_string(fds.size());
   pid_t pid = fork();
   if (pid == 0) {
      std::vector<int> high;  // above 3 + n first, so no dup2 hits a source
      for (int fd : fds) {
         high.push_back(fcntl(fd, F_DUPFD, 100));
      }
      for (size_t i = 0; i < high.size(); i++) {
         dup2(high[i], 3 + static_cast<int>(i));
      }
      dup2(pipeFds[1], STDOUT_FILENO);
      char pidVar[32];
      snprintf(pidVar, sizeof pidVar, "LISTEN_PID=%d", pidOverride ? pidOverride : getpid());
      char *const argv[] = {const_cast<char *>(DAEMON_PATH), nullptr};
      char *const envp[] = {pidVar, const_cast<char *>(count.c_str()), nullptr};
      execve(DAEMON_PATH, argv, envp);
      _exit(127);
   }
   close(pipeFds[1]);
   *out = pipeFds[0];
   return pid;
}

// What the daemon wrote before it exited (or took its log), and its exit
// status; -1 when it still runs after 10 s (then killed) or was signalled.
int WaitExit(pid_t pid, int out, std::string *text) {
   char buf[512];
   struct pollfd p = {out, POLLIN, 0};
   for (ssize_t n = 1; n > 0 && poll(&p, 1, 10000) == 1;) {
      n = read(out, buf, sizeof buf);
      text->append(buf, n > 0 ? static_cast<size_t>(n) : 0);
   }
   close(out);
   int status = 0;
   for (int i = 0; waitpid(pid, &status, WNOHANG) == 0; i++) {
      if (i == 1000) {
         kill(pid, SIGKILL);
         waitpid(pid, &status, 0);
         return -1;
      }
      usleep(10000);
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A listening socket of this type, bound to an abstract name of its own.
int Listener(int domain, int type) {
   int fd = socket(domain, type | SOCK_CLOEXEC, 0);
   struct sockaddr_in loopback = {};
   loopback.sin_family = AF_INET;
   loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   const struct sockaddr autobind = {AF_UNIX, {}};
   bool bound = domain == AF_INET
                   ? bind(fd, reinterpret_cast<struct sockaddr *>(&loopback), sizeof loopback) == 0
                   : bind(fd, &autobind, sizeof(sa_family_t)) == 0;
   EXPECT_TRUE(bound && listen(fd, 4) == 0) << errno;
   return fd;
}

class SocketActivation : public ::testing::Test {
protected:
   void SetUp() override {
      static const std::string skip = [] {
         if (geteuid() != 0) {
            return "the daemon needs root";
         }
         return unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("halcyx-log", DAEMON_LOG_DIR, "tmpfs", 0, "mode=0755") == 0
                   ? ""
                   : "cannot cover the daemon's log directory";
      }();
      if (!skip.empty()) {
         GTEST_SKIP() << skip;
      }
   }
};

TEST_F(SocketActivation, ServesAFullRoundOnThePassedSocketUntilStopped) {
   int listener = Listener(AF_UNIX, SOCK_STREAM);
   struct sockaddr_un addr = {};
   socklen_t size = sizeof addr;
   ASSERT_EQ(getsockname(listener, reinterpret_cast<struct sockaddr *>(&addr), &size), 0);
   int out;
   pid_t pid = Start({listener}, &out);
   close(listener);
   ASSERT_GT(pid, 0);

   int conn = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   ASSERT_EQ(connect(conn, reinterpret_cast<struct sockaddr *>(&addr), size), 0) << errno;
   int line[2];  // the daemon writes one line into a writable descriptor
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

   usleep(100000);  // no watch pipe: it runs on until stopped
   EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
   kill(pid, SIGTERM);
   std::string ignored;
   WaitExit(pid, out, &ignored);
}

TEST_F(SocketActivation, RefusesAnythingButItsOneListeningUnixStreamSocket) {
   int pipeFds[2];
   ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
   const int stream = Listener(AF_UNIX, SOCK_STREAM);
   const int idle = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   const int packets = Listener(AF_UNIX, SOCK_SEQPACKET);
   const int inet = Listener(AF_INET, SOCK_STREAM);
   const char *kNotListening = "not a listening Unix stream socket";
   const struct {
      std::vector<int> fds;
      pid_t pid;  // 0: the daemon's own
      const char *message;
   } rows[] = {
      {{stream}, getpid(), "is meant for pid"},
      {{stream, stream}, 0, "exactly one passed socket, got 2"},
      {{}, 0, "exactly one passed socket, got 0"},
      {{pipeFds[0]}, 0, kNotListening},
      {{idle}, 0, kNotListening},
      {{packets}, 0, kNotListening},
      {{inet}, 0, kNotListening},
   };
   for (const auto &row : rows) {
      SCOPED_TRACE(row.message);
      int out;
      pid_t pid = Start(row.fds, &out, row.pid);
      ASSERT_GT(pid, 0);
      std::string text;
      EXPECT_EQ(WaitExit(pid, out, &text), 1) << text;
      EXPECT_NE(text.find(row.message), std::string::npos) << text;
   }
   for (int fd : {pipeFds[0], pipeFds[1], stream, idle, packets, inet}) {
      close(fd);
   }
}

}  // namespace
