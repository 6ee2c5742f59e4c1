// SPDX-License-Identifier: MIT
/*
 * A sample component of the product bundle: stands in for one of the
 * product's programs (the networking tools, the USB arbitrator, the
 * launch-services helpers) so that the bundle has every component the
 * opener installs. It does nothing but say what it is.
 */
#include <stdio.h>

int main(int argc, char **argv) {
   (void)argc;
   printf("%s: a sample component of the Zorvex Halcyx bundle; it does nothing.\n", argv[0]);
   return 0;
}
