/*
 * fault.cpp - fault injection and call log of the host platform services.
 *
 * Concurrency contract:
 *   - `g_armed` (relaxed) is the number of armed entries; it is only a hint
 *     that lets an unarmed pm_fault_hit() return after one load.  It is
 *     written under `g_fault_lock`; a hit that races with pm_fault_set() may
 *     miss the arming, which is acceptable because tests arm before acting.
 *   - The armed table and every field in it are read and written only under
 *     `g_fault_lock`.
 *   - `g_log_on` (relaxed) gates logging; the log array and its counters are
 *     written and read only under `g_log_lock`.
 *   - `pm_fault_hooks` (relaxed) is armed entries plus 1 while the log is on,
 *     kept by atomic additions of the changes (each made under the lock of
 *     its part), so the two parts never overwrite each other's share.
 * The two locks are never held together.
 */
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "host/pm_fault.h"

int pm_fault_hooks = 0; /* declared extern "C" in pm_fault.h */

namespace {

/* An armed call fails with `result`; a step (fn set) runs fn instead. */
struct armed_call {
    char call[48];
    int64_t result;
    int count; /* > 0 remaining hits, < 0 every hit, 0 free slot */
    pm_fault_step_fn fn;
    void *ctx;
};

pthread_mutex_t g_fault_lock = PTHREAD_MUTEX_INITIALIZER;
armed_call g_table[PM_FAULT_MAX_ARMED];
std::atomic<int> g_armed{0};

pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;
pm_call_rec_t g_log[PM_CALLLOG_CAPACITY];
size_t g_log_count; /* records noted since the last clear, kept or not */
std::atomic<bool> g_log_on{false};

void add_hooks(int delta) {
    if (delta != 0) __atomic_fetch_add(&pm_fault_hooks, delta, __ATOMIC_RELAXED);
}

/* Caller holds g_fault_lock. */
armed_call *find_slot(const char *call) {
    for (armed_call &a : g_table) {
        if (a.count != 0 && strncmp(a.call, call, sizeof a.call) == 0) return &a;
    }
    return nullptr;
}

/* Caller holds g_fault_lock. */
armed_call *free_slot() {
    for (armed_call &a : g_table) {
        if (a.count == 0) return &a;
    }
    return nullptr;
}

/* Caller holds g_fault_lock. */
void recount_armed() {
    int n = 0;
    for (const armed_call &a : g_table) n += a.count != 0 ? 1 : 0;
    add_hooks(n - g_armed.exchange(n, std::memory_order_relaxed));
}

uint64_t mono_now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

extern "C" {

namespace {

void arm(const char *call, int64_t result, pm_fault_step_fn fn, void *ctx, int count) {
    if (call == nullptr) return;
    pthread_mutex_lock(&g_fault_lock);
    armed_call *slot = find_slot(call);
    if (slot == nullptr && count != 0) slot = free_slot();
    if (slot != nullptr) {
        strncpy(slot->call, call, sizeof slot->call - 1);
        slot->call[sizeof slot->call - 1] = '\0';
        slot->result = result;
        slot->count = count;
        slot->fn = fn;
        slot->ctx = ctx;
    }
    recount_armed();
    pthread_mutex_unlock(&g_fault_lock);
}

/* Consumes one pass of `call`: nonzero when armed, with its entry copied. */
int take(const char *call, armed_call *out) {
    if (g_armed.load(std::memory_order_relaxed) == 0 || call == nullptr) return 0;
    int hit = 0;
    pthread_mutex_lock(&g_fault_lock);
    armed_call *slot = find_slot(call);
    if (slot != nullptr) {
        hit = 1;
        *out = *slot;
        if (slot->count > 0) slot->count--;
        recount_armed();
    }
    pthread_mutex_unlock(&g_fault_lock);
    return hit;
}

}  // namespace

void pm_fault_set(const char *call, int64_t result, int count) {
    arm(call, result, nullptr, nullptr, count);
}

void pm_fault_on_step(const char *step, pm_fault_step_fn fn, void *ctx, int count) {
    arm(step, 0, fn, ctx, fn != nullptr ? count : 0);
}

void pm_fault_step(const char *step, uint64_t a0, uint64_t a1) {
    armed_call a{};
    /* Run outside the lock: the step's code may itself make platform calls. */
    if (take(step, &a) != 0 && a.fn != nullptr) a.fn(a.ctx, a0, a1);
}

void pm_fault_clear(void) {
    pthread_mutex_lock(&g_fault_lock);
    memset(g_table, 0, sizeof g_table);
    add_hooks(-g_armed.exchange(0, std::memory_order_relaxed));
    pthread_mutex_unlock(&g_fault_lock);
}

int pm_fault_hit(const char *call, int64_t *result) {
    armed_call a{};
    if (take(call, &a) == 0) return 0;
    if (result != nullptr) *result = a.result;
    return 1;
}

void pm_calllog_enable(int on) {
    pthread_mutex_lock(&g_log_lock);
    const bool was = g_log_on.exchange(on != 0, std::memory_order_relaxed);
    add_hooks((on != 0 ? 1 : 0) - (was ? 1 : 0));
    pthread_mutex_unlock(&g_log_lock);
}

void pm_calllog_clear(void) {
    pthread_mutex_lock(&g_log_lock);
    g_log_count = 0;
    pthread_mutex_unlock(&g_log_lock);
}

void pm_calllog_note(const char *call, uint64_t a0, uint64_t a1, uint64_t a2, uint64_t a3) {
    if (!g_log_on.load(std::memory_order_relaxed) || call == nullptr) return;
    const uint64_t now = mono_now_ns();
    pthread_mutex_lock(&g_log_lock);
    if (g_log_count < PM_CALLLOG_CAPACITY) {
        pm_call_rec_t &r = g_log[g_log_count];
        strncpy(r.call, call, sizeof r.call - 1);
        r.call[sizeof r.call - 1] = '\0';
        r.args[0] = a0;
        r.args[1] = a1;
        r.args[2] = a2;
        r.args[3] = a3;
        r.mono_ns = now;
    }
    g_log_count++;
    pthread_mutex_unlock(&g_log_lock);
}

size_t pm_calllog_get(pm_call_rec_t *out, size_t max) {
    pthread_mutex_lock(&g_log_lock);
    const size_t kept = g_log_count < PM_CALLLOG_CAPACITY ? g_log_count : PM_CALLLOG_CAPACITY;
    const size_t n = kept < max ? kept : max;
    if (out != nullptr && n > 0) memcpy(out, g_log, n * sizeof *out);
    const size_t total = g_log_count;
    pthread_mutex_unlock(&g_log_lock);
    return total;
}

int pm_fault_enter(const char *call, int64_t *result, uint64_t a0, uint64_t a1, uint64_t a2,
                   uint64_t a3) {
    pm_calllog_note(call, a0, a1, a2, a3);
    return pm_fault_hit(call, result);
}

}  // extern "C"
