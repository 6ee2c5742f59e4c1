#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Prints how our implementation compares with its baseline in a Google
# Benchmark binary, as the ratio of median times (ours / baseline).
#
# Usage: scripts/bench-ratios.sh [BINARY] [BENCHMARK FLAGS...]
#   BINARY defaults to build/bench/str_benchmark; any further arguments go to
#   the binary (e.g. --benchmark_filter=Snprintf). REPETITIONS (default 10)
#   sets the number of repetitions whose median is reported; OURS (default
#   "halcyx") names our side of each pair; TIME (default "cpu", or "real")
#   picks the clock.
#
# Measuring on a shared machine: wall-clock time counts whatever else ran
# while the benchmark was preempted, and running all repetitions of one side
# before the other lets a change in load land on one side only. So the
# repetitions of both sides are interleaved in random order, and the
# process's CPU time is compared by default. Each row also shows the spread
# (minimum to maximum) of our side's repetitions divided by the baseline's
# median; run the script more than once and report the range of ratios.
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
repetitions=${REPETITIONS:-10}
clock=${TIME:-cpu}
ours=${OURS:-halcyx}

if [[ ! -x "$binary" ]]; then
   echo "bench-ratios: $binary is not an executable benchmark binary" >&2
   exit 2
fi

json=$(mktemp)
trap 'rm -f "$json"' EXIT
"$binary" --benchmark_format=json \
          --benchmark_repetitions="$repetitions" \
          --benchmark_enable_random_interleaving=true \
          "$@" >"$json"

python3 - "$json" "$ours" "$clock" <<'PY'
import json
import statistics
import sys

path, ours, clock = sys.argv[1], sys.argv[2], sys.argv[3]
with open(path) as f:
    report = json.load(f)

# run_name -> every repetition's time, and the time unit
runs, units = {}, {}
for b in report["benchmarks"]:
    if b.get("run_type") == "aggregate":
        continue
    name = b.get("run_name", b["name"])
    runs.setdefault(name, []).append(b[clock + "_time"])
    units[name] = b.get("time_unit", "ns")
medians = {name: (statistics.median(times), units[name]) for name, times in runs.items()}

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
print(f"{clock} time, median of {len(next(iter(runs.values())))} interleaved repetitions")
print(f"{'pair':<{width}}  {'baseline':<{bwidth}}  {'baseline':>12}  {ours:>12}  {'ratio':>6}"
      f"  {'spread':>13}")
for group, base, base_time, our_time, unit in rows:
    ours_name = group.replace("*", ours)
    if base_time > 0:
        ratio = f"{our_time / base_time:>5.2f}x"
        spread = (f"{min(runs[ours_name]) / base_time:.2f}-"
                  f"{max(runs[ours_name]) / base_time:.2f}x")
    else:
        ratio, spread = "  inf", ""
    print(f"{group:<{width}}  {base:<{bwidth}}  {base_time:>9.1f} {unit:<2}"
          f"  {our_time:>9.1f} {unit:<2}  {ratio}  {spread:>13}")
unpaired = sorted(set(medians) - paired)
if unpaired:
    print("unpaired: " + ", ".join(unpaired))
PY
