// SPDX-License-Identifier: MIT
/*
 * The rendezvous with the services daemon: get one descriptor into it,
 * starting it first when nobody listens on its socket.
 *
 * Invariants of this privileged module:
 * - Root only inside a bracket: while the side is chosen (socket, lock,
 *   connect or bind, chmod, listen, and the lock's release) and around the
 *   daemon start. The prepare-daemon callback, the greeting, the hand-over
 *   and the verdict run with the caller's user ID.
 * - The lock file is held only while the side is chosen, never across a
 *   daemon start, and is never removed.
 * - Every opener waits on the lock, so whoever holds it is out of its own
 *   caller's reach: the side is chosen as root in all three user IDs with
 *   the terminal's stop signals blocked (SealedRootBracket), and the caller
 *   can neither stop nor kill its opener while it holds the lock. A stop
 *   the caller sends just before the IDs change lands before the lock is
 *   taken, so an opener stopped that way holds nothing that others wait
 *   for; it stays stopped as root, which its caller can continue (same
 *   session) but not kill, and which no longer counts against the caller's
 *   process limit until it continues. Between tries for a busy lock the
 *   opener is the caller's again, to stop or kill like any of its processes.
 * - No opener waits for ever on another: the wait for the lock and a
 *   connect that blocks under it (the listener's queue is full while the
 *   daemon starts) each give up after kBoundSeconds, failing as the open or
 *   the connect with errno EAGAIN. The bound also covers what the IDs
 *   cannot: a stop whose permission the kernel checked just before the IDs
 *   changed but which it queues only later, and a holder frozen with the
 *   cgroup its caller may control.
 * - Only a descriptor that was open when the rendezvous began is handed
 *   over; a number that named nothing then never names one of our own.
 * - Every descriptor is closed on the way out, and a failed close is a
 *   failure. Nothing but the listening socket and the watch pipe's read end
 *   reaches the daemon.
 */
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "hostinfo.h"
#include "internal/fatal.h"
#include "log.h"
#include "openerConfig.h"
#include "rootBracket.h"
#include "serviceImpl.h"
#include "str.h"
#include "testSeams.h"

using halcyx::RootBracket;
using halcyx::SealedRootBracket;

namespace {

constexpr char kPickTag[] = "ServiceImplPickSockSide";
constexpr char kStartTag[] = "ServiceImplDaemonStart";

// Bound on the wait for the lock and on a connect that blocks under it.
constexpr time_t kBoundSeconds = HALCYX_RENDEZVOUS_BOUND_SECONDS;
static_assert(kBoundSeconds > 0, "the rendezvous needs a positive bound");
// Pauses between tries for a busy lock: short at first (the lock is
// normally held for a connect), then no more than a hundred tries a second.
constexpr long kFirstPauseNs = 50 * 1000;
constexpr long kLongestPauseNs = 10 * 1000 * 1000;

// The socket's address; a path that does not fit sun_path ends the process
// in the checked copy. An empty path would name Linux's abstract namespace,
// where anyone may bind, so it is refused the same way.
void FillAddress(struct sockaddr_un *addr, const char *path) {
   memset(addr, 0, sizeof *addr);
   addr->sun_family = AF_UNIX;
   if (path[0] == '\0') {
      halcyx::PanicVerify("opener/rendezvous", __LINE__);
   }
   Str_Strcpy(addr->sun_path, path, sizeof addr->sun_path);
}

bool Before(const struct timespec &a, const struct timespec &b) {
   return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

/*
 * Opens the lock file and takes its exclusive lock, waiting at most
 * kBoundSeconds for it; -1 on failure. Taking the lock is part of the open,
 * so its failure (or the end of the wait, errno EAGAIN) is the open's.
 * Between tries root leaves the bracket: a busy lock is waited for as the
 * caller, and each try enters the bracket again before it can succeed. As
 * root, the open never follows a link (root would create or lock the
 * link's target) and never waits for a writer (a FIFO in its place).
 */
int OpenLocked(const char *lockPath, SealedRootBracket &root) {
   int fd = open(lockPath, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
   if (fd < 0) {
      Warning("%s: open errno %d.\n", kPickTag, errno);
      return -1;
   }
   struct timespec deadline = {0, 0};
   long pauseNs = kFirstPauseNs;
   while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
         Warning("%s: open errno %d.\n", kPickTag, errno);
         ServiceImplClose(&fd, nullptr);
         return -1;
      }
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      if (deadline.tv_sec == 0 && deadline.tv_nsec == 0) {
         deadline = now;
         deadline.tv_sec += kBoundSeconds;
      } else if (!Before(now, deadline)) {
         Warning("%s: open errno %d.\n", kPickTag, EWOULDBLOCK);
         ServiceImplClose(&fd, nullptr);
         return -1;
      }
      root.Leave();
      const struct timespec pause = {0, pauseNs};
      nanosleep(&pause, nullptr);
      root.Enter();
      pauseNs = pauseNs * 2 < kLongestPauseNs ? pauseNs * 2 : kLongestPauseNs;
   }
   return fd;
}

#ifdef HALCYX_TEST_PAUSE_UID
// Sandbox builds only: the test user's openers linger with the lock held
// for two seconds, where a stop from their caller would leave them.
void PauseHoldingTheLock(const SealedRootBracket &root) {
   if (root.CallerUid() == HALCYX_TEST_PAUSE_UID) {
      const struct timespec pause = {2, 0};
      nanosleep(&pause, nullptr);
   }
}
#endif

// Takes over the socket path: replaces whatever is there with a socket that
// only root can connect to until the daemon's callers are served.
bool Listen(int sock, const char *socketPath, const struct sockaddr_un *addr) {
   if (unlink(socketPath) != 0 && errno != ENOENT) {
      Warning("%s: unlink errno %d.\n", kPickTag, errno);
      return false;
   }
   // No one may connect through a wider mode before chmod narrows it.
   mode_t oldMask = umask(077);
   int rc = bind(sock, reinterpret_cast<const struct sockaddr *>(addr), sizeof *addr);
   int bindErrno = errno;
   umask(oldMask);
   if (rc != 0) {
      Warning("%s: bind errno %d.\n", kPickTag, bindErrno);
      return false;
   }
   if (chmod(socketPath, 0600) != 0) {
      Warning("%s: chmod errno %d.\n", kPickTag, errno);
      return false;
   }
   // Every opener that arrives during the cold start must wait in the
   // accept queue, not in connect: Linux blocks a connect to a full queue,
   // and that connect would hold the rendezvous lock until the daemon runs.
   if (listen(sock, SOMAXCONN) != 0) {
      Warning("%s: listen errno %d.\n", kPickTag, errno);
      return false;
   }
   return true;
}

/*
 * Under the lock, connects to the daemon or, when nobody listens, becomes
 * the listener. Returns the socket (and which side it is) or -1. Runs as
 * root out of the caller's reach, and leaves the bracket as it found it.
 */
int PickSockSide(const char *lockPath, const char *socketPath, bool *listener) {
   SealedRootBracket root;
   int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (sock < 0) {
      Warning("%s: socket errno %d.\n", kPickTag, errno);
      return -1;
   }
   struct sockaddr_un addr;
   FillAddress(&addr, socketPath);
   // A Unix-domain connect waits for room in the listener's queue for as
   // long as the send time-out allows, then fails with EAGAIN. Bounding the
   // socket is part of making it.
   const struct timeval bound = {kBoundSeconds, 0};
   if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0) {
      Warning("%s: socket errno %d.\n", kPickTag, errno);
      ServiceImplClose(&sock, nullptr);
      return -1;
   }

   bool picked = false;
   int lock = OpenLocked(lockPath, root);
   if (lock >= 0) {
#ifdef HALCYX_TEST_PAUSE_UID
      PauseHoldingTheLock(root);
#endif
      HALCYX_TEST_PAUSE("locked");
      if (connect(sock, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0) {
         picked = true;
         *listener = false;
      } else if (errno == ENOENT || errno == ECONNREFUSED) {
         picked = Listen(sock, socketPath, &addr);
         *listener = true;
      } else {
         Warning("%s: connect errno %d.\n", kPickTag, errno);
      }
      HALCYX_TEST_PAUSE(*listener ? "listening" : "connected");
      // Releases the lock: the next opener may choose its side now.
      if (!ServiceImplClose(&lock, nullptr)) {
         picked = false;
      }
   }
   if (!picked) {
      ServiceImplClose(&sock, nullptr);
   }
   return sock;
}

/*
 * Listening side: lets the callback prepare the daemon, starts it with the
 * listening socket and a fresh watch pipe's read end, then gives up our
 * copy of the listening socket. On success *watch holds the pipe's write
 * end (the daemon sees its end-of-file when we finish) and *sock is -1.
 */
bool StartDaemon(const char *daemonPath, int *sock, int *watch) {
   if (!ServiceImplClose(watch, nullptr)) {
      return false;
   }
   HALCYX_TEST_PAUSE("prepare");
   ServiceImplPrepareDaemonFn prepare = ServiceImplGetPrepareDaemonCallback();
   if (prepare != nullptr && !prepare()) {
      return false;
   }

   bool started = false;
   char sockText[12];
   char pipeText[12];
   Str_Sprintf(sockText, sizeof sockText, "%d", *sock);
   int pipeFds[2] = {-1, -1};
   if (pipe2(pipeFds, O_CLOEXEC) != 0) {
      Warning("%s: pipe errno %d.\n", kStartTag, errno);
      pipeFds[0] = pipeFds[1] = -1;
   } else {
      // Both survive the exec under these numbers although close-on-exec here.
      Str_Sprintf(pipeText, sizeof pipeText, "%d", pipeFds[0]);
      const char *args[] = {daemonPath, sockText, pipeText, nullptr};
      const int keep[] = {*sock, pipeFds[0]};
      RootBracket root;
      started = Hostinfo_Daemonize(daemonPath, args, 0, nullptr, keep, 2);
   }
   if (!ServiceImplClose(&pipeFds[0], nullptr)) {
      started = false;
   }
   if (!started) {
      ServiceImplClose(&pipeFds[1], nullptr);
      return false;
   }
   *watch = pipeFds[1];
   HALCYX_TEST_PAUSE("daemon-started");
   return ServiceImplClose(sock, nullptr);
}

}  // namespace

extern "C" bool ServiceImplOpener(const char *lockPath, const char *socketPath,
                                  const char *daemonPath, int fdToPass) {
   // A number that names no descriptor now could name our socket, lock or
   // pipe later; -1 fails in sendmsg with EBADF as the closed number would.
   const int passFd = fcntl(fdToPass, F_GETFD) == -1 ? -1 : fdToPass;
   bool result = false;
   int sock = -1;
   int watch = -1;

   // No pass limit and no pause: a connection that ends before its greeting
   // and a successful daemon start both lead to another pass.
   for (;;) {
      bool listener = false;
      sock = PickSockSide(lockPath, socketPath, &listener);
      if (sock == -1) {
         break;
      }
      // Linux has no SO_NOSIGPIPE: every socket write uses MSG_NOSIGNAL.
      if (listener) {
         if (!StartDaemon(daemonPath, &sock, &watch)) {
            break;
         }
         continue;
      }

      unsigned char byte;
      int got = ServiceImplReadOne(sock, &byte);
      if (got == SERVICE_IMPL_READ_EOF) {
         if (!ServiceImplClose(&sock, nullptr)) {
            break;
         }
         continue;
      }
      if (got == SERVICE_IMPL_READ_BYTE) {
         HALCYX_TEST_PAUSE("greeted");
      }
      if (got == SERVICE_IMPL_READ_BYTE && ServiceImplSendFd(sock, passFd)) {
         HALCYX_TEST_PAUSE("sent");
         result = ServiceImplReadOne(sock, &byte) == SERVICE_IMPL_READ_BYTE && byte == '1';
      }
      break;
   }

   ServiceImplClose(&watch, &result);
   ServiceImplClose(&sock, &result);
   return result;
}
