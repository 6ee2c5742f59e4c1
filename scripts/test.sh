#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the dependencies, then builds and runs every test three times:
#   default  g++, optimised: unit, integration and fuzz-corpus replay tests
#   asan     clang with AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     clang with ThreadSanitizer: the concurrency tests
# The integration tests install the opener set-user-ID root in a private
# temporary directory; they run when this script runs as root and are
# skipped otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
for preset in default asan tsan; do
  echo "==== $preset ===="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
