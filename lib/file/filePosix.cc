// SPDX-License-Identifier: MIT
/*
 * The POSIX primitives of the file layer and the directory walk.
 *
 * Primitives return 0 or the errno value of the failing call and leave that
 * value in errno too. The walk hands out every name of a directory at most
 * once: a hash table remembers the names already returned, which matters
 * because names that are not valid UTF-8 all come out as the same
 * replacement text.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "codeset.h"
#include "file.h"
#include "file/filePrimitives.h"
#include "hashTable.h"
#include "internal/nothrow.h"
#include "internal/unique.h"
#include "log.h"
#include "posix.h"
#include "unicode.h"
#include "util.h"

using halcyx::ErrnoSaver;
using halcyx::UniqueCStr;

namespace {

int ErrnoResult(int rc) {
   return rc == 0 ? 0 : errno;
}

int32_t TypeCode(mode_t mode) {
   switch (mode & S_IFMT) {
   case S_IFREG: return FILE_TYPE_REGULAR;
   case S_IFDIR: return FILE_TYPE_DIRECTORY;
   case S_IFBLK: return FILE_TYPE_BLOCKDEVICE;
   case S_IFCHR: return FILE_TYPE_CHARDEVICE;
   case S_IFLNK: return FILE_TYPE_SYMLINK;
   default: return FILE_TYPE_UNCERTAIN;
   }
}

// Three U+FFFD REPLACEMENT CHARACTERs.
constexpr char kReplacementName[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";
constexpr uint32_t kWalkBuckets = 2048;

}  // namespace

struct WalkDirContextImpl {
   char *dirName;
   DIR *dir;
   HashTable *seen;  // names returned so far (copied keys)
   bool raw;         // names as stored, valid UTF-8 or not
};

int FileAttributes(const char *path, FileData *fileData) {
   struct stat st;
   if (stat(path, &st) != 0) {
      return errno;
   }
   if (fileData != nullptr) {
      fileData->fileAccessTime = static_cast<uint64_t>(st.st_atime);
      fileData->fileChangeTime = static_cast<uint64_t>(st.st_ctime);
      fileData->fileModificationTime = static_cast<uint64_t>(st.st_mtime);
      fileData->fileSize = static_cast<uint64_t>(st.st_size);
      fileData->fileType = TypeCode(st.st_mode);
      fileData->fileMode = static_cast<int32_t>(st.st_mode);
      fileData->fileOwner = st.st_uid;
      fileData->fileGroup = st.st_gid;
   }
   return 0;
}

int FileCreateDirectory(const char *path, int mode) {
   if (path == nullptr) {
      errno = EFAULT;
      return EFAULT;
   }
   return ErrnoResult(mkdir(path, static_cast<mode_t>(mode)));
}

int FileRemoveDirectory(const char *path) {
   return ErrnoResult(rmdir(path));
}

int FileDeletion(const char *path, bool handleLink) {
   if (path == nullptr) {
      errno = EFAULT;
      return EFAULT;
   }
   if (handleLink) {
      if (UniqueCStr target(Posix_ReadLink(path)); target != nullptr) {
         // A relative link text names a file beside the link, never one
         // below the current directory.
         int err = halcyx::CallOr(ENOMEM, [&] {
            std::string pointee = target.get();
            if (pointee[0] != '/') {
               char *dir;
               File_SplitName(path, nullptr, &dir, nullptr);
               UniqueCStr owned(dir);
               pointee.insert(0, dir);
            }
            return unlink(pointee.c_str()) != 0 && errno != ENOENT ? errno : 0;
         });
         if (err != 0) {
            return err;
         }
      } else if (errno != EINVAL) {
         return errno;
      }
   }
   return ErrnoResult(unlink(path));
}

namespace {

// Takes dir over; path names the directory in warnings.
WalkDirContext WalkOver(DIR *dir, const char *path, bool raw) {
   auto *context = static_cast<WalkDirContextImpl *>(Util_SafeMalloc(sizeof(WalkDirContextImpl)));
   context->dirName = Util_SafeStrdup(path);
   context->dir = dir;
   context->seen = HashTable_Alloc(kWalkBuckets, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr);
   context->raw = raw;
   return context;
}

WalkDirContext WalkStart(const char *path, bool raw) {
   if (path == nullptr) {
      errno = EFAULT;
      return nullptr;
   }
   DIR *dir = opendir(path);
   return dir != nullptr ? WalkOver(dir, path, raw) : nullptr;
}

// Collects the walk's names; the walk is ended in every case.
int ListWalk(WalkDirContext context, char ***names) {
   if (context == nullptr) {
      return -1;
   }
   while (File_WalkDirectoryNext(context, nullptr)) {
   }
   if (errno != 0) {
      File_WalkDirectoryEnd(context);
      return -1;
   }
   size_t count = HashTable_GetNumElements(context->seen);
   if (names != nullptr) {
      *names = nullptr;
      if (count > 0) {
         const void **keys;
         size_t numKeys;
         HashTable_KeyArray(context->seen, &keys, &numKeys);
         char **list = static_cast<char **>(Util_SafeMalloc(numKeys * sizeof *list));
         for (size_t i = 0; i < numKeys; i++) {
            list[i] = Util_SafeStrdup(static_cast<const char *>(keys[i]));
         }
         free(keys);
         *names = list;
      }
   }
   File_WalkDirectoryEnd(context);
   return static_cast<int>(count);
}

}  // namespace

WalkDirContext File_WalkDirectoryStart(const char *path) {
   return WalkStart(path, false);
}

bool File_WalkDirectoryNext(WalkDirContext context, char **name) {
   if (context == nullptr) {
      errno = EINVAL;
      return false;
   }
   for (;;) {
      // Cleared before every read: a failed write of the warning below must
      // not pass for a read error at the end of the stream.
      errno = 0;
      struct dirent *entry = readdir(context->dir);
      if (entry == nullptr) {
         return false;  // errno: 0 at the end, or the read's error
      }
      const char *entryName = entry->d_name;
      if (std::strcmp(entryName, ".") == 0 || std::strcmp(entryName, "..") == 0) {
         continue;
      }
      if (!context->raw && !CodeSet_IsStringValidUTF8(entryName)) {
         UniqueCStr escaped(Unicode_EscapeBuffer(entryName, -1, UNICODE_ENCODING_UTF8));
         Warning("%s: file '%s' in directory '%s' cannot be converted to UTF8\n",
                 "File_WalkDirectoryNext", context->dirName,
                 escaped != nullptr ? escaped.get() : "");
         entryName = kReplacementName;
      }
      if (!HashTable_Insert(context->seen, entryName, nullptr)) {
         continue;  // already returned by this walk
      }
      if (name != nullptr) {
         *name = Util_SafeStrdup(entryName);
      }
      errno = 0;
      return true;
   }
}

void File_WalkDirectoryEnd(WalkDirContext context) {
   if (context == nullptr) {
      return;
   }
   ErrnoSaver keep;
   closedir(context->dir);
   HashTable_Free(context->seen);
   free(context->dirName);
   free(context);
}

int File_ListDirectory(const char *path, char ***names) {
   return ListWalk(WalkStart(path, false), names);
}

int FileListDirectoryAt(int dirFd, const char *path, char ***names, bool raw) {
   // A descriptor of its own, so that reading the stream never moves dirFd.
   int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   if (fd < 0) {
      return -1;
   }
   DIR *dir = fdopendir(fd);
   if (dir == nullptr) {
      ErrnoSaver keep;
      close(fd);
      return -1;
   }
   return ListWalk(WalkOver(dir, path, raw), names);
}
