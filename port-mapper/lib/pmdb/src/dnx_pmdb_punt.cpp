/*
 * dnx_pmdb_punt.cpp - one PUNT entry: adding or refreshing it from an
 * event, removing it by key, changing its bundle-membership fields, and the
 * C names of the punt key rules (pmdb_fields.h holds the rules themselves).
 *
 * Concurrency contract:
 *  - Every field change is made inside one entry change cycle
 *    (pmdb_cycle.h): write access to the table store from open to release,
 *    the entry touched only while its slot lock is held.  A new entry is
 *    zero-filled under that lock, never before.
 *  - The removal takes no slot lock: it retires it, waiting while any
 *    process holds it, and then removes the entry.
 */
#include <cstring>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::has_flag;

void trace_punt_before_remove(void *ctx, const pmdb_cycle_t *cyc) {
    const auto *e = static_cast<const pmdb_punt_entry_t *>(cyc->entry);
    PMDB_TRACE(tp::punt_remove_begin, *static_cast<const u32 *>(ctx), e->intf_info.ifh,
               e->intf_info.sub_ifh, e->intf_info.bundle_ifh);
}

/* The PUNT add's change of the locked entry: a new entry starts from
 * zeros; every add stamps it; then each flagged reading of the event. */
void write_punt_entry(pmdb_punt_entry_t *e, bool created, u32 key, const pmdb_event_t *ev,
                      const pmdb_punt_info_t *punt_info) {
    if (created) memset(e, 0, sizeof *e);
    e->key = key;
    pmdb_stamp(&e->event_id, &e->last_update, ev->event_id);
    if (has_flag(ev, PMDB_VF_INTF)) {
        memcpy(&e->intf_info, &ev->intf_info, sizeof e->intf_info);
        if (punt_info != nullptr && punt_info->punt_data[0] != 0)
            memcpy(&e->punt_info, punt_info, sizeof e->punt_info);
    }
    if (has_flag(ev, PMDB_VF_PUNT)) {
        PMDB_TRACE(tp::punt_info_stored, ev->punt_info.ifh, key, ev->punt_info.punt_data[0]);
        pmdb_fields::merge_punt_words(&e->punt_info, &ev->punt_info);
    }
}

/* The membership change of a member event in a PUNT entry: a leave (7)
 * clears the bundle fields and puts back the member's own punt words; a
 * join or modify (5, 6) takes the event's bundle fields.  Bits 2..7 of
 * member_port_shift are carried; other event types change nothing. */
void apply_member_fields(pmdb_punt_entry_t *e, const pmdb_event_t *ev,
                         const dpa_pmdb_ifh_summary_t *summary) {
    pmdb_intf_info_t *in = &e->intf_info;
    const u8 carried = static_cast<u8>(in->member_port_shift & ~pmdb_fields::kMemberShiftMask);
    switch (ev->event_type) {
    case PMDB_EV_MEMBER_LEAVE:
        in->bundle_ifh = 0;
        in->member_port = 0;
        in->member_port_shift = carried;
        memcpy(e->punt_info.punt_data, summary->punt_data, sizeof e->punt_info.punt_data);
        break;
    case PMDB_EV_MEMBER_JOIN:
    case PMDB_EV_MEMBER_MODIFY:
        in->bundle_ifh = ev->intf_info.bundle_ifh;
        in->member_port = ev->intf_info.member_port;
        in->member_port_shift = static_cast<u8>(
            carried | (ev->intf_info.member_port_shift & pmdb_fields::kMemberShiftMask));
        break;
    default:
        return;
    }
    pmdb_stamp(&e->event_id, &e->last_update, ev->event_id);
}

}  // namespace

extern "C" {

/* ---- punt key rules ------------------------------------------------------- */

u32 dpa_pmdb_punt_key(u32 egress_key, u32 egress_lif, u16 ingress_lif, u16 sys_port,
                      u8 slot_id) {
    return pmdb_fields::punt_key(egress_key, egress_lif, ingress_lif, sys_port, slot_id);
}

u32 dpa_pmdb_bundle_member_punt_key(const dpa_pmdb_ifh_summary_t *summary) {
    return pmdb_fields::bundle_member_punt_key(summary);
}

/* ---- one PUNT entry -------------------------------------------------------- */

cerrno dpa_pmdb_add_punt_entry(u32 key, const pmdb_event_t *event, i32 *slot,
                               const pmdb_punt_info_t *punt_info) {
    if (key == 0) {
        PMDB_TRACE(tp::punt_add_zero_key);
        return PMDB_EINVAL;
    }
    if (event == nullptr) {
        PMDB_TRACE(tp::punt_add_no_event, key, 0);
        return PMDB_OK;
    }
    /* The lock failure's point also names the slot: that step is ours. */
    static const pmdb_cycle_traces_t kTraces = {.open_failed = tp::punt_add_open_failed,
                                                .add_failed = tp::punt_add_failed,
                                                .refreshed = tp::punt_add_refresh,
                                                .lookup_failed = tp::punt_add_lookup_failed};
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_PUNT, key, PMDB_CYCLE_CREATE, &kTraces);
    if (cyc.hdl == nullptr) return rc; /* the open failed */
    *slot = cyc.slot;
    if (rc != PMDB_OK) return rc;
    rc = pmdb_cycle_lock(&cyc);
    if (rc != PMDB_OK) {
        PMDB_TRACE(tp::punt_add_lock_failed, key, cyc.slot, rc);
        return pmdb_cycle_release(&cyc, rc);
    }
    write_punt_entry(static_cast<pmdb_punt_entry_t *>(cyc.entry), cyc.created, key, event,
                     punt_info);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

cerrno dpa_pmdb_remove_punt_entry(u32 key) {
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::punt_remove_zero_key,
                                                .open_failed = tp::punt_remove_open_failed,
                                                .lookup_failed = tp::punt_remove_lookup_failed,
                                                .remove_failed = tp::punt_remove_failed,
                                                .remove_ended = tp::punt_remove_done};
    return pmdb_cycle_remove_key(PMDB_TYPE_PUNT, key, &kTraces, trace_punt_before_remove, &key);
}

cerrno dpa_pmdb_update_punt_entry_member(pmdb_event_t *event, const u32 *key,
                                         const dpa_pmdb_ifh_summary_t *summary) {
    if (key == nullptr || *key == 0) {
        PMDB_TRACE(tp::member_punt_no_key);
        return PMDB_EINVAL;
    }
    if (event == nullptr || summary == nullptr) return PMDB_EINVAL;
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_open(&cyc, PMDB_TYPE_PUNT);
    if (rc != PMDB_OK) {
        PMDB_TRACE(tp::member_punt_open_failed, rc);
        return rc;
    }
    const u32 bundle_ifh = event->intf_info.bundle_ifh;
    rc = pmdb_cycle_find_lock(&cyc, *key);
    if (rc != PMDB_OK) {
        if (cyc.failed_step == PMDB_STEP_LOCK)
            PMDB_TRACE(tp::member_punt_lock_failed, bundle_ifh, summary->ingress_lif, event->event_type, rc);
        else
            PMDB_TRACE(tp::member_punt_not_found, event->intf_info.ifh, *key, rc);
        return pmdb_cycle_release(&cyc, rc);
    }
    apply_member_fields(static_cast<pmdb_punt_entry_t *>(cyc.entry), event, summary);
    PMDB_TRACE(tp::member_punt_fields_done, bundle_ifh, summary->ingress_lif, event->event_type);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

}  // extern "C"
