// SPDX-License-Identifier: MIT
/*
 * Path names: text operations on POSIX paths, plus the two that consult
 * the file system (the current directory and full-path resolution).
 *
 * The slash rules are exact because other modules build lock paths,
 * temporary names and install paths from them:
 *   - SplitName keeps the last "/" in the directory part; GetPathName drops
 *     it together with every "/" before it that trails the directory.
 *   - StripSlashes removes only trailing runs; StripFwdSlashes collapses
 *     every run.
 *   - PathJoin = StripSlashes(dir) + "/" + base without its leading runs,
 *     so an empty or "/" directory yields an absolute result.
 * Inputs are read as byte strings: "/" and "." never occur inside a
 * multi-byte UTF-8 sequence, so no decoding is needed. A null input counts
 * as the empty path.
 */
#include "file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "err.h"
#include "file/filePrimitives.h"
#include "internal/nothrow.h"
#include "internal/unique.h"
#include "log.h"
#include "msg.h"
#include "posix.h"
#include "util.h"

using halcyx::UniqueCStr;

namespace {

char *Dup(std::string_view s) {
   return Util_SafeStrndup(s.data(), s.size());
}

// The parts one after another in one malloc'ed string; as the safe
// allocation wrappers, running out of memory ends the process. No C++
// container is involved, so nothing can throw out to a C caller.
char *Concat(std::initializer_list<std::string_view> parts) {
   size_t size = 1;
   for (std::string_view part : parts) {
      size += part.size();
   }
   char *out = static_cast<char *>(Util_SafeMalloc(size));
   size_t at = 0;
   for (std::string_view part : parts) {
      if (!part.empty()) {
         std::memcpy(out + at, part.data(), part.size());
         at += part.size();
      }
   }
   out[at] = '\0';
   return out;
}

std::string_view View(const char *path) {
   return path == nullptr ? std::string_view() : std::string_view(path);
}

std::string_view WithoutTrailingSlashes(std::string_view s) {
   while (!s.empty() && s.back() == '/') {
      s.remove_suffix(1);
   }
   return s;
}

std::string_view WithoutLeadingSlashes(std::string_view s) {
   while (!s.empty() && s.front() == '/') {
      s.remove_prefix(1);
   }
   return s;
}

// The extension of path's last component ('.' included), or npos.
size_t ExtensionStart(std::string_view path) {
   size_t dot = path.rfind('.');
   size_t slash = path.rfind('/');
   if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) {
      return std::string_view::npos;
   }
   return dot;
}

}  // namespace

void File_SplitName(const char *path, char **volume, char **dir, char **base) {
   std::string_view p = View(path);
   size_t slash = p.rfind('/');
   size_t cut = slash == std::string_view::npos ? 0 : slash + 1;
   if (volume != nullptr) {
      *volume = Dup("");
   }
   if (dir != nullptr) {
      *dir = Dup(p.substr(0, cut));
   }
   if (base != nullptr) {
      *base = Dup(p.substr(cut));
   }
}

void File_GetPathName(const char *path, char **dir, char **base) {
   std::string_view p = View(path);
   size_t slash = p.rfind('/');
   if (slash == std::string_view::npos) {
      if (dir != nullptr) {
         *dir = Dup("");
      }
      if (base != nullptr) {
         *base = Dup(p);
      }
      return;
   }
   if (dir != nullptr) {
      *dir = Dup(WithoutTrailingSlashes(p.substr(0, slash)));
   }
   if (base != nullptr) {
      *base = Dup(p.substr(slash + 1));
   }
}

char *File_StripSlashes(const char *path) {
   return Dup(WithoutTrailingSlashes(View(path)));
}

char *File_StripFwdSlashes(const char *path) {
   std::string_view p = View(path);
   char *out = static_cast<char *>(Util_SafeMalloc(p.size() + 1));
   size_t n = 0;
   for (char c : p) {
      if (c != '/' || n == 0 || out[n - 1] != '/') {
         out[n++] = c;
      }
   }
   out[n] = '\0';
   return out;
}

char *File_PathJoin(const char *dirName, const char *baseName) {
   return Concat({WithoutTrailingSlashes(View(dirName)), "/",
                  WithoutLeadingSlashes(View(baseName))});
}

bool File_IsFullPath(const char *path) {
   return path != nullptr && path[0] == '/';
}

char *File_Cwd(const char *drive) {
   if (drive != nullptr && drive[0] != '\0') {
      Warning("FILE: %s: Drive letter %s on Linux?\n", "File_Cwd", drive);
   }
   for (size_t size = 1024;; size += 1024) {
      UniqueCStr buf(static_cast<char *>(Util_SafeMalloc(size)));
      if (getcwd(buf.get(), size) != nullptr) {
         return buf.release();
      }
      if (errno != ERANGE) {
         break;
      }
   }
   halcyx::ErrnoSaver keep;
   Msg_Append("@&!*@*@(msg.filePosix.getcwd)Unable to retrieve the current working directory: "
              "%s. Check if the directory has been deleted or unmounted.\n",
              Err_ErrString());
   Warning("FILE: %s: getcwd() failed: %s\n", "File_Cwd", Err_ErrString());
   return nullptr;
}

namespace {

char *FullPath(const char *path) {
   std::string full;
   if (File_IsFullPath(path)) {
      full = path;
   } else {
      UniqueCStr cwd(File_Cwd(nullptr));
      if (cwd == nullptr) {
         return nullptr;
      }
      full = cwd.get();
      if (path != nullptr && path[0] != '\0') {
         full += '/';
         full += path;
      }
   }

   if (char *real = Posix_RealPath(full.c_str()); real != nullptr) {
      return real;
   }

   // Resolve the longest existing ancestor of the directory part and keep
   // the rest as written, so that names about to be created get a stable
   // absolute form.
   char *dirPart;
   File_GetPathName(full.c_str(), &dirPart, nullptr);
   std::string ancestor(UniqueCStr(dirPart).get());
   struct stat st;
   while (!ancestor.empty() && stat(ancestor.c_str(), &st) != 0) {
      size_t slash = ancestor.rfind('/');
      ancestor.resize(slash == std::string::npos ? 0 : slash);
   }
   if (ancestor.empty()) {
      ancestor = full[0] == '/' ? "/" : ".";
   }
   if (UniqueCStr real(Posix_RealPath(ancestor.c_str())); real != nullptr) {
      return File_PathJoin(real.get(), full.c_str() + std::min(ancestor.size(), full.size()));
   }
   return File_StripFwdSlashes(full.c_str());
}

}  // namespace

char *File_FullPath(const char *path) {
   return halcyx::CallOr<char *>(nullptr, [&] { return FullPath(path); });
}

bool File_GetParent(char **path) {
   if (path == nullptr || *path == nullptr) {
      return false;  // nothing to replace
   }
   if (std::strcmp(*path, "/") == 0) {
      return true;
   }
   char *dir;
   char *base;
   File_GetPathName(*path, &dir, &base);
   char *parent;
   if (dir[0] == '\0') {
      parent = Dup("/");
   } else if (base[0] == '\0') {
      File_GetPathName(dir, &parent, nullptr);
   } else {
      parent = Dup(dir);
   }
   free(dir);
   free(base);
   free(*path);
   *path = parent;
   return false;
}

char *File_ReplaceExtension(const char *path, const char *newExt, size_t count, ...) {
   std::string_view p = View(path);
   std::string_view ext = View(newExt);
   size_t dot = ExtensionStart(p);
   if (dot == std::string_view::npos) {
      return Concat({p, ext});
   }
   bool replace = count == 0;
   va_list args;
   va_start(args, count);
   for (size_t i = 0; i < count && !replace; i++) {
      const char *listed = va_arg(args, const char *);
      replace = listed != nullptr && p.substr(dot) == listed;
   }
   va_end(args);
   return Concat({replace ? p.substr(0, dot) : p, ext});
}

char *File_RemoveExtension(const char *path) {
   std::string_view p = View(path);
   size_t dot = ExtensionStart(p);
   return Dup(dot == std::string_view::npos ? p : p.substr(0, dot));
}

char *File_MapPathPrefix(const char *path, const char **oldPrefixes,
                         const char **newPrefixes, size_t count) {
   std::string_view p = View(path);
   for (size_t i = 0; i < count; i++) {
      std::string_view oldPrefix = WithoutTrailingSlashes(View(oldPrefixes[i]));
      std::string_view newPrefix = WithoutTrailingSlashes(View(newPrefixes[i]));
      if (p.starts_with(oldPrefix) &&
          (p.size() == oldPrefix.size() || p[oldPrefix.size()] == '/')) {
         return Concat({newPrefix, p.substr(oldPrefix.size())});
      }
   }
   return nullptr;
}
