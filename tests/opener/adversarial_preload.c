// SPDX-License-Identifier: MIT
// A library that no loader may take into a set-user-ID program: loaded, it
// leaves a file beside itself, which the adversarial tests look for.
#include <fcntl.h>
#include <unistd.h>

__attribute__((constructor)) static void Loaded(void) {
   int fd = open("/tmp/halcyx-outside/preloaded", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
   if (fd >= 0) {
      close(fd);
   }
}
