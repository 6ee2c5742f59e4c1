#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs every Debian package that the build, the tests, the benchmarks and
# the fuzz targets need. Safe to run any number of times: it installs only
# what is missing and does nothing when all is present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config python3
  clang libclang-rt-14-dev          # sanitizers and libFuzzer
  libgtest-dev libgmock-dev libbenchmark-dev
  libicu-dev libssl-dev libplist-dev
  util-linux passwd                 # setpriv, and the "nobody" account
  iproute2                          # network namespaces of the two-host lock test
  openssl attr                      # code-signing tests: PKI and extended attributes
  groff-base man-db                 # manual page check: groff and lexgrog
  debian-archive-keyring            # checks the libplist source fetched for the static opener
  dpkg-dev lintian                  # the Debian package: its dependencies, and its check
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: run as root to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -q
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
