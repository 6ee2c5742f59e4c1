#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Regenerates lib/unicode/unicodeSimpleCaseFold.inc from the installed ICU
# (Debian package libicu-dev). Run from the project root; commit the result.
set -euo pipefail
out=lib/unicode/unicodeSimpleCaseFold.inc
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
c++ -std=c++20 -O1 -o "$tmp/gen" scripts/casefold/gen-casefold.cc $(pkg-config --cflags --libs icu-uc)
"$tmp/gen" > "$tmp/table"
mv "$tmp/table" "$out"
echo "wrote $out"
