/*
 * Copy and move through the handle layer.
 *
 * Data moves through one 8,192-byte buffer on the stack of the copying
 * call; nothing is allocated per block. Every failure is added to the
 * pending user message (Msg_Append) with errno saved around it, so the
 * caller both sees why in words and gets the failing call's errno.
 *
 * Destinations are created with O_NOFOLLOW: a symbolic link planted at a
 * destination name can never make the copy write, or its clean-up delete,
 * the file that the link points to. A half-written destination file is
 * removed; a half-copied tree stays as far as it got.
 *
 * In a tree copy, special files (FIFOs, sockets, devices) are recreated as
 * such rather than read: reading them could block for ever or copy a whole
 * device.
 */
#include "file.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "err.h"
#include "file/filePrimitives.h"
#include "fileIO.h"
#include "internal/unique.h"
#include "log.h"
#include "msg.h"
#include "posix.h"

using halcyx::ErrnoSaver;
using halcyx::UniqueCStr;

namespace {

constexpr size_t kCopyBufferSize = 8192;

bool IsSpecial(mode_t mode) {
   return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

// mknod of the same kind; with overwrite, an existing non-directory goes.
bool RecreateSpecial(const char *dst, const struct stat &st, bool overwrite) {
   if (mknod(dst, st.st_mode, st.st_rdev) == 0) {
      return true;
   }
   if (errno != EEXIST || !overwrite || FileDeletion(dst, false) != 0) {
      return false;
   }
   return mknod(dst, st.st_mode, st.st_rdev) == 0;
}

// File_Copy with the source opened with the given access bits.
bool CopyNamed(const char *src, const char *dst, bool overwrite, uint32_t srcAccess) {
   FileIODescriptor srcFd;
   FileIO_Invalidate(&srcFd);
   FileIOResult result = FileIO_Open(&srcFd, src, srcAccess, FILEIO_ACTION_OPEN);
   if (result != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.Copy.open.failure)"
                 "Unable to open the '%s' file for read access: %s.\n\n",
                 src, FileIO_MsgError(result));
      return false;
   }
   bool copied = File_CopyFromFd(dst, overwrite, &srcFd);
   int copyErrno = errno;
   if (FileIO_Close(&srcFd) != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.Copy.close.failure)Unable to close the '%s' file: %s.\n\n",
                 src, Err_ErrString());
      return false;
   }
   errno = copyErrno;
   return copied;
}

// One tree copy. With links followed, the directories on the way down are
// remembered, so that a link back up to one of them ends the copy instead
// of nesting copies until the path is too long.
class TreeCopy {
public:
   TreeCopy(bool overwrite, bool followSymlinks)
      : overwrite_(overwrite), follow_(followSymlinks) {}

   bool Directory(const char *src, const char *dst, const struct stat &st) {
      ancestors_.emplace_back(st.st_dev, st.st_ino);
      bool ok = Contents(src, dst);
      ancestors_.pop_back();
      return ok;
   }

private:
   bool IsAncestor(const struct stat &st) const {
      for (const auto &[dev, ino] : ancestors_) {
         if (dev == st.st_dev && ino == st.st_ino) {
            return true;
         }
      }
      return false;
   }

   bool Contents(const char *src, const char *dst) {
      char **names;
      int count = File_ListDirectory(src, &names);
      if (count < 0) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.walk.failure)"
                    "Unable to access '%s' when copying files.\n\n", src);
         return false;
      }
      if (FileCreateDirectory(dst, 0777) == EEXIST && !File_IsDirectory(dst)) {
         errno = ENOTDIR;  // told, not fatal: the entries below fail on their own
      }

      bool ok = true;
      for (int i = 0; i < count; i++) {
         if (ok) {
            UniqueCStr srcEntry(File_PathJoin(src, names[i]));
            UniqueCStr dstEntry(File_PathJoin(dst, names[i]));
            ok = Entry(srcEntry.get(), dstEntry.get());
         }
         free(names[i]);
      }
      free(names);
      return ok;
   }

   bool Entry(const char *src, const char *dst) {
      struct stat st;
      if ((follow_ ? stat(src, &st) : lstat(src, &st)) != 0) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.stat.failure)"
                    "Unable to get information on '%s' when copying files.\n\n", src);
         return false;
      }
      if (S_ISLNK(st.st_mode)) {
         UniqueCStr text(Posix_ReadLink(src));
         if (text == nullptr || symlink(text.get(), dst) != 0) {
            ErrnoSaver keep;
            Msg_Append("@&!*@*@(msg.File.CopyTree.symlink.failure)"
                       "Unable to symlink '%s' to '%s': %s\n\n",
                       text != nullptr ? text.get() : "", dst, Err_Errno2String(errno));
            return false;
         }
         return true;
      }
      bool copied;
      if (S_ISDIR(st.st_mode) && !IsAncestor(st)) {
         return Directory(src, dst, st);  // an entry below says why it failed
      } else if (S_ISDIR(st.st_mode)) {
         errno = ELOOP;
         copied = false;
      } else if (IsSpecial(st.st_mode)) {
         copied = RecreateSpecial(dst, st, overwrite_);
      } else {
         // The entry was examined by name; if it is swapped before the open,
         // a link is not followed (unless links are) and a FIFO does not block.
         uint32_t access = FILEIO_ACCESS_READ | FILEIO_ACCESS_NONBLOCK |
                           (follow_ ? 0 : FILEIO_ACCESS_NOFOLLOW);
         copied = CopyNamed(src, dst, overwrite_, access);
      }
      if (!copied) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.copy.failure)Unable to copy '%s' to '%s': %s\n\n",
                    src, dst, Err_ErrString());
      }
      return copied;
   }

   bool overwrite_;
   bool follow_;
   std::vector<std::pair<dev_t, ino_t>> ancestors_;
};

}  // namespace

bool File_CopyFromFdToFd(FileIODescriptor *src, FileIODescriptor *dst) {
   char buf[kCopyBufferSize];
   for (;;) {
      size_t got = 0;
      FileIOResult readResult = FileIO_Read(src, buf, sizeof buf, &got);
      if (readResult != FILEIO_SUCCESS && readResult != FILEIO_READ_ERROR_EOF) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.read.failure)Read error: %s.\n\n",
                    FileIO_MsgError(readResult));
         return false;
      }
      FileIOResult writeResult = FileIO_Write(dst, buf, got, nullptr);
      if (writeResult != FILEIO_SUCCESS) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.write.failure)Write error: %s.\n\n",
                    FileIO_MsgError(writeResult));
         return false;
      }
      if (readResult == FILEIO_READ_ERROR_EOF) {
         return true;
      }
   }
}

bool File_CopyFromFd(const char *dstName, bool overwrite, FileIODescriptor *src) {
   FileIODescriptor dst;
   FileIO_Invalidate(&dst);
   FileIOResult result = FileIO_Open(&dst, dstName,
                                     FILEIO_ACCESS_WRITE | FILEIO_ACCESS_NOFOLLOW,
                                     overwrite ? FILEIO_ACTION_OPEN_CREATE_TRUNCATE
                                               : FILEIO_ACTION_CREATE);
   if (result != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.CopyFromFdToName.create.failure)"
                 "Unable to create a new '%s' file: %s.\n\n", dstName, FileIO_MsgError(result));
      return false;
   }

   bool copied = File_CopyFromFdToFd(src, &dst);
   int copyErrno = errno;
   bool closed = FileIO_Close(&dst) == FILEIO_SUCCESS;
   if (!closed) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.CopyFromFdToName.close.failure)"
                 "Unable to close the '%s' file: %s.\n\n", dstName, Err_ErrString());
   }
   if (copied && closed) {
      return true;
   }
   int err = copied ? errno : copyErrno;
   // The name was created above as a regular file: it is removed as one.
   FileDeletion(dstName, false);
   errno = err;
   return false;
}

bool File_Copy(const char *src, const char *dst, bool overwrite) {
   return CopyNamed(src, dst, overwrite, FILEIO_ACCESS_READ);
}

bool File_CopyTree(const char *src, const char *dst, bool overwrite, bool followSymlinks) {
   if (!File_IsDirectory(src)) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.CopyTree.source.notDirectory)"
                 "Source path '%s' is not a directory.", src);
      return false;
   }
   if (!File_IsDirectory(dst)) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.CopyTree.dest.notDirectory)"
                 "Destination path '%s' is not a directory.", dst);
      return false;
   }
   struct stat st;
   if (stat(src, &st) != 0) {
      return false;  // gone since the check above
   }
   return TreeCopy(overwrite, followSymlinks).Directory(src, dst, st);
}

int File_Rename(const char *oldName, const char *newName) {
   return rename(oldName, newName) == 0 ? 0 : errno;
}

int File_RenameRetry(const char *oldName, const char *newName) {
   return File_Rename(oldName, newName);
}

bool File_Move(const char *oldName, const char *newName, bool *asRename) {
   bool renamed = File_Rename(oldName, newName) == 0;
   bool moved = renamed || File_Copy(oldName, newName, true);
   if (moved && !renamed) {
      // The copy is complete; a source that resists deletion is left over,
      // not a failed move.
      FileDeletion(oldName, true);
   }
   if (moved) {
      errno = 0;
   }
   if (asRename != nullptr) {
      *asRename = renamed;
   }
   return moved;
}

bool File_SetFilePermissions(const char *path, int mode) {
   if (chmod(path, static_cast<mode_t>(mode)) != 0) {
      ErrnoSaver keep;
      Log("FILE: %s: failed to change permissions on file \"%s\": %s\n",
          "File_SetFilePermissions", path, Err_Errno2String(errno));
      return false;
   }
   return true;
}
