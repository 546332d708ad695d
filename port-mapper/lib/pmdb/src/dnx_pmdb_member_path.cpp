/*
 * dnx_pmdb_member_path.cpp - the bundle member event path: a member joins
 * its bundle (event type 5), changes its bundle attributes (6) or leaves
 * (7).  The member's and the bundle's IFH entries are updated first, then
 * the membership fields of the member's own PUNT entries, then (6 and 7)
 * the bundle-member PUNT entry and the member's port entry; when the last
 * member leaves, the bundle's own entries go through the removal path.
 *
 * The four keys are made from the member's summary with slot 255 (no slot
 * substitution): its ingress key, its egress key, its port key and its
 * bundle-member key (bit 31, never bit 30 here whatever the bundle's egress
 * keying).
 *
 * Concurrency contract: the path runs on the caller's thread and holds no
 * lock between its steps; each step is one single-entry operation in its
 * own entry change cycle (the member update holds the member's IFH lock and
 * then the bundle's, member first).  Nothing is undone when a later step
 * fails.
 */
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "pmdb_trace.h"

namespace {

/* The punt keys of one member, from its summary. */
struct member_keys {
    u32 ingress;
    u32 egress;
    u32 port;
    u32 bundle_member;
};

member_keys keys_of(const dpa_pmdb_ifh_summary_t *s) {
    member_keys k;
    k.ingress = dpa_pmdb_punt_key(0, s->egress_lif, s->ingress_lif, s->sys_port, PMDB_NO_SLOT);
    k.egress = dpa_pmdb_punt_key(1, s->egress_lif, 0, s->sys_port, PMDB_NO_SLOT);
    k.port = dpa_pmdb_punt_key(0, 0, 0, s->sys_port, PMDB_NO_SLOT);
    k.bundle_member = pmdb_fields::bundle_member_punt_key(s);
    return k;
}

/* A leave: the member's port entry is a non-member's again, and a bundle
 * left without members loses its own entries and its sub-interfaces. */
void leave_steps(pmdb_event_t *event, u32 handle, const member_keys *k,
                 const dpa_pmdb_ifh_summary_t *s) {
    const cerrno rc = dpa_pmdb_update_punt_entry_member(event, &k->port, s);
    if (rc != PMDB_OK) PMDB_TRACE(tp::member_port_key_failed, k->port, handle, event->event_id, rc);
    const u32 bundle_ifh = event->intf_info.bundle_ifh;
    u8 members = 0;
    (void)dpa_pmdb_get_num_members(&members, bundle_ifh);
    if (members != 0) return;
    (void)dpa_pmdb_remove_all_entries(bundle_ifh, event->event_type, s->bundle_ingress_lif, 1,
                                      event->event_id);
}

}  // namespace

extern "C" {

void dpa_pmdb_bundle_member_punt_oper(pmdb_event_t *event, u32 handle, const u32 *key,
                                      const pmdb_punt_info_t *punt_info, i32 member_modify,
                                      u32 is_member) {
    if (event == nullptr || key == nullptr) return;
    const u8 type = event->event_type;
    PMDB_TRACE(tp::member_punt_op_begin, type, handle, *key & pmdb_fields::kPortFieldMask);
    if (type == PMDB_EV_MEMBER_LEAVE) {
        if (is_member == 0) {
            PMDB_TRACE(tp::member_leave_not_active, type, type, member_modify, handle, *key);
            return;
        }
        const cerrno rc = dpa_pmdb_remove_punt_entry(*key);
        PMDB_TRACE(tp::member_punt_removed, type, handle, *key, rc);
        return;
    }
    if (member_modify == 0 && type != PMDB_EV_MEMBER_MODIFY) {
        PMDB_TRACE(tp::member_punt_not_join_or_modify, type, type, 0, handle, *key);
        return;
    }
    i32 slot = 0;
    const cerrno rc = dpa_pmdb_add_punt_entry(*key, event, &slot, punt_info);
    PMDB_TRACE(tp::member_punt_written, type, handle, *key, rc);
}

void dpa_pmdb_bundle_member_oper(pmdb_event_t *event, u32 handle,
                                 dpa_pmdb_ifh_summary_t *summary) {
    if (event == nullptr || summary == nullptr) return;
    *summary = {};
    pmdb_punt_info_t punt = {};
    const pmdb_intf_info_t *in = &event->intf_info;
    const u8 type = event->event_type;
    PMDB_TRACE(tp::member_path_begin, type, handle, in->bundle_ifh, pmdb_fields::port_lo_of(in->member_port),
                 pmdb_fields::port_hi_of(in->member_port), event->event_id);
    if (in->bundle_ifh == 0) return;
    if (dpa_pmdb_update_ifh_entry_member(event, summary, &punt) != PMDB_OK) return;
    const member_keys k = keys_of(summary);
    (void)dpa_pmdb_update_punt_entry_member(event, &k.ingress, summary);
    const cerrno rc = dpa_pmdb_update_punt_entry_member(event, &k.egress, summary);
    if (rc != PMDB_OK) PMDB_TRACE(tp::member_egress_key_failed, k.egress, event->event_id, rc);
    if (type == PMDB_EV_MEMBER_JOIN) return;
    dpa_pmdb_bundle_sub_intf_oper(type, in->ifh, in->bundle_ifh, 1, nullptr, event->event_id);
    const i32 modify = type == PMDB_EV_MEMBER_MODIFY ? 1 : 0;
    const u32 is_member = (summary->sum_flags & PMDB_SUM_IS_MEMBER) != 0 ? 1u : 0u;
    dpa_pmdb_bundle_member_punt_oper(event, handle, &k.bundle_member, &punt, modify, is_member);
    if (type == PMDB_EV_MEMBER_MODIFY)
        dpa_pmdb_bundle_member_punt_oper(event, handle, &k.port, &punt, modify, is_member);
    else if (type == PMDB_EV_MEMBER_LEAVE)
        leave_steps(event, handle, &k, summary);
}

}  // extern "C"
