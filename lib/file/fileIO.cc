// SPDX-License-Identifier: MIT
/*
 * File handles: the record, result codes and their messages, and the
 * advisory lock taken through the lock-directory protocol.
 */
#include "fileIO.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "file/fileIOInt.h"
#include "fileLock.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "err.h"
#include "log.h"
#include "util.h"

namespace {

constexpr const char kMsgMarker[] = "@&!*@*@(";

// Indexed by result code; FILEIO_ERROR_LAST has no message.
constexpr const char *kMessages[] = {
   "@&!*@*@(msg.fileio.success)Success",
   "@&!*@*@(msg.fileio.cancel)The operation was cancelled by the user",
   "@&!*@*@(msg.fileio.generic)Error",
   "@&!*@*@(msg.fileio.exists)The file already exists",
   "@&!*@*@(msg.fileio.lock)Failed to lock the file",
   "@&!*@*@(msg.fileio.eof)Tried to read beyond the end of the file",
   "@&!*@*@(msg.fileio.notfound)Could not find the file",
   "@&!*@*@(msg.fileio.noPerm)Insufficient permission to access the file",
   "@&!*@*@(msg.fileio.namelong)The file name is too long",
   "@&!*@*@(msg.fileio.fBig)The file is too large",
   "@&!*@*@(msg.fileio.noSpc)There is no space left on the device",
   // Quota exhaustion reads the same to the user as a full device.
   "@&!*@*@(msg.fileio.dQuot)There is no space left on the device",
};
static_assert(sizeof kMessages / sizeof kMessages[0] == FILEIO_ERROR_LAST);

constexpr const char kUnknownMessage[] = "@&!*@*@(msg.fileio.unknown)Unknown error";

}  // namespace

uint32_t FileIOErrno2Result(int error) {
   switch (error) {
   case ENOENT: return FILEIO_FILE_NOT_FOUND;
   case EACCES: return FILEIO_NO_PERMISSION;
   case EEXIST: return FILEIO_OPEN_ERROR_EXIST;
   case EFBIG: return FILEIO_WRITE_ERROR_FBIG;
   case ENOSPC: return FILEIO_WRITE_ERROR_NOSPC;
   case ENAMETOOLONG: return FILEIO_FILE_NAME_TOO_LONG;
   case EDQUOT: return FILEIO_WRITE_ERROR_DQUOT;
   default: return FILEIO_ERROR;
   }
}

uint32_t FileIOResolveLockBits(uint32_t access) {
   if ((access & FILEIO_ACCESS_LOCK_MANDATORY_REQ) != 0) {
      access = (access & ~FILEIO_ACCESS_LOCK_MANDATORY_REQ) | FILEIO_ACCESS_LOCK_MANDATORY;
   }
   if ((access & FILEIO_ACCESS_LOCK_BEST) != 0) {
      // No mandatory locks on this host: the best lock is the advisory one.
      access = (access & ~FILEIO_ACCESS_LOCK_BEST) | FILEIO_ACCESS_LOCK_ADVISORY;
   }
   return access;
}

void FileIO_Invalidate(FileIODescriptor *fd) {
   memset(fd, 0, sizeof *fd);
   fd->fd = -1;
}

bool FileIO_IsValid(const FileIODescriptor *fd) {
   return fd->fd != -1;
}

void FileIO_Init(FileIODescriptor *fd, const char *path) {
   fd->fileName = Util_SafeStrdup(path);
}

void FileIO_Cleanup(FileIODescriptor *fd) {
   halcyx::ErrnoSaver keep;
   free(fd->fileName);
   fd->fileName = nullptr;
}

const char *FileIO_MsgError(uint32_t code) {
   if (code < FILEIO_ERROR_LAST) {
      return kMessages[code];
   }
   if (code == FILEIO_ERROR_LAST) {
      halcyx::PanicNotImplemented("lib/file/fileIO", 150);
   }
   Warning("%s: bad code %d\n", "FileIO_MsgError", static_cast<int>(code));
   return kUnknownMessage;
}

const char *FileIO_ErrorEnglish(uint32_t code) {
   const char *msg = FileIO_MsgError(code);
   if (strncmp(msg, kMsgMarker, sizeof kMsgMarker - 1) == 0) {
      const char *close = strchr(msg, ')');
      if (close != nullptr) {
         return close + 1;
      }
   }
   return msg;
}

uint32_t FileIO_Lock(FileIODescriptor *fd, uint32_t access) {
   access = FileIOResolveLockBits(access);
   if ((access & FILEIO_ACCESS_LOCK_MANDATORY) != 0) {
      return FILEIO_LOCK_FAILED;
   }
   if ((access & FILEIO_ACCESS_LOCK_ADVISORY) == 0) {
      return FILEIO_SUCCESS;
   }
   int err = 0;
   fd->lockToken = FileLock_Lock(fd->fileName, (access & FILEIO_ACCESS_WRITE) == 0, 3500, &err,
                                 nullptr);
   if (fd->lockToken != nullptr) {
      return FILEIO_SUCCESS;
   }
   Warning("FILE: %s on '%s' failed: %s\n", "FileIO_Lock", fd->fileName,
           err == 0 ? "Lock timed out" : Err_Errno2String(err));
   switch (err) {
   case 0:
   case EROFS: return FILEIO_LOCK_FAILED;
   case ENOENT: return FILEIO_FILE_NOT_FOUND;
   case EACCES: return FILEIO_NO_PERMISSION;
   case ENAMETOOLONG: return FILEIO_FILE_NAME_TOO_LONG;
   default: return FILEIO_ERROR;  // a time-out too
   }
}

uint32_t FileIO_Unlock(FileIODescriptor *fd) {
   if (fd->lockToken == nullptr) {
      return FILEIO_SUCCESS;
   }
   int err = 0;
   bool ok = FileLock_Unlock(fd->lockToken, &err, nullptr);
   fd->lockToken = nullptr;
   if (!ok) {
      Warning("FILE: %s on '%s' failed: %s\n", "FileIO_Unlock", fd->fileName,
              Err_Errno2String(err));
      return FILEIO_ERROR;
   }
   return FILEIO_SUCCESS;
}
