#!/usr/bin/env bash
# The main job, end to end: builds the opener and the reference services
# daemon in a sandbox configuration (every fixed path under /tmp/halcyx-sbx),
# installs them on a private tmpfs in a private mount and PID namespace, and
# runs the opener set-user-ID root as the unprivileged user "nobody":
#   1. descriptor mode, handing over a file that nobody opened for writing:
#      the opener starts the daemon, which writes one line into that file;
#   2. descriptor mode, handing over the terminal (standard output): the
#      already running daemon writes one line into it;
#   3. shell mode: the daemon keeps the pipe it was handed and reports its
#      end-of-file when the opener is killed.
# Nothing outside the build tree changes: the tmpfs, the daemon and every
# other process of the demo vanish with the namespaces at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" != --inside ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "demo: run as root (it installs the opener set-user-ID root in a private namespace)" >&2
    exit 1
  fi
  scripts/install-deps.sh
  cmake -S . -B build-sandbox -G Ninja -C cmake/HalcyxSandbox.cmake >/dev/null
  cmake --build build-sandbox --target halcyx-opener halcyx-services-daemon
  mkdir -p /tmp/halcyx-sbx
  exec unshare --mount --propagation private --pid --fork --mount-proc "$0" --inside
fi

# Inside the namespaces, as root.
S=/tmp/halcyx-sbx
mount -t tmpfs -o mode=0755 halcyx-sandbox "$S"
services="$S/Library/Application Support/Zorvex/Zorvex Halcyx/Services/Contents/Library/services"
mkdir -p "$S/run" "$S/log" "$S/bin" "$services" "$S/home"
install -o root -g root -m 0755 build-sandbox/daemon/halcyx-services-daemon \
  "$services/Zorvex Halcyx Services"
install -o root -g root -m 4755 build-sandbox/opener/halcyx-opener "$S/bin/halcyx-opener"
chown nobody "$S/home"
daemonLog="$S/log/Zorvex Halcyx Services.log"

nobody=(env -i PATH=/usr/bin:/bin setpriv --reuid=nobody --regid=nogroup --clear-groups --)
step() { printf '\n== %s\n' "$*"; }

step "1. nobody runs: halcyx-opener 5   (5 = $S/home/note.txt, opened for writing; no daemon yet)"
status=0
"${nobody[@]}" sh -c "exec 5>>$S/home/note.txt; exec $S/bin/halcyx-opener 5" || status=$?
echo "exit status $status"
echo "-- $S/home/note.txt now holds:"
cat "$S/home/note.txt"

step "2. nobody runs: halcyx-opener 1   (1 = this terminal; the daemon is already running)"
status=0
"${nobody[@]}" "$S/bin/halcyx-opener" 1 || status=$?
echo "exit status $status"

step "3. nobody runs: halcyx-opener   (shell mode), then it is killed"
"${nobody[@]}" "$S/bin/halcyx-opener" &
opener=$!
for _ in $(seq 100); do
  grep -q "watching the liveness pipe" "$daemonLog" 2>/dev/null && break
  sleep 0.05
done
sleep 0.5
echo "opener (pid $opener) is holding the pipe; killing it"
kill -KILL "$opener"
wait "$opener" 2>/dev/null || true
for _ in $(seq 100); do
  grep -q "liveness pipe of pid .* closed" "$daemonLog" && break
  sleep 0.05
done

step "The daemon's log ($daemonLog):"
cat "$daemonLog"
echo
ls -l "$S/run"
