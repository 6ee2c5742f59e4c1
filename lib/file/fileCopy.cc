// SPDX-License-Identifier: MIT
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
 */
#include "file.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "err.h"
#include "file/fileIOInt.h"
#include "file/filePrimitives.h"
#include "fileIO.h"
#include "internal/nothrow.h"
#include "internal/unique.h"
#include "log.h"
#include "msg.h"
#include "util.h"

using halcyx::ErrnoSaver;
using halcyx::UniqueCStr;
using halcyx::UniqueFd;

namespace {

constexpr size_t kCopyBufferSize = 8192;

bool IsSpecial(mode_t mode) {
   return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

// A handle record over an open descriptor, for the handle layer's copy loop.
void Adopt(FileIODescriptor *handle, int fd, const char *name) {
   FileIO_Invalidate(handle);
   FileIO_Init(handle, name);
   handle->fd = fd;
}

/*
 * Copies src into the destination just created as dst (named dstName) and
 * closes dst. A destination that did not come out whole is removed with
 * removeIt; errno is the copy's, or the close's when only the close failed.
 */
template <typename Remove>
bool FillNew(FileIODescriptor *src, FileIODescriptor *dst, const char *dstName, Remove removeIt) {
   bool copied = File_CopyFromFdToFd(src, dst);
   int copyErrno = errno;
   bool closed = FileIO_Close(dst) == FILEIO_SUCCESS;
   if (!closed) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.CopyFromFdToName.close.failure)"
                 "Unable to close the '%s' file: %s.\n\n", dstName, Err_ErrString());
   }
   if (copied && closed) {
      return true;
   }
   int err = copied ? errno : copyErrno;
   removeIt();
   errno = err;
   return false;
}

// Closes the source of a copy; false (with its message) when that fails.
bool CloseSource(FileIODescriptor *src, const char *name, bool copied) {
   int copyErrno = errno;
   if (FileIO_Close(src) != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.Copy.close.failure)Unable to close the '%s' file: %s.\n\n",
                 name, Err_ErrString());
      return false;
   }
   errno = copyErrno;
   return copied;
}

void TellOpenFailure(const char *src, int err) {
   ErrnoSaver keep;
   Msg_Append("@&!*@*@(msg.File.Copy.open.failure)"
              "Unable to open the '%s' file for read access: %s.\n\n",
              src, FileIO_MsgError(FileIOErrno2Result(err)));
}

void TellCreateFailure(const char *dst, int err) {
   ErrnoSaver keep;
   Msg_Append("@&!*@*@(msg.File.CopyFromFdToName.create.failure)"
              "Unable to create a new '%s' file: %s.\n\n", dst, FileIO_MsgError(FileIOErrno2Result(err)));
}

// The text of the link name in dirFd, byte for byte; null with errno.
char *ReadLinkAt(int dirFd, const char *name) {
   for (size_t size = 256;; size *= 2) {
      UniqueCStr buffer(static_cast<char *>(Util_SafeMalloc(size)));
      ssize_t length = readlinkat(dirFd, name, buffer.get(), size);
      if (length < 0) {
         return nullptr;
      }
      if (static_cast<size_t>(length) < size) {
         buffer.get()[length] = '\0';
         return buffer.release();
      }
   }
}

/*
 * One tree copy, walked by directory descriptors: every entry is examined,
 * opened or created relative to the descriptor of its directory, and no
 * directory is opened through a link the copy does not mean to follow, so
 * a link planted or swapped in on either side is never written or read
 * through. With links followed, the directories on the way down are
 * remembered, so that a link back up to one of them ends the copy instead
 * of nesting copies until the path is too long.
 */
class TreeCopy {
public:
   TreeCopy(bool overwrite, bool followSymlinks)
      : overwrite_(overwrite), follow_(followSymlinks) {}

   bool Directory(int srcFd, int dstFd, const char *src, const char *dst) {
      struct stat st;
      if (fstat(srcFd, &st) != 0) {
         return false;
      }
      // Out of memory here fails this directory, as any other error would,
      // so that the listing being walked above is still freed.
      if (!halcyx::CallOr(false, [&] {
             ancestors_.emplace_back(st.st_dev, st.st_ino);
             return true;
          })) {
         return false;
      }
      bool ok = Contents(srcFd, dstFd, src, dst);
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

   int NoFollow() const { return follow_ ? 0 : O_NOFOLLOW; }

   // Opens name in dirFd as the object examined as st, or -1 with errno
   // (ESTALE when something else took its place meanwhile).
   int OpenSource(int dirFd, const char *name, int flags, const struct stat &st) const {
      UniqueFd fd(openat(dirFd, name, flags | O_CLOEXEC | NoFollow()));
      struct stat now;
      if (!fd || fstat(fd.get(), &now) != 0) {
         return -1;
      }
      if (now.st_dev != st.st_dev || now.st_ino != st.st_ino) {
         errno = ESTALE;
         return -1;
      }
      return fd.release();
   }

   // The destination directory name in dirFd, made if needed and opened
   // without following a link: a link planted there is not a directory to
   // copy into (ENOTDIR), whatever it points to.
   static int OpenDestinationDirectory(int dirFd, const char *name) {
      if (mkdirat(dirFd, name, 0777) != 0 && errno != EEXIST) {
         return -1;
      }
      int fd = openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd < 0 && errno == ELOOP) {
         errno = ENOTDIR;
      }
      return fd;
   }

   bool Contents(int srcFd, int dstFd, const char *src, const char *dst) {
      char **names;
      int count = FileListDirectoryAt(srcFd, src, &names, false);
      if (count < 0) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.walk.failure)"
                    "Unable to access '%s' when copying files.\n\n", src);
         return false;
      }
      bool ok = true;
      for (int i = 0; i < count; i++) {
         if (ok) {
            UniqueCStr srcEntry(File_PathJoin(src, names[i]));
            UniqueCStr dstEntry(File_PathJoin(dst, names[i]));
            ok = Entry(srcFd, dstFd, names[i], srcEntry.get(), dstEntry.get());
         }
         free(names[i]);
      }
      free(names);
      return ok;
   }

   bool Entry(int srcDir, int dstDir, const char *name, const char *src, const char *dst) {
      struct stat st;
      if (fstatat(srcDir, name, &st, follow_ ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.stat.failure)"
                    "Unable to get information on '%s' when copying files.\n\n", src);
         return false;
      }
      if (S_ISLNK(st.st_mode)) {
         UniqueCStr text(ReadLinkAt(srcDir, name));
         if (text == nullptr || symlinkat(text.get(), dstDir, name) != 0) {
            ErrnoSaver keep;
            Msg_Append("@&!*@*@(msg.File.CopyTree.symlink.failure)"
                       "Unable to symlink '%s' to '%s': %s\n\n",
                       text != nullptr ? text.get() : "", dst, Err_Errno2String(errno));
            return false;
         }
         return true;
      }
      bool copied;
      if (S_ISDIR(st.st_mode) && IsAncestor(st)) {
         errno = ELOOP;
         copied = false;
      } else if (S_ISDIR(st.st_mode)) {
         UniqueFd in(OpenSource(srcDir, name, O_RDONLY | O_DIRECTORY, st));
         UniqueFd out(in ? OpenDestinationDirectory(dstDir, name) : -1);
         if (in && out) {
            return Directory(in.get(), out.get(), src, dst);  // an entry below says why it failed
         }
         copied = false;
      } else if (IsSpecial(st.st_mode)) {
         copied = RecreateSpecial(dstDir, name, st);
      } else {
         copied = CopyFile(srcDir, dstDir, name, src, dst, st);
      }
      if (!copied) {
         ErrnoSaver keep;
         Msg_Append("@&!*@*@(msg.File.CopyTree.copy.failure)Unable to copy '%s' to '%s': %s\n\n",
                    src, dst, Err_ErrString());
      }
      return copied;
   }

   // mknod of the same kind; with overwrite, an existing non-directory goes.
   bool RecreateSpecial(int dirFd, const char *name, const struct stat &st) const {
      if (mknodat(dirFd, name, st.st_mode, st.st_rdev) == 0) {
         return true;
      }
      if (errno != EEXIST || !overwrite_ || unlinkat(dirFd, name, 0) != 0) {
         return false;
      }
      return mknodat(dirFd, name, st.st_mode, st.st_rdev) == 0;
   }

   bool CopyFile(int srcDir, int dstDir, const char *name, const char *src, const char *dst,
                 const struct stat &st) const {
      // Non-blocking: an entry swapped for a FIFO since it was examined must
      // not hang the copy (the check of the object opened then refuses it).
      UniqueFd in(OpenSource(srcDir, name, O_RDONLY | O_NONBLOCK, st));
      if (!in) {
         TellOpenFailure(src, errno);
         return false;
      }
      // Never through a link, never into a FIFO or device left at the name.
      int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC |
                  (overwrite_ ? O_TRUNC : O_EXCL);
      UniqueFd out(openat(dstDir, name, flags, 0600));
      struct stat dstSt;
      if (out && fstat(out.get(), &dstSt) == 0 && !S_ISREG(dstSt.st_mode)) {
         out.reset();
         errno = EINVAL;
      }
      if (!out) {
         int err = errno;
         TellCreateFailure(dst, err);
         errno = err;
         return false;
      }
      FileIODescriptor srcHandle;
      FileIODescriptor dstHandle;
      Adopt(&srcHandle, in.release(), src);
      Adopt(&dstHandle, out.release(), dst);
      bool copied = FillNew(&srcHandle, &dstHandle, dst, [&] { unlinkat(dstDir, name, 0); });
      return CloseSource(&srcHandle, src, copied);
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
   // The name was created above as a regular file: it is removed as one.
   return FillNew(src, &dst, dstName, [&] { FileDeletion(dstName, false); });
}

/*
 * Copies the bytes of src into dst. The destination is never opened
 * through a symbolic link: copying onto a link fails and leaves both the
 * link and what it points to as they were.
 */
bool File_Copy(const char *src, const char *dst, bool overwrite) {
   FileIODescriptor srcFd;
   FileIO_Invalidate(&srcFd);
   FileIOResult result = FileIO_Open(&srcFd, src, FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN);
   if (result != FILEIO_SUCCESS) {
      ErrnoSaver keep;
      Msg_Append("@&!*@*@(msg.File.Copy.open.failure)"
                 "Unable to open the '%s' file for read access: %s.\n\n",
                 src, FileIO_MsgError(result));
      return false;
   }
   bool copied = File_CopyFromFd(dst, overwrite, &srcFd);
   return CloseSource(&srcFd, src, copied);
}

/*
 * Copies the tree below src into dst. Symbolic links are recreated with
 * their text unchanged, or followed when asked; special files (FIFOs,
 * sockets, devices) are recreated as such rather than read, since reading
 * one could block for ever or copy a whole device. Every entry is reached
 * through the descriptor of its directory, and a directory is never
 * entered through a link that is not meant to be followed: a link found at
 * a destination name ends the copy with "Not a directory" instead of
 * letting it write wherever the link points.
 */
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
   UniqueFd srcFd(open(src, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   UniqueFd dstFd(open(dst, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   if (!srcFd || !dstFd) {
      return false;  // gone since the checks above
   }
   return TreeCopy(overwrite, followSymlinks).Directory(srcFd.get(), dstFd.get(), src, dst);
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
