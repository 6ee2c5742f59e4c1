// SPDX-License-Identifier: MIT
/*
 * The lock-directory protocol.
 *
 * A locker of path P works inside the directory "P.lck":
 *   1. it creates an entry marker "Dnnnnn.lck" (a directory) whose number no
 *      published member "Mnnnnn.lck" uses yet;
 *   2. it creates "Ennnnn.lck", scans every published member and takes a
 *      ticket one above the largest it saw;
 *   3. it writes its 512-byte record into the E file, renames it to
 *      "Mnnnnn.lck" and removes its marker, which publishes the ticket;
 *   4. it waits until no member ahead of it (a smaller ticket, or an equal
 *      ticket and a smaller name) conflicts with it: an exclusive lock
 *      conflicts with everything, shared locks only with exclusive ones.
 * While some marker exists, some locker is still choosing its ticket, so the
 * possession scan judges nobody until every marker has gone (the bakery
 * algorithm's "choosing" flag); a marker that stays longer than about eight
 * seconds belongs to a dead locker and is cleared with its files.
 *
 * Members of dead processes on this host (execution ID no longer valid) are
 * deleted by whoever meets them; members of other hosts are only ever waited
 * for. Anything in a lock directory that does not follow the format is
 * deleted.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file/fileLockInt.h"
#include "internal/unique.h"
#include "err.h"
#include "log.h"
#include "str.h"
#include "util.h"

// A held lock: the normalised path and our member file.
struct FileLockToken {
   uint32_t signature;  // "FLCK"
   bool portable;       // always: the lock-directory scheme
   char *pathName;
   char *memberPath;    // or the implicit read lock's marker
};

namespace halcyx::filelock {


namespace {

constexpr uint32_t kTokenSignature = 0x4B434C46;  // "FLCK" in memory order
constexpr uint64_t kProgressLimitMsec = 8001;
constexpr uint32_t kMarkerAgeLimitMsec = 8000;
constexpr uint32_t kScanPauseMsec = 200;

// The token of an implicit read lock carries this address as its member path.
char gImplicitReadLock;

using Callback = int (*)(const char *lockDir, const char *fileName, LockValues *member,
                         LockValues *caller);

struct WatchedMarker {
   char *name;
   uint32_t ageMsec;
   bool seen;
};

// Entry markers being watched, owned by one scan.
class WatchList {
public:
   WatchList() = default;
   ~WatchList() {
      for (size_t i = 0; i < count_; i++) {
         free(items_[i].name);
      }
      free(items_);
   }
   WatchList(const WatchList &) = delete;
   WatchList &operator=(const WatchList &) = delete;

   void MarkSeen(const char *name) {
      for (size_t i = 0; i < count_; i++) {
         if (strcmp(items_[i].name, name) == 0) {
            items_[i].seen = true;
            return;
         }
      }
      items_ = static_cast<WatchedMarker *>(Util_SafeRealloc(items_, (count_ + 1) * sizeof *items_));
      items_[count_++] = {Util_SafeStrdup(name), 0, true};
   }
   // Drops every marker not seen since the last call of Age.
   void DropUnseen() {
      size_t kept = 0;
      for (size_t i = 0; i < count_; i++) {
         if (items_[i].seen) {
            items_[kept++] = items_[i];
         } else {
            free(items_[i].name);
         }
      }
      count_ = kept;
   }
   bool Empty() const { return count_ == 0; }
   size_t Count() const { return count_; }
   WatchedMarker &At(size_t i) { return items_[i]; }
   void Remove(size_t i) {
      free(items_[i].name);
      items_[i] = items_[--count_];
   }

private:
   WatchedMarker *items_ = nullptr;
   size_t count_ = 0;
};

char *Join(const char *dir, const char *name) {
   return Str_SafeAsprintf(nullptr, "%s/%s", dir, name);
}

// "<c>nnnnn.lck" for the entry number.
char *EntryName(char kind, uint32_t number) {
   return Str_SafeAsprintf(nullptr, "%c%05u%s", kind, number, ".lck");
}

/*
 * mkdir with mode 0777 exactly, whatever the umask: every locker of every
 * user must be able to add its entries. The mode is set on the directory
 * itself afterwards (opened without following a link, so the change can
 * only reach the directory made here); the umask, which every thread of
 * the process shares, is never touched.
 */
int MakeDirectory(const char *path) {
   if (mkdir(path, 0777) != 0) {
      return errno;
   }
   UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
   if (!dir || fchmod(dir.get(), 0777) != 0) {
      int err = errno;
      rmdir(path);
      return err;
   }
   return 0;
}

int RemoveDirectory(const char *path) {
   return rmdir(path) == 0 ? 0 : errno;
}

// Deletes a file of a lock directory; a missing one is fine. A directory
// under a file's name (never made by this protocol) is removed when empty.
int RemoveLockingFile(const char *lockDir, const char *name) {
   UniqueCStr path(Join(lockDir, name));
   int err = unlink(path.get()) == 0 ? 0 : errno;
   if (err == EISDIR) {
      err = RemoveDirectory(path.get());
   }
   if (err == ENOENT) {
      return 0;
   }
   if (err != 0) {
      Warning("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path.get(), Err_Errno2String(err));
   }
   return err;
}

// The names in a directory (without "." and ".."), or null with errno.
char **ListNames(const char *dir, size_t *count) {
   DIR *stream = opendir(dir);
   if (stream == nullptr) {
      return nullptr;
   }
   char **names = nullptr;
   size_t n = 0;
   errno = 0;
   for (struct dirent *entry; (entry = readdir(stream)) != nullptr; errno = 0) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
         continue;
      }
      names = static_cast<char **>(Util_SafeRealloc(names, (n + 1) * sizeof *names));
      names[n++] = Util_SafeStrdup(entry->d_name);
   }
   int err = errno;
   closedir(stream);
   if (err != 0) {
      for (size_t i = 0; i < n; i++) {
         free(names[i]);
      }
      free(names);
      errno = err;
      return nullptr;
   }
   *count = n;
   return names != nullptr ? names : static_cast<char **>(Util_SafeCalloc(1, sizeof *names));
}

void FreeNames(char **names, size_t count) {
   ErrnoSaver keep;
   for (size_t i = 0; i < count; i++) {
      free(names[i]);
   }
   free(names);
}

// Warns about and deletes a member file that does not follow the format.
int DiscardProblematic(const char *lockDir, const char *name, const char *path, char **argv,
                       int argc) {
   Warning("FILE: %s removing problematic lock file '%s'\n", "FileLockMemberValues", path);
   if (argc > 0) {
      Log("FILE: %s '%s' contents are:\n", "FileLockMemberValues", name);
      for (int i = 0; i < argc; i++) {
         Log("FILE: %s %s argv[%u]: '%s'\n", "FileLockMemberValues", name, static_cast<unsigned>(i),
             argv[i]);
      }
   }
   int err = RemoveLockingFile(lockDir, name);
   return err != 0 ? err : ENOENT;
}

/*
 * Reads and parses one member file. 0 fills *values; ENOENT means the member
 * vanished (or was problematic and deleted); anything else is an error.
 */
int MemberValues(const char *lockDir, const char *name, LockValues *values) {
   const char *fn = "FileLockMemberValues";
   UniqueCStr path(Join(lockDir, name));
   FileIODescriptor handle;
   FileIO_Invalidate(&handle);
   // Never through a link, never blocking on a FIFO: whoever can write to
   // the lock directory must not make us read (and log) another file.
   if (FileIO_Create(&handle, path.get(),
                     FILEIO_ACCESS_READ | FILEIO_ACCESS_NOFOLLOW | FILEIO_ACCESS_NONBLOCK,
                     FILEIO_ACTION_OPEN, 0444) != FILEIO_SUCCESS) {
      int err = errno;
      if (err == ELOOP) {
         return DiscardProblematic(lockDir, name, path.get(), nullptr, 0);
      }
      if (err != ENOENT) {
         Warning("FILE: %s open failure on '%s': %s\n", fn, path.get(), Err_Errno2String(err));
      }
      return err;
   }
   struct stat st;
   if (fstat(handle.fd, &st) != 0) {
      int err = errno;
      Warning("FILE: %s file size failure on '%s': %s\n", fn, path.get(), Err_Errno2String(err));
      FileIO_Close(&handle);
      return err;
   }
   if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != kMemberSize) {
      Warning("FILE: %s file '%s': size %llu, required size %zd\n", fn, path.get(),
              static_cast<unsigned long long>(st.st_size), static_cast<ssize_t>(kMemberSize));
      FileIO_Close(&handle);
      return DiscardProblematic(lockDir, name, path.get(), nullptr, 0);
   }
   char buffer[kMemberSize + 1] = {};
   size_t got = 0;
   uint32_t result = FileIO_Read(&handle, buffer, kMemberSize, &got);
   int readErr = errno;
   FileIO_Close(&handle);
   if (result != FILEIO_SUCCESS && result != FILEIO_READ_ERROR_EOF) {
      Warning("FILE: %s read failure on '%s': %s\n", fn, path.get(), Err_Errno2String(readErr));
      return readErr;
   }
   if (got != kMemberSize) {
      Warning("FILE: %s read length issue on '%s': %zd and %zd\n", fn, path.get(),
              static_cast<ssize_t>(got), static_cast<ssize_t>(kMemberSize));
      return EIO;
   }
   char **argv = nullptr;
   int argc = 0;
   bool ok = ParseMember(buffer, values, &argv, &argc);
   int err = ok ? 0 : DiscardProblematic(lockDir, name, path.get(), argv, argc);
   FreeArgv(argv, argc);
   if (ok) {
      values->memberName = Util_SafeStrdup(name);
      values->fileDevice = st.st_dev;
      values->fileInode = st.st_ino;
   }
   return err;
}

// Why a member must go, or null when it stays.
char *DiscardReason(const LockValues *member, const LockValues *caller) {
   if (MachineIDMatch(caller->machineID, member->machineID) &&
       !ValidExecutionID(member->executionID)) {
      return Str_SafeAsprintf(nullptr, "invalid executionID %s.", member->executionID);
   }
   if (strcmp(member->executionID, caller->executionID) == 0 &&
       member->locationChecksum != nullptr &&
       strcmp(member->locationChecksum, caller->locationChecksum) != 0) {
      return Util_SafeStrdup("lock file has been moved.");
   }
   return nullptr;
}

// Clears the files of an entry marker that outlived its owner.
void DiscardMarker(const char *lockDir, const char *markerName) {
   Log("FILE: %s discarding %s data from '%s'.\n", "FileLockScanner", markerName, lockDir);
   UniqueCStr name(Util_SafeStrdup(markerName));
   name.get()[0] = 'M';
   RemoveLockingFile(lockDir, name.get());
   name.get()[0] = 'E';
   RemoveLockingFile(lockDir, name.get());
   UniqueCStr marker(Join(lockDir, markerName));
   RemoveDirectory(marker.get());
}

// Judges one published member and hands it to the callback.
int ScanMember(const char *lockDir, const char *name, Callback callback, LockValues *caller) {
   if (caller->memberName != nullptr && strcmp(name, caller->memberName) == 0) {
      return callback(lockDir, name, caller, caller);
   }
   LockValues member;
   int err = MemberValues(lockDir, name, &member);
   if (err != 0) {
      FreeValues(&member);
      return err == ENOENT ? 0 : err;
   }
   UniqueCStr reason(DiscardReason(&member, caller));
   if (reason) {
      Log("FILE: %s discarding %s from %s': %s\n", "FileLockScanDirectory", name, lockDir,
          reason.get());
      err = RemoveLockingFile(lockDir, name);
      FreeValues(&member);
      return err;
   }
   err = callback(lockDir, name, &member, caller);
   FreeValues(&member);
   return err;
}

/*
 * Runs callback over every published member until one answers non-zero.
 * With watch set, nobody is judged while an entry marker exists; the scan
 * pauses and lists again, and clears markers that stay too long.
 */
int Scanner(const char *lockDir, Callback callback, LockValues *caller, bool watch) {
   WatchList watched;
   for (;;) {
      size_t count = 0;
      char **names = ListNames(lockDir, &count);
      if (names == nullptr) {
         Log("FILE: %s: Could not read the directory '%s': %d\n", "FileLockScanDirectory", lockDir,
             errno);
         return EDOM;
      }
      int err = 0;
      for (size_t i = 0; i < count && err == 0; i++) {
         if (!ValidName(names[i])) {
            Log("FILE: %s discarding %s from %s'; invalid file name.\n", "FileLockScanDirectory",
                names[i], lockDir);
            err = RemoveLockingFile(lockDir, names[i]);
            names[i][0] = '\0';
         } else if (names[i][0] == 'D' && watch) {
            watched.MarkSeen(names[i]);
         }
      }
      watched.DropUnseen();
      if (err == 0 && watched.Empty()) {
         for (size_t i = 0; i < count && err == 0; i++) {
            if (names[i][0] == 'M') {
               err = ScanMember(lockDir, names[i], callback, caller);
            }
         }
         FreeNames(names, count);
         return err;
      }
      FreeNames(names, count);
      if (err != 0) {
         return err;
      }
      for (size_t i = watched.Count(); i-- > 0;) {
         WatchedMarker &marker = watched.At(i);
         if (marker.ageMsec <= kMarkerAgeLimitMsec) {
            marker.ageMsec += kScanPauseMsec;
            marker.seen = false;
         } else {
            DiscardMarker(lockDir, marker.name);
            watched.Remove(i);
         }
      }
      Sleeper(kScanPauseMsec, kScanPauseMsec);
   }
}

int NumberCallback(const char *, const char *, LockValues *member, LockValues *caller) {
   if (member->ticket > caller->ticket) {
      caller->ticket = member->ticket;
   }
   return 0;
}

// Poll interval of the possession wait after `elapsed` ms.
uint32_t PollMsec(uint64_t elapsed) {
   if (elapsed <= 2000) {
      return 100;
   }
   return elapsed < 20000 ? static_cast<uint32_t>(elapsed / 10) : 2000;
}

/*
 * Whether the member file name still holds the request that member was
 * read from: 0 yes, ENOENT when it is gone or now holds another request
 * (its owner released it and made a new member under the same name, which
 * stands behind ours), another error when it cannot be read. Only what a
 * request is made of counts: the file, its ticket and its owner. Its change
 * time does not: anyone may chmod, touch or tag the file, and the request
 * is still there.
 */
int StillHeld(const char *lockDir, const char *fileName, const LockValues &member) {
   LockValues now;
   int err = MemberValues(lockDir, fileName, &now);
   if (err == 0 && (now.fileDevice != member.fileDevice || now.fileInode != member.fileInode ||
                    now.ticket != member.ticket ||
                    strcmp(now.executionID, member.executionID) != 0)) {
      err = ENOENT;
   }
   FreeValues(&now);
   return err;
}

int WaitForPossession(const char *lockDir, const char *fileName, LockValues *member,
                      LockValues *caller) {
   const char *fn = "FileLockWaitForPossession";
   bool ahead = member->ticket < caller->ticket ||
                (member->ticket == caller->ticket && strcmp(member->memberName, caller->memberName) < 0);
   if (!ahead || (!member->exclusive && !caller->exclusive)) {
      return 0;
   }
   bool local = MachineIDMatch(caller->machineID, member->machineID);
   UniqueCStr path(Join(lockDir, fileName));
   bool forever = caller->msecMaxWait == FILELOCK_WAIT_FOREVER;
   for (;;) {
      uint64_t elapsed = NowMsec() - caller->startMsec;
      if (caller->msecMaxWait == 0 || (!forever && elapsed >= caller->msecMaxWait)) {
         break;
      }
      uint32_t d = PollMsec(elapsed);
      Sleeper(d / 2, d);
      int err = StillHeld(lockDir, fileName, *member);
      if (err != 0) {
         return err == ENOENT ? 0 : err;
      }
      if (local && !ValidExecutionID(member->executionID)) {
         Warning("FILE: %s discarding file '%s'; invalid executionID.\n", fn, path.get());
         return RemoveLockingFile(lockDir, fileName);
      }
   }
   if (local) {
      Log("FILE: %s timeout on '%s' due to a local process '%s'\n", fn, path.get(),
          member->executionID);
   } else {
      Log("FILE: %s timeout on '%s' due to another machine '%s'\n", fn, path.get(),
          member->machineID);
   }
   return kTimeoutErr;
}

// The paths of one attempt's D, E and M entries.
struct Entry {
   UniqueCStr marker;
   UniqueCStr writing;
   UniqueCStr member;
   UniqueCStr memberName;
};

/*
 * Step 1: makes the lock directory if needed and claims an entry number
 * whose marker we created and whose member does not exist. The lock
 * directory is examined without following a link: a link there is removed
 * like any other non-directory, never used.
 */
int CreateEntryDirectory(const char *lockDir, const LockValues *me, Entry *entry) {
   const char *fn = "FileLockCreateEntryDirectory";
   for (;;) {
      // A link is not a directory: followed, it would let whoever made it
      // choose where members are written and foreign names deleted.
      struct stat st;
      if (lstat(lockDir, &st) == 0) {
         if (!S_ISDIR(st.st_mode)) {
            if (unlink(lockDir) != 0) {
               int err = errno;
               Warning("FILE: %s: an attempt to remove '%s' failed: %s\n", fn, lockDir, Err_Errno2String(err));
               return err;
            }
            Warning("FILE: %s: '%s' is not a directory. Removed.\n", fn, lockDir);
            continue;
         }
      } else if (errno == ENOENT) {
         int err = MakeDirectory(lockDir);
         if (err != 0 && err != EEXIST) {
            return err;
         }
      } else {
         int err = errno;
         Warning("FILE: %s stat failure on '%s': %s\n", fn, lockDir, Err_Errno2String(err));
         return err;
      }

      uint32_t number = (SimpleRandom() >> 8) & 0xFFFF;
      UniqueCStr markerName(EntryName('D', number));
      UniqueCStr memberName(EntryName('M', number));
      UniqueCStr marker(Join(lockDir, markerName.get()));
      UniqueCStr member(Join(lockDir, memberName.get()));
      int err = MakeDirectory(marker.get());
      if (err == 0) {
         if (stat(member.get(), &st) != 0 && errno == ENOENT) {
            UniqueCStr writingName(EntryName('E', number));
            entry->writing.reset(Join(lockDir, writingName.get()));
            entry->marker = std::move(marker);
            entry->member = std::move(member);
            entry->memberName = std::move(memberName);
            return 0;
         }
         err = RemoveDirectory(marker.get());
         if (err != 0) {
            Warning("FILE: %s unable to remove '%s': %s\n", fn, marker.get(), Err_Errno2String(err));
            return err;
         }
      } else if (err != EEXIST && err != ENOENT) {
         Warning("FILE: %s creation failure on '%s': %s\n", fn, marker.get(), Err_Errno2String(err));
         return err;
      }
      if (NowMsec() - me->startMsec >= kProgressLimitMsec) {
         Warning("FILE: %s lack of progress on '%s'\n", fn, lockDir);
         return EBUSY;
      }
   }
}

// Step 3: the member record, written to E and published as M.
int CreateMemberFile(FileIODescriptor *handle, const Entry &entry, const LockValues *me) {
   const char *fn = "FileLockCreateMemberFile";
   const char *dash = strchr(me->executionID, '-');
   char buffer[kMemberSize] = {};
   Str_Sprintf(buffer, sizeof buffer, "%s %s %u %s %s lc=%s", me->machineID, me->executionID,
               me->ticket, me->lockType, dash != nullptr ? dash + 1 : "0", me->locationChecksum);
   size_t written = 0;
   uint32_t result = FileIO_Write(handle, buffer, sizeof buffer, &written);
   int err = errno;
   if (result != FILEIO_SUCCESS) {
      Warning("FILE: %s write of '%s' failed: %s\n", fn, entry.writing.get(), Err_Errno2String(err));
      FileIO_Close(handle);
      return err != 0 ? err : EIO;
   }
   if (written != sizeof buffer) {
      Warning("FILE: %s write length issue on '%s': %zd and %zd\n", fn, entry.writing.get(),
              static_cast<ssize_t>(written), static_cast<ssize_t>(sizeof buffer));
      FileIO_Close(handle);
      return EIO;
   }
   if (FileIO_Close(handle) != FILEIO_SUCCESS) {
      err = errno;
      Warning("FILE: %s close of '%s' failed: %s\n", fn, entry.writing.get(), Err_Errno2String(err));
      return err;
   }
   if (rename(entry.writing.get(), entry.member.get()) != 0) {
      err = errno;
      Warning("FILE: %s FileRename of '%s' to '%s' failed: %s\n", fn, entry.writing.get(),
              entry.member.get(), Err_Errno2String(err));
      return err;
   }
   return 0;
}

FileLockToken *NewToken(const char *path, char *memberPath) {
   auto *token = static_cast<FileLockToken *>(Util_SafeCalloc(1, sizeof(FileLockToken)));
   token->signature = kTokenSignature;
   token->portable = true;
   token->pathName = Util_SafeStrdup(path);
   token->memberPath = memberPath;
   return token;
}

}  // namespace

void FreeValues(LockValues *values) {
   ErrnoSaver keep;
   free(values->machineID);
   free(values->executionID);
   free(values->locationChecksum);
   free(values->memberName);
   *values = LockValues();
}

FileLockToken *LockIntrinsic(const char *path, bool exclusive, uint32_t msecMaxWait, int *err) {
   const char *fn = "FileLockIntrinsicPortable";
   UniqueCStr lockDir(Str_SafeAsprintf(nullptr, "%s.lck", path));
   LockValues me;
   me.startMsec = NowMsec();
   me.exclusive = exclusive;
   me.lockType = exclusive ? "X" : "S";
   me.msecMaxWait = msecMaxWait;
   me.machineID = Util_SafeStrdup(GetMachineID());
   me.executionID = GetExecutionID();
   if (me.executionID == nullptr) {
      // Without a start time the member is still judged by its process id.
      me.executionID = Str_SafeAsprintf(nullptr, "%d-0", static_cast<int>(getpid()));
   }
   me.locationChecksum = Str_SafeAsprintf(nullptr, "%u", LocationChecksum(lockDir.get()));

   Entry entry;
   int res = CreateEntryDirectory(lockDir.get(), &me, &entry);
   if (res != 0) {
      FreeValues(&me);
      if ((res == EROFS || res == EACCES) && !exclusive) {
         Warning("FILE: %s implicit %s lock succeeded on '%s'.\n", fn, "S", path);
         *err = 0;
         return NewToken(path, &gImplicitReadLock);
      }
      *err = res;
      return nullptr;
   }

   FileIODescriptor handle;
   FileIO_Invalidate(&handle);
   if (FileIO_Create(&handle, entry.writing.get(), FILEIO_ACCESS_WRITE | FILEIO_ACCESS_NOFOLLOW,
                     FILEIO_ACTION_CREATE, 0644) != FILEIO_SUCCESS) {
      res = errno;
      RemoveDirectory(entry.marker.get());
      RemoveDirectory(lockDir.get());
      FreeValues(&me);
      *err = res;
      return nullptr;
   }

   res = Scanner(lockDir.get(), NumberCallback, &me, false);
   if (res != 0) {
      FileIO_Close(&handle);
      unlink(entry.writing.get());
      RemoveDirectory(entry.marker.get());
      FreeValues(&me);
      *err = res;
      return nullptr;
   }
   me.ticket++;

   res = CreateMemberFile(&handle, entry, &me);
   if (res != 0) {
      ErrnoSaver keep;
      unlink(entry.writing.get());
      unlink(entry.member.get());
      RemoveDirectory(entry.marker.get());
      RemoveDirectory(lockDir.get());
      FreeValues(&me);
      *err = res;
      return nullptr;
   }

   me.memberName = entry.memberName.release();
   RemoveDirectory(entry.marker.get());
   res = Scanner(lockDir.get(), WaitForPossession, &me, true);
   FreeValues(&me);
   if (res != 0) {
      ErrnoSaver keep;
      unlink(entry.member.get());
      RemoveDirectory(lockDir.get());
      *err = res == kTimeoutErr ? 0 : res;
      return nullptr;
   }
   *err = 0;
   return NewToken(path, entry.member.release());
}

int UnlockIntrinsic(FileLockToken *token) {
   if (token == nullptr || token->signature != kTokenSignature) {
      return EINVAL;  // not a token, or one already released
   }
   int err = 0;
   if (token->memberPath != &gImplicitReadLock) {
      err = unlink(token->memberPath) == 0 ? 0 : errno;
      UniqueCStr lockDir(Str_SafeAsprintf(nullptr, "%s.lck", token->pathName));
      rmdir(lockDir.get());  // only succeeds once the directory is empty
      free(token->memberPath);
   }
   ErrnoSaver keep;
   token->signature = 0;
   free(token->pathName);
   free(token);
   return err;
}

bool IsLockedIntrinsic(const char *path, int *err) {
   UniqueCStr lockDir(Str_SafeAsprintf(nullptr, "%s.lck", path));
   size_t count = 0;
   char **names = ListNames(lockDir.get(), &count);
   if (names == nullptr) {
      *err = errno == ENOENT ? 0 : errno;
      return false;
   }
   bool locked = false;
   for (size_t i = 0; i < count && !locked; i++) {
      locked = names[i][0] == 'M';
   }
   FreeNames(names, count);
   *err = 0;
   return locked;
}

}  // namespace halcyx::filelock
