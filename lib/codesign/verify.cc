// SPDX-License-Identifier: MIT
/*
 * Verification of signed code, and bundle identifiers.
 *
 * The code is opened once, without following a link, and every later step
 * (signature objects, content hash, the bundle's files) reads through that
 * descriptor, so whatever is renamed over the path meanwhile is never
 * looked at. A caller that copies or runs from the descriptor afterwards
 * uses the checked bytes only while nobody else can write them, which
 * codesignVerifyFdRootOnly establishes.
 *
 * Result codes of codesignVerify: 1 the path is not UTF-8, 2 it is empty or
 * too long, 3 the code cannot be opened (or is neither a regular file nor a
 * bundle), 5 the requirement cannot be formed for the identifier, 6 it does
 * not parse, 7 the signature is missing or fails, or the chain or the
 * requirement does.
 */
#include "codesign.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "codesignInt.h"
#include "internal/unique.h"
#include "log.h"

namespace halcyx::codesign {

namespace {

enum VerifyCode {
   kPathNotUtf8 = 1,
   kPathUnusable = 2,
   kUnopenable = 3,
   kRequirementFormat = 5,
   kRequirementParse = 6,
   kInvalid = 7,
};

bool ReadXattr(int fd, const char *name, size_t cap, std::string *out) {
   std::string buf(cap + 1, '\0');
   ssize_t n = fgetxattr(fd, name, buf.data(), buf.size());
   if (n <= 0 || static_cast<size_t>(n) > cap) {
      return false;
   }
   buf.resize(static_cast<size_t>(n));
   *out = std::move(buf);
   return true;
}

bool PathIsUtf8(const char *path) { return path && IsUtf8(path); }

// A trailing slash would make open follow a final symbolic link even with
// O_NOFOLLOW, so it is dropped before every open of a caller's path.
std::string WithoutTrailingSlashes(const char *path) {
   std::string p(path);
   while (p.size() > 1 && p.back() == '/') {
      p.pop_back();
   }
   return p;
}

}  // namespace

int OpenCode(const char *path) {
   const std::string trimmed = WithoutTrailingSlashes(path);
   UniqueFd fd(open(trimmed.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   struct stat st;
   if (!fd || fstat(fd.get(), &st) != 0) {
      return -1;
   }
   if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
      errno = EINVAL;
      return -1;
   }
   // With its trailing slash the path names a directory, as open would insist.
   if (trimmed.size() != strlen(path) && !S_ISDIR(st.st_mode)) {
      errno = ENOTDIR;
      return -1;
   }
   // O_NONBLOCK only kept a FIFO from stalling the open; callers that go on
   // reading the file expect ordinary reads.
   int fl = fcntl(fd.get(), F_GETFL);
   if (fl < 0 || fcntl(fd.get(), F_SETFL, fl & ~O_NONBLOCK) != 0) {
      return -1;
   }
   return fd.release();
}

ReadStatus ReadSignatureObjects(int fd, SignatureObjects *out) {
   struct stat st;
   if (fd < 0 || fstat(fd, &st) != 0) {
      return ReadStatus::Unopenable;
   }
   SignatureObjects objs;
   if (S_ISREG(st.st_mode)) {
      objs.kind = CodeKind::File;
      if (!ReadXattr(fd, kCodeDirectoryXattr, kMaxCodeDirectory, &objs.codeDirectory) ||
          !ReadXattr(fd, kCodeSignatureXattr, kMaxSignature, &objs.signature)) {
         return ReadStatus::Unsigned;
      }
   } else if (S_ISDIR(st.st_mode)) {
      objs.kind = CodeKind::Bundle;
      if (!ReadFileAt(fd, kInfoPlist, kMaxInfoPlist, &objs.infoPlist)) {
         return ReadStatus::Unopenable;
      }
      const std::string dir = std::string(kSignatureDir) + "/";
      if (!ReadFileAt(fd, (dir + "CodeDirectory").c_str(), kMaxCodeDirectory,
                      &objs.codeDirectory) ||
          !ReadFileAt(fd, (dir + "CodeSignature").c_str(), kMaxSignature, &objs.signature) ||
          !ReadFileAt(fd, (dir + "CodeResources").c_str(), kMaxCodeResources, &objs.resources)) {
         return ReadStatus::Unsigned;
      }
   } else {
      return ReadStatus::Unopenable;
   }
   *out = std::move(objs);
   return ReadStatus::Ok;
}

bool ParseInfoPlist(std::string_view data, UniquePlist *out) {
   if (data.empty() || data.size() > kMaxInfoPlist) {
      return false;
   }
   plist_t raw = nullptr;
   plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &raw);
   UniquePlist info(raw);
   if (!PLIST_IS_DICT(raw)) {
      return false;
   }
   *out = std::move(info);
   return true;
}

bool CheckSignature(int fd, const SignatureObjects &objs, const TrustPolicy &policy,
                    Evidence *out, std::string *reason) {
   Evidence ev;
   if (!ParseCodeDirectory(objs.codeDirectory, &ev.cd) || ev.cd.kind != objs.kind) {
      *reason = "the code directory is malformed";
      return false;
   }
   // The size costs one fstat; the content hash reads the whole file.
   struct stat st;
   if (objs.kind == CodeKind::File &&
       (fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) != ev.cd.contentSize)) {
      *reason = "the content does not match its code directory";
      return false;
   }
   if (!CheckCms(objs.codeDirectory, objs.signature, policy, &ev, reason)) {
      return false;
   }
   if (objs.kind == CodeKind::File) {
      Digest hash;
      uint64_t size = 0;
      if (!HashFd(fd, &hash, &size, ev.cd.contentSize) || size != ev.cd.contentSize ||
          hash != ev.cd.contentHash) {
         *reason = "the content does not match its code directory";
         return false;
      }
   } else {
      Seal seal;
      if (Sha256(objs.infoPlist.data(), objs.infoPlist.size()) != ev.cd.infoPlistHash ||
          Sha256(objs.resources.data(), objs.resources.size()) != ev.cd.resourcesHash ||
          !ParseInfoPlist(objs.infoPlist, &ev.info)) {
         *reason = "the bundle's Info.plist or seal does not match its code directory";
         return false;
      }
      if (!ParseCodeResources(objs.resources, &seal)) {
         *reason = "the bundle's seal is malformed";
         return false;
      }
      std::string difference;
      if (!CheckSeal(fd, seal, &difference)) {
         *reason = "the bundle's files do not match its seal: " + difference;
         return false;
      }
   }
   *out = std::move(ev);
   return true;
}

// Code that can be opened but carries no signature is still code: its
// check fails (7) after the requirement has been formed, as for any other
// invalid signature. Only code that cannot be opened at all fails with 3.
int VerifyFdWithPolicy(int fd, const char *identifier, const TrustPolicy &policy,
                       bool rootOnly) {
   SignatureObjects objs;
   ReadStatus status = ReadSignatureObjects(fd, &objs);
   if (status == ReadStatus::Unopenable) {
      return kUnopenable;
   }
   std::string text;
   if (!FormatProductRequirement(identifier, &text)) {
      return kRequirementFormat;
   }
   Requirement req;
   std::string error;
   if (!ParseRequirement(text, &req, &error)) {
      return kRequirementParse;
   }
   Evidence ev;
   if (status != ReadStatus::Ok || (rootOnly && !OnlyRootCanChange(fd)) ||
       !CheckSignature(fd, objs, policy, &ev, &error) || !EvaluateRequirement(req, ev)) {
      return kInvalid;
   }
   return 0;
}

// Out of memory inside the C++ containers is a failure of the signature
// check, never an exception crossing the C interface.
template <typename F> int NoThrow(F &&verify) {
   try {
      return verify();
   } catch (...) {
      return kInvalid;
   }
}

int VerifyPathWithPolicy(const char *path, const char *identifier, const TrustPolicy &policy) {
   if (!PathIsUtf8(path)) {
      return kPathNotUtf8;
   }
   if (path[0] == '\0' || strlen(path) >= PATH_MAX) {
      return kPathUnusable;
   }
   UniqueFd fd(OpenCode(path));
   return fd ? VerifyFdWithPolicy(fd.get(), identifier, policy) : kUnopenable;
}

}  // namespace halcyx::codesign

using namespace halcyx::codesign;

bool
codesignVerify(const char *path, const char *identifier)
{
   int code = NoThrow([&] { return VerifyPathWithPolicy(path, identifier, BuildTrustPolicy()); });
   if (code != 0) {
      Log("PrivilegedHelper: Failed to verify the code signature of %s due to %d", path, code);
   }
   return code == 0;
}

static bool
VerifyFdAndLog(int fd, const char *path, const char *identifier, bool rootOnly)
{
   int code = NoThrow(
      [&] { return VerifyFdWithPolicy(fd, identifier, BuildTrustPolicy(), rootOnly); });
   if (code != 0) {
      Log("PrivilegedHelper: Failed to verify the code signature of %s due to %d", path, code);
   }
   return code == 0;
}

bool
codesignVerifyFd(int fd, const char *path, const char *identifier)
{
   return VerifyFdAndLog(fd, path, identifier, false);
}

bool
codesignVerifyFdRootOnly(int fd, const char *path, const char *identifier)
{
   return VerifyFdAndLog(fd, path, identifier, true);
}

char *
getBundleIdentifier(const char *path)
{
   int code = 0;
   UniquePlist info;
   if (!PathIsUtf8(path)) {
      code = 1;
   } else if (path[0] == '\0' || strlen(path) >= PATH_MAX) {
      code = 2;
   } else {
      code = NoThrow([&] {
         halcyx::UniqueFd dir(open(WithoutTrailingSlashes(path).c_str(),
                                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
         std::string data;
         if (!dir) {
            return 3;
         }
         return ReadFileAt(dir.get(), kInfoPlist, kMaxInfoPlist, &data) &&
                      ParseInfoPlist(data, &info)
                   ? 0
                   : 4;
      });
      code = code == kInvalid ? 4 : code;
   }
   plist_t id = info ? plist_dict_get_item(static_cast<plist_t>(info.get()), "CFBundleIdentifier")
                     : nullptr;
   if (code == 0 && !PLIST_IS_STRING(id)) {
      code = 4;
   }
   if (code != 0) {
      Log("CoreFoundationUtils: Failed to get bundle identifier for %s due to (%d).\n", path, code);
      return nullptr;
   }
   uint64_t len = 0;
   const char *s = plist_get_string_ptr(id, &len);
   char *copy = nullptr;
   if (s && strlen(s) == len && IsUtf8(std::string_view(s, len))) {
      copy = strdup(s);
   }
   if (!copy) {
      Log("Failed to get C string from CFString.\n");
   }
   return copy;
}
