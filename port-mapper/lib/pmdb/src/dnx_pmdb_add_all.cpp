/*
 * dnx_pmdb_add_all.cpp - every entry of one interface from one add or
 * refresh event (dpa_pmdb_add_all_entries): its IFH entry first, then its
 * PUNT entries, then its OAM entries.
 *
 * Which entries an interface gets follows from the summary that the IFH
 * step leaves: a bundle or a bundle sub-interface (the bundle path), or
 * anything else (the main path: a port or a port sub-interface).
 *
 * Concurrency contract: the path runs on the caller's thread and holds no
 * lock and no write access from one entry to the next; each entry is made
 * by one single-entry operation (pmdb_ops.h) in its own entry change
 * cycle.  Another process can therefore see the IFH entry made and some
 * PUNT or OAM entries still missing.  Nothing is rolled back.
 *
 * Result rule: S, the status of the last step that records its status
 * (0 when that step succeeded), whatever failed before it.  Steps whose
 * status is never returned: the key-change removals, the OAM key A
 * operations and the interface OAM entry.
 */
#include <cstdlib>

#include "halvo.h"
#include "platform_id.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::has_flag;
using pmdb_fields::kOamKeyPort;
using pmdb_fields::kOamKeySession;
using pmdb_fields::kOamSlots;
using pmdb_fields::oam_key;

/* node_id that the bundle punt keys are written with. */
constexpr u32 kBundlePuntNode = 999;
/* Member keys asked of the reader per member of a bundle. */
constexpr u32 kMemberKeysPerMember = 7;

/* The working records of one call; all start zeroed. */
struct add_ctx {
    u32 ifh;
    pmdb_event_t *ev;
    dpa_pmdb_ifh_summary_t p; /* the entry as the IFH step leaves it */
    dpa_pmdb_ifh_summary_t q; /* its keys before a refresh */
    pmdb_punt_info_t punt;    /* the entry's punt block, when it holds one */
    i32 slot;                 /* slot output of every add */
    cerrno s;                 /* status of the last recorded step */
    u32 e;                    /* egress keying of the event (0 or 1) */
};

/* Shapes of the points the recorded steps write. */
using err2_point = pmdb_tpt::point<pmdb_tpt::E, 2, pmdb_tpt::N>; /* (key, status) */
using db1_point = pmdb_tpt::point<pmdb_tpt::D, 1, pmdb_tpt::N>;  /* (key) */
using db5_point = pmdb_tpt::point<pmdb_tpt::D, 5, pmdb_tpt::N>;  /* (i, lif, v, port, key) */

bool p_flag(const add_ctx *c, u8 bit) { return (c->p.sum_flags & bit) != 0; }

/* The LIF that egress keying selects. */
u32 selected_lif(const add_ctx *c) { return c->e != 0 ? c->p.egress_lif : c->p.ingress_lif; }

/* PUNT add of `key`, the punt block passed on when `with_punt`. */
cerrno add_punt(add_ctx *c, u32 key, bool with_punt) {
    return dpa_pmdb_add_punt_entry(key, c->ev, &c->slot, with_punt ? &c->punt : nullptr);
}

/* A recorded PUNT add traced (key, status) on the error buffer when it
 * fails and (key) on the database buffer when it succeeds. */
void record_punt(add_ctx *c, u32 key, bool with_punt, err2_point failed_point,
                 db1_point done_point) {
    c->s = add_punt(c, key, with_punt);
    if (c->s != PMDB_OK)
        PMDB_TRACE(failed_point, key, c->s);
    else
        PMDB_TRACE(done_point, key);
}

/* The bundle punt key, written with node_id 999; the event's node_id is
 * restored afterwards. */
void record_bundle_punt(add_ctx *c, err2_point failed_point, db1_point done_point) {
    const u32 key = dpa_pmdb_punt_key(c->e, c->p.egress_lif, c->p.ingress_lif, 0, PMDB_NO_SLOT);
    const u32 node_id = c->ev->intf_info.node_id;
    c->ev->intf_info.node_id = kBundlePuntNode;
    record_punt(c, key, true, failed_point, done_point);
    c->ev->intf_info.node_id = node_id;
}

/* Redundancy OAM entries, one per nonzero OAM slot, when LCVM redundancy
 * is on; they do not depend on the OAM switch. */
void record_redundancy_oam(add_ctx *c, db5_point entry_point, err2_point failed_point) {
    if (halvo_config_get_lcvm_redundancy_on() == 0 || c->p.egress_lif == 0) return;
    for (u32 i = 0; i < kOamSlots; i++) {
        const u32 v = c->p.oam_slots[i];
        if (v == 0) continue;
        const u32 key = oam_key(v, i, kOamKeySession);
        PMDB_TRACE(entry_point, i, c->p.egress_lif, v, c->p.sys_port, key);
        c->s = dpa_pmdb_add_oam_entry(key, c->ev, &c->slot);
        if (c->s != PMDB_OK) PMDB_TRACE(failed_point, key, c->s);
    }
}

/* ---- bundle and bundle sub-interface ------------------------------------ */

/* Member punt entries of a punt-information event: the keys that the
 * reader library lists for the bundle's members are refreshed in the order
 * given.  A failed allocation skips them. */
void refresh_member_punts(add_ctx *c, bool bundle_sub) {
    u8 count = 0;
    const u32 handle = bundle_sub ? c->p.parent_ifh : c->ifh;
    (void)dpa_pmdb_get_num_members(&count, handle);
    PMDB_TRACE(tp::add_member_count_read, handle, count, bundle_sub ? 1u : 0u);
    if (count == 0) return;
    const u32 capacity = bundle_sub ? 1u : kMemberKeysPerMember * count;
    u32 *keys = static_cast<u32 *>(calloc(capacity, sizeof(u32)));
    if (keys == nullptr) return;
    if (bundle_sub)
        (void)dpa_pmdb_get_bundle_sub_punt_entries(c->ifh, keys, capacity,
                                                   PMDB_READER_ALL_NODES);
    else
        (void)dpa_pmdb_get_bundle_punt_entries(c->ifh, keys, capacity);
    for (u32 k = 0; k < capacity; k++) {
        if (keys[k] == 0) continue;
        c->s = add_punt(c, keys[k], false);
        if (c->s != PMDB_OK)
            PMDB_TRACE(tp::add_member_punt_failed, c->ifh, keys[k], c->s);
        else
            PMDB_TRACE(tp::add_member_punt_done, c->ifh, keys[k]);
    }
    free(keys);
}

/* The interface's own OAM entry, keyed by its OAM identifier (or its
 * first nonzero OAM slot); its status is not recorded. */
void add_interface_oam(add_ctx *c) {
    if (c->ifh == 0) {
        PMDB_TRACE(tp::intf_oam_no_handle, 0);
        return;
    }
    dpa_pmdb_ifh_summary_t r = {};
    if (dpa_pmdb_get_ifh_summary(c->ifh, &r) != PMDB_OK) {
        PMDB_TRACE(tp::intf_oam_summary_failed, c->ifh);
        return;
    }
    const u32 key = pmdb_fields::interface_oam_key(r.oam_id);
    const cerrno rc = dpa_pmdb_add_oam_entry(key, c->ev, &c->slot);
    if (rc != PMDB_OK)
        PMDB_TRACE(tp::intf_oam_add_failed, key, r.slot_id, r.npu_index, rc);
    else
        PMDB_TRACE(tp::intf_oam_added, key, r.slot_id, r.npu_index);
}

cerrno bundle_path(add_ctx *c, bool bundle_sub) {
    if (has_flag(c->ev, PMDB_VF_PUNT)) refresh_member_punts(c, bundle_sub);
    add_interface_oam(c);
    if (bundle_sub) return c->s;
    record_bundle_punt(c, tp::add_bundle_punt_failed, tp::add_bundle_punt_done);
    record_redundancy_oam(c, tp::add_bundle_redundancy_oam, tp::add_bundle_redundancy_oam_failed);
    return c->s;
}

/* ---- main path ------------------------------------------------------------ */

/* The egress keying changed on a refresh: the entries under the old keys
 * go first; their statuses are not recorded. */
void remove_old_keys(const add_ctx *c) {
    const dpa_pmdb_ifh_summary_t *q = &c->q;
    const u32 old_e = (q->sum_flags & PMDB_SUM_EGRESS_KEY) != 0 ? 1u : 0u;
    if (old_e == c->e) return;
    (void)dpa_pmdb_remove_punt_entry(
        dpa_pmdb_punt_key(old_e, q->egress_lif, q->ingress_lif, q->sys_port, q->slot_id));
    (void)dpa_pmdb_remove_punt_entry(dpa_pmdb_punt_key(old_e, 0, 0, q->sys_port, PMDB_NO_SLOT));
    if (old_e == 0)
        (void)dpa_pmdb_remove_punt_entry(
            dpa_pmdb_punt_key(1, q->egress_lif, 0, q->sys_port, q->slot_id));
}

/* The plain extension key is not made for sub-interface, refresh and
 * no-IFH events, nor for node-local and BVI interfaces (by the interface
 * or the punt reading of the event). */
bool wants_plain_extension(const pmdb_event_t *ev) {
    switch (ev->event_type) {
    case PMDB_EV_INTF_REFRESH:
    case PMDB_EV_SUB_ADD:
    case PMDB_EV_SUB_PUNT:
    case PMDB_EV_INTF_ADD_NO_IFH:
    case PMDB_EV_INTF_PUNT_NO_IFH:
        return false;
    default:
        break;
    }
    const auto excluded = [](u16 type) {
        return type == PMDB_INTF_TYPE_NODE_LOCAL || type == PMDB_INTF_TYPE_BVI;
    };
    if (has_flag(ev, PMDB_VF_INTF) && excluded(ev->intf_info.intf_type)) return false;
    return !(has_flag(ev, PMDB_VF_PUNT) && excluded(ev->punt_info.intf_type));
}

/* Steps 7.1 to 7.7: the interface's PUNT entries. */
void main_punts(add_ctx *c) {
    const dpa_pmdb_ifh_summary_t *p = &c->p;
    u32 k = 0;
    if (selected_lif(c) != 0) {
        remove_old_keys(c);
        k = dpa_pmdb_punt_key(c->e, p->egress_lif, p->ingress_lif, p->sys_port, p->slot_id);
        record_punt(c, k, true, tp::add_main_punt_failed, tp::add_main_punt_done);
    }
    if (!p_flag(c, PMDB_SUM_IS_SUB_INTF)) {
        k = dpa_pmdb_punt_key(c->e, 0, 0, p->sys_port, PMDB_NO_SLOT);
        record_punt(c, k, true, tp::add_ext_punt_failed, tp::add_ext_punt_done);
    }
    if (wants_plain_extension(c->ev))
        record_punt(c, pmdb_fields::plain_extension_key(k), true, tp::add_plain_ext_punt_failed,
                    tp::add_plain_ext_punt_done);
    if (p->egress_lif != 0) {
        k = pmdb_fields::egress_lif_punt_key(p->egress_lif, p->slot_id);
        c->s = add_punt(c, k, false);
        if (c->s != PMDB_OK)
            PMDB_TRACE(tp::add_egress_lif_punt_failed, k, c->s);
        else
            PMDB_TRACE(tp::add_egress_lif_punt_done, k, c->e);
    }
    if (halvo_config_get_need_egress_punt_pm_entry() != 0 && p->ingress_lif != 0)
        record_punt(c, p->ingress_lif, false, tp::add_egress_punt_failed, tp::add_egress_punt_done);
}

/* ---- OAM entries of the main path --------------------------------------- */

/* How the OAM keys of one call are made. */
struct oam_walk {
    bool remove_mode; /* remove the previous keys instead of adding */
    u32 port;         /* identifier of key A */
    u32 g;            /* slot bits 5..9 of every key */
};

/* Slot bits: the line card slot when LCVM redundancy is on or on a route
 * processor with data path (asked only when redundancy is off), else
 * from the NPU index and the slot id. */
u32 oam_slot_bits(const dpa_pmdb_ifh_summary_t *p) {
    if (halvo_config_get_lcvm_redundancy_on() != 0 || platform_am_i_rp_plus_datapath() != 0)
        return static_cast<u32>(p->lc_slot & 15u) << pmdb_fields::kOamSlotShift;
    return ((p->npu_index | (static_cast<u32>(p->slot_id) << 6)) >> 1) & 0x3E0u;
}

/* Mode and port; false when the event makes no OAM change. */
bool oam_mode(const add_ctx *c, oam_walk *w) {
    const bool old_e = (c->q.sum_flags & PMDB_SUM_EGRESS_KEY) != 0;
    if (c->e != 0) {
        w->remove_mode = false;
    } else if (c->ev->event_type == PMDB_EV_INTF_ADD && old_e) {
        w->remove_mode = true;
    } else {
        return false;
    }
    w->port = w->remove_mode ? c->q.egress_lif : c->p.egress_lif;
    w->g = oam_slot_bits(&c->p);
    return true;
}

/* Key A of slot i: not recorded. */
void oam_key_a(add_ctx *c, const oam_walk *w, u32 i, bool remove, bool re_add) {
    const u32 key = oam_key(w->port, i, w->g | kOamKeyPort);
    PMDB_TRACE(tp::add_oam_key_a, i, w->g >> pmdb_fields::kOamSlotShift, w->port, key, remove ? 1u : 0u);
    if (!remove) {
        const cerrno rc = dpa_pmdb_add_oam_entry(key, c->ev, &c->slot);
        if (rc != PMDB_OK) PMDB_TRACE(tp::add_oam_key_a_add_failed, key, rc);
        return;
    }
    cerrno rc = dpa_pmdb_remove_oam_entry(key);
    if (rc != PMDB_OK) PMDB_TRACE(tp::add_oam_key_a_remove_failed, key, rc);
    if (!re_add) return;
    const u32 new_key = oam_key(c->p.egress_lif, i, w->g | kOamKeyPort);
    rc = dpa_pmdb_add_oam_entry(new_key, c->ev, &c->slot);
    if (rc != PMDB_OK) PMDB_TRACE(tp::add_oam_key_a_readd_failed, new_key, rc);
}

/* Key B of slot i (and key D for a changed slot): recorded. */
void oam_key_b(add_ctx *c, const oam_walk *w, u32 i, u32 v, bool remove, bool re_add) {
    const u32 key = oam_key(v, i, w->g | kOamKeySession);
    PMDB_TRACE(tp::add_oam_key_b, i, w->port, v, c->p.sys_port, key, remove ? 1u : 0u);
    if (!remove) {
        c->s = dpa_pmdb_add_oam_entry(key, c->ev, &c->slot);
        if (c->s != PMDB_OK) PMDB_TRACE(tp::add_oam_key_b_add_failed, key, c->s);
        return;
    }
    c->s = dpa_pmdb_remove_oam_entry(key);
    if (c->s != PMDB_OK) PMDB_TRACE(tp::add_oam_key_b_remove_failed, key, c->s);
    if (!re_add) return;
    const u32 now = c->p.oam_slots[i];
    const u32 key_d = oam_key(now, i, w->g | kOamKeySession);
    c->s = dpa_pmdb_add_oam_entry(key_d, c->ev, &c->slot);
    if (c->s != PMDB_OK)
        PMDB_TRACE(tp::add_oam_key_d_add_failed, key_d, c->s);
    else
        PMDB_TRACE(tp::add_oam_key_d_done, i, w->port, now, c->p.sys_port, key_d);
}

/* Step 8: OAM keys A and B of every OAM slot in use. */
cerrno main_oam(add_ctx *c) {
    oam_walk w = {};
    if (halvo_oam_get_oam_enable() == 0 || c->p.egress_lif == 0 || !oam_mode(c, &w)) return c->s;
    for (u32 i = 0; i < kOamSlots; i++) {
        u32 v = w.remove_mode ? c->q.oam_slots[i] : c->p.oam_slots[i];
        bool remove = w.remove_mode;
        bool re_add = false;
        if (c->ev->event_type == PMDB_EV_SUB_PUNT) {
            /* A refreshed sub-interface: a changed slot moves, a cleared one goes. */
            const u32 now = c->p.oam_slots[i], old = c->q.oam_slots[i];
            if (now != 0 && old != 0 && now != old) {
                remove = re_add = true;
                v = old;
                w.port = c->q.egress_lif;
            } else if (now == 0 && old != 0) {
                remove = true;
                v = old;
            }
        }
        if (v == 0) continue;
        oam_key_a(c, &w, i, remove, re_add);
        oam_key_b(c, &w, i, v, remove, re_add);
    }
    return c->s;
}

/* Steps 3 and 4: a sub-interface's parent count, and a bundle
 * sub-interface's own punt key and redundancy OAM entries. */
void sub_interface_steps(add_ctx *c) {
    if (!has_flag(c->ev, PMDB_VF_INTF)) return;
    if (p_flag(c, PMDB_SUM_IS_SUB_INTF) && p_flag(c, PMDB_SUM_CREATED))
        c->s = dpa_pmdb_update_sub_intf_count(c->p.parent_ifh, 1, c->ev->event_id);
    if (!p_flag(c, PMDB_SUM_IS_BUNDLE_SUB_INTF)) return;
    const u8 type = c->ev->event_type;
    if ((type == PMDB_EV_SUB_ADD || type == PMDB_EV_SUB_PUNT) && selected_lif(c) != 0)
        record_bundle_punt(c, tp::add_bsub_punt_failed, tp::add_bsub_punt_done);
    record_redundancy_oam(c, tp::add_bsub_redundancy_oam, tp::add_bsub_redundancy_oam_failed);
}

}  // namespace

extern "C" {

cerrno dpa_pmdb_add_all_entries(u32 ifh, pmdb_event_t *event, u32 is_bundle, i32 node) {
    if (event == nullptr) return PMDB_EINVAL;
    add_ctx c = {};
    c.ifh = ifh;
    c.ev = event;
    c.e = pmdb_fields::egress_key(&event->intf_info);
    const cerrno rc = dpa_pmdb_add_ifh_entry(ifh, event, &c.slot, &c.p, &c.punt, &c.q,
                                             static_cast<u16>(node));
    if (rc != PMDB_OK) {
        PMDB_TRACE(tp::add_ifh_step_failed, ifh, event->event_type, event->valid_flags, rc);
        return rc;
    }
    PMDB_TRACE(tp::add_ifh_step_done, ifh, event->event_type, event->valid_flags, 0);
    if (p_flag(&c, PMDB_SUM_PUNT_ONLY_CREATED)) return PMDB_OK;
    sub_interface_steps(&c);
    const bool bundle_sub = p_flag(&c, PMDB_SUM_IS_BUNDLE_SUB_INTF);
    if (is_bundle != 0 || bundle_sub) return bundle_path(&c, bundle_sub);
    main_punts(&c);
    return main_oam(&c);
}

}  // extern "C"
