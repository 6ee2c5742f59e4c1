// SPDX-License-Identifier: MIT
/*
 * Code signatures: the module's internal interface.
 *
 * Invariants that every piece below keeps (this module is what decides
 * whether root runs code, so each is fail-closed):
 *  - Signed code is reached through one descriptor, opened with O_NOFOLLOW;
 *    everything inside a bundle is opened relative to it, again without
 *    following links. Nothing is looked up by path twice.
 *  - Every object read from disk has a size cap, and every parser refuses
 *    whatever it does not recognise instead of skipping it.
 *  - Trust comes only from the roots compiled into the verifier and from a
 *    root-owned directory at a fixed path; never from the environment or
 *    from OpenSSL's default locations.
 *
 * The public entry points (codesign.h) use the build's own TrustPolicy; the
 * signing tool, the tests and the benchmark use the entry points here.
 */
#ifndef HALCYX_CODESIGN_CODESIGNINT_H
#define HALCYX_CODESIGN_CODESIGNINT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include <openssl/types.h>
#include <openssl/x509.h>
#include <plist/plist.h>

namespace halcyx::codesign {

using Digest = std::array<uint8_t, 32>;

// Extended attributes of a signed regular file.
inline constexpr const char kCodeDirectoryXattr[] = "user.zorvex.cs.CodeDirectory";
inline constexpr const char kCodeSignatureXattr[] = "user.zorvex.cs.CodeSignature";
// Inside a bundle, relative to the bundle directory.
inline constexpr const char kSignatureDir[] = "Contents/_CodeSignature";
inline constexpr const char kInfoPlist[] = "Contents/Info.plist";

inline constexpr size_t kMaxCodeDirectory = 2048;
inline constexpr size_t kMaxSignature = 16 * 1024;
inline constexpr size_t kMaxInfoPlist = 1024 * 1024;
inline constexpr size_t kMaxCodeResources = 16 * 1024 * 1024;
// What one file's extended attributes may hold together on ext4, with room
// for the attribute headers.
inline constexpr size_t kMaxXattrPayload = 3800;

std::string HexOf(const uint8_t *bytes, size_t size);
Digest Sha256(const void *data, size_t size);
// SHA-256, fetched from the provider once for the process.
const EVP_MD *Sha256Md();

struct OsslFree {
   void operator()(X509 *p) const;
   void operator()(EVP_PKEY *p) const;
   void operator()(STACK_OF(X509) *p) const;  // frees the certificates too
};
using UniqueX509 = std::unique_ptr<X509, OsslFree>;
using UniquePkey = std::unique_ptr<EVP_PKEY, OsslFree>;
using UniqueCerts = std::unique_ptr<STACK_OF(X509), OsslFree>;

struct PlistFree {
   void operator()(void *p) const;
};
using UniquePlist = std::unique_ptr<void, PlistFree>;

/* ---- Code directory --------------------------------------------------- */

enum class CodeKind { File, Bundle };

struct CodeDirectory {
   CodeKind kind = CodeKind::File;
   std::string identifier;
   uint64_t contentSize = 0;  // file
   Digest contentHash{};      // file
   Digest infoPlistHash{};    // bundle
   Digest resourcesHash{};    // bundle
};

// Accepts exactly the canonical text that FormatCodeDirectory writes.
bool ParseCodeDirectory(std::string_view text, CodeDirectory *out);
std::string FormatCodeDirectory(const CodeDirectory &cd);
// Well-formed UTF-8 (no overlongs, surrogates or values past U+10FFFF).
bool IsUtf8(std::string_view s);
// An identifier may hold any UTF-8 text without control characters.
bool IdentifierIsValid(std::string_view identifier);

/* ---- CodeResources (the seal of a bundle's files) --------------------- */

struct SealedEntry {
   bool isLink = false;
   Digest hash{};        // regular file
   std::string target;   // symbolic link
};
using Seal = std::map<std::string, SealedEntry>;

bool ParseCodeResources(std::string_view xml, Seal *out);
std::string FormatCodeResources(const Seal &seal);
// Lists every regular file and symbolic link under the bundle directory
// (except the signature directory) with its hash or target. False when the
// bundle holds anything else or a link that leaves it; problem, when given,
// then names the entry and what is wrong with it.
bool CollectSeal(int bundleFd, Seal *out, std::string *problem = nullptr);
// Compares the bundle's contents with the seal; false at the first
// difference (extra, missing or changed entry). difference, when given,
// then names that entry, relative to the bundle, and how it differs.
bool CheckSeal(int bundleFd, const Seal &seal, std::string *difference = nullptr);

/* ---- Trust ------------------------------------------------------------ */

struct TrustPolicy {
   // Roots that chains may end at and that "anchor apple" names, parsed
   // once; pinnedSha256[i] is the SHA-256 of vendorRoots[i]'s DER.
   std::vector<std::shared_ptr<X509>> vendorRoots;
   std::vector<Digest> pinnedSha256;
   // A directory of PEM root certificates, used only when every component
   // of the path is owned by root and writable by nobody else. Empty: none.
   std::string adminStore;
};

// The build's policy: the compiled-in vendor roots and the fixed admin store.
const TrustPolicy &BuildTrustPolicy();
// Adds a vendor root given as DER, pinned to pin; false (and nothing added)
// when the bytes are not one certificate or do not hash to pin.
bool AddVendorRoot(TrustPolicy *policy, std::string_view der, const Digest &pin);
// Reads the admin store's anchors; empty when the store is absent or fails
// the ownership rule.
std::vector<UniqueX509> LoadAdminStore(const std::string &dir);
bool StorePathIsRootOwned(const std::string &dir);

/* ---- Signature objects and evidence ------------------------------------ */

struct SignatureObjects {
   CodeKind kind = CodeKind::File;
   std::string codeDirectory;
   std::string signature;  // detached CMS, DER
   std::string infoPlist;  // bundle
   std::string resources;  // bundle
};

// What a valid signature establishes, for the requirement evaluator.
struct Evidence {
   CodeDirectory cd;
   Digest cdhash{};
   std::vector<UniqueX509> chain;  // leaf first, anchor last
   bool vendorAnchor = false;      // the anchor is a pinned vendor root
   Digest anchorHash{};            // SHA-256 of the anchor's DER
   std::vector<Digest> trustedAnchors;  // every anchor that was trusted
   UniquePlist info;               // bundle's Info.plist dictionary, or null
};

enum class ReadStatus { Ok, Unopenable, Unsigned };

// Opens path (O_NOFOLLOW) as a regular file or a bundle directory; -1 with
// errno EINVAL when it is something else (a FIFO, a device, a socket).
int OpenCode(const char *path);
// Reads the signature objects of the code behind fd. Unopenable: not a
// regular file or bundle; Unsigned: an object is missing or over its cap.
ReadStatus ReadSignatureObjects(int fd, SignatureObjects *out);
// Checks the objects against the code behind fd and the trust policy.
// On failure reason names the check that failed.
bool CheckSignature(int fd, const SignatureObjects &objs, const TrustPolicy &policy,
                    Evidence *out, std::string *reason);
// CMS and chain checks alone.
bool CheckCms(std::string_view codeDirectory, std::string_view signature,
              const TrustPolicy &policy, Evidence *out, std::string *reason);

/* ---- Requirements ------------------------------------------------------ */

struct RequirementNode;
struct Requirement {
   std::vector<RequirementNode> nodes;
   int root = -1;
   Requirement();
   ~Requirement();
   Requirement(Requirement &&) noexcept;
   Requirement &operator=(Requirement &&) noexcept;
};

// On failure *error names the byte offset and what was expected there.
bool ParseRequirement(std::string_view text, Requirement *out, std::string *error);
bool EvaluateRequirement(const Requirement &req, const Evidence &ev);
// The requirement that codesignVerify checks, for one identifier; false when
// the identifier cannot stand inside a quoted string.
bool FormatProductRequirement(const char *identifier, std::string *out);

/* ---- Verification with an explicit policy ------------------------------ */

// The result codes of codesignVerify (0 for success).
// With rootOnly, code that anyone but root can still change is refused (7).
int VerifyFdWithPolicy(int fd, const char *identifier, const TrustPolicy &policy,
                       bool rootOnly = false);
int VerifyPathWithPolicy(const char *path, const char *identifier, const TrustPolicy &policy);

/* ---- Signing ------------------------------------------------------------ */

struct Identity {
   UniquePkey key;
   UniqueX509 leaf;
   UniqueCerts intermediates;
};

// A PEM file holding the certificate chain, leaf first, and the private key
// (or NAME.pem beside NAME.key holding the key). Self-signed certificates in
// it are dropped (a signature never carries the root).
bool LoadIdentity(const char *pemPath, Identity *out, std::string *error);
// Detached CMS over data (DER).
bool SignData(const Identity &id, std::string_view data, std::string *der, std::string *error);
// Signs the code behind fd (a regular file or a bundle directory).
bool SignCode(int fd, const char *identifier, const Identity &id, std::string *error);
bool RemoveSignature(int fd, std::string *error);
// The detached form: a property list carrying a file's code directory and
// signature, for carriers that drop extended attributes.
bool ExportDetached(int fd, std::string *plistXml, std::string *error);
bool AttachDetached(int fd, std::string_view plistData, std::string *error);

/* ---- Small I/O helpers --------------------------------------------------- */

// Reads a whole regular file opened at dirFd/relPath without following any
// link on the way; false when it is missing, not regular or over cap.
bool ReadFileAt(int dirFd, const char *relPath, size_t cap, std::string *out);
// Opens a relative path component by component with O_NOFOLLOW.
int OpenAtNoFollow(int dirFd, const char *relPath, int flags);
// SHA-256 and size of a regular file's bytes, read through fd with pread,
// or mapped when only root can change it (the descriptor's offset does not
// move). Reads to the end of the file but never more than limit + 1 bytes:
// a size over limit means the file is not the one expected.
bool HashFd(int fd, Digest *digest, uint64_t *size, uint64_t limit = UINT64_MAX);
// Bytes that HashFd has hashed in this process, so that tests can tell that
// cheap checks ran before the content was read.
uint64_t BytesHashed();
bool ParseInfoPlist(std::string_view data, UniquePlist *out);
// Only root can change the object behind fd (st is its fstat): owned by
// root, no group or other write, on a local file system.
bool OnlyRootCanWrite(int fd, const struct stat &st);
// The same for a regular file, or for a bundle directory and everything in
// it (one file system, every entry root's and not writable by others).
bool OnlyRootCanChange(int fd);

}  // namespace halcyx::codesign

#endif  // HALCYX_CODESIGN_CODESIGNINT_H
