// SPDX-License-Identifier: MIT
/*
 * File handles: one record per open file over a POSIX descriptor.
 *
 * Abstract access bits and open actions are translated to open(2) flags.
 * A handle opened with FILEIO_ACCESS_LOCK_ADVISORY first takes a lock on
 * its path through the lock-directory protocol (fileLock.h), held until the
 * handle is closed. Every operation returns a FileIOResult; FileIO_MsgError
 * gives the message (identifier and English text) of a result.
 *
 * A failed open always leaves the record invalid (fd -1, no name, no lock)
 * with errno kept from the failing call. Handles are not shared between
 * threads by this layer.
 *
 *    FileIODescriptor fd;
 *    FileIO_Invalidate(&fd);
 *    if (FileIO_Open(&fd, path, FILEIO_ACCESS_READ, FILEIO_ACTION_OPEN) == FILEIO_SUCCESS) {
 *       FileIO_Read(&fd, buf, sizeof buf, &got);
 *       FileIO_Close(&fd);
 *    }
 */
#ifndef HALCYX_FILEIO_H
#define HALCYX_FILEIO_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

struct FileLockToken;

/* Callers never read the fields directly. */
typedef struct FileIODescriptor {
   int fd;                             /* -1: invalid */
   uint32_t flags;                     /* access bits after lock-bit resolution */
   char *fileName;                     /* owned copy of the path given to the open */
   struct FileLockToken *lockToken;    /* held advisory lock, or null */
} FileIODescriptor;

/* Results. */
typedef uint32_t FileIOResult;
#define FILEIO_SUCCESS            0u
#define FILEIO_CANCELLED          1u
#define FILEIO_ERROR              2u
#define FILEIO_OPEN_ERROR_EXIST   3u
#define FILEIO_LOCK_FAILED        4u
#define FILEIO_READ_ERROR_EOF     5u
#define FILEIO_FILE_NOT_FOUND     6u
#define FILEIO_NO_PERMISSION      7u
#define FILEIO_FILE_NAME_TOO_LONG 8u
#define FILEIO_WRITE_ERROR_FBIG   9u
#define FILEIO_WRITE_ERROR_NOSPC  10u
#define FILEIO_WRITE_ERROR_DQUOT  11u
#define FILEIO_ERROR_LAST         12u  /* not a result */

/* Access bits. */
#define FILEIO_ACCESS_READ              0x1u
#define FILEIO_ACCESS_WRITE             0x2u
#define FILEIO_ACCESS_DIRECT            0x4u      /* uncached, direct I/O where accepted */
#define FILEIO_ACCESS_DELETE_AFTER_OPEN 0x8u      /* unlink the path right after the open */
#define FILEIO_ACCESS_UNCACHED          0x10u
#define FILEIO_ACCESS_LOCK_BEST         0x20u     /* resolved to the advisory lock here */
#define FILEIO_ACCESS_NONBLOCK          0x80u
#define FILEIO_ACCESS_PRIVILEGED        0x100u    /* open through the privileged opener */
#define FILEIO_ACCESS_EXCLUSIVE_READ    0x200u    /* with EXCLUSIVE_WRITE: O_EXCL */
#define FILEIO_ACCESS_EXCLUSIVE_WRITE   0x400u
#define FILEIO_ACCESS_LOCK_MANDATORY_REQ 0x2000u  /* resolved to LOCK_MANDATORY */
#define FILEIO_ACCESS_FLOCK             0x10000u  /* exclusive flock on the descriptor */
#define FILEIO_ACCESS_APPEND            0x20000u
#define FILEIO_ACCESS_NOFOLLOW          0x40000u
#define FILEIO_ACCESS_LOCK_ADVISORY     0x100000u /* lock-directory lock before the open */
#define FILEIO_ACCESS_LOCK_MANDATORY    0x200000u /* not supported: the lock step fails */
#define FILEIO_ACCESS_READ_WRITE (FILEIO_ACCESS_READ | FILEIO_ACCESS_WRITE)

/* Open actions. */
#define FILEIO_ACTION_OPEN                  0  /* existing file */
#define FILEIO_ACTION_OPEN_TRUNCATE         1
#define FILEIO_ACTION_OPEN_CREATE           2
#define FILEIO_ACTION_CREATE                3  /* must not exist */
#define FILEIO_ACTION_OPEN_CREATE_TRUNCATE  4

/* Record life cycle. Cleanup frees the name and keeps errno. */
void FileIO_Invalidate(FileIODescriptor *fd);
bool FileIO_IsValid(const FileIODescriptor *fd);
void FileIO_Init(FileIODescriptor *fd, const char *path);
void FileIO_Cleanup(FileIODescriptor *fd);

/*
 * Opening. Open creates with mode 0600. A null path gives FILEIO_ERROR with
 * errno EFAULT. A privileged open never creates or truncates (EACCES).
 */
uint32_t FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access, int action, int mode);
uint32_t FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access, int action);
/* As FileIO_Create; "exists" is retried as open-or-create up to three times. */
uint32_t FileIO_CreateDeviceFileNoPrompt(FileIODescriptor *fd, const char *path,
                                         uint32_t access, int action, int mode);

/*
 * Whole-buffer loops; len must be below 2^31 (fatal otherwise). *actual
 * (optional) gets the bytes moved, also on failure. A read that meets the
 * end of the file returns FILEIO_READ_ERROR_EOF.
 */
uint32_t FileIO_Read(FileIODescriptor *fd, void *buf, size_t len, size_t *actual);
uint32_t FileIO_Write(FileIODescriptor *fd, const void *buf, size_t len, size_t *actual);

/*
 * Close always releases the lock, frees the name and invalidates the record;
 * FILEIO_ERROR (errno from close) when close failed. CloseAndUnlink then
 * removes the file (a missing file is fine).
 */
uint32_t FileIO_Close(FileIODescriptor *fd);
uint32_t FileIO_CloseAndUnlink(FileIODescriptor *fd);

/* Mode bits 1 read, 2 write, 4 execute; 0 tests existence. */
uint32_t FileIO_Access(const char *path, int mode);

/* Takes (or, for Unlock, drops) the handle's advisory lock. */
uint32_t FileIO_Lock(FileIODescriptor *fd, uint32_t access);
uint32_t FileIO_Unlock(FileIODescriptor *fd);

/*
 * The privileged open. A hook installed once at start-up receives every
 * privileged open (path and open flags) and returns a descriptor or -1;
 * null removes it. Without a hook the open runs as the super-user.
 */
void FileIO_SetPrivilegedOpener(int (*fn)(const char *path, int flags));
int FileIO_PrivilegedPosixOpen(const char *path, int flags);

/* Message of a result; ErrorEnglish skips the identifier. */
const char *FileIO_MsgError(uint32_t code);
const char *FileIO_ErrorEnglish(uint32_t code);

/*
 * Replace-by-rename. AtomicTempFile creates "<full path of fd>~" with fd's
 * mode and owner; AtomicUpdateEx renames newFd's file over currFd's, then
 * swaps the descriptors and closes the old one.
 */
uint32_t FileIO_AtomicTempFile(FileIODescriptor *fd, FileIODescriptor *tempFd);
bool FileIO_AtomicUpdateEx(FileIODescriptor *newFd, FileIODescriptor *currFd);

HALCYX_EXTERN_C_END

#endif /* HALCYX_FILEIO_H */
