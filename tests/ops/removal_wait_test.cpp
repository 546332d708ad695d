// The three removers wait, without failing, while another process holds the
// entry's slot lock, and go on once it lets go - by unlocking, or by dying.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ops_support.h"
#include "pmdb_cycle.h"
#include "pmdb_ops.h"

namespace {

using namespace ops_test;
using namespace std::chrono_literals;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;

constexpr u32 kKey = 0x1234;

// Puts an entry under kKey in `type` and returns its remover.
std::function<cerrno()> EntryAndRemover(pmdb_type_t type) {
    pmdb_event_t ev = IntfEvent(1, 1, kKey);
    i32 slot = 0;
    dpa_pmdb_ifh_summary_t summary = {};
    switch (type) {
    case PMDB_TYPE_IFH:
        PutPort(kKey);
        return [summary]() mutable { return dpa_pmdb_remove_ifh_entry(kKey, &summary, 9); };
    case PMDB_TYPE_PUNT:
        EXPECT_EQ(dpa_pmdb_add_punt_entry(kKey, &ev, &slot, nullptr), 0u);
        return [] { return dpa_pmdb_remove_punt_entry(kKey); };
    default:
        EXPECT_EQ(dpa_pmdb_add_oam_entry(kKey, &ev, &slot), 0u);
        return [] { return dpa_pmdb_remove_oam_entry(kKey); };
    }
}

class RemovalWait : public OpsTest, public ::testing::WithParamInterface<pmdb_type_t> {
protected:
    // A child process that holds kKey's slot lock until released or killed.
    std::unique_ptr<ChildProcess> Holder() {
        const pmdb_type_t type = GetParam();
        auto child = std::make_unique<ChildProcess>([type](ChildLink &link) {
            pmdb_cycle_t cyc;
            if (pmdb_cycle_open(&cyc, type) != 0) return 1;
            if (pmdb_cycle_find_lock(&cyc, kKey) != 0) return 2;
            link.Ready();
            link.WaitRelease();
            return pmdb_cycle_release(&cyc, 0) == 0 ? 0 : 3;
        });
        EXPECT_TRUE(child->WaitReady());
        return child;
    }

    // Runs the remover in a thread while `let_go` ends the hold; expects the
    // remover still waiting after 150 ms and finished with 0 afterwards.
    void ExpectWaitThenRemoval(const std::function<cerrno()> &remove,
                               const std::function<void()> &let_go) {
        std::atomic<bool> done{false};
        cerrno rc = 99;
        std::thread remover([&] {
            rc = remove();
            done = true;
        });
        std::this_thread::sleep_for(150ms);
        EXPECT_FALSE(done.load()) << "the removal did not wait for the holder";
        let_go();
        remover.join();
        EXPECT_EQ(rc, 0u);
        EXPECT_EQ(SlotOf(GetParam(), kKey), -1);
        EXPECT_GE(CountTraces(VESK_DATABASE, 71), 1u) << "no busy pass of the lock retirement";
    }
};

TEST_P(RemovalWait, UntilTheHolderUnlocks) {
    auto remove = EntryAndRemover(GetParam());
    auto holder = Holder();
    ExpectWaitThenRemoval(remove, [&] { holder->Release(); });
    EXPECT_TRUE(holder->Wait().ExitedWith(0));
}

TEST_P(RemovalWait, UntilTheHolderIsKilled) {
    auto remove = EntryAndRemover(GetParam());
    auto holder = Holder();
    ExpectWaitThenRemoval(remove, [&] { holder->Kill(SIGKILL); });
    EXPECT_TRUE(holder->Wait().KilledBy(SIGKILL));
}

std::string TypeName(const ::testing::TestParamInfo<pmdb_type_t> &info) {
    static const char *const names[] = {"Ifh", "Punt", "Oam"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(Removers, RemovalWait,
                         ::testing::Values(PMDB_TYPE_IFH, PMDB_TYPE_PUNT, PMDB_TYPE_OAM),
                         TypeName);

}  // namespace
