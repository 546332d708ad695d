#!/usr/bin/env bash
# Compares one benchmark figure of two builds side by side:
#
#   bench/compare.sh BUILD_A BUILD_B PROGRAM FILTER COUNTER [ROUNDS]
#   bench/compare.sh /tmp/old/build/default build/default reader_bench \
#       'IfhLookup/60000' median_ns 10
#
# Runs PROGRAM of each build in turn, ROUNDS times (default 10), each run in
# a namespace of its own, and reads COUNTER of the benchmarks that FILTER
# selects.  On a shared machine the cost of memory moves a lot from one
# minute to the next, so a single run says little; alternating the two
# builds exposes them to the same noise.  Prints every round, then per build
# the median and minimum, and the median of the per-round ratios B / A.
set -euo pipefail

if [ $# -lt 5 ]; then
  echo "usage: bench/compare.sh BUILD_A BUILD_B PROGRAM FILTER COUNTER [ROUNDS]" >&2
  exit 2
fi
a=$1/bench/$3
b=$2/bench/$3
filter=$4
counter=$5
rounds=${6:-10}
for prog in "$a" "$b"; do
  if [ ! -x "$prog" ]; then
    echo "bench/compare.sh: no benchmark program $prog" >&2
    exit 1
  fi
done

# One run of a program: the counter's value, or nothing.
figure() {
  local ns="cmp$$_$2"
  PMDB_NS=$ns "$1" --benchmark_filter="$filter" 2>/dev/null |
    grep -o "$counter=[0-9.]*" | head -n 1 | cut -d= -f2
  rm -f "/dev/shm/$ns."* "/dev/shm/sem.$ns."*
}

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for ((i = 1; i <= rounds; i++)); do
  fa=$(figure "$a" "a$i")
  fb=$(figure "$b" "b$i")
  if [ -z "$fa" ] || [ -z "$fb" ]; then
    echo "bench/compare.sh: round $i: no $counter from $filter" >&2
    exit 1
  fi
  echo "round $i: A $fa  B $fb"
  echo "$fa $fb" >>"$results"
done

median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
echo "A ($1): median $(cut -d' ' -f1 "$results" | median)  min $(cut -d' ' -f1 "$results" | sort -g | head -n 1)"
echo "B ($2): median $(cut -d' ' -f2 "$results" | median)  min $(cut -d' ' -f2 "$results" | sort -g | head -n 1)"
echo "B / A per round, median: $(awk '{printf "%.3f\n", $2 / $1}' "$results" | median)"
