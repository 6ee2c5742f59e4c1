// SPDX-License-Identifier: MIT
/*
 * Directory operations: tests and queries, deletion of names, creation of
 * directories and whole chains of them, deletion of trees.
 *
 * Nothing here is undone on failure: a chain created up to a failing
 * component and a tree deleted up to an entry that resisted stay as they
 * are, and the caller learns the error from errno. Symbolic links are
 * followed by the tests and queries, and never by tree deletion, which
 * removes a link as a link and leaves what it points to alone.
 */
#include "file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "file/filePrimitives.h"
#include "fileIO.h"
#include "internal/nothrow.h"
#include "internal/unique.h"
#include "log.h"
#include "posix.h"
#include "util.h"

namespace {

// The Unlink family's convention: the result is also left in errno.
int StoreErrno(int err) {
   errno = err;
   return err;
}

bool IsExistingDirectory(const char *path, int *err) {
   FileData data;
   *err = FileAttributes(path, &data);
   if (*err == 0 && data.fileType != FILE_TYPE_DIRECTORY) {
      *err = ENOTDIR;
   }
   return *err == 0;
}

// One step of a directory chain: 0 when prefix is a directory now.
int CreateChainLink(const char *prefix, int mode, bool *created) {
   *created = false;
   int err = FileCreateDirectory(prefix, mode);
   if (err == 0) {
      *created = true;
      return 0;
   }
   if (err == EACCES) {
      // Permission to create says nothing about existence; only a name
      // that the effective user can see is taken as already there.
      if (Posix_EuidAccess(prefix, F_OK) != 0) {
         return EACCES;
      }
      err = EEXIST;
   }
   if (err != EEXIST) {
      return err;
   }
   IsExistingDirectory(prefix, &err);
   return err;
}

int DeleteEntry(int dirFd, const std::string &dirPath, const char *name);

// Deletes every entry of the directory open on dirFd (named path in log
// lines); 0 or the last error met. Every entry is attempted.
int DeleteEntries(int dirFd, const std::string &path) {
   // Raw names: an entry whose name is not valid UTF-8 must go too, or the
   // directory holding it could never be removed.
   char **names;
   int count = FileListDirectoryAt(dirFd, path.c_str(), &names, true);
   if (count < 0) {
      return errno;
   }
   int err = 0;
   for (int i = 0; i < count; i++) {
      int rc = DeleteEntry(dirFd, path, names[i]);
      if (rc != 0) {
         err = rc;
      }
      free(names[i]);
   }
   free(names);
   return err;
}

// Deletes one entry of the directory open on dirFd, a directory with all
// it holds; 0 when it is gone. Out of memory is ENOMEM here, so that the
// caller's listing is always freed.
int DeleteEntryOrThrow(int dirFd, const std::string &dirPath, const char *name) {
   std::string entry = dirPath + "/" + name;
   struct stat st;
   if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) {
         return 0;  // gone meanwhile
      }
      int err = errno;
      Log("FILE: %s: Lstat of '%s' failed, errno = %d\n", "FileDeleteDirectoryTree", entry.c_str(),
          err);
      return err;
   }
   if (S_ISDIR(st.st_mode)) {
      // Opened without following a link: a directory swapped for a link
      // since the look above is removed as a link below, never entered.
      halcyx::UniqueFd sub(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (sub) {
         int err = DeleteEntries(sub.get(), entry);
         if (err != 0) {
            return err;
         }
         return unlinkat(dirFd, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
      }
      if (errno == ENOENT) {
         return 0;
      }
      if (errno != ELOOP && errno != ENOTDIR) {
         return errno;
      }
   }
   return unlinkat(dirFd, name, 0) == 0 || errno == ENOENT ? 0 : errno;
}

int DeleteEntry(int dirFd, const std::string &dirPath, const char *name) {
   return halcyx::CallOr(ENOMEM, [&] { return DeleteEntryOrThrow(dirFd, dirPath, name); });
}

bool DeleteTree(const char *path, bool contentsOnly) {
   if (Posix_EuidAccess(path, F_OK) != 0) {
      int err = errno == ENOSYS ? FileAttributes(path, nullptr) : errno;
      if (err == ENOENT || err == ENOTDIR) {
         errno = 0;
         return true;  // nothing to delete
      }
   }
   // The tree is walked by descriptors from here on: no name below path is
   // ever resolved twice, so nothing swapped in meanwhile can lead outside.
   halcyx::UniqueFd top(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
   if (!top) {
      return false;
   }
   int err = halcyx::CallOr(ENOMEM, [&] { return DeleteEntries(top.get(), path); });
   top.reset();
   if (!contentsOnly && err == 0) {
      err = FileRemoveDirectory(path);
   }
   errno = err;
   return err == 0;
}

// Makes each missing directory of path from the component at searchFrom
// on. *topmost, when asked for, gets the first one made.
bool CreateChain(const char *path, size_t searchFrom, int mode, char **topmost) {
   std::string whole(path);
   for (;;) {
      size_t slash = whole.find('/', searchFrom);
      std::string prefix = whole.substr(0, slash);
      bool created;
      int err = CreateChainLink(prefix.c_str(), mode, &created);
      if (err != 0) {
         Log("FILE: %s: Failure on '%s'. Error = %d\n", "File_CreateDirectoryHierarchyEx",
             prefix.c_str(), err);
         errno = err;
         return false;
      }
      if (created && topmost != nullptr && *topmost == nullptr) {
         *topmost = Util_SafeStrdup(prefix.c_str());
      }
      if (slash == std::string::npos) {
         return true;
      }
      searchFrom = slash + 1;
   }
}

}  // namespace

bool File_Exists(const char *path) {
   return FileIO_Access(path, 0 /* existence */) == FILEIO_SUCCESS;
}

bool File_IsDirectory(const char *path) {
   FileData data;
   return FileAttributes(path, &data) == 0 && data.fileType == FILE_TYPE_DIRECTORY;
}

bool File_IsFile(const char *path) {
   FileData data;
   return FileAttributes(path, &data) == 0 && data.fileType == FILE_TYPE_REGULAR;
}

bool File_GetFilePermissions(const char *path, int *mode) {
   FileData data;
   if (FileAttributes(path, &data) != 0) {
      return false;
   }
   *mode = data.fileMode;
   return true;
}

bool File_IsEmptyDirectory(const char *path) {
   return File_ListDirectory(path, nullptr) == 0;
}

int File_Unlink(const char *path) {
   return StoreErrno(FileDeletion(path, true));
}

int File_UnlinkRetry(const char *path) {
   return File_Unlink(path);
}

int File_UnlinkNoFollow(const char *path) {
   return StoreErrno(FileDeletion(path, false));
}

int File_UnlinkIfExists(const char *path) {
   int err = FileDeletion(path, true);
   return StoreErrno(err == ENOENT ? 0 : err);
}

bool File_CreateDirectory(const char *path) {
   return File_CreateDirectoryEx(path, 0777);
}

bool File_CreateDirectoryEx(const char *path, int mode) {
   return FileCreateDirectory(path, mode) == 0;
}

bool File_EnsureDirectory(const char *path) {
   return File_EnsureDirectoryEx(path, 0777);
}

bool File_EnsureDirectoryEx(const char *path, int mode) {
   int err = FileCreateDirectory(path, mode);
   if (err == 0) {
      return true;
   }
   if (err != EEXIST) {
      return false;
   }
   if (!IsExistingDirectory(path, &err)) {
      errno = err;
      return false;
   }
   return true;
}

bool File_CreateDirectoryHierarchyEx(const char *path, int mode, char **topmost) {
   if (topmost != nullptr) {
      *topmost = nullptr;
   }
   if (path == nullptr || path[0] == '\0') {
      return true;
   }
   char *volume;
   File_SplitName(path, &volume, nullptr, nullptr);
   size_t volumeLen = std::strlen(volume);
   free(volume);
   size_t pathLen = std::strlen(path);
   if (volumeLen >= pathLen) {
      return File_IsDirectory(path);
   }

   return halcyx::CallOr(false, [&] { return CreateChain(path, volumeLen + 1, mode, topmost); });
}

/*
 * Deletes path and everything below it. The walk goes by directory
 * descriptors and never follows a symbolic link, path itself included: a
 * directory swapped for a link mid-walk is removed as a link, so nothing
 * outside the tree is ever touched. Names that are not valid UTF-8 are
 * deleted with the rest, or their directory could never go. A missing path
 * is success with errno 0.
 */
bool File_DeleteDirectoryTree(const char *path) {
   return DeleteTree(path, false);
}

// As File_DeleteDirectoryTree, but path itself stays.
bool File_DeleteDirectoryContent(const char *path) {
   return DeleteTree(path, true);
}

bool File_DeleteEmptyDirectory(const char *path) {
   return FileRemoveDirectory(path) == 0;
}
