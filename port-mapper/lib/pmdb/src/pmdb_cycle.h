/*
 * pmdb_cycle.h - the entry change cycle, written once for every operation
 * that changes, creates or removes a table entry.
 *
 *   open with write intent -> find or create the entry (a key that is
 *   already present is refreshed) -> a new slot's lock is initialised ->
 *   take the slot lock -> change the entry -> unlock -> release write access
 *   (a failing release replaces the operation's result).
 *
 *   Removal: open -> find -> retire the slot lock (pmdb_lock_destroy, again
 *   every 1 us while it reports the lock busy, so the removal waits for the
 *   holder) -> remove the entry from the table store -> release.
 *
 * Each step returns its status and records in the cycle which step failed,
 * so that the operation writes its own trace point with its own arguments.
 * The single steps trace nothing themselves (the lock and frame calls
 * underneath write theirs: 69, 71, 68, ...); pmdb_cycle_begin,
 * pmdb_cycle_enter and pmdb_cycle_remove_key write the operation's points
 * from its pmdb_cycle_traces_t, whose fields take only points of the trace
 * point table with the shape written for that step.
 *
 * Usage (an add that zero-fills new entries; the trace points are the
 * operation's own):
 *
 *     static const pmdb_cycle_traces_t kTraces = {
 *         .zero_key = tp::oam_add_zero_key, .open_failed = tp::oam_add_open_failed,
 *         .add_failed = tp::oam_add_failed, .refreshed = tp::oam_add_refresh,
 *         .lookup_failed = tp::oam_add_lookup_failed, .lock_failed = tp::oam_add_lock_failed};
 *     pmdb_cycle_t cyc;
 *     cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_OAM, key,
 *                                  PMDB_CYCLE_CREATE | PMDB_CYCLE_LOCK, &kTraces);
 *     if (rc != 0) return rc;              // traced; nothing left to release
 *     auto *e = static_cast<pmdb_oam_entry_t *>(cyc.entry);
 *     if (cyc.created) memset(e, 0, sizeof *e);
 *     ... change e ...
 *     return pmdb_cycle_release(&cyc, 0);  // unlocks, then drops write access
 *
 *     // removal by key, start to end, with a trace of the entry just
 *     // before it goes:
 *     return pmdb_cycle_remove_key(PMDB_TYPE_PUNT, key, &kRemoveTraces, trace_before_remove);
 *
 * Two entries under one open (a member's lock before its bundle's):
 *
 *     pmdb_cycle_t bundle = pmdb_cycle_share(&member);
 *     ... pmdb_cycle_enter(&member, m, ...) ... pmdb_cycle_enter(&bundle, b, ...) ...
 *     pmdb_cycle_release(&bundle, 0);          // unlocks only
 *     return pmdb_cycle_release(&member, rc);  // unlocks, drops write access
 *
 * Under a caller's open (the caller holds write access and passes its
 * handle down): pmdb_cycle_on_handle(hdl, type) is a cycle whose release
 * only unlocks.
 *
 * Same-key races.  Adds, refreshes and removals of one key may run at once
 * in any number of threads and processes.  Three rules keep each entry's
 * changes to one writer at a time:
 *   - a new slot's lock is initialised by the table store's add hook (set
 *     when the frame opens the table), under the table's writer lock and
 *     before the key can be found, so a writer that finds the key finds a
 *     ready lock;
 *   - a cycle pins the slot before it touches the slot's lock, and unpins it
 *     after the unlock (or the removal): a pinned slot never passes to
 *     another key, so no add re-initialises a lock that a cycle works on;
 *   - after taking the lock, the cycle checks that the slot still holds its
 *     key; when the entry was removed (or removed and added again
 *     elsewhere) in between, it lets go and finds or creates the entry
 *     again, so it never writes an entry it does not hold the lock of.
 *
 * Ownership: a cycle lives on the caller's stack; `entry` is valid only
 * while `locked` is set (or, in a removal, until the removal step).  A
 * cycle holds at most one entry lock and one pin; the caller must release
 * every cycle it opened or shared, on every path.
 */
#ifndef PMDB_SRC_CYCLE_H
#define PMDB_SRC_CYCLE_H

#include "pmdb.h"
#include "pmdb_trace_points.h"

/* Which step of a cycle failed (for the operation's own trace point). */
typedef enum pmdb_cycle_step {
    PMDB_STEP_NONE = 0,
    PMDB_STEP_OPEN,   /* dpa_chk_pmdb_open with write intent */
    PMDB_STEP_ADD,    /* tabra_add_entry (other than "already present") */
    PMDB_STEP_LOOKUP, /* tabra_get_entry_by_key, or a slot out of range */
    PMDB_STEP_LOCK,   /* pmdb_entry_lock */
    PMDB_STEP_REMOVE, /* tabra_remove_entry */
    PMDB_STEP_RELEASE, /* dpa_pmdb_mprotect_tabra */
    PMDB_STEP_KEY      /* key 0 refused by pmdb_cycle_begin */
} pmdb_cycle_step_t;

typedef struct pmdb_cycle {
    pmdb_type_t type;
    dnx_db_hdl_t *hdl; /* set by a successful open */
    u32 key;           /* key of the last find / create / remove */
    void *entry;       /* the entry in the table store; null until found */
    i32 slot;          /* its slot, 0..65535 */
    bool created;      /* the table store allocated the slot in this cycle */
    bool creating;     /* found by pmdb_cycle_find_or_create (so re-found that way) */
    bool pinned;       /* this cycle pins the slot in the table store */
    bool locked;       /* this cycle holds the slot's entry lock */
    bool owns_open;    /* this cycle's release drops write access */
    pmdb_cycle_step_t failed_step;
    cerrno failed_status;
} pmdb_cycle_t;

/* Called with the cycle at a step of interest (refresh of a present key,
 * just before a removal). */
typedef void (*pmdb_cycle_hook_t)(void *ctx, const pmdb_cycle_t *cyc);

/* Opens `type` with write intent.  On failure nothing needs releasing. */
cerrno pmdb_cycle_open(pmdb_cycle_t *cyc, pmdb_type_t type);

/* A cycle on `hdl`, which the caller holds open with write intent: its
 * finds, locks and removals use that handle, and its release only unlocks
 * (the caller's own release drops write access). */
pmdb_cycle_t pmdb_cycle_on_handle(dnx_db_hdl_t *hdl, pmdb_type_t type);

/* A second cycle under cyc's open, for another entry: pmdb_cycle_on_handle
 * with cyc's handle.  Release it before the opening cycle. */
pmdb_cycle_t pmdb_cycle_share(const pmdb_cycle_t *cyc);

/* For an operation that may run under a caller's open: with `given`, a
 * cycle on it (pmdb_cycle_on_handle); without, pmdb_cycle_open. */
cerrno pmdb_cycle_open_or_use(pmdb_cycle_t *cyc, pmdb_type_t type, dnx_db_hdl_t *given);

/* How pmdb_cycle_begin and pmdb_cycle_enter reach the entry. */
#define PMDB_CYCLE_FIND 0u   /* the entry must be present */
#define PMDB_CYCLE_CREATE 1u /* created, or refreshed when the key is present */
#define PMDB_CYCLE_LOCK 2u   /* then its slot lock is taken */

/* The shapes of the points a cycle writes for an operation. */
typedef pmdb_tpt::point<pmdb_tpt::E, 0, pmdb_tpt::N> pmdb_cycle_point_e0_t; /* () */
typedef pmdb_tpt::point<pmdb_tpt::E, 1, pmdb_tpt::N> pmdb_cycle_point_e1_t; /* (key) or (status) */
typedef pmdb_tpt::point<pmdb_tpt::E, 2, pmdb_tpt::N> pmdb_cycle_point_e2_t; /* (key, status) */
typedef pmdb_tpt::point<pmdb_tpt::D, 1, pmdb_tpt::N> pmdb_cycle_point_d1_t; /* (key) */

/* An operation's own trace points for the steps of its cycle, as constants
 * of the trace point table (tp::...); a point left out writes nothing.  A
 * field accepts only points of the shape the cycle writes for it, so an
 * operation whose point has another shape leaves it out and runs that step
 * itself.  Set at most one of the three open points. */
typedef struct pmdb_cycle_traces {
    pmdb_cycle_point_e0_t zero_key{};           /* set: key 0 is refused (PMDB_EINVAL) */
    pmdb_cycle_point_e2_t open_failed{};        /* (key, status) */
    pmdb_cycle_point_e1_t open_failed_key{};    /* (key) */
    pmdb_cycle_point_e1_t open_failed_status{}; /* (status) */
    pmdb_cycle_point_e2_t add_failed{};         /* (key, status) */
    pmdb_cycle_point_d1_t refreshed{};          /* (key), before the present key is looked up */
    pmdb_cycle_point_e2_t lookup_failed{};      /* (key, status) */
    pmdb_cycle_point_e2_t lock_failed{};        /* (key, status) */
    pmdb_cycle_point_e2_t remove_failed{};      /* (key, status), pmdb_cycle_remove_key */
    pmdb_cycle_point_d1_t removed{};            /* (key) after a removal that succeeded */
    pmdb_cycle_point_d1_t remove_ended{};       /* (key) after every removal, failed or not */
} pmdb_cycle_traces_t;

/* On an open, shared or on-handle cycle: finds (or, with PMDB_CYCLE_CREATE,
 * creates) the entry of `key` and, with PMDB_CYCLE_LOCK, takes its slot
 * lock.  0: the caller changes the entry and ends with pmdb_cycle_release.
 * A failed step is traced with tp's point and the cycle released; the
 * result is the step's status, or the release's when that failed too
 * (releasing it again is harmless). */
cerrno pmdb_cycle_enter(pmdb_cycle_t *cyc, u32 key, u32 how, const pmdb_cycle_traces_t *tp);

/* The start of an operation's cycle: refuses key 0 when tp->zero_key is
 * set, opens `type` with write intent, then pmdb_cycle_enter.  A refused
 * key or a failed open is traced and leaves nothing to release, with
 * cyc->hdl null; any other failure is as in pmdb_cycle_enter. */
cerrno pmdb_cycle_begin(pmdb_cycle_t *cyc, pmdb_type_t type, u32 key, u32 how,
                        const pmdb_cycle_traces_t *tp);

/* Creates the entry of `key` (the table store's add hook initialises the
 * new slot's lock before the key can be found), or - when the key is
 * present - calls on_refresh (may be null) and looks it up.  Does not
 * lock.  Failed steps: ADD, LOOKUP. */
cerrno pmdb_cycle_find_or_create(pmdb_cycle_t *cyc, u32 key,
                                 pmdb_cycle_hook_t on_refresh = nullptr, void *ctx = nullptr);

/* Looks the entry of `key` up.  Does not lock.  Failed step: LOOKUP. */
cerrno pmdb_cycle_find(pmdb_cycle_t *cyc, u32 key);

/* Takes the found entry's slot lock, with the slot pinned, and makes sure
 * the slot still holds the key; when it no longer does, the entry is found
 * (or created) again the way it was first.  Failed steps: LOCK, or those
 * of the find (LOOKUP when the key was removed meanwhile; ADD). */
cerrno pmdb_cycle_lock(pmdb_cycle_t *cyc);

/* pmdb_cycle_find, then pmdb_cycle_lock. */
cerrno pmdb_cycle_find_lock(pmdb_cycle_t *cyc, u32 key);

/* Releases the slot lock if this cycle holds it, then its pin; the
 * unlock's result. */
cerrno pmdb_cycle_unlock(pmdb_cycle_t *cyc);

/* Ends the cycle: unlocks if locked, then (for the opening cycle) drops
 * write access.  Returns the release's status when nonzero (failed step
 * RELEASE), else `status`. */
cerrno pmdb_cycle_release(pmdb_cycle_t *cyc, cerrno status);

/* Stamps a change (step 4 of every cycle): the event's id and the
 * CLOCK_REALTIME time, into the entry's own fields. */
void pmdb_stamp(u32 *event_id_field, struct timespec *time_field, u32 event_id);

/* The entry lock of slot `slot` in the cycle's region. */
pellin_mutex_type *pmdb_cycle_slot_lock(const pmdb_cycle_t *cyc, i32 slot);

/* For a found entry: drops the slot lock if this cycle holds it, retires
 * the lock (pmdb_lock_destroy, again after usleep(1) for as long as it
 * reports EBUSY (16), without bound), calls before_remove (may be null; the entry is still readable), and
 * removes the entry with tabra_remove_entry(table, 1, key).  Failed step:
 * REMOVE. */
cerrno pmdb_cycle_remove_found(pmdb_cycle_t *cyc, pmdb_cycle_hook_t before_remove = nullptr,
                               void *ctx = nullptr);

/* pmdb_cycle_find, then pmdb_cycle_remove_found. */
cerrno pmdb_cycle_remove(pmdb_cycle_t *cyc, u32 key, pmdb_cycle_hook_t before_remove = nullptr,
                         void *ctx = nullptr);

/* A removal by key as one operation: pmdb_cycle_begin with
 * PMDB_CYCLE_FIND (tp's zero-key, open and lookup points), then
 * pmdb_cycle_remove_found with before_remove; then tp->remove_failed
 * (key, status) when the removal failed, tp->removed (key) when it
 * succeeded, tp->remove_ended (key) either way; then the release.  The
 * result is the first failure's status, or the release's. */
cerrno pmdb_cycle_remove_key(pmdb_type_t type, u32 key, const pmdb_cycle_traces_t *tp,
                             pmdb_cycle_hook_t before_remove = nullptr, void *ctx = nullptr);

#endif
