// Helpers of the frame tests: the host call log, and raw access to a
// region's shared-memory object to prepare states the library must cope
// with (a creator that died before writing the magic, a stale semaphore).
#ifndef PMDB_TESTS_FRAME_SUPPORT_H
#define PMDB_TESTS_FRAME_SUPPORT_H

#include <semaphore.h>

#include <string>
#include <vector>

#include "host/pm_fault.h"
#include "pmdb.h"

namespace frame_test {

// The recorded opens of region objects (the table store opens objects of
// its own through the same call; regions are opened with mode 0777).
std::vector<pm_call_rec_t> RegionObjectOpens();

// Maps the region object `name` of the current namespace read-write,
// creating and sizing it as the library would; aborts the test on failure.
dnx_pmdb_shrd_ctx_t *MapRegionObject(const char *name);
// Size in bytes of the region object `name` (-1 when absent).
long long RegionObjectSize(const char *name);
// A region whose creator died before zeroing it: garbage, no magic.
void MakeGarbageRegion(dnx_pmdb_shrd_ctx_t *ctx);
// True when all of the region's contents past the magic are zero.
bool RegionContentsZero(const dnx_pmdb_shrd_ctx_t *ctx);

// Waits (up to 10 s) until process `pid` sleeps in a futex wait - for
// these tests' children, the region semaphore.  False on timeout.
bool WaitUntilBlockedOnFutex(int pid);

// The region semaphore of the current namespace, created if needed.
sem_t *OpenRegionSemaphore();

}  // namespace frame_test

#endif
