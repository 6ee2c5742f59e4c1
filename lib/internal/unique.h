// SPDX-License-Identifier: MIT
/*
 * Owners for C resources: descriptors and malloc'ed memory.
 *
 * A resource is owned by exactly one of these until it is handed over with
 * release() at a C boundary. errno is preserved across the clean-up they do,
 * so a caller always sees the error of the call that failed.
 */
#ifndef HALCYX_INTERNAL_UNIQUE_H
#define HALCYX_INTERNAL_UNIQUE_H

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace halcyx {

// Restores errno when it goes out of scope.
class ErrnoSaver {
public:
   ErrnoSaver() : saved_(errno) {}
   ~ErrnoSaver() { errno = saved_; }
   ErrnoSaver(const ErrnoSaver &) = delete;
   ErrnoSaver &operator=(const ErrnoSaver &) = delete;

private:
   int saved_;
};

struct FreeDeleter {
   void operator()(void *p) const noexcept {
      ErrnoSaver keep;
      std::free(p);
   }
};

using UniqueCStr = std::unique_ptr<char, FreeDeleter>;
template <typename T> using UniqueMalloc = std::unique_ptr<T, FreeDeleter>;

// An owned file descriptor; -1 means none.
class UniqueFd {
public:
   UniqueFd() = default;
   explicit UniqueFd(int fd) : fd_(fd) {}
   ~UniqueFd() { reset(); }
   UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
   UniqueFd &operator=(UniqueFd &&other) noexcept {
      if (this != &other) {
         reset(other.release());
      }
      return *this;
   }
   UniqueFd(const UniqueFd &) = delete;
   UniqueFd &operator=(const UniqueFd &) = delete;

   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }

   // Hands the descriptor over to the caller.
   [[nodiscard]] int release() {
      int fd = fd_;
      fd_ = -1;
      return fd;
   }

   // Closes the current descriptor (never retried: on Linux the descriptor
   // is gone even when close reports EINTR) and takes fd.
   void reset(int fd = -1) {
      if (fd_ >= 0) {
         ErrnoSaver keep;
         ::close(fd_);
      }
      fd_ = fd;
   }

private:
   int fd_ = -1;
};

}  // namespace halcyx

#endif  // HALCYX_INTERNAL_UNIQUE_H
