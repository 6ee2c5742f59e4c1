// SPDX-License-Identifier: MIT
/*
 * The reference services daemon: what a product's root daemon looks like
 * from the opener's side. Product teams copy this file and replace Use().
 *
 * The opener starts it detached, with root as effective user ID, the first
 * caller as real user ID, descriptors 0-2 on /dev/null and the command line
 *
 *     <daemon path> <listening socket number> <watch pipe read-end number>
 *
 * Everything else it inherits from that first caller too: group IDs,
 * resource limits, priority. It serves every user, so it
 * - makes itself root in every user and group ID, so that no caller can
 *   signal it;
 * - opens its log (the only file it needs root for), then puts its own
 *   resource limits and the ordinary priority in place of the caller's, so
 *   that no caller can starve it;
 * - gives up every capability for good, keeping only the descriptors it
 *   was handed;
 * - greets every caller as soon as it connects and answers each as its
 *   descriptor arrives: verdict "1" ("0" when it cannot keep more for that
 *   caller's user, so that no user can use up what the others need);
 * - does something visible and harmless with each descriptor: writes one
 *   line into a writable one, watches a read-only pipe (shell mode's
 *   liveness token) until its writer is gone, and logs what it got;
 * - notices the watch pipe's end-of-file: the opener that started it has
 *   finished.
 *
 * A service manager may own the socket instead (socket activation): started
 * with no arguments, the daemon takes the one listening Unix stream socket
 * passed as descriptor 3 under LISTEN_FDS=1 and LISTEN_PID=<its own pid>,
 * and serves callers exactly as above. There is no watch pipe then and no
 * opener to outlive: the daemon runs until the service manager stops it,
 * and the liveness pipes it keeps close with it.
 * A caller that stalls in the protocol holds up nobody else, and is dropped
 * after a few seconds.
 */
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include "daemonConfig.h"
#include "log.h"
#include "serviceProtocol.h"
#include "str.h"

// Linux 6.5; older C library headers lack it.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace {

constexpr char kTag[] = "ServicesDaemon";
// Liveness pipes kept for one user's callers, and for all users together:
// one user at its cap cannot refuse anybody else; the total bounds the
// descriptors this daemon holds.
constexpr size_t kMaxSessionsPerUser = 64;
constexpr size_t kMaxSessions = 4096;
// Callers greeted at once and answered as their descriptors arrive, so a
// caller that stalls holds up nobody; it is dropped after a few seconds.
constexpr size_t kMaxCallers = 256;
constexpr int kStepTimeoutSeconds = 5;

// A kept liveness pipe, the process that handed it over and its user.
struct Session {
   int fd;
   pid_t pid;
   uid_t uid;
};

// A descriptor number given on the command line: decimal digits only.
int ParseFd(const char *text) {
   char *end = nullptr;
   errno = 0;
   long value = strtol(text, &end, 10);
   if (errno != 0 || end == text || *end != '\0' || value < 0 || value > INT_MAX) {
      return -1;
   }
   return static_cast<int>(value);
}

bool IsListeningSocket(int fd) {
   int listening = 0;
   socklen_t size = sizeof listening;
   return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening;
}

// A listening AF_UNIX stream socket, as the opener hands over.
bool IsUnixListeningSocket(int fd) {
   int domain = 0;
   int type = 0;
   socklen_t size = sizeof domain;
   if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) {
      return false;
   }
   size = sizeof type;
   return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM &&
          IsListeningSocket(fd);
}

/*
 * The listening socket a service manager passed (descriptor 3), or -1 with
 * the reason logged. Accepted only when LISTEN_PID names this process (the
 * variables may have been meant for a parent that exec'd us without
 * clearing them), LISTEN_FDS is exactly 1 and descriptor 3 is a listening
 * Unix stream socket. The variables are removed whatever the outcome, so
 * nothing this daemon might start takes them for its own; the socket
 * becomes close-on-exec. Single-threaded here: unsetenv is safe.
 */
int ActivationSocket() {
   constexpr int kFirstPassedFd = 3;
   const char *pidText = getenv("LISTEN_PID");
   const char *fdsText = getenv("LISTEN_FDS");
   const int pid = pidText != nullptr ? ParseFd(pidText) : -1;
   const int count = fdsText != nullptr ? ParseFd(fdsText) : -1;
   unsetenv("LISTEN_PID");
   unsetenv("LISTEN_FDS");
   unsetenv("LISTEN_FDNAMES");
   if (pid < 0 || count < 0) {
      Warning("%s: expects a listening socket and a pipe's read end as arguments, or one "
              "listening socket from the service manager.\n", kTag);
      return -1;
   }
   if (pid != getpid()) {
      Warning("%s: the passed socket is meant for pid %d, not this process.\n", kTag, pid);
      return -1;
   }
   if (count != 1) {
      Warning("%s: expects exactly one passed socket, got %d.\n", kTag, count);
      return -1;
   }
   if (!IsUnixListeningSocket(kFirstPassedFd)) {
      Warning("%s: descriptor %d is not a listening Unix stream socket.\n", kTag,
              kFirstPassedFd);
      return -1;
   }
   return kFirstPassedFd;
}

bool IsPipe(int fd) {
   struct stat st;
   return fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode);
}

/*
 * Makes this process root's own in every user and group ID, whoever
 * started the opener that started it. It comes with its first caller's real
 * user ID, and a user may signal every process whose real or saved user ID
 * is its own: that caller could stop (SIGSTOP) the daemon that every user
 * shares. The caller's group IDs (the opener is set-user-ID only) and
 * supplementary groups would decide file access once the capabilities are
 * gone. Needs the capabilities, so it runs before DropPrivileges(); the
 * process is single-threaded here, so the C library's process-wide calls
 * are the right ones.
 */
bool BecomeRoot() {
   return setgroups(0, nullptr) == 0 && setresgid(0, 0, 0) == 0 && setresuid(0, 0, 0) == 0;
}

// The resource limits this daemon runs under, soft and hard alike, instead
// of its first caller's. The others bound nothing this daemon does; a
// product daemon that forks, locks memory or queues signals sets those too.
struct OwnLimit {
   int resource;
   rlim_t value;
};
constexpr OwnLimit kOwnLimits[] = {
   // Every session, and our own: standard descriptors, listening socket,
   // watch pipe, log, the callers being served and what they bring.
   {RLIMIT_NOFILE, kMaxSessions + kMaxCallers + 16},
   {RLIMIT_CPU, RLIM_INFINITY},    // its signal would end the daemon
   {RLIMIT_FSIZE, RLIM_INFINITY},  // so would its signal on a log write
   {RLIMIT_DATA, RLIM_INFINITY},
   {RLIMIT_AS, RLIM_INFINITY},
   {RLIMIT_STACK, 8 << 20},  // the usual; unlimited would change the memory layout
   {RLIMIT_CORE, 0},         // a dump would hold what callers handed over
};

/*
 * Replaces the resource limits, nice value and scheduling policy that came
 * from the first caller, with which it could starve this daemon: with a
 * descriptor limit of 8 the daemon could serve nobody. Raising a hard limit
 * needs a capability that root may lack (in a container); such a limit goes
 * as high as it may, with a warning, and the daemon carries on: one that
 * ended would only be started again by the next caller.
 */
void TakeOwnLimits() {
   for (const OwnLimit &own : kOwnLimits) {
      struct rlimit limit = {own.value, own.value};
      if (setrlimit(own.resource, &limit) == 0) {
         continue;
      }
      int error = errno;
      if (getrlimit(own.resource, &limit) == 0) {
         limit.rlim_cur = limit.rlim_max;
         setrlimit(own.resource, &limit);
      }
      Warning("%s: resource %d limited to %llu, errno %d.\n", kTag, own.resource,
              static_cast<unsigned long long>(limit.rlim_cur), error);
   }
   const struct sched_param ordinary = {};
   if (sched_setscheduler(0, SCHED_OTHER, &ordinary) != 0 || setpriority(PRIO_PROCESS, 0, 0) != 0) {
      Warning("%s: cannot take the ordinary priority, errno %d.\n", kTag, errno);
   }
}

// Appends the library log (standard output) to the daemon's log file.
bool OpenLog() {
   int fd = open(HALCYX_DAEMON_LOG_PATH, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                 0644);
   if (fd < 0) {
      return false;
   }
   bool ok = dup2(fd, STDOUT_FILENO) == STDOUT_FILENO;
   close(fd);
   return ok;
}

/*
 * Gives up every capability, for good: root stays the owner of this
 * process, but neither exec, nor a set-user-ID file, nor a change of user
 * ID can bring a capability back. A product daemon keeps only the
 * capabilities its work needs.
 */
bool DropPrivileges() {
   if (prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED | SECBIT_NO_SETUID_FIXUP |
                                   SECBIT_NO_SETUID_FIXUP_LOCKED | SECBIT_KEEP_CAPS_LOCKED) != 0) {
      return false;
   }
   for (int cap = 0; prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) == 0; cap++) {
   }
   if (errno != EINVAL || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
      return false;
   }
   struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
   struct __user_cap_data_struct data[2] = {};
   return syscall(SYS_capset, &header, data) == 0;
}

// The real and effective user IDs of pid, from /proc; -1 when unknown.
void PeerUids(pid_t pid, long *uid, long *euid) {
   *uid = *euid = -1;
   char path[64];
   Str_Sprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
   FILE *f = fopen(path, "re");
   if (f == nullptr) {
      return;
   }
   char line[256];
   while (fgets(line, sizeof line, f) != nullptr) {
      if (sscanf(line, "Uid: %ld %ld", uid, euid) == 2) {
         break;
      }
   }
   fclose(f);
}

/*
 * The user a caller runs for: the real user ID of the process that handed
 * over the descriptor; -1 when it cannot be established. SO_PEERCRED's user
 * ID will not do: it is the peer's effective user ID at connect time, and
 * the set-user-ID opener connects as root. The real user ID comes from
 * /proc by process ID, which names the peer only while the peer lives: its
 * pid file descriptor, taken from the socket, shows that it still lived
 * after the read, so the number had not passed to another process.
 */
long PeerUser(int conn, pid_t pid) {
   int pidfd = -1;
   socklen_t size = sizeof pidfd;
   if (getsockopt(conn, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &size) != 0) {
      return -1;
   }
   long uid;
   long euid;
   PeerUids(pid, &uid, &euid);
   // A pid file descriptor becomes readable when its process ends.
   struct pollfd ended = {pidfd, POLLIN, 0};
   bool alive = poll(&ended, 1, 0) == 0;
   close(pidfd);
   return alive ? uid : -1;
}

// Whether a caller of pid, running for uid (-1: unknown), may have one more
// session kept; says why not.
bool Admit(const std::vector<Session> &sessions, pid_t pid, long uid) {
   if (uid < 0) {
      Warning("%s: refusing pid %d: its user is unknown.\n", kTag, static_cast<int>(pid));
      return false;
   }
   size_t ofUser = 0;
   for (const Session &s : sessions) {
      ofUser += s.uid == static_cast<uid_t>(uid);
   }
   if (ofUser >= kMaxSessionsPerUser) {
      Warning("%s: refusing pid %d: %zu sessions open for uid %ld.\n", kTag,
              static_cast<int>(pid), ofUser, uid);
      return false;
   }
   if (sessions.size() >= kMaxSessions) {
      Warning("%s: refusing pid %d: %zu sessions open.\n", kTag, static_cast<int>(pid),
              sessions.size());
      return false;
   }
   return true;
}

const char *TypeName(mode_t mode) {
   switch (mode & S_IFMT) {
   case S_IFREG: return "file";
   case S_IFCHR: return "character device";
   case S_IFIFO: return "pipe";
   case S_IFSOCK: return "socket";
   case S_IFDIR: return "directory";
   default: return "other object";
   }
}

/*
 * What this daemon does with a descriptor. Returns true when it keeps fd
 * (a liveness pipe to watch); otherwise fd is done with.
 */
bool Use(int fd, pid_t peer) {
   struct stat st;
   int flags = fcntl(fd, F_GETFL);
   if (fstat(fd, &st) != 0 || flags < 0) {
      Warning("%s: descriptor from pid %d unusable, errno %d.\n", kTag, static_cast<int>(peer),
              errno);
      return false;
   }
   long uid;
   long euid;
   PeerUids(peer, &uid, &euid);
   Log("%s: pid %d (uid %ld, euid %ld) passed a %s, device %llu, inode %llu.\n", kTag,
       static_cast<int>(peer), uid, euid, TypeName(st.st_mode),
       static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino));

   if (S_ISFIFO(st.st_mode) && (flags & O_ACCMODE) == O_RDONLY) {
      return true;
   }
   if ((flags & O_ACCMODE) != O_RDONLY && !S_ISDIR(st.st_mode) && !S_ISSOCK(st.st_mode)) {
      // Only when the write cannot block: the caller's terminal or pipe must
      // not be able to stall the daemon.
      struct pollfd p = {fd, POLLOUT, 0};
      char text[160];
      int n = Str_Snprintf(text, sizeof text,
                           "Zorvex Halcyx Services (pid %d, running as root) received this "
                           "descriptor from pid %d.\n",
                           static_cast<int>(getpid()), static_cast<int>(peer));
      if (n > 0 && poll(&p, 1, 0) == 1 && (p.revents & POLLOUT) != 0 &&
          write(fd, text, static_cast<size_t>(n)) == n) {
         Log("%s: wrote one line into it.\n", kTag);
      }
   }
   return false;
}

// A caller greeted and not yet answered, and when it is dropped unanswered.
struct Caller {
   int conn;
   time_t deadline;
};

time_t Now() {
   struct timespec now;
   clock_gettime(CLOCK_MONOTONIC, &now);
   return now.tv_sec;
}

// Takes every queued connection (while fewer than kMaxCallers wait) and
// greets it at once; its descriptor is read when it arrives.
void AcceptCallers(int listenFd, std::vector<Caller> &callers) {
   while (callers.size() < kMaxCallers) {
      int conn = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (conn < 0) {
         if (errno != EINTR && errno != ECONNABORTED && errno != EAGAIN) {
            Warning("%s: accept errno %d.\n", kTag, errno);
         }
         return;
      }
      // The greeting fits the empty send buffer: this never waits.
      if (ServiceImplWriteOne(conn, 'H')) {
         callers.push_back({conn, Now() + kStepTimeoutSeconds});
      } else {
         ServiceImplClose(&conn, nullptr);
      }
   }
}

// The rest of one caller's exchange, once its descriptor has arrived (or
// its connection ended): admission, use, verdict.
void Answer(int conn, std::vector<Session> &sessions) {
   struct ucred peer = {};
   socklen_t size = sizeof peer;
   int fd = -1;
   if (getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
       !ServiceImplRecvFd(conn, &fd)) {
      return;
   }
   long uid = PeerUser(conn, peer.pid);
   if (!Admit(sessions, peer.pid, uid)) {
      ServiceImplClose(&fd, nullptr);
      ServiceImplWriteOne(conn, '0');
      return;
   }
   if (Use(fd, peer.pid)) {
      Log("%s: watching the liveness pipe of pid %d.\n", kTag, static_cast<int>(peer.pid));
      sessions.push_back({fd, peer.pid, static_cast<uid_t>(uid)});
   } else {
      ServiceImplClose(&fd, nullptr);
   }
   ServiceImplWriteOne(conn, '1');
}

// True when fd reached end-of-file (or failed); data is read and dropped.
bool Drained(int fd) {
   char buf[512];
   ssize_t n = read(fd, buf, sizeof buf);
   return n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN);
}

}  // namespace

int main(int argc, char **argv) {
   int listenFd = -1;
   // -1 under socket activation: poll ignores it, and nothing ends the loop
   // but the service manager's signal.
   int watchFd = -1;
   if (argc == 1) {
      listenFd = ActivationSocket();
      if (listenFd < 0) {
         return 1;
      }
   } else {
      listenFd = argc == 3 ? ParseFd(argv[1]) : -1;
      watchFd = argc == 3 ? ParseFd(argv[2]) : -1;
      if (listenFd < 0 || watchFd < 0 || !IsListeningSocket(listenFd) || !IsPipe(watchFd)) {
         Warning("%s: expects a listening socket and a pipe's read end as arguments.\n", kTag);
         return 1;
      }
   }
   // Nothing this daemon starts may inherit them. Only this daemon holds
   // the listening socket now; non-blocking, so that taking every queued
   // connection ends when the queue is empty.
   fcntl(listenFd, F_SETFD, FD_CLOEXEC);
   fcntl(listenFd, F_SETFL, fcntl(listenFd, F_GETFL) | O_NONBLOCK);
   if (watchFd >= 0) {
      fcntl(watchFd, F_SETFD, FD_CLOEXEC);
   }
   // A caller's pipe whose reader is gone must give EPIPE, not kill us.
   signal(SIGPIPE, SIG_IGN);
   // Root's own first, so that the log is too and can tell what follows.
   bool ready = BecomeRoot() && OpenLog();
   if (ready) {
      TakeOwnLimits();
      ready = DropPrivileges();
   }
   if (!ready) {
      Warning("%s: cannot set up, errno %d.\n", kTag, errno);
      return 1;
   }
   if (watchFd >= 0) {
      Log("%s: started, pid %d.\n", kTag, static_cast<int>(getpid()));
   } else {
      Log("%s: started by the service manager, pid %d; runs until stopped.\n", kTag,
          static_cast<int>(getpid()));
   }
   // The opener listened with a backlog of 0, and every opener connects
   // while it holds the rendezvous lock: with one queued connection at a
   // time, a crowd of openers would pass the lock on one by one, each
   // after we served the one before it. A full queue lets each connect
   // (and its lock) end at once.
   if (listen(listenFd, SOMAXCONN) != 0) {
      Warning("%s: listen errno %d.\n", kTag, errno);
   }

   std::vector<Session> sessions;
   std::vector<Caller> callers;
   std::vector<struct pollfd> polled;
   for (;;) {
      // Listening socket, watch pipe, callers, sessions: in this order. No
      // new caller is taken while kMaxCallers wait (poll ignores -1).
      polled.assign({{callers.size() < kMaxCallers ? listenFd : -1, POLLIN, 0},
                     {watchFd, POLLIN, 0}});
      for (const Caller &c : callers) {
         polled.push_back({c.conn, POLLIN, 0});
      }
      for (const Session &s : sessions) {
         polled.push_back({s.fd, POLLIN, 0});
      }
      int wait = callers.empty() ? -1 : 1000;
      if (poll(polled.data(), polled.size(), wait) < 0) {
         if (errno == EINTR) {
            continue;
         }
         Warning("%s: poll errno %d.\n", kTag, errno);
         return 1;
      }
      if ((polled[0].revents & (POLLERR | POLLNVAL)) != 0) {
         Warning("%s: the listening socket failed.\n", kTag);
         return 1;
      }
      if (polled[1].revents != 0 && Drained(watchFd)) {
         // watchFd becomes -1, which poll ignores from now on.
         ServiceImplClose(&watchFd, nullptr);
         Log("%s: the opener that started this daemon has finished.\n", kTag);
      }
      // Sessions before callers (Answer appends to sessions), callers before
      // new ones (AcceptCallers appends to callers).
      const size_t firstSession = 2 + callers.size();
      for (size_t i = sessions.size(); i-- > 0;) {
         if (polled[firstSession + i].revents != 0 && Drained(sessions[i].fd)) {
            Log("%s: the liveness pipe of pid %d closed.\n", kTag,
                static_cast<int>(sessions[i].pid));
            ServiceImplClose(&sessions[i].fd, nullptr);
            sessions.erase(sessions.begin() + static_cast<long>(i));
         }
      }
      // Callers whose descriptor (or end) arrived are answered in the order
      // they connected; those past their deadline are dropped unanswered.
      const time_t now = Now();
      size_t waiting = 0;
      for (size_t i = 0; i < callers.size(); i++) {
         bool ready = polled[2 + i].revents != 0;
         if (!ready && now < callers[i].deadline) {
            callers[waiting++] = callers[i];
            continue;
         }
         if (ready) {
            Answer(callers[i].conn, sessions);
         }
         ServiceImplClose(&callers[i].conn, nullptr);
      }
      callers.resize(waiting);
      if ((polled[0].revents & POLLIN) != 0) {
         AcceptCallers(listenFd, callers);
      }
   }
}
