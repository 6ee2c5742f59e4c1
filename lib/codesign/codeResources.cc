/*
 * CodeResources: the seal over every file of a bundle.
 *
 * An XML property list whose root dictionary holds exactly one key, "files":
 * a dictionary from each path relative to the bundle directory to either the
 * 32-byte SHA-256 of a regular file (data) or { symlink: <link text> } for a
 * symbolic link that stays inside the bundle. Everything under
 * Contents/_CodeSignature is left out; directories are implied.
 *
 * The walk that collects a bundle's contents opens every directory and file
 * relative to its parent with O_NOFOLLOW, bounds depth and entry count, and
 * refuses any file type other than regular files, directories and links.
 */
#include <cerrno>
#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
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

struct Walker {
   Seal *seal;
   size_t entries = 0;

   bool Walk(int dirFd, const std::string &prefix, int depth) {
      if (depth > kMaxDepth) {
         return false;
      }
      int dupFd = fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
      if (dupFd < 0) {
         return false;
      }
      std::unique_ptr<DIR, int (*)(DIR *)> dir(fdopendir(dupFd), closedir);
      if (!dir) {
         close(dupFd);
         return false;
      }
      // Sorted names, so that the same bundle always walks the same way.
      std::vector<std::string> names;
      errno = 0;
      while (struct dirent *e = readdir(dir.get())) {
         if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
            names.emplace_back(e->d_name);
            if (++entries > kMaxEntries) {
               return false;
            }
         }
         errno = 0;
      }
      if (errno != 0) {
         return false;
      }
      std::sort(names.begin(), names.end());
      for (const std::string &name : names) {
         std::string rel = prefix + name;
         if (rel == kSignatureDir) {
            continue;
         }
         if (rel.size() > kMaxPath || !Entry(dirFd, name.c_str(), rel, depth)) {
            return false;
         }
      }
      return true;
   }

   bool Entry(int dirFd, const char *name, const std::string &rel, int depth) {
      struct stat st;
      if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
         return false;
      }
      if (S_ISLNK(st.st_mode)) {
         char buf[kMaxPath + 1];
         ssize_t n = readlinkat(dirFd, name, buf, sizeof buf);
         if (n <= 0 || static_cast<size_t>(n) > kMaxPath) {
            return false;
         }
         std::string target(buf, static_cast<size_t>(n));
         if (!LinkStaysInside(rel, target)) {
            return false;
         }
         SealedEntry &e = (*seal)[rel];
         e.isLink = true;
         e.target = std::move(target);
         return true;
      }
      if (S_ISDIR(st.st_mode)) {
         UniqueFd sub(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
         return sub && Walk(sub.get(), rel + "/", depth + 1);
      }
      if (!S_ISREG(st.st_mode)) {
         return false;
      }
      UniqueFd fd(openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
      uint64_t size;
      SealedEntry e;
      if (!fd || !HashFd(fd.get(), &e.hash, &size)) {
         return false;
      }
      (*seal)[rel] = e;
      return true;
   }
};

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
   if (!ok) {
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

bool CollectSeal(int bundleFd, Seal *out) {
   Seal seal;
   Walker w{&seal};
   if (!w.Walk(bundleFd, "", 0)) {
      return false;
   }
   *out = std::move(seal);
   return true;
}

bool CheckSeal(int bundleFd, const Seal &seal) {
   Seal actual;
   if (!CollectSeal(bundleFd, &actual) || actual.size() != seal.size()) {
      return false;
   }
   for (const auto &[path, e] : seal) {
      auto it = actual.find(path);
      if (it == actual.end() || it->second.isLink != e.isLink ||
          (e.isLink ? it->second.target != e.target : it->second.hash != e.hash)) {
         return false;
      }
   }
   return true;
}

}  // namespace halcyx::codesign
