#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs every libFuzzer target in turn, each for SECONDS (default 600), on a
# scratch copy of its committed corpus under ASan+UBSan (preset fuzz, built
# here when needed), then minimises what it found with -merge=1 into a fresh
# directory that starts from the committed seeds, so that they stay and only
# inputs that add coverage join them.
#
#   scripts/fuzz-all.sh [--update-corpus] [--only REGEX] [SECONDS]
#
# --update-corpus  write each minimised corpus back into fuzz/corpus/NAME
# --only REGEX     run only the targets whose name matches
#
# One line per target: name, executions, final coverage, minimised corpus
# files, findings (crash, leak, timeout and out-of-memory files; a fuzzer
# that fails without one counts as one). Findings and logs are kept in
# build-fuzz/fuzz-runs/NAME/. Exits 1 when any target found anything. The
# whole run is niced to 19: it is meant to share the machine.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=600
update=0
only=.
while [ $# -gt 0 ]; do
  case "$1" in
    --update-corpus) update=1 ;;
    --only) only="$2"; shift ;;
    -h|--help) sed -n '3,18p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *[!0-9]*|'') echo "fuzz-all.sh: unexpected argument '$1'" >&2; exit 2 ;;
    *) seconds="$1" ;;
  esac
  shift
done

renice -n 19 -p $$ >/dev/null

build=build-fuzz
targets=()
for dir in fuzz/corpus/*/; do
  name=$(basename "$dir")
  if [ -f "fuzz/$name.cc" ] && [[ "$name" =~ $only ]]; then
    targets+=("$name")
  fi
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz-all.sh: no fuzz target matches '$only'" >&2
  exit 2
fi

if [ ! -f "$build/build.ninja" ]; then
  cmake --preset fuzz >/dev/null
fi
cmake --build "$build" -j "${JOBS:-2}" --target "${targets[@]}" >/dev/null

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
printf '%-30s %12s %8s %8s %9s\n' target runs cov corpus findings
for name in "${targets[@]}"; do
  bin="$build/fuzz/$name"
  out="$build/fuzz-runs/$name"
  rm -rf "$out" "$scratch"/*
  mkdir -p "$out" "$scratch/corpus" "$scratch/min"
  cp -p "fuzz/corpus/$name"/* "$scratch/corpus/" 2>/dev/null || true
  cp -p "fuzz/corpus/$name"/* "$scratch/min/" 2>/dev/null || true

  rc=0
  "$bin" -max_total_time="$seconds" -print_final_stats=1 -timeout=25 \
    -artifact_prefix="$out/" "$scratch/corpus" >"$out/fuzz.log" 2>&1 || rc=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/fuzz.log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$out/fuzz.log" | tail -1 | cut -d' ' -f2)
  findings=$(find "$out" -maxdepth 1 -type f \
    \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  if [ "$rc" -ne 0 ] && [ "$findings" -eq 0 ]; then
    findings=1
  fi

  "$bin" -merge=1 -timeout=25 "$scratch/min" "$scratch/corpus" >"$out/merge.log" 2>&1 || true
  files=$(find "$scratch/min" -type f | wc -l)
  if [ "$update" -eq 1 ] && [ "$files" -gt 0 ]; then
    find "fuzz/corpus/$name" -maxdepth 1 -type f -delete
    cp -p "$scratch/min"/* "fuzz/corpus/$name/"
  fi

  printf '%-30s %12s %8s %8s %9s\n' "$name" "${runs:-?}" "${cov:-?}" "$files" "$findings"
  if [ "$findings" -ne 0 ]; then
    status=1
  fi
done
exit "$status"
