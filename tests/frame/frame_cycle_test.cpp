// The entry change cycle: every path of an add, a refresh and a removal,
// which step is reported when one fails, and a removal that waits for a
// holder of the slot lock in another process.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "frame_support.h"
#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_db_test.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_test.h"
#include "tabra.h"

namespace {

using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using namespace std::chrono_literals;

constexpr u32 kKey = 0x00C0FFEE;

class FrameCycleTest : public PmdbTest {
protected:
    // Adds `key` to the OAM table with event id `event_id`, as an operation
    // would; returns the cycle's result.
    static cerrno AddOam(u32 key, u32 event_id, i32 *slot = nullptr) {
        return pmdb::test::WriteEntry(
            PMDB_TYPE_OAM, key,
            [&](void *p) {
                auto *e = static_cast<pmdb_oam_entry_t *>(p);
                e->key = key;
                pmdb_stamp(&e->event_id, &e->last_update, event_id);
            },
            slot);
    }

    static pmdb_oam_entry_t ReadOam(u32 key, cerrno *rc) {
        dnx_db_hdl_t *hdl = nullptr;
        pmdb_oam_entry_t e = {};
        *rc = dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0);
        if (*rc == 0) *rc = tabra_copy_entry_by_key(hdl->tabra, key, &e, sizeof e, nullptr);
        return e;
    }
};

void CountRefresh(void *ctx, const pmdb_cycle_t *cyc) {
    static_cast<std::atomic<u32> *>(ctx)->fetch_add(cyc->key == kKey ? 1 : 100);
}

TEST_F(FrameCycleTest, AddCreatesTheEntryUnderAFreshLockAndReleases) {
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    ASSERT_EQ(pmdb_cycle_find_or_create(&cyc, kKey), 0u);
    EXPECT_TRUE(cyc.created);
    ASSERT_NE(cyc.entry, nullptr);
    ASSERT_EQ(pmdb_cycle_lock(&cyc), 0u);
    pmdb_lock_view_t view;
    pmdb_lock_inspect(pmdb_cycle_slot_lock(&cyc, cyc.slot), &view);
    EXPECT_TRUE(view.initialised);
    EXPECT_EQ(view.owner_tid, gettid());

    auto *e = static_cast<pmdb_oam_entry_t *>(cyc.entry);
    memset(e, 0, sizeof *e);
    e->key = kKey;
    struct timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    pmdb_stamp(&e->event_id, &e->last_update, 41);
    EXPECT_GE(e->last_update.tv_sec, before.tv_sec);
    const i32 slot = cyc.slot;
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
    EXPECT_FALSE(cyc.locked);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_OAM)->prot_state, PMDB_PROT_READONLY);
    pmdb_lock_inspect(pmdb_cycle_slot_lock(&cyc, slot), &view);
    EXPECT_FALSE(view.held);

    // Another process reads the finished entry.
    auto r = RunInChild([] {
        cerrno rc = 0;
        const pmdb_oam_entry_t got = ReadOam(kKey, &rc);
        return rc == 0 && got.key == kKey && got.event_id == 41 ? 0 : 1;
    });
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(FrameCycleTest, PresentKeyIsRefreshedInItsSlotWithoutANewLock) {
    i32 first_slot = -1;
    ASSERT_EQ(AddOam(kKey, 1, &first_slot), 0u);
    std::atomic<u32> refreshes{0};
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    ASSERT_EQ(pmdb_cycle_find_or_create(&cyc, kKey, CountRefresh, &refreshes), 0u);
    EXPECT_EQ(refreshes.load(), 1u);
    EXPECT_FALSE(cyc.created);
    EXPECT_EQ(cyc.slot, first_slot);
    ASSERT_EQ(pmdb_cycle_lock(&cyc), 0u);
    EXPECT_EQ(static_cast<pmdb_oam_entry_t *>(cyc.entry)->event_id, 1u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
    EXPECT_EQ(tabra_count(cyc.hdl->tabra), 1u);
}

// "Already present" from an add whose lookup then finds nothing: the key
// was removed in between, and the add is made again.  (Failing steps of
// every operation: tests/ops/failure_test.cpp.)
TEST_F(FrameCycleTest, AddRetriesWhenItsKeyVanishedInBetween) {
    const pmdb_cycle_traces_t points = {.refreshed = pmdb_tp::oam_add_refresh};
    pm_fault_set("tabra_add_entry", TABRA_E_EXISTS, 1);
    pmdb_cycle_t cyc;
    EXPECT_EQ(pmdb_cycle_begin(&cyc, PMDB_TYPE_OAM, kKey, PMDB_CYCLE_CREATE | PMDB_CYCLE_LOCK,
                               &points),
              0u);
    EXPECT_TRUE(cyc.created && cyc.locked);
    EXPECT_EQ(CountTraces(VESK_DATABASE, 157), 1u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
}

TEST_F(FrameCycleTest, FailingReleaseReplacesTheResult) {
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 2);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), TABRA_E_PROT);
    EXPECT_EQ(cyc.failed_step, PMDB_STEP_RELEASE);

    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, TABRA_E_FULL), TABRA_E_PROT);
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, TABRA_E_FULL), TABRA_E_FULL);

    // A failed open needs no release: releasing it anyway calls nothing.
    pm_fault_set("tabra_make_shm_writable", TABRA_E_PROT, 1);
    EXPECT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), TABRA_E_PROT);
    pm_calllog_enable(1);
    EXPECT_EQ(pmdb_cycle_release(&cyc, TABRA_E_PROT), TABRA_E_PROT);
    EXPECT_TRUE(pmdb::test::CallNames("tabra_").empty());
}

TEST_F(FrameCycleTest, TwoEntriesUnderOneOpen) {
    ASSERT_EQ(AddOam(1, 1), 0u);
    ASSERT_EQ(AddOam(2, 1), 0u);
    pmdb_cycle_t member;
    ASSERT_EQ(pmdb_cycle_open(&member, PMDB_TYPE_OAM), 0u);
    // The second entry's cycle runs on the handle the first one opened.
    pmdb_cycle_t bundle = pmdb_cycle_on_handle(member.hdl, PMDB_TYPE_OAM);
    ASSERT_EQ(pmdb_cycle_find_lock(&member, 1), 0u);
    ASSERT_EQ(pmdb_cycle_find_lock(&bundle, 2), 0u);
    EXPECT_NE(member.slot, bundle.slot);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(pmdb_cycle_release(&bundle, 0), 0u);
    EXPECT_EQ(member.hdl->prot_state, PMDB_PROT_WRITABLE);
    EXPECT_EQ(pmdb_cycle_release(&member, 0), 0u);
    EXPECT_EQ(member.hdl->prot_state, PMDB_PROT_READONLY);
    pmdb_lock_view_t view;
    pmdb_lock_inspect(pmdb_cycle_slot_lock(&member, bundle.slot), &view);
    EXPECT_FALSE(view.held);
}

TEST_F(FrameCycleTest, RemovalRetiresTheLockAndRemovesTheEntry) {
    i32 added_slot = -1;
    ASSERT_EQ(AddOam(kKey, 1, &added_slot), 0u);
    std::atomic<u32> seen{0};
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cycle_remove(&cyc, kKey, CountRefresh, &seen), 0u);
    EXPECT_EQ(seen.load(), 1u);
    pmdb_lock_view_t view;
    pmdb_lock_inspect(pmdb_cycle_slot_lock(&cyc, added_slot), &view);
    EXPECT_TRUE(view.destroyed);
    EXPECT_EQ(pmdb_cycle_release(&cyc, 0), 0u);
    ExpectNoTrace(VESK_DATABASE, 71);

    cerrno rc = 0;
    ReadOam(kKey, &rc);
    EXPECT_EQ(rc, TABRA_E_NOTFOUND);
    // The slot can be used again: its new lock works.
    ASSERT_EQ(AddOam(kKey, 2), 0u);

    // A failing table removal names its step (the lookup's own failures:
    // tests/ops/failure_test.cpp).
    pm_fault_set("tabra_remove_entry", TABRA_E_CORRUPT, 1);
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cycle_remove(&cyc, kKey), TABRA_E_CORRUPT);
    EXPECT_EQ(cyc.failed_step, PMDB_STEP_REMOVE);
    EXPECT_EQ(pmdb_cycle_release(&cyc, TABRA_E_CORRUPT), TABRA_E_CORRUPT);
}

TEST_F(FrameCycleTest, RemovalOfAnEntryThisCycleHoldsDoesNotWaitForItself) {
    ASSERT_EQ(AddOam(kKey, 1), 0u);
    auto r = RunInChild(
        [] {
            pmdb_cycle_t cyc;
            if (pmdb_cycle_open(&cyc, PMDB_TYPE_OAM) != 0) return 1;
            if (pmdb_cycle_find_lock(&cyc, kKey) != 0) return 2;
            if (pmdb_cycle_remove_found(&cyc) != 0) return 3;
            return pmdb_cycle_release(&cyc, 0) == 0 ? 0 : 4;
        },
        10s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

}  // namespace
