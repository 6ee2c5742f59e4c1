// SPDX-License-Identifier: MIT
/*
 * The running process and the programs it starts.
 *
 * Hostinfo_Daemonize starts a program as a detached daemon and reports
 * whether its exec really happened; Hostinfo_ResetProcessState is the
 * clean-up a freshly forked child runs before it execs anything.
 */
#ifndef HALCYX_HOSTINFO_H
#define HALCYX_HOSTINFO_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* Flag bits of Hostinfo_Daemonize. */
#define HOSTINFO_DAEMONIZE_NOCHDIR 0x1   /* keep the working directory */
#define HOSTINFO_DAEMONIZE_NOSETSID 0x2  /* same session, standard descriptors kept */
#define HOSTINFO_DAEMONIZE_EXIT 0x4      /* the caller _exit(0)s after a start */
#define HOSTINFO_DAEMONIZE_LOCKPID 0x8   /* lock the PID file and keep it open */

/*
 * Starts path with the null-terminated argument vector args (both UTF-8) as
 * a daemon: fork, new session, second fork, exec, so that the daemon is not
 * the caller's child and does not lead its session. The environment passes
 * unchanged. The numKeepFds descriptors of keepFds stay open in the daemon
 * under their numbers, whatever they are (even when close-on-exec here);
 * descriptors 0-2 that are not kept go to /dev/null (they stay as they are
 * with HOSTINFO_DAEMONIZE_NOSETSID); every other descriptor is closed.
 * With pidPath the daemon's process ID is written there as decimal text and
 * a newline. Returns true once the daemon has executed; false with errno set
 * otherwise (the PID file, if one was written, is removed then).
 */
bool Hostinfo_Daemonize(const char *path, char const *const *args, uint32_t flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds);

/*
 * For a freshly forked child: stops the interval timers, puts signals 1 to
 * 32 back to their default action (the real-time signals above keep
 * theirs), closes every descriptor above 2 that is not in keepFds and raises
 * the address-space soft limit to the hard limit. Returns the result of that
 * setrlimit, or -1 with errno when getrlimit fails.
 */
int Hostinfo_ResetProcessState(const int *keepFds, size_t numKeepFds);

/*
 * The path of the running executable as the system records it (not
 * resolved), newly allocated, or null when it is 1024 bytes or longer.
 * privilege must be 0 or 1; anything else is refused with a warning.
 */
char *Hostinfo_GetModulePath(uint32_t privilege);

HALCYX_EXTERN_C_END

#endif /* HALCYX_HOSTINFO_H */
