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
 * TABRA_E_* values are failures.
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
#define TABRA_E_CORRUPT 0xA6F01408u      /* consistency check found a fault */

cerrno tabra_init(event_mgr_p em, void *debug_desc);
cerrno tabra_open(const tabra_params_t *params, tabra_hdl_t *out);
cerrno tabra_add_entry(tabra_hdl_t table, u32 key, void **entry, i32 *slot);
cerrno tabra_get_entry_by_key(tabra_hdl_t table, u32 key, void **entry, i32 *slot);
cerrno tabra_remove_entry(tabra_hdl_t table, u32 flags, u32 key);
cerrno tabra_make_shm_writable(tabra_hdl_t table, const tabra_params_t *params);
cerrno tabra_make_shm_readonly_protected(tabra_hdl_t table, const tabra_params_t *params);

/* --- Reader-side and tooling calls (reader library, pmdbctl, tests) --- */

/* Attaches to an existing table without creating it: TABRA_E_NOTFOUND when
 * no table of that name exists in the namespace. */
cerrno tabra_attach(const char *table_name, tabra_hdl_t *out);
/* Copies the entry of `key` (len bytes, at most the entry size) into buf.
 * The copy never mixes two different occupants of a slot: an entry removed
 * or re-used while it is copied makes the copy retry. */
cerrno tabra_copy_entry_by_key(tabra_hdl_t table, u32 key, void *buf, u32 len, i32 *slot);
/* Calls fn for every occupied slot in ascending slot order, visiting only
 * occupied slots; entry is read-only and valid during the call.  A nonzero
 * return of fn stops the walk and is returned. */
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
} tabra_info_t;
cerrno tabra_get_info(tabra_hdl_t table, tabra_info_t *info);
/* Checks index, free slots and counts; 0 when consistent, else
 * TABRA_E_CORRUPT with a one-line description of the first fault in report. */
cerrno tabra_check(tabra_hdl_t table, char *report, size_t len);
/* Calls fn with the name of every table of the current namespace. */
int tabra_list(void (*fn)(void *ctx, const char *table_name), void *ctx);

#ifdef __cplusplus
}
#endif

#endif
