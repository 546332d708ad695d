/*
 * Table store: many processes and threads adding, finding and removing at
 * once.  Every case ends with the consistency check and the exact set of
 * keys that must be present.
 */
#include <pthread.h>

#include <atomic>
#include <set>

#include "host_tabra.h"

using namespace host_test;
using pmdb::test::PmdbTest;

namespace {

class TabraConcurrency : public PmdbTest {};

constexpr int kProcs = 4;
constexpr u32 kRounds = 12;
constexpr u32 kBatch = 400; /* keys per round */

/* Round r adds keys of batch r and removes the even keys of batch r - 1.
 * Process p adds the keys of the batch with (i % 4) in {p, p + 1} and removes
 * those with (i % 4) in {p, p + 2}: each key is added by two processes at
 * once and removed by two at once, while other keys come and go. */
u32 KeyOf(u32 round, u32 i) {
    return (round + 1) * 0x10000 + i * 13 % 0xFFF0;
}

/* How many calls of each key succeeded; any status but success, "exists"
 * for an add and "not found" for a removal fails the child. */
struct RoundLog {
    pthread_barrier_t barrier;
    std::atomic<u32> add_ok[kRounds][kBatch];
    std::atomic<u32> remove_ok[kRounds][kBatch];
};

bool Adds(size_t p, u32 i) { return i % 4 == p || i % 4 == (p + 1) % 4; }
bool Removes(size_t p, u32 i) { return i % 2 == 0 && (i % 4 == p || i % 4 == (p + 2) % 4); }

void RunRounds(size_t p, tabra_hdl_t h, RoundLog *log) {
    for (u32 r = 0; r <= kRounds; r++) {
        for (u32 i = 0; i < kBatch; i++) {
            if (r < kRounds && Adds(p, i)) {
                void *e = nullptr;
                i32 slot = -1;
                const cerrno st = tabra_add_entry(h, KeyOf(r, i), &e, &slot);
                EXPECT_TRUE(st == 0 || st == TABRA_E_EXISTS) << st;
                log->add_ok[r][i] += st == 0 ? 1 : 0;
            }
            if (r > 0 && Removes(p, i)) {
                const cerrno st = tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, KeyOf(r - 1, i));
                EXPECT_TRUE(st == 0 || st == TABRA_E_NOTFOUND) << st;
                log->remove_ok[r - 1][i] += st == 0 ? 1 : 0;
            }
        }
        pthread_barrier_wait(&log->barrier);
    }
}

TEST_F(TabraConcurrency, FourProcessesOverlappingKeysEndWithTheExactSet) {
    Shared<RoundLog> log;
    pthread_barrierattr_t a;
    pthread_barrierattr_init(&a);
    pthread_barrierattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_barrier_init(&log->barrier, &a, kProcs);
    /* A collision-heavy hash: every round's keys share 16 buckets. */
    tabra_hdl_t h = OpenOrDie(Params("CONC", 80, [](u32 k) { return k % 16; }, 16));
    ASSERT_NE(h, nullptr);
    pmdb::test::RunAtOnce(kProcs, {}, [&](size_t p) { RunRounds(p, h, log.get()); });
    std::set<u32> want;
    for (u32 r = 0; r < kRounds; r++) {
        for (u32 i = 0; i < kBatch; i++) {
            /* Two adders (removers): exactly one created (removed) the entry. */
            EXPECT_EQ(log->add_ok[r][i].load(), 1u) << r << "/" << i;
            if (i % 2 == 0)
                EXPECT_EQ(log->remove_ok[r][i].load(), 1u) << r << "/" << i;
            else
                want.insert(KeyOf(r, i));
        }
    }
    std::set<u32> got;
    for (const auto &[k, s] : Contents(h)) got.insert(k);
    EXPECT_EQ(got, want);
    EXPECT_EQ(CheckReport(h), "") << "it also holds the count to the slots in use";
}

/* Readers in other processes look up and walk keys that stay in the table
 * while writers add and remove other keys of the same buckets, reusing slots
 * all the time: a stable key must never go missing, and neither a copy nor a
 * walk may show another key's entry. */
struct ChurnLog {
    std::atomic<int> readers_done;
    std::atomic<u64> lookups, misses, wrong, churn;
};

/* Churn key i of writer w: even i in bucket 1 (with the stable keys), odd i
 * in bucket 2.  Step n adds key n and removes key n - 32 (same parity), and
 * step n + 1 adds in the other bucket, taking the slot just freed: a reader
 * standing on that slot is led into the wrong chain unless it notices. */
u32 ChurnKey(int w, u32 i) {
    return 0x1000000u * static_cast<u32>(w + 1) + i * 8 + 1 + i % 2;
}

void Churn(tabra_hdl_t h, tabra_params_t params, int w, ChurnLog *log) {
    tabra_make_shm_writable(h, &params);
    for (u32 n = 0; log->readers_done.load() < 2; n++) {
        void *e = nullptr;
        i32 slot = -1;
        const u32 key = ChurnKey(w, n % 64);
        if (tabra_add_entry(h, key, &e, &slot) == 0) *static_cast<u32 *>(e) = key;
        tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, ChurnKey(w, (n + 32) % 64));
        log->churn++;
    }
}

/* A walk in the middle of the churn: every entry it shows carries its own
 * key (or is still zero, just added), and all stable keys are in it. */
void WalkOnce(tabra_hdl_t h, ChurnLog *log) {
    struct seen_t {
        u32 stable = 0;
        u64 wrong = 0;
    } seen;
    tabra_walk(
        h,
        [](void *ctx, u32 key, i32, const void *entry) {
            auto *s = static_cast<seen_t *>(ctx);
            const u32 v = *static_cast<const u32 *>(entry);
            if (v != key && v != 0) s->wrong++;
            if (key < 0x1000000u) s->stable++;
            return 0;
        },
        &seen);
    log->wrong += seen.wrong;
    if (seen.stable != 64) log->misses++;
}

/* Until enough of both has run; the readers' end is the writers' signal. */
void Look(tabra_hdl_t h, ChurnLog *log) {
    for (u32 n = 0; log->lookups.load() < 2000000 || log->churn.load() < 500000; n++) {
        if (n % 256 == 255) WalkOnce(h, log);
        const u32 key = (n % 64) * 8 + 1; /* the stable keys */
        u32 v[20];
        i32 slot = -1;
        const cerrno st = tabra_copy_entry_by_key(h, key, v, sizeof v, &slot);
        if (st != 0)
            log->misses++;
        else if (v[0] != key)
            log->wrong++;
        log->lookups++;
    }
    log->readers_done++;
}

TEST_F(TabraConcurrency, LookupsNeverMissAStableKeyWhileItsBucketsChurn) {
    Shared<ChurnLog> log;
    tabra_params_t params = Params(
        "CHURN", 80, [](u32 k) { return k % 8; }, 8);
    tabra_hdl_t h = OpenOrDie(params);
    tabra_make_shm_writable(h, &params);
    for (u32 i = 0; i < 64; i++) *static_cast<u32 *>(AddOrDie(h, i * 8 + 1)) = i * 8 + 1;
    pmdb::test::RunAtOnce(4, {}, [&](size_t k) {
        if (k < 2) Churn(h, params, static_cast<int>(k), log.get());
        if (k >= 2) Look(h, log.get());
    });
    EXPECT_EQ(log->misses.load(), 0u);
    EXPECT_EQ(log->wrong.load(), 0u);
    EXPECT_EQ(CheckReport(h), "");
    for (u32 i = 0; i < 64; i++) {
        void *e = nullptr;
        i32 slot = -1;
        EXPECT_EQ(tabra_get_entry_by_key(h, i * 8 + 1, &e, &slot), 0u);
    }
}

}  // namespace

// A slot that passes to another key between a pin's lookup and the pin
// itself is never pinned for the old key: the pin looks again and finds
// the key where it is now, or nowhere, and the other key's slot stays free
// of pins.  The table store's step point runs the change in that window.
TEST_F(TabraConcurrency, SlotReusedBetweenLookupAndPinIsNeverPinnedForTheOldKey) {
    struct Ctx {
        tabra_hdl_t h;
        bool key_returns; /* the old key is added again, into another slot */
        i32 other_slot, moved_slot;
    };
    for (const bool key_returns : {false, true}) {
        SCOPED_TRACE(key_returns ? "the key is added again elsewhere" : "the key is gone");
        tabra_hdl_t h = OpenOrDie(Params(key_returns ? "PINB" : "PING", 16, Mod7, 7));
        ASSERT_NE(h, nullptr);
        i32 first_slot = -1;
        AddOrDie(h, 100, &first_slot);
        Ctx ctx{h, key_returns, -1, -1};
        pm_fault_on_step(
            "tabra_pin_slot:found",
            [](void *p, uint64_t, uint64_t) {
                auto *c = static_cast<Ctx *>(p);
                EXPECT_EQ(tabra_remove_entry(c->h, TABRA_REMOVE_BY_KEY, 100), 0u);
                AddOrDie(c->h, 200, &c->other_slot);
                if (c->key_returns) AddOrDie(c->h, 100, &c->moved_slot);
            },
            &ctx, 1);
        const void *entry = nullptr;
        i32 slot = -1;
        const cerrno st = tabra_pin_slot(h, 100, &entry, &slot);
        pm_fault_clear();
        ASSERT_EQ(ctx.other_slot, first_slot) << "the window did not hand the slot over";
        if (key_returns) {
            ASSERT_EQ(st, 0u);
            void *stored = nullptr;
            i32 stored_slot = -1;
            ASSERT_EQ(tabra_get_entry_by_key(h, 100, &stored, &stored_slot), 0u);
            EXPECT_EQ(std::make_pair(entry, slot),
                      std::make_pair(const_cast<const void *>(stored), ctx.moved_slot));
            tabra_unpin_slot(h, slot);
        } else {
            EXPECT_EQ(st, TABRA_E_NOTFOUND);
        }
        /* No pin was left on the other key's slot: freed, it is reused. */
        ASSERT_EQ(tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, 200), 0u);
        i32 next = -1;
        AddOrDie(h, 300, &next);
        EXPECT_EQ(next, first_slot);
    }
}
