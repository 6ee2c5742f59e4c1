#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes the Debian package from a build's install tree.
#
#   make-deb.sh BUILD-DIR [OUT-DIR]
#
# Installs BUILD-DIR (already built; `cmake --build BUILD-DIR --target deb`
# builds what is needed and runs this) with prefix /usr into a staging tree,
# strips the programs, compresses the manual pages, adds the copyright file
# and the changelog, computes Depends with dpkg-shlibdeps and packs the tree
# with every file root's. Prints the package's path.
#
# The opener's mode 4755 is part of the package's data, so an administrator
# changes it with dpkg-statoverride and no maintainer script fights that;
# the package has no maintainer scripts at all. The host directory and the
# admin trust store are directories of the package, root's and 0755.
#
# Environment: HALCYX_DEB_REVISION (default 1), HALCYX_DEB_MAINTAINER,
# SOURCE_DATE_EPOCH (the changelog's date; default the last commit's).
set -euo pipefail
[ $# -ge 1 ] && [ $# -le 2 ] || { echo "usage: make-deb.sh BUILD-DIR [OUT-DIR]" >&2; exit 2; }
build=$(cd "$1" && pwd)
out=$(mkdir -p "${2:-.}" && cd "${2:-.}" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
conf=$build/halcyx-pkg/package.conf
[ -r "$conf" ] || { echo "make-deb: $build is not a configured build tree" >&2; exit 2; }
. "$conf"
if [ -n "$HALCYX_SANDBOX_DIR" ]; then
   echo "make-deb: $build is a sandbox build (paths under $HALCYX_SANDBOX_DIR); not packaged" >&2
   exit 1
fi
[ -n "$HALCYX_VENDOR_ROOTS_PEM" ] ||
   echo "make-deb: warning: this build trusts only its development root (HALCYX_VENDOR_ROOTS_PEM unset)" >&2

package=$PROJECT_NAME
version=$PROJECT_VERSION-${HALCYX_DEB_REVISION:-1}
arch=$(dpkg --print-architecture)
maintainer=${HALCYX_DEB_MAINTAINER:-The halcyx-opener authors <halcyx-opener@zorvex.example>}
epoch=${SOURCE_DATE_EPOCH:-$(git -C "$source_dir" log -1 --format=%ct 2>/dev/null || date +%s)}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
DESTDIR=$root cmake --install "$build" --prefix /usr >"$work/install.log" ||
   { cat "$work/install.log" >&2; exit 1; }

# Modes do not depend on the umask of whoever installed.
find "$root" -type d -exec chmod 0755 {} +
find "$root" -type f -exec chmod go-w {} +
opener=$root/usr/$HALCYX_INSTALL_OPENER_DIR/$HALCYX_INSTALL_OPENER_NAME
case $HALCYX_INSTALL_OPENER_DIR in /*) opener=$root$HALCYX_INSTALL_OPENER_DIR/$HALCYX_INSTALL_OPENER_NAME ;; esac
[ -f "$opener" ] || { echo "make-deb: the install tree has no opener at $opener" >&2; exit 1; }

# Programs and archives without their debugging information, as Debian ships them.
elves=()
while IFS= read -r -d '' f; do
   if [ "$(head -c 4 "$f" | od -An -c | tr -d ' ')" = '177ELF' ]; then
      elves+=("$f")
      strip --remove-section=.comment --remove-section=.note --strip-unneeded "$f"
   elif [[ $f == *.a ]]; then
      strip --strip-debug --remove-section=.comment --enable-deterministic-archives "$f"
   fi
done < <(find "$root" -type f -print0)
chmod 4755 "$opener"

mandir=$root/usr/$CMAKE_INSTALL_MANDIR
[ -d "$mandir" ] && find "$mandir" -type f ! -name '*.gz' -exec gzip -9n {} +

doc=$root/usr/share/doc/$package
mkdir -p "$doc"
{
   printf 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n'
   printf 'Upstream-Name: %s\n\n' "$package"
   printf 'Files: *\n'
   printf 'Copyright: %s\n' "$(sed -n 's/^Copyright (c) //p' "$source_dir/LICENSE" | head -1)"
   printf 'License: MIT\n'
   # The licence text, from the first paragraph after the copyright line,
   # as a copyright-file paragraph (blank lines become " .").
   awk 'p { print } /^Copyright/ { p = 1 }' "$source_dir/LICENSE" | sed '/./,$!d' |
      sed 's/^$/./; s/^/ /'
} >"$doc/copyright"
{
   printf '%s (%s) unstable; urgency=medium\n\n' "$package" "$version"
   printf '  * Package built from the project'"'"'s install tree.\n\n'
   printf ' -- %s  %s\n' "$maintainer" "$(LC_ALL=C date -u -R -d "@$epoch")"
} | gzip -9n >"$doc/changelog.Debian.gz"
touch -d "@$epoch" "$doc/changelog.Debian.gz" "$doc/copyright"

# Each override is a consequence of what the package is for.
opener_rel=${opener#"$root"/}
host_top=${HALCYX_HOST_DIR#/}
host_top=${host_top%%/*}
mkdir -p "$root/usr/share/lintian/overrides"
cat >"$root/usr/share/lintian/overrides/$package" <<EOF
# The host directory is a fixed path of the product, shared by the opener
# and every version of the services daemon.
$package: non-standard-toplevel-dir [$host_top/]
$package: file-in-unusual-dir [$host_top/*]
# The opener is set-user-ID root by design (dpkg-statoverride may change it).
$package: elevated-privileges 4755 root/root [$opener_rel]
# The opener is a static PIE: it needs no shared library.
$package: shared-library-lacks-prerequisites [$opener_rel]
EOF
chmod 0644 "$root/usr/share/lintian/overrides/$package"

# Shared libraries of the dynamically linked programs (the opener is static).
mkdir -p "$work/debian" "$root/DEBIAN"
printf 'Source: %s\n\nPackage: %s\nArchitecture: any\n' "$package" "$package" >"$work/debian/control"
(cd "$work" && dpkg-shlibdeps -O "${elves[@]/#/-e}") >"$work/substvars" 2>"$work/shlibdeps.log" ||
   { cat "$work/shlibdeps.log" >&2; exit 1; }
depends=$(sed -n 's/^shlibs:Depends=//p' "$work/substvars")

cat >"$root/DEBIAN/control" <<EOF
Package: $package
Version: $version
Architecture: $arch
Maintainer: $maintainer
Installed-Size: $(du -sk --apparent-size "$root" | cut -f1)
Depends: $depends
Section: admin
Priority: optional
Description: set-user-ID root opener of the Zorvex Halcyx services daemon
 halcyx-opener makes sure that the product's root services daemon runs and
 hands it one file descriptor over a Unix-domain socket. On a cold start it
 rebuilds the daemon's installation tree from the code-signed components of
 the product bundle, verifying each one before and after the copy.
 .
 The package also holds the reference services daemon, the code-signing
 tool halcyx-sign and the halcyx library (static archives, C headers,
 pkg-config and CMake files) for the product's own programs.
EOF
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -print0 | LC_ALL=C sort -z |
   xargs -0 md5sum | sed 's| \./| |') >"$root/DEBIAN/md5sums"
chmod 0644 "$root/DEBIAN/control" "$root/DEBIAN/md5sums"

deb=$out/${package}_${version}_$arch.deb
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
