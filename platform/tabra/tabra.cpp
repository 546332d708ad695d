/*
 * tabra.cpp - the table store: named tables of fixed-size entries in shared
 * memory, found by hashed 32-bit key, with per-process write protection.
 *
 * The shared format, and who may store what under which lock, is in
 * tabra_layout.h; the lock-free lookup and the copy of an entry at rest,
 * which the reader library also compiles, are in tabra_rest.h.  This file
 * adds the process-local side:
 *
 *   - `g_tables` (registry of this process's handles) is guarded by
 *     `g_tables_lock`; handles are never freed, so a handle pointer stays
 *     valid for the life of the process.
 *   - Per handle, `prot_lock` guards the write-window state: `window_open`,
 *     `whole_rw`, the list of pages made writable and their bitmap, and the
 *     process's open write brackets (`bracket_gen`, `bracket_slot`).
 *     `window_open` and `whole_rw` are also read without the lock (acquire /
 *     relaxed) as a fast "nothing to do" test, and are checked again under
 *     the lock before any mprotect.
 *   - Lock order: `g_tables_lock` before a table's `writer`; `prot_lock` is
 *     never held together with `writer`.
 *
 * Write windows.  mprotect on a range costs in proportion to the pages in it
 * that are populated, so protecting the whole entries mapping at every window
 * would make each change dearer as the table fills.  Instead a window makes
 * writable only the pages of the entries it hands out, remembers them, and
 * protects just those at its end; a window that touches more than
 * kProtPageLimit pages makes the whole mapping writable once and protects it
 * whole at the end, which amortises over the many entries it changes.
 *
 * Repair.  An add or a remove records its intent before its first index
 * store.  The next process to take the writer lock after the owner died
 * (EOWNERDEAD) finishes or undoes that operation (see repair_add and
 * repair_remove), rebuilds the summary and the count from the bitmap, and
 * marks the lock consistent.  A repair cut short by another death is simply
 * done again by the next owner.
 */
#include "tabra.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "host/os_host.h"
#include "host/pm_fault.h"
#include "tabra_layout.h"
#include "tabra_rest.h"
#include "vesk.h"
#include "vorn_os.h"

namespace {

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

inline u64 make_word(u32 seq, u32 head) {
    return (static_cast<u64>(seq) << 32) | head;
}

/* One compare-and-swap of occ from *seen to want; *seen is reloaded on
 * failure.  Acquire-release: a bracket's increment stays before the entry
 * stores that follow it, its decrement after those before it. */
inline bool occ_cas(u64 *occ, u64 *seen, u64 want) {
    /* seq_cst rather than acq_rel for the pins handshake (tabra_layout.h);
     * the same locked instruction on x86. */
    return __atomic_compare_exchange_n(occ, seen, want, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_ACQUIRE);
}

/* ---------------------------------------------------------------------- */
/* Process-local handle                                                   */
/* ---------------------------------------------------------------------- */

}  // namespace

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
    u32 touched[kProtPageLimit]; /* pages made writable in the window */
    u64 *page_rw;                /* bitmap of the same pages */
    u32 *bracket_gen;            /* per slot: gen of this process's open bracket, 0 none */
    u32 *bracket_slot;           /* the slots with an open bracket */
    u32 nbracket;
    tabra_rest_view_t rest; /* set with the mappings, never changed */
    /* Runs under the writer lock for each slot this process's adds give to a
     * new key, before the key is linked (tabra_set_add_hook).  Written once
     * by the owner of the handle before its first add; read under the
     * writer lock (whose acquire orders it after the store). */
    tabra_slot_hook_t add_hook;
    void *add_hook_ctx;
};

namespace {

pthread_mutex_t g_tables_lock = PTHREAD_MUTEX_INITIALIZER;
tabra_table *g_tables;

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
/* Tracing and the host hooks                                             */
/* ---------------------------------------------------------------------- */

cerrno fail(u32 point, cerrno status, u64 a1, u64 a2) {
    _vesk_3(dpa_port_mapper_get_error_vesk(), VESK_ID(3, point), status, a1, a2);
    return status;
}

/* Notes the call in the host call log and answers whether a test armed it to
 * fail; *status then holds the armed result. */
__attribute__((noinline, cold)) bool injected_slow(const char *call, u64 a0, u64 a1, u64 a2,
                                                  u64 a3, cerrno *status) {
    int64_t r = 0;
    if (pm_fault_enter(call, &r, a0, a1, a2, a3) == 0) return false;
    *status = static_cast<cerrno>(r);
    return true;
}

inline bool injected(const char *call, u64 a0, u64 a1, u64 a2, u64 a3, cerrno *status) {
    if (__builtin_expect(!pm_fault_hooks_on(), 1)) return false;
    return injected_slow(call, a0, a1, a2, a3, status);
}

/* ---------------------------------------------------------------------- */
/* Test-only crash points                                                 */
/* ---------------------------------------------------------------------- */

enum crash_op { CRASH_NONE = 0, CRASH_ADD = 1, CRASH_REMOVE = 2, CRASH_REPAIR = 3 };
constexpr int kCrashUnread = -1;
int g_crash_op = kCrashUnread; /* read once per process image; reset after fork */
int g_crash_point;

void crash_read_env() {
    const char *v = getenv(TABRA_CRASH_ENV);
    int op = CRASH_NONE;
    int point = 0;
    if (v != nullptr) {
        static const struct {
            const char *name;
            int op;
        } names[] = {{"add:", CRASH_ADD}, {"remove:", CRASH_REMOVE}, {"repair:", CRASH_REPAIR}};
        for (const auto &n : names) {
            const size_t len = strlen(n.name);
            if (strncmp(v, n.name, len) == 0) {
                op = n.op;
                point = atoi(v + len);
            }
        }
    }
    g_crash_point = point;
    __atomic_store_n(&g_crash_op, op, __ATOMIC_RELAXED);
}

void crash_after_fork() {
    __atomic_store_n(&g_crash_op, kCrashUnread, __ATOMIC_RELAXED);
}

__attribute__((constructor)) void crash_register_fork_hook() {
    pthread_atfork(nullptr, nullptr, crash_after_fork);
}

__attribute__((noinline)) void crash_slow(int op, int point) {
    if (__atomic_load_n(&g_crash_op, __ATOMIC_RELAXED) == kCrashUnread) crash_read_env();
    if (g_crash_op == op && g_crash_point == point) raise(SIGKILL);
}

inline void crash_point(int op, int point) {
    if (__builtin_expect(__atomic_load_n(&g_crash_op, __ATOMIC_RELAXED) == CRASH_NONE, 1)) return;
    crash_slow(op, point);
}

void zero_entry(tabra_table *t, u32 slot) {
    u64 *p = reinterpret_cast<u64 *>(t->alias + static_cast<size_t>(slot) * t->stride);
    for (u32 i = 0; i < t->stride / 8; i++) st_rel(p + i, u64{0});
}

/* ---------------------------------------------------------------------- */
/* Index walks                                                            */
/* ---------------------------------------------------------------------- */

/* Under `writer`: the slot of key in bucket b and its predecessor in the
 * chain (kNoSlot when it is the head); false when absent. */
bool find_locked(tabra_table *t, u32 b, u32 key, u32 *slot, u32 *pred) {
    tabra_slot_meta_t *m = slots(t);
    u32 prev = kNoSlot;
    u32 cur = word_head(buckets(t)[b]);
    for (u32 steps = 0; cur != 0 && cur <= TABRA_SLOTS && steps < TABRA_SLOTS; steps++) {
        if (m[cur - 1].key == key) {
            *slot = cur - 1;
            *pred = prev;
            return true;
        }
        prev = cur - 1;
        cur = m[cur - 1].next;
    }
    return false;
}

/* Under `writer`: whether slot x is on the chain of bucket b (its predecessor
 * in *pred, kNoSlot for the head). */
bool on_chain(tabra_table *t, u32 b, u32 x, u32 *pred) {
    tabra_slot_meta_t *m = slots(t);
    u32 prev = kNoSlot;
    u32 cur = word_head(buckets(t)[b]);
    for (u32 steps = 0; cur != 0 && cur <= TABRA_SLOTS && steps < TABRA_SLOTS; steps++) {
        if (cur - 1 == x) {
            *pred = prev;
            return true;
        }
        prev = cur - 1;
        cur = m[cur - 1].next;
    }
    return false;
}

/* ---------------------------------------------------------------------- */
/* Index stores (all under `writer`)                                      */
/* ---------------------------------------------------------------------- */

void bump_seq(tabra_table *t, u32 b) {
    const u64 w = buckets(t)[b];
    st_rel(&buckets(t)[b], make_word(word_seq(w) + 2, word_head(w)));
}

void set_head(tabra_table *t, u32 b, u32 head_plus1) {
    const u64 w = buckets(t)[b];
    st_rel(&buckets(t)[b], make_word(word_seq(w) + 2, head_plus1));
}

/* Unlinks x (predecessor pred) from bucket b with one release store, then
 * moves the bucket's sequence so that walkers standing on x retry. */
void unlink_slot(tabra_table *t, u32 b, u32 x, u32 pred) {
    tabra_slot_meta_t *m = slots(t);
    const u32 nx = m[x].next;
    if (pred == kNoSlot) {
        set_head(t, b, nx);
        return;
    }
    st_rel(&m[pred].next, nx);
    bump_seq(t, b);
}

void bitmap_set(tabra_table *t, u32 x, bool on) {
    u64 *word = &bitmap(t)[x / 64];
    const u64 bit = u64{1} << (x % 64);
    const u64 v = on ? (*word | bit) : (*word & ~bit);
    st_rel(word, v);
    u64 *sw = &summary(t)[x / 4096];
    const u64 sbit = u64{1} << ((x / 64) % 64);
    st_rlx(sw, v == ~u64{0} ? (*sw | sbit) : (*sw & ~sbit));
}

/* Lowest free slot that no reader pins, or kNoSlot.  The pins load is
 * seq_cst: it pairs with a pinner's increment and check (tabra_layout.h). */
u32 alloc_slot(tabra_table *t) {
    for (u32 s = 0; s < TABRA_SUMMARY_WORDS; s++) {
        for (u64 open = ~summary(t)[s]; open != 0; open &= open - 1) {
            const u32 w = s * 64 + static_cast<u32>(__builtin_ctzll(open));
            for (u64 free_bits = ~bitmap(t)[w]; free_bits != 0; free_bits &= free_bits - 1) {
                const u32 x = w * 64 + static_cast<u32>(__builtin_ctzll(free_bits));
                if (__atomic_load_n(&slots(t)[x].pins, __ATOMIC_SEQ_CST) == 0) return x;
            }
        }
    }
    return kNoSlot;
}

void intent_begin(tabra_table *t, u32 op, u32 key, u32 slot, u32 b) {
    tabra_intent_t *in = &hdr(t)->intent;
    in->key = key;
    in->slot = slot;
    in->bucket = b;
    st_rel(&in->op, op);
}

void intent_end(tabra_table *t) {
    st_rel(&hdr(t)->intent.op, TABRA_OP_NONE);
}

u32 slot_gen(const tabra_slot_meta_t *s) {
    return occ_gen(ld_acq(&s->occ));
}

/* Gives slot x a new or no occupant: gen flips parity and the version moves;
 * freeing it also drops every open write bracket (their owners wrote the
 * occupant that is leaving).  Later stores of the slot's entry are release
 * stores, so none is seen before the flip. */
void flip_gen(tabra_table *t, u32 x) {
    u64 *occ = &slots(t)[x].occ;
    u64 w = ld_acq(occ);
    u64 want = 0;
    do {
        const u32 gen = occ_gen(w) + 1;
        const u64 rest = (w & ~TABRA_OCC_GEN_MASK) + TABRA_OCC_VERSION_ONE;
        want = (gen % 2 == 0 ? rest & ~TABRA_OCC_BRACKET_MASK : rest) | gen;
    } while (!occ_cas(occ, &w, want));
}

/* ---------------------------------------------------------------------- */
/* Repair after a dead writer                                             */
/* ---------------------------------------------------------------------- */

/* An add is committed once its slot is on the chain: keep it; else undo. */
void repair_add(tabra_table *t, const tabra_intent_t *in) {
    tabra_slot_meta_t *s = &slots(t)[in->slot];
    u32 pred = kNoSlot;
    if (on_chain(t, in->bucket, in->slot, &pred)) {
        st_rel(&s->state, static_cast<u16>(TABRA_SLOT_LINKED));
        bitmap_set(t, in->slot, true);
        return;
    }
    bitmap_set(t, in->slot, false);
    if (slot_gen(s) % 2 == 1) flip_gen(t, in->slot);
    st_rel(&s->state, static_cast<u16>(TABRA_SLOT_FREE));
}

/* A remove that recorded its intent is always finished. */
void repair_remove(tabra_table *t, const tabra_intent_t *in) {
    tabra_slot_meta_t *s = &slots(t)[in->slot];
    u32 pred = kNoSlot;
    if (on_chain(t, in->bucket, in->slot, &pred)) unlink_slot(t, in->bucket, in->slot, pred);
    bump_seq(t, in->bucket);
    bitmap_set(t, in->slot, false);
    if (slot_gen(s) % 2 == 1) flip_gen(t, in->slot);
    st_rel(&s->state, static_cast<u16>(TABRA_SLOT_FREE));
}

/* Summary and count follow from the bitmap. */
void rebuild_counts(tabra_table *t) {
    u32 count = 0;
    for (u32 s = 0; s < TABRA_SUMMARY_WORDS; s++) {
        u64 full = 0;
        for (u32 i = 0; i < 64; i++) {
            const u64 w = bitmap(t)[s * 64 + i];
            count += static_cast<u32>(__builtin_popcountll(w));
            if (w == ~u64{0}) full |= u64{1} << i;
        }
        st_rlx(&summary(t)[s], full);
    }
    st_rlx(&hdr(t)->count, count);
}

void repair(tabra_table *t) {
    tabra_intent_t in = hdr(t)->intent;
    crash_point(CRASH_REPAIR, 1);
    const bool valid = in.slot < TABRA_SLOTS && in.bucket < TABRA_BUCKET_WORDS;
    if (in.op == TABRA_OP_ADD && valid) repair_add(t, &in);
    if (in.op == TABRA_OP_REMOVE && valid) repair_remove(t, &in);
    crash_point(CRASH_REPAIR, 2);
    rebuild_counts(t);
    crash_point(CRASH_REPAIR, 3);
    intent_end(t);
    crash_point(CRASH_REPAIR, 4);
    st_rlx(&hdr(t)->repairs, hdr(t)->repairs + 1);
    fail(TABRA_TP_REPAIR, in.op, in.key, in.slot);
}

/* ---------------------------------------------------------------------- */
/* The writer lock                                                        */
/* ---------------------------------------------------------------------- */

u64 mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<u64>(ts.tv_sec) * 1000000000ull + static_cast<u64>(ts.tv_nsec);
}

void note_wait(tabra_table *t, u64 waited) {
    u64 *max = &hdr(t)->max_lock_wait_ns;
    u64 cur = ld_rlx(max);
    while (waited > cur && !__atomic_compare_exchange_n(max, &cur, waited, true, __ATOMIC_RELAXED,
                                                        __ATOMIC_RELAXED)) {
    }
}

/* The thread id that the writer lock's futex word names (glibc nptl: bits
 * 0..29 of the word at offset 0 hold the owner of a robust mutex); 0 when
 * it names none.  A snapshot, for reports only. */
i32 writer_holder(pthread_mutex_t *mu) {
    const unsigned word =
        static_cast<unsigned>(__atomic_load_n(&mu->__data.__lock, __ATOMIC_RELAXED));
    return static_cast<i32>(word & 0x3fffffffu);
}

/* Takes the writer lock, repairing after a dead writer.  With a deadline
 * (CLOCK_MONOTONIC) the wait ends there: TABRA_E_TIMEDOUT, and *holder
 * (optional) gets the thread id the lock names. */
cerrno lock_writer_until(tabra_table *t, const timespec *deadline, i32 *holder) {
    pthread_mutex_t *mu = &hdr(t)->writer;
    int r = pthread_mutex_trylock(mu);
    if (r == EBUSY) {
        const u64 t0 = mono_ns();
        r = deadline == nullptr ? pthread_mutex_lock(mu)
                                : pthread_mutex_clocklock(mu, CLOCK_MONOTONIC, deadline);
        note_wait(t, mono_ns() - t0);
    }
    if (r == ETIMEDOUT) {
        const i32 tid = writer_holder(mu);
        if (holder != nullptr) *holder = tid;
        return fail(TABRA_TP_LOCK, TABRA_E_TIMEDOUT, ETIMEDOUT, static_cast<u64>(tid));
    }
    if (r == EOWNERDEAD) {
        repair(t);
        r = pthread_mutex_consistent(mu);
    }
    if (r != 0) return fail(TABRA_TP_LOCK, TABRA_E_LOCK, static_cast<u64>(r), 0);
    return 0;
}

cerrno lock_writer(tabra_table *t) {
    return lock_writer_until(t, nullptr, nullptr);
}

void unlock_writer(tabra_table *t) {
    pthread_mutex_unlock(&hdr(t)->writer);
}

/* ---------------------------------------------------------------------- */
/* Add and remove under the writer lock                                   */
/* ---------------------------------------------------------------------- */

cerrno add_locked(tabra_table *t, u32 key, u32 b, u32 *out) {
    tabra_shm_hdr_t *h = hdr(t);
    u32 pred = kNoSlot;
    crash_point(CRASH_ADD, 1);
    if (find_locked(t, b, key, out, &pred)) return TABRA_E_EXISTS;
    const u32 x = h->count < ld_rlx(&h->max_entries) ? alloc_slot(t) : kNoSlot;
    if (x == kNoSlot) return TABRA_E_FULL;
    tabra_slot_meta_t *s = &slots(t)[x];
    intent_begin(t, TABRA_OP_ADD, key, x, b);
    crash_point(CRASH_ADD, 2);
    st_rlx(&s->key, key);
    st_rlx(&s->bucket, static_cast<u16>(b));
    st_rlx(&s->next, word_head(buckets(t)[b]));
    st_rlx(&s->state, static_cast<u16>(TABRA_SLOT_RESERVED));
    crash_point(CRASH_ADD, 3);
    zero_entry(t, x);
    /* Whatever lives beside the table per slot (the entry locks) is made
     * ready while no lookup can report the key and no pin holds the slot,
     * so nobody else can be touching it. */
    if (t->add_hook != nullptr) t->add_hook(t->add_hook_ctx, static_cast<i32>(x));
    crash_point(CRASH_ADD, 4);
    flip_gen(t, x);
    crash_point(CRASH_ADD, 5);
    if (b != key % h->buckets && ld_rlx(&h->hash_is_mod) != 0) st_rel(&h->hash_is_mod, 0u);
    set_head(t, b, x + 1); /* commit: the entry is in the index */
    crash_point(CRASH_ADD, 6);
    /* Lookups match only linked slots: none reports the key before the
     * commit above, which a repair could still undo had it not happened. */
    st_rel(&s->state, static_cast<u16>(TABRA_SLOT_LINKED));
    crash_point(CRASH_ADD, 7);
    bitmap_set(t, x, true);
    crash_point(CRASH_ADD, 8);
    st_rlx(&h->count, h->count + 1);
    st_rlx(&h->adds, h->adds + 1);
    crash_point(CRASH_ADD, 9);
    intent_end(t);
    crash_point(CRASH_ADD, 10);
    *out = x;
    return 0;
}

cerrno remove_locked(tabra_table *t, u32 key, u32 b) {
    tabra_shm_hdr_t *h = hdr(t);
    u32 x = kNoSlot;
    u32 pred = kNoSlot;
    crash_point(CRASH_REMOVE, 1);
    if (!find_locked(t, b, key, &x, &pred)) return TABRA_E_NOTFOUND;
    intent_begin(t, TABRA_OP_REMOVE, key, x, b);
    crash_point(CRASH_REMOVE, 2);
    unlink_slot(t, b, x, pred);
    crash_point(CRASH_REMOVE, 3);
    bump_seq(t, b);
    crash_point(CRASH_REMOVE, 4);
    bitmap_set(t, x, false);
    crash_point(CRASH_REMOVE, 5);
    flip_gen(t, x);
    crash_point(CRASH_REMOVE, 6);
    st_rel(&slots(t)[x].state, static_cast<u16>(TABRA_SLOT_FREE));
    crash_point(CRASH_REMOVE, 7);
    st_rlx(&h->count, h->count - 1);
    st_rlx(&h->removes, h->removes + 1);
    crash_point(CRASH_REMOVE, 8);
    intent_end(t);
    crash_point(CRASH_REMOVE, 9);
    return 0;
}

/* ---------------------------------------------------------------------- */
/* Write windows (process-local)                                          */
/* ---------------------------------------------------------------------- */

bool page_marked(const tabra_table *t, u32 p) {
    return (t->page_rw[p / 64] >> (p % 64)) & 1u;
}
void page_mark(tabra_table *t, u32 p, bool on) {
    const u64 bit = u64{1} << (p % 64);
    t->page_rw[p / 64] = on ? (t->page_rw[p / 64] | bit) : (t->page_rw[p / 64] & ~bit);
}

void forget_pages(tabra_table *t) {
    for (u32 i = 0; i < t->ntouched; i++) page_mark(t, t->touched[i], false);
    t->ntouched = 0;
}

cerrno prot_range(tabra_table *t, size_t first_page, size_t npages, int prot, u32 what) {
    if (mprotect(t->entries + first_page * kPage, npages * kPage, prot) == 0) return 0;
    return fail(TABRA_TP_PROT, TABRA_E_PROT, static_cast<u64>(errno), what);
}

/* Caller holds prot_lock, window open, mapping not whole-writable. */
cerrno open_pages(tabra_table *t, u32 first, u32 last) {
    u32 fresh = 0;
    for (u32 p = first; p <= last; p++) fresh += page_marked(t, p) ? 0u : 1u;
    if (fresh == 0) return 0;
    if (t->ntouched + fresh > kProtPageLimit) {
        const cerrno st = prot_range(t, 0, t->entries_len / kPage, PROT_READ | PROT_WRITE, 2);
        if (st != 0) return st;
        forget_pages(t);
        st_rlx(&t->whole_rw, 1);
        return 0;
    }
    const cerrno st = prot_range(t, first, last - first + 1, PROT_READ | PROT_WRITE, 1);
    if (st != 0) return st;
    for (u32 p = first; p <= last; p++) {
        if (page_marked(t, p)) continue;
        page_mark(t, p, true);
        t->touched[t->ntouched++] = p;
    }
    return 0;
}

/* Caller holds prot_lock and may write: opens this process's write bracket
 * on slot x for its occupant `key`, once per slot and window.  *moved when
 * the slot no longer holds key (the caller looks the key up again). */
cerrno open_bracket(tabra_table *t, u32 x, u32 key, bool *moved) {
    tabra_slot_meta_t *s = &slots(t)[x];
    u64 w = ld_acq(&s->occ);
    for (;;) {
        const u32 gen = occ_gen(w);
        /* The key is stored before the flip that made gen odd; the CAS below
         * succeeds only while gen is unchanged, so the key read belongs to
         * the occupant the bracket is tied to. */
        *moved = gen % 2 == 0 || ld_acq(&s->key) != key;
        if (*moved || t->bracket_gen[x] == gen) return 0;
        if (occ_brackets(w) == kMaxBrackets) return fail(TABRA_TP_PROT, TABRA_E_PROT, 0, 4);
        if (occ_cas(&s->occ, &w, w + TABRA_OCC_BRACKET_ONE)) {
            if (t->bracket_gen[x] == 0) t->bracket_slot[t->nbracket++] = x;
            st_rlx(&t->bracket_gen[x], gen); /* also read without the lock: a hint */
            return 0;
        }
    }
}

/* Caller holds prot_lock, the window's pages protected again: closes every
 * bracket this process opened (a slot freed since has dropped it already). */
void close_brackets(tabra_table *t) {
    for (u32 i = 0; i < t->nbracket; i++) {
        const u32 x = t->bracket_slot[i];
        u64 *occ = &slots(t)[x].occ;
        u64 w = ld_acq(occ);
        while (occ_gen(w) == t->bracket_gen[x] && occ_brackets(w) != 0 &&
               !occ_cas(occ, &w, w - TABRA_OCC_BRACKET_ONE + TABRA_OCC_VERSION_ONE)) {
        }
        st_rlx(&t->bracket_gen[x], 0u);
    }
    t->nbracket = 0;
}

/* When this process may write the table: makes slot's entry writable (in a
 * window) and opens the write bracket on it.  *moved as open_bracket. */
cerrno touch_entry(tabra_table *t, u32 slot, u32 key, bool *moved) {
    *moved = false;
    if (!ld_acq(&t->window_open) && !ld_rlx(&t->whole_rw)) return 0;
    const size_t off = static_cast<size_t>(slot) * t->stride;
    const u32 first = static_cast<u32>(off / kPage);
    const u32 last = static_cast<u32>((off + t->entry_size - 1) / kPage);
    pthread_mutex_lock(&t->prot_lock);
    cerrno st = 0;
    if (t->window_open && !t->whole_rw) st = open_pages(t, first, last);
    if (st == 0 && (t->window_open || t->whole_rw)) st = open_bracket(t, slot, key, moved);
    pthread_mutex_unlock(&t->prot_lock);
    return st;
}

int cmp_u32(const void *a, const void *b) {
    const u32 x = *static_cast<const u32 *>(a);
    const u32 y = *static_cast<const u32 *>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

/* Caller holds prot_lock: protects the window's pages, in runs. */
cerrno close_pages(tabra_table *t) {
    if (t->whole_rw) {
        const cerrno st = prot_range(t, 0, t->entries_len / kPage, PROT_READ, 3);
        if (st == 0) st_rlx(&t->whole_rw, 0);
        return st;
    }
    qsort(t->touched, t->ntouched, sizeof t->touched[0], cmp_u32);
    cerrno st = 0;
    for (u32 i = 0; i < t->ntouched && st == 0;) {
        u32 j = i + 1;
        while (j < t->ntouched && t->touched[j] == t->touched[j - 1] + 1) j++;
        st = prot_range(t, t->touched[i], j - i, PROT_READ, 3);
        i = j;
    }
    if (st == 0) forget_pages(t);
    return st;
}

void refresh_max_entries(tabra_table *t, const tabra_params_t *p) {
    if (p == nullptr || p->max_entries == 0) return;
    const u32 v = p->max_entries > TABRA_CAPACITY ? TABRA_CAPACITY : p->max_entries;
    if (ld_rlx(&hdr(t)->max_entries) != v) st_rlx(&hdr(t)->max_entries, v);
}

/* The common start of both protection calls: call log and fault hook,
 * argument check, and taking on the fresh max_entries.  True when the call
 * must return *st at once. */
bool prot_call_refused(const char *call, tabra_table *t, const tabra_params_t *p, cerrno *st) {
    const u64 flags = p ? p->open_flags : 0;
    const u64 max = p ? p->max_entries : 0;
    if (injected(call, flags, max, 0, 0, st)) return true;
    if (t == nullptr || (p != nullptr && p->version != PMDB_TABRA_PARAMS_VERSION)) {
        *st = fail(TABRA_TP_OPEN_INVAL, TABRA_E_INVAL, 2, 0);
        return true;
    }
    refresh_max_entries(t, p);
    return false;
}

/* ---------------------------------------------------------------------- */
/* Creating, attaching and mapping                                        */
/* ---------------------------------------------------------------------- */

u32 stride_of(u32 entry_size) {
    return (entry_size + 7u) & ~7u;
}
size_t object_size_of(u32 stride) {
    const size_t end = TABRA_OFF_ENTRIES + static_cast<size_t>(TABRA_SLOTS) * stride;
    return (end + kPage - 1) & ~(kPage - 1);
}

/* 0, or the reason code traced with TABRA_TP_OPEN_INVAL. */
u32 params_fault(const tabra_params_t *p) {
    if (p == nullptr) return 1;
    if (p->version != PMDB_TABRA_PARAMS_VERSION) return 2;
    if (p->table_name == nullptr || p->table_name[0] == '\0' || strlen(p->table_name) > 63)
        return 3;
    if (p->entry_size == 0 || p->entry_size > TABRA_MAX_ENTRY_SIZE) return 4;
    if (p->hash_buckets == 0 || p->hash_buckets > TABRA_BUCKET_WORDS) return 5;
    if (p->hash_fn == nullptr) return 6;
    return 0;
}

bool name_ok(const char *name) {
    return name != nullptr && name[0] != '\0' && strlen(name) <= 63;
}

/* What an open asks of the object. */
struct open_req {
    const char *name;
    const char *object;           /* namespaced object name */
    const tabra_params_t *params; /* null: attach */
    bool create;
};

/* Bytes of the header's first run of fields fixed at creation, format to
 * buckets (tabra_layout.h). */
constexpr size_t kFixedFields =
    offsetof(tabra_shm_hdr_t, max_entries) - offsetof(tabra_shm_hdr_t, format);

/* FNV-1a of n bytes at p, continuing from hash. */
u32 fnv1a(const void *p, size_t n, u32 hash) {
    const u8 *b = static_cast<const u8 *>(p);
    for (size_t i = 0; i < n; i++) hash = (hash ^ b[i]) * 16777619u;
    return hash;
}

/* The check word of the fields fixed at creation (tabra_layout.h). */
u32 header_check(const tabra_shm_hdr_t &h) {
    u32 x = fnv1a(&h.format, kFixedFields, 2166136261u);
    x = fnv1a(&h.object_size, sizeof h.object_size, x);
    return fnv1a(h.name, sizeof h.name, x);
}

void init_header(u8 *index, const open_req &rq) {
    tabra_shm_hdr_t *h = reinterpret_cast<tabra_shm_hdr_t *>(index);
    memset(h, 0, sizeof *h);
    h->format = TABRA_SHM_FORMAT;
    h->entry_size = rq.params->entry_size;
    h->stride = stride_of(rq.params->entry_size);
    h->capacity = TABRA_CAPACITY;
    h->buckets = rq.params->hash_buckets;
    h->max_entries = TABRA_CAPACITY;
    h->object_size = object_size_of(h->stride);
    h->hash_is_mod = 1;
    snprintf(h->name, sizeof h->name, "%s", rq.name);
    h->hdr_check = header_check(*h);
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&h->writer, &a);
    pthread_mutexattr_destroy(&a);
    st_rel(&h->magic, TABRA_SHM_MAGIC);
}

/* A fault of a table's header: its TABRA_DAMAGE_* code (0 none) and the
 * value traced beside it. */
struct damage {
    u32 code;
    u64 value;
};

damage geometry_fault(const tabra_shm_hdr_t &h) {
    if (h.entry_size == 0 || h.entry_size > TABRA_MAX_ENTRY_SIZE)
        return {TABRA_DAMAGE_ENTRY_SIZE, h.entry_size};
    if (h.buckets == 0 || h.buckets > TABRA_BUCKET_WORDS) return {TABRA_DAMAGE_BUCKETS, h.buckets};
    if (h.capacity != TABRA_CAPACITY || h.stride != stride_of(h.entry_size) ||
        h.object_size != object_size_of(h.stride))
        return {TABRA_DAMAGE_GEOMETRY, h.object_size};
    return {0, 0};
}

/* The fields writers change: the intent may name an add or a remove in
 * flight (a writer died), but only of a slot and bucket that exist. */
damage state_fault(const tabra_shm_hdr_t &h) {
    if (h.count > TABRA_CAPACITY || h.max_entries > TABRA_CAPACITY)
        return {TABRA_DAMAGE_COUNTS, h.count};
    const tabra_intent_t &in = h.intent;
    const bool sound = in.op == TABRA_OP_NONE ||
                       ((in.op == TABRA_OP_ADD || in.op == TABRA_OP_REMOVE) &&
                        in.slot < TABRA_SLOTS && in.bucket < h.buckets);
    return sound ? damage{0, 0} : damage{TABRA_DAMAGE_INTENT, in.op};
}

/* The first fault of header copy h, whose magic and format are right, of
 * table `name` in an object of `size` bytes. */
damage header_fault(const tabra_shm_hdr_t &h, const char *name, u64 size) {
    damage d = geometry_fault(h);
    if (d.code == 0 && size < h.object_size) d = {TABRA_DAMAGE_SIZE, size};
    if (d.code == 0 && strncmp(h.name, name, sizeof h.name) != 0) d = {TABRA_DAMAGE_NAME, 0};
    if (d.code == 0 && h.hdr_check != header_check(h)) d = {TABRA_DAMAGE_CHECK, h.hdr_check};
    return d.code != 0 ? d : state_fault(h);
}

/* A copy of what the checks read: the fields fixed at creation as bytes,
 * those that writers change with atomic loads. */
void copy_header(const tabra_shm_hdr_t *src, tabra_shm_hdr_t *h) {
    memset(h, 0, sizeof *h);
    h->magic = ld_acq(&src->magic);
    memcpy(&h->format, &src->format, kFixedFields);
    h->max_entries = ld_rlx(&src->max_entries);
    h->count = ld_rlx(&src->count);
    h->object_size = src->object_size;
    memcpy(h->name, src->name, sizeof h->name);
    h->hdr_check = src->hdr_check;
    h->intent.op = ld_acq(&src->intent.op);
    h->intent.slot = ld_rlx(&src->intent.slot);
    h->intent.bucket = ld_rlx(&src->intent.bucket);
}

cerrno damaged(damage d) {
    return fail(TABRA_TP_DAMAGED, TABRA_E_CORRUPT, d.code, d.value);
}

cerrno shm_fail(int err, u64 stage) {
    return fail(TABRA_TP_OPEN_SHM, TABRA_E_SHM, static_cast<u64>(err), stage);
}

cerrno map_index(int fd, u8 **index) {
    void *m = vornos_mmap(nullptr, TABRA_OFF_ENTRIES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) return shm_fail(errno, 3);
    *index = static_cast<u8 *>(m);
    return 0;
}

/* Offset of the first nonzero byte of an index part after its header, 0
 * when there is none: a creator killed before writing the magic leaves
 * nothing there, a table that was ever used always does. */
u64 first_written(const u8 *index) {
    const u64 *w = reinterpret_cast<const u64 *>(index + TABRA_OFF_BUCKETS);
    const size_t n = (TABRA_OFF_ENTRIES - TABRA_OFF_BUCKETS) / sizeof(u64);
    for (size_t i = 0; i < n; i++) {
        if (w[i] != 0) return TABRA_OFF_BUCKETS + i * sizeof(u64);
    }
    return 0;
}

/* An object of *size bytes without the magic (its index part at *index when
 * it is long enough to have one).  Only one that nothing was ever written to
 * becomes a table, and only for a creating open; any other is damaged and
 * left as it is. */
cerrno make_unwritten(int fd, const open_req &rq, u64 *size, u8 **index) {
    const u64 at = *index != nullptr ? first_written(*index) : 0;
    if (*size != 0 && *index == nullptr) return damaged({TABRA_DAMAGE_SIZE, *size});
    if (at != 0) return damaged({TABRA_DAMAGE_NO_MAGIC, at});
    if (!rq.create) return fail(TABRA_TP_NO_TABLE, TABRA_E_NOTFOUND, 0, 0);
    const off_t want = static_cast<off_t>(object_size_of(stride_of(rq.params->entry_size)));
    if (ftruncate(fd, 0) != 0 || ftruncate(fd, want) != 0) return shm_fail(errno, 2);
    *size = static_cast<u64>(want);
    const cerrno st = *index == nullptr ? map_index(fd, index) : 0;
    if (st == 0) init_header(*index, rq);
    return st;
}

/* The checks of tabra.h on header copy h; then, for an open, its format
 * against the caller's parameters. */
cerrno check_header_copy(const tabra_shm_hdr_t &h, const open_req &rq, u64 size) {
    if (h.format != TABRA_SHM_FORMAT)
        return fail(TABRA_TP_OPEN_MISMATCH, TABRA_E_MISMATCH, h.format, h.entry_size);
    const damage d = header_fault(h, rq.name, size);
    if (d.code != 0) return damaged(d);
    if (rq.params &&
        (rq.params->entry_size != h.entry_size || rq.params->hash_buckets != h.buckets))
        return fail(TABRA_TP_OPEN_MISMATCH, TABRA_E_MISMATCH, h.entry_size, rq.params->entry_size);
    return 0;
}

/* Holding the object's flock (which also orders the creator's stores before
 * these reads): maps the index part into *index and leaves in *h a copy of
 * the header that passed every check, making the table first when the
 * object was never written and the caller may create.  The handle is built
 * from the copy, never from the shared header, which may change later. */
cerrno prepare_object(int fd, const open_req &rq, u8 **index, tabra_shm_hdr_t *h) {
    struct stat sb {};
    if (fstat(fd, &sb) != 0) return shm_fail(errno, 1);
    u64 size = static_cast<u64>(sb.st_size);
    cerrno st = size >= TABRA_OFF_ENTRIES ? map_index(fd, index) : 0;
    const bool ready = *index != nullptr &&
                       ld_acq(&reinterpret_cast<tabra_shm_hdr_t *>(*index)->magic) == TABRA_SHM_MAGIC;
    if (st == 0 && !ready) st = make_unwritten(fd, rq, &size, index);
    if (st == 0) copy_header(reinterpret_cast<const tabra_shm_hdr_t *>(*index), h);
    return st == 0 ? check_header_copy(*h, rq, size) : st;
}

cerrno map_entries(int fd, tabra_table *t, bool writable, u32 nbuckets) {
    const int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void *e = vornos_mmap(nullptr, t->entries_len, prot, MAP_SHARED, fd, TABRA_OFF_ENTRIES);
    if (e == MAP_FAILED) return shm_fail(errno, 4);
    void *a = vornos_mmap(nullptr, t->entries_len, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                          TABRA_OFF_ENTRIES);
    if (a == MAP_FAILED) {
        munmap(e, t->entries_len);
        return shm_fail(errno, 5);
    }
    t->entries = static_cast<u8 *>(e);
    t->alias = static_cast<u8 *>(a);
    const tabra_shm_hdr_t *h = hdr(t);
    t->rest = tabra_rest_view_t{buckets(t), slots(t), t->entries, &h->hash_is_mod,
                                nbuckets,    t->stride, t->entry_size, 0};
    t->whole_rw = writable ? 1 : 0;
    return 0;
}

void free_handle(tabra_table *t) {
    free(t->page_rw);
    free(t->bracket_gen);
    free(t->bracket_slot);
    free(t);
}

tabra_table *new_handle(const open_req &rq, u8 *index, const tabra_shm_hdr_t &h) {
    tabra_table *t = static_cast<tabra_table *>(calloc(1, sizeof(tabra_table)));
    if (t == nullptr) return nullptr;
    snprintf(t->name, sizeof t->name, "%s", rq.name);
    snprintf(t->object, sizeof t->object, "%s", rq.object);
    t->index = index;
    t->stride = h.stride;
    t->entry_size = h.entry_size;
    t->entries_len = static_cast<size_t>(TABRA_SLOTS) * h.stride;
    t->entries_len = (t->entries_len + kPage - 1) & ~(kPage - 1);
    t->page_rw = static_cast<u64 *>(calloc(t->entries_len / kPage / 64 + 1, sizeof(u64)));
    t->bracket_gen = static_cast<u32 *>(calloc(TABRA_SLOTS, sizeof(u32)));
    t->bracket_slot = static_cast<u32 *>(calloc(TABRA_SLOTS, sizeof(u32)));
    if (t->page_rw == nullptr || t->bracket_gen == nullptr || t->bracket_slot == nullptr) {
        free_handle(t);
        return nullptr;
    }
    pthread_mutex_init(&t->prot_lock, nullptr);
    return t;
}

/* Builds a handle for the object (flock held). */
cerrno handle_for(int fd, const open_req &rq, tabra_table **out) {
    u8 *index = nullptr;
    tabra_shm_hdr_t h;
    cerrno st = prepare_object(fd, rq, &index, &h);
    tabra_table *t = st == 0 ? new_handle(rq, index, h) : nullptr;
    if (st == 0 && t == nullptr) st = fail(TABRA_TP_NOMEM, TABRA_E_NOMEM, sizeof(tabra_table), 0);
    if (st == 0) st = map_entries(fd, t, rq.params != nullptr, h.buckets);
    if (st != 0 && index != nullptr) munmap(index, TABRA_OFF_ENTRIES);
    if (st != 0 && t != nullptr) free_handle(t);
    if (st == 0) *out = t;
    return st;
}

cerrno map_table(const open_req &rq, tabra_table **out) {
    char obj[96];
    snprintf(obj, sizeof obj, TABRA_SHM_PREFIX "%s", rq.name);
    /* The OS layer gives a new object the host's mode, whatever is passed. */
    const int fd = _shm_open(obj, O_RDWR | (rq.create ? O_CREAT : 0), 0600);
    if (fd < 0 && errno == ENOENT && !rq.create)
        return fail(TABRA_TP_NO_TABLE, TABRA_E_NOTFOUND, 0, 0);
    if (fd < 0 && errno == EPERM) return fail(TABRA_TP_OWNER, TABRA_E_OWNER, EPERM, 0);
    if (fd < 0) return shm_fail(errno, 0);
    cerrno st = 0;
    if (flock(fd, LOCK_EX) != 0) st = shm_fail(errno, 6);
    if (st == 0) st = handle_for(fd, rq, out);
    flock(fd, LOCK_UN);
    vorn_close(fd);
    return st;
}

/* Caller holds g_tables_lock.  Keyed by the namespaced object, so that a
 * process that changes namespace does not meet its old tables. */
tabra_table *registry_find(const char *object) {
    for (tabra_table *t = g_tables; t != nullptr; t = t->next) {
        if (strcmp(t->object, object) == 0) return t;
    }
    return nullptr;
}

/* Reuses this process's handle of the table or maps a new one. */
cerrno get_handle(open_req rq, dpa_pmdb_hash_fn_t hash_fn, tabra_table **out) {
    char bare[96];
    char object[128];
    snprintf(bare, sizeof bare, TABRA_SHM_PREFIX "%s", rq.name);
    if (vorn_host_shm_name(bare, object, sizeof object) != 0) {
        const bool ns_ok = vorn_host_namespace_valid(vorn_host_namespace());
        return shm_fail(ns_ok ? ENAMETOOLONG : EINVAL, 0); /* EINVAL: PMDB_NS names no namespace */
    }
    rq.object = object;
    pthread_mutex_lock(&g_tables_lock);
    cerrno st = 0;
    tabra_table *t = registry_find(object);
    if (t != nullptr && rq.params != nullptr &&
        (rq.params->entry_size != t->entry_size || rq.params->hash_buckets != hdr(t)->buckets))
        st = fail(TABRA_TP_OPEN_MISMATCH, TABRA_E_MISMATCH, t->entry_size, rq.params->entry_size);
    if (t == nullptr && st == 0) {
        st = map_table(rq, &t);
        if (st == 0) {
            t->next = g_tables;
            g_tables = t;
        }
    }
    if (st == 0 && ld_rlx(&t->hash_fn) == nullptr && hash_fn != nullptr)
        st_rel(&t->hash_fn, hash_fn);
    pthread_mutex_unlock(&g_tables_lock);
    if (st == 0) *out = t;
    return st;
}

/* The bucket of key for a writer: TABRA_E_INVAL when the handle has no hash
 * function or the hash is out of range. */
cerrno bucket_of(tabra_table *t, u32 key, u32 *b, u32 point) {
    const dpa_pmdb_hash_fn_t fn = ld_acq(&t->hash_fn);
    if (fn == nullptr) return fail(point, TABRA_E_INVAL, key, 0xFFFFFFFFu);
    const u32 v = fn(key);
    if (v >= hdr(t)->buckets) return fail(point, TABRA_E_INVAL, key, v);
    *b = v;
    return 0;
}

/* Slot of key by a scan of the occupied slots: the lookup of a handle that
 * knows no hash function once keys sit elsewhere than key % buckets.  A key
 * that moves to another slot during the scan may be missed. */
u32 find_by_scan(tabra_table *t, u32 key) {
    const tabra_slot_meta_t *m = slots(t);
    for (u32 w = 0; w < TABRA_BITMAP_WORDS; w++) {
        for (u64 bits = ld_acq(&bitmap(t)[w]); bits != 0; bits &= bits - 1) {
            const u32 x = w * 64 + static_cast<u32>(__builtin_ctzll(bits));
            if (ld_rlx(&m[x].key) == key && ld_rlx(&m[x].state) == TABRA_SLOT_LINKED) return x;
        }
    }
    return kNoSlot;
}

/* Lock-free lookup for readers: the slot of key or kNoSlot in *x.  Inlined
 * into each reading call: a lookup's length decides how many of them the
 * processor keeps in flight. */
template <bool kPrefetch = true>
inline __attribute__((always_inline)) cerrno lookup(tabra_table *t, u32 key, u32 *x) {
    u32 b = 0;
    if (const dpa_pmdb_hash_fn_t fn = ld_acq(&t->hash_fn); fn != nullptr) {
        b = fn(key);
        if (__builtin_expect(b >= hdr(t)->buckets, 0))
            return fail(TABRA_TP_GET_INVAL, TABRA_E_INVAL, key, b);
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
copied copy_occupant(tabra_table *t, u32 x, u32 key, bool any_key, u8 *buf, u32 len,
                     u32 *key_out) {
    const tabra_slot_meta_t *s = &slots(t)[x];
    const u64 w1 = ld_acq(&s->occ);
    if (occ_gen(w1) % 2 == 0) return copied::moved;
    const u32 k = ld_acq(&s->key);
    if (!any_key && k != key) return copied::moved;
    tabra_rest::copy_out(buf, entry_at(t, x), len); /* the next load stays after the copy */
    if (occ_gen(ld_rlx(&s->occ)) != occ_gen(w1)) return copied::moved;
    *key_out = k;
    return copied::ok;
}

/* ---------------------------------------------------------------------- */
/* Consistency check (under `writer`)                                     */
/* ---------------------------------------------------------------------- */

struct check_state {
    tabra_table *t;
    u64 *seen; /* slots reached from a bucket */
    u32 *keys; /* keys reached, for the duplicate test */
    u32 nkeys;
    char *report;
    size_t len;
    u32 code; /* first fault, 0 none */
    u32 fault_slot;
};

bool fault(check_state *c, u32 code, u32 slot, const char *fmt, unsigned long long a,
           unsigned long long b) {
    if (c->code != 0) return false;
    c->code = code;
    c->fault_slot = slot;
    if (c->report != nullptr && c->len > 0) snprintf(c->report, c->len, fmt, a, b);
    return false;
}

bool seen(const check_state *c, u32 x) {
    return (c->seen[x / 64] >> (x % 64)) & 1u;
}

bool check_chain_slot(check_state *c, u32 b, u32 x) {
    tabra_table *t = c->t;
    const tabra_slot_meta_t *s = &slots(t)[x];
    if (seen(c, x)) return fault(c, 3, x, "slot %llu reached twice (bucket %llu)", x, b);
    c->seen[x / 64] |= u64{1} << (x % 64);
    if (s->state != TABRA_SLOT_LINKED)
        return fault(c, 4, x, "slot %llu on a chain in state %llu", x, s->state);
    const u32 gen = occ_gen(ld_acq(&s->occ));
    if (gen % 2 == 0) return fault(c, 5, x, "slot %llu on a chain with even generation %llu", x, gen);
    if (s->bucket != b) return fault(c, 6, x, "slot %llu on chain %llu of another bucket", x, b);
    const dpa_pmdb_hash_fn_t fn = ld_acq(&t->hash_fn);
    if (fn != nullptr && fn(s->key) != b)
        return fault(c, 7, x, "key %#llx hashes elsewhere than bucket %llu", s->key, b);
    if (hdr(t)->hash_is_mod && s->key % t->rest.buckets_n != b)
        return fault(c, 19, x, "key %#llx in bucket %llu which is not key mod buckets", s->key, b);
    c->keys[c->nkeys++] = s->key;
    return true;
}

bool check_buckets(check_state *c) {
    tabra_table *t = c->t;
    for (u32 b = 0; b < TABRA_BUCKET_WORDS; b++) {
        const u64 w = buckets(t)[b];
        if (word_seq(w) % 2 != 0)
            return fault(c, 1, 0, "bucket %llu has odd sequence %llu", b, word_seq(w));
        if (b >= t->rest.buckets_n && word_head(w) != 0)
            return fault(c, 2, 0, "bucket %llu beyond the hash range %llu is used", b,
                         t->rest.buckets_n);
        for (u32 cur = word_head(w); cur != 0; cur = slots(t)[cur - 1].next) {
            if (cur > TABRA_SLOTS) return fault(c, 8, 0, "bucket %llu links slot %llu", b, cur - 1);
            if (!check_chain_slot(c, b, cur - 1)) return false;
        }
    }
    return true;
}

bool check_slots(check_state *c) {
    tabra_table *t = c->t;
    for (u32 x = 0; x < TABRA_SLOTS; x++) {
        const tabra_slot_meta_t *s = &slots(t)[x];
        const bool used = (bitmap(t)[x / 64] >> (x % 64)) & 1u;
        if (used != seen(c, x))
            return fault(c, 9, x, "slot %llu: bitmap says %llu, index disagrees", x, used);
        if (!seen(c, x) && s->state != TABRA_SLOT_FREE)
            return fault(c, 10, x, "slot %llu off every chain in state %llu (leaked)", x, s->state);
        /* Brackets are opened by processes that do not hold `writer`, but
         * never on a free slot: one load gives a coherent view. */
        const u64 occ = ld_acq(&s->occ);
        if (!seen(c, x) && occ_gen(occ) % 2 != 0)
            return fault(c, 11, x, "free slot %llu has odd generation %llu", x, occ_gen(occ));
        if (!seen(c, x) && occ_brackets(occ) != 0)
            return fault(c, 20, x, "free slot %llu has %llu open write brackets", x,
                         occ_brackets(occ));
    }
    return true;
}

bool check_counts(check_state *c) {
    tabra_table *t = c->t;
    tabra_shm_hdr_t *h = hdr(t);
    u32 pop = 0;
    for (u32 w = 0; w < TABRA_BITMAP_WORDS; w++) {
        pop += static_cast<u32>(__builtin_popcountll(bitmap(t)[w]));
        const bool full = (summary(t)[w / 64] >> (w % 64)) & 1u;
        if (full != (bitmap(t)[w] == ~u64{0}))
            return fault(c, 12, w * 64, "summary bit of bitmap word %llu is %llu", w, full);
    }
    if (pop != h->count) return fault(c, 13, 0, "count %llu, occupied slots %llu", h->count, pop);
    if (c->nkeys != pop)
        return fault(c, 14, 0, "keys indexed %llu, occupied slots %llu", c->nkeys, pop);
    if (h->intent.op != TABRA_OP_NONE)
        return fault(c, 15, h->intent.slot, "operation %llu still in flight on slot %llu",
                     h->intent.op, h->intent.slot);
    qsort(c->keys, c->nkeys, sizeof(u32), cmp_u32);
    for (u32 i = 1; i < c->nkeys; i++) {
        if (c->keys[i] == c->keys[i - 1])
            return fault(c, 16, 0, "key %#llx present %llu times", c->keys[i], 2);
    }
    return true;
}

/* Report formats of the header's damage codes: value, then code. */
const char *const kDamageReport[] = {
    "",
    "no magic, data at byte %llu (damage %llu)",
    "object of %llu bytes shorter than its header says (damage %llu)",
    "header check word %#llx does not match the header (damage %llu)",
    "bucket count %llu out of range (damage %llu)",
    "entry size %llu out of range (damage %llu)",
    "object size %llu does not follow from the entry size (damage %llu)",
    "count %llu or max_entries above the capacity (damage %llu)",
    "operation %llu in flight is malformed (damage %llu)",
    "header names another table (%llu, damage %llu)",
};
static_assert(sizeof kDamageReport / sizeof kDamageReport[0] == TABRA_DAMAGE_NAME + 1,
              "a report per damage code");

/* The checks an open makes, again, on a copy of the header as it is now. */
bool check_header(check_state *c) {
    tabra_shm_hdr_t h;
    copy_header(hdr(c->t), &h);
    if (h.magic != TABRA_SHM_MAGIC || h.format != TABRA_SHM_FORMAT)
        return fault(c, 17, 0, "bad magic %#llx or format %llu", h.magic, h.format);
    const damage d = header_fault(h, c->t->name, h.object_size);
    if (d.code != 0) return fault(c, 18, 0, kDamageReport[d.code], d.value, d.code);
    return true;
}

cerrno run_check(tabra_table *t, char *report, size_t len, const timespec *deadline,
                 i32 *holder) {
    check_state c{};
    c.t = t;
    c.report = report;
    c.len = len;
    c.seen = static_cast<u64 *>(calloc(TABRA_BITMAP_WORDS, sizeof(u64)));
    c.keys = static_cast<u32 *>(malloc(TABRA_SLOTS * sizeof(u32)));
    cerrno st = 0;
    if (c.seen == nullptr || c.keys == nullptr)
        st = fail(TABRA_TP_NOMEM, TABRA_E_NOMEM, TABRA_SLOTS * 4, 0);
    if (st == 0) {
        st = lock_writer_until(t, deadline, holder);
        if (st == 0) {
            (void)(check_header(&c) && check_buckets(&c) && check_slots(&c) && check_counts(&c));
            unlock_writer(t);
        }
    }
    if (st == 0 && c.code != 0) st = fail(TABRA_TP_CHECK, TABRA_E_CORRUPT, c.code, c.fault_slot);
    if (c.code == 0 && report != nullptr && len > 0) report[0] = '\0';
    free(c.seen);
    free(c.keys);
    return st;
}

struct list_ctx {
    void (*fn)(void *, const char *);
    void *ctx;
    int n;
};

void list_one(void *p, const char *object) {
    list_ctx *l = static_cast<list_ctx *>(p);
    const size_t len = strlen(TABRA_SHM_PREFIX);
    if (strncmp(object, TABRA_SHM_PREFIX, len) != 0 || object[len] == '\0') return;
    l->n++;
    if (l->fn != nullptr) l->fn(l->ctx, object + len);
}

/* ---------------------------------------------------------------------- */
/* Copies at rest (tabra_copy_entry_at_rest)                              */
/* ---------------------------------------------------------------------- */

/* At-rest attempts after `tries` of them, the last of which ended in `c`
 * (c == copied::moved and tries == 0 when none was made yet). */
__attribute__((noinline)) cerrno at_rest_again(tabra_table *t, u32 key, bool keyed, u8 *buf,
                                               u32 off, u32 len, copied c, u32 tries) {
    u32 x = kNoSlot;
    for (; c == copied::moved && tries < kAtRestRetries; tries++) {
        const cerrno st = lookup<false>(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) return TABRA_E_NOTFOUND; /* an answer, not a fault: no trace */
        c = tabra_rest::copy_at_rest(t->rest, x, key, keyed, buf, off, len);
    }
    if (c == copied::ok) return 0;
    return c == copied::unkeyed ? TABRA_E_UNKEYED : TABRA_E_WRITING;
}

/* A keyed copy needs entries that have a first 32-bit word. */
inline bool at_rest_args_ok(tabra_table *t, const u8 *buf, u32 off, u32 len, u32 flags) {
    return t != nullptr && buf != nullptr && off <= t->entry_size && len <= t->entry_size - off &&
           (flags & ~TABRA_COPY_KEYED) == 0 &&
           ((flags & TABRA_COPY_KEYED) == 0 || t->entry_size >= sizeof(u32));
}

/* tabra_copy_entry_at_rest from its start, for every case its fast path
 * leaves: hooks on, a bad argument, a table whose keys are not all in
 * bucket key % buckets. */
__attribute__((noinline)) cerrno at_rest_general(tabra_table *t, u32 key, u8 *buf, u32 off,
                                                 u32 len, u32 flags) {
    cerrno st = 0;
    if (injected("tabra_copy_entry_at_rest", key, off, len, flags, &st)) return st;
    if (!at_rest_args_ok(t, buf, off, len, flags))
        return fail(TABRA_TP_GET_INVAL, TABRA_E_INVAL, key, 0);
    return at_rest_again(t, key, (flags & TABRA_COPY_KEYED) != 0, buf, off, len, copied::moved,
                         0);
}

/* One attempt through bucket key % buckets (tabra_rest.h) is all that a copy
 * of an entry at rest runs; every other case goes to at_rest_general.  The
 * reader library makes its lookups' first attempt itself, inline, so this
 * path is not built per processor. */
cerrno at_rest_fast(tabra_table *t, u32 key, u8 *out, u32 off, u32 len, u32 flags) {
    if (__builtin_expect(pm_fault_hooks_on() || !at_rest_args_ok(t, out, off, len, flags), 0))
        return at_rest_general(t, key, out, off, len, flags);
    const bool keyed = (flags & TABRA_COPY_KEYED) != 0;
    const copied c = tabra_rest::attempt(t->rest, key, keyed, out, off, len);
    if (__builtin_expect(c == copied::ok, 1)) return 0;
    if (c == copied::absent) return TABRA_E_NOTFOUND; /* an answer, not a fault: no trace */
    if (c == copied::general) return at_rest_general(t, key, out, off, len, flags);
    return at_rest_again(t, key, keyed, out, off, len, c, 1);
}

}  // namespace

/* ---------------------------------------------------------------------- */
/* Exported calls                                                         */
/* ---------------------------------------------------------------------- */

extern "C" {

cerrno tabra_init(event_mgr_p em, void *debug_desc) {
    cerrno st = 0;
    if (injected("tabra_init", reinterpret_cast<u64>(em), reinterpret_cast<u64>(debug_desc), 0, 0,
                 &st))
        return st;
    return 0;
}

cerrno tabra_open(const tabra_params_t *params, tabra_hdl_t *out) {
    cerrno st = 0;
    const u64 flags = params ? params->open_flags : 0;
    const u64 max = params ? params->max_entries : 0;
    const u64 esz = params ? params->entry_size : 0;
    const u64 nb = params ? params->hash_buckets : 0;
    if (injected("tabra_open", flags, max, esz, nb, &st)) return st;
    const u32 why = params_fault(params);
    if (why != 0 || out == nullptr) return fail(TABRA_TP_OPEN_INVAL, TABRA_E_INVAL, why, esz);
    const open_req rq{params->table_name, nullptr, params, (params->open_flags & O_CREAT) != 0};
    tabra_table *t = nullptr;
    st = get_handle(rq, params->hash_fn, &t);
    if (st != 0) return st;
    refresh_max_entries(t, params);
    *out = t;
    return 0;
}

cerrno tabra_attach_hashed(const char *table_name, dpa_pmdb_hash_fn_t hash_fn, tabra_hdl_t *out) {
    cerrno st = 0;
    if (injected("tabra_attach", 0, 0, 0, 0, &st)) return st;
    if (!name_ok(table_name) || out == nullptr)
        return fail(TABRA_TP_OPEN_INVAL, TABRA_E_INVAL, 3, 0);
    const open_req rq{table_name, nullptr, nullptr, false};
    tabra_table *t = nullptr;
    st = get_handle(rq, hash_fn, &t);
    if (st == 0) *out = t;
    return st;
}

cerrno tabra_attach(const char *table_name, tabra_hdl_t *out) {
    return tabra_attach_hashed(table_name, nullptr, out);
}

cerrno tabra_add_entry(tabra_hdl_t t, u32 key, void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_add_entry", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(TABRA_TP_ADD_INVAL, TABRA_E_INVAL, key, 0);
    u32 b = 0;
    st = bucket_of(t, key, &b, TABRA_TP_ADD_INVAL);
    if (st != 0) return st;
    /* Again from the start when another process removed the key before this
     * one could open its write bracket on the slot. */
    for (bool moved = true; moved;) {
        st = lock_writer(t);
        if (st != 0) return st;
        u32 x = kNoSlot;
        st = add_locked(t, key, b, &x);
        unlock_writer(t);
        if (st == TABRA_E_FULL)
            return fail(TABRA_TP_ADD_FULL, st, key, ld_rlx(&hdr(t)->max_entries));
        if (st != 0 && st != TABRA_E_EXISTS) return st;
        const cerrno pst = touch_entry(t, x, key, &moved);
        if (pst != 0) return pst;
        *entry = entry_at(t, x);
        *slot = static_cast<i32>(x);
    }
    return st;
}

cerrno tabra_get_entry_by_key(tabra_hdl_t t, u32 key, void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_get_entry_by_key", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(TABRA_TP_GET_INVAL, TABRA_E_INVAL, key, 0);
    for (bool moved = true; moved;) {
        u32 x = kNoSlot;
        st = lookup(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) return fail(TABRA_TP_GET_NOTFOUND, TABRA_E_NOTFOUND, key, 0);
        st = touch_entry(t, x, key, &moved);
        if (st != 0) return st;
        *entry = entry_at(t, x);
        *slot = static_cast<i32>(x);
    }
    return 0;
}

cerrno tabra_remove_entry(tabra_hdl_t t, u32 flags, u32 key) {
    cerrno st = 0;
    if (injected("tabra_remove_entry", flags, key, 0, 0, &st)) return st;
    if (t == nullptr || flags != TABRA_REMOVE_BY_KEY)
        return fail(TABRA_TP_RM_INVAL, TABRA_E_INVAL, key, flags);
    u32 b = 0;
    st = bucket_of(t, key, &b, TABRA_TP_RM_INVAL);
    if (st != 0) return st;
    st = lock_writer(t);
    if (st != 0) return st;
    st = remove_locked(t, key, b);
    unlock_writer(t);
    if (st == TABRA_E_NOTFOUND) return fail(TABRA_TP_RM_NOTFOUND, st, key, 0);
    return st;
}

cerrno tabra_make_shm_writable(tabra_hdl_t t, const tabra_params_t *params) {
    cerrno st = 0;
    if (prot_call_refused("tabra_make_shm_writable", t, params, &st)) return st;
    pthread_mutex_lock(&t->prot_lock);
    st_rel(&t->window_open, 1);
    pthread_mutex_unlock(&t->prot_lock);
    return 0;
}

cerrno tabra_make_shm_readonly_protected(tabra_hdl_t t, const tabra_params_t *params) {
    cerrno st = 0;
    if (prot_call_refused("tabra_make_shm_readonly_protected", t, params, &st)) return st;
    pthread_mutex_lock(&t->prot_lock);
    st = close_pages(t);
    if (st == 0) close_brackets(t);
    if (st == 0) st_rel(&t->window_open, 0);
    pthread_mutex_unlock(&t->prot_lock);
    return st;
}

cerrno tabra_copy_entry_by_key(tabra_hdl_t t, u32 key, void *buf, u32 len, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_copy_entry_by_key", key, len, 0, 0, &st)) return st;
    if (t == nullptr || buf == nullptr || len > t->entry_size)
        return fail(TABRA_TP_GET_INVAL, TABRA_E_INVAL, key, 0);
    for (;;) {
        u32 x = kNoSlot;
        st = lookup(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) return fail(TABRA_TP_GET_NOTFOUND, TABRA_E_NOTFOUND, key, 0);
        u32 k = 0;
        if (copy_occupant(t, x, key, false, static_cast<u8 *>(buf), len, &k) != copied::ok)
            continue;
        if (slot != nullptr) *slot = static_cast<i32>(x);
        return 0;
    }
}

cerrno tabra_copy_entry_at_rest(tabra_hdl_t t, u32 key, void *buf, u32 off, u32 len,
                                u32 flags) {
    return at_rest_fast(t, key, static_cast<u8 *>(buf), off, len, flags);
}

cerrno tabra_rest_view(tabra_hdl_t t, u32 format, tabra_rest_view_t *out) {
    if (t == nullptr || out == nullptr) return TABRA_E_INVAL;
    if (format != TABRA_SHM_FORMAT) return TABRA_E_MISMATCH;
    *out = t->rest;
    return 0;
}

cerrno tabra_pin_slot(tabra_hdl_t t, u32 key, const void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_pin_slot", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(TABRA_TP_GET_INVAL, TABRA_E_INVAL, key, 0);
    for (u32 tries = 0; tries < kAtRestRetries; tries++) {
        u32 x = kNoSlot;
        st = lookup<false>(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) break;
        tabra_slot_meta_t *s = &slots(t)[x];
        const u32 gen = occ_gen(ld_acq(&s->occ));
        /* seq_cst increment, then seq_cst check: either the check sees the
         * occupant leave (a removal's gen change), or every later add sees
         * the pin (tabra_layout.h). */
        __atomic_fetch_add(&s->pins, 1u, __ATOMIC_SEQ_CST);
        if (gen % 2 == 1 && occ_gen(__atomic_load_n(&s->occ, __ATOMIC_SEQ_CST)) == gen &&
            ld_acq(&s->key) == key) {
            *entry = entry_at(t, x);
            *slot = static_cast<i32>(x);
            return 0;
        }
        __atomic_fetch_sub(&s->pins, 1u, __ATOMIC_RELEASE);
    }
    return TABRA_E_NOTFOUND; /* an answer, not a fault: no trace */
}

int tabra_slot_holds(tabra_hdl_t t, i32 slot, u32 key) {
    if (t == nullptr || slot < 0 || static_cast<u32>(slot) >= TABRA_SLOTS) return 0;
    const tabra_slot_meta_t *s = &slots(t)[slot];
    /* Acquire loads pair with the add's release of LINKED and the gen flips:
     * an odd gen with LINKED state and the key means that occupant is in. */
    return occ_gen(ld_acq(&s->occ)) % 2 == 1 && ld_acq(&s->state) == TABRA_SLOT_LINKED &&
                   ld_acq(&s->key) == key
               ? 1
               : 0;
}

cerrno tabra_set_add_hook(tabra_hdl_t t, tabra_slot_hook_t fn, void *ctx) {
    if (t == nullptr) return TABRA_E_INVAL;
    /* Under the writer lock, so that no add of this process runs half with
     * the old hook and half with the new one. */
    const cerrno st = lock_writer(t);
    if (st != 0) return st;
    t->add_hook_ctx = ctx;
    t->add_hook = fn;
    unlock_writer(t);
    return 0;
}

void tabra_unpin_slot(tabra_hdl_t t, i32 slot) {
    if (t == nullptr || slot < 0 || static_cast<u32>(slot) >= TABRA_SLOTS) return;
    /* Release: the pinner's work on the slot stays before a later add's
     * seq_cst load of pins lets the slot go to another key. */
    __atomic_fetch_sub(&slots(t)[slot].pins, 1u, __ATOMIC_RELEASE);
}

int tabra_entry_open_here(tabra_hdl_t t, u32 key) {
    u32 x = kNoSlot;
    if (t == nullptr || lookup(t, key, &x) != 0 || x == kNoSlot) return 0;
    /* Relaxed: a hint; the threads of this process change it under prot_lock. */
    return ld_rlx(&t->bracket_gen[x]) != 0 ? 1 : 0;
}

cerrno tabra_walk(tabra_hdl_t t, tabra_walk_fn_t fn, void *ctx) {
    cerrno st = 0;
    if (injected("tabra_walk", 0, 0, 0, 0, &st)) return st;
    if (t == nullptr || fn == nullptr) return fail(TABRA_TP_WALK_INVAL, TABRA_E_INVAL, 0, 0);
    u8 *buf = static_cast<u8 *>(malloc(t->stride));
    if (buf == nullptr) return fail(TABRA_TP_NOMEM, TABRA_E_NOMEM, t->stride, 0);
    for (u32 w = 0; w < TABRA_BITMAP_WORDS && st == 0; w++) {
        for (u64 bits = ld_acq(&bitmap(t)[w]); bits != 0 && st == 0; bits &= bits - 1) {
            const u32 x = w * 64 + static_cast<u32>(__builtin_ctzll(bits));
            u32 key = 0;
            bool got = false;
            for (u32 i = 0; i < kWalkRetries && !got; i++)
                got = copy_occupant(t, x, 0, true, buf, t->entry_size, &key) == copied::ok;
            if (got) st = static_cast<cerrno>(fn(ctx, key, static_cast<i32>(x), buf));
        }
    }
    free(buf);
    return st;
}

u32 tabra_count(tabra_hdl_t t) {
    return t == nullptr ? 0 : ld_rlx(&hdr(t)->count);
}

cerrno tabra_get_info(tabra_hdl_t t, tabra_info_t *info) {
    cerrno st = 0;
    if (injected("tabra_get_info", 0, 0, 0, 0, &st)) return st;
    if (t == nullptr || info == nullptr) return fail(TABRA_TP_WALK_INVAL, TABRA_E_INVAL, 0, 0);
    const tabra_shm_hdr_t *h = hdr(t);
    memset(info, 0, sizeof *info);
    snprintf(info->name, sizeof info->name, "%s", t->name);
    info->entry_size = h->entry_size;
    info->count = ld_rlx(&h->count);
    info->max_entries = ld_rlx(&h->max_entries);
    info->capacity = h->capacity;
    info->object_size = h->object_size;
    info->hash_buckets = h->buckets;
    info->intent_op = ld_rlx(&h->intent.op);
    info->repairs = ld_rlx(&h->repairs);
    info->max_lock_wait_ns = ld_rlx(&h->max_lock_wait_ns);
    info->adds = ld_rlx(&h->adds);
    info->removes = ld_rlx(&h->removes);
    return 0;
}

cerrno tabra_check(tabra_hdl_t t, char *report, size_t len) {
    cerrno st = 0;
    if (injected("tabra_check", 0, 0, 0, 0, &st)) return st;
    if (t == nullptr) return fail(TABRA_TP_WALK_INVAL, TABRA_E_INVAL, 0, 0);
    return run_check(t, report, len, nullptr, nullptr);
}

cerrno tabra_check_within(tabra_hdl_t t, char *report, size_t len, u32 wait_ms, i32 *holder_tid) {
    cerrno st = 0;
    if (injected("tabra_check_within", wait_ms, 0, 0, 0, &st)) return st;
    if (t == nullptr) return fail(TABRA_TP_WALK_INVAL, TABRA_E_INVAL, 0, 0);
    if (holder_tid != nullptr) *holder_tid = 0;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(wait_ms / 1000u);
    deadline.tv_nsec += static_cast<long>(wait_ms % 1000u) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000L;
    }
    return run_check(t, report, len, &deadline, holder_tid);
}

int tabra_list(void (*fn)(void *ctx, const char *table_name), void *ctx) {
    list_ctx l{fn, ctx, 0};
    vorn_host_list_objects(nullptr, list_one, &l);
    return l.n;
}

}  // extern "C"
