// SPDX-License-Identifier: MIT
// Both ends of the opener-to-daemon protocol over a socket pair.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "serviceProtocol.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

struct Pair {
   int opener = -1;
   int daemon = -1;
   Pair() {
      int fds[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
         opener = fds[0];
         daemon = fds[1];
      }
   }
   ~Pair() {
      ServiceImplClose(&opener, nullptr);
      ServiceImplClose(&daemon, nullptr);
   }
};

size_t OpenDescriptors() {
   return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                            std::filesystem::directory_iterator()));
}

TEST(ServiceProtocol, OneExchangePassesTheObjectAndEchoesTheGreeting) {
   Pair p;
   int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
   ASSERT_TRUE(ServiceImplWriteOne(p.daemon, 0x1a7));  // only the low byte goes out
   unsigned char greeting = 0;
   ASSERT_EQ(ServiceImplReadOne(p.opener, &greeting), SERVICE_IMPL_READ_BYTE);
   EXPECT_EQ(greeting, 0xa7);
   ASSERT_TRUE(ServiceImplSendFd(p.opener, file));

   int got = -1;
   unsigned char echoed = 0;
   ASSERT_TRUE(ServiceImplRecvFd(p.daemon, &got));
   ASSERT_TRUE(ServiceImplWriteOne(p.daemon, '1'));
   ASSERT_EQ(ServiceImplReadOne(p.opener, &echoed), SERVICE_IMPL_READ_BYTE);
   EXPECT_EQ(echoed, '1');

   struct stat a, b;
   ASSERT_EQ(fstat(file, &a), 0);
   ASSERT_EQ(fstat(got, &b), 0);
   EXPECT_EQ(a.st_ino, b.st_ino);
   EXPECT_NE(got, file);
   EXPECT_EQ(fcntl(got, F_GETFD), FD_CLOEXEC);
   close(got);
   close(file);
}

TEST(ServiceProtocol, MalformedHandOversAreRejectedWithoutLeaks) {
   // Sender sends what the case says; the receiver must refuse it and keep
   // no descriptor that came with it.
   struct Case {
      const char *name;
      int descriptors;  // 0: a plain byte; 2: two descriptors in one message
   };
   for (const Case &c : {Case{"no descriptor", 0}, Case{"two descriptors", 2}}) {
      SCOPED_TRACE(c.name);
      auto r = RunInChild([&] {
         Pair p;
         unsigned char byte = 'x';
         struct iovec iov = {&byte, 1};
         union {
            char buf[CMSG_SPACE(2 * sizeof(int))];
            struct cmsghdr align;
         } control = {};
         struct msghdr msg = {};
         msg.msg_iov = &iov;
         msg.msg_iovlen = 1;
         if (c.descriptors > 0) {
            int fds[2] = {0, 1};
            msg.msg_control = control.buf;
            msg.msg_controllen = sizeof control.buf;
            struct cmsghdr *h = CMSG_FIRSTHDR(&msg);
            h->cmsg_len = CMSG_LEN(sizeof fds);
            h->cmsg_level = SOL_SOCKET;
            h->cmsg_type = SCM_RIGHTS;
            memcpy(CMSG_DATA(h), fds, sizeof fds);
         }
         if (sendmsg(p.opener, &msg, 0) != 1) {
            _exit(10);
         }
         size_t before = OpenDescriptors();
         int got = -1;
         bool ok = ServiceImplRecvFd(p.daemon, &got);
         _exit(ok ? 11 : got != -1 ? 12 : OpenDescriptors() != before ? 13 : 0);
      });
      EXPECT_EQ(r.ExitCode(), 0);
      EXPECT_EQ(LogEntries(r.out),
                std::vector<std::string>{"Warning: ServiceImplRecvFd: Unexpected message.\n"});
   }
}

TEST(ServiceProtocol, APeerThatWentAwayIsQuietAndNeverASignal) {
   auto r = RunInChild([] {
      Pair p;
      int gotFd = -1;
      unsigned char byte;
      ServiceImplClose(&p.daemon, nullptr);
      // End-of-file on both reads, EPIPE on both writes: no message, no
      // SIGPIPE (which would end this child with a signal).
      bool quiet = ServiceImplReadOne(p.opener, &byte) == SERVICE_IMPL_READ_EOF &&
                   !ServiceImplWriteOne(p.opener, '1') && !ServiceImplSendFd(p.opener, 0);
      Pair q;
      ServiceImplClose(&q.opener, nullptr);
      quiet = quiet && !ServiceImplRecvFd(q.daemon, &gotFd) && gotFd == -1;
      _exit(quiet ? 0 : 1);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(r.out, "");
}

// A daemon may watch pipes too: the byte reaches a pipe, and the blocking
// state changes only O_NONBLOCK.
TEST(ServiceProtocol, PipesTakeBytesAndBlockingStates) {
   int fds[2];
   ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
   ASSERT_TRUE(ServiceImplWriteOne(fds[1], 'z'));
   ASSERT_TRUE(ServiceImplSetBlockingState(fds[0], false));
   EXPECT_EQ(fcntl(fds[0], F_GETFL), O_RDONLY | O_NONBLOCK);
   ASSERT_TRUE(ServiceImplSetBlockingState(fds[0], true));
   EXPECT_EQ(fcntl(fds[0], F_GETFL), O_RDONLY);
   unsigned char byte = 0;
   EXPECT_EQ(ServiceImplReadOne(fds[0], &byte), SERVICE_IMPL_READ_BYTE);
   EXPECT_EQ(byte, 'z');
   close(fds[0]);
   close(fds[1]);
}

}  // namespace
