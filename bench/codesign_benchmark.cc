// SPDX-License-Identifier: MIT
// Verifying a signed file in process against OpenSSL doing the same
// cryptographic work on the same bytes.
//
// halcyx: the whole verification of a signed file from its path (open, the
// two attributes, the content hash through the descriptor, CMS, chain,
// requirement). baseline: SHA-256 of the content already in memory, plus
// parsing and CMS_verify of the same signature over the same code directory
// against a store built once, with the chain checked (purpose "any").
//
// A PKI and the two files (16 KiB and 50 MiB) are made once per run in a
// temporary directory, which is removed at exit. Run as root, the large file
// is root's and is hashed from a mapping; run as another user it is read
// through a buffer, which costs one more copy of every byte.
//
// Names pair as BM_Verify<Size>/baseline and BM_Verify<Size>/halcyx.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "codesignInt.h"
#include "internal/unique.h"

using namespace halcyx::codesign;

namespace {

std::string Slurp(const std::string &path) {
   std::ifstream in(path, std::ios::binary);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

struct Fixture {
   std::string dir;
   TrustPolicy policy;
   X509_STORE *store = nullptr;
   struct Component {
      std::string path, content, cd, sig;
   } small, large;

   Fixture() {
      char tmpl[] = "/tmp/halcyx-codesign-bench.XXXXXX";
      if (!mkdtemp(tmpl)) {
         abort();
      }
      dir = tmpl;
      const std::string pki = std::string(HALCYX_PKI_SCRIPT) + " ";
      const std::string cmds[] = {
         pki + "root " + dir + " root '/O=Zorvex, Inc./CN=Bench Root'",
         pki + "inter " + dir + " inter '/O=Zorvex, Inc./CN=Bench CA' root",
         pki + "leaf " + dir + " leaf '/O=Zorvex, Inc./CN=Zorvex, Inc.' inter",
      };
      for (const std::string &c : cmds) {
         if (std::system(c.c_str()) != 0) {
            abort();
         }
      }
      std::string pem = Slurp(dir + "/root.pem");
      BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
      X509 *root = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
      BIO_free(bio);
      unsigned char *der = nullptr;
      int len = i2d_X509(root, &der);
      std::string_view derView(reinterpret_cast<char *>(der), static_cast<size_t>(len));
      AddVendorRoot(&policy, derView, Sha256(der, static_cast<size_t>(len)));
      policy.adminStore = BuildTrustPolicy().adminStore;
      OPENSSL_free(der);
      store = X509_STORE_new();
      X509_STORE_add_cert(store, root);
      X509_STORE_set_purpose(store, X509_PURPOSE_ANY);
      X509_free(root);
      Make(&small, "small", 16 * 1024);
      Make(&large, "large", 50 * 1024 * 1024);
   }

   ~Fixture() {
      X509_STORE_free(store);
      std::error_code ignored;
      std::filesystem::remove_all(dir, ignored);
   }

   void Make(Component *c, const char *name, size_t size) {
      c->path = dir + "/" + name;
      c->content.resize(size);
      uint32_t x = 1;
      for (char &ch : c->content) {
         x = x * 1103515245u + 12345u;
         ch = static_cast<char>(x >> 24);
      }
      std::ofstream(c->path, std::ios::binary) << c->content;
      Identity id;
      std::string error;
      halcyx::UniqueFd fd(OpenCode(c->path.c_str()));
      if (!LoadIdentity((dir + "/leaf.identity.pem").c_str(), &id, &error) ||
          !SignCode(fd.get(), "com.zorvex.bench", id, &error)) {
         fprintf(stderr, "bench: %s\n", error.c_str());
         abort();
      }
      char buf[kMaxSignature];
      ssize_t n = fgetxattr(fd.get(), kCodeDirectoryXattr, buf, sizeof buf);
      c->cd.assign(buf, static_cast<size_t>(n));
      n = fgetxattr(fd.get(), kCodeSignatureXattr, buf, sizeof buf);
      c->sig.assign(buf, static_cast<size_t>(n));
   }
};

Fixture &Shared() {
   static Fixture f;
   return f;
}

void Baseline(benchmark::State &state, const Fixture::Component &c) {
   X509_STORE *store = Shared().store;
   for (auto _ : state) {
      Digest d = Sha256(c.content.data(), c.content.size());
      benchmark::DoNotOptimize(d);
      auto p = reinterpret_cast<const unsigned char *>(c.sig.data());
      CMS_ContentInfo *cms = d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(c.sig.size()));
      BIO *content = BIO_new_mem_buf(c.cd.data(), static_cast<int>(c.cd.size()));
      if (CMS_verify(cms, nullptr, store, content, nullptr, CMS_BINARY) != 1) {
         state.SkipWithError("CMS_verify failed");
      }
      BIO_free(content);
      CMS_ContentInfo_free(cms);
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.content.size()));
}

void Ours(benchmark::State &state, const Fixture::Component &c) {
   const TrustPolicy &policy = Shared().policy;
   for (auto _ : state) {
      if (VerifyPathWithPolicy(c.path.c_str(), "com.zorvex.bench", policy) != 0) {
         state.SkipWithError("verification failed");
      }
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.content.size()));
}

void BM_Verify16K_baseline(benchmark::State &s) { Baseline(s, Shared().small); }
void BM_Verify16K_halcyx(benchmark::State &s) { Ours(s, Shared().small); }
void BM_Verify50M_baseline(benchmark::State &s) { Baseline(s, Shared().large); }
void BM_Verify50M_halcyx(benchmark::State &s) { Ours(s, Shared().large); }

}  // namespace

BENCHMARK(BM_Verify16K_baseline)->Name("BM_Verify16K/baseline");
BENCHMARK(BM_Verify16K_halcyx)->Name("BM_Verify16K/halcyx");
BENCHMARK(BM_Verify50M_baseline)->Name("BM_Verify50M/baseline")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Verify50M_halcyx)->Name("BM_Verify50M/halcyx")->Unit(benchmark::kMillisecond);
