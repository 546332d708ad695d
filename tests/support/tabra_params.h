/*
 * tabra_params.h - parameter records of table-store tables for the table
 * store's tests and benchmarks: by default a table shaped like the
 * database's (328-byte entries, the key's low 16 bits as its hash, 65,536
 * buckets and entries), opened for writing.
 */
#ifndef PMDB_TEST_TABRA_PARAMS_H
#define PMDB_TEST_TABRA_PARAMS_H

#include "pmdb.h"

namespace pmdb::test {

/* The database's own hash: the low 16 bits of the key. */
inline u32 Low16(u32 key) { return key & 0xFFFFu; }

inline tabra_params_t Params(const char *name, u32 entry_size = PMDB_IFH_ENTRY_SIZE,
                             dpa_pmdb_hash_fn_t fn = Low16, u32 buckets = PMDB_HASH_BUCKETS,
                             u32 max_entries = PMDB_MAX_ENTRIES,
                             u32 flags = PMDB_TABRA_OPEN_WRITE) {
    tabra_params_t p{};
    p.version = PMDB_TABRA_PARAMS_VERSION;
    p.table_name = name;
    p.open_flags = flags;
    p.tbl_param1 = PMDB_TBL_PARAM1;
    p.tbl_param2 = PMDB_TBL_PARAM2;
    p.hash_buckets = buckets;
    p.hash_fn = fn;
    p.max_entries = max_entries;
    p.entry_size = entry_size;
    p.tbl_param3 = PMDB_TBL_PARAM3;
    return p;
}

}  // namespace pmdb::test

#endif
