/*
 * pmdb_db_test.h - test support for groups that link the library's internals
 * (pmdb_static): entries written and removed the way the library's own
 * writers do it, and read back the way another process reads them.
 * A test binary links either this library (and so pmdb_static) or
 * libpmdb.so, never both.
 */
#ifndef PMDB_TEST_DB_SUPPORT_H
#define PMDB_TEST_DB_SUPPORT_H

#include <functional>

#include "pmdb.h"

namespace pmdb::test {

/* Creates or changes the entry `key` of `type` in one entry change cycle:
 * open with write intent, find or create, slot lock, a new entry zero-filled,
 * `fill` (which sets every field it wants, the key included), unlock,
 * release.  *slot, when given, receives the entry's slot.  Returns the
 * cycle's result. */
cerrno WriteEntry(pmdb_type_t type, u32 key, const std::function<void(void *entry)> &fill,
                  i32 *slot = nullptr);

/* Removes the entry `key` of `type` as the library does: its slot lock is
 * retired (waiting while any process holds it), then the entry removed. */
cerrno RemoveEntry(pmdb_type_t type, u32 key);

/* Removes every entry of the three tables as RemoveEntry does and empties
 * this process's inventory list: an empty card for the next case of a
 * test that runs many in one namespace.  False when a removal failed. */
bool RemoveAllEntries();

/* A consistent copy of the first `len` bytes of the entry `key` of `type`,
 * as another process reads it from the table store, whatever the entry's
 * key field holds; false when absent.  *slot, when given, receives its
 * slot. */
bool CopyEntry(pmdb_type_t type, u32 key, void *out, u32 len, i32 *slot = nullptr);

/* The table slot of `key` in `type`'s table, -1 when absent. */
i32 SlotOf(pmdb_type_t type, u32 key);

}  // namespace pmdb::test

#endif
