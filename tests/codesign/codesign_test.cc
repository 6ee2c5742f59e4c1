// SPDX-License-Identifier: MIT
// Code signatures against a PKI made for the test run: two signing
// organisations under a pinned vendor root, a third organisation, a leaf
// without the code-signing usage, an attacker root that copies the vendor
// root's subject, and a root that only the admin store trusts.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <openssl/pem.h>

#include "child.h"
#include "codesign.h"
#include "codesignInt.h"
#include "internal/unique.h"
#include "temp_dir.h"

using namespace halcyx::codesign;
using halcyx::UniqueFd;

namespace {

std::string Slurp(const std::string &path) {
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

void Spit(const std::string &path, const std::string &data) {
   std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

int Shell(const std::string &cmd) {
   int st = std::system(cmd.c_str());
   return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

std::string DerOf(const std::string &pemPath) {
   std::string pem = Slurp(pemPath);
   BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
   X509 *cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
   BIO_free(bio);
   unsigned char *der = nullptr;
   int len = cert ? i2d_X509(cert, &der) : 0;
   std::string out(reinterpret_cast<char *>(der), static_cast<size_t>(len > 0 ? len : 0));
   OPENSSL_free(der);
   X509_free(cert);
   return out;
}

// Each test works in its own temporary directory; the PKI and the admin
// store live under the build tree. The admin-store test needs a store whose
// every ancestor is root's and not writable by others, which a tree under
// /tmp is not: it moves the store onto a private tmpfs (RootOnlyStore).
class Codesign : public halcyx::test::TempDirTest {
protected:
   static void SetUpTestSuite() {
      char tmpl[] = CODESIGN_TEST_DIR "/pki.XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      pkiDir_ = tmpl;
      const std::string pki = std::string(HALCYX_PKI_SCRIPT) + " ";
      const std::string root = "/O=Zorvex, Inc./CN=Zorvex Root CA";
      // Kind, name, subject (the vendor root's when empty), issuer and usage.
      const char *steps[][4] = {
         {"root", "vroot", "", ""}, {"root", "attacker", "", ""}, {"root", "admin", "/CN=Site Admin Root", ""},
         {"inter", "vinter", "/O=Zorvex, Inc./CN=Zorvex Signing CA", "vroot"},
         {"inter", "ainter", "/O=Zorvex, Inc./CN=Zorvex Signing CA", "attacker"},
         {"inter", "tlsinter", "/CN=Zorvex TLS CA", "vroot serverAuth"},
         {"leaf", "zorvex", "/O=Zorvex, Inc./CN=Zorvex, Inc.", "vinter"},
         {"leaf", "tarnwick", "/CN=Tarnwick Wireless LLC", "vinter"},
         {"leaf", "contains", "/CN=Build Service of Zorvex, Inc. Europe", "vinter"},
         {"leaf", "third", "/CN=Quillon Systems Ltd", "vinter"},
         {"leaf", "subleaf", "/CN=Zorvex, Inc.", "zorvex"},  // issued by a non-CA
         {"leaf", "aleaf", "/O=Zorvex, Inc./CN=Zorvex, Inc.", "ainter"},
         {"leaf", "adminleaf", "/CN=Zorvex, Inc.", "admin"}, {"leaf", "tlsleaf", "/CN=Zorvex, Inc.", "tlsinter"},
         {"leaf", "noeku", "/CN=Zorvex, Inc.", "vinter serverAuth"},
         {"leaf", "twocn", "/CN=Quillon Systems Ltd/CN=Zorvex, Inc.", "vinter"},
      };
      for (const auto &s : steps) {
         std::string cmd = pki + s[0] + " " + pkiDir_ + " " + s[1] + " '" + (s[2][0] ? s[2] : root) + "' " + s[3];
         ASSERT_EQ(Shell(cmd), 0) << cmd;
      }
      const std::string der = DerOf(pkiDir_ + "/vroot.pem");
      ASSERT_TRUE(AddVendorRoot(&policy_, der, Sha256(der.data(), der.size())));
      policy_.adminStore = pkiDir_ + "/store";
      ASSERT_EQ(mkdir(policy_.adminStore.c_str(), 0755), 0);
   }

   static void TearDownTestSuite() { Shell("rm -rf '" + pkiDir_ + "'"); }

   void SetUp() override {
      TempDirTest::SetUp();
      work_ = dir_.string();
   }

   static std::string Pki(const std::string &name) { return pkiDir_ + "/" + name; }

   static void SignWith(const std::string &path, const std::string &leaf, const char *identifier) {
      Identity id;
      std::string error;
      ASSERT_TRUE(LoadIdentity(Pki(leaf + ".identity.pem").c_str(), &id, &error)) << error;
      UniqueFd fd(OpenCode(path.c_str()));
      ASSERT_TRUE(fd);
      ASSERT_TRUE(SignCode(fd.get(), identifier, id, &error)) << error;
   }

   // Signs with the openssl and setfattr commands alone.
   static void HandSign(const std::string &path, const std::string &leaf, const std::string &issuer,
                        const std::string &identifier, bool signedAttributes) {
      std::string content = Slurp(path);
      CodeDirectory cd;
      cd.identifier = identifier;
      cd.contentSize = content.size();
      cd.contentHash = Sha256(content.data(), content.size());
      Spit(path + ".cd", FormatCodeDirectory(cd));
      std::string cmd = "openssl cms -sign -binary " + std::string(signedAttributes ? "" : "-noattr") +
                        " -md sha256 -nosmimecap -outform DER -in " + path + ".cd -signer " +
                        Pki(leaf + ".pem") + " -inkey " + Pki(leaf + ".key") + " -certfile " +
                        Pki(issuer + ".chain.pem") + " -out " + path + ".sig && " +
                        "setfattr -n user.zorvex.cs.CodeDirectory -v \"0s$(base64 -w0 " + path +
                        ".cd)\" " + path + " && setfattr -n user.zorvex.cs.CodeSignature -v " +
                        "\"0s$(base64 -w0 " + path + ".sig)\" " + path + " && rm " + path +
                        ".cd " + path + ".sig";
      ASSERT_EQ(Shell(cmd), 0) << cmd;
   }

   std::string MakeFile(const std::string &name, size_t size = 4096) {
      std::string path = work_ + "/" + name;
      std::string data(size, '\0');
      for (size_t i = 0; i < size; i++) data[i] = static_cast<char>(i * 131 + 7);
      Spit(path, data);
      return path;
   }

   std::string MakeBundle(const std::string &name, const char *identifier) {
      std::string b = work_ + "/" + name;
      for (const char *d : {"", "/Contents", "/Contents/Helpers", "/Contents/Resources"}) {
         mkdir((b + d).c_str(), 0755);
      }
      Spit(b + "/Contents/Info.plist",
           std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                       "<key>CFBundleIdentifier</key><string>") +
              identifier + "</string><key>Tier</key><string>gold</string></dict></plist>\n");
      Spit(b + "/Contents/Helpers/daemon", "#!/bin/sh\nexit 0\n");
      Spit(b + "/Contents/Resources/data.bin", std::string(1000, 'x'));
      EXPECT_EQ(symlink("../Helpers/daemon", (b + "/Contents/Resources/alias").c_str()), 0);
      return b;
   }

   int Verify(const std::string &path, const char *identifier) {
      return VerifyPathWithPolicy(path.c_str(), identifier, policy_);
   }

   static std::string pkiDir_;
   static TrustPolicy policy_;
   std::string work_;
};

std::string Codesign::pkiDir_;
TrustPolicy Codesign::policy_;

TEST_F(Codesign, FileVerdicts) {
   struct Case { const char *what, *leaf, *checkedId; void (*spoil)(const std::string &); int code; } cases[] = {
      {"first organisation", "zorvex", "com.zorvex.tool", nullptr, 0},
      {"second organisation", "tarnwick", "com.zorvex.tool", nullptr, 0},
      {"name merely contained", "contains", "com.zorvex.tool", nullptr, 0},
      {"third organisation", "third", "com.zorvex.tool", nullptr, 7},
      {"wrong identifier", "zorvex", "com.zorvex.other", nullptr, 7},
      {"attacker root with the vendor's subject", "aleaf", "com.zorvex.tool", nullptr, 7},
      {"root trusted only by the admin store", "adminleaf", "com.zorvex.tool", nullptr, 7},
      {"issuer is not a CA", "subleaf", "com.zorvex.tool", nullptr, 7},
      {"issuer restricted to TLS", "tlsleaf", "com.zorvex.tool", nullptr, 7},
      {"one byte of content changed", "zorvex", "com.zorvex.tool",
       [](const std::string &p) { ASSERT_EQ(pwrite(UniqueFd(open(p.c_str(), O_WRONLY)).get(), "!", 1, 100), 1); },
       7},
      {"code directory changed", "zorvex", "com.zorvex.tool",
       [](const std::string &p) {
          char cd[2048];
          ssize_t n = getxattr(p.c_str(), kCodeDirectoryXattr, cd, sizeof cd);
          ASSERT_GT(n, 40);
          cd[n - 2] = cd[n - 2] == '0' ? '1' : '0';  // last hex digit of the content hash
          ASSERT_EQ(setxattr(p.c_str(), kCodeDirectoryXattr, cd, static_cast<size_t>(n), 0), 0);
       }, 7},
      {"signature attribute missing", "zorvex", "com.zorvex.tool",
       [](const std::string &p) { ASSERT_EQ(removexattr(p.c_str(), kCodeSignatureXattr), 0); }, 7},
      {"content appended", "zorvex", "com.zorvex.tool",
       [](const std::string &p) { std::ofstream(p, std::ios::app) << "more"; }, 7},
   };
   for (const Case &c : cases) {
      std::string path = MakeFile("tool");
      SignWith(path, c.leaf, "com.zorvex.tool");
      if (c.spoil) c.spoil(path);
      EXPECT_EQ(Verify(path, c.checkedId), c.code) << c.what;
      unlink(path.c_str());
   }
}

TEST_F(Codesign, PathAndIdentifierCodes) {
   std::string path = MakeFile("tool");
   SignWith(path, "zorvex", "com.zorvex.tool");
   ASSERT_EQ(symlink(path.c_str(), (work_ + "/link").c_str()), 0);
   ASSERT_EQ(mkfifo((work_ + "/fifo").c_str(), 0600), 0);
   struct { std::string path; const char *identifier; int code; } cases[] = {
      {"/no\xff-utf8", "com.zorvex.tool", 1}, {"", "com.zorvex.tool", 2},
      {std::string(5000, 'a'), "com.zorvex.tool", 2}, {work_ + "/missing", "com.zorvex.tool", 3},
      {work_ + "/link", "com.zorvex.tool", 3}, {work_ + "/fifo", "com.zorvex.tool", 3},
      {MakeFile("unsigned"), "com.zorvex.tool", 7}, {path + "/", "com.zorvex.tool", 3},
      {path, "com.zorvex.tool\" or identifier \"x", 5},
      {path, "line\nbreak", 5},
      {path, "com.zorvex.tool\xc2\x85", 5},  // NEL, a C1 control
      {path, nullptr, 5},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(VerifyPathWithPolicy(c.path.c_str(), c.identifier, policy_), c.code) << c.path;
   }
}

TEST_F(Codesign, BundleVerdicts) {
   // Each spoil is a shell command run in the bundle directory.
   struct Case { const char *what, *leaf, *spoil; int code; } cases[] = {
      {"first organisation", "zorvex", nullptr, 0}, {"second organisation", "tarnwick", nullptr, 0},
      {"third organisation", "third", nullptr, 7},
      {"unsealed extra file", "zorvex", "echo x > Contents/Resources/extra", 7},
      {"sealed file removed", "zorvex", "rm Contents/Resources/data.bin", 7},
      {"sealed file changed", "zorvex", "echo y >> Contents/Helpers/daemon", 7},
      {"link retargeted", "zorvex", "ln -sfn data.bin Contents/Resources/alias", 7},
      {"link leaving the bundle", "zorvex", "ln -s ../../.. Contents/Resources/up", 7},
      {"Info.plist changed", "zorvex", "sed -i s/gold/lead/ Contents/Info.plist", 7},
      {"FIFO added", "zorvex", "mkfifo Contents/pipe", 7},
      {"signature directory removed", "zorvex", "rm -r Contents/_CodeSignature", 7},
      {"file beside the signature", "zorvex", "echo x > Contents/_CodeSignature/notes", 7},
      {"FIFO beside the signature", "zorvex", "mkfifo Contents/_CodeSignature/pipe", 7},
      {"link beside the signature", "zorvex", "ln -s ../Info.plist Contents/_CodeSignature/i", 7},
      {"set-user-ID signature object", "zorvex", "chmod u+s Contents/_CodeSignature/CodeDirectory", 7},
   };
   for (const Case &c : cases) {
      std::string b = MakeBundle("App.bundle", "com.zorvex.app");
      SignWith(b, c.leaf, "com.zorvex.app");
      if (c.spoil) {
         ASSERT_EQ(Shell("cd " + b + " && " + c.spoil), 0) << c.spoil;
      }
      EXPECT_EQ(Verify(b, "com.zorvex.app"), c.code) << c.what;
      Shell("rm -rf " + b);
   }
   std::string b = MakeBundle("App.bundle", "com.zorvex.app");
   SignWith(b, "zorvex", "com.zorvex.app");
   ASSERT_EQ(symlink(b.c_str(), (work_ + "/alias.bundle").c_str()), 0);
   EXPECT_EQ(Verify(work_ + "/alias.bundle", "com.zorvex.app"), 3);
   EXPECT_EQ(Verify(work_ + "/alias.bundle/", "com.zorvex.app"), 3);
   EXPECT_EQ(Verify(b + "/", "com.zorvex.app"), 0);
}

// Leaves that the signing tool refuses can be used by hand, but are never
// accepted: one without the code-signing usage, and one whose second common
// name would satisfy the organisation match.
TEST_F(Codesign, HandMadeSignaturesVerify) {
   struct { const char *leaf; bool attrs; int code; } cases[] = {
      {"tarnwick", false, 0}, {"tarnwick", true, 0}, {"noeku", false, 7}, {"twocn", false, 7},
   };
   for (const auto &c : cases) {
      std::string path = MakeFile(std::string(c.leaf) + (c.attrs ? "-attrs" : ""));
      HandSign(path, c.leaf, "vinter", "com.zorvex.hand", c.attrs);
      EXPECT_EQ(Verify(path, "com.zorvex.hand"), c.code) << c.leaf << c.attrs;
   }
}

TEST_F(Codesign, OurSignaturesVerifyWithOpenssl) {
   std::string path = MakeFile("tool");
   SignWith(path, "zorvex", "com.zorvex.tool");
   ASSERT_EQ(Shell("getfattr --only-values -n user.zorvex.cs.CodeDirectory " + path + " > " + path +
                   ".cd && getfattr --only-values -n user.zorvex.cs.CodeSignature " + path + " > " + path + ".sig"),
             0);
   auto verifyWith = [&](const std::string &root) {
      return Shell("openssl cms -verify -binary -inform DER -in " + path + ".sig -content " + path + ".cd -CAfile " +
                   Pki(root) + " -purpose any -out /dev/null 2>/dev/null");
   };
   EXPECT_EQ(verifyWith("vroot.pem"), 0);
   EXPECT_NE(verifyWith("attacker.pem"), 0);  // the attacker's root copies the vendor's subject
   std::string cd = Slurp(path + ".cd");
   EXPECT_EQ(cd.substr(0, cd.find("Content-Hash")),
             "CodeDirectory-Version: 1\nIdentifier: com.zorvex.tool\nKind: file\n"
             "Hash-Type: sha256\nContent-Size: 4096\n");
}

TEST_F(Codesign, RequirementEvaluation) {
   std::string b = MakeBundle("App.bundle", "com.zorvex.app");
   SignWith(b, "contains", "com.zorvex.app");
   UniqueFd fd(OpenCode(b.c_str()));
   SignatureObjects objs;
   Evidence ev;
   std::string error;
   ASSERT_EQ(ReadSignatureObjects(fd.get(), &objs), ReadStatus::Ok);
   ASSERT_TRUE(CheckSignature(fd.get(), objs, policy_, &ev, &error)) << error;
   const std::string cdhash = HexOf(ev.cdhash.data(), 32);
   const std::string root = HexOf(policy_.pinnedSha256[0].data(), 32);
   struct { std::string text; bool holds; } cases[] = {
      {"identifier \"com.zorvex.app\" and anchor apple generic and anchor trusted", true},
      {"identifier com.zorvex", false}, {"cdhash H\"" + cdhash + "\"", true},
      {"cdhash H\"" + std::string(64, '0') + "\"", false},
      {"anchor = H\"" + root + "\" and cert root = H\"" + root + "\" and cert -1 trusted", true},
      {"cert leaf trusted or cert 1 trusted", false},
      {"cert leaf[subject.CN] = \"Build Service of Zorvex, Inc. Europe\"", true},
      {"cert leaf[subject.CN] = \"Build Service\"*", true},
      {"cert leaf[subject.CN] = *\"Europe\"", true},
      {"cert leaf[subject.CN] = *\"Zorvex, Inc.\"*", true},
      {"cert leaf[subject.CN] = \"Zorvex, Inc.\"", false},
      {"cert 1[subject.CN] = \"Zorvex Signing CA\" and cert 2[subject.O] = \"Zorvex, Inc.\"", true},
      {"cert 3[subject.CN] exists", false},  // past the anchor
      {"cert -4[subject.CN] exists", false},
      {"cert leaf[subject.OU] exists or cert leaf[subject.O] exists", false},
      {"info[Tier] = \"gold\" and info[CFBundleIdentifier] exists and info[Tier] < \"h\"", true},
      {"info[Tier] > \"gold\" or info[Missing] exists", false},
      {"!anchor trusted or identifier \"com.zorvex.app\" and !anchor apple", false},
      {"(!anchor trusted or identifier \"com.zorvex.app\") and !cdhash H\"" + cdhash + "\"", false},
      {"identifier x or identifier y or cert leaf[subject.CN] >= \"Build\"", true},
   };
   for (const auto &c : cases) {
      Requirement req;
      ASSERT_TRUE(ParseRequirement(c.text, &req, &error)) << c.text << ": " << error;
      EXPECT_EQ(EvaluateRequirement(req, ev), c.holds) << c.text;
   }
}

// What is verified through a descriptor is what is later read from it, even
// when the path is replaced in between; a change made in place through
// another descriptor is caught by verifying that descriptor again.
TEST_F(Codesign, DescriptorCoversTheBytesReadFromIt) {
   std::string path = MakeFile("tool", 70000);
   std::string original = Slurp(path);
   SignWith(path, "zorvex", "com.zorvex.tool");
   UniqueFd fd(OpenCode(path.c_str()));
   ASSERT_TRUE(fd);
   ASSERT_EQ(VerifyFdWithPolicy(fd.get(), "com.zorvex.tool", policy_), 0);

   std::string evil = MakeFile("evil", 70000);
   std::ofstream(evil, std::ios::app) << "payload";
   ASSERT_EQ(rename(evil.c_str(), path.c_str()), 0);
   std::string copied;
   char buf[8192];
   ssize_t n;
   while ((n = read(fd.get(), buf, sizeof buf)) > 0) copied.append(buf, static_cast<size_t>(n));
   EXPECT_EQ(copied, original);
   EXPECT_EQ(VerifyFdWithPolicy(fd.get(), "com.zorvex.tool", policy_), 0);
   EXPECT_EQ(Verify(path, "com.zorvex.tool"), 7);  // the replacement is unsigned

   std::string inPlace = MakeFile("inplace");
   SignWith(inPlace, "zorvex", "com.zorvex.tool");
   UniqueFd checked(OpenCode(inPlace.c_str()));
   ASSERT_EQ(VerifyFdWithPolicy(checked.get(), "com.zorvex.tool", policy_), 0);
   UniqueFd writer(open(inPlace.c_str(), O_WRONLY));
   ASSERT_EQ(pwrite(writer.get(), "X", 1, 10), 1);
   EXPECT_EQ(VerifyFdWithPolicy(checked.get(), "com.zorvex.tool", policy_), 7);
}

// Large files that only root can change are hashed from a mapping, others
// are read: both ways must see every byte, the last one included.
TEST_F(Codesign, LargeFilesHashedEitherWay) {
   if (geteuid() != 0) GTEST_SKIP() << "needs root to give the file to another owner";
   for (uid_t owner : {uid_t{0}, uid_t{65534}}) {
      for (bool spoil : {false, true}) {
         std::string path = MakeFile("large", 3 * 1024 * 1024 + 5);
         SignWith(path, "zorvex", "com.zorvex.large");
         ASSERT_EQ(chown(path.c_str(), owner, 0), 0);
         if (spoil) {
            UniqueFd fd(open(path.c_str(), O_WRONLY));
            ASSERT_EQ(pwrite(fd.get(), "!", 1, 3 * 1024 * 1024 + 4), 1);
         }
         EXPECT_EQ(Verify(path, "com.zorvex.large"), spoil ? 7 : 0) << owner << spoil;
         unlink(path.c_str());
      }
   }
}

// Sizes and listings are compared before any content is hashed: a huge
// sparse file in place of the signed one, or beside the sealed ones, is
// refused without reading a byte of it.
TEST_F(Codesign, CheapChecksBeforeHashing) {
   constexpr off_t kHuge = off_t{1} << 30;
   std::string file = MakeFile("tool");
   SignWith(file, "zorvex", "com.zorvex.tool");
   ASSERT_EQ(truncate(file.c_str(), kHuge), 0);
   std::string b = MakeBundle("App.bundle", "com.zorvex.app");
   SignWith(b, "zorvex", "com.zorvex.app");
   UniqueFd extra(open((b + "/Contents/Resources/huge").c_str(), O_WRONLY | O_CREAT, 0644));
   ASSERT_EQ(ftruncate(extra.get(), kHuge), 0);
   for (const auto &[path, identifier] : {std::pair{file, "com.zorvex.tool"},
                                          std::pair{b, "com.zorvex.app"}}) {
      uint64_t before = BytesHashed();
      EXPECT_EQ(Verify(path, identifier), 7) << path;
      EXPECT_EQ(BytesHashed() - before, 0u) << path;
   }
}

// A link is judged by where the kernel would take it, following the links
// on its way: one that stays inside on paper may leave through another.
TEST_F(Codesign, LinksResolvedAsTheKernelDoes) {
   struct { const char *link, *target; bool inside; } cases[] = {
      {"Contents/escape", "up/../outside", false},      // up -> .. is the bundle directory
      {"Contents/deeper", "up/Contents/up/../..", false},
      {"Contents/info", "up/Contents/Info.plist", true},
      {"Contents/dangling", "up/missing", true},
   };
   for (const auto &c : cases) {
      std::string b = MakeBundle("App.bundle", "com.zorvex.app");
      ASSERT_EQ(symlink("..", (b + "/Contents/up").c_str()), 0);
      UniqueFd fd(OpenCode(b.c_str()));
      Seal seal;
      ASSERT_TRUE(CollectSeal(fd.get(), &seal));
      // The seal a signer would have made had it judged the link by its text.
      seal[c.link] = SealedEntry{true, {}, c.target};
      ASSERT_EQ(symlink(c.target, (b + "/" + c.link).c_str()), 0);
      Seal collected;
      EXPECT_EQ(CollectSeal(fd.get(), &collected), c.inside) << c.link;
      EXPECT_EQ(CheckSeal(fd.get(), seal), c.inside) << c.link;
      Shell("rm -rf " + b);
   }
}

// What a descriptor's verdict promises: its directory offset stays put, and
// the root-only form refuses code that anyone but root could still change.
TEST_F(Codesign, DescriptorOffsetAndRootOnly) {
   std::string b = MakeBundle("App.bundle", "com.zorvex.app");
   SignWith(b, "zorvex", "com.zorvex.app");
   UniqueFd dir(OpenCode(b.c_str()));
   ASSERT_EQ(VerifyFdWithPolicy(dir.get(), "com.zorvex.app", policy_), 0);
   EXPECT_EQ(lseek(dir.get(), 0, SEEK_CUR), 0);

   if (geteuid() != 0) GTEST_SKIP() << "needs root to give files to root and to others";
   std::string file = MakeFile("tool");
   SignWith(file, "zorvex", "com.zorvex.tool");
   UniqueFd probe(open(file.c_str(), O_RDONLY));
   struct stat st;
   ASSERT_EQ(fstat(probe.get(), &st), 0);
   if (!OnlyRootCanWrite(probe.get(), st)) {
      GTEST_SKIP() << "the temporary directory is not on a local file system known to this check";
   }
   // Each setup runs on a tree owned by root, 0755/0644.
   struct { const char *what; std::string path, setup; const char *identifier; int code; } cases[] = {
      {"root's file", file, "true", "com.zorvex.tool", 0},
      {"file of another user", file, "chown 65534 " + file, "com.zorvex.tool", 7},
      {"group-writable file", file, "chmod g+w " + file, "com.zorvex.tool", 7},
      {"root's bundle", b, "true", "com.zorvex.app", 0},
      {"bundle file of another user", b, "chown 65534 " + b + "/Contents/Resources/data.bin",
       "com.zorvex.app", 7},
      {"bundle directory writable by others", b, "chmod o+w " + b + "/Contents/Helpers",
       "com.zorvex.app", 7},
   };
   for (const auto &c : cases) {
      ASSERT_EQ(Shell("chown -Rh 0:0 " + c.path + " && chmod -R go-w " + c.path + " && " + c.setup),
                0) << c.what;
      UniqueFd fd(OpenCode(c.path.c_str()));
      EXPECT_EQ(VerifyFdWithPolicy(fd.get(), c.identifier, policy_, true), c.code) << c.what;
      EXPECT_EQ(VerifyFdWithPolicy(fd.get(), c.identifier, policy_), 0) << c.what;
   }
}

// A directory whose every ancestor is root's and writable by nobody else:
// a tmpfs on /mnt in a mount namespace of this test process alone, so the
// host's mounts never change. Empty when that cannot be had.
std::string RootOnlyStore() {
   struct stat st;
   if (stat("/mnt", &st) != 0 || st.st_uid != 0 || (st.st_mode & 022) != 0 ||
       unshare(CLONE_NEWNS) != 0 ||
       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       mount("tmpfs", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0 ||
       mkdir("/mnt/trust", 0755) != 0) {
      return "";
   }
   return "/mnt/trust";
}

TEST_F(Codesign, AdminStoreAddsAnchorsOnlyWhenRootOnly) {
   if (geteuid() != 0) GTEST_SKIP() << "needs root to own and chown the store";
   const std::string store = RootOnlyStore();
   if (store.empty()) GTEST_SKIP() << "no private mount namespace for a root-only store";
   TrustPolicy policy = policy_;
   policy.adminStore = store;
   std::string path = MakeFile("tool");
   SignWith(path, "adminleaf", "com.zorvex.tool");
   std::string vendorPath = MakeFile("vendor");
   SignWith(vendorPath, "aleaf", "com.zorvex.tool");
   Requirement trusted;
   std::string error;
   ASSERT_TRUE(ParseRequirement("anchor trusted", &trusted, &error));
   auto trustedBy = [&](const std::string &code, const TrustPolicy &p) {
      UniqueFd fd(OpenCode(code.c_str()));
      SignatureObjects objs;
      Evidence ev;
      std::string why;
      return ReadSignatureObjects(fd.get(), &objs) == ReadStatus::Ok &&
             CheckSignature(fd.get(), objs, p, &ev, &why) && EvaluateRequirement(trusted, ev);
   };
   ASSERT_EQ(Shell("cp " + Pki("admin.pem") + " " + Pki("attacker.pem") + " " + store), 0);
   struct { const char *what; const char *setup; bool trusted; } cases[] = {
      {"root-owned store", "true", true},
      {"group-writable store", "chmod 775 '%s'", false},
      {"store owned by another user", "chown 65534 '%s'", false},
      {"anchor file owned by another user", "chown 65534 '%s'/admin.pem", false},
      {"store reached through a link", "mv '%s' '%s.real' && ln -s '%s.real' '%s'", false},
   };
   for (const auto &c : cases) {
      char cmd[1024];
      snprintf(cmd, sizeof cmd, c.setup, store.c_str(), store.c_str(), store.c_str(),
               store.c_str());
      ASSERT_EQ(Shell(cmd), 0) << cmd;
      EXPECT_EQ(trustedBy(path, policy), c.trusted) << c.what;
      Shell("rm -f '" + store + "' 2>/dev/null; [ -d '" + store + ".real' ] && mv '" + store +
          ".real' '" + store + "'; chown -R 0 '" + store + "'; chmod 755 '" + store + "'");
   }
   // In the store or not, an attacker root that copies the vendor root's
   // subject satisfies "anchor trusted" but never the product requirement.
   std::string genuine = MakeFile("genuine");
   SignWith(genuine, "zorvex", "com.zorvex.tool");
   EXPECT_TRUE(trustedBy(vendorPath, policy));
   EXPECT_EQ(VerifyPathWithPolicy(vendorPath.c_str(), "com.zorvex.tool", policy), 7);
   EXPECT_EQ(VerifyPathWithPolicy(genuine.c_str(), "com.zorvex.tool", policy), 0);
   EXPECT_EQ(VerifyPathWithPolicy(path.c_str(), "com.zorvex.tool", policy), 7);
   Shell("rm -f '" + store + "'/*.pem");
}

// The tool trusts the build's roots: it signs with the development identity
// that a build without vendor roots makes.
TEST_F(Codesign, ToolExitStatusAndDetachedForm) {
   const std::string tool = HALCYX_SIGN_TOOL;
   const std::string devDir = HALCYX_DEV_SIGNING_DIR;
   if (devDir.empty()) GTEST_SKIP() << "built with vendor roots: no development identity to sign with";
   std::string path = MakeFile("tool");
   std::string other = MakeFile("other", 4095);
   std::string id = devDir + "/developer.identity.pem";
   ASSERT_EQ(Shell("cp " + devDir + "/developer.chain.pem " + work_ + "/split.pem && cp " + devDir +
                   "/developer.key " + work_ + "/split.key"), 0);
   struct { std::string args; int status; } steps[] = {
      {"-v " + path, 1}, {"-s " + id + " -i com.zorvex.tool " + path, 0},
      {"-s " + id + " " + path, 1},  // already signed, no -f
      {"-s " + id + " -f -i com.zorvex.tool " + path, 0},
      {"-v " + path, 0},
      {"-v -R 'identifier com.zorvex.tool and anchor apple generic' " + path, 0},
      {"-v -R 'identifier \"com.zorvex.other\"' " + path, 3},
      {"-v -R 'identifier (' " + path, 2},
      {"-d " + path + " | grep -qx Identifier=com.zorvex.tool", 0},
      {"--export " + path + ".sig " + path, 0},
      {"--attach " + path + ".sig " + path, 1},  // already signed, no -f
      {"--attach " + path + ".sig " + other, 1},  // made for other content
      {"--remove-signature " + path, 0}, {"-v " + path, 1},
      {"--attach " + path + ".sig " + path, 0}, {"-v " + path, 0},
      {"--attach " + path + ".sig -f " + path, 0},
      {"-s " + Pki("noeku.identity.pem") + " -f " + path, 1},
      {"-s " + work_ + "/split.pem -f -i com.zorvex.tool " + path, 0},  // key in split.key
      {"-v " + path, 0},
      {"-s " + devDir + "/developer.chain.pem -f " + path, 1},  // no key in it or beside it
      {"-v -d " + path, 2}, {"", 2},
   };
   for (const auto &s : steps) {
      std::string cmd = tool + " " + s.args + " 2>/dev/null";
      EXPECT_EQ(Shell(cmd), s.status) << s.args;
   }
}

// What the tool says, on which stream, with which status: help and version
// on standard output; a usage error names the fault; every failure names
// its file, and a broken bundle the first file that breaks its seal.
TEST_F(Codesign, ToolManners) {
   const std::string tool = HALCYX_SIGN_TOOL;
   const std::string devDir = HALCYX_DEV_SIGNING_DIR;
   if (devDir.empty()) GTEST_SKIP() << "built with vendor roots: no development identity to sign with";
   const std::string id = devDir + "/developer.identity.pem";
   const std::string file = MakeFile("tool");
   ASSERT_EQ(Shell(tool + " -s " + id + " -i com.zorvex.tool " + file + " 2>/dev/null"), 0);
   ASSERT_EQ(mkfifo((work_ + "/fifo").c_str(), 0600), 0);
   auto bundle = [&](const std::string &name, const char *spoil) {
      std::string b = MakeBundle(name, "com.zorvex.app");
      EXPECT_EQ(Shell(tool + " -s " + id + " " + b + " 2>/dev/null"), 0);
      if (spoil) {
         EXPECT_EQ(Shell("cd " + b + " && " + spoil), 0) << spoil;
      }
      return b;
   };
   const std::string good = bundle("Good.bundle", nullptr);
   const std::string changed = bundle("Changed.bundle", "echo y >> Contents/Helpers/daemon");
   const std::string missing = bundle("Missing.bundle", "rm Contents/Resources/data.bin");
   const std::string extra = bundle("Extra.bundle", "echo x > Contents/Resources/extra");
   std::string exported, error;
   ASSERT_TRUE(ExportDetached(UniqueFd(OpenCode(file.c_str())).get(), &exported, &error)) << error;
   const std::string unsealed = ": invalid signature: the bundle's files do not match its seal: ";
   struct { std::string args; int status; bool onStdout; std::string text; } cases[] = {
      {"--help", 0, true, "usage: halcyx-sign -s IDENTITY"},
      {"-h", 0, true, "usage: halcyx-sign -s IDENTITY"},
      {"--version", 0, true, "halcyx-sign " HALCYX_VERSION "\n"},
      {"-R x " + file, 2, false, "halcyx-sign: -R needs -v\nusage: "},
      {"-v -d " + file, 2, false, "halcyx-sign: one mode at a time\n"},
      {"-vv", 2, false, "halcyx-sign: no path given\n"},
      {"-v --export", 2, false, "halcyx-sign: --export needs an argument\n"},
      {"-v " + work_ + "/fifo", 1, false, work_ + "/fifo: is neither a regular file nor a bundle"},
      {"-v /dev/null", 1, false, "/dev/null: is neither a regular file nor a bundle"},
      {"-s " + work_ + "/none.pem " + file, 1, false, work_ + "/none.pem: No such file"},
      {"-v " + changed, 1, false, changed + unsealed + "Contents/Helpers/daemon differs"},
      {"-v " + missing, 1, false, missing + unsealed + "Contents/Resources/data.bin is sealed but"},
      {"-v " + extra, 1, false, extra + unsealed + "Contents/Resources/extra is not sealed"},
      {"-vv " + good, 0, false, good + ": sealed Contents/Helpers/daemon sha256 "},
      {"--export - " + file, 0, true, exported},
   };
   for (const auto &c : cases) {
      const std::string out = work_ + "/stdout", err = work_ + "/stderr";
      EXPECT_EQ(Shell(tool + " " + c.args + " >" + out + " 2>" + err), c.status) << c.args;
      EXPECT_NE(Slurp(c.onStdout ? out : err).find(c.text), std::string::npos)
         << c.args << "\nstdout: " << Slurp(out) << "\nstderr: " << Slurp(err);
   }
}

// The public entry points use the build's own roots, so the test PKI fails
// there; what is checked is the log line and code of each failure.
TEST_F(Codesign, PublicEntryPointsLogTheirFailures) {
   std::string signedFile = MakeFile("tool");
   SignWith(signedFile, "zorvex", "com.zorvex.tool");
   std::string bundle = MakeBundle("App.bundle", "com.zorvex.app");
   std::string noInfo = work_ + "/empty";
   mkdir(noInfo.c_str(), 0755);
   auto logOf = [](const std::function<void()> &body) {
      auto r = halcyx::test::RunInChild(body);
      auto entries = halcyx::test::LogEntries(r.out);
      return entries.empty() ? "exit " + std::to_string(r.ExitCode()) : entries[0];
   };
   for (const auto &c : {std::pair{work_ + "/missing", 3}, std::pair{signedFile, 7}}) {
      EXPECT_EQ(logOf([&] { codesignVerify(c.first.c_str(), "com.zorvex.tool"); }),
                "PrivilegedHelper: Failed to verify the code signature of " + c.first + " due to " +
                   std::to_string(c.second));
   }
   ASSERT_EQ(symlink(bundle.c_str(), (work_ + "/alias").c_str()), 0);
   for (const auto &c : {std::pair{signedFile, 3}, std::pair{work_ + "/alias/", 3},
                         std::pair{noInfo, 4}}) {
      EXPECT_EQ(logOf([&] { getBundleIdentifier(c.first.c_str()); }),
                "CoreFoundationUtils: Failed to get bundle identifier for " + c.first +
                   " due to (" + std::to_string(c.second) + ").\n");
   }
   EXPECT_STREQ(halcyx::UniqueCStr(getBundleIdentifier(bundle.c_str())).get(), "com.zorvex.app");
}

}  // namespace
