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

#ifdef __cplusplus
}
#endif

#endif
