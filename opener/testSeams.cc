// SPDX-License-Identifier: MIT
// Pause points of the sandbox build (see testSeams.h).
#include "testSeams.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/unique.h"

extern "C" void HalcyxTestPause(const char *point, int index) {
   halcyx::ErrnoSaver keep;
   // Without a seam directory no point can pause: one stat per process
   // instead of an open per point keeps the hot path's system calls as
   // they are in a build without seams.
   static const bool armed = [] {
      struct stat dir;
      return stat(HALCYX_TEST_SEAM_DIR, &dir) == 0;
   }();
   if (!armed) {
      return;
   }
   char path[256];
   if (index < 0) {
      snprintf(path, sizeof path, "%s/%s", HALCYX_TEST_SEAM_DIR, point);
   } else {
      snprintf(path, sizeof path, "%s/%s-%d", HALCYX_TEST_SEAM_DIR, point, index);
   }
   halcyx::UniqueFd fifo(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
   char byte;
   while (fifo && read(fifo.get(), &byte, 1) < 0 && errno == EINTR) {
   }
}
