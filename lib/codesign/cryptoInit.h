// SPDX-License-Identifier: MIT
/*
 * libcrypto's start, made before any other use of it by the verifier.
 */
#pragma once

namespace halcyx::codesign {

// Initialises libcrypto once, without a configuration file: no
// OPENSSL_CONF, no system openssl.cnf, so no engine, provider or module is
// ever chosen by a file or the environment; only the built-in default
// provider is used. Registers no exit handler. Safe to call repeatedly and
// from several threads; whoever calls first decides, so it must run before
// libcrypto is used in any other way.
void InitCrypto();

}  // namespace halcyx::codesign
