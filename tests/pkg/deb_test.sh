#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The Debian package, in three steps sharing one package in DEB-DIR:
#   deb_test.sh make    BUILD-DIR DEB-DIR           makes it (scripts/make-deb.sh)
#   deb_test.sh lintian BUILD-DIR DEB-DIR           no lintian error (skipped without lintian)
#   deb_test.sh install BUILD-DIR DEB-DIR STATIC    root only (else skipped): installs it
#       with dpkg into a throw-away root on a tmpfs in a private mount
#       namespace, checks the installed modes, starts the installed opener
#       there as "nobody" and sees it act as root, then shows that
#       dpkg-statoverride, not the package, has the last word on its mode.
set -uo pipefail
step=$1 build=$2 debs=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$build/halcyx-pkg/package.conf"

case $step in
make)
   rm -rf "$debs" && mkdir -p "$debs" || exit 1
   "$here/../../scripts/make-deb.sh" "$build" "$debs" 2>&1 >/dev/null | grep -v 'development root'
   ls "$debs"/*.deb >/dev/null || exit 1
   exit 0 ;;
lintian)
   command -v lintian >/dev/null || { echo "lintian is not installed: skipped"; exit 77; }
   exec lintian --fail-on error "$debs"/*.deb ;;
install) ;;
*) echo "usage: deb_test.sh make|lintian|install BUILD-DIR DEB-DIR [STATIC]" >&2; exit 2 ;;
esac

static=$4
if [ "$(id -u)" != 0 ] || ! unshare -m true 2>/dev/null; then
   echo "not root: skipped"
   exit 77
fi
deb=$(echo "$debs"/*.deb)
opener=/usr/$HALCYX_INSTALL_OPENER_DIR/$HALCYX_INSTALL_OPENER_NAME
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
# The rest runs in its own mount namespace, the root on a tmpfs of its own.
unshare -m bash -s "$tmp" "$deb" "$opener" "$static" "$HALCYX_HOST_DIR" \
   "$HALCYX_ADMIN_TRUST_STORE" "$PROJECT_NAME" <<'SCRIPT'
set -uo pipefail
tmp=$1 deb=$2 opener=$3 static=$4 host=$5 trust=$6 package=$7
root=$tmp/root
failed=0
fail() {
   echo "FAIL: $*"
   failed=1
}
mode() { stat -c '%a %U:%G' "$root$1"; }
dpkg_root() { dpkg --root="$root" --force-depends "$@" >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log"; exit 1; }; }

mkdir -p "$root" && mount --make-rprivate / && mount -t tmpfs -o mode=0755 pkg "$root" || exit 1
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/run" "$root/proc" &&
   touch "$root/var/lib/dpkg/status" || exit 1
dpkg_root -i "$deb"

for want in "$opener|4755 root:root" "$host|755 root:root" "$trust|755 root:root" \
            "/usr/share/doc/$package/copyright|644 root:root" \
            "/usr/share/doc/$package/changelog.Debian.gz|644 root:root"; do
   path=${want%%|*}
   got=$(mode "$path" 2>&1)
   [ "$got" = "${want#*|}" ] || fail "$path: $got, expected ${want#*|}"
done
[ -z "$(ls "$root/var/lib/dpkg/info/$package".{preinst,postinst,prerm,postrm} 2>/dev/null)" ] ||
   fail "the package has maintainer scripts"

# Started by nobody, the installed opener takes the rendezvous lock in a
# directory only root may write, then fails at the bundle, which holds no
# components: exit status 1, the lock root's.
if [ "$static" = ON ]; then
   mount -t proc proc "$root/proc" || exit 1
   timeout 20 chroot --userspec=65534:65534 "$root" "$opener" 0 </dev/null >"$tmp/opener.out" 2>&1
   status=$?
   [ $status = 1 ] || fail "the opener exited $status: $(cat "$tmp/opener.out")"
   [ "$(stat -c %U "$root/var/run/Zorvex Halcyx Services.lock" 2>&1)" = root ] ||
      fail "the opener did not act as root: $(cat "$tmp/opener.out")"
   umount "$root/proc"
fi

# The administrator's choice of mode survives reinstalling the package.
dpkg-statoverride --root="$root" --update --add root root 0755 "$opener" >/dev/null 2>&1 ||
   fail "dpkg-statoverride refused the opener"
dpkg_root -i "$deb"
[ "$(mode "$opener")" = "755 root:root" ] ||
   fail "after dpkg-statoverride and a reinstall the opener is $(mode "$opener")"

[ $failed = 0 ] && echo "package installed; the opener ran set-user-ID root from it"
exit $failed
SCRIPT
