// SPDX-License-Identifier: MIT
/*
 * Lock files: the public entry points, path normalisation, member-file
 * parsing and the identities written into member files.
 *
 * A member names its holder twice: by machine ID, so that only the host
 * that wrote it ever judges whether its process still runs, and by
 * execution ID ("pid-starttime"), so that a recycled process id does not
 * keep a dead holder's lock alive. The machine ID has two forms: the
 * current "uuid=..." form, a SHA-1 digest of the host's hardware address,
 * and the old Base64 form of {host-name hash, hardware address}, which
 * older members still carry and which is matched by hardware address only.
 */
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "file/fileLockInt.h"
#include "internal/unique.h"
#include "err.h"
#include "file.h"
#include "log.h"
#include "msgList.h"
#include "str.h"
#include "util.h"

namespace halcyx::filelock {

namespace {

void AppendLockError(MsgList **msgs, int err) {
   MsgList_Append(msgs, "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.", err,
                  Err_Errno2String(err));
}

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char *Base64Encode(const unsigned char *data, size_t size) {
   char *out = static_cast<char *>(Util_SafeMalloc((size + 2) / 3 * 4 + 1));
   char *p = out;
   for (size_t i = 0; i < size; i += 3) {
      uint32_t v = data[i] << 16;
      if (i + 1 < size) v |= data[i + 1] << 8;
      if (i + 2 < size) v |= data[i + 2];
      *p++ = kBase64[(v >> 18) & 63];
      *p++ = kBase64[(v >> 12) & 63];
      *p++ = i + 1 < size ? kBase64[(v >> 6) & 63] : '=';
      *p++ = i + 2 < size ? kBase64[v & 63] : '=';
   }
   *p = '\0';
   return out;
}

// Decodes text into out (at most outSize bytes); the decoded length, or -1.
ssize_t Base64Decode(const char *text, unsigned char *out, size_t outSize) {
   size_t len = strlen(text);
   if (len % 4 != 0) {
      return -1;
   }
   size_t n = 0;
   for (size_t i = 0; i < len; i += 4) {
      uint32_t v = 0;
      int pad = 0;
      for (size_t j = 0; j < 4; j++) {
         char c = text[i + j];
         const char *at = c != '\0' ? strchr(kBase64, c) : nullptr;
         if (c == '=' && i + 4 == len && j >= 2) {
            pad++;
         } else if (at == nullptr || pad > 0) {
            return -1;
         }
         v = v << 6 | (at != nullptr ? static_cast<uint32_t>(at - kBase64) : 0);
      }
      for (int k = 0; k < 3 - pad; k++) {
         if (n == outSize) {
            return -1;
         }
         out[n++] = static_cast<unsigned char>(v >> (16 - 8 * k));
      }
   }
   return static_cast<ssize_t>(n);
}

// Publishes value in *slot unless another thread was first; returns the winner.
const char *CacheOnce(std::atomic<char *> *slot, char *value) {
   char *expected = nullptr;
   if (!slot->compare_exchange_strong(expected, value, std::memory_order_acq_rel)) {
      free(value);
      return expected;
   }
   return value;
}

// The old form of this host.
char *ComputeOldMachineID() {
   return OldMachineID(HostNameHash(), HardwareID());
}

// "uuid=" and the host UUID (SHA-1 of the hardware ID), blanks as "-"; null
// without a digest.
char *ComputeUuidMachineID() {
   uint64_t hardware = HardwareID();
   uint32_t nameHash = HostNameHash();
   unsigned char digest[20];
   bool ok = hardware != 0 ? Sha1(&hardware, sizeof hardware, digest)
                           : Sha1(&nameHash, sizeof nameHash, digest);
   if (!ok) {
      return nullptr;
   }
   digest[0] = 0x52;
   const unsigned char *d = digest;
   char *id = Str_SafeAsprintf(nullptr,
                               "uuid=%02x %02x %02x %02x %02x %02x %02x %02x-"
                               "%02x %02x %02x %02x %02x %02x %02x %02x",
                               d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10],
                               d[11], d[12], d[13], d[14], d[15]);
   for (char *p = id; *p != '\0'; p++) {
      if (isspace(static_cast<unsigned char>(*p))) {
         *p = '-';
      }
   }
   return id;
}

std::atomic<char *> gMachineID;
std::atomic<char *> gOldMachineID;

// Decodes an old-form ID ("/" written as "-") into its 12 bytes.
bool DecodeOldMachineID(const char *id, unsigned char raw[12]) {
   UniqueCStr text(Util_SafeStrdup(id));
   for (char *p = text.get(); *p != '\0'; p++) {
      if (*p == '-') {
         *p = '/';
      }
   }
   return Base64Decode(text.get(), raw, 12) == 12;
}

// name=value with a non-empty name and value.
bool ValidProperty(const char *token) {
   const char *eq = strchr(token, '=');
   return eq != nullptr && eq != token && eq[1] != '\0';
}

bool ParseTicket(const char *text, uint32_t *ticket) {
   if (*text == '\0') {
      return false;
   }
   uint64_t value = 0;
   for (const char *p = text; *p != '\0'; p++) {
      if (*p < '0' || *p > '9') {
         return false;
      }
      value = value * 10 + static_cast<uint64_t>(*p - '0');
      if (value > UINT32_MAX) {
         return false;
      }
   }
   *ticket = static_cast<uint32_t>(value);
   return true;
}

// Up to kMaxTokens + 1 blank-separated tokens of text.
void Split(const char *text, char ***argv, int *argc) {
   UniqueCStr copy(Util_SafeStrdup(text));
   char **tokens = static_cast<char **>(Util_SafeCalloc(kMaxTokens + 1, sizeof *tokens));
   int n = 0;
   char *save = nullptr;
   for (char *t = strtok_r(copy.get(), " ", &save); t != nullptr && n <= kMaxTokens;
        t = strtok_r(nullptr, " ", &save)) {
      tokens[n++] = Util_SafeStrdup(t);
   }
   *argv = tokens;
   *argc = n;
}

}  // namespace

void FreeArgv(char **argv, int argc) {
   ErrnoSaver keep;
   for (int i = 0; i < argc; i++) {
      free(argv[i]);
   }
   free(argv);
}

bool ParseMember(const char *text, LockValues *values, char ***argvOut, int *argcOut) {
   char **argv;
   int argc;
   Split(text, &argv, &argc);
   // A member that recorded a bare process id: read it as pid-starttime.
   if (argc == 6 && strpbrk(argv[1], "-()") == nullptr && ValidProperty(argv[5])) {
      UniqueCStr rebuilt(Str_SafeAsprintf(nullptr, "%s %s-%s %s %s %s %s", argv[0], argv[1], argv[4],
                                          argv[2], argv[3], argv[4], argv[5]));
      FreeArgv(argv, argc);
      return ParseMember(rebuilt.get(), values, argvOut, argcOut);
   }
   *argvOut = argv;
   *argcOut = argc;
   uint32_t ticket = 0;
   if (argc < 5 || argc > kMaxTokens || !ParseTicket(argv[2], &ticket) ||
       (strcmp(argv[3], "S") != 0 && strcmp(argv[3], "X") != 0)) {
      return false;
   }
   const char *checksum = nullptr;
   for (int i = 5; i < argc; i++) {
      if (!ValidProperty(argv[i])) {
         return false;
      }
      if (strncmp(argv[i], "lc=", 3) == 0) {
         checksum = argv[i] + 3;
      }
   }
   values->machineID = Util_SafeStrdup(argv[0]);
   values->executionID = Util_SafeStrdup(argv[1]);
   values->ticket = ticket;
   values->exclusive = argv[3][0] == 'X';
   values->lockType = values->exclusive ? "X" : "S";
   values->locationChecksum = checksum != nullptr ? Util_SafeStrdup(checksum) : nullptr;
   return true;
}

bool ValidName(const char *name) {
   if (name[0] != 'M' && name[0] != 'D' && name[0] != 'E') {
      return false;
   }
   for (int i = 1; i <= 5; i++) {
      if (name[i] < '0' || name[i] > '9') {
         return false;
      }
   }
   size_t len = strlen(name);
   return len >= 10 && strcmp(name + len - 4, ".lck") == 0;
}

uint32_t LocationChecksum(const char *path) {
   uint32_t hash = 5381;
   for (const char *p = path; *p != '\0'; p++) {
      // Signed, as every host computes it.
      hash = hash * 33 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
   }
   return hash;
}

char *OldMachineID(uint32_t nameHash, uint64_t hardware) {
   unsigned char raw[12];
   memcpy(raw, &nameHash, 4);
   memcpy(raw + 4, &hardware, 8);
   char *id = Base64Encode(raw, sizeof raw);
   for (char *p = id; *p != '\0'; p++) {
      if (*p == '/') {
         *p = '-';
      }
   }
   return id;
}

bool OldMachineIDMatch(const char *localOld, const char *other) {
   unsigned char local[12];
   unsigned char theirs[12];
   if (!DecodeOldMachineID(localOld, local)) {
      Warning("%s: unexpected decode problem #1 (%s)\n", "OldMachineIDMatch", localOld);
      return false;
   }
   if (!DecodeOldMachineID(other, theirs)) {
      Warning("%s: unexpected decode problem #2 (%s)\n", "OldMachineIDMatch", other);
      return false;
   }
   return memcmp(local + 4, theirs + 4, 8) == 0;
}

const char *GetOldMachineID() {
   char *id = gOldMachineID.load(std::memory_order_acquire);
   return id != nullptr ? id : CacheOnce(&gOldMachineID, ComputeOldMachineID());
}

const char *GetMachineID() {
   char *id = gMachineID.load(std::memory_order_acquire);
   if (id != nullptr) {
      return id;
   }
   char *computed = ComputeUuidMachineID();
   if (computed == nullptr) {
      computed = Util_SafeStrdup(GetOldMachineID());
   }
   return CacheOnce(&gMachineID, computed);
}

bool MachineIDMatch(const char *local, const char *other) {
   bool localUuid = strncmp(local, "uuid=", 5) == 0;
   bool otherUuid = strncmp(other, "uuid=", 5) == 0;
   if (localUuid && otherUuid) {
      return strcmp(local + 5, other + 5) == 0;
   }
   if (localUuid) {
      return OldMachineIDMatch(GetOldMachineID(), other);
   }
   return !otherUuid && strcmp(local, other) == 0;
}

char *GetExecutionID() {
   // Computed once per process; a forked child computes its own.
   static std::atomic_flag busy = ATOMIC_FLAG_INIT;
   static int cachedPid;
   static char cached[64];
   int pid = static_cast<int>(getpid());
   while (busy.test_and_set(std::memory_order_acquire)) {
   }
   if (cachedPid != pid) {
      uint64_t start;
      cachedPid = 0;
      if (QueryProcessExistence(pid) == 1 && ProcessStartTime(pid, &start)) {
         snprintf(cached, sizeof cached, "%d-%llu", pid, static_cast<unsigned long long>(start));
         cachedPid = pid;
      }
   }
   char *id = cachedPid == pid ? Util_SafeStrdup(cached) : nullptr;
   busy.clear(std::memory_order_release);
   return id;
}

bool ValidExecutionID(const char *executionID) {
   unsigned int upid;
   int pid = -1;
   unsigned long long start = 0;
   bool parsed = sscanf(executionID, "%u-%llu", &upid, &start) == 2;
   if (parsed) {
      pid = static_cast<int>(upid);
   } else {
      start = 0;
      parsed = sscanf(executionID, "%d", &pid) == 1;
   }
   if (!parsed || pid < 0) {
      Warning("FILE: %s parse error on '%s'. Assuming valid.\n", "FileLockValidExecutionID",
              executionID);
      return true;
   }
   if (QueryProcessExistence(pid) == 0) {
      return false;
   }
   uint64_t current;
   if (!ProcessStartTime(pid, &current)) {
      return false;
   }
   return current == start || current == 0 || start == 0;
}

char *NormalizePath(const char *path) {
   if (path == nullptr) {
      return nullptr;
   }
   char *dirPart = nullptr;
   char *basePart = nullptr;
   File_GetPathName(path, &dirPart, &basePart);
   UniqueCStr dir(dirPart);
   UniqueCStr base(basePart);
   if (!dir || !base) {
      return nullptr;
   }
   if (dir.get()[0] == '\0') {
      // A bare name stays relative on purpose.
      return Str_SafeAsprintf(nullptr, "%s/%s", path[0] == '/' ? "" : ".", base.get());
   }
   UniqueCStr full(File_FullPath(dir.get()));
   if (!full) {
      return nullptr;
   }
   return Str_SafeAsprintf(nullptr, "%s/%s", full.get(), base.get());
}

}  // namespace halcyx::filelock

using namespace halcyx::filelock;
using halcyx::UniqueCStr;

FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t msecMaxWaitTime, int *err,
                             MsgList **msgs) {
   int res = EINVAL;
   FileLockToken *token = nullptr;
   UniqueCStr normalized(NormalizePath(path));
   if (normalized) {
      token = LockIntrinsic(normalized.get(), !readOnly, msecMaxWaitTime, &res);
   }
   if (token == nullptr) {
      if (res == 0) {
         res = EAGAIN;  // a time-out carries no error of its own
      }
      AppendLockError(msgs, res);
   }
   if (err != nullptr) {
      *err = token != nullptr ? 0 : res;
   }
   if (token == nullptr) {
      errno = res;
   }
   return token;
}

bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgs) {
   int res = UnlockIntrinsic(token);
   if (err != nullptr) {
      *err = res;
   }
   if (res != 0) {
      AppendLockError(msgs, res);
      return false;
   }
   return true;
}

bool FileLock_IsLocked(const char *path, int *err, MsgList **msgs) {
   int res = EINVAL;
   bool locked = false;
   UniqueCStr normalized(NormalizePath(path));
   if (normalized) {
      locked = IsLockedIntrinsic(normalized.get(), &res);
   }
   if (err != nullptr) {
      *err = res;
   }
   if (res != 0) {
      AppendLockError(msgs, res);
   }
   return locked;
}
