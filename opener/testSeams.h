// SPDX-License-Identifier: MIT
/*
 * Test seams of the sandbox build only (HALCYX_TEST_SEAMS, which requires
 * HALCYX_SANDBOX_DIR): a build with the product's fixed paths has none of
 * this, and every macro below expands to nothing there.
 *
 * - Pause points: HALCYX_TEST_PAUSE("name") waits, when a file of that name
 *   exists in the seam directory, until the file yields one byte or its
 *   end. A test makes it a FIFO: opening it for writing returns once the
 *   opener has reached the point, and writing a byte lets it go on. Points
 *   with an index (per component) are named "name-index".
 * - Allocation failure: HALCYX_TEST_FAIL_ALLOCATION=N in the environment
 *   refuses the N-th allocation (malloc, calloc, realloc) counted from the
 *   start of main, saying so on standard error; N = 0 refuses none and
 *   reports the count at exit.
 */
#ifndef HALCYX_OPENER_TESTSEAMS_H
#define HALCYX_OPENER_TESTSEAMS_H

#ifdef HALCYX_TEST_SEAM_DIR
extern "C" void HalcyxTestPause(const char *point, int index);
extern "C" void HalcyxTestAllocationsArm(void);
#define HALCYX_TEST_PAUSE(point) HalcyxTestPause(point, -1)
#define HALCYX_TEST_PAUSE_AT(point, index) HalcyxTestPause(point, index)
#define HALCYX_TEST_ALLOCATIONS_ARM() HalcyxTestAllocationsArm()
#else
#define HALCYX_TEST_PAUSE(point) ((void)0)
#define HALCYX_TEST_PAUSE_AT(point, index) ((void)(index))
#define HALCYX_TEST_ALLOCATIONS_ARM() ((void)0)
#endif

#endif  // HALCYX_OPENER_TESTSEAMS_H
