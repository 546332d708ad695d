// One IFH entry: added or refreshed from an event (what the entry holds, as
// any process reads it, and what the caller is told), its node
// registration, the AIB update callback, the sub-interface count, the node
// list, the summary and the removal.  Failing steps: failure_test.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "card.h"
#include "host/pm_fault.h"
#include "pmdb_internal.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kIfh = 0x1A0, kBundle = 0xB100, kSub = 0x5100;

class IfhAdd : public CardTest {};
using IfhEntry = IfhAdd;

struct AddOut {
    cerrno rc = 0;
    i32 slot = -1;
    dpa_pmdb_ifh_summary_t summary{};
    pmdb_punt_info_t punt{};
    dpa_pmdb_ifh_summary_t prev{};
};

AddOut Add(u32 ifh, const pmdb_event_t &ev, u16 node = 0, AddOut o = {}) {
    o.rc = dpa_pmdb_add_ifh_entry(ifh, &ev, &o.slot, &o.summary, &o.punt, &o.prev, node);
    return o;
}

// A MAC-only event (type 22, no valid_flags), as the bundle MAC walk sends
// it: node 3, neither summary nor previous values.
cerrno AddMacOnly(u32 ifh, const Mac &mac) {
    pmdb_event_t ev{};
    ev.event_type = PMDB_EV_BUNDLE_MAC;
    memcpy(ev.intf_info.mac_addr, mac.data(), mac.size());
    i32 slot = -1;
    pmdb_punt_info_t punt{};
    return dpa_pmdb_add_ifh_entry(ifh, &ev, &slot, nullptr, &punt, nullptr, 3);
}

TEST_F(IfhAdd, PuntInformationWithBit5AndEventTypes19And20MakeNoEntry) {
    // Bit 5 refuses an event with punt information (tables: the dispatch
    // tests); without punt information it is an ordinary add.
    pmdb_event_t ev = PuntEvent(PMDB_EV_INTF_PUNT, kIfh, {1, 2, 3, 4, 5});
    ev.valid_flags = PMDB_VF_INTF | PMDB_VF_PUNT | PMDB_VF_NO_PUNT;
    EXPECT_EQ(Add(kIfh, ev, 3).rc, 0u);
    ExpectTrace(VESK_ERROR, 142, {});
    pmdb_event_t port = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    port.valid_flags = PMDB_VF_INTF | PMDB_VF_NO_PUNT;
    EXPECT_EQ(Add(kIfh, port).rc, 0u);
    EXPECT_FALSE(EntryBytes(PMDB_TYPE_IFH, kIfh).empty());
    EXPECT_EQ(CountTraces(VESK_ERROR, 142), 1u);

    // Types 19 and 20 report the event's LIF and port, even for key 0.
    for (u8 type : {PMDB_EV_INTF_ADD_NO_IFH, PMDB_EV_INTF_PUNT_NO_IFH}) {
        const pmdb_event_t no_ifh = PortEvent(type, kIfh);
        dpa_pmdb_ifh_summary_t want{};
        want.ingress_lif = no_ifh.intf_info.ingress_lif;
        want.sys_port = no_ifh.intf_info.sys_port;
        const AddOut r = Add(0, no_ifh, 2);
        EXPECT_EQ(r.rc, 0u);
        EXPECT_EQ(r.summary, want) << int(type);
    }
    ExpectNoTrace(VESK_ERROR, 143);
}

TEST_F(IfhAdd, NewEntryHoldsTheEventAsAnotherProcessReadsIt) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ev.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    ev.intf_info.oam_id = 0x55;
    ev.intf_info.oam_slots[4] = 0x4444;
    AddOut in;
    in.summary.sum_flags = 0xC1; /* the caller's bits 0, 6 and 7 survive */
    in.summary.oam_slots[7] = 0x7777;
    in.prev.egress_lif = 0xABC; /* a new entry has no previous values */
    const timespec t0 = Now();
    const AddOut o = Add(kIfh, ev, 3, in);
    ASSERT_EQ(o.rc, 0u);
    EXPECT_EQ(o.slot, SlotOf(PMDB_TYPE_IFH, kIfh));
    EXPECT_EQ(o.prev, in.prev);

    pmdb_ifh_entry_t e = Ifh(kIfh);
    EXPECT_TRUE(Within(e.last_update, t0, Now()));
    pmdb_ifh_entry_t want{};
    want.key = kIfh;
    want.event_id = ev.event_id;
    want.last_update = e.last_update;
    want.node_mask = 1u << 3;
    want.intf_info = ev.intf_info;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));

    dpa_pmdb_ifh_summary_t s = in.summary;
    s.egress_lif = ev.intf_info.egress_lif;
    s.ingress_lif = ev.intf_info.ingress_lif;
    s.oam_id = 0x55;
    s.sys_port = 0x123;
    s.intf_data_44 = 44;
    s.lc_slot = 2;
    s.slot_id = 3;
    s.npu_index = 1;
    s.port_lo = 0x2AB;
    s.port_hi = 5;
    s.member_port_shift = 2;
    s.sum_flags = 0xC1 | PMDB_SUM_EGRESS_KEY | PMDB_SUM_CREATED;
    s.oam_slots[4] = 0x4444;
    EXPECT_EQ(o.summary, s);
    ExpectTrace(VESK_DATABASE, 150,
                {kIfh, ev.intf_info.egress_lif, ev.intf_info.ingress_lif, 0x123, 44, 0x2AB, 5});
    ExpectNoTrace(VESK_DATABASE, 146);
}

TEST_F(IfhAdd, RefreshKeepsCountsAddsNodeBitsAndReportsThePreviousKeys) {
    pmdb_event_t first = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    first.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    first.intf_info.oam_slots[1] = 0x1111;
    const AddOut o1 = Add(kIfh, first, 2);
    ASSERT_EQ(o1.rc, 0u);
    ASSERT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, 1, 1), 0u);
    MarkTraces();

    pmdb_event_t second = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    second.event_id = 4242;
    second.intf_info.egress_lif = 0x99999;
    second.intf_info.ingress_lif = 0x999;
    second.intf_info.slot_id = 9;
    second.intf_info.sys_port = 0x999;
    AddOut in;
    in.summary.sum_flags = PMDB_SUM_CREATED; /* cleared: the entry is not new */
    in.prev.oam_slots[2] = 0x2222;           /* zero stored slots leave it */
    in.prev.oam_slots[1] = 0xDEAD;
    const AddOut o2 = Add(kIfh, second, 3, in);
    ASSERT_EQ(o2.rc, 0u);
    EXPECT_EQ(o2.slot, o1.slot);
    const pmdb_ifh_entry_t e = Ifh(kIfh);
    EXPECT_EQ(e.node_mask, (1u << 2) | (1u << 3));
    EXPECT_EQ(e.sub_intf_count, 1u);
    EXPECT_EQ(e.event_id, 4242u);
    EXPECT_EQ(memcmp(&e.intf_info, &second.intf_info, sizeof e.intf_info), 0);
    dpa_pmdb_ifh_summary_t prev = in.prev;
    prev.sum_flags = PMDB_SUM_EGRESS_KEY;
    prev.egress_lif = first.intf_info.egress_lif;
    prev.ingress_lif = first.intf_info.ingress_lif;
    prev.slot_id = 3;
    prev.sys_port = 0x123;
    prev.oam_slots[1] = 0x1111;
    EXPECT_EQ(o2.prev, prev);
    EXPECT_EQ(o2.summary.sum_flags, 0u);
    ExpectTrace(VESK_DATABASE, 146, {kIfh});

    // Nodes 1..15 have a bit; node 0, nodes beyond the 16-bit mask and an
    // event without interface information record none.
    const struct {
        u16 node;
        bool intf;
        u16 mask;
    } nodes[] = {{0, true, 0x000C}, {16, true, 0x000C}, {15, false, 0x000C},
                 {15, true, 0x800C}, {1, true, 0x800E}};
    for (const auto &n : nodes) {
        AddOk(kIfh, n.intf ? second : PuntEvent(PMDB_EV_INTF_PUNT, kIfh, {1, 0, 0, 0, 0}), n.node);
        EXPECT_EQ(Ifh(kIfh).node_mask, n.mask) << "node " << n.node;
    }
}

TEST_F(IfhAdd, SummaryTellsSubInterfacesAndTheirParents) {
    struct Case {
        u32 ifh, sub, bundle;
        u8 flags;
        u32 parent;
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
        const u32 key = c.sub != 0 ? c.sub : c.ifh;
        AddOut in;
        in.summary.sum_flags = PMDB_SUM_IS_SUB_INTF | PMDB_SUM_IS_BUNDLE_SUB_INTF;
        in.summary.parent_ifh = 0xFFFF;
        const AddOut o = Add(key, ev, 0, in);
        ASSERT_EQ(o.rc, 0u);
        EXPECT_EQ(o.summary.sum_flags & ~PMDB_SUM_CREATED, c.flags) << "key " << key;
        EXPECT_EQ(o.summary.parent_ifh, c.parent) << "key " << key;
        EXPECT_EQ(o.summary.bundle_ifh, c.bundle) << "key " << key;
    }

    // A node on a bundle sub-interface is traced with the node mask.
    pmdb_event_t ev = PortEvent(PMDB_EV_SUB_ADD, 0);
    ev.intf_info.sub_ifh = 0x21;
    ev.intf_info.bundle_ifh = 0x20;
    MarkTraces();
    AddOk(0x21, ev, 4);
    AddOk(0x21, ev, 0);
    ExpectTrace(VESK_DATABASE, 151,
                {0x21, ev.intf_info.egress_lif, ev.intf_info.ingress_lif, 0x20, 1u << 4});
    EXPECT_EQ(CountTraces(VESK_DATABASE, 151), 1u);
}

TEST_F(IfhAdd, PuntOnlyEventsCreateABareEntryOrMergeTheirNonzeroWords) {
    const pmdb_event_t ev = PuntEvent(PMDB_EV_INTF_PUNT, 0x66, {0xA1, 0, 0xA3, 0, 0xA5});
    const AddOut o = Add(kIfh, ev);
    ASSERT_EQ(o.rc, 0u);
    pmdb_ifh_entry_t e = Ifh(kIfh);
    pmdb_ifh_entry_t want{};
    want.key = kIfh;
    want.event_id = ev.event_id;
    want.last_update = e.last_update;
    want.punt_info = {0x66, 0, 0, {0xA1, 0, 0xA3, 0, 0xA5}}; /* intf_type never taken */
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
    EXPECT_EQ(o.summary.sum_flags, PMDB_SUM_PUNT_ONLY_CREATED | PMDB_SUM_CREATED);
    EXPECT_EQ(o.punt.punt_data[0], 0u); /* no interface information: no copy */
    ExpectTrace(VESK_DATABASE, 149, {0x66, kIfh, 0xA1});

    // On an entry with interface information: key, stamp and words only;
    // a later port event hands the whole punt block back.
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh), 2);
    const pmdb_ifh_entry_t before = Ifh(kIfh);
    pmdb_event_t punt = PuntEvent(PMDB_EV_INTF_PUNT, 0x77, {7, 0, 9, 0, 0x55});
    punt.event_id = 31337;
    const AddOut merged = Add(kIfh, punt);
    ASSERT_EQ(merged.rc, 0u);
    EXPECT_EQ(merged.summary.sum_flags & PMDB_SUM_PUNT_ONLY_CREATED, 0u);
    e = Ifh(kIfh);
    want = before;
    want.event_id = 31337;
    want.last_update = e.last_update;
    want.punt_info = {0x77, 0, 0, {7, 0, 9, 0, 0x55}};
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
    const AddOut handed = Add(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    EXPECT_EQ(memcmp(&handed.punt, &want.punt_info, sizeof handed.punt), 0);
}

TEST_F(IfhAdd, MacOnlyEventChangesTheMacAloneOrLeavesAnUnkeyedEntry) {
    const Mac mac = {0x02, 0xBE, 0xEF, 0, 0, 1};
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh), 2);
    pmdb_ifh_entry_t want = Ifh(kIfh);
    MarkTraces();
    EXPECT_EQ(AddMacOnly(kIfh, mac), 0u);
    memcpy(want.intf_info.mac_addr, mac.data(), 6);
    EXPECT_TRUE(EntryBytes(PMDB_TYPE_IFH, kIfh) == BytesOf(&want, sizeof want));
    ExpectNoTrace(VESK_DATABASE, 150);

    ASSERT_EQ(AddMacOnly(kIfh + 1, mac), 0u);
    want = {};
    memcpy(want.intf_info.mac_addr, mac.data(), 6);
    EXPECT_TRUE(EntryBytes(PMDB_TYPE_IFH, kIfh + 1) == BytesOf(&want, sizeof want));
    pmdb_ifh_entry_t copy;
    EXPECT_NE(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, kIfh + 1, &copy, sizeof copy), 0u)
        << "readers treat key 0 as not yet filled";
}

TEST_F(IfhAdd, OnlyAPortAddRegistersItsNodeWithTheInventoryAndTheRegion) {
    pmdb_event_t local = PortEvent(PMDB_EV_INTF_ADD, kIfh, 5);
    local.intf_info.intf_type = PMDB_INTF_TYPE_NODE_LOCAL;
    for (pmdb_event_t ev : {local, PortEvent(PMDB_EV_INTF_REFRESH, kIfh + 1, 6),
                            PortEvent(PMDB_EV_SUB_ADD, kIfh + 2, 7)}) {
        ev.intf_info.high_scale = 1;
        AddOk(ev.intf_info.ifh, ev);
    }
    EXPECT_EQ(pm_port_inv_entry_get(), nullptr);
    EXPECT_EQ(Globals().hs_node_mask, 0u);
    EXPECT_EQ(Globals().inv_node_id, 0u);

    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh, 5);
    ev.intf_info.node_index = 1;
    ev.intf_info.high_scale = 1;
    const uint8_t node_mac[6] = {0x02, 5, 5, 5, 5, 5};
    memcpy(ev.intf_info.node_mac, node_mac, 6);
    MarkTraces();
    AddOk(kIfh, ev);
    ASSERT_THAT(InventoryNodes(), ::testing::ElementsAre(5u));
    EXPECT_EQ(pm_port_inv_entry_get()->high_scale, 1u);
    const dnx_pmdb_glbls_t g = Globals();
    EXPECT_EQ(g.hs_node_id, 5u);
    EXPECT_EQ(g.hs_node_mask, 2u);
    EXPECT_EQ(g.inv_node_id, 5u);
    EXPECT_EQ(MacOf(g.inv_node_mac), MacOf(node_mac));
    ExpectTrace(VESK_EVENT, 110, {5, 1, 1});
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0); /* under the add's own open */
}

TEST_F(IfhAdd, RefreshTakesItsNodeFromTheNewestInventoryNode) {
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_REFRESH, kIfh, 99);
    AddOk(kIfh, ev); /* empty list: the event's own node stays */
    EXPECT_EQ(Ifh(kIfh).intf_info.node_id, 99u);
    const Mac mac7 = {0x02, 7, 7, 7, 7, 7};
    SetNodeMac(7, mac7);
    pm_port_inv_entry_add(6, 1, 0, 0);
    pm_port_inv_entry_add(7, 2, 0, 0);
    AddOk(kIfh, ev);
    const pmdb_ifh_entry_t e = Ifh(kIfh);
    EXPECT_EQ(e.intf_info.node_id, 7u);
    EXPECT_EQ(MacOf(e.intf_info.node_mac), mac7);
}

TEST_F(IfhAdd, ChangedIntfData64OfARefreshedPortIsReportedOnce) {
    RecordAibCalls();
    pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ev.intf_info.intf_data_64 = 5;
    AddOk(kIfh, ev);
    // Each step: event type, intf_data_64, callbacks so far.
    const struct {
        u8 type;
        u32 value;
        size_t calls;
    } steps[] = {{PMDB_EV_INTF_REFRESH, 6, 1}, {PMDB_EV_INTF_REFRESH, 6, 1},
                 {PMDB_EV_INTF_ADD, 8, 1},     {PMDB_EV_INTF_REFRESH, 0, 2},
                 {PMDB_EV_INTF_REFRESH, 9, 2} /* a value set on a stored 0 */};
    for (const auto &st : steps) {
        ev.event_type = st.type;
        ev.intf_info.intf_data_64 = st.value;
        AddOk(kIfh, ev);
        EXPECT_EQ(AibCalls().size(), st.calls) << "to " << st.value;
    }
    EXPECT_THAT(AibCalls()[0].handles, ::testing::ElementsAre(kIfh));
    EXPECT_THAT(AibCalls()[0].status, ::testing::ElementsAre(0u));
    ExpectTrace(VESK_ERROR, 152, {kIfh, PMDB_EV_INTF_REFRESH, 5, 6});
    EXPECT_EQ(CountTraces(VESK_ERROR, 152), 2u);

    // A failed release replaces the result and the callback is not told.
    ev.intf_info.intf_data_64 = 10;
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);
    EXPECT_EQ(Add(kIfh, ev).rc, TABRA_E_PROT);
    EXPECT_EQ(AibCalls().size(), 2u);
    EXPECT_EQ(Ifh(kIfh).intf_info.intf_data_64, 10u); /* the change stays */
}

TEST_F(IfhEntry, SubInterfaceCountRisesFallsAndNeverGoesBelowZero) {
    AddOk(kIfh, PortEvent(PMDB_EV_INTF_ADD, kIfh));
    // Each step: increment, count after, event id of the entry after.
    const struct {
        i32 increment;
        u16 count;
        u32 event_id;
    } steps[] = {{1, 1, 71}, {7, 2, 72}, {0, 1, 73}, {0, 0, 74}, {0, 0, 74}};
    u32 id = 70;
    timespec stamped{};
    for (const auto &st : steps) {
        ASSERT_EQ(dpa_pmdb_update_sub_intf_count(kIfh, st.increment, ++id), 0u);
        const pmdb_ifh_entry_t e = Ifh(kIfh);
        EXPECT_EQ(e.sub_intf_count, st.count) << "event " << id;
        EXPECT_EQ(e.event_id, st.event_id);
        if (e.event_id != id) {
            EXPECT_EQ(memcmp(&e.last_update, &stamped, sizeof stamped), 0);
        }
        stamped = e.last_update;
    }
    const pmdb_event_t ev = PortEvent(PMDB_EV_INTF_ADD, kIfh);
    ExpectTrace(VESK_EVENT, 132, {kIfh, ev.intf_info.egress_lif, ev.intf_info.ingress_lif});
    EXPECT_EQ(CountTraces(VESK_EVENT, 132), 5u);
}

TEST_F(IfhEntry, NodeListBitsOfNodesModulo32InBundleSubInterfacesOnly) {
    PutIfh(kSub, [](pmdb_ifh_entry_t &e) {
        e.intf_info.sub_ifh = kSub;
        e.intf_info.bundle_ifh = kBundle;
    });
    const struct {
        i32 add;
        u32 node;
        u16 mask;
    } steps[] = {{1, 1, 0x2},     {1, 15, 0x8002}, {1, 16, 0x8002}, {1, 31, 0x8002},
                 {1, 32, 0x8003}, {0, 15, 0x3},    {0, 7, 0x3},     {0, 32, 0x2}};
    u32 event_id = 100;
    for (const auto &st : steps) {
        u16 mask = 0xDEAD;
        const timespec before = Now();
        ASSERT_EQ(dpa_pmdb_update_ifh_entry_nodelist(kSub, st.add, ++event_id, st.node, &mask),
                  PMDB_OK);
        const pmdb_ifh_entry_t e = Ifh(kSub);
        EXPECT_EQ(mask, st.mask) << "node " << st.node << " add " << st.add;
        EXPECT_EQ(e.node_mask, st.mask);
        EXPECT_EQ(e.event_id, event_id); /* stamped even when the mask stays */
        EXPECT_TRUE(Within(e.last_update, before, Now()));
    }
    ExpectTrace(VESK_EVENT, 127, {kSub, 0, 0, kBundle, 2});

    // A main interface is left alone, and mask_out keeps the caller's value.
    PutPort(kIfh);
    const Bytes port = EntryBytes(PMDB_TYPE_IFH, kIfh);
    u16 mask = 0xDEAD;
    EXPECT_EQ(dpa_pmdb_update_ifh_entry_nodelist(kIfh, 1, 999, 3, &mask), PMDB_OK);
    EXPECT_EQ(mask, 0xDEAD);
    EXPECT_TRUE(EntryBytes(PMDB_TYPE_IFH, kIfh) == port);
}

TEST_F(IfhEntry, SummaryFillsKeysAndFallsBackToTheFirstOamSlot) {
    // The keys come as the add's summary has them (above); a read adds the
    // bundle and the OAM identifier, not the slots or is_member.
    PutIfh(kSub, [](pmdb_ifh_entry_t &e) {
        e.ifh_flags = PMDB_IFH_MEMBER_ACTIVE;
        e.intf_info.sub_ifh = kSub;
        e.intf_info.bundle_ifh = kBundle;
        e.intf_info.egress_lif = 0x12345;
        e.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
        e.intf_info.oam_slots[5] = 0x5555;
        e.intf_info.oam_slots[9] = 0x9999;
    });
    dpa_pmdb_ifh_summary_t s = {};
    s.sum_flags = 0x80;
    ASSERT_EQ(dpa_pmdb_get_ifh_summary(kSub, &s), PMDB_OK);
    dpa_pmdb_ifh_summary_t want = {};
    want.oam_id = 0x5555;
    want.egress_lif = 0x12345;
    want.parent_ifh = want.bundle_ifh = kBundle;
    want.sum_flags =
        0x80 | PMDB_SUM_EGRESS_KEY | PMDB_SUM_IS_SUB_INTF | PMDB_SUM_IS_BUNDLE_SUB_INTF;
    EXPECT_EQ(s, want);
    ExpectTrace(VESK_ERROR, 265, {kSub, 5, 0x5555});

    PutPort(kIfh);
    MarkTraces();
    ASSERT_EQ(dpa_pmdb_get_ifh_summary(kIfh, &s), PMDB_OK);
    EXPECT_EQ(s.oam_id, 0u);
    ExpectNoTrace(VESK_ERROR, 265);
}

TEST_F(IfhEntry, RemovalCallsBackFirstThenTheEntryGoes) {
    PutPort(kIfh);
    PutIfh(kIfh, [](pmdb_ifh_entry_t &e) { e.intf_info.oam_slots[2] = 0x22; });
    const i32 slot = SlotOf(PMDB_TYPE_IFH, kIfh);
    static bool present_during_callback;
    present_during_callback = false;
    dpa_pmdb_set_oor_cb([](u32 ifh, u32 slot, u32 state, u32 removed) {
        OorCalls().push_back({ifh, slot, state, removed});
        present_during_callback = SlotOf(PMDB_TYPE_IFH, ifh) != -1;
    });
    dpa_pmdb_ifh_summary_t s = {};
    s.oam_slots[3] = 0x33; /* zero slots leave the caller's value */
    ASSERT_EQ(dpa_pmdb_remove_ifh_entry(kIfh, &s, 5), PMDB_OK);
    EXPECT_EQ(OorCalls(), (std::vector<OorCall>{{kIfh, (u32)slot, 0, 1}}));
    EXPECT_TRUE(present_during_callback);
    EXPECT_EQ(SlotOf(PMDB_TYPE_IFH, kIfh), -1);
    dpa_pmdb_ifh_summary_t want = {};
    want.egress_lif = 0x10000u | kIfh;
    want.ingress_lif = kIfh + 1;
    want.sys_port = kIfh;
    want.oam_slots[2] = 0x22;
    want.oam_slots[3] = 0x33;
    EXPECT_EQ(s, want); /* not a member: no bundle, no is_member */
    ExpectTrace(VESK_EVENT, 164, {kIfh});
    ExpectTrace(VESK_DATABASE, 166, {kIfh, want.egress_lif, kIfh + 1, kIfh, 0, 0, 0});

    // Nothing found: the lookup's status, no callback, summary untouched.
    OorCalls().clear();
    EXPECT_EQ(dpa_pmdb_remove_ifh_entry(kIfh, &s, 6), TABRA_E_NOTFOUND);
    EXPECT_TRUE(OorCalls().empty());
    EXPECT_EQ(s, want);
}

TEST_F(IfhEntry, RemovalOfAnActiveMemberTakesItsBundleCountDown) {
    PutBundle(kBundle);
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) {
        e.member_count = 2;
        e.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    });
    PutMember(kIfh, kBundle);
    PutMember(kIfh + 1, kBundle);
    dpa_pmdb_ifh_summary_t s = {};
    const timespec before = Now();
    ASSERT_EQ(dpa_pmdb_remove_ifh_entry(kIfh, &s, 0x42), PMDB_OK);
    const pmdb_ifh_entry_t b = Ifh(kBundle);
    EXPECT_EQ(b.member_count, 1);
    EXPECT_EQ(b.event_id, 0x42u);
    EXPECT_TRUE(Within(b.last_update, before, Now()));
    EXPECT_EQ(s.bundle_ifh, kBundle);
    EXPECT_EQ(s.sum_flags & (PMDB_SUM_IS_MEMBER | PMDB_SUM_EGRESS_KEY),
              PMDB_SUM_IS_MEMBER | PMDB_SUM_EGRESS_KEY);

    // A failing table removal is traced, yet the bundle update's code wins.
    pm_fault_set("tabra_remove_entry", TABRA_E_CORRUPT, 1);
    EXPECT_EQ(dpa_pmdb_remove_ifh_entry(kIfh + 1, &s, 0x43), PMDB_OK);
    ExpectTrace(VESK_ERROR, 165, {kIfh + 1, TABRA_E_CORRUPT});
    EXPECT_EQ(Ifh(kBundle).member_count, 0);
}

}  // namespace
