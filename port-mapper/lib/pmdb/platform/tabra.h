/*
 * tabra.h - the platform's indexed shared-memory table store.
 *
 * Named tables of fixed-size entries in shared memory, keyed by 32-bit keys
 * hashed with the table's hash function, with slot numbers 0..65535 and
 * per-process switching of the entry memory between writable and read-only
 * protected.  The first tabra_open of a name anywhere creates the table;
 * later opens in any process attach to it.
 *
 * Statuses: 0 success; TABRA_E_EXISTS (0xA6F01400) the key is already present
 * (tabra_add_entry still returns the entry and its slot); the other
 * TABRA_E_* values are failures.  Every failure is written to the error trace
 * buffer under one of the TABRA_TP_* points below.
 *
 * Parameter record (tabra_params_t): version must be 1; table_name 1 to 63
 * characters; entry_size 1 to TABRA_MAX_ENTRY_SIZE; hash_buckets 1 to 65536
 * (the hash function must return values below it); hash_fn non-null and
 * called only by the store.  open_flags: O_CREAT (64) lets tabra_open create
 * a missing table, without it a missing table is TABRA_E_NOTFOUND; the access
 * bits are not looked at (every open may write).  max_entries bounds the
 * number of entries; the value of the most recent tabra_open or protection
 * call of any process is in force, a value above 65536 counts as 65536 and 0
 * leaves the value in force unchanged.  tbl_param1..3 are accepted and not
 * used.  Reopening an open table in the same process returns the same handle;
 * opening an existing table with another entry size or hash range is
 * TABRA_E_MISMATCH.
 *
 * Write protection is per process.  A table opened with tabra_open is
 * writable in the opening process until its first protection call;
 * tabra_make_shm_readonly_protected makes every entry of the table read-only
 * in this process.  tabra_make_shm_writable
 * opens a write window: from then on each entry that tabra_add_entry or
 * tabra_get_entry_by_key hands out in this process is writable, until the
 * next tabra_make_shm_readonly_protected.  An entry pointer obtained before
 * the window opened must be looked up again before it is written.  The store
 * counts, per entry, the processes that obtained it while they could write
 * it, until their next protection call: tabra_copy_entry_at_rest refuses
 * those entries and vouches for every other copy.
 *
 * Damaged tables.  Every call that maps a table (tabra_open, tabra_attach,
 * tabra_attach_hashed, and through them the reader library) first checks,
 * on a copy of the header read before anything else is mapped, that the
 * object holds a sound table of this store:
 *   - the magic, and the format (another format is TABRA_E_MISMATCH);
 *   - entry size 1 to TABRA_MAX_ENTRY_SIZE, bucket count 1 to 65536;
 *   - capacity 65536, and stride and object size as the entry size gives
 *     them; the object at least as long as that object size;
 *   - the name in the header is the table's name;
 *   - the header's check word over the fields fixed at creation (so that an
 *     entry size changed within the same stride is seen);
 *   - count and max_entries at most the capacity; the operation in flight
 *     none, or an add or remove of a slot and bucket in range.
 * A table that fails is refused with TABRA_E_CORRUPT and trace
 * TABRA_TP_DAMAGED, whose code (TABRA_DAMAGE_*) says which check failed.
 * It is left exactly as it is: no open re-creates or repairs it, so entries
 * it may hold stay for the operator to look at, and removing the object is
 * the operator's decision.  An object without the magic is a table whose
 * creator died before finishing only when nothing beyond its header was
 * ever written (size 0, or bucket words, slot records and bitmaps all zero):
 * tabra_open with O_CREAT makes the table in it and tabra_attach answers
 * TABRA_E_NOTFOUND.  Any other object without the magic is damaged.  A
 * handle reaches entries with the geometry checked when it was made (entry
 * size, stride, bucket count of key % buckets), so damage done to the header
 * later cannot send a lookup outside the table; tabra_check checks the
 * header again.  A key that the index links to a slot whose record never shows
 * that key's occupant (64 lookups in a row: a damaged slot record, not a
 * writer at work) makes tabra_add_entry, tabra_get_entry_by_key and
 * tabra_copy_entry_by_key answer TABRA_E_CORRUPT, traced under
 * TABRA_TP_CHECK with fault 5 and the slot, instead of looking for ever.
 *
 * Ownership.  A table's object is made and opened through the OS layer
 * (vorn_os.h), which gives a new object the host's mode and refuses an
 * existing object that belongs to another user: TABRA_E_OWNER, trace
 * TABRA_TP_OWNER.
 *
 * Threads and processes: every call may be made from any thread of any
 * process.  Lookups never wait for writers; adds and removes of one table
 * serialise only on the short index update.  A process killed at any point
 * inside an add or remove leaves a table that the next writer repairs.
 */
#ifndef PMDB_PLATFORM_TABRA_H
#define PMDB_PLATFORM_TABRA_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TABRA_E_EXISTS PMDB_TABRA_EEXIST /* key already present */
#define TABRA_E_NOTFOUND 0xA6F01401u     /* no entry under the key */
#define TABRA_E_FULL 0xA6F01402u         /* max_entries entries present */
#define TABRA_E_INVAL 0xA6F01403u        /* bad argument or parameter record */
#define TABRA_E_SHM 0xA6F01404u          /* shared-memory object unusable */
#define TABRA_E_NOMEM 0xA6F01405u        /* process memory exhausted */
#define TABRA_E_MISMATCH 0xA6F01406u     /* table exists with another format */
#define TABRA_E_PROT 0xA6F01407u         /* changing page protection failed */
#define TABRA_E_CORRUPT 0xA6F01408u      /* consistency check found a fault; damaged table */
#define TABRA_E_LOCK 0xA6F01409u         /* the table's writer lock is unusable */
#define TABRA_E_WRITING 0xA6F0140Au      /* entry open for writing (tabra_copy_entry_at_rest) */
#define TABRA_E_UNKEYED 0xA6F0140Bu      /* entry does not begin with its key (TABRA_COPY_KEYED) */
#define TABRA_E_OWNER 0xA6F0140Cu        /* the table's object belongs to another user */
#define TABRA_E_TIMEDOUT 0xA6F0140Du     /* writer lock still held at the caller's bound */

#define TABRA_CAPACITY 65536u       /* slots of every table */
#define TABRA_MAX_ENTRY_SIZE 16384u /* largest entry_size */
#define TABRA_REMOVE_BY_KEY 1u      /* the flags of tabra_remove_entry */
#define TABRA_COPY_KEYED 1u         /* the flags of tabra_copy_entry_at_rest */

/* Trace points (error buffer); arguments in brackets, status first. */
#define TABRA_TP_OPEN_INVAL 900u   /* [status, reason, value] bad parameter record */
#define TABRA_TP_OPEN_SHM 901u     /* [status, errno, stage] object cannot be made or mapped */
#define TABRA_TP_OPEN_MISMATCH 902u /* [status, stored entry size, wanted entry size] */
#define TABRA_TP_NO_TABLE 903u     /* [status, 0, 0] open without O_CREAT or attach: no table */
#define TABRA_TP_ADD_INVAL 904u    /* [status, key, hash] bad argument or hash out of range */
#define TABRA_TP_ADD_FULL 905u     /* [status, key, max_entries] */
#define TABRA_TP_GET_NOTFOUND 906u /* [status, key, 0] lookup or copy of a missing key */
#define TABRA_TP_GET_INVAL 907u    /* [status, key, hash] lookup or copy: bad argument */
#define TABRA_TP_RM_NOTFOUND 908u  /* [status, key, 0] */
#define TABRA_TP_RM_INVAL 909u     /* [status, key, flags] */
#define TABRA_TP_LOCK 910u         /* [status, errno, holder tid] writer lock unusable
                                      (holder 0), or not obtained within the bound of
                                      tabra_check_within (TABRA_E_TIMEDOUT, errno 110) */
#define TABRA_TP_REPAIR 911u       /* [op in flight (0 none, 1 add, 2 remove), key, slot]
                                      a writer died holding the lock; repaired */
#define TABRA_TP_PROT 912u         /* [status, errno, what (1 page, 2 whole, 3 protect,
                                      4 more than 4095 processes writing one entry)] */
#define TABRA_TP_CHECK 913u        /* [status, fault code, slot] consistency check failed */
#define TABRA_TP_NOMEM 914u        /* [status, bytes, 0] */
#define TABRA_TP_WALK_INVAL 915u   /* [status, 0, 0] walk, info or check: bad argument */
#define TABRA_TP_DAMAGED 916u      /* [status, damage code, value] open or attach refused a
                                      damaged table (status TABRA_E_CORRUPT) */
#define TABRA_TP_OWNER 917u        /* [status, errno, 0] the object belongs to another user */

/* Damage codes of TABRA_TP_DAMAGED, with the value traced beside them. */
#define TABRA_DAMAGE_NO_MAGIC 1u   /* no magic, yet written beyond the header [first such
                                      byte offset] */
#define TABRA_DAMAGE_SIZE 2u       /* object shorter than its header says [object size] */
#define TABRA_DAMAGE_CHECK 3u      /* check word does not match the header [stored word] */
#define TABRA_DAMAGE_BUCKETS 4u    /* bucket count outside 1..65536 [bucket count] */
#define TABRA_DAMAGE_ENTRY_SIZE 5u /* entry size outside 1..TABRA_MAX_ENTRY_SIZE [entry size] */
#define TABRA_DAMAGE_GEOMETRY 6u   /* capacity, stride or object size not as the entry size
                                      gives them [stored object size] */
#define TABRA_DAMAGE_COUNTS 7u     /* count or max_entries above the capacity [count] */
#define TABRA_DAMAGE_INTENT 8u     /* malformed operation in flight [op] */
#define TABRA_DAMAGE_NAME 9u       /* the header names another table [0] */

/* Test-only crash points.  When the environment variable TABRA_CRASH_AT is
 * "add:<k>", "remove:<k>" or "repair:<k>" at a process's first add, remove or
 * repair (read again in a child after fork), the process kills itself with
 * SIGKILL at point k of that operation.  Points are numbered from 1; an add
 * that creates an entry passes TABRA_CRASH_ADD_POINTS points, a remove that
 * finds its key TABRA_CRASH_REMOVE_POINTS, the repair after a dead writer
 * TABRA_CRASH_REPAIR_POINTS.  Unset, each point costs one predictable branch. */
#define TABRA_CRASH_ENV "TABRA_CRASH_AT"
#define TABRA_CRASH_ADD_POINTS 10
#define TABRA_CRASH_REMOVE_POINTS 9
#define TABRA_CRASH_REPAIR_POINTS 4

cerrno tabra_init(event_mgr_p em, void *debug_desc);
cerrno tabra_open(const tabra_params_t *params, tabra_hdl_t *out);
cerrno tabra_add_entry(tabra_hdl_t table, u32 key, void **entry, i32 *slot);
cerrno tabra_get_entry_by_key(tabra_hdl_t table, u32 key, void **entry, i32 *slot);
cerrno tabra_remove_entry(tabra_hdl_t table, u32 flags, u32 key);
cerrno tabra_make_shm_writable(tabra_hdl_t table, const tabra_params_t *params);
cerrno tabra_make_shm_readonly_protected(tabra_hdl_t table, const tabra_params_t *params);

/* --- Reader-side and tooling calls (reader library, pmdbctl, tests) --- */

/* Attaches to an existing table without creating it: TABRA_E_NOTFOUND when
 * no table of that name exists in the namespace.  When this process already
 * has the table open, that handle is returned.  A handle made by tabra_attach
 * knows no hash function unless tabra_attach_hashed names one: it cannot add
 * or remove (TABRA_E_INVAL), and it looks keys up in bucket key % buckets as
 * long as every key of the table was placed there (true of hash functions of
 * that form), else by a scan of the occupied slots, which may miss a key that
 * is removed and added again during the scan.  A new attached handle starts
 * read-only protected. */
cerrno tabra_attach(const char *table_name, tabra_hdl_t *out);
cerrno tabra_attach_hashed(const char *table_name, dpa_pmdb_hash_fn_t hash_fn, tabra_hdl_t *out);
/* Copies the entry of `key` (len bytes, at most the entry size) into buf.
 * The copy never mixes two different occupants of a slot: an entry removed
 * or re-used while it is copied makes the copy retry. */
cerrno tabra_copy_entry_by_key(tabra_hdl_t table, u32 key, void *buf, u32 len, i32 *slot);
/* Copies bytes [off, off + len) of the entry of `key` (off + len at most the
 * entry size) into buf, kept only when no process changed the entry while it
 * was copied, by any path.  With flags TABRA_COPY_KEYED the entry's first 32
 * bits must hold its key (tables whose records begin with their key): an
 * entry at rest that does not is TABRA_E_UNKEYED.  Results: 0 and a
 * consistent copy; TABRA_E_NOTFOUND when the key is absent and
 * TABRA_E_UNKEYED (neither traced: they are answers, not faults);
 * TABRA_E_WRITING when some process, this one included, has the entry open
 * for writing (it obtained the entry from tabra_add_entry or
 * tabra_get_entry_by_key while its mapping was writable, and has not made the
 * table read-only since; a process that died so stays counted until the
 * entry is removed) or it kept changing during 64 attempts; TABRA_E_INVAL
 * (traced) for a null handle or buffer, a range beyond the entry, unknown
 * flags, or TABRA_COPY_KEYED on entries shorter than 4 bytes.
 * buf is written only by an attempt that found the entry at rest (and
 * keyed) when it began, so a key that is absent, unkeyed or open for writing
 * all along leaves buf as it was; an attempt that a writer overtook may leave
 * part of the entry in buf, and only 0 makes buf a copy.  The copy goes
 * straight to buf: a lookup then stores its bytes once, which lets the
 * processor overlap the memory misses of consecutive lookups.  Lock-free;
 * never waits. */
cerrno tabra_copy_entry_at_rest(tabra_hdl_t table, u32 key, void *buf, u32 off, u32 len,
                                u32 flags);
/* Pins the slot of `key`: until the matching tabra_unpin_slot, no add gives
 * that slot to another key, so what lives beside the table per slot (the
 * entry locks) keeps belonging to this occupant or to none.  The entry
 * itself may still be removed.  *entry (read-only) and *slot receive the
 * entry and its slot.  Results: 0; TABRA_E_NOTFOUND (not traced) when the
 * key is absent, or was removed and added again at each of 64 attempts;
 * TABRA_E_INVAL (traced) for a null argument.  Lock-free.  Every pin must be
 * undone: a process that dies holding one keeps that slot out of use. */
cerrno tabra_pin_slot(tabra_hdl_t table, u32 key, const void **entry, i32 *slot);
/* Undoes one tabra_pin_slot of `slot`.  REQUIRES: the caller pinned it. */
void tabra_unpin_slot(tabra_hdl_t table, i32 slot);
/* 1 when `slot` holds the entry of `key` now, 0 otherwise (also for a bad
 * handle or slot).  With the slot pinned, 1 means the occupant the pin was
 * taken for is still there: a pinned slot never passes to another key.
 * Lock-free; never traces. */
int tabra_slot_holds(tabra_hdl_t table, i32 slot, u32 key);
/* Sets, for this process's adds through `table`, a function called with
 * the slot that an add is about to give to a new key: under the table's
 * writer lock, after the slot was chosen (a free slot nobody pins) and
 * before any lookup can report the key.  So what a caller keeps beside the
 * table per slot is ready before another thread or process can find the
 * entry.  fn must not call the table store, nor block; a process killed
 * inside it leaves the add undone, as any add that did not commit.  null
 * removes the hook.  0, or TABRA_E_INVAL for a null handle, or the writer
 * lock's failure. */
typedef void (*tabra_slot_hook_t)(void *ctx, i32 slot);
cerrno tabra_set_add_hook(tabra_hdl_t table, tabra_slot_hook_t fn, void *ctx);
/* 1 when this process is one of the writers that have the entry of `key`
 * open (so waiting for the entry to come to rest would wait on itself); 0
 * also when the key is absent. */
int tabra_entry_open_here(tabra_hdl_t table, u32 key);
/* Calls fn for every occupied slot in ascending slot order, visiting only
 * occupied slots; entry is read-only and valid during the call (a private
 * copy: key, slot and entry always belong to one occupant of the slot).  A
 * nonzero return of fn stops the walk and is returned.  An entry added or
 * removed during the walk may or may not be visited. */
typedef int (*tabra_walk_fn_t)(void *ctx, u32 key, i32 slot, const void *entry);
cerrno tabra_walk(tabra_hdl_t table, tabra_walk_fn_t fn, void *ctx);
/* Number of entries present. */
u32 tabra_count(tabra_hdl_t table);

typedef struct tabra_info {
    char name[64];
    u32 entry_size;
    u32 count;
    u32 max_entries;
    u32 capacity; /* slots in the table object */
    u64 object_size;
    u32 hash_buckets;
    u32 intent_op;         /* operation in flight: 0 none, 1 add, 2 remove */
    u64 repairs;           /* repairs after dead writers */
    u64 max_lock_wait_ns;  /* longest wait for the writer lock so far */
    u64 adds;
    u64 removes;
    /* Free slots that a pin keeps out of use.  A live pinner holds its pin
     * for one copy or one entry change; a process killed while it held a
     * pin leaves that slot out of use for good, so a count that stays
     * above 0 across samples names slots lost to dead pinners. */
    u32 pinned_free;
    u32 reserved;
} tabra_info_t;
PMDB_CHECK_SIZE(tabra_info_t, 136);
PMDB_CHECK_OFF(tabra_info_t, entry_size, 64);
PMDB_CHECK_OFF(tabra_info_t, object_size, 80);
PMDB_CHECK_OFF(tabra_info_t, hash_buckets, 88);
PMDB_CHECK_OFF(tabra_info_t, repairs, 96);
PMDB_CHECK_OFF(tabra_info_t, removes, 120);
PMDB_CHECK_OFF(tabra_info_t, pinned_free, 128);
cerrno tabra_get_info(tabra_hdl_t table, tabra_info_t *info);
/* Checks index, free slots and counts under the table's writer lock; 0 when
 * consistent, else TABRA_E_CORRUPT with a one-line description of the first
 * fault in report (report is "" with any other result).  Waits for the
 * writer lock as long as it is held, like every writer. */
cerrno tabra_check(tabra_hdl_t table, char *report, size_t len);
/* tabra_check for tools, which must not wait without bound: waits at most
 * wait_ms milliseconds for the writer lock (0: one try).  When the lock is
 * still held then: TABRA_E_TIMEDOUT, traced under TABRA_TP_LOCK, and
 * *holder_tid (optional; 0 otherwise) gets the thread id the lock names at
 * that moment, 0 when it names none.  A writer that died holding the lock is
 * repaired on the way, as by tabra_check. */
cerrno tabra_check_within(tabra_hdl_t table, char *report, size_t len, u32 wait_ms,
                          i32 *holder_tid);
/* Calls fn with the name of every table of the current namespace; returns
 * the number of tables. */
int tabra_list(void (*fn)(void *ctx, const char *table_name), void *ctx);

#ifdef __cplusplus
}
#endif

#endif
