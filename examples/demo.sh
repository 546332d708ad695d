#!/usr/bin/env bash
# Demo of the host platform: settings, traces written by one process and read
# by another.  Runs in a namespace of its own, removed at exit.
set -euo pipefail

BUILD_DIR=${PMDB_BUILD_DIR:-build/default}
PMDBCTL="$BUILD_DIR/tools/pmdbctl"
export PMDB_NS="demo$$"

cleanup() {
  rm -f "/dev/shm/${PMDB_NS}."* "/dev/shm/sem.${PMDB_NS}."*
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }

step "host platform settings (namespace $PMDB_NS)"
"$PMDBCTL" settings

step "a process writes traces"
"$BUILD_DIR/examples/trace_writer" 3

step "pmdbctl trace (all buffers, merged by time)"
"$PMDBCTL" trace

step "pmdbctl trace --buffer event --json"
"$PMDBCTL" trace --buffer event --json

step "pmdbctl open --write (a process opens the three databases)"
"$PMDBCTL" open --write

step "pmdbctl regions (the three shared context regions and their entry locks)"
"$PMDBCTL" regions

step "pmdbctl tables (the table store: entry size, entries, capacity, occupancy)"
"$PMDBCTL" tables

step "pmdbctl check (index, free slots and counts of every table; exit 1 on a fault)"
"$PMDBCTL" check

step "pmdbctl globals (node values of the IFH region: high-scale nodes, inventory node)"
"$PMDBCTL" globals
"$PMDBCTL" globals --json
