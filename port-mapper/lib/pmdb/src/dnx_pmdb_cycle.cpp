/*
 * dnx_pmdb_cycle.cpp - the entry change cycle (see pmdb_cycle.h).
 *
 * Concurrency contract: a cycle is owned by one thread.  Between its open
 * and its release the process counts one writer of the type (the frame's
 * writable-reference count); the slot lock is the only lock a cycle holds,
 * and it is taken while no process-local mutex of the frame is held.  The
 * table-store calls are not made under the slot lock.  A cycle on a
 * caller's handle counts no writer of its own: the caller's open covers it
 * until the caller releases, after this cycle.
 */
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_trace.h"
#include "tabra.h"

namespace {

/* tabra_remove_entry's flags argument; the same for every remover. */
constexpr u32 kRemoveFlags = 1;

/* How often a cycle finds its entry again after losing it to a removal
 * between the find and the lock.  Each loss needs another thread's removal
 * of the key, so this is never reached unless removals never stop. */
constexpr int kRefinds = 1000;

cerrno step_failed(pmdb_cycle_t *cyc, pmdb_cycle_step_t step, cerrno status) {
    cyc->failed_step = step;
    cyc->failed_status = status;
    return status;
}

/* Slots index the region's entry locks; one outside them is a table-store
 * fault, refused before any lock is touched. */
bool slot_valid(i32 slot) { return slot >= 0 && static_cast<u32>(slot) < PMDB_NUM_ENTRY_LOCKS; }

void entry_forget(pmdb_cycle_t *cyc, u32 key) {
    cyc->key = key;
    cyc->entry = nullptr;
    cyc->slot = 0;
    cyc->created = false;
}

/* Pins the found entry's slot; false (nothing pinned) when the key has left
 * that slot since the find. */
bool pin_found(pmdb_cycle_t *cyc) {
    const void *entry = nullptr;
    i32 slot = -1;
    if (tabra_pin_slot(cyc->hdl->tabra, cyc->key, &entry, &slot) != 0) return false;
    if (slot != cyc->slot) {
        tabra_unpin_slot(cyc->hdl->tabra, slot);
        return false;
    }
    cyc->pinned = true;
    return true;
}

void unpin(pmdb_cycle_t *cyc) {
    if (!cyc->pinned) return;
    cyc->pinned = false;
    tabra_unpin_slot(cyc->hdl->tabra, cyc->slot);
}

/* The outcome of one try at locking the found entry. */
enum class lock_try { held, lost, failed };

/* Pin, lock, then check the occupant: a slot lock keeps its entry in the
 * slot only once the slot is known to hold the key under it (a removal
 * retires the lock first, which waits for every holder). */
lock_try lock_found(pmdb_cycle_t *cyc, cerrno *rc) {
    if (!pin_found(cyc)) return lock_try::lost;
    pellin_mutex_type *lock = pmdb_cycle_slot_lock(cyc, cyc->slot);
    *rc = pmdb_entry_lock(lock);
    if (*rc != 0) {
        unpin(cyc);
        return lock_try::failed;
    }
    if (tabra_slot_holds(cyc->hdl->tabra, cyc->slot, cyc->key)) {
        cyc->locked = true;
        return lock_try::held;
    }
    pmdb_entry_unlock(lock);
    unpin(cyc);
    return lock_try::lost;
}

/* The operation's point for a failed open, with the arguments it asks for. */
void trace_open_failed(const pmdb_cycle_traces_t *tp, u32 key, cerrno rc) {
    if (tp->open_failed) PMDB_TRACE(tp->open_failed, key, rc);
    if (tp->open_failed_key) PMDB_TRACE(tp->open_failed_key, key);
    if (tp->open_failed_status) PMDB_TRACE(tp->open_failed_status, rc);
}

/* The operation's point for the step that failed, with (key, status). */
void trace_failed_step(const pmdb_cycle_traces_t *tp, const pmdb_cycle_t *cyc, cerrno rc) {
    pmdb_cycle_point_e2_t point;
    if (cyc->failed_step == PMDB_STEP_ADD) point = tp->add_failed;
    if (cyc->failed_step == PMDB_STEP_LOOKUP) point = tp->lookup_failed;
    if (cyc->failed_step == PMDB_STEP_LOCK) point = tp->lock_failed;
    if (point) PMDB_TRACE(point, cyc->key, rc);
}

/* Retires a slot lock before its entry is removed: the wait for a holder,
 * in any process, has no bound. */
void retire_lock(pellin_mutex_type *lock) {
    while (pmdb_lock_destroy(lock) == PMDB_EBUSY) usleep(1);
}

void trace_refreshed(void *ctx, const pmdb_cycle_t *cyc) {
    const pmdb_cycle_point_d1_t point = static_cast<const pmdb_cycle_traces_t *>(ctx)->refreshed;
    if (point) PMDB_TRACE(point, cyc->key);
}

}  // namespace

cerrno pmdb_cycle_open(pmdb_cycle_t *cyc, pmdb_type_t type) {
    memset(cyc, 0, sizeof *cyc);
    cyc->type = type;
    const cerrno rc = dpa_chk_pmdb_open(nullptr, &cyc->hdl, type, 1);
    if (rc != 0) {
        cyc->hdl = nullptr;
        return step_failed(cyc, PMDB_STEP_OPEN, rc);
    }
    cyc->owns_open = true;
    return 0;
}

pmdb_cycle_t pmdb_cycle_on_handle(dnx_db_hdl_t *hdl, pmdb_type_t type) {
    pmdb_cycle_t cyc;
    memset(&cyc, 0, sizeof cyc);
    cyc.type = type;
    cyc.hdl = hdl;
    return cyc;
}

pmdb_cycle_t pmdb_cycle_share(const pmdb_cycle_t *cyc) {
    return pmdb_cycle_on_handle(cyc->hdl, cyc->type);
}

cerrno pmdb_cycle_open_or_use(pmdb_cycle_t *cyc, pmdb_type_t type, dnx_db_hdl_t *given) {
    if (given == nullptr) return pmdb_cycle_open(cyc, type);
    *cyc = pmdb_cycle_on_handle(given, type);
    return 0;
}

void pmdb_stamp(u32 *event_id_field, struct timespec *time_field, u32 event_id) {
    *event_id_field = event_id;
    clock_gettime(CLOCK_REALTIME, time_field);
}

pellin_mutex_type *pmdb_cycle_slot_lock(const pmdb_cycle_t *cyc, i32 slot) {
    return &cyc->hdl->shrd_ctx->entry_lock[slot];
}

cerrno pmdb_cycle_find(pmdb_cycle_t *cyc, u32 key) {
    entry_forget(cyc, key);
    cyc->creating = false;
    const cerrno rc = tabra_get_entry_by_key(cyc->hdl->tabra, key, &cyc->entry, &cyc->slot);
    if (rc != 0) return step_failed(cyc, PMDB_STEP_LOOKUP, rc);
    if (!slot_valid(cyc->slot)) return step_failed(cyc, PMDB_STEP_LOOKUP, PMDB_EINVAL);
    return 0;
}

cerrno pmdb_cycle_find_or_create(pmdb_cycle_t *cyc, u32 key, pmdb_cycle_hook_t on_refresh,
                                 void *ctx) {
    /* A key found present and then not found was removed in between: the
     * add is made again, so that an add never answers "not found". */
    for (int again = 0;; again++) {
        entry_forget(cyc, key);
        cyc->creating = true;
        const cerrno rc = tabra_add_entry(cyc->hdl->tabra, key, &cyc->entry, &cyc->slot);
        if (rc == 0) {
            if (!slot_valid(cyc->slot)) return step_failed(cyc, PMDB_STEP_ADD, PMDB_EINVAL);
            cyc->created = true;
            return 0;
        }
        if (rc != PMDB_TABRA_EEXIST) return step_failed(cyc, PMDB_STEP_ADD, rc);
        if (on_refresh != nullptr) on_refresh(ctx, cyc);
        const cerrno found = pmdb_cycle_find(cyc, key);
        cyc->creating = true;
        if (found != TABRA_E_NOTFOUND || again == kRefinds) return found;
    }
}

cerrno pmdb_cycle_lock(pmdb_cycle_t *cyc) {
    const bool creating = cyc->creating;
    for (int refind = 0;; refind++) {
        cerrno rc = 0;
        const lock_try got = lock_found(cyc, &rc);
        if (got == lock_try::held) return 0;
        if (got == lock_try::failed) return step_failed(cyc, PMDB_STEP_LOCK, rc);
        if (refind == kRefinds) return step_failed(cyc, PMDB_STEP_LOOKUP, TABRA_E_NOTFOUND);
        rc = creating ? pmdb_cycle_find_or_create(cyc, cyc->key) : pmdb_cycle_find(cyc, cyc->key);
        if (rc != 0) return rc;
    }
}

cerrno pmdb_cycle_find_lock(pmdb_cycle_t *cyc, u32 key) {
    const cerrno rc = pmdb_cycle_find(cyc, key);
    return rc != 0 ? rc : pmdb_cycle_lock(cyc);
}

cerrno pmdb_cycle_unlock(pmdb_cycle_t *cyc) {
    if (!cyc->locked) return 0;
    cyc->locked = false;
    const cerrno rc = pmdb_entry_unlock(pmdb_cycle_slot_lock(cyc, cyc->slot));
    unpin(cyc);
    return rc;
}

cerrno pmdb_cycle_release(pmdb_cycle_t *cyc, cerrno status) {
    pmdb_cycle_unlock(cyc);
    if (!cyc->owns_open) return status;
    cyc->owns_open = false;
    const cerrno rc = dpa_pmdb_mprotect_tabra(cyc->hdl->tabra, cyc->hdl, cyc->type);
    return rc != 0 ? step_failed(cyc, PMDB_STEP_RELEASE, rc) : status;
}

cerrno pmdb_cycle_remove_found(pmdb_cycle_t *cyc, pmdb_cycle_hook_t before_remove, void *ctx) {
    /* The pin keeps the slot's lock from being re-initialised for another
     * key while it is retired.  A key that left its slot since the find was
     * removed by someone else, who retired that lock: the removal below then
     * finds nothing, or an entry added again, which it removes as any
     * removal that comes after an add. */
    const bool pinned = cyc->locked || pin_found(cyc);
    if (cyc->locked) {
        cyc->locked = false;
        pmdb_entry_unlock(pmdb_cycle_slot_lock(cyc, cyc->slot));
    }
    if (pinned) retire_lock(pmdb_cycle_slot_lock(cyc, cyc->slot));
    if (before_remove != nullptr) before_remove(ctx, cyc);
    const cerrno rc = tabra_remove_entry(cyc->hdl->tabra, kRemoveFlags, cyc->key);
    unpin(cyc);
    cyc->entry = nullptr;
    return rc != 0 ? step_failed(cyc, PMDB_STEP_REMOVE, rc) : 0;
}

cerrno pmdb_cycle_remove(pmdb_cycle_t *cyc, u32 key, pmdb_cycle_hook_t before_remove,
                         void *ctx) {
    const cerrno rc = pmdb_cycle_find(cyc, key);
    return rc != 0 ? rc : pmdb_cycle_remove_found(cyc, before_remove, ctx);
}

cerrno pmdb_cycle_enter(pmdb_cycle_t *cyc, u32 key, u32 how, const pmdb_cycle_traces_t *tp) {
    /* The table of points outlives the call; the hook only reads it. */
    void *points = const_cast<pmdb_cycle_traces_t *>(tp);
    cerrno rc = (how & PMDB_CYCLE_CREATE) != 0
                    ? pmdb_cycle_find_or_create(cyc, key, trace_refreshed, points)
                    : pmdb_cycle_find(cyc, key);
    if (rc == 0 && (how & PMDB_CYCLE_LOCK) != 0) rc = pmdb_cycle_lock(cyc);
    if (rc == 0) return 0;
    trace_failed_step(tp, cyc, rc);
    return pmdb_cycle_release(cyc, rc);
}

cerrno pmdb_cycle_begin(pmdb_cycle_t *cyc, pmdb_type_t type, u32 key, u32 how,
                        const pmdb_cycle_traces_t *tp) {
    if (key == 0 && tp->zero_key) {
        *cyc = pmdb_cycle_on_handle(nullptr, type);
        PMDB_TRACE(tp->zero_key);
        return step_failed(cyc, PMDB_STEP_KEY, PMDB_EINVAL);
    }
    const cerrno rc = pmdb_cycle_open(cyc, type);
    if (rc != 0) {
        trace_open_failed(tp, key, rc);
        return rc;
    }
    return pmdb_cycle_enter(cyc, key, how, tp);
}

cerrno pmdb_cycle_remove_key(pmdb_type_t type, u32 key, const pmdb_cycle_traces_t *tp,
                             pmdb_cycle_hook_t before_remove, void *ctx) {
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, type, key, PMDB_CYCLE_FIND, tp);
    if (rc != 0) return rc;
    rc = pmdb_cycle_remove_found(&cyc, before_remove, ctx);
    if (rc != 0 && tp->remove_failed) PMDB_TRACE(tp->remove_failed, key, rc);
    if (rc == 0 && tp->removed) PMDB_TRACE(tp->removed, key);
    if (tp->remove_ended) PMDB_TRACE(tp->remove_ended, key);
    return pmdb_cycle_release(&cyc, rc);
}
