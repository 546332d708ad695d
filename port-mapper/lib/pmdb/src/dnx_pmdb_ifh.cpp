/*
 * dnx_pmdb_ifh.cpp - one IFH entry: adding or refreshing it, its
 * sub-interface count, its removal and its summary, and the node list of a
 * bundle sub-interface.  (Bundle membership: dnx_pmdb_member.cpp.)
 *
 * dpa_pmdb_add_ifh_entry is the one writer of an IFH entry's interface
 * block, punt block and key: it creates the entry of an interface or
 * refreshes it from an event, reports the entry to its caller as a summary
 * (and, for key changes, the previous values), registers a port's node with
 * the inventory and the node values of the IFH region, and tells the AIB
 * update callback when a refreshed port's intf_data_64 changed.
 *
 * Concurrency contract:
 *  - Every change of an entry is made inside one entry change cycle: write
 *    access to the IFH table is held from the open to the release, and the
 *    entry is touched only while its slot lock is held.  A new entry is
 *    zero-filled under that lock, never before.
 *  - The inventory and node-value calls for event type 1 run under the
 *    entry's lock with this operation's IFH handle, so they neither open nor
 *    release.  Lock order: slot lock, then nothing (the inventory list has
 *    no lock; the globals are written without one).
 *  - The AIB update callback runs after the lock is released and write
 *    access dropped, on the caller's thread.
 *  - summary, prev and punt_out are caller memory, written under the lock
 *    but needing none.
 *  - Removal takes no slot lock: it retires it, waiting while any process
 *    holds it, and then removes the entry.  The summary that it reports is
 *    read just before, without the lock (the caller of a removal is the only
 *    one that may still change the entry's keys).  The out-of-resource
 *    callback is called by the removal with write access held and no slot
 *    lock, before anything changes.  An active member's removal and the
 *    bundle count that follows it run inside a member operation scope
 *    (pmdb_member_ops.h).
 */
#include <cstring>
#include <ctime>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::has_flag;
using pmdb_fields::kMacLen;
using pmdb_fields::set_flag;

constexpr u32 kNodeLowMask = 0xFFFFu;
constexpr u32 kNodeBits = 32;

/* What one add learned under the lock and reports after the release. */
struct add_result {
    bool intf_data_changed; /* event type 3 changed a stored nonzero intf_data_64 */
    u32 old_intf_data_64;
    u16 node_mask;
    u32 sub_ifh;
    u32 bundle_ifh;
};

/* Node numbers beyond the 16-bit mask record no node. */
u16 node_bit(u16 node) {
    if (node == 0 || node > PMDB_NODE_MASK_MAX_NODE) return 0;
    return static_cast<u16>(1u << node);
}

/* The entry's previous keys, before this event changes them. */
void fill_prev(const pmdb_ifh_entry_t *e, dpa_pmdb_ifh_summary_t *prev) {
    const pmdb_intf_info_t *in = &e->intf_info;
    set_flag(&prev->sum_flags, PMDB_SUM_EGRESS_KEY, pmdb_fields::egress_key(in) != 0);
    prev->egress_lif = in->egress_lif;
    prev->ingress_lif = in->ingress_lif;
    prev->slot_id = in->slot_id;
    prev->sys_port = in->sys_port;
    pmdb_fields::copy_oam_slots(prev->oam_slots, in->oam_slots);
}

/* Step 7: a new entry starts from zeros; both kinds record the node. */
void prepare_entry(pmdb_ifh_entry_t *e, bool created, const pmdb_event_t *ev, u16 node,
                   dpa_pmdb_ifh_summary_t *prev) {
    if (created) memset(e, 0, sizeof(*e));
    if (has_flag(ev, PMDB_VF_INTF)) e->node_mask = static_cast<u16>(e->node_mask | node_bit(node));
    if (!created && prev != nullptr) fill_prev(e, prev);
}

/* Event type 1 of a port that is not node-local: the port's node joins the
 * inventory and the node values, under this operation's open handle.  Their
 * results cannot fail the add. */
void register_node(const pmdb_intf_info_t *in, dnx_db_hdl_t *hdl) {
    (void)pm_port_inv_entry_add(in->node_id, in->node_index, in->npu_index, in->high_scale);
    (void)dpa_pmdb_update_scale_info(in->node_id, in->node_index, in->high_scale, 1, hdl);
    (void)dpa_pmdb_update_glbls_inv_node_info(in->node_id, in->node_mac, 1, hdl);
}

/* Step 10: the interface block. */
void apply_intf(pmdb_ifh_entry_t *e, const pmdb_event_t *ev, dnx_db_hdl_t *hdl,
                pmdb_punt_info_t *punt_out, add_result *res) {
    const pmdb_intf_info_t *src = &ev->intf_info;
    if (ev->event_type == PMDB_EV_INTF_REFRESH) {
        u32 stored = e->intf_info.intf_data_64;
        res->old_intf_data_64 = stored;
        res->intf_data_changed = stored != 0 && stored != src->intf_data_64;
    }
    memcpy(&e->intf_info, src, sizeof(e->intf_info));
    if (e->punt_info.punt_data[0] != 0) memcpy(punt_out, &e->punt_info, sizeof(*punt_out));
    if (ev->event_type == PMDB_EV_INTF_ADD && src->intf_type != PMDB_INTF_TYPE_NODE_LOCAL)
        register_node(&e->intf_info, hdl);
    /* Event type 3: a refreshed port is hosted by the newest inventory node. */
    if (ev->event_type == PMDB_EV_INTF_REFRESH) (void)pm_port_inv_take_head_node(&e->intf_info);
}

/* Step 11: the punt block; zero punt words leave the stored ones. */
void apply_punt(pmdb_ifh_entry_t *e, u32 ifh, const pmdb_event_t *ev, bool created,
                dpa_pmdb_ifh_summary_t *summary) {
    const pmdb_punt_info_t *src = &ev->punt_info;
    PMDB_TRACE(tp::ifh_punt_info_stored, src->ifh, ifh, src->punt_data[0]);
    pmdb_fields::merge_punt_words(&e->punt_info, src);
    if (created) summary->sum_flags = static_cast<u8>(summary->sum_flags | PMDB_SUM_PUNT_ONLY_CREATED);
}

/* Step 12: the summary, with the created bit.  Bits 0, 2, 6 and 7 of
 * sum_flags keep the caller's value (bit 2 is only ever set, by apply_punt). */
void fill_summary(const pmdb_ifh_entry_t *e, bool created, dpa_pmdb_ifh_summary_t *s) {
    constexpr u32 kFields =
        pmdb_fields::kSummaryOamId | pmdb_fields::kSummaryBundle | pmdb_fields::kSummaryOamSlots;
    pmdb_fields::summarise_intf(&e->intf_info, kFields, s);
    set_flag(&s->sum_flags, PMDB_SUM_CREATED, created);
}

/* Steps 9 to 12 on the locked entry of a full (not MAC-only) event. */
void write_entry(pmdb_ifh_entry_t *e, u32 ifh, const pmdb_event_t *ev, bool created,
                 dnx_db_hdl_t *hdl, dpa_pmdb_ifh_summary_t *summary, pmdb_punt_info_t *punt_out,
                 add_result *res) {
    e->key = ifh;
    pmdb_stamp(&e->event_id, &e->last_update, ev->event_id);
    if (has_flag(ev, PMDB_VF_INTF)) apply_intf(e, ev, hdl, punt_out, res);
    if (has_flag(ev, PMDB_VF_PUNT)) apply_punt(e, ifh, ev, created, summary);
    fill_summary(e, created, summary);
    res->node_mask = e->node_mask;
    res->sub_ifh = e->intf_info.sub_ifh;
    res->bundle_ifh = e->intf_info.bundle_ifh;
}

/* Traces of a written entry, after its lock is released. */
void trace_written(u32 ifh, u16 node, const dpa_pmdb_ifh_summary_t *s, const add_result *res) {
    PMDB_TRACE(tp::ifh_entry_written, ifh, s->egress_lif, s->ingress_lif, s->sys_port,
               s->intf_data_44, s->port_lo, s->port_hi);
    if (node != 0 && res->sub_ifh != 0 && res->bundle_ifh != 0)
        PMDB_TRACE(tp::ifh_node_recorded, ifh, s->egress_lif, s->ingress_lif, res->bundle_ifh,
                   res->node_mask);
}

/* Step 14: tell the AIB update callback about a changed intf_data_64. */
void notify_aib(u32 ifh, const pmdb_event_t *ev, const add_result *res) {
    dpa_pmdb_aib_update_cb_t cb = dpa_pmdb_aib_update_cb_get();
    if (!res->intf_data_changed || cb == nullptr) return;
    PMDB_TRACE(tp::ifh_aib_update_callback, ifh, ev->event_type, res->old_intf_data_64,
               ev->intf_info.intf_data_64);
    u32 handle = ifh;
    u32 status = PMDB_OK;
    cb(&handle, &status, 1);
}

/* ---- removal and summary ----------------------------------------------- */

/* Removal's summary: the keys, the nonzero OAM slots and the membership.
 * Returns whether the entry was an active bundle member. */
bool summarise_for_removal(const pmdb_ifh_entry_t *e, dpa_pmdb_ifh_summary_t *s) {
    pmdb_fields::summarise_intf(&e->intf_info, pmdb_fields::kSummaryOamSlots, s);
    if ((e->ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0) return false;
    s->sum_flags = static_cast<u8>(s->sum_flags | PMDB_SUM_IS_MEMBER);
    s->bundle_ifh = e->intf_info.bundle_ifh;
    return true;
}

/* Read summary: the keys, the bundle and the OAM identifier, which falls
 * back to the first nonzero OAM slot (traced, with its index). */
void summarise_for_read(u32 ifh, const pmdb_intf_info_t *in, dpa_pmdb_ifh_summary_t *s) {
    pmdb_fields::summarise_intf(in, pmdb_fields::kSummaryOamId | pmdb_fields::kSummaryBundle, s);
    if (s->oam_id != 0) return;
    for (u32 i = 0; i < pmdb_fields::kOamSlots; i++) {
        if (in->oam_slots[i] == 0) continue;
        s->oam_id = in->oam_slots[i];
        PMDB_TRACE(tp::summary_oam_id_from_slot, ifh, i, s->oam_id);
        return;
    }
}

/* Trace 166: what the removed entry was, from its summary. */
void trace_ifh_removed(u32 ifh, const dpa_pmdb_ifh_summary_t *s) {
    PMDB_TRACE(tp::ifh_removed, ifh, s->egress_lif, s->ingress_lif, s->sys_port, s->port_lo,
               s->port_hi, s->bundle_ifh);
}

}  // namespace

extern "C" {

cerrno dpa_pmdb_add_ifh_entry(u32 ifh, const pmdb_event_t *ev, i32 *slot,
                              dpa_pmdb_ifh_summary_t *summary, pmdb_punt_info_t *punt_out,
                              dpa_pmdb_ifh_summary_t *prev, u16 node) {
    if (has_flag(ev, PMDB_VF_PUNT) && has_flag(ev, PMDB_VF_NO_PUNT)) {
        PMDB_TRACE(tp::ifh_add_punt_bit5_refused);
        return PMDB_OK;
    }
    if (ev->event_type == PMDB_EV_INTF_ADD_NO_IFH || ev->event_type == PMDB_EV_INTF_PUNT_NO_IFH) {
        /* These events make no IFH entry; the caller keys its punt entries
         * from the event's own LIF and port. */
        summary->ingress_lif = ev->intf_info.ingress_lif;
        summary->sys_port = ev->intf_info.sys_port;
        return PMDB_OK;
    }
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::ifh_add_zero_key,
                                                .open_failed = tp::ifh_add_open_failed,
                                                .add_failed = tp::ifh_add_failed,
                                                .refreshed = tp::ifh_add_refresh,
                                                .lookup_failed = tp::ifh_add_lookup_failed,
                                                .lock_failed = tp::ifh_add_lock_failed};
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_CREATE | PMDB_CYCLE_LOCK,
                                 &kTraces);
    if (cyc.hdl == nullptr) return rc; /* key 0, or the open failed */
    *slot = cyc.slot;
    if (rc != PMDB_OK) return rc;
    auto *e = static_cast<pmdb_ifh_entry_t *>(cyc.entry);
    prepare_entry(e, cyc.created, ev, node, prev);
    add_result res = {};
    const bool mac_only = ev->event_type == PMDB_EV_BUNDLE_MAC;
    if (mac_only)
        memcpy(e->intf_info.mac_addr, ev->intf_info.mac_addr, kMacLen);
    else
        write_entry(e, ifh, ev, cyc.created, cyc.hdl, summary, punt_out, &res);
    pmdb_cycle_unlock(&cyc);
    if (!mac_only) trace_written(ifh, node, summary, &res);
    rc = pmdb_cycle_release(&cyc, PMDB_OK);
    if (rc == PMDB_OK) notify_aib(ifh, ev, &res);
    return rc;
}

cerrno dpa_pmdb_update_sub_intf_count(u32 ifh, i32 increment, u32 event_id) {
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::sub_count_zero_key,
                                                .open_failed = tp::sub_count_open_failed,
                                                .lookup_failed = tp::sub_count_lookup_failed,
                                                .lock_failed = tp::sub_count_lock_failed};
    pmdb_cycle_t cyc;
    const cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    auto *e = static_cast<pmdb_ifh_entry_t *>(cyc.entry);
    /* The count never goes below 0; an unchanged count keeps its stamp. */
    if (increment != 0 || e->sub_intf_count != 0) {
        e->sub_intf_count = static_cast<u16>(increment != 0 ? e->sub_intf_count + 1
                                                            : e->sub_intf_count - 1);
        pmdb_stamp(&e->event_id, &e->last_update, event_id);
    }
    PMDB_TRACE(tp::sub_count_done, ifh, e->intf_info.egress_lif, e->intf_info.ingress_lif);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

/* ---- one IFH entry: removal and summary ------------------------------------ */

cerrno dpa_pmdb_remove_ifh_entry(u32 ifh, dpa_pmdb_ifh_summary_t *summary, u32 event_id) {
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::ifh_remove_zero_ifh,
                                                .open_failed = tp::ifh_remove_open_failed,
                                                .lookup_failed = tp::ifh_remove_lookup_failed};
    pmdb_cycle_t cyc;
    /* A refused key leaves everything alone, the member operation log too
     * (the scope below maps, and may create, it). */
    if (ifh == 0) return pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_FIND, &kTraces);
    pmdb_member_op_scope op;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_FIND, &kTraces);
    if (rc != PMDB_OK) return rc;
    PMDB_TRACE(tp::ifh_remove_found, ifh);
    const dpa_pmdb_oor_cb_t cb = dpa_pmdb_oor_cb_get();
    if (cb != nullptr) cb(ifh, static_cast<u32>(cyc.slot), PMDB_OOR_NONE, 1);
    const bool member =
        summarise_for_removal(static_cast<const pmdb_ifh_entry_t *>(cyc.entry), summary);
    const u32 bundle_ifh = summary->bundle_ifh;
    if (member) op.name(bundle_ifh, 0, ifh);
    rc = pmdb_cycle_remove_found(&cyc);
    if (rc != PMDB_OK) PMDB_TRACE(tp::ifh_remove_failed, ifh, rc);
    trace_ifh_removed(ifh, summary);
    rc = pmdb_cycle_release(&cyc, rc);
    /* Without write access dropped cleanly the bundle is left alone. */
    if (cyc.failed_step == PMDB_STEP_RELEASE || !member) return rc;
    pmdb_crash_point(PMDB_CRASH_MEMBER_REMOVED);
    return dpa_pmdb_update_bundle_ifh_entry(bundle_ifh, 0, 0, summary, nullptr, event_id);
}

cerrno dpa_pmdb_get_ifh_summary(u32 ifh, dpa_pmdb_ifh_summary_t *summary) {
    static const pmdb_cycle_traces_t kTraces = {.open_failed = tp::summary_open_failed,
                                                .lookup_failed = tp::summary_lookup_failed};
    if (ifh == 0) return PMDB_EINVAL; /* refused without a trace */
    pmdb_cycle_t cyc;
    const cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_FIND, &kTraces);
    if (rc != PMDB_OK) return rc;
    summarise_for_read(ifh, &static_cast<const pmdb_ifh_entry_t *>(cyc.entry)->intf_info,
                       summary);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

/* ---- node list of a bundle sub-interface ----------------------------------- */

cerrno dpa_pmdb_update_ifh_entry_nodelist(u32 ifh, i32 add, u32 event_id, u32 node,
                                          u16 *mask_out) {
    static const pmdb_cycle_traces_t kTraces = {.open_failed = tp::nodelist_open_failed,
                                                .lookup_failed = tp::nodelist_lookup_failed,
                                                .lock_failed = tp::nodelist_lock_failed};
    if (ifh == 0 || (node & kNodeLowMask) == 0) return PMDB_OK;
    pmdb_cycle_t cyc;
    const cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    auto *e = static_cast<pmdb_ifh_entry_t *>(cyc.entry);
    const pmdb_intf_info_t *in = &e->intf_info;
    if (in->sub_ifh != 0 && in->bundle_ifh != 0) {
        /* Nodes 16..31 have no bit in the 16-bit mask: the entry is still
         * stamped and the unchanged mask reported. */
        const u32 bit = 1u << (node % kNodeBits);
        const u32 mask = add != 0 ? (e->node_mask | bit) : (e->node_mask & ~bit);
        e->node_mask = static_cast<u16>(mask);
        pmdb_stamp(&e->event_id, &e->last_update, event_id);
        if (mask_out != nullptr) *mask_out = e->node_mask;
        PMDB_TRACE(tp::nodelist_updated, ifh, in->egress_lif, in->ingress_lif, in->bundle_ifh,
                   e->node_mask);
    }
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

}  // extern "C"
