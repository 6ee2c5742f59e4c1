// SPDX-License-Identifier: MIT
// Run set-user-ID root by an unprivileged user: lowers its effective user
// ID as the product's programs do, then opens argv[1] plainly and through
// the privileged open, and reports the results and the identity afterwards.
#include <cstdio>
#include <initializer_list>
#include <unistd.h>

#include "fileIO.h"

// LeakSanitizer cannot inspect a set-user-ID process; the probe opts out
// (the hook is only consulted in sanitizer builds).
extern "C" int __lsan_is_turned_off() {
   return 1;
}

int main(int argc, char **argv) {
   if (argc != 2 || seteuid(getuid()) != 0) {
      return 2;
   }
   for (uint32_t access : {FILEIO_ACCESS_READ, FILEIO_ACCESS_READ | FILEIO_ACCESS_PRIVILEGED}) {
      FileIODescriptor fd;
      uint32_t result = FileIO_Open(&fd, argv[1], access, FILEIO_ACTION_OPEN);
      printf("%s %u\n", access == FILEIO_ACCESS_READ ? "plain" : "privileged", result);
      if (result == FILEIO_SUCCESS) {
         FileIO_Close(&fd);
      }
   }
   printf("euid %u\n", static_cast<unsigned>(geteuid()));
   return 0;
}
