// SPDX-License-Identifier: MIT
/*
 * halcyx-opener: makes sure the services daemon runs and hands it one file
 * descriptor. Installed set-user-ID root; the steps below read as the
 * program's timeline.
 */
#include <csignal>
#include <new>
#include <sys/stat.h>

#include "location.h"
#include "log.h"
#include "openerConfig.h"
#include "serviceImpl.h"
#include "str.h"
#include "testSeams.h"

int main(int argc, char **argv) {
   HALCYX_TEST_ALLOCATIONS_ARM();
   Shellshock_Mitigate();
   // The caller's file-size limit comes with us: past it a write must fail
   // (EFBIG) like any other, not end the process in the middle of the
   // Services tree. The daemon starts with the default disposition again.
   signal(SIGXFSZ, SIG_IGN);
   // The library's C++ containers report a failed allocation by throwing,
   // and no exception may cross its C interface: like the safe allocation
   // wrappers, the opener ends with the allocation-failure panic instead.
   std::set_new_handler([] { Panic("Unrecoverable memory allocation failure\n"); });
   ServiceImpl_PrivLower();
   umask(022);
   Location_Init(HALCYX_PROCESS_TAG);

   // Made once and kept until the process ends.
   char *daemonPath = Str_Asprintf(nullptr, "%s/%s%s", Location_GetHostDir(), "Services",
                                   Location_GetSubPath("serviceDaemonFile"));
   if (daemonPath == nullptr) {
      Warning("%s: No daemon path.\n", "main");
      return 1;
   }

   // A cold start rebuilds the Services tree before the daemon starts.
   ServiceImpl_SetPrepareDaemonCallback(ServiceImplPrepareDaemon);
   return ServiceImpl_Opener(argc, argv, HALCYX_LOG_LEVEL, HALCYX_LOCK_PATH,
                             HALCYX_SOCKET_PATH, daemonPath);
}
