/*
 * reader_access.cpp - consistent copies of single table entries.
 *
 * The reader reaches each database through two shared objects that writers
 * create: the table in the table store (attached, never created) and the
 * type's shared context region (mapped read-write, never created, sized or
 * zeroed here), whose entry_lock[slot] is the lock writers hold while they
 * change the entry in that slot.
 *
 * Copy protocol (copy(), copy_fixed()).  First the lock-free path: the entry
 * is copied "at rest" straight into the caller's buffer, which counts when no
 * process has had the entry open for writing during the copy (every writer
 * obtains the entry from the store while its mapping is writable, and the
 * store counts that until the writer's next protection call).  The first
 * attempt runs inline here, on the table's view (tabra_rest.h), so that a
 * lookup of an entry at rest makes no call at all; every later attempt goes
 * through the store's exported copy.  Both check that the record holds its
 * key (see written()): one that does not is missing, and the buffer is not
 * touched.
 * Copying straight into the caller's buffer, rather than into a local one
 * first, halves the bytes a lookup stores; the price is that an attempt
 * overtaken by a writer may leave part of the entry in the buffer, which
 * only matters when the call then fails (see the header).  An entry that
 * some process has open for writing is tried again for up to kAtRestWaitNs
 * (a writer's window lasts a few microseconds), and only one that stays
 * open longer (a long window, or a writer that died inside one) takes the
 * locked path, which copies into a local buffer first:
 *   1. look the key up in the table store and pin its slot s (released at
 *      the end of each pass): s and the entry's address;
 *   1a. leave the lock alone while the record does not hold its key: the
 *      entry is being made (the library's writers have the table store
 *      initialise the slot lock before the key can be found, but a writer
 *      of another kind may initialise it afterwards, and a lock being
 *      initialised must not be touched: an attempt racing with the
 *      initialisation can take it as a plain mutex that nobody can release,
 *      or lose it to the initialiser while the robust list still names it);
 *      such a record found twice in the same slot counts as missing
 *      (step 5);
 *   2. take entry_lock[s]: try-lock, then a wait bounded by g_wait_ms;
 *   3. copy the record into a local buffer and release the lock;
 *   4. keep the copy only when the release succeeded (the lock was not
 *      retired under us) and the record's own key field is the key: a
 *      holder of the slot lock keeps the occupant of the slot fixed (a
 *      removal must retire the lock first, which waits for every holder), so
 *      a record with another key means the slot was re-used between the
 *      lookup and the lock, and the lookup starts again;
 *   5. a record without its key that the lookup finds twice in the same slot
 *      is an entry not written yet (the table store zero-fills a new entry
 *      before its writer fills it): it counts as missing.
 *   Only a kept copy reaches the caller's buffer.
 * A lock that is not usable (never initialised: the entry is being created;
 * retired: the entry is being removed; not recoverable) is not waited on: the
 * key is looked up again after a short pause until the entry is gone (not
 * found) or the wait bound has passed (busy).
 * Steps 1a to 3 run with the slot pinned in the table store
 * (tabra_pin_slot), which keeps it from passing to another key.  Without
 * the pin a writer could remove the entry, add another key in the same slot
 * and re-initialise its lock (zeroed, then initialised) between the checks
 * of step 1a and the lock call of step 2; a lock call that reads the lock's
 * kind while it is zero takes the plain-mutex path, which sleeps on a
 * private futex that no writer wakes, or leaves a bogus owner in the futex
 * word.  A writer that rebuilds a broken lock (pmdb_entry_lock) does so
 * while it owns the lock's futex word, so a rebuild never wipes a reader's
 * hold.
 *
 * Concurrency contract of this file:
 *   - g_table[t], g_region[t]: null until attached / mapped, then set once
 *     (release) under g_attach_lock and never changed; the fast path's
 *     acquire loads pair with those stores.  Neither is ever unmapped.
 *   - g_rest[t]: null until both are set and the store gave a view, then
 *     points (release, under g_attach_lock) at g_rest_state[t], written
 *     only before that store and never again.
 *   - region magic: read with acquire; pairs with the creator's store of the
 *     magic after zeroing the region.
 *   - g_wait_ms and the counters of rare events: relaxed; they order
 *     nothing.  The per-thread copy tallies: see `tally` below.
 *   - Slot locks: this library holds at most one at a time, only for the copy
 *     of one record, runs no callback while holding it, and never initialises,
 *     repairs or destroys one (the writers own their life cycle).  A lock
 *     whose holder died is made consistent here, since we then hold it.
 *   - g_attach_lock is process-local and held only around attach and map.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <sched.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "kemt.h"
#include "pmdb_fields.h"
#include "reader_internal.h"
#include "host/pm_fault.h"
#include "tabra.h"
#include "tabra_rest.h"
#include "vorn_os.h"

namespace pmdb_reader {
namespace {

using pmdb_fields::kEntrySize;
using pmdb_fields::kRegionName;
using pmdb_fields::kTableName;

constexpr long kRetryPauseNs = 2000;
constexpr u64 kAtRestWaitNs = 200000;

std::atomic<tabra_hdl_t> g_table[PMDB_NUM_TYPES];
std::atomic<dnx_pmdb_shrd_ctx_t *> g_region[PMDB_NUM_TYPES];

/* What a lookup's first attempt needs of a type, in one place: a view of the
 * table's mappings (tabra_rest.h) and the region's magic. */
struct rest_state {
    tabra_rest_view_t view;
    const u32 *magic;
};
rest_state g_rest_state[PMDB_NUM_TYPES];
std::atomic<const rest_state *> g_rest[PMDB_NUM_TYPES];
pthread_mutex_t g_attach_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<u32> g_wait_ms{PMDB_READER_LOCK_WAIT_MS_DEFAULT};

/* Counters of the rare events (everything but plain copies). */
struct counters {
    std::atomic<u64> owner_dead, busy, retries, lock_lost, locked_copies;
};
counters g_count;

void bump(std::atomic<u64> &c) { c.fetch_add(1, std::memory_order_relaxed); }

/* Copies are counted per thread: a shared counter would cost a locked add
 * per copy, a full barrier on x86 that stops the processor from overlapping
 * the memory misses of consecutive lookups.  Each thread's tally is written
 * only by that thread (relaxed load and store, no locked instruction) and
 * read by dpa_pmdb_reader_get_stats under g_tally_lock, which also guards
 * the list and g_ended_copies (the tallies of threads that have ended). */
/* A thread's tally lives in the heap, linked into g_tallies on its first
 * copy and folded into g_ended_copies when the thread ends (the key's
 * destructor).  The thread finds it through an initial-exec thread pointer:
 * one load, where a thread_local object with a constructor would cost a
 * call per copy. */
struct tally {
    std::atomic<u64> copies{0};
    tally *prev = nullptr;
    tally *next = nullptr;
};
pthread_mutex_t g_tally_lock = PTHREAD_MUTEX_INITIALIZER;
tally *g_tallies;
u64 g_ended_copies;
pthread_key_t g_tally_key;
pthread_once_t g_tally_once = PTHREAD_ONCE_INIT;
__thread tally *t_tally __attribute__((tls_model("initial-exec")));

void tally_end(void *p) {
    auto *t = static_cast<tally *>(p);
    pthread_mutex_lock(&g_tally_lock);
    g_ended_copies += t->copies.load(std::memory_order_relaxed);
    if (t->prev != nullptr) t->prev->next = t->next;
    if (t->next != nullptr) t->next->prev = t->prev;
    if (g_tallies == t) g_tallies = t->next;
    pthread_mutex_unlock(&g_tally_lock);
    delete t;
}

void tally_key_create() { pthread_key_create(&g_tally_key, tally_end); }

/* This thread's tally, made on first use; null only when out of memory. */
__attribute__((noinline)) tally *tally_start() {
    pthread_once(&g_tally_once, tally_key_create);
    auto *t = new (std::nothrow) tally;
    if (t == nullptr) return nullptr;
    pthread_mutex_lock(&g_tally_lock);
    t->next = g_tallies;
    if (t->next != nullptr) t->next->prev = t;
    g_tallies = t;
    pthread_mutex_unlock(&g_tally_lock);
    pthread_setspecific(g_tally_key, t);
    t_tally = t;
    return t;
}

void add_copy(tally *t) {
    t->copies.store(t->copies.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

/* This thread's first copy: its tally is made now.  PMDB_OK. */
__attribute__((noinline)) cerrno count_first_copy() {
    tally *t = tally_start();
    if (t != nullptr) add_copy(t);
    return PMDB_OK;
}

/* Counts a successful copy and returns PMDB_OK; the first one of a thread is
 * a tail call, so a lookup's hot path calls nothing. */
inline __attribute__((always_inline)) cerrno counted_copy() {
    tally *t = t_tally;
    if (__builtin_expect(t == nullptr, 0)) return count_first_copy();
    add_copy(t);
    return PMDB_OK;
}

u64 total_copies() {
    pthread_mutex_lock(&g_tally_lock);
    u64 n = g_ended_copies;
    for (const tally *t = g_tallies; t != nullptr; t = t->next) n += t->copies.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&g_tally_lock);
    return n;
}

#ifdef __GLIBC__
/* glibc's mutex kind word: -1 once destroyed, the robust bit once initialised
 * by a writer (a zeroed slot lock is a valid plain mutex that would not keep
 * writers out, so it must not count as the entry's lock). */
static_assert(offsetof(pthread_mutex_t, __data.__kind) == 16, "glibc mutex kind");
constexpr int kKindRobust = 16;
bool lock_usable(const pellin_mutex_type *lock) {
    const int kind = __atomic_load_n(&lock->__data.__kind, __ATOMIC_RELAXED);
    return kind != -1 && (kind & kKindRobust) != 0;
}

/* glibc's try-lock of a lock that is not recoverable (one being retired)
 * answers ENOTRECOVERABLE with the futex word still naming the caller.  A
 * reader does not repair locks: it gives the word back (release, pairs with
 * the next owner's acquire) and wakes the waiters, or every writer would
 * wait for this thread for ever. */
void give_back_word(pellin_mutex_type *lock) {
    constexpr unsigned kTidMask = 0x3fffffffu;
    int *word = &lock->__data.__lock;
    if ((static_cast<unsigned>(__atomic_load_n(word, __ATOMIC_RELAXED)) & kTidMask) !=
        static_cast<unsigned>(gettid()))
        return;
    __atomic_exchange_n(word, 0, __ATOMIC_RELEASE);
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
#else
bool lock_usable(const pellin_mutex_type *) { return true; }
void give_back_word(pellin_mutex_type *) {}
#endif

/* The wait bound of one copy, started at the first wait.  Measured on the
 * monotonic clock, so that a change of the wall clock neither stretches nor
 * cuts a wait. */
constexpr clockid_t kWaitClock = CLOCK_MONOTONIC;

class wait_budget {
public:
    const timespec *deadline() {
        if (!armed_) {
            clock_gettime(kWaitClock, &deadline_);
            const u64 ns = static_cast<u64>(g_wait_ms.load(std::memory_order_relaxed)) * 1000000u +
                           static_cast<u64>(deadline_.tv_nsec);
            deadline_.tv_sec += static_cast<time_t>(ns / 1000000000u);
            deadline_.tv_nsec = static_cast<long>(ns % 1000000000u);
            armed_ = true;
        }
        return &deadline_;
    }
    bool spent() {
        const timespec *end = deadline();
        timespec now;
        clock_gettime(kWaitClock, &now);
        return now.tv_sec > end->tv_sec || (now.tv_sec == end->tv_sec && now.tv_nsec >= end->tv_nsec);
    }

private:
    bool armed_ = false;
    timespec deadline_{};
};

enum class hold { held, by_caller, unusable, busy };

hold classify(pellin_mutex_type *lock, int rc) {
    if (rc == 0) return hold::held;
    if (rc == EOWNERDEAD) {
        /* We hold it now; the entry keeps whatever the dead writer left. */
        bump(g_count.owner_dead);
        if (pthread_mutex_consistent_np(lock) == 0) return hold::held;
        pthread_mutex_unlock(lock);
        return hold::busy;
    }
    if (rc == EDEADLK) return hold::by_caller; /* this thread is the writer */
    if (rc == ENOTRECOVERABLE) give_back_word(lock);
    if (rc == EINVAL || rc == ENOTRECOVERABLE) return hold::unusable;
    return hold::busy; /* ETIMEDOUT and anything unexpected */
}

hold take_slot_lock(pellin_mutex_type *lock, wait_budget &budget) {
    if (!lock_usable(lock)) return hold::unusable;
    int rc = pthread_mutex_trylock(lock);
    if (rc == EBUSY) {
        kemt_set_mutex_block(lock, "dpa_pmdb_reader_copy", __LINE__);
        rc = pthread_mutex_clocklock(lock, kWaitClock, budget.deadline());
        kemt_unset_mutex_block();
    }
    return classify(lock, rc);
}

/* Starts loading the entry's cache lines so that they arrive while the
 * slot lock is taken: a lookup then waits for memory about once, not once per
 * step. */
void prefetch(const void *entry, u32 len) {
    const char *p = static_cast<const char *>(entry);
    for (u32 off = 0; off < len; off += 64) __builtin_prefetch(p + off);
}

void pause_before_retry() {
    const timespec ts{0, kRetryPauseNs};
    nanosleep(&ts, nullptr);
}

dnx_pmdb_shrd_ctx_t *map_region(const char *name) {
    const int fd = _shm_open(name, O_RDWR, 0);
    if (fd < 0) return nullptr;
    void *map = MAP_FAILED;
    struct stat st;
    /* A region still being sized by its creator is not mapped: touching the
     * pages beyond its end would fault. */
    if (fstat(fd, &st) == 0 && st.st_size >= PMDB_SHM_SIZE)
        map = vornos_mmap(nullptr, PMDB_SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    vorn_close(fd);
    return map == MAP_FAILED ? nullptr : static_cast<dnx_pmdb_shrd_ctx_t *>(map);
}

cerrno attach(pmdb_type_t type) {
    cerrno rc = PMDB_OK;
    pthread_mutex_lock(&g_attach_lock);
    if (g_table[type].load(std::memory_order_relaxed) == nullptr) {
        tabra_hdl_t table = nullptr;
        rc = tabra_attach_hashed(kTableName[type], pmdb_fields::key_hash, &table);
        if (rc == PMDB_OK) g_table[type].store(table, std::memory_order_release);
        if (rc == TABRA_E_NOTFOUND) rc = PMDB_ENOTFOUND;
    }
    if (rc == PMDB_OK && g_region[type].load(std::memory_order_relaxed) == nullptr) {
        dnx_pmdb_shrd_ctx_t *region = map_region(kRegionName[type]);
        if (region != nullptr) g_region[type].store(region, std::memory_order_release);
        if (region == nullptr) rc = PMDB_ENOTFOUND;
    }
    if (rc == PMDB_OK && g_rest[type].load(std::memory_order_relaxed) == nullptr) {
        /* Without a view (a table store of another format) every lookup
         * takes the store's exported copy. */
        rest_state &r = g_rest_state[type];
        r.magic = &g_region[type].load(std::memory_order_relaxed)->magic;
        if (tabra_rest_view(g_table[type].load(std::memory_order_relaxed), TABRA_SHM_FORMAT,
                            &r.view) == 0)
            g_rest[type].store(&r, std::memory_order_release);
    }
    pthread_mutex_unlock(&g_attach_lock);
    return rc;
}

bool valid_type(pmdb_type_t type) { return static_cast<unsigned>(type) < PMDB_NUM_TYPES; }

/* Step 3 of the copy protocol.  False when the lock was retired under us. */
bool copy_held(pellin_mutex_type *lock, hold how, const void *entry, void *local, u32 len) {
    memcpy(local, entry, len);
    const bool released = how != hold::held || pthread_mutex_unlock(lock) == 0;
    if (!released) bump(g_count.lock_lost);
    return released;
}

/* Every record starts with the key it is stored under, written by the first
 * change of the entry.  A record that does not hold its key yet is an entry
 * that the table store has made and its writer has not filled (or that only
 * a MAC-only event touched): it counts as missing. */
bool written(const unsigned char *record, u32 key) {
    u32 stored;
    memcpy(&stored, record, sizeof stored);
    return stored == key;
}

}  // namespace

u32 entry_size(pmdb_type_t type) { return valid_type(type) ? kEntrySize[type] : 0; }

cerrno ready(pmdb_type_t type) {
    if (!valid_type(type)) return PMDB_EINVAL;
    dnx_pmdb_shrd_ctx_t *region = g_region[type].load(std::memory_order_acquire);
    if (region == nullptr || g_table[type].load(std::memory_order_acquire) == nullptr) {
        const cerrno rc = attach(type);
        if (rc != PMDB_OK) return rc;
        region = g_region[type].load(std::memory_order_acquire);
    }
    const u32 magic = __atomic_load_n(&region->magic, __ATOMIC_ACQUIRE);
    return magic == PMDB_SHRD_CTX_MAGIC ? PMDB_OK : PMDB_ENOTFOUND;
}

namespace {

/* Hands the asked part of a consistent copy made under the lock to the
 * caller. */
cerrno deliver(const unsigned char *local, void *out, u32 from, u32 len) {
    memcpy(out, local + from, len);
    return counted_copy();
}

u64 mono_ns() {
    timespec ts;
    clock_gettime(kWaitClock, &ts);
    return static_cast<u64>(ts.tv_sec) * 1000000000u + static_cast<u64>(ts.tv_nsec);
}

/* The first at-rest attempt failed with `rc` (TABRA_E_WRITING): tries again
 * while another process's window is open on the entry, for up to
 * kAtRestWaitNs.  A window of this process is not waited for: it does not
 * close while this thread waits. */
cerrno wait_at_rest(tabra_hdl_t table, u32 key, void *out, u32 from, u32 len) {
    cerrno rc = TABRA_E_WRITING;
    if (tabra_entry_open_here(table, key)) return rc;
    for (const u64 end = mono_ns() + kAtRestWaitNs; rc == TABRA_E_WRITING && mono_ns() < end;) {
        sched_yield();
        rc = tabra_copy_entry_at_rest(table, key, out, from, len, TABRA_COPY_KEYED);
    }
    return rc;
}

/* How one pass of steps 1a to 3 on a pinned slot ended. */
enum class pass {
    keyless, /* 1a: the record does not hold its key; the lock left alone */
    copied,  /* 3: a copy made under the lock, to be checked */
    missed,  /* 2: the lock was not usable, or retired under us */
    busy,    /* 2: the lock stayed held beyond the wait bound */
};

/* Steps 1a to 3 on `slot`, which the caller keeps pinned, so that its lock
 * is neither re-initialised nor given to another key meanwhile. */
pass slot_pass(pellin_mutex_type *lock, u32 key, const void *entry, u32 copy_len,
               wait_budget &budget, unsigned char *local) {
    /* Acquire: pairs with the writer's unlock that follows its store of the
     * key, itself after the lock's initialisation. */
    if (__atomic_load_n(static_cast<const u32 *>(entry), __ATOMIC_ACQUIRE) != key)
        return pass::keyless;
    prefetch(entry, copy_len);
    const hold how = take_slot_lock(lock, budget);
    if (how == hold::busy) return pass::busy;
    const bool copied = how != hold::unusable && copy_held(lock, how, entry, local, copy_len);
    return copied ? pass::copied : pass::missed;
}

/* Steps 1 to 5 of the copy protocol, under the slot lock. */
cerrno copy_locked(tabra_hdl_t table, dnx_pmdb_shrd_ctx_t *region, u32 key, void *out, u32 from,
                   u32 len, u32 copy_len) {
    alignas(16) unsigned char local[kMaxEntrySize];
    wait_budget budget;
    bump(g_count.locked_copies);
    i32 unwritten = -1; /* slot last seen holding a record without its key */
    for (;;) {
        const void *entry = nullptr;
        i32 slot = -1;
        const cerrno rc = tabra_pin_slot(table, key, &entry, &slot);
        if (rc != PMDB_OK) return rc == TABRA_E_NOTFOUND ? PMDB_ENOTFOUND : rc;
        const bool valid = static_cast<u32>(slot) < PMDB_NUM_ENTRY_LOCKS;
        const pass p = valid ? slot_pass(&region->entry_lock[slot], key, entry, copy_len, budget,
                                         local)
                             : pass::busy;
        tabra_unpin_slot(table, slot);
        if (!valid) return TABRA_E_CORRUPT;
        if (p == pass::busy) break;
        if (p == pass::copied && written(local, key)) return deliver(local, out, from, len);
        /* A record without its key, before the lock or in the copy. */
        if (p != pass::missed && slot == unwritten) return PMDB_ENOTFOUND;
        if (p != pass::missed) unwritten = slot;
        bump(g_count.retries);
        if (budget.spent()) break;
        if (p != pass::copied) pause_before_retry();
    }
    bump(g_count.busy);
    return PMDB_EBUSY;
}

}  // namespace

namespace {

/* Everything after a first at-rest attempt that did not succeed: its result
 * `rc`, the wait for the entry to come to rest, and the locked path. */
cerrno copy_slow(pmdb_type_t type, tabra_hdl_t table, u32 key, void *out, u32 from, u32 len,
                 cerrno rc) {
    if (rc == TABRA_E_WRITING) rc = wait_at_rest(table, key, out, from, len);
    if (rc == PMDB_OK) return counted_copy();
    if (rc == TABRA_E_NOTFOUND || rc == TABRA_E_UNKEYED) return PMDB_ENOTFOUND;
    if (rc != TABRA_E_WRITING) return rc;
    /* The record's key field (its first bytes) comes along to be checked. */
    const u32 copy_len = from + len < sizeof key ? static_cast<u32>(sizeof key) : from + len;
    return copy_locked(table, g_region[type].load(std::memory_order_acquire), key, out, from, len,
                       copy_len);
}

/* A copy through the table store's exported calls only: the first use of a
 * type, fault hooks on, a table without a view, a first attempt that a
 * writer overtook, keys outside bucket key % buckets. */
__attribute__((noinline)) cerrno copy_general(pmdb_type_t type, u32 key, void *out, u32 from,
                                              u32 len) {
    cerrno rc = ready(type);
    if (rc != PMDB_OK) return rc;
    tabra_hdl_t table = g_table[type].load(std::memory_order_acquire);
    rc = tabra_copy_entry_at_rest(table, key, out, from, len, TABRA_COPY_KEYED);
    if (rc == PMDB_OK) return counted_copy();
    return copy_slow(type, table, key, out, from, len, rc);
}

/* A first attempt on the view that did not succeed. */
__attribute__((noinline)) cerrno copy_after(pmdb_type_t type, u32 key, void *out, u32 from,
                                            u32 len, tabra_rest::copied c) {
    using tabra_rest::copied;
    if (c == copied::absent || c == copied::unkeyed) return PMDB_ENOTFOUND;
    if (c != copied::writing) return copy_general(type, key, out, from, len);
    return copy_slow(type, g_table[type].load(std::memory_order_acquire), key, out, from, len,
                     TABRA_E_WRITING);
}

/* The first attempt on the table's view is all a lookup of an entry at rest
 * runs, inline and without a call: how many lookups the processor overlaps
 * depends on it (tabra_rest.h).  g_rest is loaded with acquire: it pairs
 * with its publication after the table and region were reached; the
 * region's magic with acquire as in ready(). */
inline __attribute__((always_inline)) cerrno copy_fast(pmdb_type_t type, u32 key, void *out,
                                                       u32 from, u32 len) {
    const rest_state *r = valid_type(type) ? g_rest[type].load(std::memory_order_acquire) : nullptr;
    if (__builtin_expect(r == nullptr || pm_fault_hooks_on() ||
                             __atomic_load_n(r->magic, __ATOMIC_ACQUIRE) != PMDB_SHRD_CTX_MAGIC,
                         0))
        return copy_general(type, key, out, from, len);
    const tabra_rest::copied c =
        tabra_rest::attempt(r->view, key, true, static_cast<u8 *>(out), from, len);
    if (__builtin_expect(c != tabra_rest::copied::ok, 0))
        return copy_after(type, key, out, from, len, c);
    return counted_copy();
}

template <part P>
__attribute__((noinline, target("avx2"))) cerrno fixed_avx2(u32 key, void *out) {
    return copy_fast(P.type, key, out, P.from, P.len);
}

template <part P>
__attribute__((noinline)) cerrno fixed_base(u32 key, void *out) {
    return copy_fast(P.type, key, out, P.from, P.len);
}

/* Set once while the library loads, before any call. */
const bool g_avx2 = tabra_rest::has_avx2();

}  // namespace

/* Scans and whole-entry copies: one build, since they are not where a
 * lookup's cost lies. */
cerrno copy(pmdb_type_t type, u32 key, void *out, u32 from, u32 len) {
    return copy_fast(type, key, out, from, len);
}

template <part P>
cerrno copy_fixed(u32 key, void *out) {
    static_assert(P.from + P.len <= kEntrySize[P.type], "part within the entry");
    return g_avx2 ? fixed_avx2<P>(key, out) : fixed_base<P>(key, out);
}

template cerrno copy_fixed<kIfhInfo>(u32, void *);
template cerrno copy_fixed<kPuntInfo>(u32, void *);
template cerrno copy_fixed<kOamEntry>(u32, void *);
template cerrno copy_fixed<kMemberCount>(u32, void *);

namespace {

struct scan_state {
    pmdb_type_t type;
    match_fn match;
    const void *want;
    visit_fn visit;
    void *ctx;
    cerrno skipped; /* first failure of an accepted entry, reported at the end */
};

int scan_slot(void *arg, u32 key, i32, const void *entry) {
    auto *s = static_cast<scan_state *>(arg);
    if (s->match != nullptr && !s->match(key, entry, s->want)) return 0;
    alignas(16) unsigned char local[kMaxEntrySize];
    const cerrno rc = copy(s->type, key, local, 0, kEntrySize[s->type]);
    if (rc != PMDB_OK) {
        if (rc != PMDB_ENOTFOUND && s->skipped == PMDB_OK) s->skipped = rc;
        return 0;
    }
    if (s->match != nullptr && !s->match(key, local, s->want)) return 0;
    return s->visit(s->ctx, key, local);
}

}  // namespace

cerrno scan(pmdb_type_t type, match_fn match, const void *want, visit_fn visit, void *ctx) {
    const cerrno rc = ready(type);
    if (rc != PMDB_OK) return rc;
    scan_state state{type, match, want, visit, ctx, PMDB_OK};
    const cerrno walked = tabra_walk(g_table[type].load(std::memory_order_acquire), scan_slot, &state);
    return walked != PMDB_OK ? walked : state.skipped;
}

}  // namespace pmdb_reader

extern "C" {

PMDB_EXPORT cerrno dpa_pmdb_count_entries(pmdb_type_t type, u32 *count) {
    if (count == nullptr) return PMDB_EINVAL;
    const cerrno rc = pmdb_reader::ready(type);
    if (rc == PMDB_OK) *count = tabra_count(pmdb_reader::g_table[type].load(std::memory_order_acquire));
    return rc;
}

PMDB_EXPORT void dpa_pmdb_reader_set_lock_wait_ms(u32 ms) {
    pmdb_reader::g_wait_ms.store(ms == 0 ? PMDB_READER_LOCK_WAIT_MS_DEFAULT : ms,
                                 std::memory_order_relaxed);
}

PMDB_EXPORT void dpa_pmdb_reader_get_stats(dpa_pmdb_reader_stats_t *out) {
    if (out == nullptr) return;
    const auto &c = pmdb_reader::g_count;
    out->copies = pmdb_reader::total_copies();
    out->owner_dead = c.owner_dead.load(std::memory_order_relaxed);
    out->busy = c.busy.load(std::memory_order_relaxed);
    out->retries = c.retries.load(std::memory_order_relaxed);
    out->lock_lost = c.lock_lost.load(std::memory_order_relaxed);
    out->locked_copies = c.locked_copies.load(std::memory_order_relaxed);
}

}  // extern "C"
