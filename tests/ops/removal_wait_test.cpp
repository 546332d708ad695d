// The three removers wait, without failing, while another process holds the
// entry's slot lock, and go on once it lets go - by unlocking, or by dying.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>

#include "card.h"
#include "pmdb_ops.h"

namespace {

using namespace card;
using namespace std::chrono_literals;

constexpr u32 kKey = 0x1234;

// Puts an entry under kKey in `type` and returns its remover.
std::function<cerrno()> EntryAndRemover(pmdb_type_t type) {
    pmdb_event_t ev = MemberEvent(1, 1, kKey);
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

// A remover (the table) runs in a thread while another process holds kKey's
// slot lock; once the remover has found the lock busy (trace 71) it must
// still be waiting, and after the holder unlocks or is killed (the flag) it
// must finish with 0.
class RemovalWait : public CardTest,
                    public ::testing::WithParamInterface<std::tuple<pmdb_type_t, bool>> {};

TEST_P(RemovalWait, UntilTheHolderLetsGo) {
    const auto [type, kill] = GetParam();
    const auto remove = EntryAndRemover(type);
    auto holder = HoldInChild(SlotLock(type, kKey));
    ASSERT_TRUE(holder->WaitReady());
    std::atomic<bool> done{false};
    cerrno rc = 99;
    std::thread remover([&] {
        rc = remove();
        done = true;
    });
    for (int i = 0; i < 30000 && CountTraces(VESK_DATABASE, 71) == 0; i++)
        std::this_thread::sleep_for(1ms); /* hang detector only */
    EXPECT_GE(CountTraces(VESK_DATABASE, 71), 1u) << "no busy pass of the lock retirement";
    EXPECT_FALSE(done.load()) << "the removal did not wait for the holder";
    if (kill) {
        holder->Kill(SIGKILL);
    } else {
        holder->Release();
    }
    const ChildResult held = holder->Wait();
    EXPECT_TRUE(kill ? held.KilledBy(SIGKILL) : held.ExitedWith(0)) << held.Describe();
    remover.join();
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(SlotOf(type, kKey), -1);
}

std::string CaseName(const ::testing::TestParamInfo<std::tuple<pmdb_type_t, bool>> &info) {
    const char *const names[] = {"Ifh", "Punt", "Oam"};
    return std::string(names[std::get<0>(info.param)]) +
           (std::get<1>(info.param) ? "Killed" : "Unlocked");
}

INSTANTIATE_TEST_SUITE_P(Removers, RemovalWait,
                         ::testing::Combine(::testing::Values(PMDB_TYPE_IFH, PMDB_TYPE_PUNT,
                                                              PMDB_TYPE_OAM),
                                            ::testing::Bool()),
                         CaseName);

}  // namespace
