// SPDX-License-Identifier: MIT
/*
 * Both ends of the opener-to-daemon socket protocol: one byte each way and
 * one descriptor passed as SCM_RIGHTS.
 *
 * Every function is one system call. Nothing is retried on EINTR: the
 * caller's loop decides what an interrupted exchange means. Socket writes
 * use MSG_NOSIGNAL, so a vanished peer is EPIPE, never a signal.
 */
#include "serviceProtocol.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"

namespace {

// The last byte read on this thread; the data byte of the next hand-over.
thread_local unsigned char tExchangeByte;

// Control buffer for exactly one descriptor, aligned for cmsghdr.
union OneFdControl {
   char buf[CMSG_SPACE(sizeof(int))];
   struct cmsghdr align;
};

// Closes every descriptor carried by a rejected message, so that a
// malformed hand-over cannot leave descriptors behind in the receiver.
void CloseCarriedFds(struct msghdr *msg) {
   for (struct cmsghdr *c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) {
         continue;
      }
      size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; i++) {
         int fd;
         memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
         close(fd);
      }
   }
}

}  // namespace

extern "C" {

int ServiceImplReadOne(int fd, unsigned char *byteOut) {
   ssize_t n = read(fd, byteOut, 1);
   if (n < 0) {
      Warning("%s: read errno %d.\n", "ServiceImplReadOne", errno);
      return SERVICE_IMPL_READ_ERROR;
   }
   if (n == 0) {
      return SERVICE_IMPL_READ_EOF;
   }
   tExchangeByte = *byteOut;
   return SERVICE_IMPL_READ_BYTE;
}

bool ServiceImplWriteOne(int fd, int value) {
   unsigned char byte = static_cast<unsigned char>(value);
   ssize_t n = send(fd, &byte, 1, MSG_NOSIGNAL);
   if (n < 0 && errno == ENOTSOCK) {
      n = write(fd, &byte, 1);
   }
   if (n == 1) {
      return true;
   }
   if (n < 0 && errno != EPIPE) {
      Warning("%s: write errno %d.\n", "ServiceImplWriteOne", errno);
   }
   return false;
}

bool ServiceImplSendFd(int socket, int fd) {
   unsigned char byte = tExchangeByte;
   struct iovec iov = {&byte, 1};
   OneFdControl control;
   memset(&control, 0, sizeof control);
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control.buf;
   msg.msg_controllen = sizeof control.buf;
   struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
   c->cmsg_len = CMSG_LEN(sizeof(int));
   c->cmsg_level = SOL_SOCKET;
   c->cmsg_type = SCM_RIGHTS;
   memcpy(CMSG_DATA(c), &fd, sizeof fd);

   if (sendmsg(socket, &msg, MSG_NOSIGNAL) >= 0) {
      return true;
   }
   if (errno != EPIPE) {
      Warning("%s: sendmsg errno %d.\n", "ServiceImplSendFd", errno);
   }
   return false;
}

bool ServiceImplRecvFd(int socket, int *fdOut) {
   unsigned char byte;
   struct iovec iov = {&byte, 1};
   OneFdControl control;
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control.buf;
   msg.msg_controllen = sizeof control.buf;

   ssize_t n = recvmsg(socket, &msg, MSG_CMSG_CLOEXEC);
   if (n == 0) {
      // End-of-file, or an empty packet: only the latter brings control
      // data, and descriptors it carried must not stay behind.
      if (CMSG_FIRSTHDR(&msg) != nullptr) {
         CloseCarriedFds(&msg);
         Warning("%s: Unexpected message.\n", "ServiceImplRecvFd");
      }
      return false;
   }
   if (n < 0) {
      Warning("%s: recvmsg errno %d.\n", "ServiceImplRecvFd", errno);
      return false;
   }
   tExchangeByte = byte;
   // Linux echoes the MSG_CMSG_CLOEXEC request in msg_flags; only the
   // truncation bits say something about the message.
   struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
   if ((msg.msg_flags & ~MSG_CMSG_CLOEXEC) == 0 && c != nullptr && c->cmsg_len == CMSG_LEN(sizeof(int)) &&
       c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS &&
       CMSG_NXTHDR(&msg, c) == nullptr) {
      memcpy(fdOut, CMSG_DATA(c), sizeof *fdOut);
      return true;
   }
   CloseCarriedFds(&msg);
   Warning("%s: Unexpected message.\n", "ServiceImplRecvFd");
   return false;
}

bool ServiceImplSetBlockingState(int fd, bool blocking) {
   int flags = fcntl(fd, F_GETFL);
   if (flags < 0) {
      Warning("%s: fcntl get errno %d.\n", "ServiceImplSetBlockingState", errno);
      return false;
   }
   flags &= ~O_NONBLOCK;
   if (!blocking) {
      flags |= O_NONBLOCK;
   }
   if (fcntl(fd, F_SETFL, flags) < 0) {
      Warning("%s: fcntl set errno %d.\n", "ServiceImplSetBlockingState", errno);
      return false;
   }
   return true;
}

bool ServiceImplClose(int *fdSlot, bool *okFlag) {
   int fd = *fdSlot;
   if (fd == -1) {
      return true;
   }
   *fdSlot = -1;
   // Never retried: on Linux the descriptor is released even on EINTR.
   if (close(fd) != 0) {
      Warning("%s: close %d errno %d.\n", "ServiceImplClose", fd, errno);
      if (okFlag != nullptr) {
         *okFlag = false;
      }
      return false;
   }
   return true;
}

}  // extern "C"
