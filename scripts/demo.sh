#!/usr/bin/env bash
# The main job: builds the opener, installs it set-user-ID root in a private
# sandbox directory and starts it as the unprivileged user "nobody" in each
# of its modes, showing its log and exit status. Nothing outside the build
# tree and the sandbox directory is touched; the sandbox is removed at exit.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target halcyx-opener

sandbox=$(mktemp -d /tmp/halcyx-demo-XXXXXX)
trap 'rm -rf "$sandbox"' EXIT
chmod 0755 "$sandbox"
opener="$sandbox/halcyx-opener"

if [ "$(id -u)" -eq 0 ]; then
  install -o root -g root -m 4755 build/opener/halcyx-opener "$opener"
  run_as_caller=(setpriv --reuid=nobody --regid=nogroup --clear-groups --)
  echo "opener installed set-user-ID root at $opener; started as user nobody"
else
  install -m 0755 build/opener/halcyx-opener "$opener"
  run_as_caller=()
  echo "not root: the opener runs without set-user-ID in this demo"
fi

run() {
  echo
  echo "\$ halcyx-opener $*"
  local status=0
  env -i PATH=/usr/bin:/bin "${run_as_caller[@]}" "$opener" "$@" </dev/null || status=$?
  echo "exit status $status"
}

run 1          # descriptor mode: hand over descriptor 1
run            # shell mode: hand over a pipe and hold its write end
run too many   # wrong argument count
