// SPDX-License-Identifier: MIT
/*
 * Host services about the running process: its executable's path, and the
 * launch of detached daemons.
 *
 * Hostinfo_Daemonize forks twice: the first child starts a new session and
 * forks the daemon, then exits, so the daemon is adopted by the system and
 * never becomes a session leader (it cannot acquire a controlling terminal).
 * The caller learns whether the exec happened through a pipe whose write end
 * is close-on-exec: end-of-file means the exec succeeded, four bytes are the
 * error number of whatever failed in the daemon-to-be. Only the descriptors
 * the caller names survive into the daemon; the closing uses close_range
 * over the gaps between them, so its cost does not grow with the descriptor
 * limit.
 *
 * Both forks are vforks: no address space is copied, and each parent stays
 * suspended until its child has exec'd or ended, so the children run in the
 * caller's memory as if they were the calling thread. They write nothing the
 * caller owns (the keep list stays the caller's to free), make system calls
 * and, on failure, format a message; their descriptors, signal actions,
 * timers, limits and session are their own. All signals stay blocked in the
 * caller until the first child has put every handler back to the default
 * action, so no handler of the caller's runs in a child.
 */
#include "hostinfo.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "internal/alloc.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "log.h"
#include "str.h"
#include "unicode.h"
#include "util.h"

namespace {

// The platform's path limit for the executable's own path, terminator included.
constexpr size_t kModulePathSize = 1024;

constexpr const char kTag[] = "Hostinfo_Daemonize";

// A null-terminated array of strings, every element and the array malloc'ed.
struct StringListDeleter {
   void operator()(char **list) const noexcept {
      halcyx::ErrnoSaver keep;
      for (char **entry = list; *entry != nullptr; entry++) {
         free(*entry);
      }
      free(list);
   }
};
using UniqueStringList = std::unique_ptr<char *, StringListDeleter>;

void CloseRange(unsigned first, unsigned last) {
   if (close_range(first, last, 0) == 0) {
      return;
   }
   // Kernels without close_range: bounded by the descriptor limit.
   long limit = sysconf(_SC_OPEN_MAX);
   for (long fd = first; fd <= static_cast<long>(last) && fd < limit; fd++) {
      close(static_cast<int>(fd));
   }
}

// Closes every descriptor above 2 that is not in keep (unsorted, possibly
// with repeats or negative entries), one close_range per gap.
void CloseAllExcept(const int *keep, size_t numKeep) {
   if (sysconf(_SC_OPEN_MAX) <= 3) {
      return;
   }
   unsigned next = 3;
   for (;;) {
      unsigned kept = UINT_MAX;  // the lowest kept descriptor at or above next
      for (size_t i = 0; keep != nullptr && i < numKeep; i++) {
         if (keep[i] >= 0 && static_cast<unsigned>(keep[i]) >= next &&
             static_cast<unsigned>(keep[i]) < kept) {
            kept = static_cast<unsigned>(keep[i]);
         }
      }
      if (kept > next) {
         CloseRange(next, kept == UINT_MAX ? UINT_MAX : kept - 1);
      }
      if (kept == UINT_MAX) {
         return;
      }
      next = kept + 1;
   }
}

// Kept descriptors must survive the exec even when they are close-on-exec
// in the caller; the flag belongs to this process's table alone.
void Inherit(int fd) {
   int flags = fcntl(fd, F_GETFD);
   if (flags >= 0 && (flags & FD_CLOEXEC) != 0) {
      fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
   }
}

// Moves fd above the standard descriptors, which may be about to be replaced.
int AboveStdio(int fd) {
   if (fd < 0 || fd > STDERR_FILENO) {
      return fd;
   }
   int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
   return moved >= 0 ? moved : fd;
}

bool IsKept(int fd, const int *keep, size_t numKeep) {
   for (size_t i = 0; i < numKeep; i++) {
      if (keep[i] == fd) {
         return true;
      }
   }
   return false;
}

void RedirectToDevNull(int target, int mode) {
   int fd = open("/dev/null", mode);
   if (fd >= 0 && fd != target) {
      dup2(fd, target);
      close(fd);
   }
}

// Reports error to the waiting caller and ends the daemon-to-be.
[[noreturn]] void DaemonizeFail(int statusFd, int error) {
   int32_t value = error;
   ssize_t written;
   do {
      written = write(statusFd, &value, sizeof value);
   } while (written < 0 && errno == EINTR);
   if (written != static_cast<ssize_t>(sizeof value)) {
      Warning("%s: Couldn't write to parent pipe: %u, original error: %u.\n", kTag,
              written < 0 ? errno : EIO, error);
   }
   _exit(1);
}

// Truncates the PID file and writes the process ID into it; 0 or an error.
int WritePidFile(int fd, const char *pidPath) {
   if (ftruncate(fd, 0) != 0) {
      int error = errno;
      Warning("%s: Couldn't truncate path [%s], error %d.\n", kTag, pidPath, error);
      return error;
   }
   char text[32];
   int length = Str_Snprintf(text, sizeof text, "%lld\n", static_cast<long long>(getpid()));
   int error = EINVAL;
   if (length > 0) {
      ssize_t written = write(fd, text, static_cast<size_t>(length));
      error = written == length ? 0 : written < 0 ? errno : EIO;
   }
   if (error != 0) {
      Warning("%s: Couldn't write PID to path [%s], error %d.\n", kTag, pidPath, error);
      return error;
   }
   if (fsync(fd) != 0) {
      error = errno;
      Warning("%s: Couldn't flush PID to path [%s], error %d.\n", kTag, pidPath, error);
      return error;
   }
   return 0;
}

struct LaunchRequest {
   const char *path;     // in the default encoding
   char *const *args;    // in the default encoding
   uint32_t flags;
   const char *pidPath;  // as given, for messages
   int pidFd;            // -1 without a PID path
   const int *keepFds;   // the caller's own
   size_t numKeepFds;
};

[[noreturn]] void DaemonizeGrandchild(const LaunchRequest &req, int statusFd) {
   if ((req.flags & HOSTINFO_DAEMONIZE_NOCHDIR) == 0 && chdir("/") != 0) {
      int error = errno;
      Warning("%s: Couldn't chdir to /, error %u.\n", kTag, error);
      DaemonizeFail(statusFd, error);
   }
   const int ownStatusFd = statusFd;
   int pidFd = req.pidFd;
   if ((req.flags & HOSTINFO_DAEMONIZE_NOSETSID) == 0) {
      statusFd = AboveStdio(statusFd);
      pidFd = AboveStdio(pidFd);
      // A kept descriptor keeps its number even there: a caller whose own
      // standard descriptors were closed may hand over 0, 1 or 2.
      for (int target : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
         if (!IsKept(target, req.keepFds, req.numKeepFds)) {
            RedirectToDevNull(target, target == STDIN_FILENO ? O_RDONLY : O_WRONLY);
         }
      }
   }
   if (pidFd >= 0) {
      int error = WritePidFile(pidFd, req.pidPath);
      if (error != 0) {
         DaemonizeFail(statusFd, error);
      }
      if ((req.flags & HOSTINFO_DAEMONIZE_LOCKPID) != 0) {
         Inherit(pidFd);
      } else {
         close(pidFd);
      }
   }
   // A kept number that named nothing in the caller may name the status
   // pipe or the PID file since: neither may reach the daemon.
   for (size_t i = 0; i < req.numKeepFds; i++) {
      if (req.keepFds[i] != ownStatusFd && req.keepFds[i] != req.pidFd) {
         Inherit(req.keepFds[i]);
      }
   }
   if (execv(req.path, req.args) != -1) {
      halcyx::PanicNotReached("lib/misc/hostinfoPosix", 3381);
   }
   int error = errno;
   Warning("%s: Couldn't exec %s, error %d.\n", kTag, req.path, error);
   DaemonizeFail(statusFd, error);
}

// vfork with the child running body, which never returns. Kept apart so
// that nothing of the calling frame is live across the vfork.
template <typename Body> __attribute__((noinline)) pid_t VforkInto(const Body &body) {
   pid_t child = vfork();
   if (child == 0) {
      body();
   }
   return child;
}

[[noreturn]] void DaemonizeChild(const LaunchRequest &req, int statusFd, const int *keep,
                                 size_t numKeep) {
   Hostinfo_ResetProcessState(keep, numKeep);
   // The real-time signals keep their actions through the reset, but no
   // handler of the caller's may run here, in the caller's memory: those
   // go back to the default action, as the exec would do anyway.
   for (int sig = 33; sig < NSIG; sig++) {
      struct sigaction action;
      if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
          action.sa_handler != SIG_IGN) {
         signal(sig, SIG_DFL);
      }
   }
   sigset_t none;
   sigemptyset(&none);
   sigprocmask(SIG_SETMASK, &none, nullptr);

   if ((req.flags & HOSTINFO_DAEMONIZE_NOSETSID) == 0 && setsid() < 0) {
      Warning("%s: Couldn't create new session, error %d.\n", kTag, errno);
      _exit(1);
   }
   // Returns once the daemon-to-be has exec'd or ended.
   if (VforkInto([&] { DaemonizeGrandchild(req, statusFd); }) < 0) {
      Warning("%s: Couldn't fork second child, error %d.\n", kTag, errno);
      _exit(1);
   }
   _exit(0);
}

// Everything between the PID file and its fate: returns 0 when the daemon
// executed, else the error number.
int DaemonizeLaunch(const char *path, char const *const *args, uint32_t flags,
                    const char *pidPath, int pidFd, const int *keepFds, size_t numKeepFds) {
   int ends[2];
   // Both ends close-on-exec from the start: no other exec may inherit them.
   if (pipe2(ends, O_CLOEXEC) != 0) {
      int error = errno;
      Warning("%s: Couldn't create pipe, error %u.\n", kTag, error);
      return error;
   }
   halcyx::UniqueFd readEnd(ends[0]);
   halcyx::UniqueFd writeEnd(ends[1]);

   size_t numKeep = numKeepFds + 1 + (pidFd >= 0 ? 1 : 0);
   halcyx::UniqueMalloc<int> keep(
      numKeepFds < SIZE_MAX / sizeof(int) - 2
         ? static_cast<int *>(halcyx::Malloc(numKeep * sizeof(int)))
         : nullptr);
   if (!keep) {
      Warning("%s: Couldn't allocate memory, error %u.\n", kTag, ENOMEM);
      return ENOMEM;
   }
   for (size_t i = 0; i < numKeepFds; i++) {
      keep.get()[i] = keepFds[i];
   }
   keep.get()[numKeepFds] = writeEnd.get();
   if (pidFd >= 0) {
      keep.get()[numKeepFds + 1] = pidFd;
   }

   halcyx::UniqueCStr nativePath(
      static_cast<char *>(Unicode_GetAllocBytes(path, UNICODE_ENCODING_DEFAULT)));
   if (!nativePath) {
      Warning("%s: Couldn't convert path [%s] to default encoding.\n", kTag, path);
      return EINVAL;
   }
   UniqueStringList nativeArgs(
      args != nullptr
         ? Unicode_GetAllocList(const_cast<char *const *>(args), -1, UNICODE_ENCODING_DEFAULT)
         : nullptr);
   if (!nativeArgs) {
      Warning("%s: Couldn't convert arguments to default encoding.\n", kTag);
      return EINVAL;
   }

   const LaunchRequest req = {nativePath.get(), nativeArgs.get(), flags, pidPath,
                              pidFd,            keepFds,          numKeepFds};
   sigset_t all, saved;
   sigfillset(&all);
   pthread_sigmask(SIG_SETMASK, &all, &saved);
   // Returns once the first child has ended.
   pid_t child = VforkInto([&] { DaemonizeChild(req, writeEnd.get(), keep.get(), numKeep); });
   int forkError = errno;
   pthread_sigmask(SIG_SETMASK, &saved, nullptr);
   if (child < 0) {
      Warning("%s: Couldn't fork first child, error %u.\n", kTag, forkError);
      return forkError;
   }
   writeEnd.reset();

   int status;
   pid_t waited;
   while ((waited = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
   }
   // Without a status (the caller reaps children itself) the pipe decides.
   if (waited == child && WIFSIGNALED(status)) {
      Warning("%s: Child %d exited with signal %d.\n", kTag, child, WTERMSIG(status));
      return EINVAL;
   }
   if (waited == child && WEXITSTATUS(status) != 0) {
      Warning("%s: Child %d exited with error %d.\n", kTag, child, WEXITSTATUS(status));
      return EINVAL;
   }

   int32_t childError = 0;
   ssize_t got;
   while ((got = read(readEnd.get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
   }
   // End-of-file: the exec closed the last write end. A read error is taken
   // as success too: nothing says the exec failed.
   if (got <= 0) {
      return 0;
   }
   Warning("%s: Child could not exec %s, read %d, error %u.\n", kTag, path,
           static_cast<int>(got), childError);
   return childError != 0 ? childError : EINVAL;
}

}  // namespace

extern "C" {

char *Hostinfo_GetModulePath(uint32_t privilege) {
   if (privilege != 0 && privilege != 1) {
      Warning("%s: invalid privilege parameter\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   halcyx::UniqueCStr path(static_cast<char *>(UtilSafeMalloc0(kModulePathSize)));
   // A full buffer may be a cut-off path: it fits only with room for the NUL.
   ssize_t length = readlink("/proc/self/exe", path.get(), kModulePathSize);
   if (length < 0 || static_cast<size_t>(length) >= kModulePathSize) {
      Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   path.get()[length] = '\0';
   return path.release();
}

int Hostinfo_ResetProcessState(const int *keepFds, size_t numKeepFds) {
   const struct itimerval stopped = {};
   setitimer(ITIMER_REAL, &stopped, nullptr);
   setitimer(ITIMER_VIRTUAL, &stopped, nullptr);
   setitimer(ITIMER_PROF, &stopped, nullptr);

   struct sigaction action = {};
   action.sa_handler = SIG_DFL;
   sigfillset(&action.sa_mask);
   action.sa_flags = SA_RESTART;
   // The classic signals only: real-time signals keep what the caller chose.
   // SIGKILL, SIGSTOP and the C library's internal signal 32 refuse; fine.
   for (int sig = 1; sig <= 32; sig++) {
      sigaction(sig, &action, nullptr);
   }

   CloseAllExcept(keepFds, numKeepFds);

   struct rlimit limit;
   if (getrlimit(RLIMIT_AS, &limit) != 0) {
      return -1;
   }
   limit.rlim_cur = limit.rlim_max;
   return setrlimit(RLIMIT_AS, &limit);
}

bool Hostinfo_Daemonize(const char *path, char const *const *args, uint32_t flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds) {
   if (keepFds == nullptr) {
      numKeepFds = 0;
   }
   halcyx::UniqueFd pidFd;
   if (pidPath != nullptr) {
      pidFd.reset(open(pidPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      if (!pidFd) {
         int error = errno;
         Warning("%s: Couldn't open PID path [%s], error %u.\n", kTag, pidPath, error);
         errno = error;
         return false;
      }
      if ((flags & HOSTINFO_DAEMONIZE_LOCKPID) != 0 &&
          flock(pidFd.get(), LOCK_EX | LOCK_NB) != 0) {
         int error = errno;
         Warning("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", kTag,
                 pidPath, error);
         pidFd.reset();
         errno = error;
         return false;
      }
   }

   int error = DaemonizeLaunch(path, args, flags, pidPath, pidFd.get(), keepFds, numKeepFds);
   if (error != 0 && pidPath != nullptr && unlink(pidPath) != 0) {
      Warning("%s: Unable to unlink %s: %u\n", kTag, pidPath, errno);
   }
   if (error == 0 && (flags & HOSTINFO_DAEMONIZE_EXIT) != 0) {
      _exit(0);
   }
   pidFd.reset();
   if (error != 0) {
      errno = error;
   }
   return error == 0;
}

}  // extern "C"
