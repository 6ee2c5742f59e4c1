// SPDX-License-Identifier: MIT
// halcyx-sign: signs, verifies, shows and removes code signatures of files
// and bundles, and moves a file's signature in and out of a detached file.
//
// Exit status: 0 valid (or done), 1 invalid, unsigned or failed, 2 usage,
// 3 valid but the requirement given with -R is not satisfied. Every message
// about a path begins with that path; a usage error says what was wrong.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/x509.h>

#include "codesignInt.h"
#include "internal/unique.h"

using namespace halcyx::codesign;
using halcyx::UniqueFd;

namespace {

enum Exit { kOk = 0, kInvalid = 1, kUsage = 2, kUnsatisfied = 3 };
enum class Mode { None, Sign, Verify, Display, Remove, Export, Attach };

struct Options {
   Mode mode = Mode::None;
   const char *identity = nullptr;
   const char *identifier = nullptr;
   const char *requirement = nullptr;
   const char *detached = nullptr;
   bool force = false;
   int verbosity = 0;  // -v given this many times
};

constexpr char kUsageText[] =
   "usage: halcyx-sign -s IDENTITY [-i IDENTIFIER] [-f] PATH...\n"
   "       halcyx-sign -v[v] [-R REQUIREMENT] PATH...\n"
   "       halcyx-sign -d PATH\n"
   "       halcyx-sign --remove-signature PATH...\n"
   "       halcyx-sign --export FILE|- PATH\n"
   "       halcyx-sign --attach FILE [-f] PATH\n"
   "       halcyx-sign -h | --help | --version\n";

// Says what was wrong with the command line, then how it is used.
int Usage(const std::string &what) {
   fprintf(stderr, "halcyx-sign: %s\n%s", what.c_str(), kUsageText);
   return kUsage;
}

int Complain(const char *path, const std::string &what) {
   fprintf(stderr, "%s: %s\n", path, what.c_str());
   return kInvalid;
}

// Why OpenCode refused path, from its errno.
int CannotOpen(const char *path) {
   int error = errno;
   struct stat st;
   if (error == EINVAL) {
      return Complain(path, "is neither a regular file nor a bundle");
   }
   if (error == ELOOP && lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
      return Complain(path, "is a symbolic link, and links are never followed");
   }
   return Complain(path, std::string("cannot open: ") + strerror(error));
}

std::string SubjectOf(X509 *cert) {
   char *s = X509_NAME_oneline(X509_get_subject_name(cert), nullptr, 0);
   std::string out = s ? s : "?";
   OPENSSL_free(s);
   return out;
}

// The bundle's own identifier, or the file's name.
std::string DefaultIdentifier(int fd, const char *path) {
   std::string info;
   UniquePlist plist;
   if (ReadFileAt(fd, kInfoPlist, kMaxInfoPlist, &info) && ParseInfoPlist(info, &plist)) {
      plist_t id = plist_dict_get_item(static_cast<plist_t>(plist.get()), "CFBundleIdentifier");
      uint64_t len = 0;
      const char *s = PLIST_IS_STRING(id) ? plist_get_string_ptr(id, &len) : nullptr;
      return s ? std::string(s, len) : std::string();
   }
   std::string p(path);
   while (p.size() > 1 && p.back() == '/') {
      p.pop_back();
   }
   size_t slash = p.rfind('/');
   return slash == std::string::npos ? p : p.substr(slash + 1);
}

int SignOne(const Options &o, const Identity &id, const char *path) {
   UniqueFd fd(OpenCode(path));
   if (!fd) {
      return CannotOpen(path);
   }
   SignatureObjects existing;
   if (!o.force && ReadSignatureObjects(fd.get(), &existing) == ReadStatus::Ok) {
      return Complain(path, "is already signed (use -f to replace the signature)");
   }
   std::string identifier = o.identifier ? o.identifier : DefaultIdentifier(fd.get(), path);
   std::string error;
   if (!SignCode(fd.get(), identifier.c_str(), id, &error)) {
      return Complain(path, error);
   }
   fprintf(stderr, "%s: signed %s\n", path, identifier.c_str());
   return kOk;
}

// Reads and checks the signature of path; prints why when it fails.
int Check(const char *path, UniqueFd *fd, SignatureObjects *objs, Evidence *ev) {
   fd->reset(OpenCode(path));
   if (!*fd) {
      return CannotOpen(path);
   }
   switch (ReadSignatureObjects(fd->get(), objs)) {
   case ReadStatus::Ok: break;
   case ReadStatus::Unopenable: return Complain(path, "is neither a regular file nor a bundle");
   case ReadStatus::Unsigned: return Complain(path, "is not signed");
   }
   std::string reason;
   if (!CheckSignature(fd->get(), *objs, BuildTrustPolicy(), ev, &reason)) {
      return Complain(path, "invalid signature: " + reason);
   }
   return kOk;
}

// -vv: what the valid signature covers, one line each.
void Detail(const char *path, const SignatureObjects &objs, const Evidence &ev) {
   const std::string cdhash = HexOf(ev.cdhash.data(), ev.cdhash.size());
   fprintf(stderr, "%s: identifier %s, cdhash %s, signed by %s, anchor %s\n", path,
           ev.cd.identifier.c_str(), cdhash.c_str(), SubjectOf(ev.chain[0].get()).c_str(),
           ev.vendorAnchor ? "a vendor root" : "the admin store");
   if (objs.kind == CodeKind::File) {
      fprintf(stderr, "%s: content of %llu bytes, sha256 %s\n", path,
              static_cast<unsigned long long>(ev.cd.contentSize),
              HexOf(ev.cd.contentHash.data(), ev.cd.contentHash.size()).c_str());
      return;
   }
   Seal seal;
   ParseCodeResources(objs.resources, &seal);  // parsed once already by the check
   for (const auto &[rel, e] : seal) {
      if (e.isLink) {
         fprintf(stderr, "%s: sealed %s -> %s\n", path, rel.c_str(), e.target.c_str());
      } else {
         fprintf(stderr, "%s: sealed %s sha256 %s\n", path, rel.c_str(),
                 HexOf(e.hash.data(), e.hash.size()).c_str());
      }
   }
}

int VerifyOne(const Requirement *req, int verbosity, const char *path) {
   UniqueFd fd;
   SignatureObjects objs;
   Evidence ev;
   int rc = Check(path, &fd, &objs, &ev);
   if (rc != kOk) {
      return rc;
   }
   rc = req && !EvaluateRequirement(*req, ev) ? kUnsatisfied : kOk;
   if (rc == kUnsatisfied) {
      fprintf(stderr, "%s: valid, but does not satisfy the requirement\n", path);
   } else {
      fprintf(stderr, "%s: valid%s\n", path, req ? " and satisfies the requirement" : "");
   }
   if (verbosity > 1) {
      Detail(path, objs, ev);
   }
   return rc;
}

int DisplayOne(const char *path) {
   UniqueFd fd;
   SignatureObjects objs;
   Evidence ev;
   int rc = Check(path, &fd, &objs, &ev);
   if (rc != kOk) {
      return rc;
   }
   printf("Path=%s\nIdentifier=%s\nKind=%s\nCDHash=%s\nSubject=%s\n", path,
          ev.cd.identifier.c_str(), ev.cd.kind == CodeKind::File ? "file" : "bundle",
          HexOf(ev.cdhash.data(), ev.cdhash.size()).c_str(), SubjectOf(ev.chain[0].get()).c_str());
   for (const auto &cert : ev.chain) {
      printf("Authority=%s\n", SubjectOf(cert.get()).c_str());
   }
   printf("Anchor=%s\n", ev.vendorAnchor ? "vendor" : "admin store");
   return kOk;
}

int RemoveOne(const char *path) {
   UniqueFd fd(OpenCode(path));
   std::string error;
   if (!fd) {
      return CannotOpen(path);
   }
   return RemoveSignature(fd.get(), &error) ? kOk : Complain(path, error);
}

// Writes data to file, or to standard output for "-".
int WriteDetached(const char *file, const std::string &data) {
   const bool toStdout = strcmp(file, "-") == 0;
   FILE *out = toStdout ? stdout : fopen(file, "we");
   if (out == nullptr) {
      return Complain(file, std::string("cannot create: ") + strerror(errno));
   }
   bool ok = fwrite(data.data(), 1, data.size(), out) == data.size();
   int error = errno;
   if ((toStdout ? fflush(out) : fclose(out)) != 0 && ok) {
      ok = false;
      error = errno;
   }
   return ok ? kOk : Complain(toStdout ? "standard output" : file,
                              std::string("cannot write: ") + strerror(error));
}

int Detached(const Options &o, const char *path) {
   UniqueFd fd(OpenCode(path));
   std::string error, data;
   if (!fd) {
      return CannotOpen(path);
   }
   if (o.mode == Mode::Export) {
      if (!ExportDetached(fd.get(), &data, &error)) {
         return Complain(path, error);
      }
      return WriteDetached(o.detached, data);
   }
   SignatureObjects existing;
   if (!o.force && ReadSignatureObjects(fd.get(), &existing) == ReadStatus::Ok) {
      return Complain(path, "is already signed (use -f to replace the signature)");
   }
   UniqueFd in(open(o.detached, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
   char buf[4096];
   ssize_t n = 0;
   while (in && data.size() <= 64 * 1024 && (n = read(in.get(), buf, sizeof buf)) > 0) {
      data.append(buf, static_cast<size_t>(n));
   }
   if (!in || n < 0) {
      return Complain(o.detached, std::string("cannot read: ") + strerror(errno));
   }
   return AttachDetached(fd.get(), data, &error) ? kOk : Complain(path, error);
}

bool SetMode(Options *o, Mode m) {
   if (o->mode != Mode::None && o->mode != m) {
      return false;
   }
   o->mode = m;
   return true;
}

// Options without a short form, numbered past every character.
enum LongOnly { kRemoveOpt = 256, kExportOpt, kAttachOpt, kVersionOpt };
constexpr char kShortOptions[] = ":s:i:fvR:dh";

// The long option (up to any "=") that getopt just consumed.
std::string LongOptionText(char **argv) {
   std::string text(argv[optind - 1]);
   return text.substr(0, text.find('='));
}

// What getopt refused ('?' or ':'), in the user's own spelling. getopt has
// moved past a long option, and past a short one that lacks its argument
// (which always ends its word), so those are argv[optind - 1].
std::string Refused(int c, char **argv) {
   const bool known =
      optopt >= 256 || (optopt > 0 && optopt != ':' && strchr(kShortOptions + 1, optopt));
   if (c == ':') {
      const std::string opt = strncmp(argv[optind - 1], "--", 2) == 0
                                 ? LongOptionText(argv)
                                 : std::string("-") + static_cast<char>(optopt);
      return opt + " needs an argument";
   }
   if (optopt == 0) {
      return "unknown option " + LongOptionText(argv);
   }
   if (known) {
      return LongOptionText(argv) + " takes no argument";
   }
   return std::string("unknown option -") + static_cast<char>(optopt);
}

// What is wrong with a complete command line, or null when nothing is.
const char *Misuse(const Options &o, int nPaths) {
   if (o.requirement && o.mode != Mode::Verify) {
      return "-R needs -v";
   }
   if (o.identifier && o.mode != Mode::Sign) {
      return "-i needs -s";
   }
   if (o.force && o.mode != Mode::Sign && o.mode != Mode::Attach) {
      return "-f needs -s or --attach";
   }
   if (o.mode == Mode::None) {
      return "no mode given: one of -s, -v, -d, --remove-signature, --export, --attach";
   }
   if (nPaths < 1) {
      return "no path given";
   }
   bool onePath = o.mode == Mode::Display || o.mode == Mode::Export || o.mode == Mode::Attach;
   if (onePath && nPaths != 1) {
      return o.mode == Mode::Display  ? "-d takes one path"
             : o.mode == Mode::Export ? "--export takes one path"
                                      : "--attach takes one path";
   }
   return nullptr;
}

}  // namespace

int main(int argc, char **argv) {
   static const struct option kLong[] = {
      {"sign", required_argument, nullptr, 's'},
      {"identifier", required_argument, nullptr, 'i'},
      {"force", no_argument, nullptr, 'f'},
      {"verify", no_argument, nullptr, 'v'},
      {"requirement", required_argument, nullptr, 'R'},
      {"display", no_argument, nullptr, 'd'},
      {"remove-signature", no_argument, nullptr, kRemoveOpt},
      {"export", required_argument, nullptr, kExportOpt},
      {"attach", required_argument, nullptr, kAttachOpt},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, kVersionOpt},
      {nullptr, 0, nullptr, 0},
   };
   Options o;
   int c;
   opterr = 0;  // our own messages, without the program's path
   while ((c = getopt_long(argc, argv, kShortOptions, kLong, nullptr)) != -1) {
      bool ok = true;
      const char *twice = nullptr;
      switch (c) {
      case 's':
         ok = SetMode(&o, Mode::Sign);
         twice = o.identity ? "-s given twice" : nullptr;
         o.identity = optarg;
         break;
      case 'i': o.identifier = optarg; break;
      case 'f': o.force = true; break;
      case 'v': ok = SetMode(&o, Mode::Verify); o.verbosity++; break;
      case 'R': o.requirement = optarg; break;
      case 'd': ok = SetMode(&o, Mode::Display); break;
      case kRemoveOpt: ok = SetMode(&o, Mode::Remove); break;
      case kExportOpt:
      case kAttachOpt:
         ok = SetMode(&o, c == kExportOpt ? Mode::Export : Mode::Attach);
         twice = o.detached ? (c == kExportOpt ? "--export given twice" : "--attach given twice")
                            : nullptr;
         o.detached = optarg;
         break;
      case 'h': fputs(kUsageText, stdout); return fflush(stdout) == 0 ? kOk : kInvalid;
      case kVersionOpt:
         printf("halcyx-sign %s\n", HALCYX_VERSION);
         return fflush(stdout) == 0 ? kOk : kInvalid;
      default: return Usage(Refused(c, argv));
      }
      if (!ok) {
         return Usage("one mode at a time");
      }
      if (twice) {
         return Usage(twice);
      }
   }
   const int nPaths = argc - optind;
   if (const char *what = Misuse(o, nPaths)) {
      return Usage(what);
   }

   Requirement req;
   if (o.requirement) {
      // "-R=text" is accepted as well as "-R text".
      const char *text = o.requirement[0] == '=' ? o.requirement + 1 : o.requirement;
      std::string error;
      if (!ParseRequirement(text, &req, &error)) {
         return Usage("requirement: " + error);
      }
   }
   Identity id;
   if (o.mode == Mode::Sign) {
      std::string error;
      if (!LoadIdentity(o.identity, &id, &error)) {
         fprintf(stderr, "halcyx-sign: %s\n", error.c_str());
         return kInvalid;
      }
   }

   int worst = kOk;
   for (int i = optind; i < argc; i++) {
      int rc = kOk;
      switch (o.mode) {
      case Mode::Sign: rc = SignOne(o, id, argv[i]); break;
      case Mode::Verify: rc = VerifyOne(o.requirement ? &req : nullptr, o.verbosity, argv[i]); break;
      case Mode::Display: rc = DisplayOne(argv[i]); break;
      case Mode::Remove: rc = RemoveOne(argv[i]); break;
      case Mode::Export:
      case Mode::Attach: rc = Detached(o, argv[i]); break;
      case Mode::None: break;
      }
      // An invalid path outranks a merely unsatisfied requirement.
      if (rc == kInvalid || (rc == kUnsatisfied && worst == kOk)) {
         worst = rc;
      }
   }
   return worst;
}
