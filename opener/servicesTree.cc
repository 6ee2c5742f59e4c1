// SPDX-License-Identifier: MIT
/*
 * Services tree preparation: the prepare-daemon callback that rebuilds the
 * daemon's installation under the host directory from the product bundle
 * before every daemon start, and records the bundle's root in the product
 * file.
 *
 * Invariants of this privileged module:
 * - Root only inside one RootBracket per call, lowered exactly once on every
 *   exit.
 * - Nothing is deleted or created unless every existing directory from "/"
 *   down to the host directory and to the product file's parent is owned by
 *   root and closed to others (a sticky directory such as /tmp is allowed
 *   above an existing directory). The tree then lies in directories that
 *   nobody but root can change, so the paths used below keep naming what
 *   was checked and built.
 * - A component is verified, opened once without following links, and
 *   copied from that same descriptor; its root-owned copy is verified again
 *   inside the tree. Rewriting the bundle's file during the copy therefore
 *   leaves a copy that fails the second check, and renaming another file
 *   into its place after the first check changes nothing that is copied.
 * - No message of its own but the ancestor warning: the routines it calls
 *   report their failures, the rendezvous reports the outcome.
 */
#include "servicesTree.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "codesign.h"
#include "file.h"
#include "internal/unique.h"
#include "location.h"
#include "log.h"
#include "rootBracket.h"
#include "serviceImpl.h"
#include "str.h"
#include "testSeams.h"

using halcyx::ErrnoSaver;
using halcyx::UniqueCStr;
using halcyx::UniqueFd;

using halcyx::RootBracket;

namespace {

struct ComponentRow {
   const char *key;         // Location key: source in the bundle, destination in the tree
   const char *identifier;  // signing identifier the component must carry
   uint32_t mode;           // applied to single files
};

// Copied in this order; a failure stops at its row.
constexpr ComponentRow kComponents[] = {
   {"idFile", "zorvex-id", 0755},
   {"zxnetBridgeFile", "zxnet-bridge", 0755},
   {"zxnetCfgCliFile", "zxnet-cfgcli", 0755},
   {"zxnetCliFile", "zxnet-cli", 0755},
   {"zxnetDhcpdFile", "zxnet-dhcpd", 0755},
   {"zxnetNatFile", "zxnet-natd", 0755},
   {"zxnetNetifupFile", "zxnet-netifup", 0755},
   {"zxnetSinfferFile", "zxnet-sniffer", 0755},
   {"usbarbFile", "zorvex-usbarbitrator", 0755},
   {"productInfo", "productInfo", 0644},
   {"serviceDaemonFile", "Zorvex Halcyx Services", 0755},
   {"serviceScriptFile", "services", 0755},
   {"usbarbOpenerFile", "Open Zorvex USB Arbitrator Service", 0755},
   {"usbarbDaemonFile", "Zorvex USB Arbitrator Service", 0755},
   {"usbarbScriptFile", "usbarbService", 0755},
   {"cdsHelperFile", LOCATION_CDS_HELPER_ID, 0755},
   {"cdsHelperPlistFile", LOCATION_CDS_HELPER_ID, 0644},
   {"diskHelperFile", LOCATION_DISK_HELPER_ID, 0755},
   {"diskHelperPlistFile", LOCATION_DISK_HELPER_ID, 0644},
   {"idHelperFile", LOCATION_ID_HELPER_ID, 0755},
   {"idHelperPlistFile", LOCATION_ID_HELPER_ID, 0644},
   {"mountHelperFile", LOCATION_MOUNT_HELPER_ID, 0755},
   {"mountHelperPlistFile", LOCATION_MOUNT_HELPER_ID, 0644},
   {"pngLibFile", "libpng16", 0644},
   {"sslLibFile", "libssl.3", 0644},
   {"cryptoLibFile", "libcrypto.3", 0644},
   {"zorvexbaseLibFile", "libzorvexbase", 0644},
   {"netcfgLibFile", "libnetcfg", 0644},
   {nullptr, nullptr, 0},
};
static_assert(std::size(kComponents) == 28 + 1);

constexpr char kTag[] = "ServiceImplPrepareDaemon";

bool WritableByOthers(const struct stat &st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

/*
 * True when every existing directory on the absolute path, from "/", is a
 * real directory owned by root and not writable by group or others. A
 * sticky directory writable by others (/tmp) may stand above a directory
 * that exists and is checked in turn, never above a missing name or a file
 * that we would create or replace, nor at the end, where we create. The
 * walk holds each directory by descriptor and never follows a link.
 */
bool ServicesTreeAncestorsSafe(const char *path) {
   if (path[0] != '/') {
      return false;
   }
   UniqueFd dir(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
   struct stat st;
   if (!dir || fstat(dir.get(), &st) != 0 || st.st_uid != 0) {
      return false;
   }
   std::string rest = path;
   size_t at = 0;
   for (;;) {
      if (WritableByOthers(st) && (st.st_mode & S_ISVTX) == 0) {
         return false;
      }
      while (at < rest.size() && rest[at] == '/') {
         at++;
      }
      if (at >= rest.size()) {
         return !WritableByOthers(st);
      }
      size_t end = rest.find('/', at);
      std::string name = rest.substr(at, end == std::string::npos ? end : end - at);
      at = end == std::string::npos ? rest.size() : end;
      if (name == "..") {
         return false;
      }
      if (name == ".") {
         continue;
      }
      int fd = openat(dir.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
      if (fd < 0) {
         // Missing, or a file to be replaced: fine unless others could
         // plant their own in its place.
         struct stat entry;
         bool absent = errno == ENOENT;
         bool file = !absent && fstatat(dir.get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
                     !S_ISLNK(entry.st_mode) && !S_ISDIR(entry.st_mode);
         return (absent || file) && !WritableByOthers(st);
      }
      dir.reset(fd);
      if (fstat(dir.get(), &st) != 0 || st.st_uid != 0) {
         return false;
      }
   }
}

// Copies every extended attribute of src to dst.
bool CopyXattrs(int src, int dst) {
   std::string names;
   for (;;) {
      ssize_t size = flistxattr(src, nullptr, 0);
      if (size < 0) {
         return false;
      }
      names.resize(static_cast<size_t>(size));
      size = flistxattr(src, names.data(), names.size());
      if (size >= 0) {
         names.resize(static_cast<size_t>(size));
         break;
      }
      if (errno != ERANGE) {
         return false;
      }
   }
   std::string value;
   for (size_t at = 0; at < names.size(); at += strlen(names.c_str() + at) + 1) {
      const char *name = names.c_str() + at;
      ssize_t size;
      for (;;) {
         size = fgetxattr(src, name, nullptr, 0);
         if (size < 0) {
            return false;
         }
         value.resize(static_cast<size_t>(size));
         size = fgetxattr(src, name, value.data(), value.size());
         if (size >= 0 || errno != ERANGE) {
            break;
         }
      }
      if (size < 0 || fsetxattr(dst, name, value.data(), static_cast<size_t>(size), 0) != 0) {
         return false;
      }
   }
   return true;
}

// The data of src into dst from offset 0, then dst cut to that length.
bool CopyData(int src, int dst) {
   off_t in = 0;
   off_t out = 0;
   bool ranged = true;
   char buffer[1 << 16];
   for (;;) {
      ssize_t n;
      if (ranged) {
         n = copy_file_range(src, &in, dst, &out, size_t{1} << 30, 0);
         if (n < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                       errno == EOPNOTSUPP)) {
            ranged = false;
            continue;
         }
      } else {
         n = pread(src, buffer, sizeof buffer, in);
         for (ssize_t done = 0; n > 0 && done < n;) {
            ssize_t w = pwrite(dst, buffer + done, static_cast<size_t>(n - done), out);
            if (w < 0 && errno != EINTR) {
               return false;
            }
            done += w > 0 ? w : 0;
            out += w > 0 ? w : 0;
         }
         in += n > 0 ? n : 0;
      }
      if (n == 0) {
         return ftruncate(dst, out) == 0;
      }
      if (n < 0 && errno != EINTR) {
         return false;
      }
   }
}

/*
 * copyAsRoot from an open regular file: data, extended attributes and
 * times, then owner 0:0 and mode. The destination is created 0600 (nobody
 * else reads it half-written) and is never a link or a special file.
 */
int CopyAsRootFd(int src, const char *destination, uint32_t mode) {
   struct stat st;
   if (fstat(src, &st) != 0) {
      return 1;
   }
   if (!S_ISREG(st.st_mode)) {
      errno = EINVAL;
      return 1;
   }
   UniqueFd dst(open(destination, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
   struct stat dstStat;
   if (!dst || fstat(dst.get(), &dstStat) != 0) {
      return 1;
   }
   if (!S_ISREG(dstStat.st_mode)) {
      errno = EINVAL;
      return 1;
   }
   const struct timespec times[2] = {st.st_atim, st.st_mtim};
   bool ok = CopyData(src, dst.get()) && CopyXattrs(src, dst.get()) &&
             futimens(dst.get(), times) == 0 && fchown(dst.get(), 0, 0) == 0 &&
             fchmod(dst.get(), static_cast<mode_t>(mode)) == 0;
   return ok ? 0 : 1;
}

// The identifier the row's component must carry: the bundle's own for the
// two components listed by bundle name.
char *ComponentIdentifier(const ComponentRow &row, const char *source) {
   if (strcmp(row.identifier, "zxioplug") == 0 || strcmp(row.identifier, "zxnet") == 0) {
      return getBundleIdentifier(source);
   }
   return strdup(row.identifier);
}

// Verifies the row's component in the bundle, copies it into the tree and
// verifies the copy.
bool CopyComponent(const ComponentRow &row, int index, const char *services) {
   UniqueCStr source(Location_Get(row.key));
   const char *subPath = Location_GetSubPath(row.key);
   if (!source || subPath == nullptr) {
      return false;
   }
   UniqueCStr destination(Str_Asprintf(nullptr, "%s%s", services, subPath));
   UniqueCStr identifier(destination ? ComponentIdentifier(row, source.get()) : nullptr);
   if (!identifier) {
      return false;
   }
   UniqueFd code(open(source.get(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
   if (!code) {
      // The verifier names the reason (missing, a link, unreadable).
      codesignVerify(source.get(), identifier.get());
      return false;
   }
   struct stat st;
   if (!codesignVerifyFd(code.get(), source.get(), identifier.get()) ||
       fstat(code.get(), &st) != 0) {
      return false;
   }
   HALCYX_TEST_PAUSE_AT("verified", index);
   if (S_ISDIR(st.st_mode)) {
      if (!File_EnsureDirectoryEx(destination.get(), 0755) ||
          !File_CopyTree(source.get(), destination.get(), true, false)) {
         return false;
      }
   } else if (CopyAsRootFd(code.get(), destination.get(), row.mode) != 0) {
      return false;
   }
   HALCYX_TEST_PAUSE_AT("copied", index);
   return codesignVerify(destination.get(), identifier.get());
}

/*
 * Writes root into the product file through a read-only temporary sibling
 * moved over it, so readers see the old record or the whole new one. A
 * plain file where the parent directory belongs is replaced by one.
 */
bool RecordRoot(const char *root, const char *productFile, const char *parent) {
   UniqueCStr temporary(Str_Asprintf(nullptr, "%s.tmp", productFile));
   if (!temporary) {
      return false;
   }
   if (File_Exists(parent) && !File_IsDirectory(parent) && File_Unlink(parent) != 0) {
      return false;
   }
   if (!File_IsDirectory(parent) && !File_CreateDirectoryHierarchyEx(parent, 0755, nullptr)) {
      return false;
   }
   // A leftover is removed as it stands: a link goes, never what it names
   // (File_UnlinkIfExists would delete the link's target, as root). The
   // record is then created afresh, never through a link.
   if (File_UnlinkNoFollow(temporary.get()) != 0 && errno != ENOENT) {
      return false;
   }
   int fd = open(temporary.get(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
   FILE *record = fd < 0 ? nullptr : fdopen(fd, "w+");
   if (record == nullptr) {
      if (fd >= 0) {
         ErrnoSaver keep;
         close(fd);
      }
      return false;
   }
   int written = fprintf(record, "%s", root);
   bool ok = written >= 0 && static_cast<size_t>(written) == strlen(root);
   if (fclose(record) != 0) {
      ok = false;
   }
   return ok && File_SetFilePermissions(temporary.get(), 0444) &&
          File_Move(temporary.get(), productFile, nullptr);
}

// The fixed directories of the tree. Frameworks is made even when the
// Library branch failed; the result says whether all of them exist.
bool MakeTreeDirectories(const std::string &services) {
   const std::string contents = services + "/Contents";
   if (!File_EnsureDirectoryEx(services.c_str(), 0755) ||
       !File_EnsureDirectoryEx(contents.c_str(), 0755)) {
      return false;
   }
   const std::string library = contents + "/Library";
   bool ok = File_EnsureDirectoryEx(library.c_str(), 0755) &&
             File_EnsureDirectoryEx((library + "/LaunchServices").c_str(), 0755) &&
             File_EnsureDirectoryEx((library + "/services").c_str(), 0755);
   bool frameworks = File_EnsureDirectoryEx((contents + "/Frameworks").c_str(), 0755);
   return ok && frameworks;
}

}  // namespace

extern "C" {

bool ServiceImplPrepareDaemon(void) {
   UniqueCStr services(Str_Asprintf(nullptr, "%s/Services", Location_GetHostDir()));
   RootBracket root;
   if (!services) {
      return false;
   }
   const char *productFile = Location_GetProductFile();
   UniqueCStr productParent;
   if (productFile != nullptr) {
      char *parent = strdup(productFile);
      if (parent == nullptr) {
         return false;
      }
      File_GetParent(&parent);
      productParent.reset(parent);
   }
   const char *checked[] = {Location_GetHostDir(), productParent.get()};
   for (const char *dir : checked) {
      if (dir != nullptr && !ServicesTreeAncestorsSafe(dir)) {
         Warning("%s: %s or a directory above it is not owned by root and closed to others; "
                 "the Services tree is left as it is.\n",
                 kTag, dir);
         return false;
      }
   }

   if (!File_DeleteDirectoryTree(services.get())) {
      return false;
   }
   HALCYX_TEST_PAUSE("tree-deleted");
   UniqueCStr rootDir(Location_Get("rootDir"));
   if (!rootDir || productFile == nullptr ||
       !RecordRoot(rootDir.get(), productFile, productParent.get())) {
      return false;
   }
   HALCYX_TEST_PAUSE("root-recorded");
   if (!MakeTreeDirectories(services.get())) {
      return false;
   }
   for (const ComponentRow *row = kComponents; row->key != nullptr; row++) {
      if (!CopyComponent(*row, static_cast<int>(row - kComponents), services.get())) {
         return false;
      }
   }
   return true;
}

int copyAsRoot(const char *source, const char *destination, uint32_t mode) {
   UniqueFd src(open(source, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
   return src ? CopyAsRootFd(src.get(), destination, mode) : 1;
}

int ownerIsRoot(const char *path) {
   struct stat st;
   return stat(path, &st) == 0 && st.st_uid == 0 && st.st_gid == 0 ? 0 : 1;
}

}  // extern "C"
