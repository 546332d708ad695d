// One IFH entry summarised, removed, and its node list changed.
#include <gtest/gtest.h>

#include <cstring>

#include "host/pm_fault.h"
#include "ops_support.h"
#include "pmdb_internal.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace ops_test;

constexpr u32 kPort = 0x1100, kBundle = 0xB100, kSub = 0x5100;

class IfhSummary : public OpsTest {};
class IfhRemoval : public OpsTest {};
class NodeList : public OpsTest {};

TEST_F(IfhSummary, ReadFillsKeysAndFallsBackToTheFirstOamSlot) {
    PutIfh(kSub, [](pmdb_ifh_entry_t &e) {
        e.ifh_flags = PMDB_IFH_MEMBER_ACTIVE;
        e.intf_info.sub_ifh = kSub;
        e.intf_info.bundle_ifh = kBundle;
        e.intf_info.egress_lif = 0x12345;
        e.intf_info.ingress_lif = 0x77;
        e.intf_info.sys_port = 0x1234;
        e.intf_info.member_port = (3 << 10) | 5;
        e.intf_info.member_port_shift = 0xFE;
        e.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
        e.intf_info.oam_slots[5] = 0x5555;
        e.intf_info.oam_slots[9] = 0x9999;
    });
    dpa_pmdb_ifh_summary_t s = {};
    s.sum_flags = 0x80;
    ASSERT_EQ(dpa_pmdb_get_ifh_summary(kSub, &s), PMDB_OK);
    EXPECT_EQ(s.oam_id, 0x5555u);
    ExpectTrace(VESK_ERROR, 265, {kSub, 5, 0x5555});
    EXPECT_EQ(s.egress_lif, 0x12345u);
    EXPECT_EQ(s.ingress_lif, 0x77);
    EXPECT_EQ(s.port_lo, 5);
    EXPECT_EQ(s.port_hi, 3);
    EXPECT_EQ(s.member_port_shift, 2);
    EXPECT_EQ(s.parent_ifh, kBundle);
    EXPECT_EQ(s.bundle_ifh, kBundle);
    EXPECT_EQ(s.sum_flags, 0x80 | PMDB_SUM_EGRESS_KEY | PMDB_SUM_IS_SUB_INTF |
                               PMDB_SUM_IS_BUNDLE_SUB_INTF);  // no is_member on a read
    EXPECT_EQ(s.oam_slots[5], 0u);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);

    EXPECT_EQ(dpa_pmdb_get_ifh_summary(0, &s), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_ifh_summary(0x999, &s), TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 264, {0x999, TABRA_E_NOTFOUND});
    PutPort(kPort);
    MarkTraces();
    ASSERT_EQ(dpa_pmdb_get_ifh_summary(kPort, &s), PMDB_OK);
    EXPECT_EQ(s.oam_id, 0u);
    ExpectNoTrace(VESK_ERROR, 265);
}

TEST_F(IfhRemoval, CallbackFirstThenTheEntryGoes) {
    PutPort(kPort);
    PutIfh(kPort, [](pmdb_ifh_entry_t &e) { e.intf_info.oam_slots[2] = 0x22; });
    const i32 slot = SlotOf(PMDB_TYPE_IFH, kPort);
    // The callback sees the entry still in its table.
    static bool present_during_callback;
    present_during_callback = false;
    OorCalls().clear();
    dpa_pmdb_set_oor_cb([](u32 ifh, u32 slot, u32 state, u32 removed) {
        OorCalls().push_back({ifh, slot, state, removed});
        present_during_callback = SlotOf(PMDB_TYPE_IFH, ifh) != -1;
    });
    dpa_pmdb_ifh_summary_t s = {};
    s.oam_slots[3] = 0x33;
    ASSERT_EQ(dpa_pmdb_remove_ifh_entry(kPort, &s, 5), PMDB_OK);
    EXPECT_EQ(OorCalls(), (std::vector<OorCall>{{kPort, (u32)slot, 0, 1}}));
    EXPECT_TRUE(present_during_callback);
    EXPECT_EQ(SlotOf(PMDB_TYPE_IFH, kPort), -1);
    EXPECT_EQ(s.ingress_lif, kPort + 1);
    EXPECT_EQ(s.oam_slots[2], 0x22u);
    EXPECT_EQ(s.oam_slots[3], 0x33u);  // zero slots leave the caller's value
    EXPECT_EQ(s.bundle_ifh, 0u);       // not a member: untouched
    EXPECT_EQ(s.sum_flags & PMDB_SUM_IS_MEMBER, 0);
    ExpectTrace(VESK_EVENT, 164, {kPort});
    ExpectTrace(VESK_DATABASE, 166, {kPort, s.egress_lif, kPort + 1, s.sys_port, 0, 0, 0});

    // Nothing found: the lookup's status, no callback, summary untouched.
    OorCalls().clear();
    const dpa_pmdb_ifh_summary_t before = s;
    EXPECT_EQ(dpa_pmdb_remove_ifh_entry(kPort, &s, 6), TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 163, {kPort, TABRA_E_NOTFOUND});
    EXPECT_TRUE(OorCalls().empty());
    EXPECT_EQ(memcmp(&s, &before, sizeof s), 0);
    EXPECT_EQ(dpa_pmdb_remove_ifh_entry(0, &s, 6), PMDB_EINVAL);
    ExpectTrace(VESK_ERROR, 161, {});
}

TEST_F(IfhRemoval, AnActiveMemberTakesItsBundleCountDown) {
    PutBundle(kBundle);
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) {
        e.member_count = 2;
        e.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    });
    for (u32 port : {kPort, kPort + 1}) {
        PutPort(port);
        PutIfh(port, [](pmdb_ifh_entry_t &e) {
            e.ifh_flags = PMDB_IFH_MEMBER_ACTIVE;
            e.intf_info.bundle_ifh = kBundle;
        });
    }
    dpa_pmdb_ifh_summary_t s = {};
    const timespec before = Now();
    ASSERT_EQ(dpa_pmdb_remove_ifh_entry(kPort, &s, 0x42), PMDB_OK);
    pmdb_ifh_entry_t b = Ifh(kBundle);
    EXPECT_EQ(b.member_count, 1);
    EXPECT_EQ(b.event_id, 0x42u);
    EXPECT_TRUE(Within(b.last_update, before, Now()));
    EXPECT_EQ(s.bundle_ifh, kBundle);
    EXPECT_EQ(s.bundle_egress_lif, b.intf_info.egress_lif);
    EXPECT_EQ(s.bundle_ingress_lif, b.intf_info.ingress_lif);
    EXPECT_EQ(s.sum_flags & (PMDB_SUM_IS_MEMBER | PMDB_SUM_EGRESS_KEY),
              PMDB_SUM_IS_MEMBER | PMDB_SUM_EGRESS_KEY);

    // A failing table removal is traced, yet the bundle update's code wins.
    pm_fault_set("tabra_remove_entry", TABRA_E_CORRUPT, 1);
    dpa_pmdb_ifh_summary_t s2 = {};
    EXPECT_EQ(dpa_pmdb_remove_ifh_entry(kPort + 1, &s2, 0x43), PMDB_OK);
    ExpectTrace(VESK_ERROR, 165, {kPort + 1, TABRA_E_CORRUPT});
    EXPECT_EQ(Ifh(kBundle).member_count, 0);
}

TEST_F(NodeList, BitsOfNodesModulo32InBundleSubInterfacesOnly) {
    pm_calllog_enable(1);
    EXPECT_EQ(dpa_pmdb_update_ifh_entry_nodelist(kSub, 1, 1, 0x10000, nullptr), PMDB_OK);
    EXPECT_EQ(dpa_pmdb_update_ifh_entry_nodelist(0, 1, 1, 3, nullptr), PMDB_OK);
    EXPECT_EQ(CallNames(), std::vector<std::string>{});
    EXPECT_FALSE(TableExists(PMDB_IFH_TABLE_NAME));

    PutIfh(kSub, [](pmdb_ifh_entry_t &e) {
        e.intf_info.sub_ifh = kSub;
        e.intf_info.bundle_ifh = kBundle;
    });
    struct Step {
        i32 add;
        u32 node;
        u16 mask;
    } steps[] = {{1, 1, 0x2},  {1, 15, 0x8002}, {1, 16, 0x8002}, {1, 31, 0x8002},
                 {1, 32, 0x8003}, {1, 33, 0x8003}, {0, 15, 0x3},  {0, 7, 0x3},
                 {0, 1, 0x1},  {0, 32, 0x0}};
    u32 event_id = 100;
    for (const Step &st : steps) {
        u16 mask = 0xDEAD;
        const timespec before = Now();
        ASSERT_EQ(dpa_pmdb_update_ifh_entry_nodelist(kSub, st.add, ++event_id, st.node, &mask),
                  PMDB_OK);
        const pmdb_ifh_entry_t e = Ifh(kSub);
        EXPECT_EQ(mask, st.mask) << "node " << st.node << " add " << st.add;
        EXPECT_EQ(e.node_mask, st.mask);
        EXPECT_EQ(e.event_id, event_id);  // stamped even when the mask stays
        EXPECT_TRUE(Within(e.last_update, before, Now()));
    }
    ExpectTrace(VESK_EVENT, 127, {kSub, 0, 0, kBundle, 0});

    // A main interface is left alone, and mask_out keeps the caller's value.
    PutPort(kPort);
    const pmdb_ifh_entry_t port = Ifh(kPort);
    u16 mask = 0xDEAD;
    EXPECT_EQ(dpa_pmdb_update_ifh_entry_nodelist(kPort, 1, 999, 3, &mask), PMDB_OK);
    EXPECT_EQ(mask, 0xDEAD);
    const pmdb_ifh_entry_t after = Ifh(kPort);
    EXPECT_EQ(memcmp(&after, &port, sizeof port), 0);
    EXPECT_EQ(dpa_pmdb_update_ifh_entry_nodelist(0x777, 1, 1, 3, &mask), TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 126, {0x777, TABRA_E_NOTFOUND});
}

}  // namespace
