/*
 * tabra_restore.h - host-only extension of the table store: putting an
 * entry back into the slot it had, for tools that rebuild a saved table.
 *
 * The platform's table store chooses slots itself; a saved table names the
 * slot of each entry, and what lives beside the table per slot (the entry
 * locks of the shared context regions) is indexed by it, so a rebuilt table
 * must keep them.  Not part of the interface the library calls.
 */
#ifndef PMDB_PLATFORM_TABRA_RESTORE_H
#define PMDB_PLATFORM_TABRA_RESTORE_H

#include "tabra.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Adds `key` in slot `slot` with the entry's first `len` bytes from data
 * (the rest zero), as tabra_add_entry would add it in a slot of its own
 * choice: under the writer lock, the add hook run for the slot before the
 * key can be found, counted in adds.  The handle must know the table's hash
 * function (tabra_open or tabra_attach_hashed).  No write bracket is opened:
 * the entry is at rest once the call returns.
 * Results: 0; TABRA_E_EXISTS the key is present already (nothing changed);
 * TABRA_E_FULL max_entries entries present; TABRA_E_INVAL (traced) a null
 * handle or data, len beyond the entry size, a slot outside the table, or
 * one that is occupied or pinned; the writer lock's failure. */
cerrno tabra_restore_entry(tabra_hdl_t table, u32 key, i32 slot, const void *data, u32 len);

#ifdef __cplusplus
}
#endif

#endif
