#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The main job, end to end: builds the signed sample bundle (the opener and
# the reference services daemon in a sandbox configuration, every fixed path
# under /tmp/halcyx-sbx), then, in a private mount and PID namespace with a
# private /tmp, installs the bundle for the unprivileged user "nobody" with
# the opener set-user-ID root inside it, and shows:
#   1. a cold start: no daemon and no Services tree; nobody runs the opener
#      from the bundle, handing over a file it opened; the opener rebuilds
#      the tree from the bundle's verified components, records the bundle
#      in the product file and starts the daemon from the tree, which
#      writes one line into the file;
#   2. a hot start: the running daemon writes one line into the terminal;
#   3. shell mode: the daemon reports the pipe's end when the opener dies;
#   4. a bundle component replaced by an unsigned copy: the next cold start
#      refuses with the verifier's line and starts no daemon;
#   5. the component restored: the following cold start recovers.
# It exits non-zero when any step did not do what it printed. Nothing
# outside the build tree changes: the tmpfs, the daemon and every other
# process of the demo vanish with the namespaces at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" != --inside ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "demo: run as root (it installs the opener set-user-ID root in a private namespace)" >&2
    exit 1
  fi
  scripts/install-deps.sh
  [ -f build/CMakeCache.txt ] || cmake --preset default >/dev/null
  cmake --build build --target sample_bundle
  exec unshare --mount --propagation private --pid --fork --mount-proc "$0" --inside
fi

# Inside the namespaces, as root. A private /tmp: the sandbox directory
# never exists on the host.
mount -t tmpfs -o mode=1777 halcyx-demo-tmp /tmp
S=/tmp/halcyx-sbx
app="$S/Applications/Zorvex Halcyx.app"
opener="$app/Contents/Library/services/Open Zorvex Halcyx Services"
host="$S/Library/Application Support/Zorvex/Zorvex Halcyx"
tree="$host/Services"
treeDaemon="$tree/Contents/Library/services/Zorvex Halcyx Services"
productFile="$S/Library/Preferences/Zorvex Halcyx/lastLocationUsed"
daemonLog="$S/log/Zorvex Halcyx Services.log"
bundle="build/sample/Zorvex Halcyx.app"
bad="Contents/Library/zxnet-natd"

mkdir -p "$S/run" "$S/log" "$S/home" "$S/Applications" "$host"
cp -a "$bundle" "$app"
chown -R nobody:nogroup "$app" "$S/home"
chown root:root "$opener"
chmod 04755 "$opener"

nobody=(env -i PATH=/usr/bin:/bin setpriv --reuid=nobody --regid=nogroup --clear-groups --)
step() { printf '\n== %s\n' "$*"; }
failed=0
check() {  # check DESCRIPTION COMMAND...
  if "${@:2}"; then
    echo "ok: $1"
  else
    echo "FAILED: $1"
    failed=1
  fi
}
started() {  # how many daemons have started
  local n=0
  [ ! -f "$daemonLog" ] || n=$(grep -c "started, pid" "$daemonLog" || true)
  echo "$n"
}
daemonPid() { sed -n 's/.*started, pid \([0-9]*\)\..*/\1/p' "$daemonLog" | tail -n 1; }
runsFromTree() { [ "$(readlink "/proc/$(daemonPid)/exe")" = "$treeDaemon" ]; }
stopDaemon() {
  local pid
  pid=$(daemonPid)
  kill -KILL "$pid"
  while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
}

step "0. Before: no daemon, no Services tree, no product file"
ls -la "$host"
check "no Services tree" test ! -e "$tree"
check "no product file" test ! -e "$productFile"
check "no daemon" test "$(started)" = 0

step "1. nobody runs: '$opener' 5   (5 = $S/home/note.txt, opened for writing)"
status=0
"${nobody[@]}" sh -c "exec 5>>$S/home/note.txt; exec '$opener' 5" || status=$?
echo "exit status $status"
check "the opener succeeded" test "$status" = 0
echo "-- the Services tree (mode, owner:group, size, path):"
find "$tree" -printf '%M %u:%g %8s %P\n' | sort -k4
check "every file of the tree is root:root" test -z "$(find "$tree" -type f ! \( -user root -group root \))"
echo "-- $productFile ($(stat -c '%A %U' "$productFile")):"
cat "$productFile"; echo
check "the product file holds the bundle's root" test "$(cat "$productFile")" = "$app"
echo "-- the daemon (pid $(daemonPid)) runs $(readlink "/proc/$(daemonPid)/exe")"
check "one daemon, started from the tree" runsFromTree
echo "-- $S/home/note.txt now holds:"
cat "$S/home/note.txt"
check "the daemon wrote into the caller's file" grep -q "received this descriptor" "$S/home/note.txt"

step "2. nobody runs the opener again: halcyx-opener 1   (1 = this terminal; the daemon is running)"
status=0
"${nobody[@]}" "$opener" 1 || status=$?
echo "exit status $status"
check "the running daemon took the terminal, no new daemon" test "$status:$(started)" = "0:1"

step "3. nobody runs the opener in shell mode, then it is killed"
"${nobody[@]}" "$opener" &
shell=$!
for _ in $(seq 100); do
  grep -q "watching the liveness pipe of pid $shell" "$daemonLog" && break
  sleep 0.05
done
kill -KILL "$shell"
wait "$shell" 2>/dev/null || true
for _ in $(seq 100); do
  grep -q "liveness pipe of pid $shell closed" "$daemonLog" && break
  sleep 0.05
done
check "the daemon saw the shell-mode pipe end" grep -q "liveness pipe of pid $shell closed" "$daemonLog"

step "4. $bad in the bundle is replaced by an unsigned copy; the daemon is stopped"
cat "$bundle/$bad" >"$app/$bad.unsigned"
mv "$app/$bad.unsigned" "$app/$bad"
stopDaemon
status=0
out=$("${nobody[@]}" "$opener" 0 </dev/null) || status=$?
echo "$out"
echo "exit status $status"
check "the cold start refused" test "$status" = 1
check "with the verifier's line for $bad" \
  grep -q "PrivilegedHelper: Failed to verify the code signature of $app/$bad due to" <<<"$out"
check "and started no daemon" test "$(started)" = 1
check "the tree stops before $bad" test ! -e "$tree/$bad"

step "5. $bad restored; nobody runs the opener again"
cp -a "$bundle/$bad" "$app/$bad"
chown nobody:nogroup "$app/$bad"
status=0
"${nobody[@]}" "$opener" 0 </dev/null || status=$?
echo "exit status $status"
check "the cold start recovered" test "$status:$(started)" = "0:2"
check "the new daemon runs from the rebuilt tree" runsFromTree
check "with $bad in place" test -f "$tree/$bad"

step "The daemon's log ($daemonLog):"
cat "$daemonLog"
echo
if [ "$failed" -ne 0 ]; then
  echo "demo: some steps FAILED (see above)"
  exit 1
fi
echo "demo: every step did what it printed"
