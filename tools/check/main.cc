// SPDX-License-Identifier: MIT
/*
 * halcyx-check: tells an administrator whether the opener's installation
 * is safe, without changing anything.
 *
 * Each fixed path is walked from the root one component at a time with
 * O_PATH | O_NOFOLLOW descriptors; the kernel never follows a link for us.
 * Every directory passed on the way must be root's and closed to group and
 * others; a sticky directory open to others (/tmp) may stand only above an
 * existing directory. A symbolic link on the way to the lock file or the
 * socket is accepted when it is root's (the opener's open and bind follow
 * it, and nobody else can change it): this tool then resolves it itself,
 * inside the checked root. The host directory, the product file and the
 * trust store are refused through any link, as their users refuse them.
 *
 * Output: one line per finding on standard output, "unsafe: PATH: WHAT",
 * each at most once; "skipped: WHAT" when a check could not be made (not a
 * finding). Exit status 0 without findings, 1 with findings, 2 on a usage
 * error or when the root cannot be opened.
 */
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <set>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include "checkConfig.h"
#include "internal/unique.h"

using halcyx::UniqueFd;

namespace {

constexpr char kOpenerSubPath[] = "/Contents/Library/services/Open Zorvex Halcyx Services";
constexpr int kMaxLinks = 40;
constexpr int kMaxTreeDepth = 32;
constexpr size_t kMaxPemFile = 1 << 20;

constexpr char kUsage[] =
   "usage: halcyx-check [--root DIR] [--opener PATH]\n"
   "\n"
   "Reports, without changing anything, whether the opener's installation is\n"
   "safe: the installed opener, the lock file and the socket with their\n"
   "directory, the host directory and its Services tree, the product file and\n"
   "the trust store, and every directory above them.\n"
   "\n"
   "  --root DIR     check the layout under DIR (an image, a container) instead\n"
   "                 of /; every fixed path, --opener's too, lies under DIR\n"
   "  --opener PATH  the installed opener (default: " HALCYX_INSTALLED_OPENER "\n"
   "                 and the one in the bundle recorded in the product file)\n"
   "  -h, --help     this text\n"
   "  --version      the version\n"
   "\n"
   "Output, one line each, on standard output:\n"
   "  unsafe: PATH: WHAT   a finding, for example\n"
   "                       \"unsafe: /run: writable by group or others\"\n"
   "  skipped: WHAT        a check that could not be made (not a finding)\n"
   "WHAT is one of: owned by uid N, not root; writable by group or others;\n"
   "symbolic link; symbolic link owned by uid N, not root; too many symbolic\n"
   "links; not a directory; not a regular file; not a socket; not set-user-ID;\n"
   "development root \"CN\" (a self-signed certificate whose common name\n"
   "contains \"Development\", in the trust store); cannot examine: ERROR.\n"
   "\n"
   "Exit status: 0 nothing unsafe, 1 a finding, 2 usage error or DIR unusable.\n";

bool WritableByOthers(const struct stat &st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

std::string Owner(const struct stat &st) {
   return "owned by uid " + std::to_string(st.st_uid) + ", not root";
}

std::vector<std::string> Components(const std::string &path) {
   std::vector<std::string> parts;
   size_t at = 0;
   while (at < path.size()) {
      size_t end = path.find('/', at);
      end = end == std::string::npos ? path.size() : end;
      if (end > at) {
         parts.push_back(path.substr(at, end - at));
      }
      at = end + 1;
   }
   return parts;
}

// How a walk treats what it passes.
struct Policy {
   bool checkDirs;       // directories on the way must be root's and closed
   bool stickyAllowed;   // ... except a sticky one above an existing directory
   bool followRootLinks;  // a root-owned link is resolved, any other reported
   bool followAnyLinks;  // every link is resolved (the opener's own path)
};
constexpr Policy kRefuseLinks = {true, true, false, false};
constexpr Policy kRootLinks = {true, true, true, false};
constexpr Policy kStore = {true, false, false, false};
constexpr Policy kLoose = {false, false, false, true};

// An object reached by a walk: its O_PATH descriptor and status.
struct Object {
   UniqueFd fd;
   struct stat st = {};
   std::string shown;
};

class Checker {
public:
   Checker(int rootFd, std::string prefix) : rootFd_(rootFd), prefix_(std::move(prefix)) {}

   void Run(const char *openerOption);
   bool Safe() const { return findings_ == 0; }

private:
   void Unsafe(const std::string &path, const std::string &what);
   bool Walk(const std::string &path, const Policy &policy, Object *out);
   void CheckClosedDir(const std::string &path, const Policy &policy, Object *out);
   void CheckOwnedFile(const Object &object, mode_t type, const char *typeText);
   void CheckTree(int dirFd, const std::string &shown, int depth);
   std::string RecordedBundle();
   void CheckOpener(const char *openerOption);
   void CheckTrustStore();
   void CheckPem(int dirFd, const char *name, const std::string &shown);

   int rootFd_;
   std::string prefix_;  // shown before every checked path ("" for /)
   std::set<std::string> seen_;
   int findings_ = 0;
};

void Checker::Unsafe(const std::string &path, const std::string &what) {
   std::string line = "unsafe: " + path + ": " + what;
   if (seen_.insert(line).second) {
      printf("%s\n", line.c_str());
      findings_++;
   }
}

/*
 * Walks path (absolute, under the root) and checks what it passes as the
 * policy says. True with *out set when the object exists; false when it is
 * missing (its parent was checked for that case) or a finding stopped the
 * walk.
 */
bool Checker::Walk(const std::string &path, const Policy &policy, Object *out) {
   std::vector<UniqueFd> dirs;
   std::vector<struct stat> stats;
   std::vector<std::string> shown;
   auto restart = [&] {
      dirs.clear();
      stats.clear();
      shown.clear();
      struct stat st = {};
      dirs.emplace_back(fcntl(rootFd_, F_DUPFD_CLOEXEC, 0));
      fstat(rootFd_, &st);
      stats.push_back(st);
      shown.push_back(prefix_.empty() ? "/" : prefix_);
   };
   auto below = [&](const std::string &name) {
      return (shown.size() == 1 ? prefix_ : shown.back()) + "/" + name;
   };
   restart();
   std::deque<std::string> pending;
   for (std::string &part : Components(path)) {
      pending.push_back(std::move(part));
   }
   int links = 0;
   bool first = true;
   for (;;) {
      const struct stat &dirSt = stats.back();
      // The directory just entered: the root on the first pass.
      if (policy.checkDirs && first) {
         first = false;
         if (dirSt.st_uid != 0) {
            Unsafe(shown.back(), Owner(dirSt));
         }
         if (WritableByOthers(dirSt) && !(policy.stickyAllowed && (dirSt.st_mode & S_ISVTX))) {
            Unsafe(shown.back(), "writable by group or others");
         }
      }
      if (pending.empty()) {
         out->fd = std::move(dirs.back());
         out->st = dirSt;
         out->shown = shown.back();
         return true;
      }
      std::string name = std::move(pending.front());
      pending.pop_front();
      if (name == ".") {
         continue;
      }
      if (name == "..") {
         if (dirs.size() > 1) {
            dirs.pop_back();
            stats.pop_back();
            shown.pop_back();
         }
         continue;
      }
      const std::string here = below(name);
      UniqueFd fd(openat(dirs.back().get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      struct stat st;
      if (!fd || fstat(fd.get(), &st) != 0) {
         if (errno != ENOENT) {
            Unsafe(here, std::string("cannot examine: ") + strerror(errno));
         } else if (policy.checkDirs && WritableByOthers(dirSt)) {
            // Others could create it.
            Unsafe(shown.back(), "writable by group or others");
         }
         return false;
      }
      const bool openToOthers = policy.checkDirs && WritableByOthers(dirSt);
      if (S_ISLNK(st.st_mode)) {
         if (!policy.followAnyLinks && !policy.followRootLinks) {
            Unsafe(here, "symbolic link");
            return false;
         }
         if (!policy.followAnyLinks && st.st_uid != 0) {
            Unsafe(here, "symbolic link " + Owner(st));
            return false;
         }
         if (++links > kMaxLinks) {
            Unsafe(here, "too many symbolic links");
            return false;
         }
         char target[PATH_MAX];
         ssize_t n = readlinkat(fd.get(), "", target, sizeof target - 1);
         if (n < 0) {
            Unsafe(here, std::string("cannot examine: ") + strerror(errno));
            return false;
         }
         target[n] = '\0';
         std::vector<std::string> parts = Components(target);
         pending.insert(pending.begin(), parts.begin(), parts.end());
         if (target[0] == '/') {
            restart();
         }
         continue;
      }
      if (openToOthers && !S_ISDIR(st.st_mode)) {
         // Others may have put it there, or may replace it.
         Unsafe(shown.back(), "writable by group or others");
      }
      if (!pending.empty() && !S_ISDIR(st.st_mode)) {
         Unsafe(here, "not a directory");
         return false;
      }
      dirs.push_back(std::move(fd));
      stats.push_back(st);
      shown.push_back(here);
      first = S_ISDIR(st.st_mode) && !pending.empty();
   }
}

// A directory that must be root's and closed to others, reached by policy.
void Checker::CheckClosedDir(const std::string &path, const Policy &policy, Object *out) {
   if (!Walk(path, policy, out)) {
      out->fd.reset();
      return;
   }
   if (!S_ISDIR(out->st.st_mode)) {
      Unsafe(out->shown, "not a directory");
      out->fd.reset();
      return;
   }
   if (out->st.st_uid != 0) {
      Unsafe(out->shown, Owner(out->st));
   }
   if (WritableByOthers(out->st)) {
      Unsafe(out->shown, "writable by group or others");
   }
}

void Checker::CheckOwnedFile(const Object &object, mode_t type, const char *typeText) {
   if ((object.st.st_mode & S_IFMT) != type) {
      Unsafe(object.shown, typeText);
      return;
   }
   if (object.st.st_uid != 0) {
      Unsafe(object.shown, Owner(object.st));
   }
   if (WritableByOthers(object.st)) {
      Unsafe(object.shown, "writable by group or others");
   }
}

// Everything in the Services tree: root's, and closed to others but links.
void Checker::CheckTree(int dirFd, const std::string &shown, int depth) {
   UniqueFd listFd(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   std::unique_ptr<DIR, int (*)(DIR *)> dir(listFd ? fdopendir(listFd.get()) : nullptr, closedir);
   if (!dir) {
      Unsafe(shown, std::string("cannot examine: ") + strerror(errno));
      return;
   }
   (void)listFd.release();  // the DIR owns it now
   while (const struct dirent *entry = readdir(dir.get())) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") {
         continue;
      }
      const std::string here = shown + "/" + name;
      struct stat st;
      if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
         Unsafe(here, std::string("cannot examine: ") + strerror(errno));
         continue;
      }
      if (st.st_uid != 0) {
         Unsafe(here, Owner(st));
      }
      if (!S_ISLNK(st.st_mode) && WritableByOthers(st)) {
         Unsafe(here, "writable by group or others");
      }
      if (S_ISDIR(st.st_mode) && depth < kMaxTreeDepth) {
         UniqueFd sub(openat(dirFd, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
         if (sub) {
            CheckTree(sub.get(), here, depth + 1);
         }
      }
   }
}

// The bundle root recorded in the product file, or "" (with a reason).
std::string Checker::RecordedBundle() {
   Object file;
   if (!Walk(HALCYX_PRODUCT_FILE, kRefuseLinks, &file)) {
      return "";
   }
   CheckOwnedFile(file, S_IFREG, "not a regular file");
   if (!S_ISREG(file.st.st_mode)) {
      return "";
   }
   // The object the walk reached, opened for reading: through its own
   // descriptor, never its path again.
   const std::string self = "/proc/self/fd/" + std::to_string(file.fd.get());
   UniqueFd fd(open(self.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
   char text[1024];
   ssize_t n = fd ? read(fd.get(), text, sizeof text) : -1;
   if (n < 0 || n >= static_cast<ssize_t>(sizeof text)) {
      return "";
   }
   return std::string(text, strnlen(text, static_cast<size_t>(n)));
}

void Checker::CheckOpener(const char *openerOption) {
   // The one named, or else both the packaged opener and the one in the
   // bundle last used, where each exists.
   std::vector<std::string> paths;
   if (openerOption != nullptr) {
      paths.push_back(openerOption);
   } else {
      paths.push_back(HALCYX_INSTALLED_OPENER);
      std::string bundle = RecordedBundle();
      if (!bundle.empty() && bundle[0] == '/' && bundle + kOpenerSubPath != paths[0]) {
         paths.push_back(bundle + kOpenerSubPath);
      }
   }
   bool found = false;
   for (const std::string &path : paths) {
      Object opener;
      if (!Walk(path, kLoose, &opener)) {
         continue;
      }
      found = true;
      CheckOwnedFile(opener, S_IFREG, "not a regular file");
      if (S_ISREG(opener.st.st_mode) && (opener.st.st_mode & S_ISUID) == 0) {
         Unsafe(opener.shown, "not set-user-ID");
      }
   }
   if (!found) {
      printf("skipped: the opener: none installed at %s%s or recorded in the product file "
             "(give --opener PATH)\n",
             prefix_.c_str(), paths[0].c_str());
   }
}

void Checker::CheckPem(int dirFd, const char *name, const std::string &shown) {
   struct stat st;
   if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      Unsafe(shown, std::string("cannot examine: ") + strerror(errno));
      return;
   }
   CheckOwnedFile(Object{UniqueFd(), st, shown}, S_IFREG, "not a regular file");
   if (!S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > kMaxPemFile) {
      return;
   }
   UniqueFd fd(openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
   struct stat opened;
   if (!fd && errno == EACCES) {
      // Root's own anchors may be closed to the unprivileged user running us.
      printf("skipped: %s: cannot read it (%s)\n", shown.c_str(), strerror(errno));
      return;
   }
   if (!fd || fstat(fd.get(), &opened) != 0) {
      Unsafe(shown, std::string("cannot examine: ") + strerror(errno));
      return;
   }
   if (opened.st_ino != st.st_ino || opened.st_dev != st.st_dev) {
      Unsafe(shown, "cannot examine: replaced while being checked");
      return;
   }
   std::string pem(static_cast<size_t>(st.st_size), '\0');
   ssize_t n = read(fd.get(), pem.data(), pem.size());
   pem.resize(n > 0 ? static_cast<size_t>(n) : 0);
   std::unique_ptr<BIO, int (*)(BIO *)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                            BIO_free);
   while (bio) {
      std::unique_ptr<X509, void (*)(X509 *)> cert(
         PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
      if (!cert) {
         break;
      }
      char cn[256] = "";
      X509_NAME *subject = X509_get_subject_name(cert.get());
      X509_NAME_get_text_by_NID(subject, NID_commonName, cn, sizeof cn);
      const bool selfSigned = X509_NAME_cmp(subject, X509_get_issuer_name(cert.get())) == 0;
      if (selfSigned && strcasestr(cn, "development") != nullptr) {
         Unsafe(shown, std::string("development root \"") + cn + "\"");
      }
   }
}

// The admin trust store: loaded only when every directory up to it is
// root's and closed (no sticky exception); each anchor file root's too.
void Checker::CheckTrustStore() {
   Object store;
   CheckClosedDir(HALCYX_ADMIN_TRUST_STORE, kStore, &store);
   if (!store.fd) {
      return;
   }
   UniqueFd listFd(openat(store.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   std::unique_ptr<DIR, int (*)(DIR *)> dir(listFd ? fdopendir(listFd.get()) : nullptr, closedir);
   if (!dir) {
      Unsafe(store.shown, std::string("cannot examine: ") + strerror(errno));
      return;
   }
   (void)listFd.release();
   std::set<std::string> names;  // sorted: a stable order of findings
   while (const struct dirent *entry = readdir(dir.get())) {
      const std::string name = entry->d_name;
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".pem") == 0) {
         names.insert(name);
      }
   }
   for (const std::string &name : names) {
      CheckPem(store.fd.get(), name.c_str(), store.shown + "/" + name);
   }
}

void Checker::Run(const char *openerOption) {
   CheckOpener(openerOption);

   Object object;
   auto parentOf = [](const std::string &path) { return path.substr(0, path.rfind('/')); };
   CheckClosedDir(parentOf(HALCYX_LOCK_PATH), kRootLinks, &object);
   if (object.fd && Walk(HALCYX_LOCK_PATH, kRootLinks, &object)) {
      CheckOwnedFile(object, S_IFREG, "not a regular file");
   }
   CheckClosedDir(parentOf(HALCYX_SOCKET_PATH), kRootLinks, &object);
   if (object.fd && Walk(HALCYX_SOCKET_PATH, kRootLinks, &object)) {
      CheckOwnedFile(object, S_IFSOCK, "not a socket");
   }

   CheckClosedDir(HALCYX_HOST_DIR, kRefuseLinks, &object);
   if (object.fd) {
      CheckClosedDir(std::string(HALCYX_HOST_DIR) + "/Services", kRefuseLinks, &object);
      if (object.fd) {
         CheckTree(object.fd.get(), object.shown, 0);
      }
   }
   // Its parent as the opener checks it, then the file (checked once).
   CheckClosedDir(parentOf(HALCYX_PRODUCT_FILE), kRefuseLinks, &object);
   if (openerOption != nullptr) {
      RecordedBundle();
   }

   CheckTrustStore();
}

}  // namespace

int main(int argc, char **argv) {
   const char *root = "/";
   const char *opener = nullptr;
   for (int i = 1; i < argc; i++) {
      const std::string arg = argv[i];
      if (arg == "-h" || arg == "--help") {
         fputs(kUsage, stdout);
         return 0;
      }
      if (arg == "--version") {
         printf("halcyx-check %s\n", HALCYX_VERSION);
         return 0;
      }
      if ((arg == "--root" || arg == "--opener") && i + 1 < argc) {
         (arg == "--root" ? root : opener) = argv[++i];
         continue;
      }
      fprintf(stderr, "halcyx-check: %s: %s\nTry 'halcyx-check --help'.\n", arg.c_str(),
              arg == "--root" || arg == "--opener" ? "needs an argument" : "unknown option");
      return 2;
   }
   if (opener != nullptr && opener[0] != '/') {
      fprintf(stderr, "halcyx-check: --opener needs an absolute path\n");
      return 2;
   }
   UniqueFd rootFd(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
   if (!rootFd) {
      fprintf(stderr, "halcyx-check: %s: %s\n", root, strerror(errno));
      return 2;
   }
   std::string prefix = root;
   while (!prefix.empty() && prefix.back() == '/') {
      prefix.pop_back();
   }
   Checker checker(rootFd.get(), prefix);
   checker.Run(opener);
   fflush(stdout);
   return checker.Safe() ? 0 : 1;
}
