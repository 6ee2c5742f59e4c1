#!/bin/sh
# SPDX-License-Identifier: MIT
# The hardening of the built opener, read from the executable itself:
#   hardening_test.sh --sanitized=SANITIZERS OPENER ARCHIVE...
# Each ARCHIVE is a static library linked into OPENER; some function of each
# must carry a stack canary. Sanitizer builds link the opener differently
# and leave out the checked calls: the test is skipped there (status 77).
set -u
NM=${NM:-nm} OBJDUMP=${OBJDUMP:-objdump} READELF=${READELF:-readelf}

case $1 in
--sanitized=) ;;
*) echo "sanitizer build: skipped"; exit 77 ;;
esac
opener=$2
shift 2
failed=0
fail() {
   echo "FAIL: $*"
   failed=1
}

# Stack canaries. The C library's own functions have them too, so only
# functions of our archives count.
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
"$OBJDUMP" -d --no-show-raw-insn "$opener" | awk '
   /^[0-9a-f]+ <.*>:$/ { name = substr($2, 2, length($2) - 3) }
   /call.*<__stack_chk_fail(@plt)?>/ { print name }' | sort -u >"$tmp/guarded"
[ -s "$tmp/guarded" ] || fail "no function calls __stack_chk_fail"
for archive in "$@"; do
   "$NM" --defined-only -P "$archive" 2>/dev/null | awk '$2 ~ /^[Tt]$/ { print $1 }' |
      sort -u >"$tmp/defined"
   [ -n "$(comm -12 "$tmp/guarded" "$tmp/defined")" ] ||
      fail "no function of $(basename "$archive") has a stack canary"
done

# Checked calls (_FORTIFY_SOURCE): the static opener contains the __*_chk
# functions its code calls.
"$NM" "$opener" | grep -Eq ' [TtWw] __[a-z0-9_]+_chk$' || fail "no __*_chk call"

# Position independent, full RELRO (read-only after relocation, all of it
# done at start-up) and a stack that is not executable.
"$READELF" -hW "$opener" | grep -Eq 'Type: +DYN' || fail "not position independent"
"$READELF" -lW "$opener" >"$tmp/segments"
grep -q GNU_RELRO "$tmp/segments" || fail "no GNU_RELRO segment"
"$READELF" -dW "$opener" | grep -Eq 'BIND_NOW|FLAGS_1\).*NOW' || fail "no BIND_NOW"
stack=$(awk '$1 == "GNU_STACK" { print $7 }' "$tmp/segments")
case $stack in
RW) ;;
*) fail "GNU_STACK is '$stack', not RW" ;;
esac

[ $failed = 0 ] && echo "hardened: $(wc -l <"$tmp/guarded") functions with canaries"
exit $failed
