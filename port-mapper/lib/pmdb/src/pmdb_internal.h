/*
 * pmdb_internal.h - names shared between the library's own source files.
 *
 * Nothing here is exported from libpmdb.so (the objects are built with
 * hidden visibility and pmdb.map lists only the public names); the static
 * archive pmdb_static gives tests and tools access to them.
 *
 * Ownership: the configuration table and the per-type process state belong
 * to dnx_pmdb_init.cpp; the other files reach a database only through a
 * handle obtained from dpa_chk_pmdb_open / dpa_chk_shrd_ctx_open.
 */
#ifndef PMDB_SRC_INTERNAL_H
#define PMDB_SRC_INTERNAL_H

#include <assert.h>
#include <pthread.h>

#include "pmdb.h"

#ifdef NDEBUG
/* The library's fatal assertions stay on in every build; <assert.h> leaves
 * glibc's failure entry undeclared under NDEBUG. */
extern "C" void __assert_fail(const char *assertion, const char *file, unsigned int line,
                              const char *function) __THROW __attribute__((__noreturn__));
#endif

/* Path and prototype strings of the fatal assertions: they are what an
 * operator greps for in a crash log, so they are fixed texts. */
#define PMDB_INIT_SRC_FILE "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_init"
#define PMDB_LOCK_SRC_FILE "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_lock"

/* Trace points of the frame that have no fixed number elsewhere:
 *   72  error  string: region name, wait bound in ms
 *       the region semaphore stayed taken for the whole bound (its holder
 *       died or hangs); it is unlinked and the wait starts over.
 *   73  error  configured max_entries, the bound used instead (65536)
 *       the system properties asked for more entries than a region has
 *       entry locks. */

#ifdef __cplusplus
extern "C" {
#endif

/* ---- database frame (dnx_pmdb_init.cpp) -------------------------------- */

/* Static per-type configuration; max_entries is refreshed in place. */
extern dnx_db_cfg_t pmdb_cfg[PMDB_NUM_TYPES];

/* Table-store hash: the low 16 bits of the key. */
u32 dpa_pmdb_key_hash(u32 key);

/* Size of a region's shared-memory object: shm_size rounded up to whole
 * pages of `page` bytes. */
i64 pmdb_region_length(i32 shm_size, i64 page);

/* Creates or opens, sizes and maps cfg's region and stores the mapping in
 * hdl->shrd_ctx; zeroes it once per machine.  Caller holds pmdb_init_mutex
 * and hdl->shrd_ctx is null.  0, PMDB_ENOMEM (mapping) or PMDB_ESHM. */
cerrno dpa_pmdb_shrd_ctx_map(const dnx_db_cfg_t *cfg, dnx_db_hdl_t *hdl);

/* Write-enable step of an open with write intent: counts the writer in and
 * makes the table store writable if this process had protected it. */
cerrno dpa_pmdb_munprotect_tabra(dnx_db_hdl_t *hdl, pmdb_type_t type);

/* This process's writable-reference count of a type (tests, tools). */
i32 pmdb_frame_wr_refcnt(pmdb_type_t type);

/* Bound of one wait for the region semaphore, in milliseconds (default
 * PMDB_SEM_WAIT_MS_DEFAULT); 0 restores the default.  Tests shorten it. */
#define PMDB_SEM_WAIT_MS_DEFAULT 5000u
void pmdb_frame_set_sem_wait_ms(u32 ms);

/* `clock`'s now plus `ms` milliseconds: the deadline of a bounded wait. */
struct timespec pmdb_deadline(clockid_t clock, u32 ms);

/* ---- locks (dnx_pmdb_lock.cpp) ----------------------------------------- */

/* Takes a mutex the library's way: try-lock; when busy, register the wait
 * with the thread-debug service under (location, line), block, unregister.
 * A caller that already holds an error-checking or plain mutex gets EDEADLK
 * at once instead of blocking on itself.  Returns the lock's result. */
int pmdb_mutex_take(pthread_mutex_t *mutex, const char *location, int line);

#ifdef __cplusplus
}
#endif

#endif
