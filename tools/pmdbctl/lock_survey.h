// lock_survey.h - who holds the entry locks of a shared context region, as
// another process can tell without taking them (pmdbctl regions, check).
//
// What a lock's bytes say is read through pmdb_lock_view.h; whether its
// holder still exists, and its process, come from /proc.  A lock records
// no time, so how long it has been held is found by looking again: Watch
// samples the held locks until its bound passes or none of them is held by
// a live thread any more.  A lock seen held by the same thread at every
// sample over N ms has been held "for at least N ms" - or let go and taken
// again by that same thread between two samples, which nothing in the lock
// tells apart.
#ifndef PMDBCTL_LOCK_SURVEY_H
#define PMDBCTL_LOCK_SURVEY_H

#include <chrono>
#include <string>
#include <vector>

#include "pmdb.h"

namespace pmdbctl {

struct ThreadInfo {
    bool alive = false;  // the thread exists and is not a zombie
    int pid = 0;         // its process (Tgid); 0 when unknown
};
ThreadInfo LookUpThread(int tid);

// One held lock: the thread its bytes name, and what sampling saw.
struct HeldLock {
    const pellin_mutex_type *lock = nullptr;  // in a mapping the caller keeps
    std::string region;                       // the region's object name
    u32 slot = 0;
    int tid = 0;
    ThreadInfo thread;
    bool still_held = true;  // held by tid at every sample so far
    long held_ms = 0;        // span of the samples that saw it held by tid
    std::chrono::steady_clock::time_point first_seen;
};

// A lock nobody holds that a holder left behind: the kernel marked it when
// its holder died (the next locker makes it consistent and may find its
// entry half changed), or a holder let it go without making it consistent
// (no one can take it again).
struct LeftLock {
    std::string region;
    u32 slot = 0;
    bool not_recoverable = false;
};

struct LockCounts {
    unsigned initialised = 0, held = 0, dead_owner = 0, not_recoverable = 0, destroyed = 0;
};

// Counts the lock states of region `ctx` (named `region`) and appends its
// held locks to *held.  A lock counts as left by a dead owner when the
// kernel marked it so, or when it names a thread that no longer exists
// (confirmed by reading the lock again after looking the thread up).  With
// `left`, the locks that holders left behind are appended to it.
LockCounts SurveyLocks(const std::string &region, const dnx_pmdb_shrd_ctx_t *ctx,
                       std::vector<HeldLock> *held, std::vector<LeftLock> *left = nullptr);

// Samples the locks of `held` held by live threads until `bound` has
// passed or none is held by its thread any more; updates still_held and
// held_ms.  Returns at once when no live thread holds one.
void WatchLocks(std::vector<HeldLock> &held, std::chrono::milliseconds bound);
// How many of `held` a live thread holds (what WatchLocks would wait on).
size_t LiveHolders(const std::vector<HeldLock> &held);

// "pid 12 tid 13 (alive)", "tid 13 (gone)"; for tid 0 "no thread ...".
std::string HolderText(int tid, const ThreadInfo &t);

}  // namespace pmdbctl

#endif
