// SPDX-License-Identifier: MIT
// Makes a look-then-act race deterministic. Once armed with a name, the
// next lstat of a path ending in that name, or fstatat of that name, does
// its look and then runs the armed action before returning, as if another
// process had acted between the look and whatever the caller does next.
//
// It replaces lstat and fstatat for the whole test program: include it in
// exactly one source file of a program.
#ifndef HALCYX_TESTS_FILE_STAT_SWAP_H
#define HALCYX_TESTS_FILE_STAT_SWAP_H

#include <dlfcn.h>
#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace halcyx::test {

inline std::string gSwapName;
inline std::function<void()> gSwapAction;

inline void ArmSwap(std::string name, std::function<void()> action) {
   gSwapName = std::move(name);
   gSwapAction = std::move(action);
}

inline void SwapAfterLook(const char *path) {
   const char *slash = std::strrchr(path, '/');
   const char *base = slash != nullptr ? slash + 1 : path;
   if (!gSwapName.empty() && gSwapName == base) {
      gSwapName.clear();
      std::function<void()> action = std::move(gSwapAction);
      action();
   }
}

template <typename Fn> Fn Real(const char *name) {
   return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace halcyx::test

extern "C" int lstat(const char *path, struct stat *st) noexcept {
   static auto real = halcyx::test::Real<int (*)(const char *, struct stat *)>("lstat");
   int rc = real(path, st);
   halcyx::test::SwapAfterLook(path);
   return rc;
}

extern "C" int fstatat(int dirFd, const char *path, struct stat *st, int flags) noexcept {
   static auto real = halcyx::test::Real<int (*)(int, const char *, struct stat *, int)>("fstatat");
   int rc = real(dirFd, path, st, flags);
   halcyx::test::SwapAfterLook(path);
   return rc;
}

#endif  // HALCYX_TESTS_FILE_STAT_SWAP_H
