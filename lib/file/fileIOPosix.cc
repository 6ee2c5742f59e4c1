// SPDX-License-Identifier: MIT
/*
 * File handles over POSIX descriptors: open with its lock and caching
 * steps, the privileged open, whole-buffer read and write loops, close, and
 * the replace-by-rename pair.
 *
 * Every descriptor is opened close-on-exec. A failed open leaves the record
 * invalid, releases a lock it took, and keeps the errno of the failing call.
 */
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file/fileIOInt.h"
#include "fileIO.h"
#include "id.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "err.h"
#include "file.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

using halcyx::ErrnoSaver;
using halcyx::UniqueCStr;

// open(2) flags of the actions, by action number.
constexpr int kActionFlags[] = {
   0,                    // open existing
   O_TRUNC,              // open and truncate
   O_CREAT,              // open or create
   O_CREAT | O_EXCL,     // create new
   O_CREAT | O_TRUNC,    // open or create and truncate
};

std::atomic<int (*)(const char *, int)> gPrivilegedOpener;

// Undoes a half-finished open and keeps errno.
void FailOpen(FileIODescriptor *file) {
   ErrnoSaver keep;
   if (file->fd >= 0) {
      close(file->fd);
      file->fd = -1;
   }
   FileIO_Unlock(file);
   FileIO_Cleanup(file);
   FileIO_Invalidate(file);
}

// The descriptor-lock, caching and delete steps after a good open; 0 or the
// failed call's errno, with *what naming the step in the log. The
// descriptor lock stands for a locking open, so its failure is the open's.
int AfterOpen(const FileIODescriptor *file, uint32_t access, const char **what) {
   *what = "open";
   if ((access & FILEIO_ACCESS_FLOCK) != 0) {
      int op = LOCK_EX | ((access & FILEIO_ACCESS_NONBLOCK) != 0 ? LOCK_NB : 0);
      int rc;
      while ((rc = flock(file->fd, op)) != 0 && errno == EINTR) {
      }
      if (rc != 0) {
         return errno;
      }
   }
   *what = "fcntl";
   if ((access & (FILEIO_ACCESS_DIRECT | FILEIO_ACCESS_UNCACHED)) != 0) {
      int err = posix_fadvise(file->fd, 0, 0, POSIX_FADV_DONTNEED);
      if (err != 0) {
         return err;
      }
   }
   if ((access & FILEIO_ACCESS_DELETE_AFTER_OPEN) != 0 && unlink(file->fileName) != 0) {
      *what = "unlink";
      return errno;
   }
   return 0;
}

uint32_t FileIOCreateRetry(FileIODescriptor *file, const char *path, uint32_t access, int action,
                           int mode) {
   FileIO_Invalidate(file);
   if (path == nullptr) {
      errno = EFAULT;
      return FILEIO_ERROR;
   }
   access = FileIOResolveLockBits(access);
   file->flags = access;
   FileIO_Init(file, path);

   if ((access & (FILEIO_ACCESS_LOCK_ADVISORY | FILEIO_ACCESS_LOCK_MANDATORY)) != 0) {
      uint32_t result = FileIO_Lock(file, access);
      if (result != FILEIO_SUCCESS) {
         FailOpen(file);
         return result;
      }
   }

   int flags = FileIOOpenFlags(access, action);
   if (flags == -1) {
      errno = EINVAL;
   } else if ((access & FILEIO_ACCESS_PRIVILEGED) != 0) {
      if ((flags & (O_CREAT | O_TRUNC)) != 0) {
         errno = EACCES;  // a privileged open never creates or truncates
      } else {
         file->fd = FileIO_PrivilegedPosixOpen(path, flags);
      }
   } else {
      file->fd = open(path, flags, mode);
   }
   if (file->fd < 0) {
      int err = errno;
      uint32_t result = FileIOErrno2Result(err);
      if (result == FILEIO_ERROR) {
         Log("FILE:open error on %s: %s\n", path, Err_Errno2String(err));
      }
      FailOpen(file);
      errno = err;
      return result;
   }

   const char *what;
   int err = AfterOpen(file, access, &what);
   if (err != 0) {
      uint32_t result = FileIOErrno2Result(err);
      if (result == FILEIO_ERROR) {
         Log("FILE:%s error on %s: %s\n", what, path, Err_Errno2String(err));
      }
      FailOpen(file);
      errno = err;
      return result;
   }
   return FILEIO_SUCCESS;
}

}  // namespace

int FileIOOpenFlags(uint32_t access, int action) {
   if (action < 0 || action >= static_cast<int>(sizeof kActionFlags / sizeof kActionFlags[0])) {
      return -1;
   }
   int flags = O_CLOEXEC | kActionFlags[action];
   bool read = (access & FILEIO_ACCESS_READ) != 0;
   bool write = (access & FILEIO_ACCESS_WRITE) != 0;
   flags |= read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY;
   if ((access & FILEIO_ACCESS_NONBLOCK) != 0) flags |= O_NONBLOCK;
   if ((access & (FILEIO_ACCESS_EXCLUSIVE_READ | FILEIO_ACCESS_EXCLUSIVE_WRITE)) ==
       (FILEIO_ACCESS_EXCLUSIVE_READ | FILEIO_ACCESS_EXCLUSIVE_WRITE)) {
      flags |= O_EXCL;
   }
   if ((access & FILEIO_ACCESS_APPEND) != 0) flags |= O_APPEND;
   if ((access & FILEIO_ACCESS_NOFOLLOW) != 0) flags |= O_NOFOLLOW;
   return flags;
}

uint32_t FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access, int action,
                       int mode) {
   return FileIOCreateRetry(fd, path, access, action, mode);
}

uint32_t FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access, int action) {
   return FileIOCreateRetry(fd, path, access, action, 0600);
}

uint32_t FileIO_CreateDeviceFileNoPrompt(FileIODescriptor *fd, const char *path, uint32_t access,
                                         int action, int mode) {
   uint32_t result = FileIO_Create(fd, path, access, action, mode);
   for (int retry = 0; retry < 3 && result == FILEIO_OPEN_ERROR_EXIST; retry++) {
      result = FileIO_Create(fd, path, access, FILEIO_ACTION_OPEN_CREATE, mode);
   }
   return result;
}

uint32_t FileIO_Read(FileIODescriptor *fd, void *buf, size_t len, size_t *actual) {
   if (len > INT_MAX) {
      halcyx::PanicVerify("lib/file/fileIOPosix", 1026);
   }
   size_t done = 0;
   uint32_t result = FILEIO_SUCCESS;
   while (done < len) {
      ssize_t n = read(fd->fd, static_cast<char *>(buf) + done, len - done);
      if (n < 0) {
         if (errno == EINTR) {
            continue;
         }
         result = FileIOErrno2Result(errno);
         break;
      }
      if (n == 0) {
         result = FILEIO_READ_ERROR_EOF;
         break;
      }
      done += static_cast<size_t>(n);
   }
   if (actual != nullptr) {
      *actual = done;
   }
   return result;
}

uint32_t FileIO_Write(FileIODescriptor *fd, const void *buf, size_t len, size_t *actual) {
   if (len > INT_MAX) {
      halcyx::PanicVerify("lib/file/fileIOPosix", 964);
   }
   size_t done = 0;
   uint32_t result = FILEIO_SUCCESS;
   while (done < len) {
      ssize_t n = write(fd->fd, static_cast<const char *>(buf) + done, len - done);
      if (n < 0) {
         if (errno == EINTR) {
            continue;
         }
         result = FileIOErrno2Result(errno);
         break;
      }
      done += static_cast<size_t>(n);
   }
   if (actual != nullptr) {
      *actual = done;
   }
   return result;
}

uint32_t FileIO_Close(FileIODescriptor *fd) {
   // Never retried: on Linux the descriptor is gone even after EINTR.
   int err = close(fd->fd) == 0 ? 0 : errno;
   FileIO_Unlock(fd);
   FileIO_Cleanup(fd);
   FileIO_Invalidate(fd);
   if (err != 0) {
      errno = err;
      return FILEIO_ERROR;
   }
   return FILEIO_SUCCESS;
}

uint32_t FileIO_CloseAndUnlink(FileIODescriptor *fd) {
   UniqueCStr path(Util_SafeStrdup(fd->fileName));
   uint32_t result = FileIO_Close(fd);
   if (result != FILEIO_SUCCESS) {
      return result;
   }
   return File_UnlinkIfExists(path.get()) == 0 ? FILEIO_SUCCESS : FILEIO_ERROR;
}

uint32_t FileIO_Access(const char *path, int mode) {
   if (path == nullptr) {
      errno = EFAULT;
      return FILEIO_ERROR;
   }
   int amode = ((mode & 1) != 0 ? R_OK : 0) | ((mode & 2) != 0 ? W_OK : 0) |
               ((mode & 4) != 0 ? X_OK : 0);
   return access(path, amode != 0 ? amode : F_OK) == 0 ? FILEIO_SUCCESS : FILEIO_ERROR;
}

void FileIO_SetPrivilegedOpener(int (*fn)(const char *path, int flags)) {
   gPrivilegedOpener.store(fn, std::memory_order_release);
}

int FileIO_PrivilegedPosixOpen(const char *path, int flags) {
   if (path == nullptr) {
      errno = EFAULT;
      return -1;
   }
   auto hook = gPrivilegedOpener.load(std::memory_order_acquire);
   if (hook != nullptr) {
      return hook(path, flags);
   }
   // Mode 0: with the flags a privileged open is given, nothing is created.
   if (geteuid() == 0) {
      return open(path, flags, 0);
   }
   uid_t previous = Id_BeginSuperUser();
   int fd = open(path, flags, 0);
   ErrnoSaver keep;
   Id_EndSuperUser(previous);
   return fd;
}

uint32_t FileIO_AtomicTempFile(FileIODescriptor *fd, FileIODescriptor *tempFd) {
   const char *fn = "FileIO_AtomicTempFile";
   UniqueCStr full(File_FullPath(fd->fileName));
   if (!full) {
      Log("%s: File_FullPath of '%s' failed.\n", fn, fd->fileName);
      return FILEIO_ERROR;
   }
   UniqueCStr tempPath(Str_SafeAsprintf(nullptr, "%s~", full.get()));
   struct stat st;
   if (fstat(fd->fd, &st) != 0) {
      Log("%s: Failed to fstat '%s', errno: %d.\n", fn, full.get(), errno);
      return FILEIO_ERROR;
   }
   if (unlink(tempPath.get()) != 0 && errno != ENOENT) {
      Log("%s: Failed to unlink temporary file, errno: %d\n", fn, errno);
   }
   uint32_t result = FileIO_Create(tempFd, tempPath.get(), FILEIO_ACCESS_READ_WRITE,
                                   FILEIO_ACTION_CREATE, static_cast<int>(st.st_mode & 07777));
   if (result != FILEIO_SUCCESS) {
      Log("%s: Failed to create temporary file, %s (%d). errno: %d\n", fn,
          FileIO_ErrorEnglish(result), static_cast<int>(result), errno);
      return result;
   }
   if (fchmod(tempFd->fd, st.st_mode & 07777) != 0) {
      Log("%s: Failed to chmod temporary file, errno: %d\n", fn, errno);
      result = FILEIO_ERROR;
   } else if (fchown(tempFd->fd, st.st_uid, st.st_gid) != 0) {
      Log("%s: Failed to chown temporary file, errno: %d\n", fn, errno);
      result = FILEIO_ERROR;
   }
   if (result != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      if (FileIO_CloseAndUnlink(tempFd) != FILEIO_SUCCESS) {
         Log("%s: Failed to clean up temporary file, errno: %d\n", fn, errno);
      }
   }
   return result;
}

bool FileIO_AtomicUpdateEx(FileIODescriptor *newFd, FileIODescriptor *currFd) {
   if (rename(newFd->fileName, currFd->fileName) != 0) {
      Log("%s: rename of '%s' to '%s' failed %d.\n", "FileIO_AtomicUpdateEx", newFd->fileName,
          currFd->fileName, errno);
      return false;
   }
   int old = currFd->fd;
   currFd->fd = newFd->fd;
   newFd->fd = old;
   FileIO_Close(newFd);
   return true;
}
