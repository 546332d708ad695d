/*
 * pmdb_reader.h - reader library of the port mapper database tables.
 *
 * Other processes on the card, and the database's own writers, read the IFH,
 * PUNT and OAM tables through these calls.  Copies are consistent: never a
 * torn entry while a writer changes it under its slot lock.
 */
#ifndef PMDB_PLATFORM_READER_H
#define PMDB_PLATFORM_READER_H

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Filter of dpa_pmdb_iterate: called with each IFH entry as its second
 * argument and the walk's context as its fourth. */
typedef int (*dpa_pmdb_iter_fn_t)(void *arg, const pmdb_ifh_entry_t *entry, void *aux,
                                  void *ctx);

cerrno dpa_pmdb_get_ifh_entry_by_key(u32 ifh, void *buf, u32 arg3, u32 arg4);
cerrno dpa_pmdb_get_punt_entry_by_key(u32 key, void *buf);
cerrno dpa_pmdb_get_num_members(u8 *count, u32 bundle_ifh);
cerrno dpa_pmdb_get_port_punt_entries(u32 ifh, u32 *keys, u32 capacity);
cerrno dpa_pmdb_get_bundle_punt_entries(u32 bundle_ifh, u32 *keys, u32 capacity);
cerrno dpa_pmdb_get_bundle_sub_punt_entries(u32 ifh, u32 *keys, u32 capacity, u32 selector);
cerrno dpa_pmdb_get_bundle_member_ifh_entries(u32 bundle_ifh, u32 *handles, u32 capacity,
                                              u32 node_id);
cerrno dpa_pmdb_get_bundle_sub_ifh_entries(u32 bundle_ifh, u32 *handles, u32 capacity);
cerrno dpa_pmdb_iterate(dpa_pmdb_iter_fn_t filter, void *arg, void *ctx, u32 flags);

#ifdef __cplusplus
}
#endif

#endif
