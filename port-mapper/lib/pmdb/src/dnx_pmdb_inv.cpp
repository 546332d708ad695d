/*
 * dnx_pmdb_inv.cpp - node inventory and scale information.
 *
 * Two pieces of node knowledge:
 *
 *  1. The port inventory list: process-local, one heap entry per node that
 *     hosts a port this process has added, newest at the head.  It supplies
 *     replacement nodes for the high-scale role and the BVI refresh, and a
 *     node leaving it triggers that refresh.
 *
 *  2. The node values of the IFH region's globals block, read in place by
 *     every process on the card (offsets from the start of the region):
 *
 *       0x280008  u32  hs_node_mask   bit (node_index & 31) per high-scale node
 *       0x28000C  u32  hs_node_id     current high-scale node
 *       0x280010  u32  inv_node_id    recorded inventory node, 0 = none
 *       0x280014  u8[6] inv_node_mac  its MAC
 *
 * Concurrency contract:
 *  - The list and its head have no lock: the library handles one event at a
 *    time per process, and callers that add or remove from several threads
 *    serialise themselves.  An unlinked entry is passed to the BVI refresh
 *    and freed only after it returns.
 *  - The globals are plain words in shared memory written without an entry
 *    lock.  Inside the library they are written only from the IFH add path,
 *    which holds its IFH open (and the entry's slot lock) while it calls in
 *    here; writers in different processes are not coordinated, and readers
 *    may see the mask and the node id of different updates.
 *  - With a caller's handle these operations neither open nor release: the
 *    caller's open covers them.  Without one they take and drop write access
 *    themselves, the release's failure replacing their own result.
 */
#include <cstdlib>
#include <cstring>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"
#include "platform_id.h"

namespace {

/* Head of the inventory list; null while empty. */
pm_port_inv_entry_t *pm_port_inv_list = nullptr;

using pmdb_fields::kMacLen;

pm_port_inv_entry_t *inv_find(u32 node_id) {
    pm_port_inv_entry_t *e = pm_port_inv_list;
    while (e != nullptr && e->node_id != node_id) e = e->next;
    return e;
}

void inv_fill_mac(pm_port_inv_entry_t *e, u8 npu_index) {
    /* The platform's result is not examined: a node without a known MAC
     * keeps whatever the entry held (zeros for a new entry). */
    (void)platform_get_amba_mac(e->node_id, npu_index, e->mac, 0);
}

/* Unlinks the entry of node_id and returns it, or null when not listed. */
pm_port_inv_entry_t *inv_unlink(u32 node_id) {
    pm_port_inv_entry_t **link = &pm_port_inv_list;
    while (*link != nullptr && (*link)->node_id != node_id) link = &(*link)->next;
    pm_port_inv_entry_t *e = *link;
    if (e == nullptr) return nullptr;
    *link = e->next;
    e->next = nullptr;
    return e;
}

/* Bit of a node in hs_node_mask: node indices wrap modulo 32. */
u32 hs_bit(i32 node_index) { return 1u << (static_cast<u32>(node_index) & 31u); }

/* Write access to the IFH region's globals for one operation: the caller's
 * handle when given (its open covers us), else an open of our own; either
 * way the operation ends with pmdb_cycle_release. */
cerrno glbls_open(pmdb_cycle_t *cyc, dnx_db_hdl_t *given, pmdb_cycle_point_e1_t open_failed) {
    const cerrno rc = pmdb_cycle_open_or_use(cyc, PMDB_TYPE_IFH, given);
    if (rc != PMDB_OK) PMDB_TRACE(open_failed, rc);
    return rc;
}

dnx_pmdb_glbls_t *glbls_of(const pmdb_cycle_t *cyc) { return &cyc->hdl->shrd_ctx->glbls; }

/* Removal of the node that holds the high-scale role: the first high-scale
 * node still listed takes it over.  With none left the role stays with the
 * removed node's id (the mask already lacks its bit) and 2 is returned. */
cerrno hs_hand_over(dnx_pmdb_glbls_t *g) {
    u32 next = 0;
    if (pm_inventory_get_first_high_scale_nodeid(&next) != PMDB_OK) {
        PMDB_TRACE(tp::scale_no_high_scale_left);
        return PMDB_ENOTFOUND;
    }
    g->hs_node_id = next;
    PMDB_TRACE(tp::scale_role_handed_over, g->hs_node_id, g->hs_node_mask);
    return PMDB_OK;
}

cerrno hs_update(dnx_pmdb_glbls_t *g, u32 node_id, i32 node_index, int add) {
    if (add != 0) {
        /* The last high-scale node added is the current one. */
        g->hs_node_id = node_id;
        g->hs_node_mask |= hs_bit(node_index);
        PMDB_TRACE(tp::scale_high_scale_added, g->hs_node_id, g->hs_node_mask);
        return PMDB_OK;
    }
    g->hs_node_mask &= ~hs_bit(node_index);
    if (g->hs_node_id != node_id) {
        PMDB_TRACE(tp::scale_not_current_node);
        return PMDB_OK;
    }
    return hs_hand_over(g);
}

/* The pair of traces of a recorded inventory node: the address lets a
 * debugger find the published MAC, the bytes show it. */
struct inv_node_points {
    pmdb_tpt::point<pmdb_tpt::V, 2, pmdb_tpt::N> addr;
    pmdb_tpt::point<pmdb_tpt::V, 7, pmdb_tpt::N> bytes;
};

/* Records the inventory node, traced with the points of its path (an added
 * node, or the remove form's replacement). */
void inv_node_record(dnx_pmdb_glbls_t *g, u32 node_id, const u8 *mac, inv_node_points points) {
    g->inv_node_id = node_id;
    memcpy(g->inv_node_mac, mac, kMacLen);
    const u8 *m = g->inv_node_mac;
    PMDB_TRACE(points.addr, g->inv_node_id, m);
    PMDB_TRACE(points.bytes, g->inv_node_id, m[0], m[1], m[2], m[3], m[4], m[5]);
}

/* Remove form: acts only while no node is recorded.  It clears the MAC;
 * a named node (nonzero id, necessarily not the recorded 0) is simply
 * acknowledged; node 0 asks for the first listed node to be recorded.
 * A recorded node is never replaced here: readers on the card take the
 * recorded node as fixed for the life of the region (the add form records
 * only the first node ever added), and unlike the high-scale role nothing
 * in the library hands this one over, so the remove form can only fill a
 * gap, never move the value under its readers. */
cerrno inv_node_remove(dnx_pmdb_glbls_t *g, u32 node_id) {
    if (g->inv_node_id != 0) return PMDB_OK;
    memset(g->inv_node_mac, 0, kMacLen);
    if (node_id != g->inv_node_id) {
        PMDB_TRACE(tp::inv_remove_other_node);
        return PMDB_OK;
    }
    u32 id = 0;
    u8 mac[kMacLen] = {};
    cerrno rc = pm_inventory_get_first_inv_nodeid(&id, mac);
    if (rc != PMDB_OK) {
        PMDB_TRACE(tp::inv_remove_none_left);
        return rc;
    }
    inv_node_record(g, id, mac, {tp::inv_remove_recorded, tp::inv_remove_recorded_mac});
    return PMDB_OK;
}

}  // namespace

extern "C" {

PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_get(void) { return pm_port_inv_list; }

i32 pm_port_inv_take_head_node(pmdb_intf_info_t *in) {
    const pm_port_inv_entry_t *head = pm_port_inv_list;
    if (head == nullptr) return 0;
    in->node_id = head->node_id;
    memcpy(in->node_mac, head->mac, kMacLen);
    return 1;
}

PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_add(u32 node_id, i32 node_index, u8 npu_index,
                                                       u8 high_scale) {
    pm_port_inv_entry_t *e = inv_find(node_id);
    if (e != nullptr) {
        /* A known node keeps its index and scale flag; only its MAC may
         * have become known since. */
        inv_fill_mac(e, npu_index);
        return e;
    }
    e = static_cast<pm_port_inv_entry_t *>(calloc(1, sizeof(*e)));
    if (e == nullptr) return nullptr;
    e->node_id = node_id;
    e->node_index = node_index;
    e->high_scale = high_scale;
    inv_fill_mac(e, npu_index);
    e->next = pm_port_inv_list;
    if (pm_port_inv_list == nullptr)
        PMDB_TRACE(tp::inventory_first_node_added, node_id, node_index, high_scale);
    else
        PMDB_TRACE(tp::inventory_node_added, node_id, node_index, high_scale);
    pm_port_inv_list = e;
    return e;
}

PMDB_EXPORT cerrno pm_port_inv_entry_remove(u32 node_id) {
    pm_port_inv_entry_t *e = inv_unlink(node_id);
    if (e == nullptr) return PMDB_OK;
    /* The entry is out of the list, so the refresh sees the new head as the
     * node to move the BVI entries to. */
    dpa_bvi_upd_node_entries(e);
    free(e);
    return PMDB_OK;
}

PMDB_EXPORT cerrno pm_inventory_get_first_high_scale_nodeid(u32 *node_id) {
    if (node_id == nullptr) return PMDB_EINVAL;
    const pm_port_inv_entry_t *e = pm_port_inv_list;
    while (e != nullptr && e->high_scale == 0) e = e->next;
    if (e == nullptr) return PMDB_ENOTFOUND;
    *node_id = e->node_id;
    PMDB_TRACE(tp::first_high_scale_node, e->node_id);
    return PMDB_OK;
}

PMDB_EXPORT cerrno pm_inventory_get_first_inv_nodeid(u32 *node_id, u8 *mac) {
    if (node_id == nullptr || mac == nullptr) return PMDB_EINVAL;
    const pm_port_inv_entry_t *e = pm_port_inv_list;
    while (e != nullptr && e->node_id == 0) e = e->next;
    if (e == nullptr) return PMDB_ENOTFOUND;
    *node_id = e->node_id;
    memcpy(mac, e->mac, kMacLen);
    const u8 *m = e->mac;
    PMDB_TRACE(tp::first_inventory_node, e->node_id, m[0], m[1], m[2], m[3], m[4], m[5]);
    return PMDB_OK;
}

PMDB_EXPORT cerrno dpa_pmdb_update_scale_info(u32 node_id, i32 node_index, u8 high_scale, int add,
                                              dnx_db_hdl_t *hdl) {
    if (high_scale == 0 && add != 0) {
        PMDB_TRACE(tp::scale_not_high_scale);
        return PMDB_OK;
    }
    pmdb_cycle_t cyc;
    cerrno rc = glbls_open(&cyc, hdl, tp::scale_open_failed);
    if (rc != PMDB_OK) return rc;
    /* A removal clears the node's bit whatever its scale flag says. */
    rc = hs_update(glbls_of(&cyc), node_id, node_index, add);
    return pmdb_cycle_release(&cyc, rc);
}

PMDB_EXPORT cerrno dpa_pmdb_update_glbls_inv_node_info(u32 node_id, const u8 *mac, int add,
                                                       dnx_db_hdl_t *hdl) {
    /* The remove form never reads the MAC; the add form may record it. */
    if (add != 0 && mac == nullptr) return PMDB_EINVAL;
    pmdb_cycle_t cyc;
    cerrno rc = glbls_open(&cyc, hdl, tp::inv_node_open_failed);
    if (rc != PMDB_OK) return rc;
    dnx_pmdb_glbls_t *g = glbls_of(&cyc);
    if (add == 0)
        rc = inv_node_remove(g, node_id);
    else if (g->inv_node_id == 0)
        /* The first node ever added stays recorded for the life of the region. */
        inv_node_record(g, node_id, mac, {tp::inv_node_recorded, tp::inv_node_recorded_mac});
    return pmdb_cycle_release(&cyc, rc);
}

}  // extern "C"
