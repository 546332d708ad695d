/*
 * dnx_pmdb_intf.cpp - single-entry operations on interface (IFH) and punt
 * (PUNT) entries: the punt key rule, adding and removing one PUNT entry,
 * removing and summarising one IFH entry, the node list of a bundle
 * sub-interface, and the member and bundle updates of bundle membership.
 *
 * Concurrency contract:
 *  - Every field change is made inside one entry change cycle
 *    (pmdb_cycle.h): write access to the table store from open to release,
 *    the entry touched only while its slot lock is held.  New entries are
 *    zero-filled under that lock, never before.
 *  - Removals take no slot lock: they retire it, waiting while any process
 *    holds it, and then remove the entry.  The summary that an IFH removal
 *    reports is read just before, without the lock (the caller of a removal
 *    is the only one that may still change the entry's keys).
 *  - Lock order: a member's IFH slot lock, then its bundle's (taken by the
 *    out-of-resource accounting while the member is locked).  The member
 *    update and the bundle's count update are two cycles, the member's
 *    first; no lock is held from one to the other, so a reader can see the
 *    member changed and its bundle's member_count not yet.  Both cycles
 *    (and an active member's removal with the count that follows it) run
 *    inside a member operation scope (pmdb_member_ops.h): a writer that
 *    dies between them leaves a record from which the next writer recounts
 *    the bundle from its members.
 *  - The out-of-resource callback is called by the IFH removal with write
 *    access held and no slot lock, before anything changes.
 */
#include <cstring>

#include "pmdb.h"
#include "platform_id.h"
#include "pmdb_cycle.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

constexpr u32 kPuntWords = 5;
constexpr u32 kOamSlots = 32;
constexpr u32 kPortFieldMask = 0xFFFFu;
constexpr u32 kSysPortMask = 0x3FFFu;
constexpr u32 kSlotFieldMask = 0x003F0000u; /* bits 16..21 of a punt key */
constexpr u32 kSlotIdMask = 63u;
constexpr u16 kPortLoMask = 0x3FFu;
constexpr u32 kPortHiShift = 10;
constexpr u8 kMemberShiftMask = 3u; /* bits 0..1 of member_port_shift */
constexpr u32 kNodeLowMask = 0xFFFFu;
constexpr u32 kNodeBits = 32;

void set_flag(u8 *flags, u8 bit, bool on) {
    *flags = static_cast<u8>(on ? (*flags | bit) : (*flags & ~bit));
}

bool has_flag(const pmdb_event_t *ev, u32 flag) { return (ev->valid_flags & flag) != 0; }

u16 port_lo_of(u16 member_port) { return static_cast<u16>(member_port & kPortLoMask); }
u8 port_hi_of(u16 member_port) { return static_cast<u8>(member_port >> kPortHiShift); }

/* ---- PUNT entries -------------------------------------------------------- */

void trace_punt_before_remove(void *ctx, const pmdb_cycle_t *cyc) {
    const auto *e = static_cast<const pmdb_punt_entry_t *>(cyc->entry);
    PMDB_TRACE_D(175, *static_cast<const u32 *>(ctx), e->intf_info.ifh, e->intf_info.sub_ifh,
                 e->intf_info.bundle_ifh);
}

/* Punt words of an event replace the stored ones only where they are
 * nonzero: a punt event never clears a word. */
void apply_punt_words(pmdb_punt_entry_t *e, u32 key, const pmdb_punt_info_t *src) {
    e->punt_info.ifh = src->ifh;
    PMDB_TRACE_D(140, src->ifh, key, src->punt_data[0]);
    for (u32 i = 0; i < kPuntWords; i++)
        if (src->punt_data[i] != 0) e->punt_info.punt_data[i] = src->punt_data[i];
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
    if (has_flag(ev, PMDB_VF_PUNT)) apply_punt_words(e, key, &ev->punt_info);
}

/* ---- IFH summaries ------------------------------------------------------- */

/* Removal's summary: the keys, the nonzero OAM slots and the membership.
 * Returns whether the entry was an active bundle member. */
bool summarise_for_removal(const pmdb_ifh_entry_t *e, dpa_pmdb_ifh_summary_t *s) {
    dpa_pmdb_summarise_intf(&e->intf_info, PMDB_SUMMARY_OAM_SLOTS, s);
    if ((e->ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0) return false;
    s->sum_flags = static_cast<u8>(s->sum_flags | PMDB_SUM_IS_MEMBER);
    s->bundle_ifh = e->intf_info.bundle_ifh;
    return true;
}

/* Read summary: the keys, the bundle and the OAM identifier, which falls
 * back to the first nonzero OAM slot (traced, with its index). */
void summarise_for_read(u32 ifh, const pmdb_intf_info_t *in, dpa_pmdb_ifh_summary_t *s) {
    dpa_pmdb_summarise_intf(in, PMDB_SUMMARY_OAM_ID | PMDB_SUMMARY_BUNDLE, s);
    if (s->oam_id != 0) return;
    for (u32 i = 0; i < kOamSlots; i++) {
        if (in->oam_slots[i] == 0) continue;
        s->oam_id = in->oam_slots[i];
        PMDB_TRACE_E(265, ifh, i, s->oam_id);
        return;
    }
}

/* Trace 166: what the removed entry was, from its summary. */
void trace_ifh_removed(u32 ifh, const dpa_pmdb_ifh_summary_t *s) {
    PMDB_TRACE_D(166, ifh, s->egress_lif, s->ingress_lif, s->sys_port, s->port_lo, s->port_hi,
                 s->bundle_ifh);
}

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
    s->port_lo = port_lo_of(src->member_port);
    s->port_hi = port_hi_of(src->member_port);
    s->member_port_shift = static_cast<u8>(src->member_port_shift & kMemberShiftMask);
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
    s->port_lo = port_lo_of(in->member_port);
    s->port_hi = port_hi_of(in->member_port);
    s->member_port_shift = static_cast<u8>(in->member_port_shift & kMemberShiftMask);
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
    const bool egress_key = (b->intf_info.intf_flags & PMDB_INTF_EGRESS_KEY) != 0;
    s->bundle_egress_lif = b->intf_info.egress_lif;
    s->bundle_ingress_lif = b->intf_info.ingress_lif;
    set_flag(&s->sum_flags, PMDB_SUM_EGRESS_KEY, egress_key);
    set_flag(&s->sum_flags, PMDB_SUM_IS_MEMBER, true);
    if (punt_info != nullptr && b->punt_info.punt_data[0] != 0)
        memcpy(punt_info, &b->punt_info, sizeof *punt_info);
    else
        PMDB_TRACE_D(231, bundle_ifh, egress_key ? 1u : 0u);
}

}  // namespace

extern "C" {

/* ---- punt key rule -------------------------------------------------------- */

u32 dpa_pmdb_punt_key(u32 egress_key, u32 egress_lif, u16 ingress_lif, u16 sys_port,
                      u8 slot_id) {
    const bool egress = egress_key != 0;
    const u32 egress_port = egress_lif & kPortFieldMask;
    const u32 port = egress ? egress_port : ingress_lif;
    const u32 ext = (egress_port == 0 && ingress_lif == 0) ? (sys_port & kSysPortMask) : 0;
    u32 key = port | (ext << 16) | (egress ? PMDB_PUNT_KEY_EGRESS : 0);
    if (!egress) return key;
    /* Asked for every egress key, whether or not a slot is given. */
    const int rp_plus_datapath = platform_am_i_rp_plus_datapath();
    if (rp_plus_datapath == 0 && slot_id != PMDB_NO_SLOT)
        key = (key & ~kSlotFieldMask) | ((slot_id & kSlotIdMask) << 16);
    return key;
}

u32 dpa_pmdb_bundle_member_punt_key(const dpa_pmdb_ifh_summary_t *summary) {
    const u32 shift = 8u + (summary->member_port_shift & kMemberShiftMask);
    const u32 port = (static_cast<u32>(summary->port_hi) << shift) | summary->port_lo;
    return PMDB_PUNT_KEY_MEMBER | ((port & kSysPortMask) << 16);
}

/* ---- IFH summaries ---------------------------------------------------------- */

void dpa_pmdb_copy_oam_slots(u32 *dst, const u32 *src) {
    for (u32 i = 0; i < kOamSlots; i++)
        if (src[i] != 0) dst[i] = src[i];
}

void dpa_pmdb_summarise_intf(const pmdb_intf_info_t *in, u32 fields, dpa_pmdb_ifh_summary_t *s) {
    s->egress_lif = in->egress_lif;
    s->sys_port = in->sys_port;
    s->intf_data_44 = in->intf_data_44;
    s->lc_slot = in->lc_slot;
    s->slot_id = in->slot_id;
    s->npu_index = in->npu_index;
    s->ingress_lif = in->ingress_lif;
    s->port_lo = port_lo_of(in->member_port);
    s->port_hi = port_hi_of(in->member_port);
    s->member_port_shift = static_cast<u8>(in->member_port_shift & kMemberShiftMask);
    const bool sub = in->sub_ifh != 0;
    set_flag(&s->sum_flags, PMDB_SUM_EGRESS_KEY, (in->intf_flags & PMDB_INTF_EGRESS_KEY) != 0);
    set_flag(&s->sum_flags, PMDB_SUM_IS_SUB_INTF, sub && (in->ifh != 0 || in->bundle_ifh != 0));
    set_flag(&s->sum_flags, PMDB_SUM_IS_BUNDLE_SUB_INTF, sub && in->bundle_ifh != 0);
    s->parent_ifh = sub ? (in->ifh != 0 ? in->ifh : in->bundle_ifh) : 0;
    if ((fields & PMDB_SUMMARY_OAM_ID) != 0) s->oam_id = in->oam_id;
    if ((fields & PMDB_SUMMARY_BUNDLE) != 0) s->bundle_ifh = in->bundle_ifh;
    if ((fields & PMDB_SUMMARY_OAM_SLOTS) != 0) dpa_pmdb_copy_oam_slots(s->oam_slots, in->oam_slots);
}

/* ---- one PUNT entry -------------------------------------------------------- */

cerrno dpa_pmdb_add_punt_entry(u32 key, const pmdb_event_t *event, i32 *slot,
                               const pmdb_punt_info_t *punt_info) {
    if (key == 0) {
        PMDB_TRACE_E(134);
        return PMDB_EINVAL;
    }
    if (event == nullptr) {
        PMDB_TRACE_E(135, key, 0);
        return PMDB_OK;
    }
    /* The lock failure's point also names the slot: that step is ours. */
    static const pmdb_cycle_traces_t kTraces = {
        .open_failed = 136, .add_failed = 137, .refreshed = 138, .lookup_failed = 139};
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_PUNT, key, PMDB_CYCLE_CREATE, &kTraces);
    if (cyc.hdl == nullptr) return rc; /* the open failed */
    *slot = cyc.slot;
    if (rc != PMDB_OK) return rc;
    rc = pmdb_cycle_lock(&cyc);
    if (rc != PMDB_OK) {
        PMDB_TRACE_E(141, key, cyc.slot, rc);
        return pmdb_cycle_release(&cyc, rc);
    }
    write_punt_entry(static_cast<pmdb_punt_entry_t *>(cyc.entry), cyc.created, key, event,
                     punt_info);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

cerrno dpa_pmdb_remove_punt_entry(u32 key) {
    static const pmdb_cycle_traces_t kTraces = {
        .zero_key = 172, .open_failed = 173, .lookup_failed = 174};
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_PUNT, key, PMDB_CYCLE_FIND, &kTraces);
    if (rc != PMDB_OK) return rc;
    rc = pmdb_cycle_remove_found(&cyc, trace_punt_before_remove, &key);
    if (rc != PMDB_OK) PMDB_TRACE_E(176, key, rc);
    PMDB_TRACE_D(177, key);
    return pmdb_cycle_release(&cyc, rc);
}

/* ---- one IFH entry: removal and summary ------------------------------------ */

cerrno dpa_pmdb_remove_ifh_entry(u32 ifh, dpa_pmdb_ifh_summary_t *summary, u32 event_id) {
    static const pmdb_cycle_traces_t kTraces = {
        .zero_key = 161, .open_failed = 162, .lookup_failed = 163};
    pmdb_member_op_scope op;
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_FIND, &kTraces);
    if (rc != PMDB_OK) return rc;
    PMDB_TRACE_V(164, ifh);
    const dpa_pmdb_oor_cb_t cb = dpa_pmdb_oor_cb_get();
    if (cb != nullptr) cb(ifh, static_cast<u32>(cyc.slot), PMDB_OOR_NONE, 1);
    const bool member =
        summarise_for_removal(static_cast<const pmdb_ifh_entry_t *>(cyc.entry), summary);
    const u32 bundle_ifh = summary->bundle_ifh;
    if (member) op.name(bundle_ifh, 0, ifh);
    rc = pmdb_cycle_remove_found(&cyc);
    if (rc != PMDB_OK) PMDB_TRACE_E(165, ifh, rc);
    trace_ifh_removed(ifh, summary);
    rc = pmdb_cycle_release(&cyc, rc);
    /* Without write access dropped cleanly the bundle is left alone. */
    if (cyc.failed_step == PMDB_STEP_RELEASE || !member) return rc;
    pmdb_crash_point(PMDB_CRASH_MEMBER_REMOVED);
    return dpa_pmdb_update_bundle_ifh_entry(bundle_ifh, 0, 0, summary, nullptr, event_id);
}

cerrno dpa_pmdb_get_ifh_summary(u32 ifh, dpa_pmdb_ifh_summary_t *summary) {
    static const pmdb_cycle_traces_t kTraces = {.open_failed = 263, .lookup_failed = 264};
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
    static const pmdb_cycle_traces_t kTraces = {
        .open_failed = 125, .lookup_failed = 126, .lock_failed = 128};
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
        PMDB_TRACE_V(127, ifh, in->egress_lif, in->ingress_lif, in->bundle_ifh, e->node_mask);
    }
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

/* ---- bundle membership ------------------------------------------------------ */

cerrno dpa_pmdb_update_ifh_entry_member(pmdb_event_t *event, dpa_pmdb_ifh_summary_t *summary,
                                        pmdb_punt_info_t *punt_info) {
    if (event == nullptr || event->intf_info.ifh == 0 || summary == nullptr) {
        PMDB_TRACE_E(234);
        return PMDB_EINVAL;
    }
    static const pmdb_cycle_traces_t kTraces = {.open_failed = 235,
                                                .open_args = PMDB_OPEN_TRACE_KEY,
                                                .lookup_failed = 236,
                                                .lock_failed = 238};
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
    summary->sys_port = in->sys_port;
    summary->ingress_lif = in->ingress_lif;
    summary->egress_lif = in->egress_lif;
    summary->lc_slot = in->lc_slot;
    summary->slot_id = in->slot_id;
    summary->npu_index = in->npu_index;
    PMDB_TRACE_D(237, ifh, summary->ingress_lif, summary->egress_lif, port_lo_of(in->member_port),
                 port_hi_of(in->member_port));
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
    static const pmdb_cycle_traces_t kTraces = {
        .open_failed = 229, .lookup_failed = 230, .lock_failed = 233};
    if (bundle_ifh == 0 || summary == nullptr) {
        PMDB_TRACE_E(228);
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
    PMDB_TRACE_D(232, bundle_ifh, summary->bundle_egress_lif, summary->bundle_ingress_lif,
                 b->member_count);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

}  // extern "C"
