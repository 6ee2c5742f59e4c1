// SPDX-License-Identifier: MIT
/*
 * Entry of the opener's service logic: privilege bracket, mode selection
 * and shell mode. The rendezvous itself is in rendezvous.cc.
 */
#include "serviceImpl.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "log.h"

namespace {

// The effective user ID found by the last ServiceImpl_PrivLower.
uid_t sSavedEuid;
ServiceImplPrepareDaemonFn sPrepareDaemon;

/*
 * Shell mode: hands over the read end of a pipe whose only write end this
 * process keeps for ever. The daemon sees end-of-file on its copy exactly
 * when this process ends, so the pipe is a liveness token for the session
 * that started the opener. Never returns after success.
 */
int ServiceImplShell(const char *lockPath, const char *socketPath,
                     const char *daemonPath) {
   int fds[2];
   // Close-on-exec: the ends travel by descriptor passing, never by exec.
   if (pipe2(fds, O_CLOEXEC) != 0) {
      Warning("%s: pipe errno %d.\n", "ServiceImplShell", errno);
      return 1;
   }
   bool ok = ServiceImplOpener(lockPath, socketPath, daemonPath, fds[0]);
   ServiceImplClose(&fds[0], &ok);
   if (!ok) {
      ServiceImplClose(&fds[1], nullptr);
      return 1;
   }
   for (;;) {
      sleep(60);
   }
}

}  // namespace

extern "C" {

void ServiceImpl_PrivLower(void) {
   sSavedEuid = geteuid();
   if (seteuid(getuid()) != 0) {
      Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivLower", errno);
   }
}

void ServiceImpl_PrivRaise(void) {
   if (seteuid(sSavedEuid) != 0) {
      Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivRaise", errno);
   }
}

void ServiceImpl_SetPrepareDaemonCallback(ServiceImplPrepareDaemonFn callback) {
   sPrepareDaemon = callback;
}

ServiceImplPrepareDaemonFn ServiceImplGetPrepareDaemonCallback(void) { return sPrepareDaemon; }

void LogLevel_UserExtensionCreate(void) {}

int LogLevel_Set(const char *, const char *, int) { return -1; }

int ServiceImpl_Opener(int argc, char **argv, int logLevel, const char *lockPath,
                       const char *socketPath, const char *daemonPath) {
   LogLevel_UserExtensionCreate();
   LogLevel_Set(nullptr, "serviceImpl", logLevel);
   Log("%s: PID %u\n", "ServiceImpl_Opener", static_cast<unsigned>(getpid()));

   switch (argc) {
   case 2:
      // The descriptor belongs to whoever started us: never closed here.
      // Text that is not a number hands over descriptor 0.
      return ServiceImplOpener(lockPath, socketPath, daemonPath, atoi(argv[1])) ? 0 : 1;
   case 1:
      return ServiceImplShell(lockPath, socketPath, daemonPath);
   default:
      Warning("Invalid number of arguments.\n");
      return 1;
   }
}

}  // extern "C"
