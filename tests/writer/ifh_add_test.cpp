// Adding or refreshing one IFH entry, and its sub-interface count: what the
// entry holds afterwards (as the reader library shows it to any process),
// what the caller is told (summary, previous values, punt block), the node
// registration of port events, the AIB update callback, and every failure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_reader.h"
#include "pmdb_ops.h"
#include "tabra.h"
#include "writer_support.h"

namespace {

using namespace writer_test;
using pmdb::test::RunInChild;

class IfhAddTest : public WriterTest {};

constexpr uint32_t kIfh = 0x1A0;

struct AddOut {
    cerrno rc = 0;
    i32 slot = -1;
    dpa_pmdb_ifh_summary_t summary{};
    pmdb_punt_info_t punt{};
    dpa_pmdb_ifh_summary_t prev{};
};

AddOut Add(uint32_t ifh, const pmdb_event_t &ev, uint16_t node = 0, bool want_prev = true) {
    AddOut o;
    o.rc = dpa_pmdb_add_ifh_entry(ifh, &ev, &o.slot, &o.summary, &o.punt,
                                  want_prev ? &o.prev : nullptr, node);
    return o;
}

// A MAC-only event (type 22, no valid_flags) for `ifh`, with node 3 and
// neither summary nor previous values, as the bundle MAC walk sends it.
cerrno AddMacOnly(uint32_t ifh, const uint8_t (&mac)[6]) {
    pmdb_event_t ev{};
    ev.event_type = PMDB_EV_BUNDLE_MAC;
    ev.event_id = 5150;
    memcpy(ev.intf_info.mac_addr, mac, sizeof mac);
    i32 slot = -1;
    pmdb_punt_info_t punt{};
    return dpa_pmdb_add_ifh_entry(ifh, &ev, &slot, nullptr, &punt, nullptr, 3);
}

int64_t RealtimeNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}
int64_t Ns(const timespec &ts) { return ts.tv_sec * 1000000000LL + ts.tv_nsec; }

// Slot lock of `slot` in this process's mapping of the IFH region.
pellin_mutex_type *SlotLock(i32 slot) {
    dnx_db_hdl_t *h = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    return &h->shrd_ctx->entry_lock[slot];
}

// ---- refusals and the paths that make no entry ------------------------------

TEST_F(IfhAddTest, PuntInformationWithBit5IsRefusedWithoutAnyChange) {
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    pmdb_ifh_entry_t before{};
    ASSERT_TRUE(RawEntry(kIfh, &before));
    MarkTraces();

    pmdb_event_t ev = PuntEvent(PMDB_EV_INTF_PUNT, kIfh, {1, 2, 3, 4, 5});
    ev.valid_flags = PMDB_VF_INTF | PMDB_VF_PUNT | PMDB_VF_NO_PUNT;
    AddOut o = Add(kIfh, ev, 3);
    EXPECT_EQ(o.rc, 0u);
    o = Add(kIfh + 1, ev, 3);
    EXPECT_EQ(o.rc, 0u);

    pmdb_ifh_entry_t after{};
    ASSERT_TRUE(RawEntry(kIfh, &after));
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_FALSE(RawEntry(kIfh + 1, &after));
    EXPECT_EQ(o.slot, -1);
    EXPECT_EQ(o.summary.sum_flags, 0u);
    EXPECT_EQ(CountTraces(VESK_ERROR, 142), 2u);
    ExpectTrace(VESK_ERROR, 142, {});
    ExpectNoTrace(VESK_DATABASE, 150);

    /* Bit 5 without punt information is an ordinary add. */
    MarkTraces();
    pmdb_event_t port = PortEvent(PMDB_EV_INTF_ADD, kIfh + 2);
    port.valid_flags = PMDB_VF_INTF | PMDB_VF_NO_PUNT;
    EXPECT_EQ(Add(kIfh + 2, port).rc, 0u);
    EXPECT_TRUE(EntryPresent(kIfh + 2));
    ExpectNoTrace(VESK_ERROR, 142);
}

TEST_F(IfhAddTest, EventTypes19And20MakeNoEntryAndReportTheirLifAndPort) {
    for (uint8_t type : {PMDB_EV_INTF_ADD_NO_IFH, PMDB_EV_INTF_PUNT_NO_IFH}) {
        pmdb_event_t ev = PortEvent(type, kIfh);
        ev.intf_info.ingress_lif = 0x777;
        ev.intf_info.sys_port = 0x1234;
        for (uint32_t ifh : {0u, kIfh}) {
            AddOut o = Add(ifh, ev, 2);
            EXPECT_EQ(o.rc, 0u) << int(type) << " ifh " << ifh;
            EXPECT_EQ(o.summary.ingress_lif, 0x777u);
            EXPECT_EQ(o.summary.sys_port, 0x1234u);
            EXPECT_EQ(o.summary.egress_lif, 0u);
            EXPECT_EQ(o.summary.sum_flags, 0u);
        }
    }
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_IFH), nullptr); /* nothing was opened */
    for (uint32_t point : {143, 144, 145, 147, 148}) ExpectNoTrace(VESK_ERROR, point);
    ExpectNoTrace(VESK_DATABASE, 150);
}

TEST_F(IfhAddTest, KeyZeroIsRefusedBeforeAnythingIsOpened) {
    AddOut o = Add(0, PortEvent(PMDB_EV_INTF_ADD, 0));
    EXPECT_EQ(o.rc, 22u);
    ExpectTrace(VESK_ERROR, 143, {});
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_IFH), nullptr);
}

// ---- creation and refresh ----------------------------------------------------

TEST_F(IfhAddTest, NewEntryHoldsTheEventAndIsSeenByAnotherProcess) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh, 0);
    ev.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    ev.intf_info.oam_id = 0x55;
    ev.intf_info.oam_slots[4] = 0x4444;
    const int64_t t0 = RealtimeNs();

    AddOut o;
    o.summary.sum_flags = 0xC1; /* the caller's bits 0, 6 and 7 survive */
    o.summary.oam_slots[7] = 0x7777;
    o.prev.sum_flags = PMDB_SUM_EGRESS_KEY; /* a new entry has no previous values */
    o.prev.egress_lif = 0xABC;
    o.rc = dpa_pmdb_add_ifh_entry(kIfh, &ev, &o.slot, &o.summary, &o.punt, &o.prev, 3);
    ASSERT_EQ(o.rc, 0u);

    const pmdb_ifh_entry_t e = ReadEntry(kIfh);
    EXPECT_EQ(e.key, kIfh);
    EXPECT_EQ(e.event_id, ev.event_id);
    EXPECT_GE(Ns(e.last_update), t0);
    EXPECT_LE(Ns(e.last_update), RealtimeNs());
    EXPECT_EQ(e.node_mask, 1u << 3);
    EXPECT_EQ(e.sub_intf_count, 0u);
    EXPECT_EQ(memcmp(&e.intf_info, &ev.intf_info, sizeof ev.intf_info), 0);
    EXPECT_EQ(e.punt_info.punt_data[0], 0u);

    const dpa_pmdb_ifh_summary_t &s = o.summary;
    EXPECT_GE(o.slot, 0);
    EXPECT_EQ(s.egress_lif, ev.intf_info.egress_lif);
    EXPECT_EQ(s.oam_id, 0x55u);
    EXPECT_EQ(s.sys_port, 0x123u);
    EXPECT_EQ(s.intf_data_44, 44u);
    EXPECT_EQ(s.lc_slot, 2u);
    EXPECT_EQ(s.slot_id, 3u);
    EXPECT_EQ(s.npu_index, 1u);
    EXPECT_EQ(s.ingress_lif, ev.intf_info.ingress_lif);
    EXPECT_EQ(s.port_lo, 0x2ABu);
    EXPECT_EQ(s.port_hi, 5u);
    EXPECT_EQ(s.member_port_shift, 2u);
    EXPECT_EQ(s.sum_flags, 0xC1u | PMDB_SUM_EGRESS_KEY | PMDB_SUM_CREATED);
    EXPECT_EQ(s.parent_ifh, 0u);
    EXPECT_EQ(s.oam_slots[4], 0x4444u);
    EXPECT_EQ(s.oam_slots[7], 0x7777u);
    EXPECT_EQ(o.prev.sum_flags, PMDB_SUM_EGRESS_KEY);
    EXPECT_EQ(o.prev.egress_lif, 0xABCu);
    ExpectTrace(VESK_DATABASE, 150,
                {kIfh, ev.intf_info.egress_lif, ev.intf_info.ingress_lif, 0x123, 44, 0x2AB, 5});
    ExpectNoTrace(VESK_DATABASE, 146);

    auto r = RunInChild([&] {
        uint8_t buf[312] = {};
        EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(kIfh, buf, 0, 0), 0u);
        EXPECT_EQ(memcmp(buf, &ev.intf_info, sizeof ev.intf_info), 0);
    });
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(IfhAddTest, RefreshKeepsCountsAddsNodeBitsAndReportsThePreviousKeys) {
    pmdb_event_t first = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    first.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    first.intf_info.oam_slots[1] = 0x1111;
    AddOut o1 = Add(kIfh, first, 2);
    ASSERT_EQ(o1.rc, 0u);
    ASSERT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 1), 0u);
    ASSERT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 1), 0u);
    MarkTraces();

    pmdb_event_t second = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    second.event_id = 4242;
    second.intf_info.egress_lif = 0x99999;
    second.intf_info.ingress_lif = 0x999;
    second.intf_info.slot_id = 9;
    second.intf_info.sys_port = 0x999;
    AddOut o2;
    o2.summary.sum_flags = PMDB_SUM_CREATED; /* cleared: the entry is not new */
    o2.prev.oam_slots[2] = 0x2222;         /* zero stored slots leave it */
    o2.prev.oam_slots[1] = 0xDEAD;
    o2.rc = dpa_pmdb_add_ifh_entry(kIfh, &second, &o2.slot, &o2.summary, &o2.punt, &o2.prev, 3);
    ASSERT_EQ(o2.rc, 0u);

    EXPECT_EQ(o2.slot, o1.slot);
    const pmdb_ifh_entry_t e = ReadEntry(kIfh);
    EXPECT_EQ(e.node_mask, (1u << 2) | (1u << 3));
    EXPECT_EQ(e.sub_intf_count, 2u);
    EXPECT_EQ(e.event_id, 4242u);
    EXPECT_EQ(e.intf_info.egress_lif, 0x99999u);
    EXPECT_EQ(e.intf_info.oam_slots[1], 0u);

    EXPECT_EQ(o2.prev.sum_flags, PMDB_SUM_EGRESS_KEY);
    EXPECT_EQ(o2.prev.egress_lif, first.intf_info.egress_lif);
    EXPECT_EQ(o2.prev.ingress_lif, first.intf_info.ingress_lif);
    EXPECT_EQ(o2.prev.slot_id, 3u);
    EXPECT_EQ(o2.prev.sys_port, 0x123u);
    EXPECT_EQ(o2.prev.oam_slots[1], 0x1111u);
    EXPECT_EQ(o2.prev.oam_slots[2], 0x2222u);
    EXPECT_EQ(o2.summary.sum_flags, 0u);
    EXPECT_EQ(o2.summary.egress_lif, 0x99999u);
    ExpectTrace(VESK_DATABASE, 146, {kIfh});

    /* Node 0, a node beyond the 16-bit mask and an event without interface
     * information record no node. */
    AddOk(kIfh, second, 0);
    AddOk(kIfh, second, 16);
    AddOk(kIfh, PuntEvent(PMDB_EV_INTF_PUNT, kIfh, {1, 0, 0, 0, 0}), 5);
    EXPECT_EQ(ReadEntry(kIfh).node_mask, (1u << 2) | (1u << 3));
}

TEST_F(IfhAddTest, SummaryTellsSubInterfacesAndTheirParents) {
    struct Case {
        uint32_t ifh, sub, bundle;
        uint8_t flags;
        uint32_t parent;
    } cases[] = {
        {0x10, 0, 0, 0, 0},
        {0x10, 0x11, 0, PMDB_SUM_IS_SUB_INTF, 0x10},
        {0, 0x21, 0x20, PMDB_SUM_IS_SUB_INTF | PMDB_SUM_IS_BUNDLE_SUB_INTF, 0x20},
        {0x10, 0x31, 0x30, PMDB_SUM_IS_SUB_INTF | PMDB_SUM_IS_BUNDLE_SUB_INTF, 0x10},
        {0, 0x41, 0, 0, 0},
    };
    for (const Case &c : cases) {
        pmdb_event_t ev = PortEvent(PMDB_EV_SUB_ADD, c.ifh);
        ev.intf_info.sub_ifh = c.sub;
        ev.intf_info.bundle_ifh = c.bundle;
        const uint32_t key = c.sub != 0 ? c.sub : c.ifh;
        AddOut o;
        o.summary.sum_flags = PMDB_SUM_IS_SUB_INTF | PMDB_SUM_IS_BUNDLE_SUB_INTF;
        o.summary.parent_ifh = 0xFFFF;
        o.rc = dpa_pmdb_add_ifh_entry(key, &ev, &o.slot, &o.summary, &o.punt, nullptr, 0);
        ASSERT_EQ(o.rc, 0u);
        EXPECT_EQ(o.summary.sum_flags & ~PMDB_SUM_CREATED, c.flags) << "key " << key;
        EXPECT_EQ(o.summary.parent_ifh, c.parent) << "key " << key;
        EXPECT_EQ(o.summary.bundle_ifh, c.bundle) << "key " << key;
    }
}

TEST_F(IfhAddTest, NodeOnABundleSubInterfaceIsTraced) {
    pmdb_event_t ev = PortEvent(PMDB_EV_SUB_ADD, 0);
    ev.intf_info.sub_ifh = 0x21;
    ev.intf_info.bundle_ifh = 0x20;
    AddOk(0x21, ev, 4);
    AddOk(0x21, ev, 6);
    ExpectTrace(VESK_DATABASE, 151,
                {0x21, ev.intf_info.egress_lif, ev.intf_info.ingress_lif, 0x20, 1u << 4});
    ExpectTrace(VESK_DATABASE, 151,
                {0x21, ev.intf_info.egress_lif, ev.intf_info.ingress_lif, 0x20,
                 (1u << 4) | (1u << 6)});

    /* Without a node, or on a port sub-interface: no trace 151. */
    MarkTraces();
    AddOk(0x21, ev, 0);
    ev.intf_info.bundle_ifh = 0;
    ev.intf_info.ifh = 0x10;
    AddOk(0x22, ev, 4);
    ExpectNoTrace(VESK_DATABASE, 151);
}

// ---- punt information and MAC-only events ------------------------------------

TEST_F(IfhAddTest, PuntOnlyEventForAnUnknownHandleCreatesABareEntry) {
    const pmdb_event_t ev = PuntEvent(PMDB_EV_INTF_PUNT, 0x66, {0xA1, 0, 0xA3, 0, 0});
    AddOut o = Add(kIfh, ev, 0);
    ASSERT_EQ(o.rc, 0u);

    const pmdb_ifh_entry_t e = ReadEntry(kIfh);
    const pmdb_intf_info_t zero{};
    EXPECT_EQ(memcmp(&e.intf_info, &zero, sizeof zero), 0);
    EXPECT_EQ(e.key, kIfh);
    EXPECT_EQ(e.event_id, ev.event_id);
    EXPECT_EQ(e.punt_info.ifh, 0x66u);
    EXPECT_EQ(e.punt_info.intf_type, 0u); /* never taken from an event */
    EXPECT_EQ(e.punt_info.punt_data[0], 0xA1u);
    EXPECT_EQ(e.punt_info.punt_data[2], 0xA3u);
    EXPECT_EQ(o.summary.sum_flags, PMDB_SUM_PUNT_ONLY_CREATED | PMDB_SUM_CREATED);
    EXPECT_EQ(o.punt.punt_data[0], 0u); /* no interface information: no copy */
    ExpectTrace(VESK_DATABASE, 149, {0x66, kIfh, 0xA1});
}

TEST_F(IfhAddTest, PuntOnlyEventForAKnownHandleChangesOnlyKeyStampAndPuntWords) {
    AddOk(kIfh, PuntEvent(PMDB_EV_INTF_PUNT, kIfh, {1, 2, 3, 4, 5}));
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh), 2);
    ASSERT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 9), 0u);
    pmdb_ifh_entry_t before = ReadEntry(kIfh);

    pmdb_event_t ev = PuntEvent(PMDB_EV_INTF_PUNT, 0x77, {7, 0, 9, 0, 0});
    ev.event_id = 31337;
    AddOut o = Add(kIfh, ev, 0);
    ASSERT_EQ(o.rc, 0u);
    EXPECT_EQ(o.summary.sum_flags & PMDB_SUM_PUNT_ONLY_CREATED, 0u);

    pmdb_ifh_entry_t after = ReadEntry(kIfh);
    EXPECT_EQ(after.event_id, 31337u);
    EXPECT_GE(Ns(after.last_update), Ns(before.last_update));
    const uint32_t want[5] = {7, 2, 9, 4, 5};
    EXPECT_EQ(memcmp(after.punt_info.punt_data, want, sizeof want), 0);
    EXPECT_EQ(after.punt_info.ifh, 0x77u);
    /* Everything else is as it was. */
    after.event_id = before.event_id;
    after.last_update = before.last_update;
    after.punt_info = before.punt_info;
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
}

TEST_F(IfhAddTest, StoredPuntBlockIsHandedBackWithInterfaceInformation) {
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    AddOut none = Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    EXPECT_EQ(none.punt.ifh, 0u); /* no punt block stored yet */

    AddOk(kIfh, PuntEvent(PMDB_EV_INTF_PUNT, 0x44, {0x10, 0x20, 0x30, 0x40, 0x50}));
    AddOut o = Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    EXPECT_EQ(o.punt.ifh, 0x44u);
    const uint32_t want[5] = {0x10, 0x20, 0x30, 0x40, 0x50};
    EXPECT_EQ(memcmp(o.punt.punt_data, want, sizeof want), 0);
}

TEST_F(IfhAddTest, MacOnlyEventChangesTheMacAlone) {
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh), 2);
    const pmdb_ifh_entry_t before = ReadEntry(kIfh);
    MarkTraces();

    const uint8_t mac[6] = {0x02, 0xBE, 0xEF, 0, 0, 1};
    EXPECT_EQ(AddMacOnly(kIfh, mac), 0u);

    pmdb_ifh_entry_t after = ReadEntry(kIfh);
    EXPECT_EQ(MacOf(after.intf_info.mac_addr), MacOf(mac));
    memcpy(after.intf_info.mac_addr, before.intf_info.mac_addr, 6);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    ExpectNoTrace(VESK_DATABASE, 150);
}

TEST_F(IfhAddTest, MacOnlyEventForAnUnknownHandleLeavesAnUnkeyedEntry) {
    const uint8_t mac[6] = {0x02, 0xBE, 0xEF, 0, 0, 2};
    ASSERT_EQ(AddMacOnly(kIfh, mac), 0u);

    pmdb_ifh_entry_t raw{};
    ASSERT_TRUE(RawEntry(kIfh, &raw));
    pmdb_ifh_entry_t want{};
    memcpy(want.intf_info.mac_addr, mac, sizeof mac);
    EXPECT_EQ(memcmp(&raw, &want, sizeof raw), 0);
    EXPECT_FALSE(EntryPresent(kIfh)); /* readers treat key 0 as not yet filled */
}

// ---- node registration and node values ---------------------------------------

TEST_F(IfhAddTest, PortAddRegistersItsNodeWithTheInventoryAndTheRegion) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh, 5);
    ev.intf_info.node_index = 1;
    ev.intf_info.high_scale = 1;
    const uint8_t node_mac[6] = {0x02, 5, 5, 5, 5, 5};
    memcpy(ev.intf_info.node_mac, node_mac, 6);
    AddOk(kIfh, ev);

    ASSERT_THAT(InventoryNodes(), ::testing::ElementsAre(5u));
    EXPECT_EQ(pm_port_inv_entry_get()->high_scale, 1u);
    const dnx_pmdb_glbls_t g = Globals();
    EXPECT_EQ(g.hs_node_id, 5u);
    EXPECT_EQ(g.hs_node_mask, 2u);
    EXPECT_EQ(g.inv_node_id, 5u);
    EXPECT_EQ(MacOf(g.inv_node_mac), MacOf(node_mac));
    ExpectTrace(VESK_EVENT, 110, {5, 1, 1});
    /* The region operations ran under this add's own open. */
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);
}

TEST_F(IfhAddTest, NodeLocalPortsAndOtherEventsRegisterNoNode) {
    pmdb_event_t local = PortEvent(PMDB_EV_INTF_ADD, kIfh, 5);
    local.intf_info.intf_type = PMDB_INTF_TYPE_NODE_LOCAL;
    local.intf_info.high_scale = 1;
    AddOk(kIfh, local);
    pmdb_event_t refresh = PortEvent(PMDB_EV_INTF_REFRESH, kIfh + 1, 6);
    refresh.intf_info.high_scale = 1;
    AddOk(kIfh + 1, refresh);
    pmdb_event_t sub = PortEvent(PMDB_EV_SUB_ADD, kIfh + 2, 7);
    sub.intf_info.high_scale = 1;
    AddOk(kIfh + 2, sub);

    EXPECT_EQ(pm_port_inv_entry_get(), nullptr);
    const dnx_pmdb_glbls_t g = Globals();
    EXPECT_EQ(g.hs_node_mask, 0u);
    EXPECT_EQ(g.inv_node_id, 0u);
}

TEST_F(IfhAddTest, RefreshTakesItsNodeFromTheNewestInventoryNode) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_REFRESH, kIfh, 99);
    const uint8_t event_mac[6] = {0x02, 0x99, 0, 0, 0, 0x99};
    memcpy(ev.intf_info.node_mac, event_mac, 6);

    /* Empty list: the event's own node values stay. */
    AddOk(kIfh, ev);
    EXPECT_EQ(ReadEntry(kIfh).intf_info.node_id, 99u);

    const Mac mac7 = {0x02, 7, 7, 7, 7, 7};
    SetNodeMac(7, mac7);
    pm_port_inv_entry_add(6, 1, 0, 0);
    pm_port_inv_entry_add(7, 2, 0, 0);
    AddOk(kIfh, ev);
    const pmdb_ifh_entry_t e = ReadEntry(kIfh);
    EXPECT_EQ(e.intf_info.node_id, 7u);
    EXPECT_EQ(MacOf(e.intf_info.node_mac), mac7);
}

// ---- the AIB update callback ---------------------------------------------------

// Stores intf_data_64 `stored` with a port add and returns a refresh (event
// type 3) that carries `next`.
pmdb_event_t RefreshChanging(uint32_t stored, uint32_t next) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ev.intf_info.intf_data_64 = stored;
    AddOk(kIfh, ev);
    ev.event_type = PMDB_EV_INTF_REFRESH;
    ev.intf_info.intf_data_64 = next;
    return ev;
}

TEST_F(IfhAddTest, ChangedIntfData64OfARefreshedPortIsReportedOnce) {
    RecordAibCalls();
    pmdb_event_t ev = RefreshChanging(5, 6);
    AddOk(kIfh, ev);

    ASSERT_EQ(AibCalls().size(), 1u);
    EXPECT_THAT(AibCalls()[0].handles, ::testing::ElementsAre(kIfh));
    EXPECT_THAT(AibCalls()[0].status, ::testing::ElementsAre(0u));
    ExpectTrace(VESK_ERROR, 152, {kIfh, PMDB_EV_INTF_REFRESH, 5, 6});

    /* The same value again, or a change by another event type: not reported. */
    AddOk(kIfh, ev);
    ev.event_type = PMDB_EV_INTF_ADD;
    ev.intf_info.intf_data_64 = 8;
    AddOk(kIfh, ev);
    EXPECT_EQ(AibCalls().size(), 1u);
    ev.event_type = PMDB_EV_INTF_REFRESH;
    ev.intf_info.intf_data_64 = 0;
    AddOk(kIfh, ev);
    EXPECT_EQ(AibCalls().size(), 2u); /* 8 -> 0 is a change of a nonzero value */

    /* A value set on a stored 0 is not reported. */
    MarkTraces();
    ev.intf_info.intf_data_64 = 9;
    AddOk(kIfh, ev);
    EXPECT_EQ(AibCalls().size(), 2u);
    ExpectNoTrace(VESK_ERROR, 152);
}

TEST_F(IfhAddTest, FailedReleaseWinsAndSuppressesTheCallback) {
    RecordAibCalls();
    const pmdb_event_t ev = RefreshChanging(5, 6);
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);

    EXPECT_EQ(Add(kIfh, ev).rc, TABRA_E_PROT);
    EXPECT_TRUE(AibCalls().empty());
    ExpectNoTrace(VESK_ERROR, 152);
    EXPECT_EQ(ReadEntry(kIfh).intf_info.intf_data_64, 6u); /* the change stays */
}

// ---- failures ---------------------------------------------------------------

TEST_F(IfhAddTest, FailuresAreTracedWithTheStepAndWriteAccessIsDropped) {
    pm_fault_set("tabra_init", TABRA_E_SHM, 1);
    EXPECT_EQ(Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh)).rc, TABRA_E_SHM);
    ExpectTrace(VESK_ERROR, 144, {kIfh, TABRA_E_SHM});

    pm_fault_set("tabra_add_entry", TABRA_E_FULL, 1);
    EXPECT_EQ(Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh)).rc, TABRA_E_FULL);
    ExpectTrace(VESK_ERROR, 145, {kIfh, TABRA_E_FULL});
    EXPECT_FALSE(EntryPresent(kIfh));
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);

    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    pm_fault_set("tabra_get_entry_by_key", TABRA_E_CORRUPT, 1);
    EXPECT_EQ(Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh)).rc, TABRA_E_CORRUPT);
    ExpectTrace(VESK_ERROR, 147, {kIfh, TABRA_E_CORRUPT});
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);
}

TEST_F(IfhAddTest, LockFailureLeavesTheEntryAsItWas) {
    RecordAibCalls();
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ev.intf_info.intf_data_64 = 5;
    AddOut o = Add(kIfh, ev);
    ASSERT_EQ(o.rc, 0u);
    const pmdb_ifh_entry_t before = ReadEntry(kIfh);
    MarkTraces();

    /* This thread holds the slot lock: the error-checking lock refuses. */
    pellin_mutex_type *lock = SlotLock(o.slot);
    ASSERT_EQ(pmdb_entry_lock(lock), 0u);
    ev.event_type = PMDB_EV_INTF_REFRESH;
    ev.intf_info.intf_data_64 = 6;
    AddOut failed = Add(kIfh, ev, 4);
    ASSERT_EQ(pmdb_entry_unlock(lock), 0u);

    EXPECT_EQ(failed.rc, static_cast<cerrno>(EDEADLK));
    ExpectTrace(VESK_ERROR, 148, {kIfh, EDEADLK});
    ExpectNoTrace(VESK_DATABASE, 150);
    EXPECT_EQ(failed.summary.sum_flags, 0u);
    EXPECT_TRUE(AibCalls().empty());
    const pmdb_ifh_entry_t after = ReadEntry(kIfh);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);
}

// ---- sub-interface count -----------------------------------------------------

TEST_F(IfhAddTest, SubInterfaceCountRisesFallsAndNeverGoesBelowZero) {
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 71), 0u);
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 7, 72), 0u);
    EXPECT_EQ(ReadEntry(kIfh).sub_intf_count, 2u);
    EXPECT_EQ(ReadEntry(kIfh).event_id, 72u);
    const pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ExpectTrace(VESK_EVENT, 132, {kIfh, ev.intf_info.egress_lif, ev.intf_info.ingress_lif});

    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 0, 73), 0u);
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 0, 74), 0u);
    const pmdb_ifh_entry_t at_zero = ReadEntry(kIfh);
    EXPECT_EQ(at_zero.sub_intf_count, 0u);
    EXPECT_EQ(at_zero.event_id, 74u);

    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 0, 75), 0u);
    const pmdb_ifh_entry_t still = ReadEntry(kIfh);
    EXPECT_EQ(still.sub_intf_count, 0u);
    EXPECT_EQ(still.event_id, 74u);
    EXPECT_EQ(Ns(still.last_update), Ns(at_zero.last_update));
    EXPECT_EQ(CountTraces(VESK_EVENT, 132), 1u);
}

TEST_F(IfhAddTest, SubInterfaceCountNeedsAnExistingEntry) {
    pm_fault_set("tabra_init", TABRA_E_SHM, 1);
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh + 5, 1, 1), TABRA_E_SHM);
    ExpectTrace(VESK_ERROR, 130, {kIfh + 5, TABRA_E_SHM});

    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(0, 1, 1), 22u);
    ExpectTrace(VESK_ERROR, 129, {});

    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 1), TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 131, {kIfh, TABRA_E_NOTFOUND});
    EXPECT_FALSE(EntryPresent(kIfh));

    AddOut o = Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    pellin_mutex_type *lock = SlotLock(o.slot);
    ASSERT_EQ(pmdb_entry_lock(lock), 0u);
    EXPECT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 1), static_cast<cerrno>(EDEADLK));
    ASSERT_EQ(pmdb_entry_unlock(lock), 0u);
    ExpectTrace(VESK_ERROR, 133, {kIfh, EDEADLK});
    EXPECT_EQ(ReadEntry(kIfh).sub_intf_count, 0u);
}

}  // namespace
