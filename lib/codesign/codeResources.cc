// SPDX-License-Identifier: MIT
/*
 * CodeResources: the seal over every file of a bundle.
 *
 * An XML property list whose root dictionary holds exactly one key, "files":
 * a dictionary from each path relative to the bundle directory to either the
 * 32-byte SHA-256 of a regular file (data) or { symlink: <link text> } for a
 * symbolic link that stays inside the bundle. Everything under
 * Contents/_CodeSignature is left out; directories are implied. The reader
 * accepts exactly the bytes that FormatCodeResources writes for the seal.
 *
 * The walk that collects a bundle's contents opens every directory and file
 * relative to its parent with O_NOFOLLOW, bounds depth and entry count, and
 * refuses any file type other than regular files, directories and links,
 * a link that the kernel would resolve out of the bundle, and anything in
 * the signature directory but the signature objects themselves.
 */
#include <cerrno>
#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include "codesignInt.h"
#include "internal/unique.h"

namespace halcyx::codesign {

namespace {

constexpr int kMaxDepth = 64;
constexpr size_t kMaxEntries = 100000;
constexpr size_t kMaxPath = 4096;

bool ValidRelPath(std::string_view p) {
   if (p.empty() || p.size() > kMaxPath || p.front() == '/' || p.back() == '/') {
      return false;
   }
   size_t start = 0;
   while (start <= p.size()) {
      size_t slash = p.find('/', start);
      size_t end = slash == std::string_view::npos ? p.size() : slash;
      std::string_view part = p.substr(start, end - start);
      if (part.empty() || part == "." || part == "..") {
         return false;
      }
      start = end + 1;
   }
   std::string_view sigDir = kSignatureDir;
   return !(p.size() > sigDir.size() && p.substr(0, sigDir.size()) == sigDir &&
            p[sigDir.size()] == '/') &&
          p != sigDir;
}

// True when a link at relPath with this text resolves, lexically, to a path
// inside the bundle directory.
bool LinkStaysInside(std::string_view relPath, std::string_view target) {
   if (target.empty() || target.front() == '/') {
      return false;
   }
   std::vector<std::string_view> stack;
   size_t lastSlash = relPath.rfind('/');
   std::string_view dir = lastSlash == std::string_view::npos ? "" : relPath.substr(0, lastSlash);
   for (std::string_view s : {dir, target}) {
      size_t start = 0;
      while (start < s.size()) {
         size_t slash = s.find('/', start);
         size_t end = slash == std::string_view::npos ? s.size() : slash;
         std::string_view part = s.substr(start, end - start);
         if (part == "..") {
            if (stack.empty()) {
               return false;
            }
            stack.pop_back();
         } else if (!part.empty() && part != ".") {
            stack.push_back(part);
         }
         start = end + 1;
      }
   }
   return true;
}

// The names in a directory, sorted so that the same bundle always walks the
// same way. They are read through a descriptor of their own: a duplicate
// of dirFd would share, and move, its owner's directory offset.
bool ListDir(int dirFd, std::vector<std::string> *names, size_t *entries) {
   int own = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   if (own < 0) {
      return false;
   }
   std::unique_ptr<DIR, int (*)(DIR *)> dir(fdopendir(own), closedir);
   if (!dir) {
      close(own);
      return false;
   }
   errno = 0;
   while (struct dirent *e = readdir(dir.get())) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
         names->emplace_back(e->d_name);
         if (++*entries > kMaxEntries) {
            return false;
         }
      }
      errno = 0;
   }
   if (errno != 0) {
      return false;
   }
   std::sort(names->begin(), names->end());
   return true;
}

/*
 * Resolves the link at relPath as an open would, component by component
 * beneath the bundle directory: every link on the way is followed, and a
 * step out of the bundle (an absolute link, or ".." above it, directly or
 * through another link) fails with EXDEV. A link to a name that does not
 * exist is judged by its text alone (LinkStaysInside): making that name
 * later changes the bundle's listing, which breaks the seal.
 */
bool LinkResolvesInside(int rootFd, const std::string &relPath) {
   struct open_how how;
   memset(&how, 0, sizeof how);
   how.flags = O_PATH | O_CLOEXEC;
   how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
   for (int tries = 0; tries < 8; tries++) {
      long fd = syscall(SYS_openat2, rootFd, relPath.c_str(), &how, sizeof how);
      if (fd >= 0) {
         close(static_cast<int>(fd));
         return true;
      }
      // EAGAIN: a rename elsewhere raced with the resolution.
      if (errno != EAGAIN && errno != EINTR) {
         break;
      }
   }
   return errno == ENOENT || errno == ENOTDIR;
}

// Nothing in the signature directory is sealed, so nothing but the three
// signature objects may be there, each a regular file without set-ID bits.
bool SignatureDirIsClean(int parentFd, const char *name, size_t *entries) {
   UniqueFd dir(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
   std::vector<std::string> names;
   if (!dir || !ListDir(dir.get(), &names, entries)) {
      return false;
   }
   for (const std::string &n : names) {
      struct stat st;
      if ((n != "CodeDirectory" && n != "CodeResources" && n != "CodeSignature") ||
          fstatat(dir.get(), n.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISREG(st.st_mode) || (st.st_mode & (S_ISUID | S_ISGID)) != 0) {
         return false;
      }
   }
   return true;
}

struct Walker {
   int rootFd;
   Seal *seal;
   bool hash;  // false: regular files are listed without reading them
   std::string *problem = nullptr;  // names what stopped the walk
   size_t entries = 0;

   bool Refuse(const std::string &rel, const char *what) {
      if (problem != nullptr) {
         *problem = (rel.empty() ? std::string("the bundle") : rel) + " " + what;
      }
      return false;
   }

   bool Walk(int dirFd, const std::string &prefix, int depth) {
      std::vector<std::string> names;
      std::string dir = prefix.empty() ? prefix : prefix.substr(0, prefix.size() - 1);
      if (depth > kMaxDepth) {
         return Refuse(dir, "lies too deep");
      }
      if (!ListDir(dirFd, &names, &entries)) {
         return Refuse(dir, "cannot be listed, or holds too many entries");
      }
      for (const std::string &name : names) {
         std::string rel = prefix + name;
         if (rel == kSignatureDir) {
            if (!SignatureDirIsClean(dirFd, name.c_str(), &entries)) {
               return Refuse(rel, "holds something besides the signature");
            }
            continue;
         }
         if (rel.size() > kMaxPath) {
            return Refuse(rel, "has too long a name");
         }
         if (!Entry(dirFd, name.c_str(), rel, depth)) {
            return false;
         }
      }
      return true;
   }

   bool Entry(int dirFd, const char *name, const std::string &rel, int depth) {
      struct stat st;
      if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
         return Refuse(rel, "cannot be examined");
      }
      if (S_ISLNK(st.st_mode)) {
         char buf[kMaxPath + 1];
         ssize_t n = readlinkat(dirFd, name, buf, sizeof buf);
         if (n <= 0 || static_cast<size_t>(n) > kMaxPath) {
            return Refuse(rel, "is a link that cannot be read");
         }
         std::string target(buf, static_cast<size_t>(n));
         if (!LinkStaysInside(rel, target) || !LinkResolvesInside(rootFd, rel)) {
            return Refuse(rel, "is a link leaving the bundle");
         }
         SealedEntry &e = (*seal)[rel];
         e.isLink = true;
         e.target = std::move(target);
         return true;
      }
      if (S_ISDIR(st.st_mode)) {
         UniqueFd sub(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
         return sub ? Walk(sub.get(), rel + "/", depth + 1) : Refuse(rel, "cannot be opened");
      }
      if (!S_ISREG(st.st_mode)) {
         return Refuse(rel, "is neither a regular file, a directory nor a symbolic link");
      }
      SealedEntry e;
      if (hash) {
         UniqueFd fd(openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
         uint64_t size;
         if (!fd || !HashFd(fd.get(), &e.hash, &size)) {
            return Refuse(rel, "cannot be read");
         }
      }
      (*seal)[rel] = e;
      return true;
   }
};

// Every directory and file under dirFd is root's, not writable by others,
// and on the file system dev. Links are not checked: a link cannot be
// rewritten, only replaced in its directory, which is checked.
bool RootOnlyTree(int dirFd, dev_t dev, int depth, size_t *entries) {
   std::vector<std::string> names;
   if (depth > kMaxDepth || !ListDir(dirFd, &names, entries)) {
      return false;
   }
   for (const std::string &name : names) {
      struct stat st;
      if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != dev) {
         return false;
      }
      if (S_ISLNK(st.st_mode)) {
         continue;
      }
      if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
         return false;
      }
      if (S_ISDIR(st.st_mode)) {
         UniqueFd sub(openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
         if (!sub || !RootOnlyTree(sub.get(), dev, depth + 1, entries)) {
            return false;
         }
      }
   }
   return true;
}

}  // namespace

bool ParseCodeResources(std::string_view xml, Seal *out) {
   if (xml.empty() || xml.size() > kMaxCodeResources ||
       plist_is_binary(xml.data(), static_cast<uint32_t>(xml.size()))) {
      return false;
   }
   plist_t raw = nullptr;
   plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &raw);
   UniquePlist root(raw);
   if (!PLIST_IS_DICT(raw) || plist_dict_get_size(raw) != 1) {
      return false;
   }
   plist_t files = plist_dict_get_item(raw, "files");
   if (!PLIST_IS_DICT(files)) {
      return false;
   }
   Seal seal;
   plist_dict_iter it = nullptr;
   plist_dict_new_iter(files, &it);
   std::unique_ptr<void, void (*)(void *)> iter(it, free);
   bool ok = true;
   while (ok) {
      char *key = nullptr;
      plist_t val = nullptr;
      plist_dict_next_item(files, it, &key, &val);
      UniqueCStr keyOwner(key);
      if (!val) {
         break;
      }
      std::string path(key ? key : "");
      SealedEntry e;
      if (!ValidRelPath(path) || seal.count(path) != 0) {
         ok = false;
      } else if (PLIST_IS_DATA(val)) {
         uint64_t len = 0;
         const char *p = plist_get_data_ptr(val, &len);
         ok = p && len == 32;
         if (ok) {
            memcpy(e.hash.data(), p, 32);
         }
      } else if (PLIST_IS_DICT(val) && plist_dict_get_size(val) == 1) {
         plist_t t = plist_dict_get_item(val, "symlink");
         uint64_t len = 0;
         const char *p = PLIST_IS_STRING(t) ? plist_get_string_ptr(t, &len) : nullptr;
         ok = p && LinkStaysInside(path, std::string_view(p, len)) && strlen(p) == len;
         if (ok) {
            e.isLink = true;
            e.target.assign(p, len);
         }
      } else {
         ok = false;
      }
      if (ok) {
         seal.emplace(std::move(path), std::move(e));
      }
   }
   // One text per seal: whatever the signer would not have written (junk
   // after the list, a second list, unclosed tags, a key given twice, another
   // order or layout) is refused rather than interpreted.
   if (!ok || FormatCodeResources(seal) != xml) {
      return false;
   }
   *out = std::move(seal);
   return true;
}

std::string FormatCodeResources(const Seal &seal) {
   plist_t files = plist_new_dict();
   for (const auto &[path, e] : seal) {
      if (e.isLink) {
         plist_t link = plist_new_dict();
         plist_dict_set_item(link, "symlink", plist_new_string(e.target.c_str()));
         plist_dict_set_item(files, path.c_str(), link);
      } else {
         plist_dict_set_item(files, path.c_str(),
                             plist_new_data(reinterpret_cast<const char *>(e.hash.data()), 32));
      }
   }
   UniquePlist root(plist_new_dict());
   plist_dict_set_item(root.get(), "files", files);
   char *xml = nullptr;
   uint32_t len = 0;
   plist_to_xml(root.get(), &xml, &len);
   std::string text = xml ? std::string(xml, len) : std::string();
   plist_to_xml_free(xml);
   return text;
}

bool CollectSeal(int bundleFd, Seal *out, std::string *problem) {
   Seal seal;
   Walker w{bundleFd, &seal, true, problem};
   if (!w.Walk(bundleFd, "", 0)) {
      return false;
   }
   *out = std::move(seal);
   return true;
}

/*
 * The listing is compared first (names, kinds and link texts, which cost a
 * directory walk), and only then are the files read and hashed, one by one
 * until the first difference: an extra or missing file, however large, is
 * found without reading any content. Both are walked in path order, so the
 * difference named is the first one in that order.
 */
bool CheckSeal(int bundleFd, const Seal &seal, std::string *difference) {
   auto differ = [difference](const std::string &path, const char *how) {
      if (difference != nullptr) {
         *difference = path + " " + how;
      }
      return false;
   };
   Seal listing;
   Walker w{bundleFd, &listing, false, difference};
   if (!w.Walk(bundleFd, "", 0)) {
      return false;
   }
   auto found = listing.begin();
   auto sealed = seal.begin();
   while (found != listing.end() || sealed != seal.end()) {
      if (sealed == seal.end() || (found != listing.end() && found->first < sealed->first)) {
         return differ(found->first, "is not sealed");
      }
      if (found == listing.end() || sealed->first < found->first) {
         return differ(sealed->first, "is sealed but missing");
      }
      if (found->second.isLink != sealed->second.isLink ||
          (sealed->second.isLink && found->second.target != sealed->second.target)) {
         return differ(sealed->first, "differs from its seal");
      }
      ++found;
      ++sealed;
   }
   for (const auto &[path, e] : seal) {
      if (e.isLink) {
         continue;
      }
      UniqueFd fd(OpenAtNoFollow(bundleFd, path.c_str(), O_RDONLY));
      Digest hash;
      uint64_t size;
      if (!fd || !HashFd(fd.get(), &hash, &size)) {
         return differ(path, "cannot be read");
      }
      if (hash != e.hash) {
         return differ(path, "differs from its seal");
      }
   }
   return true;
}

bool OnlyRootCanChange(int fd) {
   struct stat st;
   if (fstat(fd, &st) != 0 || !OnlyRootCanWrite(fd, st)) {
      return false;
   }
   if (S_ISREG(st.st_mode)) {
      return true;
   }
   size_t entries = 0;
   return S_ISDIR(st.st_mode) && RootOnlyTree(fd, st.st_dev, 0, &entries);
}

}  // namespace halcyx::codesign
