/*
 * tabra_internal.h - what the table store's own files share: the
 * process-local handle, the small accessors of its shared index, the writer
 * lock, the trace and fault-hook helpers, the test-only crash points, and
 * the few functions one part of the store calls in another.
 *
 * The store is built from four files over the shared format of
 * tabra_layout.h and the at-rest copy of tabra_rest.h:
 *
 *   tabra_index.cpp   index and entries: lookups, add and remove under the
 *                     writer lock, slots, pins, the add hook, copies
 *   tabra_window.cpp  write windows: page protection and write brackets
 *   tabra_open.cpp    open, attach, mapping, header checks, the registry
 *   tabra_check.cpp   consistency check, repair after a dead writer, walk,
 *                     info and count
 *
 * What one file defines for another lives in namespace tabra_detail,
 * declared here with hidden visibility: libtabra.so exports only the
 * extern "C" calls of tabra.h and tabra_rest.h (compare `nm -D` after a
 * change).  Helpers used by one file only stay in an unnamed namespace of
 * that file.
 *
 * Locks, and what each guards:
 *   - a table's `writer` (robust, process-shared, in the header): every
 *     index store (tabra_layout.h says which); taken by lock_writer*, which
 *     repair a table whose previous owner died;
 *   - `g_tables_lock` (tabra_open.cpp): this process's registry of handles;
 *   - a handle's `prot_lock` (tabra_window.cpp): its write-window state.
 *   Lock order: `g_tables_lock` before a table's `writer`; `prot_lock` is
 *   never held together with `writer`.
 */
#ifndef PMDB_PLATFORM_TABRA_INTERNAL_H
#define PMDB_PLATFORM_TABRA_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <time.h>

#include "host/pm_fault.h"
#include "pmdb_trace_points.h"
#include "tabra.h"
#include "tabra_layout.h"
#include "tabra_rest.h"

/* Declared hidden here, so their definitions in the .cpp files are too. */
#pragma GCC visibility push(hidden)

namespace tabra_detail {

using tabra_rest::copied;
using tabra_rest::kNoSlot;
using tabra_rest::ld_acq;
using tabra_rest::ld_rlx;
using tabra_rest::occ_brackets;
using tabra_rest::occ_gen;
using tabra_rest::word_head;
using tabra_rest::word_seq;

constexpr size_t kPage = 4096;
constexpr u32 kProtPageLimit = 64; /* pages per window before going whole */
constexpr u32 kWalkRetries = 64;   /* copies of one slot before it is skipped */
constexpr u32 kAtRestRetries = 64; /* at-rest copies before reporting "being written" */
constexpr u64 kMaxBrackets = TABRA_OCC_BRACKET_MASK >> TABRA_OCC_BRACKET_SHIFT;

/* ---------------------------------------------------------------------- */
/* Atomics on shared memory                                               */
/* ---------------------------------------------------------------------- */

template <class T>
inline void st_rel(T *p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}
template <class T>
inline void st_rlx(T *p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELAXED);
}

/* One compare-and-swap of occ from *seen to want; *seen is reloaded on
 * failure.  Acquire-release: a bracket's increment stays before the entry
 * stores that follow it, its decrement after those before it. */
inline bool occ_cas(u64 *occ, u64 *seen, u64 want) {
    /* seq_cst rather than acq_rel for the pins handshake (tabra_layout.h);
     * the same locked instruction on x86. */
    return __atomic_compare_exchange_n(occ, seen, want, false, __ATOMIC_SEQ_CST, __ATOMIC_ACQUIRE);
}

}  // namespace tabra_detail

/* ---------------------------------------------------------------------- */
/* Process-local handle                                                   */
/* ---------------------------------------------------------------------- */

/* Handles are never freed: a handle pointer stays valid for the life of the
 * process.  The fields set at open (names, mappings, sizes, `rest`) never
 * change; the window state is guarded by `prot_lock`. */
struct tabra_table {
    tabra_table *next; /* registry link */
    char name[64];     /* table name */
    char object[128];  /* namespaced object name: the registry key */
    u8 *index;         /* header .. summary, read-write */
    u8 *entries;       /* caller-facing entries mapping, protection switched */
    u8 *alias;         /* the same entries, always writable, for the store */
    size_t entries_len;
    u32 stride;
    u32 entry_size;
    dpa_pmdb_hash_fn_t hash_fn; /* set once (release), read with acquire */
    pthread_mutex_t prot_lock;
    int window_open; /* a write window is open in this process */
    int whole_rw;    /* the whole entries mapping is writable */
    u32 ntouched;
    u32 touched[tabra_detail::kProtPageLimit]; /* pages made writable in the window */
    u64 *page_rw;                              /* bitmap of the same pages */
    u32 *bracket_gen;  /* per slot: gen of this process's open bracket, 0 none */
    u32 *bracket_slot; /* the slots with an open bracket */
    u32 nbracket;
    tabra_rest_view_t rest; /* set with the mappings, never changed */
    /* Runs under the writer lock for each slot this process's adds give to a
     * new key, before the key is linked (tabra_set_add_hook).  Written once
     * by the owner of the handle before its first add; read under the
     * writer lock (whose acquire orders it after the store). */
    tabra_slot_hook_t add_hook;
    void *add_hook_ctx;
};

namespace tabra_detail {

inline tabra_shm_hdr_t *hdr(tabra_table *t) {
    return reinterpret_cast<tabra_shm_hdr_t *>(t->index);
}
inline u64 *buckets(tabra_table *t) {
    return reinterpret_cast<u64 *>(t->index + TABRA_OFF_BUCKETS);
}
inline tabra_slot_meta_t *slots(tabra_table *t) {
    return reinterpret_cast<tabra_slot_meta_t *>(t->index + TABRA_OFF_SLOTS);
}
inline u64 *bitmap(tabra_table *t) {
    return reinterpret_cast<u64 *>(t->index + TABRA_OFF_BITMAP);
}
inline u64 *summary(tabra_table *t) {
    return reinterpret_cast<u64 *>(t->index + TABRA_OFF_SUMMARY);
}
inline u8 *entry_at(tabra_table *t, u32 slot) {
    return t->entries + static_cast<size_t>(slot) * t->stride;
}

/* ---------------------------------------------------------------------- */
/* Tracing and the host hooks (tabra_index.cpp)                           */
/* ---------------------------------------------------------------------- */

/* The table store's trace points are rows of the trace point table
 * (pmdb_trace_points.h, pmdb_tp::tabra_*): error buffer, the status and two
 * numbers.  tabra.h lists the same numbers as TABRA_TP_* for its users. */
using tabra_point = pmdb_tpt::point<pmdb_tpt::E, 3, pmdb_tpt::N>;

/* Writes `point` with status, a1 and a2 to the error buffer; returns status. */
cerrno fail(tabra_point point, cerrno status, u64 a1, u64 a2);

/* Notes the call in the host call log and answers whether a test armed it to
 * fail; *status then holds the armed result. */
bool injected_slow(const char *call, u64 a0, u64 a1, u64 a2, u64 a3, cerrno *status);

inline bool injected(const char *call, u64 a0, u64 a1, u64 a2, u64 a3, cerrno *status) {
    if (__builtin_expect(!pm_fault_hooks_on(), 1)) return false;
    return injected_slow(call, a0, a1, a2, a3, status);
}

/* ---------------------------------------------------------------------- */
/* Test-only crash points (tabra_index.cpp)                               */
/* ---------------------------------------------------------------------- */

enum crash_op { CRASH_NONE = 0, CRASH_ADD = 1, CRASH_REMOVE = 2, CRASH_REPAIR = 3 };
constexpr int kCrashUnread = -1;
extern int g_crash_op; /* read once per process image; reset after fork */

void crash_slow(int op, int point);

inline void crash_point(int op, int point) {
    if (__builtin_expect(__atomic_load_n(&g_crash_op, __ATOMIC_RELAXED) == CRASH_NONE, 1)) return;
    crash_slow(op, point);
}

/* ---------------------------------------------------------------------- */
/* Index stores, all under `writer` (tabra_index.cpp)                     */
/* ---------------------------------------------------------------------- */

bool on_chain(tabra_table *t, u32 b, u32 x, u32 *pred);
void bump_seq(tabra_table *t, u32 b);
void unlink_slot(tabra_table *t, u32 b, u32 x, u32 pred);
void bitmap_set(tabra_table *t, u32 x, bool on);
void intent_end(tabra_table *t);
u32 slot_gen(const tabra_slot_meta_t *s);
void flip_gen(tabra_table *t, u32 x);

/* ---------------------------------------------------------------------- */
/* The writer lock (tabra_index.cpp; repair in tabra_check.cpp)           */
/* ---------------------------------------------------------------------- */

/* Takes the writer lock, repairing after a dead writer.  With a deadline
 * (CLOCK_MONOTONIC) the wait ends there: TABRA_E_TIMEDOUT, and *holder
 * (optional) gets the thread id the lock names. */
cerrno lock_writer_until(tabra_table *t, const timespec *deadline, i32 *holder);
cerrno lock_writer(tabra_table *t);
void unlock_writer(tabra_table *t);

/* Under `writer`, taken after its owner died: finishes or undoes the
 * operation in flight and rebuilds the summary and the count. */
void repair(tabra_table *t);

/* ---------------------------------------------------------------------- */
/* Lookups (tabra_index.cpp)                                              */
/* ---------------------------------------------------------------------- */

/* Slot of key by a scan of the occupied slots: the lookup of a handle that
 * knows no hash function once keys sit elsewhere than key % buckets.  A key
 * that moves to another slot during the scan may be missed. */
u32 find_by_scan(tabra_table *t, u32 key);

/* Lock-free lookup for readers: the slot of key or kNoSlot in *x.  Inlined
 * into each reading call: a lookup's length decides how many of them the
 * processor keeps in flight. */
template <bool kPrefetch = true>
inline __attribute__((always_inline)) cerrno lookup(tabra_table *t, u32 key, u32 *x) {
    u32 b = 0;
    if (const dpa_pmdb_hash_fn_t fn = ld_acq(&t->hash_fn); fn != nullptr) {
        b = fn(key);
        if (__builtin_expect(b >= hdr(t)->buckets, 0))
            return fail(pmdb_tp::tabra_lookup_bad_argument, TABRA_E_INVAL, key, b);
    } else if (ld_acq(&hdr(t)->hash_is_mod)) {
        b = tabra_rest::mod_bucket(t->rest, key);
    } else {
        *x = find_by_scan(t, key);
        return 0;
    }
    *x = tabra_rest::find<kPrefetch>(t->rest, b, key);
    return 0;
}

/* Copies slot x's entry when it holds one occupant, key's unless any_key,
 * all along the copy: ok, or moved when the occupant changed meanwhile. */
copied copy_occupant(tabra_table *t, u32 x, u32 key, bool any_key, u8 *buf, u32 len, u32 *key_out);

/* ---------------------------------------------------------------------- */
/* Write windows (tabra_window.cpp)                                       */
/* ---------------------------------------------------------------------- */

/* When this process may write the table: makes slot's entry writable (in a
 * window) and opens the write bracket on it.  *moved when the slot no longer
 * holds key (the caller looks the key up again). */
cerrno touch_entry(tabra_table *t, u32 slot, u32 key, bool *moved);

/* qsort order of u32 values. */
int cmp_u32(const void *a, const void *b);

/* ---------------------------------------------------------------------- */
/* Header checks and parameters (tabra_open.cpp)                          */
/* ---------------------------------------------------------------------- */

/* A fault of a table's header: its TABRA_DAMAGE_* code (0 none) and the
 * value traced beside it. */
struct damage {
    u32 code;
    u64 value;
};

/* The first fault of header copy h, whose magic and format are right, of
 * table `name` in an object of `size` bytes. */
damage header_fault(const tabra_shm_hdr_t &h, const char *name, u64 size);

/* A copy of what the checks read: the fields fixed at creation as bytes,
 * those that writers change with atomic loads. */
void copy_header(const tabra_shm_hdr_t *src, tabra_shm_hdr_t *h);

/* Takes on the caller's max_entries (clamped to the capacity), if it gives one. */
void refresh_max_entries(tabra_table *t, const tabra_params_t *p);

}  // namespace tabra_detail

#pragma GCC visibility pop

#endif
