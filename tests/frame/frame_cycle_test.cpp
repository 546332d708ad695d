// The entry change cycle: an add, a refresh and a removal, the add's retry,
// the release's result, and a removal of an entry the cycle holds.  (The
// refresh hook, the retirement of a removed entry's lock and a second
// entry's cycle on the first one's open: the operation tests.)
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <chrono>

#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_db_test.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_test.h"
#include "tabra.h"

namespace {

using pmdb::test::RunInChild;
using namespace std::chrono_literals;

constexpr u32 kKey = 0x00C0FFEE;

class FrameCycleTest : public pmdb::test::PmdbTest {};

// Adds `key` to the OAM table with event id `event_id`, as an operation
// would; returns the cycle's result.
cerrno AddOam(u32 key, u32 event_id) {
    return pmdb::test::WriteEntry(PMDB_TYPE_OAM, key, [&](void *p) {
        auto *e = static_cast<pmdb_oam_entry_t *>(p);
        e->key = key;
        pmdb_stamp(&e->event_id, &e->last_update, event_id);
    });
}

pmdb_lock_view_t SlotLockView(pmdb_cycle_t *cyc, i32 slot) {
    pmdb_lock_view_t view;
    pmdb_lock_inspect(pmdb_cycle_slot_lock(cyc, slot), &view);
    return view;
}

// An add creates the entry under a fresh lock and releases.  A second add
// finds the key in its slot and takes the same lock.  The removal removes
// the entry, and the key can be added again.  (Entries as other processes
// read them: tests/ops/oam_test.cpp; the failing steps of every operation,
// the release included, the slot locks they leave and the write access they
// give back: failure_test.cpp.)
TEST_F(FrameCycleTest, AddRefreshAndRemovalOfAnEntry) {
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    ASSERT_EQ(pmdb_cycle_find_or_create(&cyc, kKey), 0u);
    EXPECT_TRUE(cyc.created);
    ASSERT_NE(cyc.entry, nullptr);
    ASSERT_EQ(pmdb_cycle_lock(&cyc), 0u);
    EXPECT_TRUE(SlotLockView(&cyc, cyc.slot).initialised);
    EXPECT_EQ(SlotLockView(&cyc, cyc.slot).owner_tid, gettid());
    auto *e = static_cast<pmdb_oam_entry_t *>(cyc.entry);
    memset(e, 0, sizeof *e);
    e->key = kKey;
    pmdb_stamp(&e->event_id, &e->last_update, 41);
    const i32 slot = cyc.slot;
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);

    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    ASSERT_EQ(pmdb_cycle_find_or_create(&cyc, kKey), 0u);
    EXPECT_FALSE(cyc.created);
    EXPECT_EQ(cyc.slot, slot);
    ASSERT_EQ(pmdb_cycle_lock(&cyc), 0u);
    EXPECT_EQ(static_cast<pmdb_oam_entry_t *>(cyc.entry)->event_id, 41u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
    EXPECT_EQ(tabra_count(cyc.hdl->tabra), 1u);

    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cycle_remove(&cyc, kKey), 0u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
    ExpectNoTrace(VESK_DATABASE, 71);
    EXPECT_EQ(pmdb::test::SlotOf(PMDB_TYPE_OAM, kKey), -1);
    ASSERT_EQ(AddOam(kKey, 2), 0u);

    // A failing release replaces the cycle's result, even a failure.
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);
    EXPECT_EQ(pmdb_cycle_release(&cyc, TABRA_E_FULL), TABRA_E_PROT);
    EXPECT_EQ(cyc.failed_step, PMDB_STEP_RELEASE);
}

// "Already present" from an add whose lookup then finds nothing: the key
// was removed in between, and the add is made again.  (Failing steps of
// every operation: tests/ops/failure_test.cpp.)
TEST_F(FrameCycleTest, AddRetriesWhenItsKeyVanishedInBetween) {
    const pmdb_cycle_traces_t points = {.refreshed = pmdb_tp::oam_add_refresh};
    pm_fault_set("tabra_add_entry", TABRA_E_EXISTS, 1);
    pmdb_cycle_t cyc;
    EXPECT_EQ(
        pmdb_cycle_begin(&cyc, PMDB_TYPE_OAM, kKey, PMDB_CYCLE_CREATE | PMDB_CYCLE_LOCK, &points),
        0u);
    EXPECT_TRUE(cyc.created && cyc.locked);
    EXPECT_EQ(CountTraces(VESK_DATABASE, 157), 1u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
}

// The removal of an entry the cycle holds does not wait for itself.
TEST_F(FrameCycleTest, RemovalUnderTheCyclesOwnLock) {
    ASSERT_EQ(AddOam(1, 1), 0u);
    auto r = RunInChild(
        [] {
            pmdb_cycle_t cyc;
            if (pmdb_cycle_open(&cyc, PMDB_TYPE_OAM) != 0) return 1;
            if (pmdb_cycle_find_lock(&cyc, 1) != 0) return 2;
            if (pmdb_cycle_remove_found(&cyc) != 0) return 3;
            return pmdb_cycle_release(&cyc, 0) == 0 ? 0 : 4;
        },
        10s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

}  // namespace
