// SPDX-License-Identifier: MIT
/*
 * The file layer's primitives over single names, shared by the directory,
 * copy and lock-file modules. Each returns 0 or the errno value of the
 * failing call (errno holds it too).
 */
#ifndef HALCYX_FILE_PRIMITIVES_H
#define HALCYX_FILE_PRIMITIVES_H

#include <stdint.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* File type codes of FileData.fileType. */
typedef enum {
   FILE_TYPE_REGULAR = 0,
   FILE_TYPE_DIRECTORY = 1,
   FILE_TYPE_BLOCKDEVICE = 2,
   FILE_TYPE_CHARDEVICE = 3,
   FILE_TYPE_SYMLINK = 4,
   FILE_TYPE_UNCERTAIN = 7,  /* FIFO, socket, anything else */
} FileType;

/* Attributes of a name, symbolic links followed. Times in seconds. */
typedef struct FileData {
   uint64_t fileAccessTime;
   uint64_t fileChangeTime;        /* inode change time */
   uint64_t fileModificationTime;
   uint64_t fileSize;
   int32_t fileType;               /* FileType */
   int32_t fileMode;               /* the whole st_mode, type bits included */
   uint32_t fileOwner;
   uint32_t fileGroup;
} FileData;

/* stat(path); a null record only tests that stat succeeds. */
int FileAttributes(const char *path, FileData *fileData);

/* mkdir(path, mode); a null path is EFAULT. */
int FileCreateDirectory(const char *path, int mode);

/* rmdir(path). */
int FileRemoveDirectory(const char *path);

/*
 * unlink(path). With handleLink and path a symbolic link, the file the link
 * points to is unlinked first; a failure other than ENOENT is returned and
 * the link stays. A relative link text is taken from the link's own
 * directory, never the current one, so the file removed is the one the link
 * names. A null path is EFAULT.
 */
int FileDeletion(const char *path, bool handleLink);

/*
 * File_ListDirectory of the directory open on dirFd, read through a
 * descriptor of its own so dirFd's position never moves. With raw, names
 * that are not valid UTF-8 are listed as they are stored, for work that
 * must reach every entry (tree deletion). path names the directory in
 * warnings only; it is never opened.
 */
int FileListDirectoryAt(int dirFd, const char *path, char ***names, bool raw);

HALCYX_EXTERN_C_END

#endif /* HALCYX_FILE_PRIMITIVES_H */
