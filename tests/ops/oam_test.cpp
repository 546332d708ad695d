// OAM entries: added and refreshed from OAM and interface events, removed by
// key, and the OAM event entry.
#include <gtest/gtest.h>

#include <cstring>

#include "host/pm_fault.h"
#include "card.h"
#include "pmdb_internal.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kKey = 0xABCD001C;

class OamEntry : public CardTest {};

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
    EXPECT_TRUE(Within(e.last_update, before, Now()));
    pmdb_oam_entry_t want = {kKey, 5, e.last_update, ev.oam.oam_info};
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
    ExpectTrace(VESK_DATABASE, 159, {kKey, 0x500, 0xA, 0xB, 0xC0C0});
    ExpectNoTrace(VESK_DATABASE, 157);

    // An interface event on the present key: handle and data word only.
    pmdb_event_t intf = MemberEvent(1, 6, 0x100);
    intf.intf_info.oam_data_36 = 0xD36;
    ASSERT_EQ(dpa_pmdb_add_oam_entry(kKey, &intf, &again), PMDB_OK);
    EXPECT_EQ(again, slot);
    ExpectTrace(VESK_DATABASE, 157, {kKey});
    e = Oam(kKey);
    want.event_id = 6;
    want.last_update = e.last_update;
    want.oam_info.oam_ifh = 0x100;
    want.oam_info.oam_intf_data = 0xD36;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
}

TEST_F(OamEntry, InterfaceEventsNameTheMostSpecificHandle) {
    struct Case {
        u32 ifh, sub, bundle, want;
    } cases[] = {{0x10, 0x20, 0x30, 0x20}, {0x10, 0, 0x30, 0x30}, {0x10, 0, 0, 0x10}, {0, 0, 0, 0}};
    u32 key = 0x1000;
    for (const Case &c : cases) {
        pmdb_event_t ev = MemberEvent(1, 1, c.ifh, c.bundle);
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

    // A key that is not present: the removal's status is the event's trace.
    dpa_pmdb_oam_oper(&remove);
    ExpectTrace(VESK_ERROR, 292, {kKey, TABRA_E_NOTFOUND});
    pm_fault_set("tabra_add_entry", TABRA_E_FULL, 1);
    dpa_pmdb_oam_oper(&add);
    ExpectTrace(VESK_ERROR, 291, {kKey, TABRA_E_FULL});
}

}  // namespace
