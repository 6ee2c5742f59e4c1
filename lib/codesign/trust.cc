// SPDX-License-Identifier: MIT
/*
 * Trust: the CMS signature over a code directory, the certificate chain
 * behind it and the anchors it may end at.
 *
 * A signature is SignedData, detached, with exactly one signer using
 * SHA-256, carrying the leaf and intermediates but never a self-signed
 * certificate. The leaf must hold the code-signing extended key usage and
 * exactly one subject common name, and an intermediate that restricts its
 * extended key usages must include code signing. Chains are built with
 * purpose "any" (the S/MIME purpose would refuse code-signing leaves) over a
 * store that
 * holds only the pinned vendor roots and, when its directory passes the
 * ownership rule, the admin store's roots.
 */
#include <cerrno>
#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "codesignAnchors.h"
#include "codesignInt.h"
#include "cryptoInit.h"
#include "internal/unique.h"

namespace halcyx::codesign {

void OsslFree::operator()(X509 *p) const { X509_free(p); }
void OsslFree::operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
void OsslFree::operator()(STACK_OF(X509) *p) const { sk_X509_pop_free(p, X509_free); }
void PlistFree::operator()(void *p) const { plist_free(static_cast<plist_t>(p)); }

namespace {

struct CmsFree {
   void operator()(CMS_ContentInfo *p) const { CMS_ContentInfo_free(p); }
   void operator()(BIO *p) const { BIO_free(p); }
   void operator()(X509_STORE *p) const { X509_STORE_free(p); }
   void operator()(X509_STORE_CTX *p) const { X509_STORE_CTX_free(p); }
};
using UniqueCms = std::unique_ptr<CMS_ContentInfo, CmsFree>;
using UniqueBio = std::unique_ptr<BIO, CmsFree>;
using UniqueStore = std::unique_ptr<X509_STORE, CmsFree>;
using UniqueStoreCtx = std::unique_ptr<X509_STORE_CTX, CmsFree>;

constexpr size_t kMaxAnchorFile = 256 * 1024;
constexpr size_t kMaxAnchorFiles = 256;

Digest CertHash(X509 *cert) {
   unsigned char *der = nullptr;
   int len = i2d_X509(cert, &der);
   Digest d{};
   if (len > 0) {
      d = Sha256(der, static_cast<size_t>(len));
   }
   OPENSSL_free(der);
   return d;
}

bool StatIsRootOnly(const struct stat &st) {
   return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Exactly one subject common name, and the code-signing usage.
bool LeafIsAcceptable(X509 *leaf, std::string *reason) {
   X509_NAME *subject = X509_get_subject_name(leaf);
   int first = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
   if (first < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, first) >= 0) {
      *reason = "the signing certificate must have exactly one common name";
      return false;
   }
   uint32_t flags = X509_get_extension_flags(leaf);
   if ((flags & EXFLAG_INVALID) != 0 || (flags & EXFLAG_XKUSAGE) == 0 ||
       (X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) == 0) {
      *reason = "the signing certificate lacks the code-signing usage";
      return false;
   }
   if ((flags & EXFLAG_KUSAGE) != 0 && (X509_get_key_usage(leaf) & KU_DIGITAL_SIGNATURE) == 0) {
      *reason = "the signing certificate may not make signatures";
      return false;
   }
   return true;
}

UniqueX509 CertFromDer(std::string_view der) {
   auto p = reinterpret_cast<const unsigned char *>(der.data());
   const unsigned char *end = p + der.size();
   UniqueX509 cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
   return p == end ? std::move(cert) : nullptr;
}

}  // namespace

bool AddVendorRoot(TrustPolicy *policy, std::string_view der, const Digest &pin) {
   UniqueX509 root = CertFromDer(der);
   if (!root || CertHash(root.get()) != pin) {
      return false;
   }
   policy->vendorRoots.emplace_back(root.release(), X509_free);
   policy->pinnedSha256.push_back(pin);
   return true;
}

const TrustPolicy &BuildTrustPolicy() {
   static const TrustPolicy policy = [] {
      InitCrypto();  // first use of libcrypto on every verification path
      TrustPolicy p;
      for (const auto &root : kHalcyxVendorRoots) {
         Digest pin;
         std::copy(root.sha256, root.sha256 + 32, pin.begin());
         AddVendorRoot(&p, std::string_view(reinterpret_cast<const char *>(root.der), root.size),
                       pin);
      }
      p.adminStore = HALCYX_ADMIN_TRUST_STORE;
      return p;
   }();
   return policy;
}

/*
 * Opens dir walking from "/" one component at a time without following
 * links, and checks every directory on the way, the last included: owned by
 * root and writable by nobody else. A store reached through a link is
 * refused. Returns the directory's descriptor, or -1.
 */
static int OpenRootOwnedDir(const std::string &dir) {
   if (dir.empty() || dir.front() != '/') {
      return -1;
   }
   UniqueFd cur(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   struct stat st;
   if (!cur || fstat(cur.get(), &st) != 0 || !StatIsRootOnly(st)) {
      return -1;
   }
   std::string_view rest = std::string_view(dir).substr(1);
   while (!rest.empty()) {
      size_t slash = rest.find('/');
      std::string part(rest.substr(0, slash));
      rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
      if (part.empty()) {
         continue;
      }
      if (part == "." || part == "..") {
         return -1;
      }
      UniqueFd next(openat(cur.get(), part.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!next || fstat(next.get(), &st) != 0 || !StatIsRootOnly(st)) {
         return -1;
      }
      cur = std::move(next);
   }
   return cur.release();
}

bool StorePathIsRootOwned(const std::string &dir) {
   return UniqueFd(OpenRootOwnedDir(dir)).get() >= 0;
}

std::vector<UniqueX509> LoadAdminStore(const std::string &dir) {
   std::vector<UniqueX509> anchors;
   UniqueFd dirFd(OpenRootOwnedDir(dir));
   int dupFd = dirFd ? fcntl(dirFd.get(), F_DUPFD_CLOEXEC, 0) : -1;
   std::unique_ptr<DIR, int (*)(DIR *)> d(dupFd >= 0 ? fdopendir(dupFd) : nullptr, closedir);
   if (!d) {
      if (dupFd >= 0) {
         close(dupFd);
      }
      return anchors;
   }
   std::vector<std::string> names;
   while (struct dirent *e = readdir(d.get())) {
      std::string_view n(e->d_name);
      if (n.size() > 4 && n.substr(n.size() - 4) == ".pem" && names.size() < kMaxAnchorFiles) {
         names.emplace_back(n);
      }
   }
   std::sort(names.begin(), names.end());
   for (const std::string &name : names) {
      UniqueFd fd(openat(dirFd.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
      struct stat st;
      std::string pem;
      // Each file must be root's as well: the directory rule alone would
      // still accept a hard link to someone else's file placed there by root.
      if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || !StatIsRootOnly(st) ||
          !ReadFileAt(dirFd.get(), name.c_str(), kMaxAnchorFile, &pem)) {
         continue;
      }
      UniqueBio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      while (bio) {
         UniqueX509 cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
         if (!cert) {
            break;
         }
         anchors.push_back(std::move(cert));
      }
      ERR_clear_error();
   }
   return anchors;
}

bool CheckCms(std::string_view codeDirectory, std::string_view signature,
              const TrustPolicy &policy, Evidence *out, std::string *reason) {
   ERR_clear_error();
   if (signature.empty() || signature.size() > kMaxSignature) {
      *reason = "the signature has no acceptable size";
      return false;
   }
   auto p = reinterpret_cast<const unsigned char *>(signature.data());
   const unsigned char *end = p + signature.size();
   UniqueCms cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(signature.size())));
   if (!cms || p != end || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
       CMS_is_detached(cms.get()) != 1) {
      *reason = "the signature is not detached CMS signed data";
      return false;
   }
   STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms.get());
   if (sk_CMS_SignerInfo_num(signers) != 1) {
      *reason = "the signature must have exactly one signer";
      return false;
   }
   X509_ALGOR *digestAlg = nullptr;
   CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, nullptr, &digestAlg,
                            nullptr);
   if (!digestAlg || OBJ_obj2nid(digestAlg->algorithm) != NID_sha256) {
      *reason = "the signature does not use SHA-256";
      return false;
   }
   UniqueCerts untrusted(CMS_get1_certs(cms.get()));
   for (int i = 0; untrusted && i < sk_X509_num(untrusted.get()); i++) {
      if ((X509_get_extension_flags(sk_X509_value(untrusted.get(), i)) & EXFLAG_SS) != 0) {
         *reason = "the signature carries a self-signed certificate";
         return false;
      }
   }
   UniqueBio content(BIO_new_mem_buf(codeDirectory.data(), static_cast<int>(codeDirectory.size())));
   if (!content || CMS_verify(cms.get(), nullptr, nullptr, content.get(), nullptr,
                              CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1) {
      *reason = "the signature does not match the code directory";
      return false;
   }
   STACK_OF(X509) *signerCerts = CMS_get0_signers(cms.get());
   X509 *leaf = sk_X509_num(signerCerts) == 1 ? sk_X509_value(signerCerts, 0) : nullptr;
   sk_X509_free(signerCerts);
   if (!leaf || !LeafIsAcceptable(leaf, reason)) {
      if (!leaf) {
         *reason = "the signing certificate is missing";
      }
      return false;
   }

   UniqueStore store(X509_STORE_new());
   if (!store) {
      *reason = "out of memory";
      return false;
   }
   std::vector<Digest> anchors;
   for (size_t i = 0; i < policy.vendorRoots.size() && i < policy.pinnedSha256.size(); i++) {
      if (X509_STORE_add_cert(store.get(), policy.vendorRoots[i].get()) == 1) {
         anchors.push_back(policy.pinnedSha256[i]);
      }
   }
   if (!policy.adminStore.empty()) {
      for (UniqueX509 &cert : LoadAdminStore(policy.adminStore)) {
         if (X509_STORE_add_cert(store.get(), cert.get()) == 1) {
            anchors.push_back(CertHash(cert.get()));
         }
      }
   }
   UniqueStoreCtx ctx(X509_STORE_CTX_new());
   if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), leaf, untrusted.get()) != 1 ||
       X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_ANY) != 1) {
      *reason = "out of memory";
      return false;
   }
   if (X509_verify_cert(ctx.get()) != 1) {
      *reason = std::string("the certificate chain is not trusted: ") +
                X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()));
      return false;
   }
   UniqueCerts chain(X509_STORE_CTX_get1_chain(ctx.get()));
   if (!chain || sk_X509_num(chain.get()) < 1) {
      *reason = "the certificate chain is empty";
      return false;
   }
   // Purpose "any" leaves intermediates' usages unchecked: an issuer that
   // restricts its usages must allow code signing.
   for (int i = 1; i < sk_X509_num(chain.get()) - 1; i++) {
      X509 *ca = sk_X509_value(chain.get(), i);
      if ((X509_get_extension_flags(ca) & EXFLAG_XKUSAGE) != 0 &&
          (X509_get_extended_key_usage(ca) & (XKU_CODE_SIGN | XKU_ANYEKU)) == 0) {
         *reason = "an issuing certificate does not allow code signing";
         return false;
      }
   }
   out->chain.clear();
   while (sk_X509_num(chain.get()) > 0) {
      out->chain.emplace_back(sk_X509_shift(chain.get()));
   }
   out->anchorHash = CertHash(out->chain.back().get());
   out->vendorAnchor = false;
   for (const Digest &pin : policy.pinnedSha256) {
      out->vendorAnchor |= pin == out->anchorHash;
   }
   out->trustedAnchors = std::move(anchors);
   out->cdhash = Sha256(codeDirectory.data(), codeDirectory.size());
   return true;
}

// A PEM file of the signer's (not a privileged path): read as named.
static bool ReadPemFile(const std::string &path, std::string *out) {
   UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
   char buf[8192];
   ssize_t n = 0;
   out->clear();
   while (fd && out->size() <= kMaxAnchorFile && (n = read(fd.get(), buf, sizeof buf)) > 0) {
      out->append(buf, static_cast<size_t>(n));
   }
   return fd && n >= 0 && !out->empty() && out->size() <= kMaxAnchorFile;
}

static UniquePkey PrivateKeyIn(const std::string &pem) {
   auto noPrompt = [](char *, int, int, void *) { return -1; };
   UniqueBio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
   UniquePkey key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPrompt, nullptr) : nullptr);
   ERR_clear_error();
   return key;
}

bool LoadIdentity(const char *pemPath, Identity *out, std::string *error) {
   std::string pem, keyPem;
   errno = 0;
   if (!ReadPemFile(pemPath, &pem)) {
      *error = std::string("cannot read the identity ") + pemPath + ": " +
               (errno != 0 ? strerror(errno) : "empty or too large");
      return false;
   }
   Identity id;
   id.key = PrivateKeyIn(pem);
   // The key may also stand beside the certificates: NAME.key for NAME.pem.
   std::string path(pemPath);
   if (!id.key && path.size() > 4 && path.compare(path.size() - 4, 4, ".pem") == 0 &&
       ReadPemFile(path.substr(0, path.size() - 4) + ".key", &keyPem)) {
      id.key = PrivateKeyIn(keyPem);
   }
   UniqueBio certBio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
   id.intermediates.reset(sk_X509_new_null());
   while (certBio && id.intermediates) {
      UniqueX509 cert(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
      if (!cert) {
         break;
      }
      if (!id.leaf) {
         id.leaf = std::move(cert);
      } else if ((X509_get_extension_flags(cert.get()) & EXFLAG_SS) == 0) {
         sk_X509_push(id.intermediates.get(), cert.release());
      }
   }
   ERR_clear_error();
   if (!id.key || !id.leaf || X509_check_private_key(id.leaf.get(), id.key.get()) != 1) {
      *error = std::string("the identity ") + pemPath +
               " must hold (or stand beside, as NAME.key) an unencrypted private key, and "
               "its certificate first";
      return false;
   }
   if (!LeafIsAcceptable(id.leaf.get(), error)) {
      *error = std::string("the identity ") + pemPath + ": " + *error;
      return false;
   }
   *out = std::move(id);
   return true;
}

bool SignData(const Identity &id, std::string_view data, std::string *der, std::string *error) {
   constexpr unsigned kFlags = CMS_BINARY | CMS_DETACHED | CMS_NOATTR | CMS_NOSMIMECAP;
   UniqueBio in(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
   UniqueCms cms(in ? CMS_sign(nullptr, nullptr, id.intermediates.get(), nullptr,
                               kFlags | CMS_PARTIAL)
                    : nullptr);
   if (!cms || !CMS_add1_signer(cms.get(), id.leaf.get(), id.key.get(), EVP_sha256(), kFlags) ||
       CMS_final(cms.get(), in.get(), nullptr, kFlags) != 1) {
      *error = "signing failed";
      ERR_clear_error();
      return false;
   }
   unsigned char *buf = nullptr;
   int len = i2d_CMS_ContentInfo(cms.get(), &buf);
   if (len <= 0) {
      *error = "signing failed";
      return false;
   }
   der->assign(reinterpret_cast<char *>(buf), static_cast<size_t>(len));
   OPENSSL_free(buf);
   return true;
}

}  // namespace halcyx::codesign
