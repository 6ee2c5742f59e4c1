// SPDX-License-Identifier: MIT
/*
 * Internals of the lock-directory protocol, shared by its modules and used
 * by the library's own tests and fuzz target.
 *
 * fileLock.cc           public entry points, path normalisation, machine
 *                       and execution identities
 * fileLockPrimitive.cc  the protocol: entry markers, member files, tickets,
 *                       scans, possession wait, release
 * fileLockPosix.cc      the host: process start times, hardware address,
 *                       SHA-1, the random generator behind names and sleeps
 */
#ifndef HALCYX_FILE_FILELOCKINT_H
#define HALCYX_FILE_FILELOCKINT_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <sys/stat.h>

#include "fileIO.h"
#include "fileLock.h"

namespace halcyx::filelock {

inline constexpr size_t kMemberSize = 512;      // bytes of every member file
inline constexpr int kMaxTokens = 16;           // of a member file's text
inline constexpr int kTimeoutErr = EAGAIN;      // the possession wait gave up

// One member's values, or the caller's own (watch list only there).
struct LockValues {
   char *machineID = nullptr;
   char *executionID = nullptr;
   const char *lockType = nullptr;      // "S" or "X" (static text)
   char *locationChecksum = nullptr;    // "lc" property, or null
   char *memberName = nullptr;          // "Mnnnnn.lck"
   uint32_t ticket = 0;
   bool exclusive = false;
   uint64_t startMsec = 0;              // monotonic
   uint32_t msecMaxWait = 0;
   // The member file this was read from: a file of the same name made
   // later is another request, never this one.
   dev_t fileDevice = 0;
   ino_t fileInode = 0;
};
void FreeValues(LockValues *values);


/*
 * Parses the text of a member file (NUL-terminated, at most kMemberSize
 * bytes). true fills *values (machine and execution ID, ticket, type, "lc");
 * false means the file is problematic. The tokens found are returned in
 * argv and argc for the caller's diagnostics either way (free with FreeArgv).
 */
bool ParseMember(const char *text, LockValues *values, char ***argv, int *argc);
void FreeArgv(char **argv, int argc);

// "Mnnnnn.lck", "Dnnnnn.lck", "Ennnnn.lck": M, D or E, five digits, ".lck".
bool ValidName(const char *name);

// djb2 over the bytes taken as signed chars, printed "%u" by callers.
uint32_t LocationChecksum(const char *path);

// Machine identity (cached per process) and identity matching.
const char *GetMachineID();
bool MachineIDMatch(const char *local, const char *other);
// Old-form identity of this host (Base64 of host-name hash and hardware ID).
const char *GetOldMachineID();
// The old form of {nameHash, hardware}: Base64 with every "/" written "-".
char *OldMachineID(uint32_t nameHash, uint64_t hardware);
// Whether two old-form IDs name the same hardware (the host-name hash is
// not compared); an ID that does not decode to 12 bytes matches nothing.
bool OldMachineIDMatch(const char *localOld, const char *other);

// "pid-starttime" of this process; null when it cannot be determined.
char *GetExecutionID();
// Whether the process an execution ID names still runs on this host.
bool ValidExecutionID(const char *executionID);

// Process identity on this host.
bool ProcessStartTime(int pid, uint64_t *usec);   // microseconds since the epoch
int QueryProcessExistence(int pid);               // 1 alive, 0 dead, -1 unknown
// Hardware identifier of this host: the first non-loopback interface's
// hardware address in its low bytes; 0 when there is none.
uint64_t HardwareID();
uint32_t HostNameHash();
// SHA-1 through the lazily loaded crypto library; false when it is absent.
bool Sha1(const void *data, size_t size, unsigned char digest[20]);

// Shared generator of member numbers and sleeps, reseeded after a fork.
uint32_t SimpleRandom();
void Sleeper(uint32_t msecMin, uint32_t msecMax);
uint64_t NowMsec();

// "dir/base" with dir made absolute; a bare name stays "./base". Null on failure.
char *NormalizePath(const char *path);

// The protocol (fileLockPrimitive.cc). Errors are POSIX numbers; 0 with a
// null token is a time-out.
FileLockToken *LockIntrinsic(const char *normalizedPath, bool exclusive, uint32_t msecMaxWait,
                             int *err);
int UnlockIntrinsic(FileLockToken *token);
bool IsLockedIntrinsic(const char *normalizedPath, int *err);

}  // namespace halcyx::filelock

#endif  // HALCYX_FILE_FILELOCKINT_H
