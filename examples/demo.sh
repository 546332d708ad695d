#!/usr/bin/env bash
# make demo: a small line card built in shared memory by one process, then
# looked at from other processes the way an operator debugs a card: tables,
# consistency check, shared context regions, node values, entries, traces;
# and finally a writer killed while it holds an entry lock, and the card
# carrying on.
#
# Runs unattended in a namespace of its own (PMDB_NS=demo<pid>); every shared
# object of that namespace is removed at exit.  Exit status 0 when every step
# did what it says.
#
#   PMDB_BUILD_DIR   the build directory (default build/default)
set -euo pipefail

BUILD_DIR=${PMDB_BUILD_DIR:-build/default}
PMDBCTL="$BUILD_DIR/tools/pmdbctl"
CARD="$BUILD_DIR/examples/card_writer"
TRACE_WRITER="$BUILD_DIR/examples/trace_writer"
export PMDB_NS="demo$$"
SCRATCH_NS="${PMDB_NS}t"   # the trace service on its own, away from the card

work=$(mktemp -d)
holder=""
cleanup() {
    if [ -n "$holder" ]; then kill -9 "$holder" 2>/dev/null || true; fi
    for ns in "$PMDB_NS" "$SCRATCH_NS"; do
        rm -f "/dev/shm/${ns}."* "/dev/shm/sem.${ns}."*
    done
    rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }
say() { printf '   %s\n' "$@"; }
# Runs a command with its output kept, then shows the first or last lines
# (a pipe into head would make a long writer fail with SIGPIPE).
first() { local n=$1; shift; "$@" >"$work/out"; head -n "$n" "$work/out"; }
last() { local n=$1; shift; "$@" >"$work/out"; tail -n "$n" "$work/out"; }

for tool in "$PMDBCTL" "$CARD" "$TRACE_WRITER"; do
    if [ ! -x "$tool" ]; then
        echo "demo: $tool is missing; build first (make build)" >&2
        exit 1
    fi
done

step "host platform settings (namespace $PMDB_NS)"
"$PMDBCTL" settings

step "card_writer builds the line card, one event at a time"
say "node 1: ports 0x1001 0x1002; node 2: ports 0x2001 0x2002 and BVI 0x4001;" \
    "bundle 0x3001 with members 0x1001 and 0x2001."
"$CARD" build

step "pmdbctl tables: what the table store holds"
"$PMDBCTL" tables

step "pmdbctl check: every table, region and entry lock (exit 1 on a fault)"
"$PMDBCTL" check

step "pmdbctl regions: the shared context regions and their entry locks"
"$PMDBCTL" regions

step "pmdbctl globals: node values of the IFH region"
say "node 1 is the high-scale node (bit 1 = its node index) and the first node seen."
"$PMDBCTL" globals
"$PMDBCTL" globals --json

step "pmdbctl dump ifh: every interface (here only a few fields of each)"
"$PMDBCTL" dump ifh >"$work/ifh"
grep -E '^ifh |member_count|ifh_flags|node_mask|intf_info\.(bundle_ifh|node_id|intf_type|oor_state) ' \
    "$work/ifh"

step "pmdbctl show 0x3001: the bundle and the entries that belong to it"
"$PMDBCTL" show 0x3001

step "pmdbctl dump punt --json (first lines)"
first 30 "$PMDBCTL" dump punt --json

step "pmdbctl trace --buffer event (last records)"
last 12 "$PMDBCTL" trace --buffer event

step "a writer dies holding an entry lock"
say "card_writer hold takes the lock of port 0x1002's IFH entry, as a writer" \
    "does in the middle of a change, and never lets it go."
"$CARD" hold 0x1002 >"$work/hold" &
holder=$!
# Disowned: the shell then never prints its own "Killed" line for it.
disown "$holder"
for _ in $(seq 100); do
    grep -q 'holds the entry lock' "$work/hold" && break
    sleep 0.1
done
cat "$work/hold"
grep -q 'holds the entry lock' "$work/hold" || { echo "demo: the holder never took the lock" >&2; exit 1; }
"$PMDBCTL" regions | grep -A 3 '^ifh'

say "kill -9 $holder"
kill -9 "$holder"
# Gone once the shell has reaped it (a zombie still has its /proc entry).
while kill -0 "$holder" 2>/dev/null; do sleep 0.05; done
holder=""

step "pmdbctl regions: the lock is left by a dead owner"
"$PMDBCTL" regions | grep -A 2 '^ifh'

step "the card carries on: the next writer of that entry recovers the lock"
"$CARD" oor 0x1002 1
say "trace 69 (database buffer) records the recovery:"
"$PMDBCTL" trace --buffer database | grep ' 69 ' | tail -n 1
"$PMDBCTL" regions | grep -A 2 '^ifh'
"$PMDBCTL" dump ifh --key 0x1002 | grep -E '^ifh |oor_(state|reason|changes) '
"$PMDBCTL" check

step "the trace service on its own (namespace $SCRATCH_NS): any process writes, pmdbctl reads"
PMDB_NS="$SCRATCH_NS" "$TRACE_WRITER" 3
"$PMDBCTL" --ns "$SCRATCH_NS" trace
"$PMDBCTL" --ns "$SCRATCH_NS" trace --buffer event --json

step "done; the shared objects of $PMDB_NS and $SCRATCH_NS are removed"
