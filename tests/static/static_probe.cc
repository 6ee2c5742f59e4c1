// SPDX-License-Identifier: MIT
// Linked as the opener: drives the verifier into libcrypto with the
// environment pointing libcrypto at a configuration file and a module
// directory, then asks libcrypto to load a module.
//   exit 0  the built-in provider serves, no module was loaded
//   exit 2  a configuration file chose the providers
//   exit 3  a provider module was loaded
#include <openssl/evp.h>
#include <openssl/provider.h>

#include "codesign.h"

int main() {
   // Fails (no such file), after the verifier's first use of libcrypto.
   codesignVerify("/nonexistent/halcyx-static-probe", "com.zorvex.probe");
   EVP_MD *md = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
   if (md == nullptr) {
      return 2;
   }
   EVP_MD_free(md);
   // From OPENSSL_MODULES, through libcrypto's own loader.
   return OSSL_PROVIDER_load(nullptr, "legacy") == nullptr ? 0 : 3;
}
