// OAM entries: added and refreshed from OAM and interface events, removed by
// key, and the OAM event entry.
#include <gtest/gtest.h>

#include <cstring>

#include "host/pm_fault.h"
#include "ops_support.h"
#include "pmdb_internal.h"
#include "tabra.h"

namespace {

using namespace ops_test;

constexpr u32 kKey = 0xABCD001C;

class OamEntry : public OpsTest {};

pmdb_event_t OamEvent(u8 type, u32 event_id, u32 key, u8 fill) {
    pmdb_event_t ev = {};
    ev.event_type = type;
    ev.valid_flags = PMDB_VF_OAM;
    ev.event_id = event_id;
    ev.oam.oam_key = key;
    memset(&ev.oam.oam_info, fill, sizeof ev.oam.oam_info);
    return ev;
}

TEST_F(OamEntry, KeyZeroIsRefusedBeforeAnythingIsOpened) {
    pm_calllog_enable(1);
    pmdb_event_t ev = OamEvent(1, 1, 0, 0x11);
    int slot = -1;
    EXPECT_EQ(dpa_pmdb_add_oam_entry(0, &ev, &slot), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_remove_oam_entry(0), PMDB_EINVAL);
    dpa_pmdb_oam_oper(&ev);
    EXPECT_EQ(CallNames(), std::vector<std::string>{});
    ExpectTrace(VESK_ERROR, 153, {});
    ExpectTrace(VESK_ERROR, 167, {});
    ExpectTrace(VESK_ERROR, 291, {0, PMDB_EINVAL});
    EXPECT_EQ(CountTraces(VESK_ERROR, 153), 2u);
    EXPECT_FALSE(TableExists(PMDB_OAM_TABLE_NAME));
}

TEST_F(OamEntry, OamBodyIsCopiedAndARefreshKeepsTheSlot) {
    pmdb_event_t ev = OamEvent(1, 5, kKey, 0);
    ev.oam.oam_info.oam_ifh = 0x500;
    ev.oam.oam_info.oam_byte_a = 0xA;
    ev.oam.oam_info.oam_byte_b = 0xB;
    ev.oam.oam_info.oam_word = 0xC0C0;
    ev.oam.oam_info.opaque_0[3] = 0x33;
    ev.valid_flags |= PMDB_VF_INTF;  // the OAM body wins
    int slot = -1, again = -1;
    const timespec before = Now();
    ASSERT_EQ(dpa_pmdb_add_oam_entry(kKey, &ev, &slot), PMDB_OK);
    pmdb_oam_entry_t e = Oam(kKey);
    EXPECT_EQ(e.key, kKey);
    EXPECT_EQ(e.event_id, 5u);
    EXPECT_TRUE(Within(e.last_update, before, Now()));
    EXPECT_EQ(memcmp(&e.oam_info, &ev.oam.oam_info, sizeof e.oam_info), 0);
    ExpectTrace(VESK_DATABASE, 159, {kKey, 0x500, 0xA, 0xB, 0xC0C0});
    ExpectNoTrace(VESK_DATABASE, 157);

    // An interface event on the present key: handle and data word only.
    pmdb_event_t intf = IntfEvent(1, 6, 0x100);
    intf.intf_info.oam_data_36 = 0xD36;
    const timespec mid = Now();
    ASSERT_EQ(dpa_pmdb_add_oam_entry(kKey, &intf, &again), PMDB_OK);
    EXPECT_EQ(again, slot);
    ExpectTrace(VESK_DATABASE, 157, {kKey});
    e = Oam(kKey);
    EXPECT_EQ(e.event_id, 6u);
    EXPECT_TRUE(Within(e.last_update, mid, Now()));
    EXPECT_EQ(e.oam_info.oam_ifh, 0x100u);
    EXPECT_EQ(e.oam_info.oam_intf_data, 0xD36u);
    EXPECT_EQ(e.oam_info.oam_word, 0xC0C0u);
    EXPECT_EQ(e.oam_info.opaque_0[3], 0x33);
}

TEST_F(OamEntry, InterfaceEventsNameTheMostSpecificHandle) {
    struct Case {
        u32 ifh, sub, bundle, want;
    } cases[] = {{0x10, 0x20, 0x30, 0x20}, {0x10, 0, 0x30, 0x30}, {0x10, 0, 0, 0x10}, {0, 0, 0, 0}};
    u32 key = 0x1000;
    for (const Case &c : cases) {
        pmdb_event_t ev = IntfEvent(1, 1, c.ifh, c.bundle);
        ev.intf_info.sub_ifh = c.sub;
        int slot = -1;
        ASSERT_EQ(dpa_pmdb_add_oam_entry(++key, &ev, &slot), PMDB_OK);
        EXPECT_EQ(Oam(key).oam_info.oam_ifh, c.want) << "case " << key;
    }
    // Neither body: a new entry's OAM block stays zero.
    pmdb_event_t bare = {};
    int slot = -1;
    ASSERT_EQ(dpa_pmdb_add_oam_entry(0x2000, &bare, &slot), PMDB_OK);
    const pmdb_oam_entry_t e = Oam(0x2000);
    const pmdb_oam_info_t all_zero = {};
    EXPECT_EQ(memcmp(&e.oam_info, &all_zero, sizeof e.oam_info), 0);
}

TEST_F(OamEntry, RemovalAndTheEventEntry) {
    pmdb_event_t add = OamEvent(1, 1, kKey, 0x22);
    dpa_pmdb_oam_oper(&add);
    EXPECT_NE(SlotOf(PMDB_TYPE_OAM, kKey), -1);
    pmdb_event_t remove = OamEvent(PMDB_EV_OAM_REMOVE, 2, kKey, 0);
    dpa_pmdb_oam_oper(&remove);
    EXPECT_EQ(SlotOf(PMDB_TYPE_OAM, kKey), -1);
    ExpectTrace(VESK_DATABASE, 171, {kKey});
    dpa_pmdb_oam_oper(&add);
    remove.event_type = PMDB_EV_MEMBER_LEAVE;
    dpa_pmdb_oam_oper(&remove);
    EXPECT_EQ(SlotOf(PMDB_TYPE_OAM, kKey), -1);
    ExpectNoTrace(VESK_ERROR, 292);

    // A key that is not present: the lookup's status, write access released.
    dpa_pmdb_oam_oper(&remove);
    ExpectTrace(VESK_ERROR, 169, {kKey, TABRA_E_NOTFOUND});
    ExpectTrace(VESK_ERROR, 292, {kKey, TABRA_E_NOTFOUND});
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);

    dpa_pmdb_oam_oper(&add);
    pm_fault_set("tabra_remove_entry", TABRA_E_CORRUPT, 1);
    EXPECT_EQ(dpa_pmdb_remove_oam_entry(kKey), TABRA_E_CORRUPT);
    ExpectTrace(VESK_ERROR, 170, {kKey, TABRA_E_CORRUPT});
    pm_fault_set("tabra_add_entry", TABRA_E_FULL, 1);
    dpa_pmdb_oam_oper(&add);
    ExpectTrace(VESK_ERROR, 156, {kKey, TABRA_E_FULL});
    ExpectTrace(VESK_ERROR, 291, {kKey, TABRA_E_FULL});
}

}  // namespace
