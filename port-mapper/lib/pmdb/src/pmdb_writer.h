/*
 * pmdb_writer.h - internal operations of the IFH entry writer, the port
 * inventory and the BVI refresh that other parts of the library call but
 * that are not exported from libpmdb.so.
 *
 * Owners:
 *   dnx_pmdb_ifh_add.cpp  dpa_pmdb_add_ifh_entry, dpa_pmdb_update_sub_intf_count
 *   dnx_pmdb_inv.cpp      the process-local inventory list (exported in pmdb.h)
 *                         and the node values of the IFH region's globals block
 *   dnx_pmdb_bvi.cpp      the AIB update callback pointer, the BVI refresh
 *
 * Threading: the inventory list and the callback pointer are process-local
 * and unlocked; a process hands events to the library one at a time and sets
 * the callback before the first event.  Entry changes follow the library's
 * entry change cycle (open with write intent, slot lock, release).
 */
#ifndef PMDB_WRITER_H
#define PMDB_WRITER_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates or refreshes the IFH entry `ifh` from `event`.
 *   slot      receives the entry's table slot
 *   summary   receives the entry's summary (caller zero-fills; untouched and
 *             may be null for MAC-only events, event type 22)
 *   punt_out  receives the entry's punt block when it holds one
 *   prev      optional; for an existing entry receives its previous keys
 *   node      node number whose bit is set in node_mask (0 = none)
 * Returns 0, PMDB_EINVAL for key 0, or the status of the open, table store,
 * entry lock or release. */
cerrno dpa_pmdb_add_ifh_entry(u32 ifh, const pmdb_event_t *event, i32 *slot,
                              dpa_pmdb_ifh_summary_t *summary, pmdb_punt_info_t *punt_out,
                              dpa_pmdb_ifh_summary_t *prev, u16 node);

/* Adds one to (increment != 0) or takes one from (never below 0) the
 * sub-interface count of the existing entry `ifh`. */
cerrno dpa_pmdb_update_sub_intf_count(u32 ifh, i32 increment, u32 event_id);

/* Moves every BVI entry that names the node of `leaving` (already unlinked
 * from the inventory list) to the node now at the list's head, then tells the
 * AIB update callback.  Only leaving->node_id is read. */
void dpa_bvi_upd_node_entries(const pm_port_inv_entry_t *leaving);

/* The registered AIB update callback, or null. */
dpa_pmdb_aib_update_cb_t dpa_pmdb_aib_update_cb_get(void);

/* Highest node number that has a bit in an IFH entry's 16-bit node_mask. */
#define PMDB_NODE_MASK_MAX_NODE 15u

#ifdef __cplusplus
}
#endif

#endif
