#!/usr/bin/env bash
# Runs every benchmark program built in $PMDB_BUILD_DIR/bench, each in a
# namespace of its own that is removed afterwards, then prints the table of
# ratios of e2e_bench again (docs/performance.md).
set -euo pipefail

BUILD_DIR=${PMDB_BUILD_DIR:-build/default}
BENCH_DIR="$BUILD_DIR/bench"
if [ ! -d "$BENCH_DIR" ]; then
  echo "bench/run.sh: no benchmarks built in $BENCH_DIR" >&2
  exit 1
fi

ratios=$(mktemp)
trap 'rm -f "$ratios"' EXIT
export E2E_RATIOS_FILE=$ratios
status=0
found=0
for prog in "$BENCH_DIR"/*; do
  [ -f "$prog" ] && [ -x "$prog" ] || continue
  found=1
  name=$(basename "$prog" | tr -c 'A-Za-z0-9_\n-' '_')
  export PMDB_NS="bench$$_${name:0:24}"
  echo "== $(basename "$prog")"
  "$prog" "$@" || status=$?
  rm -f "/dev/shm/${PMDB_NS}."* "/dev/shm/sem.${PMDB_NS}."*
done
if [ -s "$ratios" ]; then
  echo "== e2e_bench ratios"
  cat "$ratios"
fi
if [ "$found" -eq 0 ]; then
  echo "bench/run.sh: no benchmark programs in $BENCH_DIR" >&2
  exit 1
fi
exit "$status"
