// SPDX-License-Identifier: MIT
/*
 * Signing, removing and moving signatures (for the signing tool and tests).
 *
 * A file's two attributes are written code directory first; if the second
 * cannot be written the first is removed again, so a file is never left
 * with half a signature. A bundle's signature objects are each written to a
 * temporary name and renamed into place.
 */
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "codesignInt.h"
#include "internal/unique.h"

namespace halcyx::codesign {

namespace {

constexpr size_t kMaxDetached = 64 * 1024;
constexpr const char *kSignatureFiles[] = {"CodeResources", "CodeDirectory", "CodeSignature"};

bool Fail(std::string *error, const std::string &what) {
   *error = what;
   return false;
}

bool SetFileSignature(int fd, const std::string &cd, const std::string &sig, std::string *error) {
   if (cd.size() + sig.size() + sizeof kCodeDirectoryXattr + sizeof kCodeSignatureXattr >
       kMaxXattrPayload) {
      return Fail(error, "the signature is too large for extended attributes");
   }
   if (fsetxattr(fd, kCodeDirectoryXattr, cd.data(), cd.size(), 0) != 0) {
      return Fail(error, std::string("cannot write the code directory: ") + strerror(errno));
   }
   if (fsetxattr(fd, kCodeSignatureXattr, sig.data(), sig.size(), 0) != 0) {
      std::string why = strerror(errno);
      fremovexattr(fd, kCodeDirectoryXattr);
      return Fail(error, "cannot write the signature: " + why);
   }
   return true;
}

bool WriteFileAt(int dirFd, const char *name, const std::string &data) {
   std::string tmp = std::string(".") + name + ".tmp";
   UniqueFd fd(openat(dirFd, tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                      0644));
   size_t done = 0;
   while (fd && done < data.size()) {
      ssize_t n = write(fd.get(), data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         break;
      }
      done += static_cast<size_t>(n);
   }
   if (!fd || done != data.size() || renameat(dirFd, tmp.c_str(), dirFd, name) != 0) {
      ErrnoSaver keep;
      unlinkat(dirFd, tmp.c_str(), 0);
      return false;
   }
   return true;
}

bool SignBundle(int fd, const char *identifier, const Identity &id, std::string *error) {
   CodeDirectory cd;
   cd.kind = CodeKind::Bundle;
   cd.identifier = identifier;
   std::string info;
   if (!ReadFileAt(fd, kInfoPlist, kMaxInfoPlist, &info)) {
      return Fail(error, "the bundle has no readable Contents/Info.plist");
   }
   if (mkdirat(fd, kSignatureDir, 0755) != 0 && errno != EEXIST) {
      return Fail(error, std::string("cannot create the signature directory: ") + strerror(errno));
   }
   UniqueFd sigDir(OpenAtNoFollow(fd, kSignatureDir, O_RDONLY | O_DIRECTORY));
   Seal seal;
   if (!sigDir) {
      return Fail(error, "the signature directory is not a directory");
   }
   std::string problem;
   if (!CollectSeal(fd, &seal, &problem)) {
      return Fail(error, "cannot seal the bundle: " + problem);
   }
   std::string resources = FormatCodeResources(seal);
   Seal readBack;
   if (!ParseCodeResources(resources, &readBack)) {
      return Fail(error, "the bundle holds a name that its seal cannot carry");
   }
   cd.infoPlistHash = Sha256(info.data(), info.size());
   cd.resourcesHash = Sha256(resources.data(), resources.size());
   std::string text = FormatCodeDirectory(cd), sig;
   if (!SignData(id, text, &sig, error)) {
      return false;
   }
   const std::string *contents[] = {&resources, &text, &sig};
   for (size_t i = 0; i < 3; i++) {
      if (!WriteFileAt(sigDir.get(), kSignatureFiles[i], *contents[i])) {
         return Fail(error, std::string("cannot write ") + kSignatureFiles[i] + ": " +
                                strerror(errno));
      }
   }
   return true;
}

}  // namespace

bool SignCode(int fd, const char *identifier, const Identity &id, std::string *error) {
   struct stat st;
   if (!identifier || !IdentifierIsValid(identifier)) {
      return Fail(error, "the identifier must be UTF-8 text without control characters");
   }
   if (fstat(fd, &st) != 0 || (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))) {
      return Fail(error, "only regular files and bundles can be signed");
   }
   if (S_ISDIR(st.st_mode)) {
      return SignBundle(fd, identifier, id, error);
   }
   CodeDirectory cd;
   cd.identifier = identifier;
   if (!HashFd(fd, &cd.contentHash, &cd.contentSize)) {
      return Fail(error, std::string("cannot read the file: ") + strerror(errno));
   }
   std::string text = FormatCodeDirectory(cd), sig;
   return SignData(id, text, &sig, error) && SetFileSignature(fd, text, sig, error);
}

bool RemoveSignature(int fd, std::string *error) {
   struct stat st;
   if (fstat(fd, &st) != 0) {
      return Fail(error, strerror(errno));
   }
   if (S_ISREG(st.st_mode)) {
      for (const char *name : {kCodeDirectoryXattr, kCodeSignatureXattr}) {
         if (fremovexattr(fd, name) != 0 && errno != ENODATA) {
            return Fail(error, std::string("cannot remove the signature: ") + strerror(errno));
         }
      }
      return true;
   }
   UniqueFd sigDir(S_ISDIR(st.st_mode) ? OpenAtNoFollow(fd, kSignatureDir, O_RDONLY | O_DIRECTORY)
                                       : -1);
   if (!sigDir) {
      return S_ISDIR(st.st_mode) && errno == ENOENT ? true : Fail(error, "not signed code");
   }
   for (const char *name : kSignatureFiles) {
      if (unlinkat(sigDir.get(), name, 0) != 0 && errno != ENOENT) {
         return Fail(error, std::string("cannot remove ") + name + ": " + strerror(errno));
      }
   }
   unlinkat(fd, kSignatureDir, AT_REMOVEDIR);  // left when something else is in it
   return true;
}

bool ExportDetached(int fd, std::string *plistXml, std::string *error) {
   SignatureObjects objs;
   if (ReadSignatureObjects(fd, &objs) != ReadStatus::Ok || objs.kind != CodeKind::File) {
      return Fail(error, "not a signed file (bundles carry their signature inside)");
   }
   UniquePlist root(plist_new_dict());
   plist_dict_set_item(root.get(), "CodeDirectory",
                       plist_new_data(objs.codeDirectory.data(), objs.codeDirectory.size()));
   plist_dict_set_item(root.get(), "CodeSignature",
                       plist_new_data(objs.signature.data(), objs.signature.size()));
   char *xml = nullptr;
   uint32_t len = 0;
   plist_to_xml(root.get(), &xml, &len);
   if (!xml) {
      return Fail(error, "out of memory");
   }
   plistXml->assign(xml, len);
   plist_to_xml_free(xml);
   return true;
}

bool AttachDetached(int fd, std::string_view data, std::string *error) {
   struct stat st;
   if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      return Fail(error, "a detached signature attaches to a regular file only");
   }
   plist_t raw = nullptr;
   if (!data.empty() && data.size() <= kMaxDetached) {
      plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &raw);
   }
   UniquePlist root(raw);
   plist_t cdNode = PLIST_IS_DICT(raw) ? plist_dict_get_item(raw, "CodeDirectory") : nullptr;
   plist_t sigNode = PLIST_IS_DICT(raw) ? plist_dict_get_item(raw, "CodeSignature") : nullptr;
   if (!PLIST_IS_DICT(raw) || plist_dict_get_size(raw) != 2 || !PLIST_IS_DATA(cdNode) ||
       !PLIST_IS_DATA(sigNode)) {
      return Fail(error, "not a detached signature");
   }
   uint64_t cdLen = 0, sigLen = 0;
   const char *cdBytes = plist_get_data_ptr(cdNode, &cdLen);
   const char *sigBytes = plist_get_data_ptr(sigNode, &sigLen);
   CodeDirectory cd;
   std::string text(cdBytes ? cdBytes : "", cdBytes ? cdLen : 0);
   if (!ParseCodeDirectory(text, &cd) || cd.kind != CodeKind::File || !sigBytes ||
       sigLen == 0 || sigLen > kMaxSignature) {
      return Fail(error, "the detached signature is malformed");
   }
   // A signature that cannot be valid for this file is not attached to it.
   Digest hash;
   uint64_t size = 0;
   if (static_cast<uint64_t>(st.st_size) != cd.contentSize ||
       !HashFd(fd, &hash, &size, cd.contentSize) || size != cd.contentSize ||
       hash != cd.contentHash) {
      return Fail(error, "the detached signature was made for other content");
   }
   return SetFileSignature(fd, text, std::string(sigBytes, sigLen), error);
}

}  // namespace halcyx::codesign
