#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs a build into a temporary DESTDIR and uses it as its users do:
#   install_test.sh BUILD-DIR NOSUID-CHECK
# a C program that includes every installed header links both archives
# through pkg-config, and again through find_package(halcyx) in a C-only
# CMake project; the opener is where the bundle needs it and carries no
# set-user-ID bit unless the build asked for one. As root it also checks
# the set-user-ID install's nosuid refusal in a private mount namespace.
set -uo pipefail
build=$1 nosuid_check=$2
. "$build/halcyx-pkg/package.conf"
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
failed=0
fail() {
   echo "FAIL: $*"
   failed=1
}

dest=$tmp/dest
DESTDIR=$dest cmake --install "$build" --prefix /usr >"$tmp/install.log" 2>&1 ||
   { cat "$tmp/install.log"; exit 1; }

opener=$dest/usr/$HALCYX_INSTALL_OPENER_DIR/$HALCYX_INSTALL_OPENER_NAME
setuid=$(sed -n 's/^HALCYX_INSTALL_SETUID:BOOL=//p' "$build/CMakeCache.txt")
[ -x "$opener" ] || fail "no opener at $opener"
case $setuid in
ON) [ -u "$opener" ] || fail "HALCYX_INSTALL_SETUID=ON installed the opener without the bit" ;;
*) [ ! -u "$opener" ] || fail "the opener is set-user-ID without HALCYX_INSTALL_SETUID" ;;
esac
[ -x "$dest$HALCYX_HOST_DIR/Services/Contents/Library/services/Zorvex Halcyx Services" ] ||
   fail "no services daemon at the daemon path"

# The consumer: every header, and a call into each archive.
headers=("$dest"/usr/include/halcyx/*.h)
[ ${#headers[@]} -gt 10 ] || fail "headers missing from include/halcyx: ${headers[*]}"
mkdir -p "$tmp/consumer"
{
   for h in "${headers[@]}"; do printf '#include <halcyx/%s>\n' "${h##*/}"; done
   cat <<'C'
#include <stdio.h>
#include <stdlib.h>
int main(void) {
   char *s = Str_Asprintf(NULL, "%s %d", "halcyx", 42);
   printf("%s %d\n", s, (int)codesignVerify("/", "x"));
   free(s);
   return 0;
}
C
} >"$tmp/consumer/use.c"
run_consumer() {  # how program
   local out
   out=$("$2" 2>/dev/null) || { fail "$1: the program failed"; return; }
   [[ $out == *"halcyx 42 0" ]] || fail "$1: printed '$out'"
}

export PKG_CONFIG_SYSROOT_DIR=$dest
export PKG_CONFIG_PATH=$dest/usr/$CMAKE_INSTALL_LIBDIR/pkgconfig
flags=$(pkg-config --cflags --libs halcyx-codesign) || fail "pkg-config halcyx-codesign"
# shellcheck disable=SC2086
if cc -std=c11 -Wall -Werror -o "$tmp/consumer/pc" "$tmp/consumer/use.c" $flags 2>"$tmp/cc.log"; then
   run_consumer pkg-config "$tmp/consumer/pc"
else
   fail "pkg-config consumer: $(head -20 "$tmp/cc.log")"
fi
unset PKG_CONFIG_SYSROOT_DIR PKG_CONFIG_PATH

cat >"$tmp/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(consumer LANGUAGES C)
find_package(halcyx 0.1 REQUIRED COMPONENTS codesign)
add_executable(use use.c)
target_link_libraries(use PRIVATE halcyx::codesign)
CMAKE
if cmake -S "$tmp/consumer" -B "$tmp/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$dest/usr" \
      >"$tmp/cmake.log" 2>&1 && cmake --build "$tmp/consumer/build" >>"$tmp/cmake.log" 2>&1; then
   run_consumer find_package "$tmp/consumer/build/use"
else
   fail "CMake consumer: $(tail -20 "$tmp/cmake.log")"
fi

# The set-user-ID install's guard: refused on a nosuid mount (also below a
# directory it has yet to make) and for a user who is not root.
if [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null; then
   mkdir "$tmp/suid" "$tmp/nosuid"
   unshare -m bash -c '
      mount --make-rprivate / &&
      mount -t tmpfs -o suid t "$1/suid" && mount -t tmpfs -o nosuid t "$1/nosuid" || exit 9
      "$2" "$1/suid/new/dir" || exit 1
      "$2" "$1/nosuid/new/dir" 2>"$1/nosuid.err" && exit 2
      grep -q nosuid "$1/nosuid.err" || exit 3
      setpriv --reuid=65534 --regid=65534 --clear-groups "$2" "$1/suid" 2>/dev/null && exit 4
      exit 0' _ "$tmp" "$nosuid_check"
   case $? in
   0) ;;
   1) fail "a suid mount was refused" ;;
   2) fail "a nosuid mount was accepted" ;;
   3) fail "the nosuid refusal does not say why" ;;
   4) fail "a set-user-ID install by a user other than root was accepted" ;;
   *) fail "could not mount the test file systems" ;;
   esac
else
   echo "not root: the nosuid guard is not checked"
fi

[ $failed = 0 ] && echo "install tree: consumers built through pkg-config and find_package"
exit $failed
