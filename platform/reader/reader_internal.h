/*
 * reader_internal.h - what the two halves of the reader library share:
 * consistent copies of single entries (reader_access.cpp) and the queries
 * built on them (reader_queries.cpp).
 */
#ifndef PMDB_READER_INTERNAL_H
#define PMDB_READER_INTERNAL_H

#include <stddef.h>

#include "pmdb.h"
#include "pmdb_reader.h"

namespace pmdb_reader {

/* Largest entry of the three tables: the local copy buffer size. */
constexpr u32 kMaxEntrySize = PMDB_IFH_ENTRY_SIZE;

/* Entry size of a table type, 0 for an unknown type. */
u32 entry_size(pmdb_type_t type);

/* Makes sure the table and shared context region of `type` are reachable
 * (attaching and mapping on first use).  0, PMDB_ENOTFOUND when either does
 * not exist yet or the region has no magic, or a table-store status. */
cerrno ready(pmdb_type_t type);

/* Bytes [from, from + len) of a consistent copy of the entry of `key`, into
 * `out`.  REQUIRES: from + len within the entry size of `type`.  0, PMDB_ENOTFOUND, PMDB_EBUSY or a
 * table-store status.  `out` is left as it was when the key is absent or
 * its record does not hold its key; it may hold part of the entry after a
 * failure that a writer caused while the entry was being copied. */
cerrno copy(pmdb_type_t type, u32 key, void *out, u32 from, u32 len);

/* A fixed part of one type's entries: what a single-entry lookup copies. */
struct part {
    pmdb_type_t type;
    u32 from;
    u32 len;
};
/* The interface and punt blocks of an IFH or PUNT entry (adjacent in both
 * records), a whole OAM entry, a bundle's member count. */
constexpr part kIfhInfo{PMDB_TYPE_IFH, offsetof(pmdb_ifh_entry_t, intf_info),
                        PMDB_READER_INFO_COPY_SIZE};
constexpr part kPuntInfo{PMDB_TYPE_PUNT, offsetof(pmdb_punt_entry_t, intf_info),
                         PMDB_READER_INFO_COPY_SIZE};
constexpr part kOamEntry{PMDB_TYPE_OAM, 0, PMDB_OAM_ENTRY_SIZE};
constexpr part kMemberCount{PMDB_TYPE_IFH, offsetof(pmdb_ifh_entry_t, member_count),
                            sizeof(pmdb_ifh_entry_t::member_count)};

/* copy() of part P, instantiated in reader_access.cpp for each part above:
 * with the type and range known, a lookup of an entry at rest keeps all it
 * needs in registers. */
template <part P>
cerrno copy_fixed(u32 key, void *out);

/* Match rule of a scan for the entry stored under `key`.  `entry` is either
 * the live table memory (read without a lock, as a pre-filter: every field
 * must be loaded with load()) or a consistent copy (the confirmation). */
typedef bool (*match_fn)(u32 key, const void *entry, const void *want);

/* Called for every confirmed match with its key and consistent copy; a
 * nonzero return ends the scan and becomes its result. */
typedef int (*visit_fn)(void *ctx, u32 key, const void *copy);

/* Scans the occupied slots of `type` in ascending slot order; every entry
 * that `match` accepts (null: every entry) is copied consistently, checked
 * again on the copy and handed to `visit`.  Entries removed meanwhile are
 * skipped.  Returns the visitor's nonzero result, else PMDB_EBUSY when an
 * accepted entry could not be copied in time, else 0; PMDB_ENOTFOUND when
 * the table is not ready. */
cerrno scan(pmdb_type_t type, match_fn match, const void *want, visit_fn visit, void *ctx);

/* Relaxed load of a field that a writer in another process may be changing:
 * a pre-filter reads each field once, whole, and never more. */
template <typename T>
inline T load(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

}  // namespace pmdb_reader

#endif
