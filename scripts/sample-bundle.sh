#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes the signed sample product bundle.
#
#   sample-bundle.sh BUNDLE SIGN-TOOL IDENTITY OPENER DAEMON PROGRAM LIBRARY [PAD-MIB]
#
# BUNDLE is replaced whole. Every component that the opener installs in the
# Services tree is put at its location sub-path and signed with IDENTITY by
# SIGN-TOOL for its signing identifier: DAEMON is the services daemon,
# PROGRAM and LIBRARY stand in for the product's other programs and
# libraries, and the scripts, plists and product information are small
# texts that say they are samples. OPENER goes where its up-count finds the
# root (Contents/Library/services/Open Zorvex Halcyx Services), unsigned and
# without the set-user-ID bit: whoever installs the bundle sets that.
# PAD-MIB, when given, spreads about that many MiB of padding over the
# programs, libraries and product information (for benchmarks).
set -euo pipefail
[ $# -ge 7 ] || { echo "usage: sample-bundle.sh BUNDLE SIGN-TOOL IDENTITY OPENER DAEMON PROGRAM LIBRARY [PAD-MIB]" >&2; exit 2; }
bundle=$1 sign=$2 identity=$3 opener=$4 daemon=$5 program=$6 library=$7 padMib=${8:-0}

# Location keys' sub-paths and signing identifiers, in the opener's order.
# Kinds: program, daemon, script, text, plist, library.
components=(
  "program|Contents/Library/zorvex-id|zorvex-id"
  "program|Contents/Library/zxnet-bridge|zxnet-bridge"
  "program|Contents/Library/zxnet-cfgcli|zxnet-cfgcli"
  "program|Contents/Library/zxnet-cli|zxnet-cli"
  "program|Contents/Library/zxnet-dhcpd|zxnet-dhcpd"
  "program|Contents/Library/zxnet-natd|zxnet-natd"
  "program|Contents/Library/zxnet-netifup|zxnet-netifup"
  "program|Contents/Library/zxnet-sniffer|zxnet-sniffer"
  "program|Contents/Library/zorvex-usbarbitrator|zorvex-usbarbitrator"
  "text|Contents/Library/productInfo|productInfo"
  "daemon|Contents/Library/services/Zorvex Halcyx Services|Zorvex Halcyx Services"
  "script|Contents/Library/services/services.sh|services"
  "program|Contents/Library/services/Open Zorvex USB Arbitrator Service|Open Zorvex USB Arbitrator Service"
  "program|Contents/Library/services/Zorvex USB Arbitrator Service|Zorvex USB Arbitrator Service"
  "script|Contents/Library/services/usbarbService.sh|usbarbService"
  "program|Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper|com.zorvex.halcyx.cdshelper"
  "plist|Contents/Library/LaunchServices/com.zorvex.halcyx.cdshelper.plist|com.zorvex.halcyx.cdshelper"
  "program|Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper|com.zorvex.halcyx.diskhelper"
  "plist|Contents/Library/LaunchServices/com.zorvex.halcyx.diskhelper.plist|com.zorvex.halcyx.diskhelper"
  "program|Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper|com.zorvex.halcyx.idhelper"
  "plist|Contents/Library/LaunchServices/com.zorvex.halcyx.idhelper.plist|com.zorvex.halcyx.idhelper"
  "program|Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper|com.zorvex.halcyx.mounthelper"
  "plist|Contents/Library/LaunchServices/com.zorvex.halcyx.mounthelper.plist|com.zorvex.halcyx.mounthelper"
  "library|Contents/Frameworks/libpng16.16.dylib|libpng16"
  "library|Contents/Frameworks/libssl.3.dylib|libssl.3"
  "library|Contents/Frameworks/libcrypto.3.dylib|libcrypto.3"
  "library|Contents/Frameworks/libzorvexbase.dylib|libzorvexbase"
  "library|Contents/Frameworks/libnetcfg.dylib|libnetcfg"
)

padded=0
for c in "${components[@]}"; do
  case ${c%%|*} in program|library|text) padded=$((padded + 1)) ;; esac
done
padBytes=$((padMib * 1024 * 1024 / padded))

work="$bundle.new"
rm -rf "$work"
mkdir -p "$work/Contents/Library/services" "$work/Contents/Library/LaunchServices" \
  "$work/Contents/Frameworks"
for c in "${components[@]}"; do
  IFS='|' read -r kind sub identifier <<<"$c"
  path="$work/$sub"
  case $kind in
  program) install -m 0755 "$program" "$path" ;;
  library) install -m 0644 "$library" "$path" ;;
  daemon) install -m 0755 "$daemon" "$path" ;;
  script)
    printf '#!/bin/sh\n# %s: a sample script of the Zorvex Halcyx bundle; it does nothing.\necho "$0: a sample script of the Zorvex Halcyx bundle."\n' \
      "$identifier" >"$path"
    chmod 0755 "$path" ;;
  text)
    printf 'Zorvex Halcyx (sample bundle)\nThis product information file is a sample.\n' >"$path" ;;
  plist)
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<dict>\n  <key>Label</key>\n  <string>%s</string>\n  <key>Comment</key>\n  <string>A sample launch-services plist of the Zorvex Halcyx bundle.</string>\n</dict>\n</plist>\n' \
      "$identifier" >"$path" ;;
  esac
  case $kind in
  program|library|text)
    [ "$padBytes" -eq 0 ] || head -c "$padBytes" /dev/urandom >>"$path" ;;
  esac
  out=$("$sign" -s "$identity" -i "$identifier" "$path" 2>&1) || { echo "$out" >&2; exit 1; }
done
install -m 0755 "$opener" "$work/Contents/Library/services/Open Zorvex Halcyx Services"

rm -rf "$bundle"
mv "$work" "$bundle"
