// SPDX-License-Identifier: MIT
// Takes over the library's allocation seam for a test: records every
// request and refuses the ones asked for. One instance at a time.
#ifndef HALCYX_TESTS_SUPPORT_ALLOC_SEAM_H
#define HALCYX_TESTS_SUPPORT_ALLOC_SEAM_H

#include <cstdlib>
#include <vector>

#include "internal/alloc.h"

namespace halcyx::test {

class AllocationSeam {
public:
   AllocationSeam() : saved_(gAllocHooks) {
      failAll_ = false;
      failing_.clear();
      requests_.clear();
      gAllocHooks = {
         [](size_t size) { return Admit(size) ? malloc(size) : nullptr; },
         [](size_t n, size_t size) { return Admit(n * size) ? calloc(n, size) : nullptr; },
         [](void *p, size_t size) { return Admit(size) ? realloc(p, size) : nullptr; },
      };
   }
   ~AllocationSeam() { gAllocHooks = saved_; }
   AllocationSeam(const AllocationSeam &) = delete;
   AllocationSeam &operator=(const AllocationSeam &) = delete;

   // Refuses every request from now on (or admits them again).
   void FailAll(bool fail = true) { failAll_ = fail; }
   // Refuses the requests with these numbers, counted from 1.
   void FailCalls(std::vector<size_t> calls) { failing_ = std::move(calls); }
   // The size of every request so far, refused or not.
   const std::vector<size_t> &Requests() const { return requests_; }

private:
   static bool Admit(size_t size) {
      requests_.push_back(size);
      for (size_t n : failing_) {
         if (n == requests_.size()) {
            return false;
         }
      }
      return !failAll_;
   }

   AllocHooks saved_;
   static inline bool failAll_;
   static inline std::vector<size_t> failing_;
   static inline std::vector<size_t> requests_;
};

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_ALLOC_SEAM_H
