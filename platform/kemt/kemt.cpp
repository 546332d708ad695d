/*
 * kemt.cpp - host thread-debug service: a process-wide table of the threads
 * that are waiting for a mutex, with counters per location.
 *
 * Concurrency contract: the waiter table and the location counters are read
 * and written only under `g_lock`.  `g_total` is a relaxed counter (no other
 * data is published through it).  The thread-local record of a thread's last
 * wait is touched only by that thread.  Nothing blocks except on `g_lock`,
 * which is held for a table scan at most.
 */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "kemt.h"

namespace {

constexpr int kWaiters = 256;
constexpr int kLocations = 128;

struct location_count {
    char location[KEMT_LOCATION_MAX];
    int line;
    uint64_t count;
    bool used;
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
kemt_wait_t g_waiters[kWaiters];
bool g_waiter_used[kWaiters];
location_count g_locations[kLocations];
std::atomic<uint64_t> g_total{0};

thread_local kemt_wait_t t_last;
thread_local bool t_has_last;
thread_local int t_slot = -1; /* index in g_waiters while waiting */

uint64_t mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

/* Caller holds g_lock. */
void count_location(const char *location, int line) {
    location_count *free_slot = nullptr;
    for (location_count &l : g_locations) {
        if (l.used && l.line == line && strcmp(l.location, location) == 0) {
            l.count++;
            return;
        }
        if (!l.used && free_slot == nullptr) free_slot = &l;
    }
    if (free_slot == nullptr) return; /* table full: only the total counts it */
    snprintf(free_slot->location, sizeof free_slot->location, "%s", location);
    free_slot->line = line;
    free_slot->count = 1;
    free_slot->used = true;
}

/* Caller holds g_lock; returns a free waiter slot or -1. */
int free_waiter() {
    for (int i = 0; i < kWaiters; i++) {
        if (!g_waiter_used[i]) return i;
    }
    return -1;
}

}  // namespace

extern "C" {

void kemt_set_mutex_block(void *mutex, const char *location, int line) {
    int64_t ignored = 0;
    if (pm_fault_enter("kemt_set_mutex_block", &ignored, (uint64_t)(uintptr_t)mutex,
                       (uint64_t)line, 0, 0)) {
        return;
    }
    kemt_wait_t w{};
    w.tid = (uint32_t)gettid();
    w.mutex = mutex;
    snprintf(w.location, sizeof w.location, "%s", location != nullptr ? location : "");
    w.line = line;
    w.since_ns = mono_ns();
    t_last = w;
    t_has_last = true;
    g_total.fetch_add(1, std::memory_order_relaxed);
    pthread_mutex_lock(&g_lock);
    if (t_slot < 0) t_slot = free_waiter();
    if (t_slot >= 0) {
        g_waiters[t_slot] = w;
        g_waiter_used[t_slot] = true;
    }
    count_location(w.location, line);
    pthread_mutex_unlock(&g_lock);
}

void kemt_unset_mutex_block(void) {
    int64_t ignored = 0;
    if (pm_fault_enter("kemt_unset_mutex_block", &ignored, 0, 0, 0, 0)) return;
    if (t_has_last && t_last.until_ns == 0) t_last.until_ns = mono_ns();
    if (t_slot < 0) return;
    pthread_mutex_lock(&g_lock);
    g_waiter_used[t_slot] = false;
    pthread_mutex_unlock(&g_lock);
    t_slot = -1;
}

size_t kemt_host_waiters(kemt_wait_t *out, size_t max) {
    size_t n = 0;
    pthread_mutex_lock(&g_lock);
    for (int i = 0; i < kWaiters; i++) {
        if (!g_waiter_used[i]) continue;
        if (out != nullptr && n < max) out[n] = g_waiters[i];
        n++;
    }
    pthread_mutex_unlock(&g_lock);
    return n;
}

uint64_t kemt_host_total_waits(void) { return g_total.load(std::memory_order_relaxed); }

uint64_t kemt_host_location_waits(const char *location, int line) {
    uint64_t n = 0;
    if (location == nullptr) return 0;
    pthread_mutex_lock(&g_lock);
    for (const location_count &l : g_locations) {
        const bool match = l.used && strcmp(l.location, location) == 0 && (line < 0 || l.line == line);
        if (match) n += l.count;
    }
    pthread_mutex_unlock(&g_lock);
    return n;
}

int kemt_host_last_wait(kemt_wait_t *out) {
    if (!t_has_last || out == nullptr) return -1;
    *out = t_last;
    return 0;
}

void kemt_host_reset(void) {
    pthread_mutex_lock(&g_lock);
    memset(g_locations, 0, sizeof g_locations);
    g_total.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_lock);
}

}  // extern "C"
