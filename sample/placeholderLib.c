// SPDX-License-Identifier: MIT
/*
 * A sample shared library of the product bundle: stands in for the
 * libraries the product ships in Contents/Frameworks. It exports one
 * function that says what it is.
 */
const char *HalcyxSampleLibrary(void) {
   return "a sample library of the Zorvex Halcyx bundle; it does nothing";
}
