// SPDX-License-Identifier: MIT
// Fuzzes the daemon's end of the descriptor hand-over: whatever a client
// writes (bytes with no, one or several descriptors attached, or none at
// all) arrives through a socket pair, and the daemon receives it one
// message at a time. Only a one-byte message with exactly one descriptor
// hands one over (close-on-exec, the object that was sent); everything else
// is refused, and afterwards the process holds exactly the descriptors it
// held before.
//
// Input: one flags byte (bit 0 sequenced packets rather than a stream,
// bit 1 the client stays connected, bit 2 the daemon's end does not block),
// then records of one header byte (descriptors in bits 0-1, data length in
// bits 2-6) followed by their data.
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "serviceProtocol.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

namespace {

constexpr size_t kMaxRecords = 64;

int CountFds() {
   DIR *dir = opendir("/proc/self/fd");
   CHECK(dir != nullptr);
   int n = 0;
   while (readdir(dir) != nullptr) {
      n++;
   }
   closedir(dir);
   return n;
}

// The object handed over: the read end of a pipe made once.
struct Passed {
   int fd;
   struct stat st;
};

const Passed &Object() {
   static const Passed passed = [] {
      ServiceImplLogOpen("/dev/null");  // every refusal is logged
      int fds[2];
      CHECK(pipe2(fds, O_CLOEXEC) == 0);
      Passed p{fds[0], {}};
      CHECK(fstat(p.fd, &p.st) == 0);
      return p;
   }();
   return passed;
}

// Sends one record; false when the socket would not take it whole.
bool SendRecord(int sock, const uint8_t *bytes, size_t len, int nfds, int fd) {
   struct iovec iov = {const_cast<uint8_t *>(bytes), len};
   union {
      char buf[CMSG_SPACE(3 * sizeof(int))];
      struct cmsghdr align;
   } control;
   memset(&control, 0, sizeof control);
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   if (nfds > 0) {
      msg.msg_control = control.buf;
      msg.msg_controllen = CMSG_SPACE(nfds * sizeof(int));
      struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
      c->cmsg_len = CMSG_LEN(nfds * sizeof(int));
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      for (int i = 0; i < nfds; i++) {
         memcpy(CMSG_DATA(c) + i * sizeof(int), &fd, sizeof fd);
      }
   }
   return sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size < 1) {
      return 0;
   }
   const Passed &object = Object();
   const bool packets = data[0] & 1;
   const bool stayConnected = data[0] & 2;
   const bool nonBlocking = stayConnected || (data[0] & 4);
   data++;
   size--;

   const int before = CountFds();
   int pair[2];
   CHECK(socketpair(AF_UNIX, (packets ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_CLOEXEC, 0,
                    pair) == 0);
   int daemonEnd = pair[0];
   int clientEnd = pair[1];
   CHECK(ServiceImplSetBlockingState(daemonEnd, !nonBlocking));
   CHECK(((fcntl(daemonEnd, F_GETFL) & O_NONBLOCK) != 0) == nonBlocking);

   // What the daemon must see: one receive per byte of a stream or per
   // packet, and a hand-over for each unit that is a whole one-byte
   // message with exactly one descriptor.
   size_t units = 0;
   size_t handOvers = 0;
   size_t records = 0;
   for (size_t off = 0; off < size && records < kMaxRecords; records++) {
      const int nfds = data[off] & 3;
      size_t len = (data[off] >> 2) & 0x1f;
      off++;
      if (!packets) {
         len++;  // a stream carries descriptors only with data
      }
      if (len > size - off) {
         len = size - off;
      }
      if (len == 0 && !packets) {
         break;
      }
      if (!SendRecord(clientEnd, data + off, len, nfds, object.fd)) {
         break;
      }
      off += len;
      units += packets ? 1 : len;
      handOvers += nfds == 1 && (packets ? len == 1 : true);
   }
   if (!stayConnected) {
      CHECK(ServiceImplClose(&clientEnd, nullptr) && clientEnd == -1);
   }

   size_t received = 0;
   for (size_t i = 0; i <= units; i++) {
      int fd = -1;
      if (!ServiceImplRecvFd(daemonEnd, &fd)) {
         continue;
      }
      CHECK(i < units);
      received++;
      struct stat st;
      CHECK(fd >= 0 && fstat(fd, &st) == 0);
      CHECK(st.st_dev == object.st.st_dev && st.st_ino == object.st.st_ino);
      CHECK((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
      bool ok = true;
      CHECK(ServiceImplClose(&fd, &ok) && ok && fd == -1);
   }
   CHECK(received == handOvers);

   CHECK(ServiceImplClose(&daemonEnd, nullptr));
   CHECK(ServiceImplClose(&clientEnd, nullptr));
   CHECK(CountFds() == before);
   return 0;
}
