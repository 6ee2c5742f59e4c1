// SPDX-License-Identifier: MIT
// Scrubs its own environment and prints what is left, one entry per NUL.
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "serviceImpl.h"

int main() {
   Shellshock_Mitigate();
   for (char **entry = environ; *entry != nullptr; entry++) {
      fwrite(*entry, 1, strlen(*entry) + 1, stdout);
   }
   return 0;
}
