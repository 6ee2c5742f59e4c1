// SPDX-License-Identifier: MIT
/*
 * Who is on the other end of a service connection.
 *
 * A pid alone names nothing: the process may exit and its number be given
 * to another one at any moment. So the peer is held by the pidfd that the
 * kernel recorded at connect time, and every fact about it is taken in an
 * order that a reused pid cannot satisfy:
 *  - the pid is read from the pidfd, then /proc/<pid> and its executable
 *    are opened, then the pidfd must still name a live process with that
 *    pid; if so, what was opened belongs to the peer, since a pid is not
 *    reused while its process lives;
 *  - the signature is checked on that open executable, never on a path;
 *  - each later message comes with the sender's own pidfd (SCM_PIDFD); it
 *    must be the admitted process, still in the address space it had at
 *    admission (an exec replaces it, even with the same executable). A root
 *    listener holds that address space open through /proc/<pid>/mem and
 *    reads one byte of it per message; otherwise the executable's identity
 *    and the randomised layout in /proc/<pid>/stat are compared.
 * Nothing here writes to the log.
 */
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "serviceInt.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace halcyx::service {

namespace {

constexpr long kPidFsMagic = 0x50494446;

std::atomic<AdmissionHook> gAdmissionHook{nullptr};

// True while the process behind pidfd has not exited.
bool PidfdAlive(int pidfd) {
   struct pollfd p = {pidfd, POLLIN, 0};
   int n;
   do {
      n = poll(&p, 1, 0);
   } while (n < 0 && errno == EINTR);
   return n == 0;
}

// The fields of /proc/<pid>/stat that an exec changes: start and end of the
// code, start of the stack, and where the arguments and environment lie.
bool ReadLayout(int statFd, std::string *out) {
   char buf[2048];
   ssize_t n = pread(statFd, buf, sizeof buf - 1, 0);
   if (n <= 0) {
      return false;
   }
   buf[n] = '\0';
   const char *p = strrchr(buf, ')');
   if (!p) {
      return false;
   }
   // Field 3 (the state) follows the command name.
   std::string layout;
   int field = 2;
   for (const char *tok = p + 1; *tok;) {
      while (*tok == ' ') {
         tok++;
      }
      const char *end = tok;
      while (*end && *end != ' ' && *end != '\n') {
         end++;
      }
      if (end == tok) {
         break;
      }
      field++;
      if ((field >= 26 && field <= 28) || (field >= 48 && field <= 51)) {
         layout.append(tok, end).push_back(' ');
      }
      tok = *end ? end + 1 : end;
   }
   if (field < 51) {
      return false;
   }
   *out = std::move(layout);
   return true;
}

}  // namespace

pid_t PidOfPidfd(int pidfd) {
   char path[64];
   snprintf(path, sizeof path, "/proc/self/fdinfo/%d", pidfd);
   UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   char buf[1024];
   ssize_t n = fd ? read(fd.get(), buf, sizeof buf - 1) : -1;
   if (n <= 0) {
      return -1;
   }
   buf[n] = '\0';
   const char *line = strstr(buf, "\nPid:\t");
   if (!line) {
      return -1;
   }
   long pid = strtol(line + 6, nullptr, 10);
   return pid > 0 ? static_cast<pid_t>(pid) : -1;
}

bool TakePeerPidfd(int sock, Peer *peer) {
   int pidfd = -1;
   socklen_t len = sizeof pidfd;
   if (getsockopt(sock, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) != 0 || pidfd < 0) {
      return false;
   }
   peer->pidfd.reset(pidfd);
   if (fcntl(pidfd, F_SETFD, FD_CLOEXEC) != 0) {
      return false;
   }
   peer->pid = PidOfPidfd(pidfd);
   struct statfs fs;
   struct stat st;
   if (fstatfs(pidfd, &fs) == 0 && fs.f_type == kPidFsMagic && fstat(pidfd, &st) == 0) {
      peer->pidfs = true;
      peer->pidfdIno = st.st_ino;
   }
   return peer->pid > 0;
}

int OpenPeerExecutable(Peer *peer) {
   pid_t pid = peer->pid;
   if (AdmissionHook hook = gAdmissionHook.load()) {
      hook(peer->pidfd.get(), &pid);
   }
   char path[64];
   snprintf(path, sizeof path, "/proc/%d", static_cast<int>(pid));
   UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   // Opened before the executable: an exec in between leaves it naming an
   // address space that has gone, and the first message is refused.
   UniqueFd mem(dir ? openat(dir.get(), "mem", O_RDONLY | O_CLOEXEC) : -1);
   UniqueFd exe(dir ? openat(dir.get(), "exe", O_RDONLY | O_CLOEXEC) : -1);
   UniqueFd stat(dir ? openat(dir.get(), "stat", O_RDONLY | O_CLOEXEC) : -1);
   struct stat st;
   if (!exe || !stat || fstat(exe.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      return -1;
   }
   // Only now is it known that what was opened is the peer's.
   if (!PidfdAlive(peer->pidfd.get()) || PidOfPidfd(peer->pidfd.get()) != pid ||
       !ReadLayout(stat.get(), &peer->layout)) {
      return -1;
   }
   // The start of the code is mapped for as long as the address space lives.
   char byte;
   peer->codeAddress = strtoull(peer->layout.c_str(), nullptr, 10);
   if (mem && peer->codeAddress != 0 &&
       pread(mem.get(), &byte, 1, static_cast<off_t>(peer->codeAddress)) == 1) {
      peer->mem = std::move(mem);
   }
   peer->exeDev = st.st_dev;
   peer->exeIno = st.st_ino;
   peer->procDir = std::move(dir);
   peer->statFd = std::move(stat);
   return exe.release();
}

bool SenderIsPeer(const Peer &peer, const Sender &sender) {
   if (sender.pidfd < 0) {
      return false;
   }
   if (peer.mem) {
      // The pid and the pidfd came from the same record of the sender. While
      // the admitted address space lives, the admitted process does, so its
      // pid names no other process.
      char byte;
      return sender.pid == peer.pid &&
             pread(peer.mem.get(), &byte, 1, static_cast<off_t>(peer.codeAddress)) == 1;
   }
   struct stat st;
   if (fstat(sender.pidfd, &st) != 0) {
      return false;
   }
   if (peer.pidfs) {
      // One inode per process: equal inodes are the same process.
      if (st.st_ino != peer.pidfdIno) {
         return false;
      }
   } else if (PidOfPidfd(sender.pidfd) != peer.pid || !PidfdAlive(peer.pidfd.get())) {
      return false;
   }
   std::string layout;
   if (fstatat(peer.procDir.get(), "exe", &st, 0) != 0 || st.st_dev != peer.exeDev ||
       st.st_ino != peer.exeIno || !ReadLayout(peer.statFd.get(), &layout) ||
       layout != peer.layout) {
      return false;
   }
   return true;
}

bool PeerAlive(const Peer &peer) { return PidfdAlive(peer.pidfd.get()); }

void SetAdmissionHookForTesting(AdmissionHook hook) { gAdmissionHook.store(hook); }

int CodeIdentity::Establish(int exeFd) {
   try {
      codesign::SignatureObjects objs;
      std::string reason;
      if (codesign::ReadSignatureObjects(exeFd, &objs) != codesign::ReadStatus::Ok ||
          objs.kind != codesign::CodeKind::File) {
         status_ = kUnsigned;
      } else if (!codesign::CheckSignature(exeFd, objs, codesign::BuildTrustPolicy(), &evidence_,
                                           &reason)) {
         status_ = kInvalid;
      } else {
         status_ = kAdmitted;
      }
   } catch (...) {
      status_ = kInvalid;
   }
   return status_;
}

int CodeIdentity::Check(std::string_view requirement) const {
   if (status_ != kAdmitted) {
      return status_;
   }
   try {
      codesign::Requirement req;
      std::string error;
      if (!codesign::ParseRequirement(requirement, &req, &error)) {
         return kRequirementParse;
      }
      return codesign::EvaluateRequirement(req, evidence_) ? kAdmitted : kInvalid;
   } catch (...) {
      return kInvalid;
   }
}

}  // namespace halcyx::service
