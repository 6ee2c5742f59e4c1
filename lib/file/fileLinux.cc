// SPDX-License-Identifier: MIT
/*
 * Complete copy of one open file: data, extended attributes, owner, mode
 * and times, on Linux.
 *
 * Order matters:
 *   1. data, with copy_file_range (the kernel copies, or shares extents
 *      where the file system can), falling back to read/write when the two
 *      files do not allow it;
 *   2. owner: a change of owner clears set-user-ID bits and file
 *      capabilities, so it comes before both are written;
 *   3. every extended attribute: POSIX ACLs (system.posix_acl_*), file
 *      capabilities and code signatures (user.*) are all attributes;
 *   4. mode, after the ACL so that the group bits and the ACL mask agree
 *      with the source;
 *   5. access and modification times, last, because every step before
 *      changes them.
 * A failure at any step is logged with the step and the error, truncates
 * the destination to empty, so no partial copy can be mistaken for a whole
 * one, and leaves errno telling why.
 */
#include "file.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "err.h"
#include "internal/nothrow.h"
#include "internal/unique.h"
#include "log.h"

namespace {

constexpr size_t kFallbackBuffer = 64 * 1024;

bool WriteAll(int fd, const char *buf, size_t len, off_t offset) {
   while (len > 0) {
      ssize_t n = pwrite(fd, buf, len, offset);
      if (n < 0) {
         if (errno == EINTR) {
            continue;
         }
         return false;
      }
      buf += n;
      len -= static_cast<size_t>(n);
      offset += n;
   }
   return true;
}

bool CopyDataByReading(int srcFd, int dstFd, off_t offset) {
   std::unique_ptr<char[]> buf(new char[kFallbackBuffer]);
   for (;;) {
      ssize_t n = pread(srcFd, buf.get(), kFallbackBuffer, offset);
      if (n < 0) {
         if (errno == EINTR) {
            continue;
         }
         return false;
      }
      if (n == 0) {
         return true;
      }
      if (!WriteAll(dstFd, buf.get(), static_cast<size_t>(n), offset)) {
         return false;
      }
      offset += n;
   }
}

bool CopyData(int srcFd, int dstFd) {
   if (ftruncate(dstFd, 0) != 0) {
      return false;
   }
   off_t inOff = 0;
   off_t outOff = 0;
   for (;;) {
      ssize_t n = copy_file_range(srcFd, &inOff, dstFd, &outOff, SSIZE_MAX, 0);
      if (n > 0) {
         continue;
      }
      if (n == 0) {
         return true;
      }
      switch (errno) {
      case EINTR:
         continue;
      case EXDEV:        // different file systems that cannot copy between them
      case EINVAL:       // a file kind the kernel does not copy (pipe, proc file)
      case EOPNOTSUPP:
      case ENOSYS:
      case EBADF:        // an O_APPEND destination
         return CopyDataByReading(srcFd, dstFd, inOff);
      default:
         return false;
      }
   }
}

// Calls get(buf, size) with a growing buffer until it fits.
template <typename Get> bool ReadSized(std::vector<char> &buf, Get get) {
   for (;;) {
      ssize_t need = get(nullptr, 0);
      if (need < 0) {
         return false;
      }
      buf.resize(static_cast<size_t>(need));
      ssize_t got = get(buf.data(), buf.size());
      if (got >= 0) {
         buf.resize(static_cast<size_t>(got));
         return true;
      }
      if (errno != ERANGE) {  // ERANGE: it grew between the two calls
         return false;
      }
   }
}

bool CopyAttributes(int srcFd, int dstFd) {
   std::vector<char> names;
   if (!ReadSized(names, [&](char *b, size_t n) { return flistxattr(srcFd, b, n); })) {
      // A source file system without attributes has none to copy.
      return errno == ENOTSUP;
   }
   std::vector<char> value;
   for (size_t at = 0; at < names.size(); at += std::strlen(&names[at]) + 1) {
      const char *name = &names[at];
      if (!ReadSized(value, [&](char *b, size_t n) { return fgetxattr(srcFd, name, b, n); })) {
         if (errno == ENODATA) {
            continue;  // removed since the listing
         }
         return false;
      }
      if (fsetxattr(dstFd, name, value.data(), value.size(), 0) != 0) {
         return false;
      }
   }
   return true;
}

}  // namespace

bool File_CopyDescriptorAll(int srcFd, int dstFd) {
   struct stat st;
   const char *step = "fstat";
   bool ok = fstat(srcFd, &st) == 0;
   if (ok) {
      step = "data copy";
      ok = halcyx::CallOr(false, [&] { return CopyData(srcFd, dstFd); });
   }
   if (ok) {
      // Only a privileged caller may give a file away; any other keeps the
      // copy as its own, as it could have made it.
      step = "fchown";
      ok = fchown(dstFd, st.st_uid, st.st_gid) == 0 || errno == EPERM;
   }
   if (ok) {
      step = "extended attribute copy";
      ok = halcyx::CallOr(false, [&] { return CopyAttributes(srcFd, dstFd); });
   }
   if (ok) {
      step = "fchmod";
      ok = fchmod(dstFd, st.st_mode & 07777) == 0;
   }
   if (ok) {
      step = "futimens";
      const struct timespec times[2] = {st.st_atim, st.st_mtim};
      ok = futimens(dstFd, times) == 0;
   }
   if (!ok) {
      halcyx::ErrnoSaver keep;
      Log("FILE: %s: %s failed: %s\n", "File_CopyDescriptorAll", step,
          Err_Errno2String(errno));
      (void)!ftruncate(dstFd, 0);
   }
   return ok;
}
