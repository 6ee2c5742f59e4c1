#!/usr/bin/env bash
# Prints how our implementation compares with its baseline in a Google
# Benchmark binary, as the ratio of median times (ours / baseline).
#
# Usage: scripts/bench-ratios.sh [BINARY] [BENCHMARK FLAGS...]
#   BINARY defaults to build/bench/str_benchmark; any further arguments go to
#   the binary (e.g. --benchmark_filter=Snprintf). REPETITIONS (default 5)
#   sets the number of repetitions whose median is reported; OURS (default
#   "halcyx") names our side of each pair.
#
# Naming convention: every measurement is a pair of benchmarks whose names
# differ only in one "/"-separated component, the implementation:
#   BM_Snprintf_Error/glibc          BM_Snprintf_Error/halcyx
#   BM_HashInsert/std/1024           BM_HashInsert/halcyx/1024
#   BM_MutexUncontended/pthread      BM_MutexUncontended/halcyx
# The component equal to $OURS is our side; any benchmark with the same name
# but another word in that place is a baseline, and gets one row. Benchmarks
# without such a partner are listed as unpaired.
#
# Output: one row per pair with both medians (in the benchmark's time unit)
# and the ratio; a ratio above 1 means ours is slower.
set -euo pipefail

binary=${1:-build/bench/str_benchmark}
shift || true
repetitions=${REPETITIONS:-5}
ours=${OURS:-halcyx}

if [[ ! -x "$binary" ]]; then
   echo "bench-ratios: $binary is not an executable benchmark binary" >&2
   exit 2
fi

json=$(mktemp)
trap 'rm -f "$json"' EXIT
"$binary" --benchmark_format=json \
          --benchmark_repetitions="$repetitions" \
          --benchmark_report_aggregates_only=true \
          "$@" >"$json"

python3 - "$json" "$ours" <<'PY'
import json
import sys

path, ours = sys.argv[1], sys.argv[2]
with open(path) as f:
    report = json.load(f)

# run_name -> (median real time, time unit)
medians = {}
for b in report["benchmarks"]:
    if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
        continue
    name = b.get("run_name", b["name"])
    medians[name] = (b["real_time"], b.get("time_unit", "ns"))

rows, paired = [], set()
for name, (our_time, unit) in medians.items():
    parts = name.split("/")
    for i, part in enumerate(parts):
        if part != ours:
            continue
        for other, (base_time, base_unit) in medians.items():
            oparts = other.split("/")
            if (other == name or len(oparts) != len(parts)
                    or oparts[:i] + oparts[i + 1:] != parts[:i] + parts[i + 1:]):
                continue
            if base_unit != unit:
                print(f"bench-ratios: {name} and {other} use different time units",
                      file=sys.stderr)
                continue
            group = "/".join(parts[:i] + ["*"] + parts[i + 1:])
            rows.append((group, oparts[i], base_time, our_time, unit))
            paired.update((name, other))

if not rows:
    sys.exit(f"bench-ratios: no benchmark pairs named <Group>/<baseline> and <Group>/{ours}")

rows.sort()
width = max(len(r[0]) for r in rows)
bwidth = max(len("baseline"), max(len(r[1]) for r in rows))
print(f"{'pair':<{width}}  {'baseline':<{bwidth}}  {'baseline':>12}  {ours:>12}  {'ratio':>6}")
for group, base, base_time, our_time, unit in rows:
    ratio = our_time / base_time if base_time > 0 else float("inf")
    print(f"{group:<{width}}  {base:<{bwidth}}  {base_time:>9.1f} {unit:<2}"
          f"  {our_time:>9.1f} {unit:<2}  {ratio:>5.2f}x")
unpaired = sorted(set(medians) - paired)
if unpaired:
    print("unpaired: " + ", ".join(unpaired))
PY
