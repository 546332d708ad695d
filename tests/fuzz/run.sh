#!/usr/bin/env bash
# Runs each libFuzzer harness of a fuzz build for FUZZ_SECONDS (default 60)
# from the seed corpus of the repository; inputs it finds go to a work
# corpus in the build directory, crashes to <build>/fuzz-artifacts/.  Exits
# 1 when any harness found a crash, a sanitizer report or a broken invariant.
#   tests/fuzz/run.sh [BUILD_DIR]
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build/fuzz}"
seconds="${FUZZ_SECONDS:-60}"
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"
# The harnesses link the sanitizers' shared runtime (libraries and programs share one).
export LD_LIBRARY_PATH="$(clang -print-resource-dir)/lib/linux${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export ASAN_OPTIONS="verify_asan_link_order=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
status=0
start=$(date +%s)
for name in oper stream tabra; do
  # Each table the damaged-object harness opens stays mapped for the life
  # of the process, as every table handle does: it runs in short-lived
  # child processes (libFuzzer's fork mode) so that they do not pile up.
  extra=()
  [ "$name" = tabra ] && extra=(-fork=1)
  work="$build/fuzz-corpus/$name"
  mkdir -p "$work"
  log="$artifacts/$name.log"
  # The bound on the whole run also ends a report that never finishes.
  if timeout --kill-after=10 $((seconds + 120)) \
       "$build/tests/fuzz/fuzz_$name" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
       -print_final_stats=1 "${extra[@]}" -artifact_prefix="$artifacts/$name-" "$work" "$here/corpus/$name" \
       >"$log" 2>&1; then
    runs=$(grep -o -E 'stat::number_of_executed_units: *[0-9]+|^#[0-9]+' "$log" | tail -1 | grep -o -E '[0-9]+$')
    echo "fuzz_$name: ${seconds}s, ${runs:-?} runs, nothing found"
  else
    echo "fuzz_$name: FOUND a fault (log $log, input under $artifacts/)"
    grep -m3 -E 'ERROR|broken invariant|runtime error' "$log"
    status=1
  fi
done
echo "fuzzing took $(( $(date +%s) - start ))s"
exit $status
