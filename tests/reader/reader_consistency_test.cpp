// Consistency of reader copies against writers in other processes: no torn
// copy, lock-free or locked, no endless wait behind a dead or stuck writer,
// no copy of another key when a slot is re-used, and sound entries, locks
// and copies when many writers race on the same keys.
//
// Nothing here depends on how the scheduler interleaves the processes: an
// interleaving a test needs is either made by a handshake (a writer holds the
// entry until the reader is seen on the path under test) or awaited by
// reading until it has been seen.  Time bounds only detect hangs.
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "card.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_lock_view.h"
#include "pmdb_reader.h"
#include "pmdb_test.h"
#include "tabra.h"

namespace {

using namespace std::chrono_literals;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using pmdb::test::PmdbTest;
using pmdb::test::RemoveEntry;
using pmdb::test::SlotOf;
using pmdb::test::WriteEntry;
using Clock = std::chrono::steady_clock;

constexpr size_t kWords = PMDB_READER_INFO_COPY_SIZE / 4;
/* Hang detector of every loop that waits for something to be seen, and the
 * reader's lock wait bound where a wait must end only by the writer's hand. */
constexpr auto kHang = 30s;
constexpr u32 kHangMs = 30000;
using Copy = std::array<u32, PMDB_PUNT_ENTRY_SIZE / 4>;
constexpr u32 kPort = 0x1001, kMember = 0x1002, kBundle = 0x5000;

class ReaderConsistencyTest : public PmdbTest {
protected:
    void TearDown() override {
        dpa_pmdb_reader_set_lock_wait_ms(0);
        PmdbTest::TearDown();
    }
};

/* The interface and punt blocks of an IFH or PUNT entry. */
u32 *Blocks(pmdb_type_t type, void *entry) {
    if (type == PMDB_TYPE_IFH)
        return reinterpret_cast<u32 *>(&static_cast<pmdb_ifh_entry_t *>(entry)->intf_info);
    return reinterpret_cast<u32 *>(&static_cast<pmdb_punt_entry_t *>(entry)->intf_info);
}

/* Entry `key` of `type` with every block word `value` (the key field kept),
 * yielding half way so that an unlocked reader would see a mix. */
cerrno PutPattern(pmdb_type_t type, u32 key, u32 value) {
    return WriteEntry(type, key, [&](void *e) {
        *static_cast<u32 *>(e) = key;
        u32 *w = Blocks(type, e);
        for (size_t i = 0; i < kWords; i++) {
            if (i == kWords / 2) sched_yield();
            __atomic_store_n(&w[i], value, __ATOMIC_RELAXED);
        }
    });
}

/* What the reader copies of `key`: the interface and punt blocks of an IFH
 * or PUNT entry, a whole OAM entry. */
cerrno ReadBlocks(pmdb_type_t type, u32 key, Copy *out) {
    if (type == PMDB_TYPE_OAM)
        return dpa_pmdb_get_oam_entry_by_key(key, reinterpret_cast<pmdb_oam_entry_t *>(out->data()));
    return type == PMDB_TYPE_IFH ? dpa_pmdb_get_ifh_entry_by_key(key, out->data(), 0, 0)
                                 : dpa_pmdb_get_punt_entry_by_key(key, out->data());
}

/* Every word of a copy is one writer's: each copied block word, or each
 * word of an OAM entry after its key. */
bool Uniform(const Copy &c, pmdb_type_t type = PMDB_TYPE_IFH) {
    const bool oam = type == PMDB_TYPE_OAM;
    const size_t first = oam ? 1 : 0, end = oam ? PMDB_OAM_ENTRY_SIZE / 4 : kWords;
    return std::all_of(c.begin() + first, c.begin() + end, [&](u32 w) { return w == c[first]; });
}

/* How a holder child holds its entry. */
enum class Hold {
    locked,    /* found, under its slot lock */
    open_only, /* found (open for writing), its slot lock left alone */
    created,   /* created under its slot lock, its key not written yet */
};

/* A child that holds `key` of `type` open for writing as `how` says, with
 * the second half of the blocks rewritten to `value` (the handles in the
 * first half stay), then waits to be released or killed.  Released, it
 * writes `value` into the first half too when `complete` is set, and lets
 * the entry go. */
std::unique_ptr<ChildProcess> StartHolder(pmdb_type_t type, u32 key, u32 value,
                                          bool complete = false, Hold how = Hold::locked) {
    return std::make_unique<ChildProcess>([=](ChildLink &link) {
        pmdb_cycle_t cyc;
        if (pmdb_cycle_open(&cyc, type) != 0) return 1;
        const cerrno rc = how == Hold::locked    ? pmdb_cycle_find_lock(&cyc, key)
                          : how == Hold::created ? pmdb_cycle_find_or_create(&cyc, key)
                                                 : pmdb_cycle_find(&cyc, key);
        if (rc != 0 || (how == Hold::created && pmdb_cycle_lock(&cyc) != 0)) return 2;
        u32 *w = Blocks(type, cyc.entry);
        for (size_t i = kWords / 2; i < kWords; i++) w[i] = value;
        link.Ready();
        link.WaitRelease();
        for (size_t i = 0; complete && i < kWords / 2; i++) w[i] = value;
        return static_cast<int>(pmdb_cycle_release(&cyc, 0));
    });
}

dpa_pmdb_reader_stats_t Stats() {
    dpa_pmdb_reader_stats_t s;
    dpa_pmdb_reader_get_stats(&s);
    return s;
}

/* Lock-free copies while another process rewrites `key` with patterns 1, 2,
 * 3, ... (leaving it at rest a little after each, so that lock-free copies
 * come soon even when the reader waits long for the processor): read until
 * more than 20 patterns and a lock-free copy have been seen; none torn. */
void ExpectNoTornCopyOfRewrites(pmdb_type_t type, u32 key) {
    ChildProcess writer([type, key](ChildLink &link) {
        link.Ready();
        for (u32 v = 1;; v++) {
            if (PutPattern(type, key, v) != PMDB_OK) return 1;
            usleep(50);
        }
    });
    ASSERT_TRUE(writer.WaitReady());
    std::set<u32> seen;
    size_t copies = 0, torn = 0;
    const dpa_pmdb_reader_stats_t before = Stats();
    bool lock_free = false;
    for (const auto hang = Clock::now() + kHang;
         (seen.size() <= 20 || !lock_free) && Clock::now() < hang;) {
        Copy c;
        ASSERT_EQ(ReadBlocks(type, key, &c), PMDB_OK);
        copies++;
        torn += Uniform(c) ? 0 : 1;
        seen.insert(c[0]);
        const dpa_pmdb_reader_stats_t now = Stats();
        lock_free = now.copies - before.copies > now.locked_copies - before.locked_copies;
    }
    EXPECT_EQ(torn, 0u) << "of " << copies << " copies";
    EXPECT_GT(seen.size(), 20u) << "the writer must have changed the entry during the reads";
    EXPECT_TRUE(lock_free);
}

/* Runs `read` in a thread of this process while `holder` holds the entry,
 * and releases the holder once the read is on the locked path (which a read
 * of an entry open for writing in another process must take).  The read's
 * result. */
cerrno ReadPastHolder(ChildProcess *holder, const std::function<cerrno()> &read) {
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    const u64 locked_before = Stats().locked_copies;
    cerrno rc = PMDB_EINVAL;
    std::thread reader([&] { rc = read(); });
    bool locked_path = false;
    for (const auto hang = Clock::now() + kHang; !locked_path && Clock::now() < hang;) {
        locked_path = Stats().locked_copies > locked_before;
        if (!locked_path) std::this_thread::sleep_for(1ms);
    }
    holder->Release();
    reader.join();
    EXPECT_TRUE(locked_path);
    EXPECT_TRUE(holder->Wait().ExitedWith(0));
    return rc;
}

/* A copy that meets `key` half rewritten and held under its slot lock takes
 * the locked path and waits; the holder finishes its pattern only once the
 * reader is seen on that path, and the copy is the finished pattern.  The
 * same entry copied without the slot lock meanwhile is torn, so a reader
 * that skipped the lock would be caught.  A copy of 1 to 3 bytes on that
 * path still checks the record's whole key (its first four bytes), and
 * hands over only the bytes asked for. */
void ExpectLockedCopiesWaitForTheWriter(pmdb_type_t type, u32 key) {
    constexpr u32 kHeld = 0x77;
    for (u32 len = 0; len <= 3; len++) { /* 0: the type's lookup */
        SCOPED_TRACE(len);
        auto holder = StartHolder(type, key, kHeld + len, true);
        ASSERT_TRUE(holder->WaitReady());
        dnx_db_hdl_t *hdl = nullptr;
        ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, type, 0), PMDB_OK);
        std::array<u8, PMDB_IFH_ENTRY_SIZE> raw;
        ASSERT_EQ(
            tabra_copy_entry_by_key(hdl->tabra, key, raw.data(), hdl->cfg->entry_size, nullptr),
            PMDB_OK);
        Copy c;
        memcpy(c.data(), Blocks(type, raw.data()), PMDB_READER_INFO_COPY_SIZE);
        EXPECT_FALSE(Uniform(c));
        std::array<u8, 4> buf{0xEE, 0xEE, 0xEE, 0xEE};
        ASSERT_EQ(ReadPastHolder(holder.get(),
                                 [&] {
                                     return len == 0
                                                ? ReadBlocks(type, key, &c)
                                                : dpa_pmdb_copy_entry(type, key, buf.data(), len);
                                 }),
                  PMDB_OK);
        ASSERT_EQ(len > 0 ? ReadBlocks(type, key, &c) : PMDB_OK, PMDB_OK);
        EXPECT_TRUE(Uniform(c));
        EXPECT_EQ(c[0], kHeld + len);
        const std::array<u8, 4> want{len > 0 ? u8{0x74} : u8{0xEE}, len > 1 ? u8{0x73} : u8{0xEE},
                                     len > 2 ? u8{0x72} : u8{0xEE}, 0xEE};
        EXPECT_EQ(buf, want);
    }
}

TEST_F(ReaderConsistencyTest, NoTornCopyWhileAnotherProcessRewrites) {
    constexpr u32 kKey = 0x71727374; /* bytes of their own, for the short copies */
    for (const pmdb_type_t type : {PMDB_TYPE_IFH, PMDB_TYPE_PUNT}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(PutPattern(type, kKey, 0), PMDB_OK);
        ExpectNoTornCopyOfRewrites(type, kKey);
        ExpectLockedCopiesWaitForTheWriter(type, kKey);
    }
}

TEST_F(ReaderConsistencyTest, DeadOrOwnWriterHoldingTheLockDoesNotBlockReaders) {
    ASSERT_EQ(PutPattern(PMDB_TYPE_IFH, kPort, 1), PMDB_OK);
    auto holder = StartHolder(PMDB_TYPE_IFH, kPort, 9);
    ASSERT_TRUE(holder->WaitReady());
    holder->Kill(SIGKILL);
    EXPECT_TRUE(holder->Wait().KilledBy(SIGKILL));

    /* A reader that waited on the dead holder's lock would end in 16 after
     * the bound, not with a copy. */
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    const u64 dead_before = Stats().owner_dead;
    Copy c;
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, kPort, &c), PMDB_OK);
    EXPECT_EQ(Stats().owner_dead, dead_before + 1);
    /* The copy shows what the dead writer left: the old half, then its half. */
    EXPECT_EQ(c[0], 1u);
    EXPECT_EQ(c[kWords - 1], 9u);
    /* The reader made the lock consistent: a second read, with no writer in
     * between (the dead writer's window still refuses lock-free copies),
     * takes it at once, without another recovery. */
    dpa_pmdb_reader_set_lock_wait_ms(1000);
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, kPort, &c), PMDB_OK);
    EXPECT_EQ(Stats().owner_dead, dead_before + 1);
    EXPECT_EQ(c[kWords - 1], 9u);

    /* The lock is usable again for writers and readers. */
    ASSERT_EQ(PutPattern(PMDB_TYPE_IFH, kPort, 3), PMDB_OK);
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, kPort, &c), PMDB_OK);
    EXPECT_TRUE(Uniform(c));
    EXPECT_EQ(c[0], 3u);

    /* A writer thread reading its own locked entry does not wait (it would
     * end in 16) and does not release the writer's lock. */
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_IFH), PMDB_OK);
    ASSERT_EQ(pmdb_cycle_find_lock(&cyc, kPort), PMDB_OK);
    dpa_pmdb_reader_set_lock_wait_ms(5000);
    c.fill(0);
    EXPECT_EQ(ReadBlocks(PMDB_TYPE_IFH, kPort, &c), PMDB_OK);
    EXPECT_EQ(c[0], 3u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, PMDB_OK), PMDB_OK);
}

/* An entry held open for writing past the reader's bound: the locked path
 * ends the read on its own, with the buffer untouched.  A slot lock that is
 * not one, zeroed (a plain mutex that keeps no writer out) or retired, is
 * neither taken nor changed: busy while the entry is there.  A new entry
 * whose key its writer has not written yet is found twice without its key:
 * missing, not busy.  A stuck writer's lock is waited on for the bound: busy,
 * and a list query reports it and still returns the others. */
TEST_F(ReaderConsistencyTest, EntryHeldPastTheBoundEndsTheReadOnItsOwn) {
    constexpr int kLockKept = 1;
    const struct {
        const char *what;
        Hold how;
        int lock_kind; /* the slot lock zeroed with this kind, or kLockKept */
        cerrno want;
    } cases[] = {
        {"zeroed lock", Hold::open_only, 0, PMDB_EBUSY},
        {"retired lock", Hold::open_only, -1, PMDB_EBUSY},
        {"new entry without its key", Hold::created, kLockKept, PMDB_ENOTFOUND},
        {"stuck writer", Hold::locked, kLockKept, PMDB_EBUSY},
    };
    card::PutMember(kMember, kBundle);
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    dpa_pmdb_reader_set_lock_wait_ms(60);
    for (u32 i = 0; i < std::size(cases); i++) {
        const auto &k = cases[i];
        SCOPED_TRACE(k.what);
        const u32 key = 0x4300 + i;
        const bool stuck = k.how == Hold::locked; /* only it is a member of kBundle */
        if (k.how != Hold::created) card::PutMember(key, stuck ? kBundle : 0);
        auto holder = StartHolder(PMDB_TYPE_IFH, key, 9, false, k.how);
        ASSERT_TRUE(holder->WaitReady());
        pellin_mutex_type *lock = nullptr;
        pellin_mutex_type before{};
        if (k.lock_kind != kLockKept) {
            lock = &hdl->shrd_ctx->entry_lock[SlotOf(PMDB_TYPE_IFH, key)];
            memset(lock, 0, sizeof *lock);
            lock->__data.__kind = k.lock_kind;
            before = *lock;
        }
        const u64 locked_before = Stats().locked_copies;
        Copy c;
        c.fill(7);
        const auto t0 = Clock::now();
        EXPECT_EQ(ReadBlocks(PMDB_TYPE_IFH, key, &c), k.want);
        const auto waited = Clock::now() - t0;
        EXPECT_GT(Stats().locked_copies, locked_before) << "the locked path was not taken";
        EXPECT_EQ(c[0], 7u);
        EXPECT_EQ(c[kWords - 1], 7u);
        EXPECT_TRUE(k.want != PMDB_EBUSY || waited >= 60ms);
        EXPECT_LT(waited, kHang) << "the bound was not kept";
        EXPECT_TRUE(lock == nullptr || memcmp(&before, lock, sizeof before) == 0) << "lock changed";
        EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, c.data(), 8), k.want);
        std::array<u32, 3> members{7, 7, 7};
        EXPECT_EQ(dpa_pmdb_get_bundle_member_ifh_entries(kBundle, members.data(), 2,
                                                         PMDB_READER_ALL_NODES),
                  stuck ? PMDB_EBUSY : PMDB_OK);
        EXPECT_EQ(members, (std::array<u32, 3>{kMember, 0, 7}));
        holder->Release();
        EXPECT_TRUE(holder->Wait().ExitedWith(0));
        if (!stuck) continue;
        ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, key, &c), PMDB_OK);
        EXPECT_EQ(c[0], key);
        EXPECT_EQ(c[kWords - 1], 9u);
    }
}

/* ---- many writers of the same keys ---------------------------------------
 * Adds, refreshes and removals of the same few keys, from several threads in
 * each of several processes at once, while another process copies them
 * through the reader: no call crashes or hangs, every call answers a status
 * it documents, a writer never shares its entry with another writer, no
 * reader copy mixes two writers' words or is of another key whose entry
 * took the slot, and the table and its locks are sound afterwards. */

constexpr int kWriterProcs = 3, kThreadsPerProc = 2, kOpsPerThread = 1500, kReads = 20000;
constexpr std::array<u32, 2> kKeys = {0x0011, 0x0012};

class SameKeyRaceTest : public PmdbTest, public ::testing::WithParamInterface<pmdb_type_t> {};

/* Writes `tag` with the key in its top byte into every word of the entry
 * after its key, yielding half way so that a second writer would interleave,
 * then checks that every word still holds it: under a sound entry lock nobody
 * else writes meanwhile. */
bool FillAndCheck(void *entry, pmdb_type_t type, u32 key, u32 tag) {
    const u32 words = pmdb_fields::kEntrySize[type] / 4, value = key << 24 | tag;
    u32 *w = static_cast<u32 *>(entry);
    __atomic_store_n(&w[0], key, __ATOMIC_RELAXED);
    for (u32 i = 1; i < words; i++) {
        if (i == words / 2) sched_yield();
        __atomic_store_n(&w[i], value, __ATOMIC_RELAXED);
    }
    sched_yield();
    for (u32 i = 1; i < words; i++)
        if (__atomic_load_n(&w[i], __ATOMIC_RELAXED) != value) return false;
    return true;
}

/* One writer thread: a random mix of adds or refreshes (two in three) and
 * removals, until the first fault. */
void WriterThread(pmdb_type_t type, u32 seed) {
    std::mt19937 rng(seed);
    for (int op = 0; op < kOpsPerThread; op++) {
        const u32 key = kKeys[rng() % kKeys.size()];
        const bool remove = rng() % 3 == 2;
        bool shared = false;
        const cerrno st = remove ? RemoveEntry(type, key) : WriteEntry(type, key, [&](void *e) {
            shared = !FillAndCheck(e, type, key, (seed << 16) | (op + 1u));
        });
        ASSERT_FALSE(shared) << "another writer wrote in entry " << key;
        ASSERT_TRUE(st == 0 || (remove && st == TABRA_E_NOTFOUND)) << remove << " " << st;
    }
}

/* The reader's lock wait is long: a writer holds an entry for microseconds,
 * so a busy answer would be a fault, not a loaded machine. */
void ReadWhileWritten(pmdb_type_t type) {
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    for (int i = 0; i < kReads; i++) {
        Copy c;
        const u32 key = kKeys[i % kKeys.size()];
        const cerrno st = ReadBlocks(type, key, &c);
        ASSERT_TRUE(st == 0 || st == PMDB_ENOTFOUND) << st;
        ASSERT_TRUE(st != 0 || (Uniform(c, type) && c[1] >> 24 == key)) << "torn or another key";
    }
}

/* Runs body(0) .. body(n - 1) in threads released together. */
void InThreads(int n, const std::function<void(int)> &body) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; t++)
        threads.emplace_back([&, t] {
            while (!go.load()) {
            }
            body(t);
        });
    go = true;
    for (auto &th : threads) th.join();
}

TEST_P(SameKeyRaceTest, EveryInterleavingLeavesOneWriterPerEntry) {
    const pmdb_type_t type = GetParam();
    pmdb::test::RunAtOnce(kWriterProcs + 1, {}, [type](size_t p) {
        if (p == kWriterProcs) return ReadWhileWritten(type);
        InThreads(kThreadsPerProc, [&](int t) {
            WriterThread(type, static_cast<u32>(p * kThreadsPerProc + t + 1));
        });
    });

    tabra_hdl_t table = nullptr;
    ASSERT_EQ(tabra_attach(pmdb_fields::kTableName[type], &table), 0u);
    char report[256] = "";
    EXPECT_EQ(tabra_check(table, report, sizeof report), 0u) << report;
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, type), 0u);
    /* One more entry, so that the reads below find at least one. */
    constexpr u32 kAfter = 0x0013;
    ASSERT_EQ(WriteEntry(type, kAfter, [&](void *e) { FillAndCheck(e, type, kAfter, 5); }), 0u);
    std::vector<u32> left;
    for (u32 key : {kKeys[0], kKeys[1], kAfter}) {
        const i32 slot = SlotOf(type, key);
        if (slot < 0) continue;
        left.push_back(key);
        pmdb_lock_view_t view;
        pmdb_lock_inspect(&hdl->shrd_ctx->entry_lock[slot], &view);
        EXPECT_TRUE(view.initialised && !view.held) << "key " << key << " slot " << slot;
    }
    /* Threads of this process, which has not used the reader yet, race to
     * attach and each reads every entry left, whole. */
    InThreads(4, [&](int) {
        Copy c;
        for (int i = 0; i < 200; i++)
            for (u32 key : left)
                ASSERT_TRUE(ReadBlocks(type, key, &c) == 0 && Uniform(c, type)) << key;
    });
}

INSTANTIATE_TEST_SUITE_P(Tables, SameKeyRaceTest,
                         ::testing::Values(PMDB_TYPE_IFH, PMDB_TYPE_PUNT, PMDB_TYPE_OAM),
                         [](const auto &info) {
                             return std::string(std::array{"Ifh", "Punt", "Oam"}[info.param]);
                         });

}  // namespace
