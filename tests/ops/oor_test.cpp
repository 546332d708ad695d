// Out-of-resource state of members and bundles, set through the two
// exported calls and seen in the IFH entries.
#include <gtest/gtest.h>

#include "card.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kBundle = 0xB200, kMember = 0x1200, kLoose = 0x1300;
constexpr u32 kUnset = 0xEEEEEEEE;

struct Outs {
    u32 bundle = kUnset, state = kUnset, changed = kUnset, slot = kUnset;
};

class OorState : public CardTest {
protected:
    cerrno Update(u32 ifh, u32 state, Outs *o, u32 reason = 7) {
        return dpa_pmdb_update_bundle_oor_state(ifh, state, reason, &o->bundle, &o->state,
                                                &o->changed, &o->slot);
    }
    void ExpectCounters(u16 m1, u16 m2) {
        const pmdb_ifh_entry_t b = Ifh(kBundle);
        EXPECT_EQ(b.intf_info.oor_members_1, m1);
        EXPECT_EQ(b.intf_info.oor_members_2, m2);
    }
};

TEST_F(OorState, MemberChangesMoveTheBundleCountersAndItsState) {
    PutBundle(kBundle);
    PutMember(kMember, kBundle, 0);
    const u32 slot = static_cast<u32>(SlotOf(PMDB_TYPE_IFH, kBundle));
    Outs o;
    const timespec before = Now();
    ASSERT_EQ(Update(kMember, 2, &o, 0x51), PMDB_OK);
    ExpectCounters(0, 1);
    EXPECT_EQ(o.bundle, kBundle);
    EXPECT_EQ(o.state, 2u);
    EXPECT_EQ(o.changed, 1u);
    EXPECT_EQ(o.slot, slot);
    pmdb_ifh_entry_t b = Ifh(kBundle), m = Ifh(kMember);
    EXPECT_EQ(b.intf_info.oor_state, 2u);
    EXPECT_EQ(b.intf_info.oor_reason, 0x51u);
    EXPECT_EQ(b.intf_info.oor_changes, 1u);
    EXPECT_TRUE(Within(b.intf_info.oor_time, before, Now()));
    EXPECT_EQ(m.intf_info.oor_state, 2u);
    EXPECT_EQ(m.intf_info.oor_reason, 0x51u);
    EXPECT_EQ(m.intf_info.oor_changes, 1u);
    ExpectTrace(VESK_EVENT, 300, {kMember, 0, 2});
    ExpectTrace(VESK_EVENT, 304, {0, 0, 0});
    ExpectTrace(VESK_EVENT, 305, {2, 0, 1});

    // Back to 0: reported as a change to 0, the bundle's own state stays 2.
    o = Outs();
    ASSERT_EQ(Update(kMember, 0, &o), PMDB_OK);
    ExpectCounters(0, 0);
    EXPECT_EQ(o.state, 0u);
    EXPECT_EQ(o.changed, 1u);
    b = Ifh(kBundle);
    EXPECT_EQ(b.intf_info.oor_state, 2u);
    EXPECT_EQ(b.intf_info.oor_changes, 1u);

    // The state a member already has changes nothing at all.
    o = Outs();
    ASSERT_EQ(Update(kMember, 0, &o), PMDB_OK);
    EXPECT_EQ(Ifh(kMember).intf_info.oor_changes, 2u);
    EXPECT_EQ(o.changed, kUnset);
}

TEST_F(OorState, WorkedCounterSequences) {
    struct Case {
        u16 m1, m2;
        u32 from, to;
        u16 want_m1, want_m2;
        u32 changed, state;
    } cases[] = {
        {0, 0, 0, 2, 0, 1, 1, 2},            // (0,0) -> (0,1), derived 0 -> 2
        {1, 0, 1, 2, 0, 1, 1, 2},            // (1,0) -> (0,1), derived 1 -> 2
        {0, 3, 2, 1, 1, 2, 0, kUnset},       // (0,3) -> (1,2), derived stays 2
        {0, 0, 1, 2, 0, 1, 1, 2},            // level-1 counter already 0 (293)
    };
    for (const Case &c : cases) {
        PutBundle(kBundle, c.m1, c.m2);
        PutMember(kMember, kBundle, c.from);
        Outs o;
        ASSERT_EQ(Update(kMember, c.to, &o), PMDB_OK);
        ExpectCounters(c.want_m1, c.want_m2);
        EXPECT_EQ(o.changed, c.changed);
        EXPECT_EQ(o.state, c.state);
        if (c.changed == 0) {
            EXPECT_EQ(o.bundle, kUnset);
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
    EXPECT_EQ(o.changed, kUnset);
    EXPECT_EQ(o.bundle, kUnset);

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
    pmdb_ifh_entry_t b = Ifh(kBundle);
    EXPECT_EQ(b.intf_info.oor_changes, 1u);  // recorded although it repeats 0
    EXPECT_EQ(b.intf_info.oor_reason, 3u);
    const auto done = pmdb::test::FindTraces(mark(), VESK_EVENT, 310);
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].nargs, 4u);
    EXPECT_EQ(done[0].args[0], kBundle);
    EXPECT_EQ(done[0].args[1], slot);
    EXPECT_NE(done[0].args[2], 0u);  // where the block lives in this process
    EXPECT_EQ(done[0].args[3], 0u);

    PutBundle(kBundle, 2, 1);
    slot_out = kUnset;
    EXPECT_EQ(dpa_pmdb_set_bundle_oor_state(kBundle, 0, 4, &slot_out), PMDB_EINVAL);
    ExpectTrace(VESK_ERROR, 309, {kBundle});
    EXPECT_EQ(slot_out, kUnset);
    b = Ifh(kBundle);
    EXPECT_EQ(b.intf_info.oor_changes, 1u);
    EXPECT_EQ(b.intf_info.oor_reason, 3u);
    ASSERT_EQ(dpa_pmdb_set_bundle_oor_state(kBundle, 1, 5, &slot_out), PMDB_OK);
    EXPECT_EQ(Ifh(kBundle).intf_info.oor_state, 1u);
}

}  // namespace
