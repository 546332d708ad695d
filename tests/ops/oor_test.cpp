// Out-of-resource state of members and bundles, set through the two
// exported calls and seen in the IFH entries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "card.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kBundle = 0xB200, kMember = 0x1200, kLoose = 0x1300;
constexpr u32 kUnset = 0xEEEEEEEE;

/* What the member update reports: bundle, bundle state, changed, bundle slot. */
using Outs = std::array<u32, 4>;
constexpr Outs kNoOuts = {kUnset, kUnset, kUnset, kUnset};

class OorState : public CardTest {
  protected:
    cerrno Update(u32 ifh, u32 state, Outs *o, u32 reason = 7) {
        *o = kNoOuts;
        return dpa_pmdb_update_bundle_oor_state(ifh, state, reason, &(*o)[0], &(*o)[1], &(*o)[2],
                                                &(*o)[3]);
    }
};

TEST_F(OorState, MemberChangesMoveTheBundleCountersAndItsState) {
    PutBundle(kBundle);
    PutMember(kMember, kBundle, 0);
    const u32 slot = static_cast<u32>(SlotOf(PMDB_TYPE_IFH, kBundle));
    Outs o;
    const timespec before = Now();
    ASSERT_EQ(Update(kMember, 2, &o, 0x51), PMDB_OK);
    EXPECT_EQ(o, (Outs{kBundle, 2, 1, slot}));
    EXPECT_EQ(OorOf(kBundle), (Oor{0, 1, 2, 0x51, 1}));
    EXPECT_EQ(OorOf(kMember), (Oor{0, 0, 2, 0x51, 1}));
    EXPECT_TRUE(Within(Ifh(kBundle).intf_info.oor_time, before, Now()));
    ExpectTrace(VESK_EVENT, 300, {kMember, 0, 2});
    ExpectTrace(VESK_EVENT, 304, {0, 0, 0});
    ExpectTrace(VESK_EVENT, 305, {2, 0, 1});

    // Back to 0: reported as a change to 0, the bundle's own state stays 2.
    ASSERT_EQ(Update(kMember, 0, &o), PMDB_OK);
    EXPECT_EQ(o, (Outs{kBundle, 0, 1, slot}));
    EXPECT_EQ(OorOf(kBundle), (Oor{0, 0, 2, 0x51, 1}));

    // The state a member already has changes nothing at all.
    ASSERT_EQ(Update(kMember, 0, &o), PMDB_OK);
    EXPECT_EQ(Ifh(kMember).intf_info.oor_changes, 2u);
    EXPECT_EQ(o, kNoOuts);
}

TEST_F(OorState, WorkedCounterSequences) {
    struct Case {
        u16 m1, m2;
        u32 from, to;
        u16 want_m1, want_m2;
        u32 changed, state;
    } cases[] = {
        {1, 0, 1, 2, 0, 1, 1, 2},       // (1,0) -> (0,1), derived 1 -> 2
        {0, 3, 2, 1, 1, 2, 0, kUnset},  // (0,3) -> (1,2), derived stays 2
        {0, 0, 1, 2, 0, 1, 1, 2},       // level-1 counter already 0 (293)
    };
    for (const Case &c : cases) {
        PutBundle(kBundle, c.m1, c.m2);
        PutMember(kMember, kBundle, c.from);
        Outs o;
        ASSERT_EQ(Update(kMember, c.to, &o), PMDB_OK);
        const Oor b = OorOf(kBundle);
        EXPECT_EQ((std::vector<u32>{b[0], b[1], o[1], o[2]}),
                  (std::vector<u32>{c.want_m1, c.want_m2, c.state, c.changed}));
        if (c.changed == 0) {
            EXPECT_EQ(o[0], kUnset);
        }
    }
    EXPECT_EQ(CountTraces(VESK_ERROR, 293), 1u);
    ExpectTrace(VESK_ERROR, 293, {kBundle, 2, 2, 0, 0});
}

TEST_F(OorState, MembersWithoutABundleOrInterface) {
    PutMember(kLoose, 0, 0);
    Outs o;
    ASSERT_EQ(Update(kLoose, 1, &o), PMDB_OK);
    EXPECT_EQ(Ifh(kLoose).intf_info.oor_state, 1u);
    EXPECT_EQ(o, kNoOuts);

    PutBundle(kBundle);  // neither ifh nor sub_ifh in its block
    ASSERT_EQ(Update(kBundle, 1, &o), PMDB_OK);
    ExpectTrace(VESK_EVENT, 299, {kBundle});
    EXPECT_EQ(Ifh(kBundle).intf_info.oor_changes, 0u);

    // A bundle that cannot be found: the member's state stays recorded.
    PutMember(kMember, 0xDEAD, 0);
    EXPECT_EQ(Update(kMember, 2, &o), TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 301, {0xDEAD, TABRA_E_NOTFOUND});
    EXPECT_EQ(Ifh(kMember).intf_info.oor_state, 2u);
}

TEST_F(OorState, DirectSettingRefusesClearingOnlyWithBothLevelsCounted) {
    PutBundle(kBundle, 2, 0);
    const u32 slot = static_cast<u32>(SlotOf(PMDB_TYPE_IFH, kBundle));
    u32 slot_out = kUnset;
    ASSERT_EQ(dpa_pmdb_set_bundle_oor_state(kBundle, 0, 3, &slot_out), PMDB_OK);
    EXPECT_EQ(slot_out, slot);
    EXPECT_EQ(OorOf(kBundle), (Oor{2, 0, 0, 3, 1}));  // a change although it repeats 0
    const auto done = pmdb::test::FindTraces(mark(), VESK_EVENT, 310);
    ASSERT_EQ(done.size(), 1u);
    /* The third argument is where the block lives in this process. */
    EXPECT_THAT(std::vector<uint64_t>(done[0].args, done[0].args + done[0].nargs),
                ::testing::ElementsAre(kBundle, slot, ::testing::Ne(0u), 0u));

    PutBundle(kBundle, 2, 1);
    slot_out = kUnset;
    EXPECT_EQ(dpa_pmdb_set_bundle_oor_state(kBundle, 0, 4, &slot_out), PMDB_EINVAL);
    ExpectTrace(VESK_ERROR, 309, {kBundle});
    EXPECT_EQ(slot_out, kUnset);
    EXPECT_EQ(OorOf(kBundle), (Oor{2, 1, 0, 3, 1}));
    ASSERT_EQ(dpa_pmdb_set_bundle_oor_state(kBundle, 1, 5, &slot_out), PMDB_OK);
    EXPECT_EQ(Ifh(kBundle).intf_info.oor_state, 1u);
}

}  // namespace
