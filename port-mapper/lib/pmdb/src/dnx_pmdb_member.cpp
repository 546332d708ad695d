/*
 * dnx_pmdb_member.cpp - bundle membership of IFH entries: a member's join,
 * leave or modify (dpa_pmdb_update_ifh_entry_member) and the bundle's
 * member count that follows it (dpa_pmdb_update_bundle_ifh_entry).
 *
 * Concurrency contract:
 *  - Every field change is made inside one entry change cycle
 *    (pmdb_cycle.h), the entry touched only while its slot lock is held.
 *  - Lock order: a member's IFH slot lock, then its bundle's (taken by the
 *    out-of-resource accounting while the member is locked).  The member
 *    update and the bundle's count update are two cycles, the member's
 *    first; no lock is held from one to the other, so a reader can see the
 *    member changed and its bundle's member_count not yet.  Both cycles run
 *    inside a member operation scope (pmdb_member_ops.h): a writer that dies
 *    between them leaves a record from which the next writer recounts the
 *    bundle from its members.
 */
#include <cstring>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::kMemberShiftMask;
using pmdb_fields::port_hi_of;
using pmdb_fields::port_lo_of;
using pmdb_fields::set_flag;
using pmdb_fields::summarise_member_port;

/* ---- membership ---------------------------------------------------------- */

/* What the member update decided for the bundle update that follows it. */
struct member_change {
    bool changed;  /* the bundle update runs */
    i32 count_in;  /* count the member in (1) or out (0) */
    i32 keep_count;
};

/* Writes the event's bundle attributes into the member's entry (bits 2..7
 * of member_port_shift are carried) and the summary. */
void join_fields(pmdb_ifh_entry_t *e, const pmdb_event_t *ev, dpa_pmdb_ifh_summary_t *s) {
    const pmdb_intf_info_t *src = &ev->intf_info;
    pmdb_intf_info_t *in = &e->intf_info;
    in->bundle_ifh = src->bundle_ifh;
    in->member_port = src->member_port;
    in->member_port_shift = static_cast<u8>((in->member_port_shift & ~kMemberShiftMask) |
                                            (src->member_port_shift & kMemberShiftMask));
    pmdb_stamp(&e->event_id, &e->last_update, ev->event_id);
    summarise_member_port(src->member_port, src->member_port_shift, s);
}

/* Leave (7): the bundle's counters lose the member's level while the entry
 * still names its bundle; then the bundle fields are cleared and what they
 * held goes to the summary. */
member_change leave_bundle(dnx_db_hdl_t *hdl, pmdb_ifh_entry_t *e, const pmdb_event_t *ev,
                           dpa_pmdb_ifh_summary_t *s) {
    pmdb_intf_info_t *in = &e->intf_info;
    dpa_pmdb_update_bundle_oor_members(hdl, in, 0);
    pmdb_crash_point(PMDB_CRASH_LEAVE_COUNTED_OUT);
    member_change mc = {false, 0, 0};
    if ((e->ifh_flags & PMDB_IFH_MEMBER_ACTIVE) != 0) {
        e->ifh_flags = static_cast<u8>(e->ifh_flags & ~PMDB_IFH_MEMBER_ACTIVE);
        mc.changed = true;
    }
    summarise_member_port(in->member_port, in->member_port_shift, s);
    in->bundle_ifh = 0;
    in->member_port = 0;
    in->member_port_shift = static_cast<u8>(in->member_port_shift & ~kMemberShiftMask);
    pmdb_stamp(&e->event_id, &e->last_update, ev->event_id);
    memcpy(s->punt_data, e->punt_info.punt_data, sizeof s->punt_data);
    return mc;
}

/* Join (5): the member becomes active (counted in once), takes the event's
 * bundle attributes, and then, naming its bundle, adds its level to the
 * bundle's counters. */
member_change join_bundle(dnx_db_hdl_t *hdl, pmdb_ifh_entry_t *e, const pmdb_event_t *ev,
                          dpa_pmdb_ifh_summary_t *s) {
    member_change mc = {false, 0, 0};
    if ((e->ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0) {
        e->ifh_flags = static_cast<u8>(e->ifh_flags | PMDB_IFH_MEMBER_ACTIVE);
        mc = {true, 1, 0};
    }
    join_fields(e, ev, s);
    pmdb_crash_point(PMDB_CRASH_JOIN_MEMBER_SET);
    dpa_pmdb_update_bundle_oor_members(hdl, &e->intf_info, 1);
    return mc;
}

/* The member's own change, by event type; other types change nothing. */
member_change apply_membership(dnx_db_hdl_t *hdl, pmdb_ifh_entry_t *e, const pmdb_event_t *ev,
                               dpa_pmdb_ifh_summary_t *s) {
    switch (ev->event_type) {
    case PMDB_EV_MEMBER_LEAVE:
        return leave_bundle(hdl, e, ev, s);
    case PMDB_EV_MEMBER_MODIFY:
        join_fields(e, ev, s);
        return {true, 0, 1};
    case PMDB_EV_MEMBER_JOIN:
        return join_bundle(hdl, e, ev, s);
    default:
        return {false, 0, 0};
    }
}

/* The bundle's 8-bit member count (a count-in wraps at 255).  True when it
 * changed (a count-out at 0 does not). */
bool count_member(pmdb_ifh_entry_t *b, bool count_in) {
    if (count_in) {
        b->member_count = static_cast<u8>(b->member_count + 1);
        return true;
    }
    if (b->member_count == 0) return false;
    b->member_count = static_cast<u8>(b->member_count - 1);
    return true;
}

/* What the bundle update hands back: the bundle's keys for the member's
 * later steps, and its punt block when it holds one. */
void report_bundle(u32 bundle_ifh, const pmdb_ifh_entry_t *b, dpa_pmdb_ifh_summary_t *s,
                   pmdb_punt_info_t *punt_info) {
    const bool egress_key = pmdb_fields::egress_key(&b->intf_info) != 0;
    s->bundle_egress_lif = b->intf_info.egress_lif;
    s->bundle_ingress_lif = b->intf_info.ingress_lif;
    set_flag(&s->sum_flags, PMDB_SUM_EGRESS_KEY, egress_key);
    set_flag(&s->sum_flags, PMDB_SUM_IS_MEMBER, true);
    if (punt_info != nullptr && b->punt_info.punt_data[0] != 0)
        memcpy(punt_info, &b->punt_info, sizeof *punt_info);
    else
        PMDB_TRACE(tp::bundle_update_no_punt_info, bundle_ifh, egress_key ? 1u : 0u);
}

}  // namespace

extern "C" {

/* ---- bundle membership ------------------------------------------------------ */

cerrno dpa_pmdb_update_ifh_entry_member(pmdb_event_t *event, dpa_pmdb_ifh_summary_t *summary,
                                        pmdb_punt_info_t *punt_info) {
    if (event == nullptr || event->intf_info.ifh == 0 || summary == nullptr) {
        PMDB_TRACE(tp::member_update_no_event);
        return PMDB_EINVAL;
    }
    static const pmdb_cycle_traces_t kTraces = {.open_failed_key = tp::member_update_open_failed,
                                                .lookup_failed = tp::member_update_lookup_failed,
                                                .lock_failed = tp::member_update_lock_failed};
    const u32 ifh = event->intf_info.ifh;
    pmdb_member_op_scope op;
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    auto *e = static_cast<pmdb_ifh_entry_t *>(cyc.entry);
    /* A leave counts the member out of the bundle it names; a join or
     * modify names the event's. */
    op.name(event->intf_info.bundle_ifh, e->intf_info.bundle_ifh, ifh);
    const member_change mc = apply_membership(cyc.hdl, e, event, summary);
    const pmdb_intf_info_t *in = &e->intf_info;
    pmdb_fields::summarise_keys(in, summary);
    PMDB_TRACE(tp::member_updated, ifh, summary->ingress_lif, summary->egress_lif,
               port_lo_of(in->member_port), port_hi_of(in->member_port));
    pmdb_crash_point(PMDB_CRASH_MEMBER_CHANGED);
    rc = pmdb_cycle_release(&cyc, PMDB_OK);
    pmdb_crash_point(PMDB_CRASH_MEMBER_RELEASED);
    if (rc != PMDB_OK || !mc.changed) return rc;
    return dpa_pmdb_update_bundle_ifh_entry(event->intf_info.bundle_ifh, mc.count_in,
                                            mc.keep_count, summary, punt_info, event->event_id);
}

cerrno dpa_pmdb_update_bundle_ifh_entry(u32 bundle_ifh, i32 count_in, i32 keep_count,
                                        dpa_pmdb_ifh_summary_t *summary,
                                        pmdb_punt_info_t *punt_info, u32 event_id) {
    static const pmdb_cycle_traces_t kTraces = {.open_failed = tp::bundle_update_open_failed,
                                                .lookup_failed = tp::bundle_update_lookup_failed,
                                                .lock_failed = tp::bundle_update_lock_failed};
    if (bundle_ifh == 0 || summary == nullptr) {
        PMDB_TRACE(tp::bundle_update_zero_ifh);
        return PMDB_EINVAL;
    }
    pmdb_cycle_t cyc;
    const cerrno rc =
        pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, bundle_ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    auto *b = static_cast<pmdb_ifh_entry_t *>(cyc.entry);
    pmdb_crash_point(PMDB_CRASH_BUNDLE_LOCKED);
    if (keep_count == 0 && count_member(b, count_in != 0))
        pmdb_stamp(&b->event_id, &b->last_update, event_id);
    report_bundle(bundle_ifh, b, summary, punt_info);
    PMDB_TRACE(tp::bundle_updated, bundle_ifh, summary->bundle_egress_lif,
               summary->bundle_ingress_lif, b->member_count);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

}  // extern "C"
