// SPDX-License-Identifier: MIT
/*
 * Fences that keep C++ exceptions inside the library.
 *
 * The public functions are called from C, where an exception cannot be
 * caught: one escaping would end the process through std::terminate. The
 * only exceptions the library's own code can meet are allocation failures
 * of the standard containers, so each C entry point that uses them runs its
 * body through one of these fences.
 */
#ifndef HALCYX_INTERNAL_NOTHROW_H
#define HALCYX_INTERNAL_NOTHROW_H

#include <cerrno>
#include <exception>

#include "log.h"

namespace halcyx {

// For a function that reports failure: body's result, or failure with
// errno ENOMEM when body throws. Everything body owns has been released by
// its unwinding when failure is returned.
template <typename R, typename F> R CallOr(R failure, F &&body) noexcept {
   try {
      return body();
   } catch (const std::exception &) {
      errno = ENOMEM;
      return failure;
   }
}

// For a function without a failure result: as the safe allocation
// wrappers, running out of memory ends the process.
template <typename F> auto CallOrPanic(F &&body) noexcept -> decltype(body()) {
   try {
      return body();
   } catch (const std::exception &) {
      Panic("Unrecoverable memory allocation failure\n");
   }
}

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_NOTHROW_H
