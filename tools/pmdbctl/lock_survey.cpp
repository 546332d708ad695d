// lock_survey.cpp - entry lock holders and how long they hold (see
// lock_survey.h).
#include "lock_survey.h"

#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>

#include "../../port-mapper/lib/pmdb/src/pmdb_lock_view.h"

namespace pmdbctl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kSampleStep = std::chrono::milliseconds(10);
constexpr int kConfirmTries = 3;

long Ms(Clock::duration d) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
}

// The lock's view, with the named thread looked up.  A holder found gone
// is only believed when the lock still names it afterwards: a thread that
// let go and then ended is not a lock left by a dead thread.
pmdb_lock_view_t Inspect(const pellin_mutex_type *lock, ThreadInfo *thread) {
    pmdb_lock_view_t v;
    pmdb_lock_inspect(lock, &v);
    for (int i = 0; i < kConfirmTries && v.held; i++) {
        *thread = LookUpThread(v.owner_tid);
        if (thread->alive) return v;
        pmdb_lock_view_t again;
        pmdb_lock_inspect(lock, &again);
        if (again.owner_tid == v.owner_tid) return v;
        v = again;
    }
    thread->alive = v.held;  // still changing hands: some live thread holds it
    return v;
}

}  // namespace

ThreadInfo LookUpThread(int tid) {
    ThreadInfo t;
    if (tid <= 0) return t;
    std::ifstream status("/proc/" + std::to_string(tid) + "/status");
    char state = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("State:", 0) == 0) sscanf(line.c_str(), "State: %c", &state);
        if (line.rfind("Tgid:", 0) == 0) sscanf(line.c_str(), "Tgid: %d", &t.pid);
    }
    // A zombie's locks were already handed to the kernel's dead-owner rule.
    t.alive = state != 0 && state != 'Z' && state != 'X';
    return t;
}

LockCounts SurveyLocks(const std::string &region, const dnx_pmdb_shrd_ctx_t *ctx,
                       std::vector<HeldLock> *held, std::vector<LeftLock> *left) {
    LockCounts n;
    for (u32 slot = 0; slot < PMDB_NUM_ENTRY_LOCKS; slot++) {
        ThreadInfo thread;
        const pmdb_lock_view_t v = Inspect(&ctx->entry_lock[slot], &thread);
        n.initialised += v.initialised;
        n.destroyed += v.destroyed;
        n.not_recoverable += v.not_recoverable;
        const bool gone = v.held && !thread.alive;
        n.dead_owner += v.owner_died || gone;
        n.held += v.held && !gone;
        if (left != nullptr && !v.held && (v.owner_died || v.not_recoverable))
            left->push_back({region, slot, v.not_recoverable != 0});
        if (!v.held) continue;
        HeldLock h;
        h.lock = &ctx->entry_lock[slot];
        h.region = region;
        h.slot = slot;
        h.tid = v.owner_tid;
        h.thread = thread;
        h.first_seen = Clock::now();
        held->push_back(h);
    }
    return n;
}

size_t LiveHolders(const std::vector<HeldLock> &held) {
    return static_cast<size_t>(std::count_if(held.begin(), held.end(), [](const HeldLock &h) {
        return h.thread.alive && h.still_held;
    }));
}

void WatchLocks(std::vector<HeldLock> &held, std::chrono::milliseconds bound) {
    const Clock::time_point end = Clock::now() + bound;
    while (LiveHolders(held) != 0 && Clock::now() < end) {
        std::this_thread::sleep_for(std::min<Clock::duration>(kSampleStep, end - Clock::now()));
        // Taken before the samples: each span ends no later than its sample.
        const Clock::time_point now = Clock::now();
        for (HeldLock &h : held) {
            if (!h.thread.alive || !h.still_held) continue;
            pmdb_lock_view_t v;
            pmdb_lock_inspect(h.lock, &v);
            h.still_held = v.owner_tid == h.tid;
            if (h.still_held) h.held_ms = Ms(now - h.first_seen);
        }
    }
    for (HeldLock &h : held)
        if (h.still_held) h.thread = LookUpThread(h.tid);
}

std::string HolderText(int tid, const ThreadInfo &t) {
    if (tid == 0) return "no thread (the lock names none)";
    std::string s = t.pid != 0 ? "pid " + std::to_string(t.pid) + " " : "";
    s += "tid " + std::to_string(tid);
    return s + (t.alive ? " (alive)" : " (gone)");
}

}  // namespace pmdbctl
