/*
 * tabra_index.cpp - the table store's index and entries: lookups, add and
 * remove, slots, pins, the add hook and copies of entries; the writer lock,
 * the trace helper and the test-only crash points the other files share.
 *
 * Concurrency.  Every store to a table's index (buckets, slot records,
 * bitmap, summary, counts, intent) is made under the table's `writer` lock,
 * in the order tabra_layout.h gives, so that lock-free readers and a repair
 * after a dead writer (tabra_check.cpp) always find a state they can read or
 * finish.  Lookups, copies, pins and tabra_slot_holds take no lock: they
 * follow the bucket sequences and slot generations (tabra_rest.h).  An add
 * records its intent before its first index store; lock_writer_until
 * repairs after an owner that died (EOWNERDEAD).  The add hook is set under
 * `writer`, so no add runs with half of it.
 */
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "host/pm_fault.h"
#include "tabra_internal.h"
#include "tabra_restore.h"
#include "vesk.h"

using namespace tabra_detail;

namespace tabra_detail {

namespace {

inline u64 make_word(u32 seq, u32 head) {
    return (static_cast<u64>(seq) << 32) | head;
}

}  // namespace

/* ---------------------------------------------------------------------- */
/* Tracing and the host hooks                                             */
/* ---------------------------------------------------------------------- */

/* The numbers tabra.h gives its users are the table's. */
static_assert(pmdb_tp::tabra_open_bad_params.number() == TABRA_TP_OPEN_INVAL &&
                  pmdb_tp::tabra_object_failed.number() == TABRA_TP_OPEN_SHM &&
                  pmdb_tp::tabra_format_mismatch.number() == TABRA_TP_OPEN_MISMATCH &&
                  pmdb_tp::tabra_no_table.number() == TABRA_TP_NO_TABLE &&
                  pmdb_tp::tabra_add_bad_argument.number() == TABRA_TP_ADD_INVAL &&
                  pmdb_tp::tabra_add_full.number() == TABRA_TP_ADD_FULL &&
                  pmdb_tp::tabra_lookup_not_found.number() == TABRA_TP_GET_NOTFOUND &&
                  pmdb_tp::tabra_lookup_bad_argument.number() == TABRA_TP_GET_INVAL &&
                  pmdb_tp::tabra_remove_not_found.number() == TABRA_TP_RM_NOTFOUND &&
                  pmdb_tp::tabra_remove_bad_argument.number() == TABRA_TP_RM_INVAL &&
                  pmdb_tp::tabra_writer_lock_failed.number() == TABRA_TP_LOCK &&
                  pmdb_tp::tabra_dead_writer_repaired.number() == TABRA_TP_REPAIR &&
                  pmdb_tp::tabra_protection_failed.number() == TABRA_TP_PROT &&
                  pmdb_tp::tabra_check_failed.number() == TABRA_TP_CHECK &&
                  pmdb_tp::tabra_no_memory.number() == TABRA_TP_NOMEM &&
                  pmdb_tp::tabra_walk_bad_argument.number() == TABRA_TP_WALK_INVAL &&
                  pmdb_tp::tabra_damaged_table_refused.number() == TABRA_TP_DAMAGED &&
                  pmdb_tp::tabra_object_not_ours.number() == TABRA_TP_OWNER,
              "tabra.h numbers its trace points as the trace point table does");

cerrno fail(tabra_point point, cerrno status, u64 a1, u64 a2) {
    _vesk_3(dpa_port_mapper_get_error_vesk(), VESK_ID(tabra_point::kArgs, point.number()), status,
            a1, a2);
    return status;
}

__attribute__((noinline, cold)) bool injected_slow(const char *call, u64 a0, u64 a1, u64 a2,
                                                  u64 a3, cerrno *status) {
    int64_t r = 0;
    if (pm_fault_enter(call, &r, a0, a1, a2, a3) == 0) return false;
    *status = static_cast<cerrno>(r);
    return true;
}

/* ---------------------------------------------------------------------- */
/* Test-only crash points                                                 */
/* ---------------------------------------------------------------------- */

int g_crash_op = kCrashUnread;

namespace {

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

}  // namespace

__attribute__((noinline)) void crash_slow(int op, int point) {
    if (__atomic_load_n(&g_crash_op, __ATOMIC_RELAXED) == kCrashUnread) crash_read_env();
    if (g_crash_op == op && g_crash_point == point) raise(SIGKILL);
}

namespace {

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

}  // namespace

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

namespace {

void set_head(tabra_table *t, u32 b, u32 head_plus1) {
    const u64 w = buckets(t)[b];
    st_rel(&buckets(t)[b], make_word(word_seq(w) + 2, head_plus1));
}

}  // namespace

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

namespace {

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

}  // namespace

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
/* The writer lock                                                        */
/* ---------------------------------------------------------------------- */

namespace {

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

/* A bounded wait for the writer lock, in slices of at most kWaitSliceNs:
 * a signal handler of the caller then runs within a slice even where
 * signals are held back until the next intercepted call (a thread
 * sanitizer does that, and does not intercept the timed lock). */
constexpr long kWaitSliceNs = 50000000;

bool before(const timespec &a, const timespec &b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

int lock_within(pthread_mutex_t *mu, const timespec *deadline) {
    for (;;) {
        timespec slice{};
        clock_gettime(CLOCK_MONOTONIC, &slice);
        if (!before(slice, *deadline)) return ETIMEDOUT;
        slice.tv_nsec += kWaitSliceNs;
        if (slice.tv_nsec >= 1000000000L) {
            slice.tv_sec++;
            slice.tv_nsec -= 1000000000L;
        }
        if (before(*deadline, slice)) slice = *deadline;
        int r = pthread_mutex_clocklock(mu, CLOCK_MONOTONIC, &slice);
        if (r == ETIMEDOUT) r = pthread_mutex_trylock(mu);
        if (r != EBUSY) return r;
    }
}

}  // namespace

cerrno lock_writer_until(tabra_table *t, const timespec *deadline, i32 *holder) {
    pthread_mutex_t *mu = &hdr(t)->writer;
    int r = pthread_mutex_trylock(mu);
    if (r == EBUSY) {
        const u64 t0 = mono_ns();
        r = deadline == nullptr ? pthread_mutex_lock(mu) : lock_within(mu, deadline);
        note_wait(t, mono_ns() - t0);
    }
    if (r == ETIMEDOUT) {
        const i32 tid = writer_holder(mu);
        if (holder != nullptr) *holder = tid;
        return fail(pmdb_tp::tabra_writer_lock_failed, TABRA_E_TIMEDOUT, ETIMEDOUT,
                    static_cast<u64>(tid));
    }
    if (r == EOWNERDEAD) {
        repair(t);
        r = pthread_mutex_consistent(mu);
    }
    if (r != 0)
        return fail(pmdb_tp::tabra_writer_lock_failed, TABRA_E_LOCK, static_cast<u64>(r), 0);
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

namespace {

/* A restored entry: the slot it must go to and the bytes it starts with. */
struct placed {
    u32 slot;
    const void *data;
    u32 len;
};

/* Slot `want` when it is free and nobody pins it, else kNoSlot. */
u32 take_slot(tabra_table *t, u32 want) {
    const tabra_slot_meta_t *s = &slots(t)[want];
    const bool busy = (bitmap(t)[want / 64] >> (want % 64)) & 1u;
    if (busy || s->state != TABRA_SLOT_FREE || __atomic_load_n(&s->pins, __ATOMIC_SEQ_CST) != 0)
        return kNoSlot;
    return want;
}

/* Adds key in the lowest free slot, or with `at` in at->slot holding
 * at->data (TABRA_E_INVAL when that slot is taken). */
cerrno add_locked(tabra_table *t, u32 key, u32 b, u32 *out, const placed *at = nullptr) {
    tabra_shm_hdr_t *h = hdr(t);
    u32 pred = kNoSlot;
    crash_point(CRASH_ADD, 1);
    if (find_locked(t, b, key, out, &pred)) return TABRA_E_EXISTS;
    if (h->count >= ld_rlx(&h->max_entries)) return TABRA_E_FULL;
    const u32 x = at == nullptr ? alloc_slot(t) : take_slot(t, at->slot);
    if (x == kNoSlot) return at == nullptr ? TABRA_E_FULL : TABRA_E_INVAL;
    tabra_slot_meta_t *s = &slots(t)[x];
    intent_begin(t, TABRA_OP_ADD, key, x, b);
    crash_point(CRASH_ADD, 2);
    st_rlx(&s->key, key);
    st_rlx(&s->bucket, static_cast<u16>(b));
    st_rlx(&s->next, word_head(buckets(t)[b]));
    st_rlx(&s->state, static_cast<u16>(TABRA_SLOT_RESERVED));
    crash_point(CRASH_ADD, 3);
    zero_entry(t, x);
    /* Not linked yet: no reader can see these bytes before the gen flip. */
    if (at != nullptr) memcpy(t->alias + static_cast<size_t>(x) * t->stride, at->data, at->len);
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
/* Hashing and lookups                                                    */
/* ---------------------------------------------------------------------- */

/* The bucket of key for a writer: TABRA_E_INVAL when the handle has no hash
 * function or the hash is out of range. */
cerrno bucket_of(tabra_table *t, u32 key, u32 *b, tabra_point point) {
    const dpa_pmdb_hash_fn_t fn = ld_acq(&t->hash_fn);
    if (fn == nullptr) return fail(point, TABRA_E_INVAL, key, 0xFFFFFFFFu);
    const u32 v = fn(key);
    if (v >= hdr(t)->buckets) return fail(point, TABRA_E_INVAL, key, v);
    *b = v;
    return 0;
}

}  // namespace

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
/* Copies at rest (tabra_copy_entry_at_rest)                              */
/* ---------------------------------------------------------------------- */

namespace {

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
        return fail(pmdb_tp::tabra_lookup_bad_argument, TABRA_E_INVAL, key, 0);
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

}  // namespace tabra_detail

/* ---------------------------------------------------------------------- */
/* Exported calls                                                         */
/* ---------------------------------------------------------------------- */

extern "C" {

cerrno tabra_add_entry(tabra_hdl_t t, u32 key, void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_add_entry", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(pmdb_tp::tabra_add_bad_argument, TABRA_E_INVAL, key, 0);
    u32 b = 0;
    st = bucket_of(t, key, &b, pmdb_tp::tabra_add_bad_argument);
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
            return fail(pmdb_tp::tabra_add_full, st, key, ld_rlx(&hdr(t)->max_entries));
        if (st != 0 && st != TABRA_E_EXISTS) return st;
        const cerrno pst = touch_entry(t, x, key, &moved);
        if (pst != 0) return pst;
        *entry = entry_at(t, x);
        *slot = static_cast<i32>(x);
    }
    return st;
}

cerrno tabra_restore_entry(tabra_hdl_t t, u32 key, i32 slot, const void *data, u32 len) {
    cerrno st = 0;
    if (t == nullptr || data == nullptr || len > t->entry_size || slot < 0 ||
        static_cast<u32>(slot) >= TABRA_SLOTS)
        return fail(pmdb_tp::tabra_add_bad_argument, TABRA_E_INVAL, key, 0);
    u32 b = 0;
    st = bucket_of(t, key, &b, pmdb_tp::tabra_add_bad_argument);
    if (st != 0) return st;
    st = lock_writer(t);
    if (st != 0) return st;
    const placed at{static_cast<u32>(slot), data, len};
    u32 x = kNoSlot;
    st = add_locked(t, key, b, &x, &at);
    unlock_writer(t);
    if (st == TABRA_E_INVAL)
        return fail(pmdb_tp::tabra_add_bad_argument, st, key, static_cast<u32>(slot));
    if (st == TABRA_E_FULL)
        return fail(pmdb_tp::tabra_add_full, st, key, ld_rlx(&hdr(t)->max_entries));
    return st;
}

cerrno tabra_get_entry_by_key(tabra_hdl_t t, u32 key, void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_get_entry_by_key", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(pmdb_tp::tabra_lookup_bad_argument, TABRA_E_INVAL, key, 0);
    for (bool moved = true; moved;) {
        u32 x = kNoSlot;
        st = lookup(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) return fail(pmdb_tp::tabra_lookup_not_found, TABRA_E_NOTFOUND, key, 0);
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
        return fail(pmdb_tp::tabra_remove_bad_argument, TABRA_E_INVAL, key, flags);
    u32 b = 0;
    st = bucket_of(t, key, &b, pmdb_tp::tabra_remove_bad_argument);
    if (st != 0) return st;
    st = lock_writer(t);
    if (st != 0) return st;
    st = remove_locked(t, key, b);
    unlock_writer(t);
    if (st == TABRA_E_NOTFOUND) return fail(pmdb_tp::tabra_remove_not_found, st, key, 0);
    return st;
}

cerrno tabra_copy_entry_by_key(tabra_hdl_t t, u32 key, void *buf, u32 len, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_copy_entry_by_key", key, len, 0, 0, &st)) return st;
    if (t == nullptr || buf == nullptr || len > t->entry_size)
        return fail(pmdb_tp::tabra_lookup_bad_argument, TABRA_E_INVAL, key, 0);
    for (;;) {
        u32 x = kNoSlot;
        st = lookup(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) return fail(pmdb_tp::tabra_lookup_not_found, TABRA_E_NOTFOUND, key, 0);
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

cerrno tabra_pin_slot(tabra_hdl_t t, u32 key, const void **entry, i32 *slot) {
    cerrno st = 0;
    if (injected("tabra_pin_slot", key, 0, 0, 0, &st)) return st;
    if (t == nullptr || entry == nullptr || slot == nullptr)
        return fail(pmdb_tp::tabra_lookup_bad_argument, TABRA_E_INVAL, key, 0);
    for (u32 tries = 0; tries < kAtRestRetries; tries++) {
        u32 x = kNoSlot;
        st = lookup<false>(t, key, &x);
        if (st != 0) return st;
        if (x == kNoSlot) break;
        /* Test step: the slot may pass to another key from here on. */
        if (pm_fault_hooks_on()) pm_fault_step("tabra_pin_slot:found", key, x);
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

}  // extern "C"
