// SPDX-License-Identifier: MIT
/*
 * Path names, directory operations, copy and move.
 *
 * Paths are NUL-terminated UTF-8 texts with "/" as the only separator.
 * Every function that returns a text returns a new heap copy that the
 * caller releases with free(); inputs are never modified. Allocation
 * failure ends the process through Panic.
 *
 * Result conventions, fixed per function:
 *   - bool functions return true on success and leave errno describing
 *     the failing call otherwise;
 *   - the File_Unlink family returns 0 or an errno value, and also stores
 *     that value in errno;
 *   - File_ListDirectory returns a count or -1;
 *   - File_Rename returns 0 or an errno value.
 * errno is kept across the functions' own clean-up, so a caller always sees
 * the error of the call that failed.
 *
 * Copy failures are reported into the process's pending user message
 * (Msg_Append) as well as through the result.
 */
#ifndef HALCYX_FILE_H
#define HALCYX_FILE_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* ---- Path names (pure text work unless stated) ---- */

/*
 * volume: always empty; dir: everything up to and including the last "/";
 * base: the rest. Without "/", dir is empty and base is the whole path.
 * Any out-argument may be null. A null path counts as empty.
 */
void File_SplitName(const char *path, char **volume, char **dir, char **base);

/*
 * base: the text after the last "/"; dir: the text before it with every
 * trailing "/" removed. Without "/", dir is empty and base the whole path.
 * Either out-argument may be null. "/a//b" -> "/a", "b"; "a/" -> "a", "".
 */
void File_GetPathName(const char *path, char **dir, char **base);

/* Removes every trailing "/" ("/" -> "", "a//" -> "a"); inner runs stay. */
char *File_StripSlashes(const char *path);

/* Collapses every run of "/" into one ("//a///b/" -> "/a/b/"). */
char *File_StripFwdSlashes(const char *path);

/*
 * dirName without its trailing slashes, one "/", baseName without its
 * leading slashes: ("/", "x") -> "/x", ("a/", "//b") -> "a/b",
 * ("", "b") -> "/b".
 */
char *File_PathJoin(const char *dirName, const char *baseName);

/* True when path starts with "/"; a null path is false. */
bool File_IsFullPath(const char *path);

/*
 * The current working directory, or null (after adding a user message and
 * a warning) when it cannot be read. drive is ignored on this platform; a
 * non-empty one draws a warning.
 */
char *File_Cwd(const char *drive);

/*
 * An absolute path free of symbolic links. A null or empty path is the
 * current directory; a relative one is taken below it. A path that does not
 * (fully) exist resolves its longest existing ancestor and keeps the rest
 * as written. Null only when the current directory cannot be read.
 */
char *File_FullPath(const char *path);

/*
 * Replaces *path by its parent. Returns true, changing nothing, when *path
 * is already "/"; false otherwise. A bare relative name's parent is "/".
 */
bool File_GetParent(char **path);

/*
 * Replaces or appends an extension in the last component. newExt carries
 * its own leading ".". With count 0 any existing extension is replaced;
 * with count > 0 only one equal to one of the count texts that follow
 * (each with its "."), otherwise newExt is appended to the whole path.
 */
char *File_ReplaceExtension(const char *path, const char *newExt, size_t count, ...);

/* Cuts the path at the last "." of its last component (".profile" -> ""). */
char *File_RemoveExtension(const char *path);

/*
 * The first oldPrefixes[i] (trailing slashes ignored) that starts path and
 * is followed there by "/" or the end is replaced by newPrefixes[i]
 * (trailing slashes ignored). Null when none matches.
 */
char *File_MapPathPrefix(const char *path, const char **oldPrefixes,
                         const char **newPrefixes, size_t count);

/* ---- Tests and queries (symbolic links are followed) ---- */

bool File_Exists(const char *path);
bool File_IsDirectory(const char *path);
bool File_IsFile(const char *path);
/* The whole st_mode, type bits included. */
bool File_GetFilePermissions(const char *path, int *mode);
/* A directory without any entry but "." and "..". */
bool File_IsEmptyDirectory(const char *path);

/* ---- Deletion of single names ---- */

/*
 * Unlinks path; when path is a symbolic link, the file it points to is
 * unlinked first (a target already gone is fine; any other failure keeps
 * the link). Returns 0 or an errno value, also stored in errno.
 */
int File_Unlink(const char *path);
int File_UnlinkRetry(const char *path);
/* Unlinks path itself, never what a link points to. */
int File_UnlinkNoFollow(const char *path);
/* As File_Unlink; a missing name is success (0, errno 0). */
int File_UnlinkIfExists(const char *path);

/* ---- Directories ---- */

/* mkdir with mode 0777 / mode; an existing name is a failure. */
bool File_CreateDirectory(const char *path);
bool File_CreateDirectoryEx(const char *path, int mode);

/*
 * True when the directory was created or already is a directory (links
 * followed). An existing non-directory fails with errno ENOTDIR. The mode
 * of an existing directory is left alone.
 */
bool File_EnsureDirectory(const char *path);
bool File_EnsureDirectoryEx(const char *path, int mode);

/*
 * Creates path and every missing ancestor with mode. *topmost (when not
 * null) receives the first directory that this call created, or null when
 * it created none; it is set even when a later step fails, in which case
 * the directories created so far stay. A null or empty path is success.
 */
bool File_CreateDirectoryHierarchyEx(const char *path, int mode, char **topmost);

/*
 * Deletes a whole tree; symbolic links inside it are removed as links. A
 * missing path, or one below a non-directory, is success. Every entry is
 * attempted even after a failure; the last failure is left in errno.
 */
bool File_DeleteDirectoryTree(const char *path);
/* As File_DeleteDirectoryTree, but the directory itself stays. */
bool File_DeleteDirectoryContent(const char *path);
/* rmdir. */
bool File_DeleteEmptyDirectory(const char *path);

/*
 * The number of names in the directory ("." and ".." excluded), or -1.
 * With names not null, *names receives a new array of that many new texts
 * (null for 0 names), in no particular order; the caller frees each name
 * and the array. Names that are not valid UTF-8 are listed as three
 * U+FFFD characters, and each name is listed once.
 */
int File_ListDirectory(const char *path, char ***names);

/*
 * An incremental listing with the same rules. Next returns true with the
 * next name (a new text, when name is not null); false with errno 0 at the
 * end, or with the read's errno. End accepts null.
 */
typedef struct WalkDirContextImpl *WalkDirContext;
WalkDirContext File_WalkDirectoryStart(const char *path);
bool File_WalkDirectoryNext(WalkDirContext context, char **name);
void File_WalkDirectoryEnd(WalkDirContext context);

/* ---- Copy and move ---- */

struct FileIODescriptor;

/* Copies the rest of src to dst through one 8,192-byte buffer. */
bool File_CopyFromFdToFd(struct FileIODescriptor *src, struct FileIODescriptor *dst);

/*
 * Creates dstName (failing when it exists unless overwrite) and copies src
 * into it. A failed copy or close removes the half-written destination.
 */
bool File_CopyFromFd(const char *dstName, bool overwrite, struct FileIODescriptor *src);

/*
 * Copies the bytes of one file; the destination gets the default creation
 * mode, not the source's mode, owner or times.
 */
bool File_Copy(const char *src, const char *dst, bool overwrite);

/*
 * Copies the contents of the existing directory src into the existing
 * directory dst. Without followSymlinks, symbolic links are recreated with
 * the same text; with it, what they point to is copied, and a link back up
 * to a directory being copied fails with ELOOP. FIFOs, sockets and devices
 * are recreated, never read. Names that are not valid UTF-8 cannot be
 * copied. Stops at the first failing entry; what was copied stays.
 */
bool File_CopyTree(const char *src, const char *dst, bool overwrite, bool followSymlinks);

/* rename: 0 or an errno value. */
int File_Rename(const char *oldName, const char *newName);
int File_RenameRetry(const char *oldName, const char *newName);

/*
 * Renames, or when that fails copies and deletes the source (a source that
 * cannot be deleted does not make the move fail). *asRename (when not
 * null) tells which way it went.
 */
bool File_Move(const char *oldName, const char *newName, bool *asRename);

/* chmod; a failure is logged. */
bool File_SetFilePermissions(const char *path, int mode);

/*
 * Copies one open regular file completely: its data, then every extended
 * attribute (POSIX ACLs and signatures included), then its mode, owner and
 * times. Both descriptors should be opened with O_NOFOLLOW; dstFd must be
 * open for writing and is truncated to the source's size. A caller without
 * the right to give files away keeps the copy as its own. On failure the
 * step and the error are logged, the destination is truncated to empty, so
 * that no partial copy is left for the caller to remove, and errno tells
 * why.
 */
bool File_CopyDescriptorAll(int srcFd, int dstFd);

HALCYX_EXTERN_C_END

#endif /* HALCYX_FILE_H */
