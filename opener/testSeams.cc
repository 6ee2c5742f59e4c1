// SPDX-License-Identifier: MIT
// Pause points of the sandbox build (see testSeams.h).
#include "testSeams.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "internal/unique.h"

extern "C" void HalcyxTestPause(const char *point, int index) {
   halcyx::ErrnoSaver keep;
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
