#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes certificates for code signing with the openssl command (ECDSA P-256).
#
#   codesign-pki.sh root  DIR NAME SUBJECT
#   codesign-pki.sh inter DIR NAME SUBJECT ISSUER [EXTENDED-KEY-USAGE]
#   codesign-pki.sh leaf  DIR NAME SUBJECT ISSUER [EXTENDED-KEY-USAGE]
#
# SUBJECT is in openssl's "/O=.../CN=..." form; ISSUER is the NAME of a
# certificate made earlier in DIR. Each NAME gets NAME.key, NAME.pem and
# NAME.chain.pem (the certificate and its issuers up to, not including, the
# root). A leaf also gets NAME.identity.pem: its key and chain, the form the
# signing tool takes. A leaf's extended key usage defaults to codeSigning; an
# intermediate has none unless one is given.
set -euo pipefail

kind=$1 dir=$2 name=$3 subject=$4 issuer=${5:-} eku=${6:-}
mkdir -p "$dir"
cd "$dir"
serial="0x$(openssl rand -hex 12)"

case $kind in
root)
  openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
    -keyout "$name.key" -out "$name.pem" -subj "$subject" -days 3650 -set_serial "$serial" \
    -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
  : > "$name.chain.pem"
  ;;
inter|leaf)
  [ -n "$issuer" ] || { echo "codesign-pki: $kind needs an issuer" >&2; exit 2; }
  if [ "$kind" = inter ]; then
    ext="basicConstraints=critical,CA:TRUE
keyUsage=critical,keyCertSign,cRLSign${eku:+
extendedKeyUsage=$eku}"
  else
    ext="basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=${eku:-codeSigning}"
  fi
  printf '%s\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n' "$ext" > "$name.ext"
  openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
    -keyout "$name.key" -out "$name.csr" -subj "$subject" 2>/dev/null
  openssl x509 -req -in "$name.csr" -CA "$issuer.pem" -CAkey "$issuer.key" \
    -set_serial "$serial" -days 3650 -extfile "$name.ext" -out "$name.pem" 2>/dev/null
  rm -f "$name.csr" "$name.ext"
  cat "$name.pem" "$issuer.chain.pem" > "$name.chain.pem"
  if [ "$kind" = leaf ]; then
    cat "$name.key" "$name.chain.pem" > "$name.identity.pem"
  fi
  ;;
*)
  echo "usage: codesign-pki.sh root|inter|leaf DIR NAME SUBJECT [ISSUER [EKU]]" >&2
  exit 2
  ;;
esac
