/*
 * pmdb_ops.h - single-entry operations that the library's own paths call
 * but that libpmdb.so does not export: the punt key rule, one PUNT entry
 * added or removed, one IFH entry removed or summarised, the bundle member
 * accounting of the out-of-resource counters, and the out-of-resource
 * callback pointer.  The exported single-entry operations (node list,
 * member and bundle updates, OAM entries, out-of-resource state) are
 * declared in pmdb.h.
 *
 * Owners:
 *   dnx_pmdb_intf.cpp  punt key rule, PUNT add/remove, IFH removal and
 *                      summary (and the summary of an entry that the IFH
 *                      add fills), node list, member and bundle updates
 *   dnx_pmdb_oam.cpp   OAM entries and the OAM event entry
 *   dnx_pmdb_oor.cpp   out-of-resource state, the callback pointer, the
 *                      bundle member accounting
 *
 * Every operation that changes an entry runs one entry change cycle
 * (pmdb_cycle.h): write access to the table store is held from its open to
 * its release and the entry is changed only under its slot lock.  Where two
 * IFH slot locks are held at once, the member's is taken before its
 * bundle's; nothing takes them the other way round.
 */
#ifndef PMDB_SRC_OPS_H
#define PMDB_SRC_OPS_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Out-of-resource levels of an entry's oor_state. */
#define PMDB_OOR_NONE 0u
#define PMDB_OOR_LEVEL1 1u
#define PMDB_OOR_LEVEL2 2u

/* The punt key of an interface:
 *   bits 0..15  egress_key ? (egress_lif & 0xFFFF) : ingress_lif
 *   bits 16..29 sys_port & 0x3FFF when both LIF halves are 0, else 0
 *   bit 30      egress_key
 * With egress_key set, on a node that is not a route processor with data
 * path, a slot_id other than PMDB_NO_SLOT replaces bits 16..21 with
 * slot_id & 63.  Pass 0 for a LIF or sys_port not to be considered and
 * PMDB_NO_SLOT for no substitution.  Bit 31 is never set here. */
u32 dpa_pmdb_punt_key(u32 egress_key, u32 egress_lif, u16 ingress_lif, u16 sys_port, u8 slot_id);

/* The bundle-member punt key of a member summary: bit 31 set, bit 30 clear,
 * port field 0, extension ((port_hi << (8 + member_port_shift)) | port_lo)
 * & 0x3FFF.  The egress keying of the bundle plays no part. */
u32 dpa_pmdb_bundle_member_punt_key(const dpa_pmdb_ifh_summary_t *summary);

/* Creates or refreshes the PUNT entry `key` from `event` (its interface
 * block with valid_flags bit 0, its punt words with bit 1); `punt_info`, when
 * given with a nonzero first punt word, replaces the stored punt block
 * (interface events only).  *slot receives the entry's slot.
 * Returns 0, PMDB_EINVAL for key 0, 0 without doing anything when `event`
 * is null, or the status of the open, table store, lock or release. */
cerrno dpa_pmdb_add_punt_entry(u32 key, const pmdb_event_t *event, i32 *slot,
                               const pmdb_punt_info_t *punt_info);

/* Removes the PUNT entry `key`, waiting while any process holds its slot
 * lock.  Returns 0, PMDB_EINVAL for key 0, or the status of the open,
 * lookup, removal or release. */
cerrno dpa_pmdb_remove_punt_entry(u32 key);

/* Extra summary fields for dpa_pmdb_summarise_intf. */
#define PMDB_SUMMARY_OAM_ID 0x1u    /* oam_id as stored */
#define PMDB_SUMMARY_BUNDLE 0x2u    /* bundle_ifh */
#define PMDB_SUMMARY_OAM_SLOTS 0x4u /* each nonzero oam_slots[i] */

/* Fills *s from an IFH entry's interface block.  Always: egress_lif,
 * sys_port, intf_data_44, lc_slot, slot_id, npu_index, ingress_lif,
 * port_lo (member_port bits 0..9), port_hi (bits 10..15), member_port_shift
 * & 3, parent_ifh, and the sum_flags bits egress_key, is_sub_intf and
 * is_bundle_sub_intf (its other bits keep their values).  `fields` adds
 * PMDB_SUMMARY_* fields; every other field keeps the caller's value. */
void dpa_pmdb_summarise_intf(const pmdb_intf_info_t *in, u32 fields, dpa_pmdb_ifh_summary_t *s);

/* Copies each nonzero one of 32 OAM slots; a zero slot leaves dst's. */
void dpa_pmdb_copy_oam_slots(u32 *dst, const u32 *src);

/* Removes the IFH entry `ifh` after telling the out-of-resource callback
 * (ifh, slot, 0, 1) and summarising the entry into *summary; waits while
 * any process holds the slot lock.  When the entry was an active bundle
 * member, the bundle's member count is taken down (stamped with event_id)
 * and that update's status is returned. */
cerrno dpa_pmdb_remove_ifh_entry(u32 ifh, dpa_pmdb_ifh_summary_t *summary, u32 event_id);

/* Summarises the IFH entry `ifh` into *summary without changing it.
 * Returns 0, PMDB_EINVAL for 0 (no trace), or the open, lookup or release
 * status. */
cerrno dpa_pmdb_get_ifh_summary(u32 ifh, dpa_pmdb_ifh_summary_t *summary);

/* Moves a member's out-of-resource level into (join != 0) or out of the
 * counters of the bundle its member_info names, derives the bundle's state
 * and, when that changed, tells the out-of-resource callback after the
 * bundle's lock is released.  Does nothing without a registered callback.
 * `hdl` is the caller's IFH handle, open with write intent; the caller
 * holds the member entry's slot lock (member before bundle). */
void dpa_pmdb_update_bundle_oor_members(dnx_db_hdl_t *hdl, pmdb_intf_info_t *member_info,
                                        i32 join);

/* The registered out-of-resource callback, or null. */
dpa_pmdb_oor_cb_t dpa_pmdb_oor_cb_get(void);

/* A bundle's state derived from its counters: level 2 if any member is at
 * level 2, else level 1 if any is at level 1, else none. */
u32 dpa_pmdb_oor_derived_state(const pmdb_intf_info_t *bundle_info);

/* Sets a bundle's two counters (a recount from its members); *before and
 * *after receive its derived state before and after, and a move to a level
 * is recorded in its oor_state as the member accounting records it.  The
 * caller holds the bundle's slot lock. */
void dpa_pmdb_oor_set_counters(pmdb_intf_info_t *bundle_info, u16 level_1, u16 level_2,
                               u32 *before, u32 *after);

#ifdef __cplusplus
}
#endif

#endif
