/*
 * pmdb_ops.h - the library's single-entry operations that libpmdb.so does
 * not export (the exported ones are declared in pmdb.h), grouped by table
 * and role.
 *
 * How src/ is layered; each layer includes only the layers below it:
 *
 *   1. frame and entry change cycle: dnx_pmdb_init (configuration, handles,
 *      regions, open and write protection; pmdb_internal.h), dnx_pmdb_lock
 *      (robust entry locks; pmdb_lock_view.h) and dnx_pmdb_cycle
 *      (pmdb_cycle.h: open with write intent, find or add, slot lock,
 *      change, unlock, release).  Trace writing: pmdb_trace.h.
 *   2. field rules of the shared records: include/pmdb_fields.h (flags,
 *      punt-word merge, summaries, punt and member key rules, key hash,
 *      table names, MAC length).  Header-only and depending on nothing but
 *      pmdb.h, so the reader library, the tools and the examples use the
 *      same rules; the frame takes the key hash from it.
 *   3. single-entry operations, one file per table or role, declared here
 *      (or in pmdb.h when exported):
 *        dnx_pmdb_ifh.cpp         IFH entry: add or refresh, sub-interface
 *                                 count, removal, summary, node list
 *        dnx_pmdb_punt.cpp        PUNT entry: add or refresh, removal,
 *                                 membership fields, the punt key rules'
 *                                 C names
 *        dnx_pmdb_oam.cpp         OAM entry: add, removal, OAM event entry
 *        dnx_pmdb_member.cpp      member and bundle updates of membership
 *        dnx_pmdb_oor.cpp         out-of-resource state and callback
 *        dnx_pmdb_counts.cpp,     bundle counters: recount and repair, and
 *        dnx_pmdb_member_ops.cpp  the member operation log that lets the
 *                                 next writer finish a dead one's change
 *                                 (pmdb_member_ops.h)
 *        dnx_pmdb_inv.cpp         node inventory and scale values
 *        dnx_pmdb_bvi.cpp         BVI refresh and the AIB update callback
 *   4. whole-interface paths: call only layer 3, never the cycle directly.
 *        dnx_pmdb_add_all.cpp     every entry of an interface (pmdb.h)
 *        dnx_pmdb_remove_all.cpp  removal of them all (pmdb.h)
 *        dnx_pmdb_bundle_subs.cpp a bundle's sub-interface walk, an
 *                                 interface's own OAM entry removal
 *        dnx_pmdb_member_path.cpp the bundle member event path
 *   5. event dispatcher (dpa_pmdb_oper, dnx_pmdb_oper.cpp): sends each
 *      event to a layer-4 path or a layer-3 operation; like layer 4, it
 *      never runs the cycle itself.
 *
 * Every operation that changes an entry runs one entry change cycle: write
 * access to the table store is held from its open to its release and the
 * entry is changed only under its slot lock.  Where two IFH slot locks are
 * held at once, the member's is taken before its bundle's; nothing takes
 * them the other way round.  The inventory list and the two callback
 * pointers are process-local and unlocked: a process hands events to the
 * library one at a time and sets the callbacks before the first event.
 */
#ifndef PMDB_SRC_OPS_H
#define PMDB_SRC_OPS_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- adding and refreshing entries -------------------------------------- */

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

/* Creates or refreshes the PUNT entry `key` from `event` (its interface
 * block with valid_flags bit 0, its punt words with bit 1); `punt_info`, when
 * given with a nonzero first punt word, replaces the stored punt block
 * (interface events only).  *slot receives the entry's slot.
 * Returns 0, PMDB_EINVAL for key 0, 0 without doing anything when `event`
 * is null, or the status of the open, table store, lock or release. */
cerrno dpa_pmdb_add_punt_entry(u32 key, const pmdb_event_t *event, i32 *slot,
                               const pmdb_punt_info_t *punt_info);

/* (OAM entries: dpa_pmdb_add_oam_entry in pmdb.h.) */

/* Highest node number that has a bit in an IFH entry's 16-bit node_mask. */
#define PMDB_NODE_MASK_MAX_NODE 15u

/* ---- removing entries and reading them back ----------------------------- */

/* Removes the IFH entry `ifh` after telling the out-of-resource callback
 * (ifh, slot, 0, 1) and summarising the entry into *summary; waits while
 * any process holds the slot lock.  When the entry was an active bundle
 * member, the bundle's member count is taken down (stamped with event_id)
 * and that update's status is returned. */
cerrno dpa_pmdb_remove_ifh_entry(u32 ifh, dpa_pmdb_ifh_summary_t *summary, u32 event_id);

/* Removes the PUNT entry `key`, waiting while any process holds its slot
 * lock.  Returns 0, PMDB_EINVAL for key 0, or the status of the open,
 * lookup, removal or release. */
cerrno dpa_pmdb_remove_punt_entry(u32 key);

/* Summarises the IFH entry `ifh` into *summary without changing it.
 * Returns 0, PMDB_EINVAL for 0 (no trace), or the open, lookup or release
 * status. */
cerrno dpa_pmdb_get_ifh_summary(u32 ifh, dpa_pmdb_ifh_summary_t *summary);

/* ---- punt key rules (pmdb_fields.h), by their C names ------------------- */

/* The punt key of an interface (pmdb_fields::punt_key). */
u32 dpa_pmdb_punt_key(u32 egress_key, u32 egress_lif, u16 ingress_lif, u16 sys_port, u8 slot_id);

/* The bundle-member punt key of a member summary
 * (pmdb_fields::bundle_member_punt_key). */
u32 dpa_pmdb_bundle_member_punt_key(const dpa_pmdb_ifh_summary_t *summary);

/* Applies a member event (5 join, 6 modify: the event's bundle_ifh,
 * member_port and member_port_shift bits 0..1; 7 leave: those cleared and
 * summary->punt_data put back as the punt words) to the PUNT entry *key,
 * stamping it; other event types change nothing.  Traces: error 239 (null
 * key or key 0, result 22), 240 (open, with the status), 241 (lookup:
 * event ifh, key, status), 243 (lock: event bundle_ifh, summary ingress_lif,
 * event_type, status); database 242 when handled.  A null event or summary:
 * 22, nothing done.  Waits for the entry's lock without bound. */
cerrno dpa_pmdb_update_punt_entry_member(pmdb_event_t *event, const u32 *key,
                                         const dpa_pmdb_ifh_summary_t *summary);

/* ---- counts kept in IFH entries ----------------------------------------- */

/* Adds one to (increment != 0) or takes one from (never below 0) the
 * sub-interface count of the existing entry `ifh`. */
cerrno dpa_pmdb_update_sub_intf_count(u32 ifh, i32 increment, u32 event_id);

/* (Node list, member and bundle updates: pmdb.h.) */

/* ---- out-of-resource state ---------------------------------------------- */

/* Out-of-resource levels of an entry's oor_state. */
#define PMDB_OOR_NONE 0u
#define PMDB_OOR_LEVEL1 1u
#define PMDB_OOR_LEVEL2 2u

/* Moves a member's out-of-resource level into (join != 0) or out of the
 * counters of the bundle its member_info names, derives the bundle's state
 * and, when that changed, tells the out-of-resource callback after the
 * bundle's lock is released.  Does nothing without a registered callback.
 * `hdl` is the caller's IFH handle, open with write intent; the caller
 * holds the member entry's slot lock (member before bundle). */
void dpa_pmdb_update_bundle_oor_members(dnx_db_hdl_t *hdl, pmdb_intf_info_t *member_info,
                                        i32 join);

/* A bundle's state derived from its counters: level 2 if any member is at
 * level 2, else level 1 if any is at level 1, else none. */
u32 dpa_pmdb_oor_derived_state(const pmdb_intf_info_t *bundle_info);

/* Sets a bundle's two counters (a recount from its members); *before and
 * *after receive its derived state before and after, and a move to a level
 * is recorded in its oor_state as the member accounting records it.  The
 * caller holds the bundle's slot lock. */
void dpa_pmdb_oor_set_counters(pmdb_intf_info_t *bundle_info, u16 level_1, u16 level_2,
                               u32 *before, u32 *after);

/* ---- inventory and BVI refresh ------------------------------------------ */

/* Makes the node at the head of the inventory list (the newest) the host of
 * an interface block: its node_id and node_mac.  Returns 1, or 0 with nothing
 * changed while the list is empty.  The caller holds the entry's lock. */
i32 pm_port_inv_take_head_node(pmdb_intf_info_t *in);

/* Moves every BVI entry that names the node of `leaving` (already unlinked
 * from the inventory list) to the node now at the list's head, then tells the
 * AIB update callback.  Only leaving->node_id is read. */
void dpa_bvi_upd_node_entries(const pm_port_inv_entry_t *leaving);

/* ---- the process's callbacks -------------------------------------------- */

/* The registered out-of-resource callback, or null. */
dpa_pmdb_oor_cb_t dpa_pmdb_oor_cb_get(void);

/* The registered AIB update callback, or null. */
dpa_pmdb_aib_update_cb_t dpa_pmdb_aib_update_cb_get(void);

/* ---- whole-interface paths (layer 4) ------------------------------------ */
/* (Adding and removing all entries of an interface: pmdb.h.) */

/* Walks the sub-interfaces of `bundle_ifh` that the reader library lists,
 * at most as many as the sysctl key PMDB_SYSCTL_MAX_BUNDLE_L3_VLAN says
 * (its low 32 bits; when 0, halvo_intf_get_max_subintf_vlob()), skipping
 * zero handles.  Event type 7 removes each one's IFH entry and main PUNT
 * entry (event traces 252, 253); type 22 writes `mac` (6 bytes) into each
 * one's IFH entry; other types, and any type with `member` nonzero, change
 * nothing.  `ifh` is traced only.  Event traces 254 before and 255 after the
 * walk (not written when the list is empty or its array cannot be
 * allocated). */
void dpa_pmdb_bundle_sub_intf_oper(u8 event_type, u32 ifh, u32 bundle_ifh, i32 member,
                                   const u8 *mac, u32 event_id);

/* Removes the interface's own OAM entry, (oam_id << 16) | 28, with the
 * oam_id of its IFH summary (first nonzero OAM slot when 0).  Traces: error
 * 270 (ifh 0), 271 (no summary), 273 (removal failed); database 272 before
 * the removal, 274 after it. */
void dpa_pmdb_remove_intf_oam_entry(u32 ifh);

/* Adds (member_modify nonzero, or event type 6) or removes (event type 7,
 * only when is_member) the bundle-member PUNT entry *key; the add takes
 * its punt words from punt_info when the first is nonzero.  `handle` is
 * traced only.  Event traces 244 first, then 246 (removed) or 247
 * (written); error traces 245 (a leave of an inactive member) and 248
 * (neither a modify nor type 6) when nothing is done. */
void dpa_pmdb_bundle_member_punt_oper(pmdb_event_t *event, u32 handle, const u32 *key,
                                      const pmdb_punt_info_t *punt_info, i32 member_modify,
                                      u32 is_member);

/* The bundle member event path for event types 5, 6 and 7 of member
 * `handle` (event->intf_info.ifh): zeroes *summary, updates the member's
 * and the bundle's IFH entries (stopping when that fails), marks the
 * member's ingress and egress PUNT entries, and for 6 writes the
 * bundle-member and port PUNT entries, for 7 removes the bundle-member
 * entry of an active member, unmarks the port entry and, when the bundle
 * has no member left, removes the bundle's entries
 * (dpa_pmdb_remove_all_entries with the bundle flag).  An event without a
 * bundle_ifh changes nothing after event trace 282.  *summary is left as
 * the member update filled it. */
void dpa_pmdb_bundle_member_oper(pmdb_event_t *event, u32 handle,
                                 dpa_pmdb_ifh_summary_t *summary);

#ifdef __cplusplus
}
#endif

#endif
