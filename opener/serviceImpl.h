// SPDX-License-Identifier: MIT
/*
 * The opener's service logic: entry, privilege bracket and rendezvous.
 *
 * The program runs with its effective user ID lowered to the caller's for
 * nearly all of its work. ServiceImpl_PrivRaise and ServiceImpl_PrivLower
 * bracket the few stretches that need root; they work only as a strict
 * alternation (lower once at start, then raise/lower around each stretch),
 * because lowering records the effective user ID it finds.
 */
#ifndef HALCYX_OPENER_SERVICEIMPL_H
#define HALCYX_OPENER_SERVICEIMPL_H

#include "halcyx_base.h"
#include "serviceProtocol.h"

HALCYX_EXTERN_C_BEGIN

/* Returns true when the daemon may be started. */
typedef bool (*ServiceImplPrepareDaemonFn)(void);

/*
 * Removes shell-function definitions (values beginning "() {") and the
 * variables BASH_ENV, ENV and SHELLOPTS from the environment. Ends the
 * process with status 1, silently, when it cannot.
 */
void Shellshock_Mitigate(void);

void ServiceImpl_PrivLower(void);
void ServiceImpl_PrivRaise(void);

void ServiceImpl_SetPrepareDaemonCallback(ServiceImplPrepareDaemonFn callback);
/* The registered callback, or null when none is registered. */
ServiceImplPrepareDaemonFn ServiceImplGetPrepareDaemonCallback(void);

/*
 * The prepare-daemon callback that main registers: as root, deletes the
 * Services tree under the host directory, records the product root in the
 * product file, and rebuilds the tree from the bundle's code-signed
 * components, each verified before and after its copy. True when the
 * daemon may be started from the rebuilt tree. Refuses with one warning,
 * touching nothing, when a directory above the host directory or the
 * product file is not root's alone.
 */
bool ServiceImplPrepareDaemon(void);

/*
 * Runs the opener: argc 2 hands over descriptor atoi(argv[1]); argc 1
 * (shell mode) hands over the read end of a fresh pipe and then sleeps for
 * ever holding its write end. Returns the exit status: 0 when the daemon
 * acknowledged the descriptor, 1 otherwise. Never returns in shell mode
 * after success.
 */
int ServiceImpl_Opener(int argc, char **argv, int logLevel, const char *lockPath,
                       const char *socketPath, const char *daemonPath);

/* Log-level call points; empty in this program. */
void LogLevel_UserExtensionCreate(void);
int LogLevel_Set(const char *extension, const char *module, int level);

/*
 * The rendezvous: makes sure a daemon listens on socketPath (starting
 * daemonPath with the listening socket and a watch pipe when nobody does)
 * and hands it fdToPass. True when the daemon acknowledged it with "1".
 * fdToPass is never closed; a number that names no open descriptor when
 * the call begins is never replaced by one of the rendezvous's own.
 */
bool ServiceImplOpener(const char *lockPath, const char *socketPath,
                       const char *daemonPath, int fdToPass);

HALCYX_EXTERN_C_END

#endif /* HALCYX_OPENER_SERVICEIMPL_H */
