/*
 * dnx_pmdb_oor.cpp - out-of-resource (OOR) state of IFH entries: a member's
 * own level, a bundle's two member counters and its derived state, the
 * process's OOR callback, and the accounting that moves a member's level
 * into or out of its bundle's counters when it joins or leaves.
 *
 * Concurrency contract:
 *  - All OOR fields live in the intf_info block of IFH entries and are
 *    written only under the entry's slot lock, inside an entry change cycle
 *    of the IFH table (write access held from open to release).
 *  - Lock order: a member's slot lock, then its bundle's.  Both
 *    dpa_pmdb_update_bundle_oor_state and dpa_pmdb_update_bundle_oor_members
 *    take the bundle's lock while holding the member's and release the
 *    bundle's first.  This is what keeps a bundle's counters equal to the
 *    number of its members at each level: a member's level and its share of
 *    the counters only change together, under the member's lock.  A writer
 *    that dies between the two leaves them apart; the member operation
 *    scope (pmdb_member_ops.h) around every such change lets the next
 *    writer recount the bundle from its members.
 *  - The callback runs on the caller's thread after the bundle's lock is
 *    released (the member's lock and write access may still be held, see
 *    dpa_pmdb_update_ifh_entry_member); it must not take IFH slot locks of
 *    that member or bundle.
 *  - oor_cb is written by dpa_pmdb_set_oor_cb (store-release) and read by
 *    the accounting and the IFH removal (load-acquire), so a reader that
 *    sees the pointer also sees whatever the registering thread wrote
 *    before it.  Users set it before handing the library events.
 */
#include <atomic>
#include <ctime>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

std::atomic<dpa_pmdb_oor_cb_t> oor_cb{nullptr};

/* Records a change of an entry's state: the state, one more change and its
 * time.  The reason is the caller's to write (the member accounting has
 * none). */
void record_state(pmdb_intf_info_t *in, u32 state) {
    in->oor_state = state;
    in->oor_changes++;
    clock_gettime(CLOCK_REALTIME, &in->oor_time);
}

/* A bundle's recorded state follows its derived state up to a level;
 * falling back to none leaves it (only dpa_pmdb_set_bundle_oor_state clears
 * it). */
void follow_derived_state(pmdb_intf_info_t *bundle, u32 old_state, u32 new_state) {
    if (new_state != old_state && new_state != PMDB_OOR_NONE) record_state(bundle, new_state);
}

/* The counter of `level`, or null for a level that is counted nowhere. */
u16 *level_counter(pmdb_intf_info_t *bundle, u32 level) {
    if (level == PMDB_OOR_LEVEL2) return &bundle->oor_members_2;
    if (level == PMDB_OOR_LEVEL1) return &bundle->oor_members_1;
    return nullptr;
}

/* Counts one member of `level` in (+1) or out (-1).  A counter never goes
 * below 0: false when a count-out found it at 0 (nothing changed). */
bool count_level(pmdb_intf_info_t *bundle, u32 level, bool in) {
    u16 *counter = level_counter(bundle, level);
    if (counter == nullptr) return true;
    if (in) {
        (*counter)++;
        return true;
    }
    if (*counter == 0) return false;
    (*counter)--;
    return true;
}

/* Both cycles of a member-and-bundle change end here: the bundle's lock
 * first, then the member's lock and write access. */
cerrno finish(pmdb_cycle_t *member, pmdb_cycle_t *bundle, cerrno rc) {
    pmdb_cycle_release(bundle, PMDB_OK);
    return pmdb_cycle_release(member, rc);
}

/* Out-parameters of dpa_pmdb_update_bundle_oor_state; all four are
 * required, since the bundle side writes them while both locks are held. */
struct bundle_report {
    u32 *bundle_ifh;
    u32 *state;
    u32 *changed;
    u32 *slot;
    bool complete() const {
        return bundle_ifh != nullptr && state != nullptr && changed != nullptr && slot != nullptr;
    }
};

/* The bundle side of a member's state change, on the locked bundle: moves the
 * member from its old level to the new one and raises the bundle's own
 * state when the derived state rises to a level. */
void fold_into_bundle(pmdb_intf_info_t *b, i32 bundle_slot, u32 bundle_ifh, u32 old_state,
                      u32 state, u32 reason, const bundle_report *out) {
    PMDB_TRACE(tp::oor_update_bundle_locked, bundle_ifh, bundle_slot, b->oor_state,
               b->oor_members_1, b->oor_members_2);
    pmdb_crash_point(PMDB_CRASH_OOR_BUNDLE_LOCKED);
    const u32 before = dpa_pmdb_oor_derived_state(b);
    PMDB_TRACE(tp::oor_counters_before, before, b->oor_members_1, b->oor_members_2);
    if (!count_level(b, old_state, false)) {
        if (old_state == PMDB_OOR_LEVEL2)
            PMDB_TRACE(tp::oor_level2_counter_zero, b->bundle_ifh, state, b->oor_state,
                       b->oor_members_1, b->oor_members_2);
        else
            PMDB_TRACE(tp::oor_level1_counter_zero, b->bundle_ifh, state, b->oor_state,
                       b->oor_members_1, b->oor_members_2);
    }
    pmdb_crash_point(PMDB_CRASH_OOR_COUNTED_OUT);
    count_level(b, state, true);
    const u32 after = dpa_pmdb_oor_derived_state(b);
    PMDB_TRACE(tp::oor_counters_after, after, b->oor_members_1, b->oor_members_2);
    if (after == before) {
        *out->changed = 0;
        return;
    }
    *out->bundle_ifh = bundle_ifh;
    *out->slot = static_cast<u32>(bundle_slot);
    *out->state = after;
    *out->changed = 1;
    /* Falling back to none leaves the bundle's recorded state as it was:
     * only dpa_pmdb_set_bundle_oor_state clears it. */
    if (after == PMDB_OOR_NONE) return;
    record_state(b, after);
    b->oor_reason = reason;
}

/* The member accounting's bundle side: looks the bundle up under the
 * caller's open, moves the member's level, and reports the derived state
 * before and after.  False when the bundle could not be found or locked. */
bool account_member(pmdb_cycle_t *bundle, u32 bundle_ifh, u32 level, bool join, u32 *old_state,
                    u32 *new_state) {
    static const pmdb_cycle_traces_t kTraces = {.lookup_failed = tp::oor_members_lookup_failed,
                                                .lock_failed = tp::oor_members_lock_failed};
    if (pmdb_cycle_enter(bundle, bundle_ifh, PMDB_CYCLE_LOCK, &kTraces) != PMDB_OK) return false;
    pmdb_crash_point(PMDB_CRASH_ACCOUNT_LOCKED);
    auto *b = &static_cast<pmdb_ifh_entry_t *>(bundle->entry)->intf_info;
    PMDB_TRACE(tp::oor_members_bundle_locked, bundle_ifh, bundle->slot, b->oor_state,
               b->oor_members_1, b->oor_members_2);
    *old_state = dpa_pmdb_oor_derived_state(b);
    PMDB_TRACE(tp::oor_members_old_state, *old_state, b->oor_members_1, b->oor_members_2);
    count_level(b, level, join);
    *new_state = dpa_pmdb_oor_derived_state(b);
    PMDB_TRACE(tp::oor_members_new_state, *new_state, b->oor_members_1, b->oor_members_2);
    follow_derived_state(b, *old_state, *new_state);
    return true;
}

}  // namespace

extern "C" {

u32 dpa_pmdb_oor_derived_state(const pmdb_intf_info_t *bundle_info) {
    if (bundle_info->oor_members_2 != 0) return PMDB_OOR_LEVEL2;
    if (bundle_info->oor_members_1 != 0) return PMDB_OOR_LEVEL1;
    return PMDB_OOR_NONE;
}

void dpa_pmdb_oor_set_counters(pmdb_intf_info_t *bundle_info, u16 level_1, u16 level_2,
                               u32 *before, u32 *after) {
    *before = dpa_pmdb_oor_derived_state(bundle_info);
    bundle_info->oor_members_1 = level_1;
    bundle_info->oor_members_2 = level_2;
    *after = dpa_pmdb_oor_derived_state(bundle_info);
    follow_derived_state(bundle_info, *before, *after);
}

dpa_pmdb_oor_cb_t dpa_pmdb_oor_cb_get(void) { return oor_cb.load(std::memory_order_acquire); }

void dpa_pmdb_set_oor_cb(dpa_pmdb_oor_cb_t cb) {
    oor_cb.store(cb, std::memory_order_release);
    PMDB_TRACE(tp::oor_callback_registered, cb);
}

cerrno dpa_pmdb_update_bundle_oor_state(u32 ifh, u32 state, u32 reason, u32 *bundle_ifh_out,
                                        u32 *bundle_state_out, u32 *changed_out,
                                        u32 *bundle_slot_out) {
    static const pmdb_cycle_traces_t kMemberTraces = {
        .open_failed_status = tp::oor_update_open_failed,
        .lookup_failed = tp::oor_update_member_lookup_failed,
        .lock_failed = tp::oor_update_member_lock_failed};
    static const pmdb_cycle_traces_t kBundleTraces = {
        .lookup_failed = tp::oor_update_bundle_lookup_failed,
        .lock_failed = tp::oor_update_bundle_lock_failed};
    const bundle_report out = {bundle_ifh_out, bundle_state_out, changed_out, bundle_slot_out};
    if (!out.complete()) return PMDB_EINVAL;
    pmdb_member_op_scope op;
    pmdb_cycle_t member;
    cerrno rc = pmdb_cycle_begin(&member, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kMemberTraces);
    if (rc != PMDB_OK) return rc;
    pmdb_cycle_t bundle = pmdb_cycle_share(&member);
    auto *m = &static_cast<pmdb_ifh_entry_t *>(member.entry)->intf_info;
    PMDB_TRACE(tp::oor_update_member_locked, ifh, m, member.slot, m->ifh, m->bundle_ifh,
               m->oor_state);
    if (m->ifh == 0 && m->sub_ifh == 0) {
        PMDB_TRACE(tp::oor_update_not_interface, ifh);
        return finish(&member, &bundle, PMDB_OK);
    }
    const u32 old_state = m->oor_state;
    if (old_state == state) return finish(&member, &bundle, PMDB_OK);
    PMDB_TRACE(tp::oor_update_member_state, ifh, old_state, state);
    const u32 bundle_ifh = m->bundle_ifh;
    op.name(bundle_ifh, 0, ifh);
    record_state(m, state);
    m->oor_reason = reason;
    if (bundle_ifh == 0) return finish(&member, &bundle, PMDB_OK);
    pmdb_crash_point(PMDB_CRASH_OOR_MEMBER_SET);

    /* The member's new state stays recorded when the bundle cannot be
     * reached: its counters are then out of step until the next change. */
    rc = pmdb_cycle_enter(&bundle, bundle_ifh, PMDB_CYCLE_LOCK, &kBundleTraces);
    if (rc != PMDB_OK) return finish(&member, &bundle, rc);
    fold_into_bundle(&static_cast<pmdb_ifh_entry_t *>(bundle.entry)->intf_info, bundle.slot,
                     bundle_ifh, old_state, state, reason, &out);
    return finish(&member, &bundle, PMDB_OK);
}

cerrno dpa_pmdb_set_bundle_oor_state(u32 ifh, i32 state, u32 reason, u32 *slot_out) {
    static const pmdb_cycle_traces_t kTraces = {.open_failed_status = tp::oor_set_open_failed,
                                                .lookup_failed = tp::oor_set_lookup_failed,
                                                .lock_failed = tp::oor_set_lock_failed};
    if (slot_out == nullptr) return PMDB_EINVAL;
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    auto *in = &static_cast<pmdb_ifh_entry_t *>(cyc.entry)->intf_info;
    /* Clearing is refused only while members at both levels are counted;
     * any other request is recorded, even one that repeats the state. */
    if (state == 0 && in->oor_members_1 != 0 && in->oor_members_2 != 0) {
        PMDB_TRACE(tp::oor_set_state_zero_refused, ifh);
        return pmdb_cycle_release(&cyc, PMDB_EINVAL);
    }
    record_state(in, static_cast<u32>(state));
    in->oor_reason = reason;
    *slot_out = static_cast<u32>(cyc.slot);
    PMDB_TRACE(tp::oor_set_done, ifh, cyc.slot, in, state);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

void dpa_pmdb_update_bundle_oor_members(dnx_db_hdl_t *hdl, pmdb_intf_info_t *member_info,
                                        i32 join) {
    /* One load: the callback that decides whether to count is the one told. */
    const dpa_pmdb_oor_cb_t cb = dpa_pmdb_oor_cb_get();
    if (cb == nullptr) return;
    const u32 bundle_ifh = member_info->bundle_ifh;
    PMDB_TRACE(tp::oor_members_begin, join, member_info->ifh, member_info->oor_state, bundle_ifh);
    if (bundle_ifh == 0) {
        PMDB_TRACE(tp::oor_members_no_bundle, member_info->ifh);
        return;
    }
    /* The caller's open covers this lookup. */
    pmdb_cycle_t bundle = pmdb_cycle_on_handle(hdl, PMDB_TYPE_IFH);
    u32 old_state = PMDB_OOR_NONE;
    u32 new_state = PMDB_OOR_NONE;
    const bool done =
        account_member(&bundle, bundle_ifh, member_info->oor_state, join != 0, &old_state,
                       &new_state);
    const i32 slot = bundle.slot;
    pmdb_cycle_release(&bundle, PMDB_OK);
    if (done && new_state != old_state) cb(bundle_ifh, static_cast<u32>(slot), new_state, 0);
}

}  // extern "C"
