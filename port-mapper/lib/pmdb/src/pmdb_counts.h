/*
 * pmdb_counts.h - check and repair of the bundle counters kept in IFH
 * entries.  These are the operator's tools (pmdbctl check and repair), not
 * calls a data-plane process makes: they are built into the library's
 * archive and stay out of the shared object's exported names.
 */
#ifndef PMDB_SRC_COUNTS_H
#define PMDB_SRC_COUNTS_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A bundle's counters as its IFH entry stores them and as its members give
 * them.  The members of bundle B are the IFH entries whose member_active
 * flag is set and whose intf_info.bundle_ifh is B (the reader library's
 * dpa_pmdb_get_bundle_member_ifh_entries); member_count is their number
 * (an 8-bit count), oor_members_1 and oor_members_2 the number of them whose
 * own oor_state is 1 and 2. */
typedef struct dpa_pmdb_bundle_counts {
    u32 bundle_ifh;
    u8 member_count;  /* stored (before a repair) */
    u8 members;       /* derived: active members */
    u16 oor_members_1; /* stored */
    u16 oor_members_2; /* stored */
    u16 level_1;      /* derived: active members at level 1 */
    u16 level_2;      /* derived: active members at level 2 */
    u16 reserved;
} dpa_pmdb_bundle_counts_t;

/* Told about one bundle by the check and the repair: its counts and a status
 * (0, or why it could not be checked or repaired). */
typedef void (*dpa_pmdb_bundle_counts_fn_t)(void *ctx, const dpa_pmdb_bundle_counts_t *counts,
                                            cerrno status);

/* ---- Bundle counter check and repair ---------------------------------------
 * Each IFH entry whose member_count, oor_members_1 or oor_members_2
 * disagrees with its members (dpa_pmdb_bundle_counts_t) is proposed by a
 * survey of the whole table made without locks, then examined again under
 * its slot lock, waited for at most wait_ms milliseconds (0: as long as a
 * writer waits); an entry whose members a live thread is changing at that
 * moment counts as busy and is tried again every millisecond until wait_ms
 * has passed (0: once).  An entry removed meanwhile is skipped.
 *   check:  calls fn (status 0) for each entry whose disagreement holds
 *           under its lock, and (PMDB_EBUSY or the lock's status) for each
 *           that could not be examined; changes nothing.
 *   repair: stores the derived counters of each entry that disagrees and
 *           calls fn with the counts before (status 0), or with the status
 *           that kept it from being repaired; then completes the records
 *           that dead writers left in the member operation log.  A repair
 *           that changes the derived out-of-resource state raises the
 *           bundle's oor_state as the member accounting does and tells this
 *           process's out-of-resource callback; it writes database trace 340
 *           (bundle_ifh, member_count before, after, oor_members_1 before,
 *           after, oor_members_2 before, after).
 * fn runs on the calling thread with no slot lock held.
 * Both return 0; PMDB_ENOTFOUND when the IFH table cannot be attached (it
 * does not exist, or the table store refuses it); PMDB_ENOMEM when the
 * survey runs out of process memory; the table store's status of the
 * survey's walk; PMDB_EINVAL for a null fn (nothing done); PMDB_ESHM when
 * the member operation log is damaged or not the user's, returned after the
 * entries were examined (error trace 341 with its name and the reason: 1
 * cannot be opened, 2 another user's, 3 wrong size, 4 wrong magic, size or
 * record count, 5 cannot be mapped, 6 initialisation lock failed, 7 every
 * record taken; a writer that meets such a log writes the same trace and
 * runs unrecorded).  Any thread of any process. */
cerrno dpa_pmdb_check_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn, void *ctx);
cerrno dpa_pmdb_repair_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn, void *ctx);

/* ---- Sub-interface count repair ---------------------------------------------
 * A parent's sub_intf_count is the number of IFH entries whose parent it is
 * (pmdb_fields::parent_ifh: a sub-interface names its port, else its
 * bundle).  The repair surveys the table without locks, then recounts each
 * entry whose stored count disagrees under its slot lock (waited for as the
 * bundle repair waits), stores the derived count, writes database trace 342
 * (ifh, sub_intf_count before, after) and calls fn with the counts before
 * (status 0), or with the status that kept it from being repaired.  An entry
 * removed meanwhile is skipped.  A sub-interface add or remove in flight in
 * a live writer is not told apart from a dead writer's: run it with the
 * writers stopped or dead.  Returns as the bundle repair does (no log). */
typedef struct dpa_pmdb_sub_counts {
    u32 parent_ifh;
    u16 sub_intf_count; /* stored (before the repair) */
    u16 subs;           /* derived: sub-interfaces naming it */
} dpa_pmdb_sub_counts_t;

typedef void (*dpa_pmdb_sub_counts_fn_t)(void *ctx, const dpa_pmdb_sub_counts_t *counts,
                                         cerrno status);

cerrno dpa_pmdb_repair_sub_intf_counts(u32 wait_ms, dpa_pmdb_sub_counts_fn_t fn, void *ctx);

#ifdef __cplusplus
}
#endif

PMDB_CHECK_SIZE(dpa_pmdb_sub_counts_t, 8);
PMDB_CHECK_SIZE(dpa_pmdb_bundle_counts_t, 16);

#endif
