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
 * The steps never trace anything themselves (the lock and frame calls
 * underneath write theirs: 69, 71, 68, ...).
 *
 * Usage (an add that zero-fills new entries; error traces are the
 * operation's own):
 *
 *     pmdb_cycle_t cyc;
 *     cerrno rc = pmdb_cycle_open(&cyc, PMDB_TYPE_OAM);
 *     if (rc != 0) { PMDB_TRACE_E(155, key, rc); return rc; }
 *     rc = pmdb_cycle_find_or_create(&cyc, key, trace_refresh, &key);
 *     if (rc == 0) rc = pmdb_cycle_lock(&cyc);
 *     if (rc != 0) {
 *         trace_failure(key, cyc.failed_step, rc);  // 156 / 158 / 160
 *         return pmdb_cycle_release(&cyc, rc);
 *     }
 *     auto *e = static_cast<pmdb_oam_entry_t *>(cyc.entry);
 *     if (cyc.created) memset(e, 0, sizeof *e);
 *     ... change e ...
 *     return pmdb_cycle_release(&cyc, 0);  // unlocks, then drops write access
 *
 *     // removal, with a trace of the entry just before it goes:
 *     rc = pmdb_cycle_remove(&cyc, key, trace_before_remove, nullptr);
 *     if (rc != 0) trace_failure(key, cyc.failed_step, rc);  // lookup / remove
 *     return pmdb_cycle_release(&cyc, rc);
 *
 * Two entries under one open (a member's lock before its bundle's):
 *
 *     pmdb_cycle_t bundle = pmdb_cycle_share(&member);
 *     ... pmdb_cycle_find_lock(&member, m) ... pmdb_cycle_find_lock(&bundle, b) ...
 *     pmdb_cycle_release(&bundle, 0);          // unlocks only
 *     return pmdb_cycle_release(&member, rc);  // unlocks, drops write access
 *
 * Ownership: a cycle lives on the caller's stack; `entry` is valid only
 * while `locked` is set (or, in a removal, until the removal step).  A
 * cycle holds at most one entry lock; the caller must release every cycle
 * it opened or shared, on every path.
 */
#ifndef PMDB_SRC_CYCLE_H
#define PMDB_SRC_CYCLE_H

#include "pmdb.h"

/* Which step of a cycle failed (for the operation's own trace point). */
typedef enum pmdb_cycle_step {
    PMDB_STEP_NONE = 0,
    PMDB_STEP_OPEN,   /* dpa_chk_pmdb_open with write intent */
    PMDB_STEP_ADD,    /* tabra_add_entry (other than "already present") */
    PMDB_STEP_LOOKUP, /* tabra_get_entry_by_key, or a slot out of range */
    PMDB_STEP_LOCK,   /* pmdb_entry_lock */
    PMDB_STEP_REMOVE, /* tabra_remove_entry */
    PMDB_STEP_RELEASE /* dpa_pmdb_mprotect_tabra */
} pmdb_cycle_step_t;

typedef struct pmdb_cycle {
    pmdb_type_t type;
    dnx_db_hdl_t *hdl; /* set by a successful open */
    u32 key;           /* key of the last find / create / remove */
    void *entry;       /* the entry in the table store; null until found */
    i32 slot;          /* its slot, 0..65535 */
    bool created;      /* the table store allocated the slot in this cycle */
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

/* A second cycle under cyc's open, for another entry; its release only
 * unlocks.  Release it before the opening cycle. */
pmdb_cycle_t pmdb_cycle_share(const pmdb_cycle_t *cyc);

/* Creates the entry of `key`, initialising the new slot's lock, or - when
 * the key is present - calls on_refresh (may be null) and looks it up.
 * Does not lock.  Failed steps: ADD, LOOKUP. */
cerrno pmdb_cycle_find_or_create(pmdb_cycle_t *cyc, u32 key,
                                 pmdb_cycle_hook_t on_refresh = nullptr, void *ctx = nullptr);

/* Looks the entry of `key` up.  Does not lock.  Failed step: LOOKUP. */
cerrno pmdb_cycle_find(pmdb_cycle_t *cyc, u32 key);

/* Takes the found entry's slot lock.  Failed step: LOCK. */
cerrno pmdb_cycle_lock(pmdb_cycle_t *cyc);

/* pmdb_cycle_find, then pmdb_cycle_lock. */
cerrno pmdb_cycle_find_lock(pmdb_cycle_t *cyc, u32 key);

/* Releases the slot lock if this cycle holds it; the unlock's result. */
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

/* Retires a slot lock before its entry is removed: pmdb_lock_destroy, again
 * after usleep(1) for as long as it reports EBUSY (16), without bound. */
void pmdb_cycle_retire_lock(pellin_mutex_type *lock);

/* For a found entry: drops the slot lock if this cycle holds it, retires
 * the lock, calls before_remove (may be null; the entry is still readable), and
 * removes the entry with tabra_remove_entry(table, 1, key).  Failed step:
 * REMOVE. */
cerrno pmdb_cycle_remove_found(pmdb_cycle_t *cyc, pmdb_cycle_hook_t before_remove = nullptr,
                               void *ctx = nullptr);

/* pmdb_cycle_find, then pmdb_cycle_remove_found. */
cerrno pmdb_cycle_remove(pmdb_cycle_t *cyc, u32 key, pmdb_cycle_hook_t before_remove = nullptr,
                         void *ctx = nullptr);

#endif
