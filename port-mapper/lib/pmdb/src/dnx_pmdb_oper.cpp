/*
 * dnx_pmdb_oper.cpp - the event entry point dpa_pmdb_oper: checks one port
 * mapper event, picks the interface handle it is about and the path it
 * takes, traces it, and hands it to that path (add, remove, member, or one
 * of the two bundle paths below: re-key, type 10; MAC change, type 22).
 *
 * The dispatcher opens no database and runs no entry change cycle itself:
 * every change is made by a whole-interface path or a single-entry
 * operation, each in its own cycle; entries are read back through the
 * reader library.
 *
 * Concurrency contract: no lock of its own and no state between calls.
 * Within one process events arrive one at a time (the add path touches the
 * unlocked inventory list); dispatchers of different processes may run at
 * once, and another writer may change entries between two steps of one
 * event.  Key and handle arrays are the call's own heap memory, freed
 * before it returns.
 */
#include <cstdlib>
#include <cstring>

#include "platform_id.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "pmdb_trace.h"

namespace {

using pmdb_fields::has_flag;
using pmdb_fields::kPortFieldMask;

/* Punt keys the type-37 punt-word refresh asks for. */
constexpr u32 kRefreshKeys = 3;
/* Punt keys asked of the reader per bundle member by the re-key. */
constexpr u32 kMemberKeysPerMember = 7;
/* Bytes of the buffers that the reader's by-key lookups fill. */
constexpr size_t kLookupBuf = PMDB_PUNT_ENTRY_SIZE;

/* What the selection step makes of an event. */
struct selection {
    bool drop;          /* ignored without a trace */
    u32 handle;         /* the interface the event is about */
    bool add;           /* add path */
    bool bundle;        /* the handle is a bundle */
    bool member_path;   /* member path (5, 6, 7) */
    bool member_modify; /* type 6 */
    bool rekey;         /* type 10 */
    bool mac;           /* type 22 */
};

bool type_refused(u8 t) {
    return t == 0 || t > PMDB_EV_BUNDLE_MAC || (t >= 16 && t <= PMDB_EV_OAM_REMOVE);
}

bool sub_valid(const pmdb_event_t *ev) {
    return (ev->intf_info.sub_flags & PMDB_SUB_VALID) != 0;
}

/* Handle of a punt-information event: the punt image's with bit 1, else
 * `intf_handle` with bit 0, else 0. */
u32 punt_event_handle(const pmdb_event_t *ev, u32 intf_handle) {
    if (has_flag(ev, PMDB_VF_PUNT)) return ev->punt_info.ifh;
    return has_flag(ev, PMDB_VF_INTF) ? intf_handle : 0;
}

/* Types 1 and 19 of a node-local interface (37) belong to this node. */
void bind_node_local(pmdb_event_t *ev) {
    if (has_flag(ev, PMDB_VF_INTF) && ev->intf_info.intf_type == PMDB_INTF_TYPE_NODE_LOCAL)
        ev->intf_info.node_id = pmdb_node_id;
}

/* Selection of the types that take the add path. */
selection select_add(pmdb_event_t *ev) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    selection s = {};
    s.add = true;
    switch (ev->event_type) {
    case PMDB_EV_INTF_ADD:
    case PMDB_EV_INTF_ADD_NO_IFH:
        bind_node_local(ev);
        s.handle = in->ifh;
        break;
    case PMDB_EV_BUNDLE_ADD:
        s.handle = in->bundle_ifh;
        s.bundle = true;
        break;
    case PMDB_EV_INTF_REFRESH:
        s.handle = in->ifh;
        break;
    case PMDB_EV_SUB_ADD:
        s.drop = !sub_valid(ev);
        s.handle = in->sub_ifh;
        break;
    case PMDB_EV_INTF_PUNT:
    case PMDB_EV_INTF_PUNT_NO_IFH:
        s.handle = punt_event_handle(ev, in->ifh);
        break;
    case PMDB_EV_BUNDLE_PUNT:
        s.handle = punt_event_handle(ev, in->bundle_ifh);
        s.bundle = true;
        break;
    case PMDB_EV_SUB_PUNT:
        s.handle = punt_event_handle(ev, in->sub_ifh);
        s.drop = !has_flag(ev, PMDB_VF_PUNT) && has_flag(ev, PMDB_VF_INTF) && !sub_valid(ev);
        break;
    default:
        break;
    }
    return s;
}

/* Step 2: the handle and the path flags of an accepted type. */
selection select_path(pmdb_event_t *ev) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    selection s = {};
    switch (ev->event_type) {
    case PMDB_EV_MEMBER_JOIN:
    case PMDB_EV_MEMBER_MODIFY:
    case PMDB_EV_MEMBER_LEAVE:
        s.handle = in->ifh;
        s.add = s.member_path = true;
        s.member_modify = ev->event_type == PMDB_EV_MEMBER_MODIFY;
        return s;
    case PMDB_EV_BUNDLE_REKEY:
        s.handle = has_flag(ev, PMDB_VF_INTF) ? in->bundle_ifh : 0;
        s.add = s.bundle = s.rekey = true;
        return s;
    case PMDB_EV_BUNDLE_MAC:
        s.handle = in->bundle_ifh;
        s.add = s.mac = true;
        return s;
    case PMDB_EV_INTF_REMOVE:
    case PMDB_EV_INTF_REMOVE_NO_IFH:
        s.handle = in->ifh;
        s.bundle = in->bundle_ifh != 0;
        return s;
    case PMDB_EV_BUNDLE_REMOVE:
        s.handle = in->bundle_ifh;
        s.bundle = true;
        return s;
    case PMDB_EV_MAIN_REMOVE:
        s.handle = in->ifh;
        return s;
    case PMDB_EV_SUB_REMOVE:
        s.handle = in->sub_ifh;
        s.drop = !sub_valid(ev);
        return s;
    default:
        return select_add(ev);
    }
}

/* The main punt key of an interface block: the egress LIF's low half with
 * bit 30 when `egress_key`, else the ingress LIF. */
u32 main_punt_key(u32 egress_key, const pmdb_intf_info_t *in) {
    return dpa_pmdb_punt_key(egress_key, in->egress_lif, in->ingress_lif, 0, PMDB_NO_SLOT);
}

/* A zeroed array of n u32 (null when it cannot be had). */
u32 *zeroed_words(u32 n) { return static_cast<u32 *>(calloc(n, sizeof(u32))); }

/* Types 8 and 20 with a punt image of a node-local interface: each of up
 * to three PUNT entries of the interface takes the new punt words, under
 * the key that the event's egress keying gives it. */
void refresh_punt_words(pmdb_event_t *ev, u32 handle) {
    u32 *keys = zeroed_words(kRefreshKeys);
    if (keys == nullptr) return;
    (void)dpa_pmdb_get_port_punt_entries(handle, keys, kRefreshKeys);
    const u32 e = pmdb_fields::egress_key(&ev->intf_info);
    for (u32 i = 0; i < kRefreshKeys; i++) {
        if (keys[i] == 0) continue;
        u8 buf[kLookupBuf] = {};
        const cerrno rc = dpa_pmdb_get_punt_entry_by_key(keys[i], buf);
        if (rc != PMDB_OK) {
            PMDB_TRACE(tp::refresh_punt_unreadable, keys[i], rc);
            continue;
        }
        pmdb_intf_info_t stored;
        memcpy(&stored, buf, sizeof stored);
        const u32 key = main_punt_key(e, &stored);
        i32 slot = 0;
        const cerrno wrc = dpa_pmdb_add_punt_entry(key, ev, &slot, nullptr);
        if (wrc != PMDB_OK) PMDB_TRACE(tp::refresh_punt_write_failed, key, wrc);
    }
    free(keys);
}

bool wants_punt_refresh(const pmdb_event_t *ev) {
    const u8 t = ev->event_type;
    return (t == PMDB_EV_INTF_PUNT || t == PMDB_EV_INTF_PUNT_NO_IFH) &&
           has_flag(ev, PMDB_VF_PUNT) && ev->punt_info.intf_type == PMDB_INTF_TYPE_NODE_LOCAL;
}

/* Step 3: what the event is and where it goes.  Returns the node the
 * paths use: 0 for a punt image. */
u32 trace_event(const pmdb_event_t *ev, const selection *s, u32 node) {
    PMDB_TRACE(tp::event_accepted, ev->event_type, s->handle, ev->event_id);
    PMDB_TRACE(tp::event_paths, s->add ? 1u : 0u, s->bundle ? 1u : 0u, s->member_path ? 1u : 0u,
               s->member_modify ? 1u : 0u);
    if (has_flag(ev, PMDB_VF_PUNT)) {
        const u32 *w = ev->punt_info.punt_data;
        PMDB_TRACE(tp::event_punt_data, w[0], w[1], w[2], w[3], w[4]);
        return 0;
    }
    const pmdb_intf_info_t *in = &ev->intf_info;
    PMDB_TRACE(tp::event_intf_data, in->intf_data_64, in->node_id, in->ifh, in->sub_ifh,
               in->bundle_ifh, in->ingress_lif, in->egress_lif);
    return node;
}

u8 member_count(u32 bundle_ifh) {
    u8 count = 0;
    (void)dpa_pmdb_get_num_members(&count, bundle_ifh);
    return count;
}

/* ---- remove path -------------------------------------------------------- */

/* Type 15 of a bundle sub-interface: this node lets go of it, and the
 * sub-interface's entries go only when no node holds it any more. */
void remove_from_node(const pmdb_event_t *ev, u32 node) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    const u8 count = member_count(in->bundle_ifh);
    PMDB_TRACE(tp::nodelist_removal_begin, in->sub_ifh, in->bundle_ifh, count);
    if (count == 0) return;
    u16 mask = 0;
    if (dpa_pmdb_update_ifh_entry_nodelist(in->sub_ifh, 0, ev->event_id, node & 0xFFFFu, &mask) !=
        PMDB_OK)
        return;
    if (mask != 0) {
        PMDB_TRACE(tp::nodelist_still_held, in->sub_ifh, mask);
        return;
    }
    dpa_pmdb_remove_intf_oam_entry(in->sub_ifh);
    (void)dpa_pmdb_remove_punt_entry(main_punt_key(pmdb_fields::egress_key(in), in));
    dpa_pmdb_ifh_summary_t gone = {};
    (void)dpa_pmdb_remove_ifh_entry(in->sub_ifh, &gone, ev->event_id);
}

void remove_path(const pmdb_event_t *ev, const selection *s, u32 node) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    if (ev->event_type == PMDB_EV_SUB_REMOVE && in->sub_ifh != 0 && in->bundle_ifh != 0) {
        remove_from_node(ev, node);
        return;
    }
    /* An interface whose bundle still has members, or such a bundle, stays. */
    if (member_count(in->bundle_ifh) != 0) return;
    (void)dpa_pmdb_remove_all_entries(s->handle, ev->event_type, in->ingress_lif,
                                      s->bundle ? 1u : 0u, ev->event_id);
}

/* ---- bundle paths --------------------------------------------------------- */

/* Type 22: the bundle's sub-interfaces take the new MAC (one walk per
 * member place), then the bundle's own entry. */
void change_bundle_mac(pmdb_event_t *ev, u8 count) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    const u8 *m = in->mac_addr;
    PMDB_TRACE(tp::bundle_mac_begin, in->bundle_ifh, m[0], m[1], m[2], m[3], m[4], m[5]);
    u32 *members = zeroed_words(count);
    if (members == nullptr) return;
    (void)dpa_pmdb_get_bundle_member_ifh_entries(in->bundle_ifh, members, count,
                                                 PMDB_READER_ALL_NODES);
    for (u32 i = 0; i < count; i++) {
        PMDB_TRACE(tp::bundle_mac_member, in->bundle_ifh, members[i]);
        /* The listing walk first, then the one that rewrites. */
        dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_BUNDLE_MAC, members[i], in->bundle_ifh, 1, m,
                                      ev->event_id);
        dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_BUNDLE_MAC, members[i], in->bundle_ifh, 0, m,
                                      ev->event_id);
    }
    free(members);
    i32 slot = 0;
    (void)dpa_pmdb_add_ifh_entry(in->bundle_ifh, ev, &slot, nullptr, nullptr, nullptr, 0);
}

/* Type 10, first half: the bundle-member keys written with the old egress
 * keying (bit 31 set, nonzero port field, bit 30 not the event's) go. */
void remove_old_member_keys(const pmdb_event_t *ev, u8 count) {
    const u32 bundle_ifh = ev->intf_info.bundle_ifh;
    const u32 capacity = kMemberKeysPerMember * count;
    u32 *keys = zeroed_words(capacity);
    if (keys == nullptr) return;
    (void)dpa_pmdb_get_bundle_punt_entries(bundle_ifh, keys, capacity);
    const u32 e = pmdb_fields::egress_key(&ev->intf_info);
    for (u32 i = 0; i < capacity; i++) {
        const u32 key = keys[i];
        if ((key & kPortFieldMask) == 0 || !pmdb_fields::is_member_punt_key(key)) continue;
        if (((key & PMDB_PUNT_KEY_EGRESS) != 0 ? 1u : 0u) == e) continue;
        const cerrno rc = dpa_pmdb_remove_punt_entry(key);
        PMDB_TRACE(tp::old_member_key_removed, bundle_ifh, key, rc, rc);
    }
    free(keys);
}

/* The re-keyed bundle-member key of one member: the event's LIFs and
 * egress keying; the member's system port when the event has no LIF. */
u32 rekeyed_member_key(const pmdb_intf_info_t *ev_in, const pmdb_intf_info_t *member) {
    const u32 e = pmdb_fields::egress_key(ev_in);
    const u32 low = e != 0 ? (ev_in->egress_lif & kPortFieldMask) : ev_in->ingress_lif;
    u32 ext = 0;
    if ((ev_in->egress_lif & kPortFieldMask) == 0 && ev_in->ingress_lif == 0) {
        dpa_pmdb_ifh_summary_t s = {};
        pmdb_fields::summarise_member_port(member->member_port, member->member_port_shift, &s);
        ext = pmdb_fields::bundle_member_punt_key(&s) & ~PMDB_PUNT_KEY_MEMBER;
    }
    return PMDB_PUNT_KEY_MEMBER | (e != 0 ? PMDB_PUNT_KEY_EGRESS : 0) | ext | low;
}

/* Type 10, second half: one key per member of the event's node, written
 * from the member's stored interface block and the bundle's punt block. */
void write_member_key(const pmdb_event_t *ev, u32 member) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    u8 mbuf[kLookupBuf] = {};
    if (dpa_pmdb_get_ifh_entry_by_key(member, mbuf, 0, 0) != PMDB_OK) {
        PMDB_TRACE(tp::member_entry_unreadable, member);
        return;
    }
    pmdb_event_t rec;
    memset(&rec, 0, sizeof rec);
    rec.event_type = ev->event_type;
    rec.valid_flags = PMDB_VF_INTF;
    memcpy(&rec.intf_info, mbuf, sizeof rec.intf_info);
    const u32 key = rekeyed_member_key(in, &rec.intf_info);
    u8 bbuf[kLookupBuf] = {};
    if (dpa_pmdb_get_ifh_entry_by_key(in->bundle_ifh, bbuf, 0, 0) != PMDB_OK) {
        PMDB_TRACE(tp::bundle_entry_unreadable, in->bundle_ifh);
        return;
    }
    pmdb_punt_info_t bundle_punt;
    memcpy(&bundle_punt, bbuf + sizeof(pmdb_intf_info_t), sizeof bundle_punt);
    i32 slot = 0;
    (void)dpa_pmdb_add_punt_entry(key, &rec, &slot, &bundle_punt);
    PMDB_TRACE(tp::member_key_written, member, in->bundle_ifh, in->egress_lif, in->ingress_lif,
               in->bundle_ifh, in->node_id);
}

void rekey_bundle(const pmdb_event_t *ev, u8 count) {
    remove_old_member_keys(ev, count);
    u32 *members = zeroed_words(count);
    if (members == nullptr) return;
    (void)dpa_pmdb_get_bundle_member_ifh_entries(ev->intf_info.bundle_ifh, members, count,
                                                 ev->intf_info.node_id);
    for (u32 i = 0; i < count; i++)
        if (members[i] != 0) write_member_key(ev, members[i]);
    free(members);
}

void bundle_path(pmdb_event_t *ev, const selection *s) {
    const pmdb_intf_info_t *in = &ev->intf_info;
    const u8 count = member_count(in->bundle_ifh);
    PMDB_TRACE(tp::bundle_path_begin, in->bundle_ifh, count, pmdb_fields::egress_key(in));
    if (count == 0) return;
    if (s->mac)
        change_bundle_mac(ev, count);
    else
        rekey_bundle(ev, count);
}

/* Step 5: the first path whose flag is set. */
void run_path(pmdb_event_t *ev, const selection *s, u32 node) {
    if (s->member_path) {
        dpa_pmdb_ifh_summary_t summary = {};
        dpa_pmdb_bundle_member_oper(ev, s->handle, &summary);
    } else if (s->rekey || s->mac) {
        bundle_path(ev, s);
    } else if (s->add) {
        const i32 low = static_cast<i32>(node & 0xFFFFu);
        const cerrno rc = dpa_pmdb_add_all_entries(s->handle, ev, s->bundle ? 1u : 0u, low);
        if (rc != PMDB_OK) PMDB_TRACE(tp::add_path_failed, s->handle, ev->event_id, rc);
    } else {
        remove_path(ev, s, node);
    }
}

}  // namespace

extern "C" {

void dpa_pmdb_oper(pmdb_event_t *event, u32 node) {
    if (event == nullptr) {
        PMDB_TRACE(tp::event_null);
        return;
    }
    if (type_refused(event->event_type)) {
        PMDB_TRACE(tp::invalid_event_type, event->event_type, 0);
        return;
    }
    const selection s = select_path(event);
    if (s.drop) return;
    if (wants_punt_refresh(event)) refresh_punt_words(event, s.handle);
    node = trace_event(event, &s, node);
    run_path(event, &s, node);
}

}  // extern "C"
