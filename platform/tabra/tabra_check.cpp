/*
 * tabra_check.cpp - the consistency check of a table, its repair after a
 * dead writer, and the calls that read a table whole: walk, info, count.
 *
 * Repair.  An add or a remove records its intent before its first index
 * store.  The next process to take the writer lock after the owner died
 * (EOWNERDEAD) finishes or undoes that operation (see repair_add and
 * repair_remove), rebuilds the summary and the count from the bitmap, and
 * marks the lock consistent.  A repair cut short by another death is simply
 * done again by the next owner.
 *
 * Concurrency.  Repair and the check run under the table's `writer` lock
 * (the check waits for it at most until its deadline); the check reads slot
 * words that processes change without `writer` (write brackets) with single
 * atomic loads.  Walk, info and count take no lock: a walk copies each
 * occupied slot as readers do and skips a slot that keeps changing.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tabra_internal.h"

using namespace tabra_detail;

namespace tabra_detail {

/* ---------------------------------------------------------------------- */
/* Repair after a dead writer                                             */
/* ---------------------------------------------------------------------- */

namespace {

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

}  // namespace

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
    fail(pmdb_tp::tabra_dead_writer_repaired, in.op, in.key, in.slot);
}

/* ---------------------------------------------------------------------- */
/* Consistency check (under `writer`)                                     */
/* ---------------------------------------------------------------------- */

namespace {

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
        st = fail(pmdb_tp::tabra_no_memory, TABRA_E_NOMEM, TABRA_SLOTS * 4, 0);
    if (st == 0) {
        st = lock_writer_until(t, deadline, holder);
        if (st == 0) {
            (void)(check_header(&c) && check_buckets(&c) && check_slots(&c) && check_counts(&c));
            unlock_writer(t);
        }
    }
    if (st == 0 && c.code != 0)
        st = fail(pmdb_tp::tabra_check_failed, TABRA_E_CORRUPT, c.code, c.fault_slot);
    if (c.code == 0 && report != nullptr && len > 0) report[0] = '\0';
    free(c.seen);
    free(c.keys);
    return st;
}

}  // namespace

}  // namespace tabra_detail

/* ---------------------------------------------------------------------- */
/* Exported calls                                                         */
/* ---------------------------------------------------------------------- */

extern "C" {

cerrno tabra_walk(tabra_hdl_t t, tabra_walk_fn_t fn, void *ctx) {
    cerrno st = 0;
    if (injected("tabra_walk", 0, 0, 0, 0, &st)) return st;
    if (t == nullptr || fn == nullptr)
        return fail(pmdb_tp::tabra_walk_bad_argument, TABRA_E_INVAL, 0, 0);
    u8 *buf = static_cast<u8 *>(malloc(t->stride));
    if (buf == nullptr) return fail(pmdb_tp::tabra_no_memory, TABRA_E_NOMEM, t->stride, 0);
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
    if (t == nullptr || info == nullptr)
        return fail(pmdb_tp::tabra_walk_bad_argument, TABRA_E_INVAL, 0, 0);
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
    /* A sample without the writer lock: each slot's state and pins are read
     * once, relaxed; the count is for an operator, not a decision. */
    for (u32 x = 0; x < h->capacity; x++) {
        const tabra_slot_meta_t *s = &slots(t)[x];
        if (ld_rlx(&s->state) == TABRA_SLOT_FREE && ld_rlx(&s->pins) != 0) info->pinned_free++;
    }
    return 0;
}

cerrno tabra_check(tabra_hdl_t t, char *report, size_t len) {
    cerrno st = 0;
    if (injected("tabra_check", 0, 0, 0, 0, &st)) return st;
    if (t == nullptr) return fail(pmdb_tp::tabra_walk_bad_argument, TABRA_E_INVAL, 0, 0);
    return run_check(t, report, len, nullptr, nullptr);
}

cerrno tabra_check_within(tabra_hdl_t t, char *report, size_t len, u32 wait_ms, i32 *holder_tid) {
    cerrno st = 0;
    if (injected("tabra_check_within", wait_ms, 0, 0, 0, &st)) return st;
    if (t == nullptr) return fail(pmdb_tp::tabra_walk_bad_argument, TABRA_E_INVAL, 0, 0);
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

}  // extern "C"
