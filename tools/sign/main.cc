// SPDX-License-Identifier: MIT
// halcyx-sign: signs, verifies, shows and removes code signatures of files
// and bundles, and moves a file's signature in and out of a detached file.
//
// Exit status: 0 valid (or done), 1 invalid, unsigned or failed, 2 usage,
// 3 valid but the requirement given with -R is not satisfied.
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
};

int Usage() {
   fprintf(stderr,
           "usage: halcyx-sign -s IDENTITY [-i IDENTIFIER] [-f] PATH...\n"
           "       halcyx-sign -v [-R REQUIREMENT] PATH...\n"
           "       halcyx-sign -d PATH\n"
           "       halcyx-sign --remove-signature PATH...\n"
           "       halcyx-sign --export FILE PATH\n"
           "       halcyx-sign --attach FILE [-f] PATH\n");
   return kUsage;
}

int Complain(const char *path, const std::string &what) {
   fprintf(stderr, "%s: %s\n", path, what.c_str());
   return kInvalid;
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
      return Complain(path, std::string("cannot open: ") + strerror(errno));
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
int Check(const char *path, UniqueFd *fd, Evidence *ev) {
   fd->reset(OpenCode(path));
   if (!*fd) {
      return Complain(path, std::string("cannot open: ") + strerror(errno));
   }
   SignatureObjects objs;
   switch (ReadSignatureObjects(fd->get(), &objs)) {
   case ReadStatus::Ok: break;
   case ReadStatus::Unopenable: return Complain(path, "is neither a regular file nor a bundle");
   case ReadStatus::Unsigned: return Complain(path, "is not signed");
   }
   std::string reason;
   if (!CheckSignature(fd->get(), objs, BuildTrustPolicy(), ev, &reason)) {
      return Complain(path, "invalid signature: " + reason);
   }
   return kOk;
}

int VerifyOne(const Requirement *req, const char *path) {
   UniqueFd fd;
   Evidence ev;
   int rc = Check(path, &fd, &ev);
   if (rc != kOk) {
      return rc;
   }
   if (req && !EvaluateRequirement(*req, ev)) {
      fprintf(stderr, "%s: valid, but does not satisfy the requirement\n", path);
      return kUnsatisfied;
   }
   fprintf(stderr, "%s: valid%s\n", path, req ? " and satisfies the requirement" : "");
   return kOk;
}

int DisplayOne(const char *path) {
   UniqueFd fd;
   Evidence ev;
   int rc = Check(path, &fd, &ev);
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
      return Complain(path, std::string("cannot open: ") + strerror(errno));
   }
   return RemoveSignature(fd.get(), &error) ? kOk : Complain(path, error);
}

int Detached(const Options &o, const char *path) {
   UniqueFd fd(OpenCode(path));
   std::string error, data;
   if (!fd) {
      return Complain(path, std::string("cannot open: ") + strerror(errno));
   }
   if (o.mode == Mode::Export) {
      if (!ExportDetached(fd.get(), &data, &error)) {
         return Complain(path, error);
      }
      FILE *out = fopen(o.detached, "we");
      bool ok = out && fwrite(data.data(), 1, data.size(), out) == data.size();
      ok = (out && fclose(out) == 0) && ok;
      return ok ? kOk : Complain(o.detached, strerror(errno));
   }
   SignatureObjects existing;
   if (!o.force && ReadSignatureObjects(fd.get(), &existing) == ReadStatus::Ok) {
      return Complain(path, "is already signed (use -f to replace the signature)");
   }
   UniqueFd in(open(o.detached, O_RDONLY | O_CLOEXEC));
   char buf[4096];
   ssize_t n = 0;
   while (in && data.size() <= 64 * 1024 && (n = read(in.get(), buf, sizeof buf)) > 0) {
      data.append(buf, static_cast<size_t>(n));
   }
   if (!in || n < 0) {
      return Complain(o.detached, strerror(errno));
   }
   return AttachDetached(fd.get(), data, &error) ? kOk : Complain(path, error);
}

bool SetMode(Options *o, Mode m) {
   if (o->mode != Mode::None) {
      return false;
   }
   o->mode = m;
   return true;
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
      {"remove-signature", no_argument, nullptr, 'r'},
      {"export", required_argument, nullptr, 'e'},
      {"attach", required_argument, nullptr, 'a'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
   };
   Options o;
   int c;
   bool ok = true;
   while (ok && (c = getopt_long(argc, argv, "s:i:fvR:d", kLong, nullptr)) != -1) {
      switch (c) {
      case 's': ok = SetMode(&o, Mode::Sign); o.identity = optarg; break;
      case 'i': o.identifier = optarg; break;
      case 'f': o.force = true; break;
      case 'v': ok = SetMode(&o, Mode::Verify); break;
      case 'R': o.requirement = optarg; break;
      case 'd': ok = SetMode(&o, Mode::Display); break;
      case 'r': ok = SetMode(&o, Mode::Remove); break;
      case 'e': ok = SetMode(&o, Mode::Export); o.detached = optarg; break;
      case 'a': ok = SetMode(&o, Mode::Attach); o.detached = optarg; break;
      default: ok = false; break;
      }
   }
   int nPaths = argc - optind;
   bool onePath = o.mode == Mode::Display || o.mode == Mode::Export || o.mode == Mode::Attach;
   if (!ok || o.mode == Mode::None || nPaths < 1 || (onePath && nPaths != 1) ||
       (o.requirement && o.mode != Mode::Verify) ||
       (o.identifier && o.mode != Mode::Sign) ||
       (o.force && o.mode != Mode::Sign && o.mode != Mode::Attach)) {
      return Usage();
   }

   Requirement req;
   if (o.requirement) {
      // "-R=text" is accepted as well as "-R text".
      const char *text = o.requirement[0] == '=' ? o.requirement + 1 : o.requirement;
      std::string error;
      if (!ParseRequirement(text, &req, &error)) {
         fprintf(stderr, "halcyx-sign: requirement: %s\n", error.c_str());
         return kUsage;
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
      case Mode::Verify: rc = VerifyOne(o.requirement ? &req : nullptr, argv[i]); break;
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
