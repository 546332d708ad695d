// Adds, refreshes and removals of the same few keys, from several threads in
// each of several processes at once, while another process copies them
// through the reader: no call crashes or hangs, every call answers a status
// it documents, a writer never shares its entry with another writer, no
// reader copy mixes two writers' words, and the table and its locks are
// sound afterwards.
#include <sched.h>
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "pmdb_lock_view.h"
#include "pmdb_reader.h"
#include "pmdb_test.h"
#include "reader_card.h"
#include "tabra.h"

namespace {

using namespace std::chrono_literals;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;

constexpr int kWriterProcs = 3, kThreadsPerProc = 2, kOpsPerThread = 1500, kReads = 20000;
constexpr std::array<u32, 2> kKeys = {0x0011, 0x0012};

/* Faults of a child's thread: a writer saw another writer's words in its
 * entry; a call answered a status it does not document; a reader copy held
 * words of two writers.  A child exits with the sum of its threads' faults. */
constexpr int kMixed = 1, kBadStatus = 2, kTorn = 3;

struct RaceCase {
    const char *name;
    pmdb_type_t type;
    u32 entry_size;
};

class SameKeyRaceTest : public pmdb::test::PmdbTest,
                        public ::testing::WithParamInterface<RaceCase> {};

/* Writes `value` into every word of the entry after its key, yielding half
 * way so that a second writer would interleave, then checks that every word
 * still holds it: under a sound entry lock nobody else writes meanwhile. */
bool FillAndCheck(void *entry, u32 words, u32 key, u32 value) {
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

int BadStatus(const char *what, cerrno st) {
    fprintf(stderr, "%s answered %#x\n", what, st);
    return kBadStatus;
}

/* One writer thread: a random mix of adds or refreshes (two in three) and
 * removals.  0, or the child exit code of the first fault. */
int WriterThread(const RaceCase &rc, u32 seed) {
    std::mt19937 rng(seed);
    for (int op = 0; op < kOpsPerThread; op++) {
        const u32 key = kKeys[rng() % kKeys.size()];
        if (rng() % 3 == 2) {
            const cerrno st = rcard::RemoveEntry(rc.type, key);
            if (st != 0 && st != TABRA_E_NOTFOUND) return BadStatus("remove", st);
            continue;
        }
        bool mixed = false;
        const cerrno st = rcard::WriteEntry(rc.type, key, [&](void *e) {
            mixed = !FillAndCheck(e, rc.entry_size / 4, key, (seed << 16) | (op + 1u));
        });
        if (mixed) return kMixed;
        if (st != 0) return BadStatus("add", st);
    }
    return 0;
}

/* A reader copy: every word after the key (for the OAM table, where the
 * reader copies the whole entry) or of the copied blocks (IFH and PUNT,
 * whose lookups copy the interface and punt blocks) is one writer's. */
cerrno ReadUniform(const RaceCase &rc, u32 key, bool *uniform) {
    std::array<u32, PMDB_READER_INFO_COPY_SIZE / 4> buf{};
    cerrno st = 0;
    size_t first = 0, words = buf.size();
    if (rc.type == PMDB_TYPE_IFH) st = dpa_pmdb_get_ifh_entry_by_key(key, buf.data(), 0, 0);
    if (rc.type == PMDB_TYPE_PUNT) st = dpa_pmdb_get_punt_entry_by_key(key, buf.data());
    if (rc.type == PMDB_TYPE_OAM) {
        st = dpa_pmdb_get_oam_entry_by_key(key, reinterpret_cast<pmdb_oam_entry_t *>(buf.data()));
        first = 1;
        words = PMDB_OAM_ENTRY_SIZE / 4;
    }
    *uniform = true;
    for (size_t i = first + 1; st == 0 && i < words; i++) *uniform = *uniform && buf[i] == buf[first];
    return st;
}

int ReaderProcess(const RaceCase &rc) {
    for (int i = 0; i < kReads; i++) {
        bool uniform = true;
        const cerrno st = ReadUniform(rc, kKeys[i % kKeys.size()], &uniform);
        if (st == 0 && !uniform) return kTorn;
        if (st != 0 && st != PMDB_ENOTFOUND && st != PMDB_EBUSY) return BadStatus("lookup", st);
    }
    return 0;
}

/* Runs body(0) .. body(n - 1) in threads released together; the sum of their
 * results. */
int InThreads(int n, const std::function<int(int)> &body) {
    std::atomic<bool> go{false};
    std::atomic<int> sum{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; t++)
        threads.emplace_back([&, t] {
            while (!go.load()) {
            }
            sum += body(t);
        });
    go = true;
    for (auto &th : threads) th.join();
    return sum.load();
}

TEST_P(SameKeyRaceTest, EveryInterleavingLeavesOneWriterPerEntry) {
    const RaceCase rc = GetParam();
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int p = 0; p < kWriterProcs; p++)
        children.push_back(std::make_unique<ChildProcess>([rc, p](ChildLink &) {
            return InThreads(kThreadsPerProc, [&](int t) {
                return WriterThread(rc, static_cast<u32>(p * kThreadsPerProc + t + 1));
            });
        }));
    children.push_back(std::make_unique<ChildProcess>([rc](ChildLink &) { return ReaderProcess(rc); }));
    for (auto &c : children) {
        const auto r = c->Wait(120s); /* a hang detector; the run takes a second or two */
        EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    }

    tabra_hdl_t table = nullptr;
    ASSERT_EQ(tabra_attach(rc.type == PMDB_TYPE_IFH    ? PMDB_IFH_TABLE_NAME
                           : rc.type == PMDB_TYPE_PUNT ? PMDB_PUNT_TABLE_NAME
                                                       : PMDB_OAM_TABLE_NAME,
                           &table),
              0u);
    char report[256] = "";
    EXPECT_EQ(tabra_check(table, report, sizeof report), 0u) << report;
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, rc.type), 0u);
    /* One more entry, so that the reads below find at least one. */
    constexpr u32 kAfter = 0x0013;
    ASSERT_EQ(rcard::WriteEntry(rc.type, kAfter,
                                [&](void *e) { FillAndCheck(e, rc.entry_size / 4, kAfter, 5); }),
              0u);
    std::vector<u32> left;
    for (u32 key : {kKeys[0], kKeys[1], kAfter}) {
        const i32 slot = rcard::SlotOf(rc.type, key);
        if (slot < 0) continue;
        left.push_back(key);
        pmdb_lock_view_t view;
        pmdb_lock_inspect(&hdl->shrd_ctx->entry_lock[slot], &view);
        EXPECT_TRUE(view.initialised && !view.held) << "key " << key << " slot " << slot;
    }
    /* Threads of this process, which has not used the reader yet, race to
     * attach and each reads every entry left, whole. */
    EXPECT_EQ(InThreads(4,
                        [&](int) {
                            int failures = 0;
                            bool uniform = false;
                            for (int i = 0; i < 200; i++)
                                for (u32 key : left)
                                    failures += ReadUniform(rc, key, &uniform) != 0 || !uniform;
                            return failures;
                        }),
              0);
}

INSTANTIATE_TEST_SUITE_P(Tables, SameKeyRaceTest,
                         ::testing::Values(RaceCase{"Ifh", PMDB_TYPE_IFH, PMDB_IFH_ENTRY_SIZE},
                                           RaceCase{"Punt", PMDB_TYPE_PUNT, PMDB_PUNT_ENTRY_SIZE},
                                           RaceCase{"Oam", PMDB_TYPE_OAM, PMDB_OAM_ENTRY_SIZE}),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
