/*
 * pmdb_reader.h - reader library of the port mapper database tables
 * (libpmdb_reader.so).
 *
 * Other processes on the card, the database's own writers and the tools read
 * the IFH, PUNT and OAM tables through these calls.  The library attaches to
 * the existing tables of the table store and maps the shared context regions
 * itself (it never creates either), and it does not depend on libpmdb.so.
 *
 * Consistency.  A copy is never torn.  An entry that no process has open
 * for writing is copied without a lock: the table store keeps, per entry, a
 * count of the processes that obtained it while their mapping was writable
 * (until their next protection call) and a version that moves when one of
 * them is done, and the copy is kept only when neither moved and no process
 * had it open.  Any other entry is copied while the caller holds the entry's
 * slot lock in the type's shared context region, the same lock that writers
 * hold while they change the entry, with the slot pinned in the table store
 * so that the lock is not re-initialised for another key meanwhile.  After that copy the table store
 * confirms that the slot still holds the same key (a slot re-used by another
 * key during the copy makes the copy start again).  A slot lock is taken
 * with a try-lock and then a wait
 * bounded by dpa_pmdb_reader_set_lock_wait_ms(); a lock whose holder died is
 * made consistent and the copy goes on (the entry may then hold a change that
 * the dead writer left half done, exactly as the writers themselves see it).
 * A lock that is not usable (not initialised yet: the entry is being made;
 * retired: the entry is being removed) is not waited on; the key is looked up
 * again until the entry is gone or the wait bound has passed.  A thread that
 * itself holds the slot lock (a writer reading its own entry) gets its copy
 * at once, without waiting on itself and without releasing its lock.
 * Buffers.  A lookup of a key that has no entry (or whose entry does not
 * hold its key yet, below) leaves the buffer as it was, and so does every
 * argument error.  An entry at rest is copied straight into the caller's
 * buffer, which keeps a lookup short; when a writer overtakes that copy and
 * the call then fails (the entry was removed meanwhile, or stayed locked
 * beyond the wait bound), the buffer may hold part of the entry.  A result
 * other than 0 never makes the buffer a copy.  The lock is held for the copy
 * of one record only; no callback ever runs while the library holds a lock.
 *
 * Results (cerrno):
 *   0              PMDB_OK        success
 *   2              PMDB_ENOTFOUND no entry under the key, or the table or the
 *                                 shared context region does not exist yet or
 *                                 has no magic (the database is not ready).
 *                                 An entry whose own `key` field does not hold
 *                                 its key counts as missing: the table store
 *                                 zero-fills a new entry, so that is an entry
 *                                 whose writer has not filled it yet (or one
 *                                 that only a MAC-only event touched).  Walks
 *                                 skip such entries too.
 *   16             PMDB_EBUSY     the entry's slot lock stayed held beyond the
 *                                 wait bound, or the lock is not usable right
 *                                 now (not initialised yet, or left not
 *                                 recoverable); the buffer is unchanged
 *   22             PMDB_EINVAL    a null buffer, a zero key or handle, or a
 *                                 reserved argument that is not 0
 *   other values   passed through from the table store (TABRA_E_*).
 *
 * "Belongs to": the writers store the event's whole pmdb_intf_info_t in
 * every PUNT entry they make for an interface, and the stored block names the
 * interface the entry was made for in the first nonzero of `sub_ifh` (a port
 * or bundle sub-interface), `ifh` (a port, also while it is a bundle member)
 * and `bundle_ifh` (a bundle, whose block has no `ifh` of its own).  That
 * handle is called the entry's owner below.  Bundle-member punt keys (bit 31
 * set) are made from a member's interface information but serve the bundle,
 * so they belong to the bundle, never to the member port.
 *
 * Order: every list query returns matches in ascending table slot order and
 * visits only occupied slots.  A query that finds more matches than its
 * capacity returns the first `capacity` of them and result 0; places after the
 * last match are set to 0.  Matches are confirmed on a consistent copy; an
 * entry that changes during the scan is reported as it was before or as it is
 * after its change.
 *
 * Choices this library makes where its callers leave them open: the owner
 * rule above; a bundle's punt entries leave out its own punt key (the add path
 * writes that key itself right after using the list); the selector of
 * dpa_pmdb_get_bundle_sub_punt_entries is a node filter like the node
 * argument of dpa_pmdb_get_bundle_member_ifh_entries; the member count is the
 * bundle entry's own `member_count`; dpa_pmdb_iterate hands the filter
 * consistent copies rather than table memory and reports a full filter as a
 * completed walk; all lists are in slot order.
 *
 * Threads: every call may be made from any thread of any process.
 */
#ifndef PMDB_PLATFORM_READER_H
#define PMDB_PLATFORM_READER_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that the two by-key lookups write: the pmdb_intf_info_t (256 bytes)
 * and the pmdb_punt_info_t (28 bytes) right behind it.  Callers hand 312-byte
 * buffers; bytes 284..311 are not written. */
#define PMDB_READER_INFO_COPY_SIZE 284u

/* dpa_pmdb_iterate flags. */
#define PMDB_ITER_FULL_IS_ERROR 0x1u /* report a filter that said 17 as 17 */

/* Node selector that matches every node. */
#define PMDB_READER_ALL_NODES 0xFFFFFFFFu

/* Default bound of the wait for one slot lock, in milliseconds. */
#define PMDB_READER_LOCK_WAIT_MS_DEFAULT 250u

/* ------------------------------------------------------------------------ */
/* Lookups by key                                                            */
/* ------------------------------------------------------------------------ */

/* Copies the IFH entry of `ifh` into buf: its stored pmdb_intf_info_t first
 * (bytes 0..255) and its pmdb_punt_info_t right behind it (bytes 256..283).
 * `arg3` and `arg4` are reserved and must be 0.  Results: 0; 2 no entry (buf
 * unchanged, unless the entry was removed while it was being copied); 16 lock
 * busy; 22 null buf, ifh 0, or a nonzero reserved argument (buf unchanged). */
PMDB_EXPORT cerrno dpa_pmdb_get_ifh_entry_by_key(u32 ifh, void *buf, u32 arg3, u32 arg4);

/* Copies the PUNT entry of punt key `key` into buf: its stored
 * pmdb_intf_info_t first (bytes 0..255), its pmdb_punt_info_t behind it
 * (bytes 256..283).  Results as for the IFH lookup (22 for key 0). */
PMDB_EXPORT cerrno dpa_pmdb_get_punt_entry_by_key(u32 key, void *buf);

/* Copies the whole 80-byte OAM entry of `key` (key, event_id, last_update,
 * oam_info) into *buf.  Results as for the IFH lookup. */
PMDB_EXPORT cerrno dpa_pmdb_get_oam_entry_by_key(u32 key, pmdb_oam_entry_t *buf);

/* Writes the bundle's member count into *count: the `member_count` of the
 * bundle's own IFH entry, which the membership updates keep (one per member
 * whose `member_active` flag is set).  *count changes only on success.
 * Results: 0; 2 no IFH entry under bundle_ifh (so a caller that set *count
 * to 0 reads 0); 16; 22 null count or bundle_ifh 0. */
PMDB_EXPORT cerrno dpa_pmdb_get_num_members(u8 *count, u32 bundle_ifh);

/* ------------------------------------------------------------------------ */
/* List queries                                                              */
/* ------------------------------------------------------------------------ */
/*
 * Common contract: `capacity` places of the output array are written, never
 * more: the matches in ascending slot order, then 0 in every remaining place.
 * Results: 0 (any number of matches, none included); 2 the table or region
 * does not exist yet (every place set to 0); 16 at least one matching entry
 * could not be read within the lock wait bound (it is left out, the others
 * are returned); 22 null array or a zero handle (array unchanged).  A
 * capacity of 0 writes nothing and returns 0 after the argument checks.
 */

/* Punt keys of the PUNT entries that belong to interface `ifh` itself: the
 * entries whose owner is `ifh` and whose key has bit 31 clear.  For a port
 * these are its main, extension, plain extension, egress LIF and egress punt
 * keys (also while it is a bundle member); for a sub-interface its own main
 * key; for a bundle its own bundle punt key.  The punt-word refresh of a
 * port asks for 3. */
PMDB_EXPORT cerrno dpa_pmdb_get_port_punt_entries(u32 ifh, u32 *keys, u32 capacity);

/* Punt keys of the PUNT entries that belong to bundle `bundle_ifh` through
 * its members: every bundle-member key (bit 31 set) whose stored
 * `bundle_ifh` is the bundle, and every other entry whose stored
 * `bundle_ifh` is the bundle and whose owner is a member port (stored
 * `sub_ifh` 0 and stored `ifh` neither 0 nor the bundle): the member ports'
 * own keys that the membership updates marked with the bundle.  The bundle's
 * own punt key and its sub-interfaces' keys are not included (see
 * dpa_pmdb_get_port_punt_entries and dpa_pmdb_get_bundle_sub_punt_entries).
 * Both callers ask for 7 per member: the re-key keeps the bit-31 keys, the
 * punt refresh rewrites them all. */
PMDB_EXPORT cerrno dpa_pmdb_get_bundle_punt_entries(u32 bundle_ifh, u32 *keys, u32 capacity);

/* Punt keys of the PUNT entries that belong to bundle sub-interface `ifh`:
 * owner `ifh` (stored `sub_ifh` == ifh) with a nonzero stored `bundle_ifh`
 * and bit 31 clear.  `selector` PMDB_READER_ALL_NODES (0xFFFFFFFF) takes
 * every such entry; any other value takes only the entries whose stored
 * `node_id` equals it (the add path stores the sub-interface's punt key with
 * node 999).  The add path asks for 1. */
PMDB_EXPORT cerrno dpa_pmdb_get_bundle_sub_punt_entries(u32 ifh, u32 *keys, u32 capacity,
                                                        u32 selector);

/* Handles (IFH keys) of the active members of bundle `bundle_ifh`: the IFH
 * entries whose `ifh_flags` has member_active set and whose stored
 * `bundle_ifh` is the bundle, on node `node_id` (stored `node_id` equal) or
 * on every node for PMDB_READER_ALL_NODES. */
PMDB_EXPORT cerrno dpa_pmdb_get_bundle_member_ifh_entries(u32 bundle_ifh, u32 *handles,
                                                          u32 capacity, u32 node_id);

/* Handles (IFH keys) of the sub-interfaces of bundle `bundle_ifh`: the IFH
 * entries whose stored `sub_ifh` is nonzero and whose stored `bundle_ifh` is
 * the bundle (what the IFH writer counts as a bundle sub-interface).  A port
 * sub-interface of a member port is not a bundle sub-interface. */
PMDB_EXPORT cerrno dpa_pmdb_get_bundle_sub_ifh_entries(u32 bundle_ifh, u32 *handles,
                                                       u32 capacity);

/* OAM keys of the OAM entries that belong to interface `ifh`: the entries
 * whose stored `oam_info.oam_ifh` is `ifh` (the OAM writer stores the most
 * specific handle of the event there: `sub_ifh`, else `bundle_ifh`, else
 * `ifh`; this includes the interface OAM entry (oam_id << 16) | 28). */
PMDB_EXPORT cerrno dpa_pmdb_get_intf_oam_entries(u32 ifh, u32 *keys, u32 capacity);

/* ------------------------------------------------------------------------ */
/* Walks                                                                     */
/* ------------------------------------------------------------------------ */

/* Filter of dpa_pmdb_iterate: called with each IFH entry as its second
 * argument and the walk's context as its fourth. */
typedef int (*dpa_pmdb_iter_fn_t)(void *arg, const pmdb_ifh_entry_t *entry, void *aux,
                                  void *ctx);

/* Walks the IFH entries in ascending slot order and calls
 * filter(arg, entry, aux, ctx) once per entry, where `entry` points to a
 * consistent copy of the whole 328-byte record, made under the entry's slot
 * lock and valid during the call (a copy rather than the table memory itself:
 * the filter runs with no lock held, so it may call the writers, which take
 * the same slot lock), and `aux` points to the u32 key under which the table
 * holds the entry (an entry that a MAC-only event created has 0 in its own
 * `key` field).  arg and ctx are passed through untouched; the walk never
 * reads or writes them (the first word 17 of the BVI collection context has
 * no meaning to the walk).
 *
 * Filter results: 0 and 22 keep the walk going; 17 (the filter's collection
 * is full) ends it at once, so the filter is never called again and cannot
 * overrun its array; any other value ends the walk and is returned.
 *
 * Result: 0 when the walk completed, also when it ended because the filter
 * reported 17: the BVI refresh abandons everything on a nonzero result, and
 * it must still rehome the full array of handles it collected.  With flags
 * PMDB_ITER_FULL_IS_ERROR, a filter's 17 is returned as 17 instead.  Other
 * results: the filter's other nonzero value; 2 the table or region does not
 * exist yet (the filter is not called); 22 null filter or unknown flags.
 * Entries removed during the walk are skipped; entries whose slot lock stays
 * busy are skipped too, and the walk then returns 16 if nothing else ended
 * it. */
PMDB_EXPORT cerrno dpa_pmdb_iterate(dpa_pmdb_iter_fn_t filter, void *arg, void *ctx, u32 flags);

/* Generic walk for tools: calls fn(ctx, key, entry) for every entry of
 * `type` in ascending slot order with a consistent copy of the whole record
 * (pmdb_ifh_entry_t, pmdb_punt_entry_t or pmdb_oam_entry_t).  A nonzero
 * return of fn ends the walk and is returned.  Other results as for
 * dpa_pmdb_iterate (22 for an unknown type or a null fn). */
typedef int (*dpa_pmdb_walk_fn_t)(void *ctx, u32 key, const void *entry);
PMDB_EXPORT cerrno dpa_pmdb_walk(pmdb_type_t type, dpa_pmdb_walk_fn_t fn, void *ctx);

/* Consistent copy of the first `len` bytes (1 .. the type's entry size) of
 * the entry of `key` in table `type`.  Results as for the IFH lookup; 22 also
 * for an unknown type or a bad len. */
PMDB_EXPORT cerrno dpa_pmdb_copy_entry(pmdb_type_t type, u32 key, void *buf, u32 len);

/* Number of entries in table `type` into *count.  0, 2 (no table yet, *count
 * unchanged) or 22. */
PMDB_EXPORT cerrno dpa_pmdb_count_entries(pmdb_type_t type, u32 *count);

/* ------------------------------------------------------------------------ */
/* Settings and counters of this process                                     */
/* ------------------------------------------------------------------------ */

/* Sets the bound of the wait for one slot lock (milliseconds, at least 1;
 * 0 restores the default).  Process-wide. */
PMDB_EXPORT void dpa_pmdb_reader_set_lock_wait_ms(u32 ms);

/* Counters of this process since it loaded the library. */
typedef struct dpa_pmdb_reader_stats {
    u64 copies;           /* consistent copies made */
    u64 owner_dead;       /* slot locks recovered from a dead holder */
    u64 busy;             /* copies given up after the wait bound */
    u64 retries;          /* copies started again (slot re-used or lock gone) */
    u64 lock_lost;        /* locks destroyed while this process held them */
    u64 locked_copies;    /* copies that took the slot lock (entry open for writing) */
} dpa_pmdb_reader_stats_t;
PMDB_CHECK_SIZE(dpa_pmdb_reader_stats_t, 48);
PMDB_EXPORT void dpa_pmdb_reader_get_stats(dpa_pmdb_reader_stats_t *out);

#ifdef __cplusplus
}
#endif

#endif
