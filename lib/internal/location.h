// SPDX-License-Identifier: MIT
/*
 * The replaceable sources of the product root for programs whose process tag
 * gives no up-count: the environment variable's name and the product file's
 * path. Either may be null, which skips that source. Replace them only before
 * other threads use the location module (programs at start, tests).
 */
#ifndef HALCYX_INTERNAL_LOCATION_H
#define HALCYX_INTERNAL_LOCATION_H

namespace halcyx {

extern const char *gLocationRootVariable;
extern const char *gLocationProductFile;

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_LOCATION_H
