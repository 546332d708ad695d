/*
 * dnx_pmdb_oam.cpp - OAM entries: one 80-byte entry per OAM key in the OAM
 * table, created or refreshed from an event, removed by key, and the OAM
 * event entry that picks one of the two.
 *
 * Entry layout (pmdb_oam_entry_t, checked in pmdb.h):
 *
 *    0 u32 key            4 u32 event_id       8 timespec last_update
 *   24 oam_info (56 bytes, copied verbatim from an OAM event):
 *      56 u32 oam_intf_data   60 u32 oam_ifh   64 u8 oam_byte_a
 *      65 u8 oam_byte_b       68 u32 oam_word
 *
 * Concurrency contract: every field change is made inside one entry change
 * cycle of the OAM table, under the entry's slot lock; the table-store calls
 * are not under it.  The removal takes no lock: it retires the slot lock,
 * waiting while any process holds it, and then removes the entry.
 */
#include <cstring>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"

namespace {

/* The most specific handle an interface event names. */
u32 event_oam_ifh(const pmdb_intf_info_t *in) {
    if (in->sub_ifh != 0) return in->sub_ifh;
    if (in->bundle_ifh != 0) return in->bundle_ifh;
    return in->ifh;
}

/* The OAM block of the entry from the event: an OAM body is copied whole
 * (and wins over an interface body); an interface body sets only the
 * handle and its data word; anything else leaves the block as it is. */
void apply_event(pmdb_oam_entry_t *e, const pmdb_event_t *ev) {
    if (pmdb_fields::has_flag(ev, PMDB_VF_OAM)) {
        memcpy(&e->oam_info, &ev->oam.oam_info, sizeof e->oam_info);
        return;
    }
    if (!pmdb_fields::has_flag(ev, PMDB_VF_INTF)) return;
    e->oam_info.oam_ifh = event_oam_ifh(&ev->intf_info);
    e->oam_info.oam_intf_data = ev->intf_info.oam_data_36;
}

}  // namespace

extern "C" {

cerrno dpa_pmdb_add_oam_entry(u32 key, const pmdb_event_t *event, int *slot) {
    if (key == 0) {
        PMDB_TRACE(tp::oam_add_zero_key);
        return PMDB_EINVAL;
    }
    if (event == nullptr) {
        PMDB_TRACE(tp::oam_add_no_event, key, 0);
        return PMDB_EINVAL;
    }
    static const pmdb_cycle_traces_t kTraces = {.open_failed = tp::oam_add_open_failed,
                                                .add_failed = tp::oam_add_failed,
                                                .refreshed = tp::oam_add_refresh,
                                                .lookup_failed = tp::oam_add_lookup_failed,
                                                .lock_failed = tp::oam_add_lock_failed};
    pmdb_cycle_t cyc;
    const cerrno rc =
        pmdb_cycle_begin(&cyc, PMDB_TYPE_OAM, key, PMDB_CYCLE_CREATE | PMDB_CYCLE_LOCK, &kTraces);
    if (cyc.hdl == nullptr) return rc; /* the open failed */
    /* The slot is an optional report for callers of the exported entry. */
    if (slot != nullptr) *slot = cyc.slot;
    if (rc != PMDB_OK) return rc;
    auto *e = static_cast<pmdb_oam_entry_t *>(cyc.entry);
    /* A new entry is zero-filled only now that its lock is held. */
    if (cyc.created) memset(e, 0, sizeof *e);
    e->key = key;
    pmdb_stamp(&e->event_id, &e->last_update, event->event_id);
    apply_event(e, event);
    const pmdb_oam_info_t written = e->oam_info;
    pmdb_cycle_unlock(&cyc);
    PMDB_TRACE(tp::oam_entry_written, key, written.oam_ifh, written.oam_byte_a, written.oam_byte_b,
               written.oam_word);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

cerrno dpa_pmdb_remove_oam_entry(u32 key) {
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::oam_remove_zero_key,
                                                .open_failed = tp::oam_remove_open_failed,
                                                .lookup_failed = tp::oam_remove_not_found,
                                                .remove_failed = tp::oam_remove_failed,
                                                .removed = tp::oam_removed};
    return pmdb_cycle_remove_key(PMDB_TYPE_OAM, key, &kTraces);
}

void dpa_pmdb_oam_oper(const pmdb_event_t *event) {
    if (event == nullptr) {
        PMDB_TRACE(tp::oam_event_null);
        return;
    }
    const u32 key = event->oam.oam_key;
    if (event->event_type == PMDB_EV_MEMBER_LEAVE || event->event_type == PMDB_EV_OAM_REMOVE) {
        const cerrno rc = dpa_pmdb_remove_oam_entry(key);
        if (rc != PMDB_OK) PMDB_TRACE(tp::oam_event_remove_failed, key, rc);
        return;
    }
    int slot = 0;
    const cerrno rc = dpa_pmdb_add_oam_entry(key, event, &slot);
    if (rc != PMDB_OK) PMDB_TRACE(tp::oam_event_add_failed, key, rc);
}

}  // extern "C"
