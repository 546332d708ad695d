/*
 * dnx_pmdb_remove_all.cpp - every entry of one interface going away
 * (dpa_pmdb_remove_all_entries), in a fixed order: a bundle's
 * sub-interfaces and own OAM entry, the IFH entry (whose removal summary
 * gives every later key), the parent's sub-interface count, the member
 * entries of an active bundle member, the ingress LIF, egress LIF, egress
 * and system port PUNT entries, the OAM entries.
 *
 * Concurrency contract: the path runs on the caller's thread and holds no
 * lock and no write access from one entry to the next; each removal is one
 * single-entry operation (pmdb_ops.h) in its own cycle, so other processes
 * may see the interface half removed, its entries disappearing in the order
 * above.  Nothing is rolled back.
 *
 * Result rule: the IFH removal's failure ends the call with its status.
 * After it, the interface path returns the status of the last step that
 * sets the result (as noted at each step); the bundle path returns 0 even
 * when every one of its removals failed.
 */
#include "halvo.h"
#include "platform_id.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::kOamKeyPort;
using pmdb_fields::kOamKeySession;
using pmdb_fields::kOamSlots;
using pmdb_fields::oam_key;

constexpr u32 kLifMask = 0xFFFFu;

bool has(const dpa_pmdb_ifh_summary_t *s, u8 bit) { return (s->sum_flags & bit) != 0; }
u32 egress_key_of(const dpa_pmdb_ifh_summary_t *s) {
    return has(s, PMDB_SUM_EGRESS_KEY) ? 1u : 0u;
}

/* Event types 21, and 12 with an ingress LIF inside the in-LIF pool bank,
 * are about interfaces that have no IFH entry.  Both bounds are inclusive;
 * the maximum is asked only when the minimum does not exceed the LIF. */
bool has_no_ifh_entry(u32 event_type, u32 ingress_lif) {
    if (event_type == PMDB_EV_INTF_REMOVE_NO_IFH) return true;
    if (event_type != PMDB_EV_INTF_REMOVE) return false;
    if (halvo_grid_get_inlif_res_pool_bank_25_min() > ingress_lif) return false;
    return ingress_lif <= halvo_grid_get_inlif_res_pool_bank_25_max();
}

/* Bundle path: the bundle's punt key and, with LCVM redundancy, its
 * redundancy OAM entries.  Its removals' statuses are traced only. */
cerrno bundle_path(u32 ifh, const dpa_pmdb_ifh_summary_t *s) {
    const u32 e = egress_key_of(s);
    const u32 key = e != 0 ? ((s->egress_lif & kLifMask) | PMDB_PUNT_KEY_EGRESS) : s->ingress_lif;
    const cerrno rc = dpa_pmdb_remove_punt_entry(key);
    PMDB_TRACE(tp::remove_bundle_punt, ifh, key, rc, rc);
    if (halvo_config_get_lcvm_redundancy_on() == 0 || s->egress_lif == 0) return PMDB_OK;
    for (u32 i = 0; i < kOamSlots; i++) {
        const u32 v = s->oam_slots[i];
        if (v == 0) continue;
        const u32 okey = oam_key(v, i, kOamKeySession);
        PMDB_TRACE(tp::remove_bundle_oam, i, s->egress_lif, v, i, okey);
        const cerrno orc = dpa_pmdb_remove_oam_entry(okey);
        if (orc != PMDB_OK) PMDB_TRACE(tp::remove_bundle_oam_failed, okey, orc);
    }
    return PMDB_OK;
}

/* An active member's entries that serve its bundle: the bundle-member key
 * (bit 30 from the bundle's egress keying, which the removal summary
 * carries) and the member's system port key. */
void remove_member_keys(u32 ifh, const dpa_pmdb_ifh_summary_t *s, u32 event_id) {
    dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_MEMBER_LEAVE, ifh, s->bundle_ifh, 1, nullptr, event_id);
    const u32 member_key = pmdb_fields::bundle_member_punt_key(s) |
                           (egress_key_of(s) != 0 ? PMDB_PUNT_KEY_EGRESS : 0u);
    cerrno rc = dpa_pmdb_remove_punt_entry(member_key);
    PMDB_TRACE(tp::remove_member_punt, ifh, member_key, rc, rc);
    const u32 port_key = pmdb_fields::extension_key(0, s->sys_port);
    rc = dpa_pmdb_remove_punt_entry(port_key);
    PMDB_TRACE(tp::remove_member_sys_port_punt, ifh, port_key, rc, rc);
}

/* The PUNT entries of the interface path, in order; returns the result. */
cerrno remove_intf_punts(u32 ifh, const dpa_pmdb_ifh_summary_t *s) {
    cerrno result = dpa_pmdb_remove_punt_entry(s->ingress_lif);
    if (result != PMDB_OK)
        PMDB_TRACE(tp::remove_ingress_lif_punt_failed, s->bundle_egress_lif, result);
    else
        PMDB_TRACE(tp::remove_ingress_lif_punt_done, ifh, s->ingress_lif, 0, 0);
    if (s->egress_lif != 0) {
        const u32 key = pmdb_fields::egress_lif_punt_key(s->egress_lif, s->slot_id);
        result = dpa_pmdb_remove_punt_entry(key);
        if (result != PMDB_OK) PMDB_TRACE(tp::remove_egress_lif_punt_failed, key, result);
    }
    if (halvo_config_get_need_egress_punt_pm_entry() != 0 && s->ingress_lif != 0) {
        result = dpa_pmdb_remove_punt_entry(s->ingress_lif);
        if (result != PMDB_OK) PMDB_TRACE(tp::remove_egress_punt_failed, s->ingress_lif, result);
    }
    if (has(s, PMDB_SUM_IS_SUB_INTF)) return result;
    const u32 plain = pmdb_fields::extension_key(0, s->sys_port);
    if (plain != 0) {
        const cerrno rc = dpa_pmdb_remove_punt_entry(plain);
        if (rc != PMDB_OK) {
            PMDB_TRACE(tp::remove_sys_port_punt_failed, s->bundle_egress_lif, rc);
            result = rc;
        }
    }
    const u32 flagged = pmdb_fields::extension_key(egress_key_of(s), s->sys_port);
    result = dpa_pmdb_remove_punt_entry(flagged);
    if (result != PMDB_OK)
        PMDB_TRACE(tp::remove_flagged_sys_port_punt_failed, flagged, result);
    else
        PMDB_TRACE(tp::remove_flagged_sys_port_punt_done, flagged);
    return result;
}

/* The interface's OAM entries, per OAM slot in use: the OAM port's key
 * (its status not kept) and the slot's own key (its status kept). */
cerrno remove_intf_oam(const dpa_pmdb_ifh_summary_t *s, cerrno result) {
    if (halvo_oam_get_oam_enable() == 0 || s->egress_lif == 0) return result;
    const bool by_lc_slot =
        halvo_config_get_lcvm_redundancy_on() != 0 || platform_am_i_rp_plus_datapath() != 0;
    const u32 slot = by_lc_slot ? (s->lc_slot & 15u) : (s->slot_id & 31u);
    const u32 low = (slot << pmdb_fields::kOamSlotShift) | kOamKeyPort;
    for (u32 i = 0; i < kOamSlots; i++) {
        const u32 v = s->oam_slots[i];
        if (v == 0) continue;
        const u32 first = oam_key(s->egress_lif, i, low);
        PMDB_TRACE(tp::remove_oam_first, i, s->egress_lif, slot, first);
        const cerrno rc = dpa_pmdb_remove_oam_entry(first);
        if (rc != PMDB_OK) PMDB_TRACE(tp::remove_oam_first_failed, first, rc);
        const u32 second = oam_key(v, i, low | kOamKeySession);
        PMDB_TRACE(tp::remove_oam_second, i, s->egress_lif, v, i, second);
        result = dpa_pmdb_remove_oam_entry(second);
        if (result != PMDB_OK) PMDB_TRACE(tp::remove_oam_second_failed, second, result);
    }
    return result;
}

}  // namespace

extern "C" {

cerrno dpa_pmdb_remove_all_entries(u32 ifh, u32 event_type, u32 ingress_lif, u32 bundle,
                                   u32 event_id) {
    if (ifh == 0) return PMDB_EINVAL;
    dpa_pmdb_ifh_summary_t s = {};
    if (bundle != 0) {
        dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_MEMBER_LEAVE, 0, ifh, 0, nullptr, event_id);
        dpa_pmdb_remove_intf_oam_entry(ifh);
    }
    if (has_no_ifh_entry(event_type, ingress_lif)) {
        s.ingress_lif = static_cast<u16>(ingress_lif);
    } else {
        const cerrno rc = dpa_pmdb_remove_ifh_entry(ifh, &s, event_id);
        if (rc != PMDB_OK) {
            PMDB_TRACE(tp::remove_ifh_failed, ifh, rc);
            return rc;
        }
    }
    if (has(&s, PMDB_SUM_IS_SUB_INTF)) {
        const cerrno rc = dpa_pmdb_update_sub_intf_count(s.parent_ifh, 0, event_id);
        if (has(&s, PMDB_SUM_IS_BUNDLE_SUB_INTF)) {
            PMDB_TRACE(tp::remove_bsub_stop, ifh);
            return rc;
        }
    }
    if (bundle != 0) return bundle_path(ifh, &s);
    if (has(&s, PMDB_SUM_IS_MEMBER)) remove_member_keys(ifh, &s, event_id);
    return remove_intf_oam(&s, remove_intf_punts(ifh, &s));
}

}  // extern "C"
