// SPDX-License-Identifier: MIT
#include "cryptoInit.h"

#include <openssl/crypto.h>

namespace halcyx::codesign {

void InitCrypto() {
   OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
}

}  // namespace halcyx::codesign
