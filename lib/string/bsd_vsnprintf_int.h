// SPDX-License-Identifier: MIT
/*
 * Pieces of the formatting engine shared with the Str_ helpers and the
 * library's own tests. Not part of the public API.
 */
#ifndef HALCYX_STRING_BSD_VSNPRINTF_INT_H
#define HALCYX_STRING_BSD_VSNPRINTF_INT_H

#include <cstddef>

namespace halcyx::bsdfmt {

/*
 * Where text of at most p bytes that is cut at byte p must end so that it
 * does not end inside a UTF-8 sequence: p itself when the sequence that
 * ends there is complete (or is plain ASCII), otherwise the offset of that
 * sequence's lead byte. Position 0 is taken as a lead byte whatever it
 * holds; a lead byte promising more than 7 bytes always cuts.
 */
size_t Utf8BoundaryLength(const char *text, size_t p);

// Room for any digit string of ecvt_r/fcvt_r: up to 309 integer digits,
// the point and 17 fraction digits, and the terminator.
struct DtoaBuffer {
   char digits[384];
};

/*
 * Decimal digits of value, the same as the C library's ecvt/fcvt give.
 *
 * mode 2: ndigits significant digits (ecvt).
 * mode 3: ndigits digits after the decimal point (fcvt); with ndigits 0 the
 *         value is first rounded half away from zero.
 *
 * Returns the digit string, which lives in buf. *decpt receives the position
 * of the decimal point relative to the first digit, *sign whether the value
 * is negative, and *rve the end of the significant digits: trailing zeros
 * are not part of them, except that a zero value keeps one "0". Infinity
 * and NaN come back as the C library's text ("inf", "-nan", ...). Mode 3
 * computes fcvt's digits itself when that is exact and cheap (a value below
 * 2^53 in magnitude), and everything else goes through the reentrant
 * ecvt_r/fcvt_r, so calls need no lock.
 */
char *dtoa(double value, int mode, int ndigits, int *decpt, int *sign, char **rve,
           DtoaBuffer &buf);
// dtoa of the value narrowed to double.
char *ldtoa(long double value, int mode, int ndigits, int *decpt, int *sign, char **rve,
            DtoaBuffer &buf);

}  // namespace halcyx::bsdfmt

#endif  // HALCYX_STRING_BSD_VSNPRINTF_INT_H
