#!/usr/bin/env bash
# make demo: a line card of two nodes generated as an event stream, replayed
# through the library's event entry and looked at from other processes the
# way an operator debugs a card: tables, one bundle, a drawing of the card,
# traces, the consistency check; then its teardown replayed; then a small
# card built by hand, a writer killed while it holds an entry lock, and the
# card carrying on.
#
# Runs unattended in a namespace of its own (PMDB_NS=demo<pid>); every shared
# object of that namespace is removed at exit.  Exit status 0 when every step
# did what it says.
#
#   PMDB_BUILD_DIR   the build directory (default build/default); the drawing
#                    of the card is left there as demo-card.svg
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
# Runs a command with its output kept, then shows the lines matching a pattern.
only() { local re=$1; shift; "$@" >"$work/out"; grep -E "$re" "$work/out"; }
last() { local n=$1; shift; "$@" >"$work/out"; tail -n "$n" "$work/out"; }

for tool in "$PMDBCTL" "$CARD" "$TRACE_WRITER"; do
    if [ ! -x "$tool" ]; then
        echo "demo: $tool is missing; build first (make build)" >&2
        exit 1
    fi
done

step "host platform settings (namespace $PMDB_NS)"
"$PMDBCTL" settings | grep -E '^(NAME|os\.namespace|halvo\.(max_entries|oam_enable|lcvm_redundancy)) '

GEN=(gen --nodes 2 --ports 24 --subs 1 --bundles 4 --members 4 --bundle-subs 2 --bvis 2 --oam 1)
step "pmdbctl gen: a line card as an event stream (JSON Lines, docs/event-stream.md)"
say "2 nodes of 24 ports, a sub-interface on each port, 4 bundles of 4 members" \
    "spanning both nodes, 2 sub-interfaces per bundle, 2 BVIs, OAM on."
"$PMDBCTL" "${GEN[@]}" >"$work/card.jsonl"
"$PMDBCTL" "${GEN[@]}" --teardown >"$work/all.jsonl"
lines=$(wc -l <"$work/card.jsonl")
tail -n "+$((lines + 1))" "$work/all.jsonl" >"$work/teardown.jsonl"
say "$lines lines, the first three:"
head -n 3 "$work/card.jsonl"

step "pmdbctl replay: every line through dpa_pmdb_oper and the other entry points"
say "(on a terminal a progress bar shows while a stream takes longer than a second)"
"$PMDBCTL" replay "$work/card.jsonl"

step "pmdbctl tables: what the table store holds"
"$PMDBCTL" tables

step "pmdbctl show 0xb00100: one bundle, its punt and OAM entries, members and sub-interfaces"
only '^[a-z_]+ 0x|^  (member_count|sub_intf_count|node_mask) |^(members|sub_interfaces):' \
    "$PMDBCTL" show 0xb00100

step "pmdbctl graph: the card drawn from its tables"
svg="$BUILD_DIR/demo-card.svg"
"$PMDBCTL" graph >"$work/card.dot"
say "$(grep -c '\[shape=' "$work/card.dot") interfaces, $(grep -c ' -> ' "$work/card.dot") edges; the first lines of the DOT text:"
head -n 8 "$work/card.dot"
"$PMDBCTL" graph --svg "$svg"
say "rendered with dot to $svg"

step "pmdbctl trace --buffer event (last records)"
last 6 "$PMDBCTL" trace --buffer event

step "pmdbctl check: tables, regions, entry locks, bundle counters, sub-interface counts, orphans"
"$PMDBCTL" check

step "pmdbctl replay of the teardown: the events that take the card apart"
"$PMDBCTL" replay "$work/teardown.jsonl"
say "what is left:"
"$PMDBCTL" tables
"$PMDBCTL" check

step "card_writer builds a small card by hand, one operation at a time"
say "node 1: ports 0x1001 0x1002; node 2: ports 0x2001 0x2002 and BVI 0x4001;" \
    "bundle 0x3001 with members 0x1001 and 0x2001."
"$CARD" build
"$PMDBCTL" show 0x3001 | grep '^members:'

step "pmdbctl save, then diff against the live card after one change"
"$PMDBCTL" save "$work/card.snap"
"$CARD" oor 0x2001 1
"$PMDBCTL" diff "$work/card.snap" "$PMDB_NS"

step "a writer dies holding an entry lock"
say "card_writer hold takes the lock of port 0x1002's IFH entry, as a writer" \
    "does in the middle of a change, and never lets it go."
"$CARD" hold 0x1002 >"$work/hold" &
holder=$!
# Disowned: the shell then never prints its own "Killed" line for it.
disown "$holder"
for _ in $(seq 100); do
    grep -qs 'holds the entry lock' "$work/hold" && break  # -s: the file may not be made yet
    sleep 0.1
done
cat "$work/hold"
grep -qs 'holds the entry lock' "$work/hold" || { echo "demo: the holder never took the lock" >&2; exit 1; }
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
