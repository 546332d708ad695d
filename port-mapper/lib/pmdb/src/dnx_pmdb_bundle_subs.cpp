/*
 * dnx_pmdb_bundle_subs.cpp - two operations on a bundle or interface as a
 * whole: the walk over a bundle's sub-interfaces
 * (dpa_pmdb_bundle_sub_intf_oper) and the removal of an interface's own
 * OAM entry (dpa_pmdb_remove_intf_oam_entry).
 *
 * The walk asks the reader library for a snapshot of the bundle's
 * sub-interface handles (sub-interfaces added after it are not walked) and
 * acts on each through single-entry operations: under event type 7 it
 * removes the sub-interface's IFH entry and main PUNT entry, under event
 * type 22 it rewrites the sub-interface's MAC address.  With the member
 * flag set it only looks the list up.
 *
 * Concurrency contract: both run on the caller's thread and take no lock of
 * their own; every change happens inside the called operations' entry
 * change cycles, one entry at a time.  The handle array is the walk's own
 * heap memory, freed before it returns.
 */
#include <cstdlib>
#include <cstring>

#include "halvo.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "pmdb_trace.h"
#include "vorn_os.h"

namespace {

/* How many sub-interface handles a walk asks for: the sysctl key (its low
 * 32 bits), or the platform's limit when that is 0. */
u32 walk_count() {
    const u32 count = static_cast<u32>(vorn_sysctl_get_int64(PMDB_SYSCTL_MAX_BUNDLE_L3_VLAN, 0));
    return count != 0 ? count : halvo_intf_get_max_subintf_vlob();
}

/* The PUNT key of a sub-interface from its removal summary: the egress
 * LIF's low half with bit 30 when egress-keyed, else the ingress LIF. */
u32 sub_punt_key(const dpa_pmdb_ifh_summary_t *s) {
    if ((s->sum_flags & PMDB_SUM_EGRESS_KEY) != 0)
        return (s->egress_lif & pmdb_fields::kPortFieldMask) | PMDB_PUNT_KEY_EGRESS;
    return s->ingress_lif;
}

/* Event type 7: the sub-interface's IFH entry, then its main PUNT entry.
 * A sub-interface without an IFH entry leaves the summary zeroed, so its
 * PUNT key is 0, which the removal refuses. */
void remove_sub(u32 h, u32 event_id) {
    dpa_pmdb_ifh_summary_t s = {};
    const cerrno rc = dpa_pmdb_remove_ifh_entry(h, &s, event_id);
    PMDB_TRACE(tp::bsub_ifh_removal, 7, h, rc);
    const u32 key = sub_punt_key(&s);
    const cerrno prc = dpa_pmdb_remove_punt_entry(key);
    PMDB_TRACE(tp::bsub_punt_removal, h, key, prc, prc);
}

/* Event type 22: only the MAC reaches the sub-interface's entry. */
void rewrite_sub_mac(u32 h, const u8 *mac, u32 event_id) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = PMDB_EV_BUNDLE_MAC;
    ev.event_id = event_id;
    if (mac != nullptr) memcpy(ev.intf_info.mac_addr, mac, pmdb_fields::kMacLen);
    dpa_pmdb_ifh_summary_t s = {};
    i32 slot = 0;
    (void)dpa_pmdb_add_ifh_entry(h, &ev, &slot, &s, nullptr, nullptr, 0);
}

void act_on_sub(u8 event_type, u32 h, const u8 *mac, u32 event_id) {
    if (event_type == PMDB_EV_MEMBER_LEAVE)
        remove_sub(h, event_id);
    else if (event_type == PMDB_EV_BUNDLE_MAC)
        rewrite_sub_mac(h, mac, event_id);
}

}  // namespace

extern "C" {

void dpa_pmdb_bundle_sub_intf_oper(u8 event_type, u32 ifh, u32 bundle_ifh, i32 member,
                                   const u8 *mac, u32 event_id) {
    const u32 count = walk_count();
    PMDB_TRACE(tp::bsub_walk_start, event_type, bundle_ifh, ifh, count, member);
    if (count == 0) return;
    u32 *handles = static_cast<u32 *>(calloc(count, sizeof(u32)));
    if (handles == nullptr) return;
    (void)dpa_pmdb_get_bundle_sub_ifh_entries(bundle_ifh, handles, count);
    if (handles[0] == 0) {
        free(handles);
        return;
    }
    for (u32 i = 0; i < count && member == 0; i++)
        if (handles[i] != 0) act_on_sub(event_type, handles[i], mac, event_id);
    free(handles);
    PMDB_TRACE(tp::bsub_walk_end, event_type, bundle_ifh, ifh, count, member);
}

void dpa_pmdb_remove_intf_oam_entry(u32 ifh) {
    if (ifh == 0) {
        PMDB_TRACE(tp::intf_oam_remove_zero_ifh, 0);
        return;
    }
    dpa_pmdb_ifh_summary_t s = {};
    if (dpa_pmdb_get_ifh_summary(ifh, &s) != PMDB_OK) {
        PMDB_TRACE(tp::intf_oam_remove_summary_failed, ifh);
        return;
    }
    const u32 egress_key = (s.sum_flags & PMDB_SUM_EGRESS_KEY) != 0 ? 1u : 0u;
    PMDB_TRACE(tp::intf_oam_remove_begin, ifh, s.ingress_lif, s.oam_id, egress_key);
    const u32 key = pmdb_fields::interface_oam_key(s.oam_id);
    const cerrno rc = dpa_pmdb_remove_oam_entry(key);
    if (rc != PMDB_OK)
        PMDB_TRACE(tp::intf_oam_remove_failed, key, rc);
    else
        PMDB_TRACE(tp::intf_oam_removed, key);
}

}  // extern "C"
