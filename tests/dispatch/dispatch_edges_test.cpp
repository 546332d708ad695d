// The event dispatcher's edge cases, through dpa_pmdb_oper on a small card:
// records it refuses or drops, handles of entries that do not exist, the
// selection of handle and node, the node-list removal, the bundle re-key,
// the bundle MAC change and the punt-word refresh.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sstream>

#include "host/pm_fault.h"
#include "card.h"
#include "host/settings.h"
#include "paths_support.h"
#include "pmdb_reader.h"
#include "tabra.h"

namespace {

using namespace paths_test;

constexpr u32 kPort = 0x1001;
constexpr u32 kMembers[3] = {0x1002, 0x1003, 0x1004};
constexpr u32 kBundle = 0x3001;
constexpr u32 kSub = 0x3101;      // sub-interface of kBundle, nodes 1 and 2
constexpr u32 kMissing = 0x9999;  // no entry anywhere
constexpr u32 kId = 77;

// Interface n as port `ifh`, bundle `bundle` or, with `sub`, the valid
// sub-interface `sub` of that bundle.
pmdb_intf_info_t Intf(u32 n, u32 ifh, u32 bundle = 0, u32 sub = 0) {
    pmdb_intf_info_t in = Info(n, false);
    in.ifh = ifh;
    in.bundle_ifh = bundle;
    in.sub_ifh = sub;
    in.sub_flags = sub != 0 ? PMDB_SUB_VALID : 0;
    return in;
}
pmdb_intf_info_t MemberInfo(u32 i) {
    pmdb_intf_info_t in = Intf(10 + i, kMembers[i]);
    in.bundle_ifh = kBundle;
    in.member_port = static_cast<u16>((1u << 10) | (i + 1));
    in.member_port_shift = 1;
    return in;
}

void Oper(u8 type, const pmdb_intf_info_t &in, u32 node = 1, u8 flags = PMDB_VF_INTF) {
    pmdb_event_t ev = Event(type, in, kId);
    ev.valid_flags = flags;
    dpa_pmdb_oper(&ev, node);
}

// A port, and a bundle with three members and a sub-interface on nodes 1
// and 2: all through events.
class Dispatch : public pmdb::test::PmdbTest {
protected:
    void SetUp() override {
        PmdbTest::SetUp();
        Set("oam_enable", 1);
        Oper(PMDB_EV_INTF_ADD, Intf(1, kPort));
        Oper(PMDB_EV_BUNDLE_ADD, Intf(3, 0, kBundle));
        for (u32 i = 0; i < 3; i++) {
            Oper(PMDB_EV_INTF_ADD, Intf(10 + i, kMembers[i]));
            Oper(PMDB_EV_MEMBER_JOIN, MemberInfo(i));
        }
        Oper(PMDB_EV_SUB_ADD, Intf(5, 0, kBundle, kSub), 1);
        Oper(PMDB_EV_SUB_ADD, Intf(5, 0, kBundle, kSub), 2);
        MarkTraces();
    }
};

struct Want {
    vesk_kind_t kind;
    u32 point;
    std::vector<uint64_t> args;
};
struct NoChange {
    const char *name;
    std::function<void()> act;
    std::vector<Want> traces;
    bool only;  // no other record in any buffer
};

void Typed(u8 type, u8 flags) { Oper(type, Intf(1, kPort), 1, flags); }
pmdb_intf_info_t Unflagged(pmdb_intf_info_t in) {
    in.sub_flags = 0;
    return in;
}

const NoChange kNoChange[] = {
    {"Type0", [] { Typed(0, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {0, 0}}}, true},
    {"Type16", [] { Typed(16, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {16, 0}}}, true},
    {"Type17", [] { Typed(17, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {17, 0}}}, true},
    {"Type18", [] { Typed(18, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {18, 0}}}, true},
    {"Type23", [] { Typed(23, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {23, 0}}}, true},
    {"Type255", [] { Typed(255, PMDB_VF_INTF); }, {{VESK_ERROR, 277, {255, 0}}}, true},
    {"NullEvent", [] { dpa_pmdb_oper(nullptr, 1); }, {{VESK_ERROR, 284, {}}}, true},
    {"SubAddNotValid", [] { Oper(4, Unflagged(Intf(7, 0, kBundle, 0x3103))); }, {}, true},
    {"SubRemoveNotValid", [] { Oper(15, Unflagged(Intf(5, 0, kBundle, kSub))); }, {}, true},
    {"SubPuntNotValid", [] { Oper(11, Unflagged(Intf(5, 0, kBundle, kSub))); }, {}, true},
    {"PortPuntNoReading", [] { Typed(8, 0); },
     {{VESK_EVENT, 278, {8, 0, kId}}, {VESK_ERROR, 289, {0, kId, 22}}}, false},
    {"BundlePuntNoReading", [] { Oper(9, Intf(3, 0, kBundle), 1, 0); },
     {{VESK_EVENT, 278, {9, 0, kId}}, {VESK_ERROR, 289, {0, kId, 22}}}, false},
    {"SubPuntNoReading", [] { Oper(11, Intf(5, 0, kBundle, kSub), 1, 0); },
     {{VESK_EVENT, 278, {11, 0, kId}}, {VESK_ERROR, 289, {0, kId, 22}}}, false},
    {"PortOfBundleWithMembers", [] { Oper(12, MemberInfo(0)); },
     {{VESK_EVENT, 278, {12, kMembers[0], kId}}}, false},
    {"MacOfMissingBundle", [] { Oper(22, Intf(9, 0, kMissing)); },
     {{VESK_DATABASE, 258, {kMissing, 0, 0}}}, false},
    {"ReKeyOfMissingBundle", [] { Oper(10, Intf(9, 0, kMissing)); },
     {{VESK_DATABASE, 258, {kMissing, 0, 0}}}, false},
};

class DispatchNoChange : public Dispatch, public ::testing::WithParamInterface<NoChange> {};

TEST_P(DispatchNoChange, TablesStayByteForByte) {
    const Tables before = Snapshot(true);  // change stamps too
    GetParam().act();
    EXPECT_EQ(Diff(before, Snapshot(true)), "");
    for (const Want &w : GetParam().traces) {
        EXPECT_TRUE(pmdb::test::TraceWritten(mark(), w.kind, w.point, w.args)) << w.point;
    }
    if (!GetParam().only) return;
    size_t n = 0;
    for (vesk_kind_t k : {VESK_ERROR, VESK_DATABASE, VESK_EVENT}) n += Traces(k).size();
    EXPECT_EQ(n, GetParam().traces.size());
}

INSTANTIATE_TEST_SUITE_P(Records, DispatchNoChange, ::testing::ValuesIn(kNoChange),
                         [](const auto &i) { return std::string(i.param.name); });

struct NodeCase {
    u8 type;
    u16 intf_type;
    u8 flags;
    u32 node;
    u32 want_node_id;  // in the record after the call
    u16 want_mask;     // the port's node_mask after the call (0: not read)
};

class DispatchNode : public Dispatch, public ::testing::WithParamInterface<NodeCase> {};

TEST_P(DispatchNode, RecordAndMaskTakeTheSelectedNode) {
    const NodeCase c = GetParam();
    platform_host_set_node_id(42);
    pmdb_intf_info_t in = Intf(20, 0x1010);
    in.intf_type = c.intf_type;
    in.node_id = 7;
    pmdb_event_t ev = Event(c.type, in, kId);
    ev.valid_flags = c.flags;
    dpa_pmdb_oper(&ev, c.node);
    EXPECT_EQ(ev.intf_info.node_id, c.want_node_id);
    if (c.want_mask != 0) {
        EXPECT_EQ(Ifh(0x1010).node_mask, c.want_mask);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DispatchNode,
    ::testing::Values(NodeCase{1, 37, PMDB_VF_INTF, 3, 42, 1u << 3},
                      NodeCase{19, 37, PMDB_VF_INTF, 3, 42, 0},
                      NodeCase{1, 5, PMDB_VF_INTF, 3, 7, 1u << 3},
                      NodeCase{1, 37, PMDB_VF_INTF | PMDB_VF_PUNT, 3, 42, 0},
                      NodeCase{3, 37, PMDB_VF_INTF, 3, 7, 1u << 3}));

// A punt image reaches the add path with node 0: with the interface reading
// beside it no node bit is set; without the punt image the bit is set.
TEST_F(Dispatch, PuntImageUsesNodeZero) {
    const pmdb_intf_info_t in = Intf(1, kPort);
    Oper(PMDB_EV_INTF_PUNT, in, 5, PMDB_VF_INTF | PMDB_VF_PUNT);
    ExpectTrace(VESK_EVENT, 280, {0, in.egress_lif, in.oam_id, 0, 0});
    EXPECT_EQ(Ifh(kPort).node_mask, 1u << 1);
    EXPECT_EQ(Ifh(kPort).punt_info.punt_data[1], in.egress_lif);
    Oper(PMDB_EV_INTF_PUNT, in, 5);
    EXPECT_EQ(Ifh(kPort).node_mask, (1u << 1) | (1u << 5));
}

TEST_F(Dispatch, BundleSubInterfaceGoesWithTheLastNode) {
    const pmdb_intf_info_t sub = Intf(5, 0, kBundle, kSub);
    const u32 punt_key = sub.ingress_lif;
    const u32 oam_key = (sub.oam_id << 16) | 28;
    ASSERT_TRUE(Has(PMDB_TYPE_PUNT, punt_key) && Has(PMDB_TYPE_OAM, oam_key));
    Oper(PMDB_EV_SUB_REMOVE, sub, 1);
    ExpectTrace(VESK_DATABASE, 256, {kSub, kBundle, 3});
    ExpectTrace(VESK_DATABASE, 257, {kSub, 0b100});
    EXPECT_EQ(Ifh(kSub).node_mask, 0b100);
    EXPECT_TRUE(Has(PMDB_TYPE_PUNT, punt_key) && Has(PMDB_TYPE_OAM, oam_key));
    const Tables before = Snapshot();
    Oper(PMDB_EV_SUB_REMOVE, sub, 2);
    std::ostringstream want;
    want << std::hex << "IFH -0x" << kSub << " PUNT -0x" << punt_key << " OAM -0x" << oam_key
         << " ";
    EXPECT_EQ(Diff(before, Snapshot()), want.str());
}

// Re-keys in a row: each writes one key per member and removes the keys of
// the previous re-key whose egress keying differs and whose low half is set.
struct ReKey {
    u8 flags;
    bool egress;
    u32 egress_lif;
    u16 ingress_lif;
    u32 traced_handle;
    std::vector<u32> added, removed;
};

TEST_F(Dispatch, ReKeyRemovesOldMemberKeysAndWritesOnePerMember) {
    // Member system ports: ((1 << (8 + 1)) | (i + 1)) & 0x3FFF.
    const ReKey steps[] = {
        {PMDB_VF_INTF, false, 0, 0, kBundle, {0x82010000, 0x82020000, 0x82030000}, {}},
        {PMDB_VF_INTF, true, 0x10888, 0, kBundle, {0xC0000888}, {}},
        {PMDB_VF_INTF, true, 0x10999, 0, kBundle, {0xC0000999}, {}},
        {0, false, 0x10888, 0x777, 0, {0x80000777}, {0xC0000888, 0xC0000999}},
        {PMDB_VF_INTF, true, 0, 0, kBundle, {0xC2010000, 0xC2020000, 0xC2030000}, {0x80000777}},
    };
    for (const ReKey &s : steps) {
        SCOPED_TRACE(s.traced_handle);
        pmdb_intf_info_t in = Intf(3, 0, kBundle);
        in.intf_flags = s.egress ? PMDB_INTF_EGRESS_KEY : 0;
        in.egress_lif = s.egress_lif;
        in.ingress_lif = s.ingress_lif;
        const Tables before = Snapshot();
        MarkTraces();
        Oper(PMDB_EV_BUNDLE_REKEY, in, 1, s.flags);
        ExpectTrace(VESK_EVENT, 278, {PMDB_EV_BUNDLE_REKEY, s.traced_handle, kId});
        ExpectTrace(VESK_DATABASE, 258, {kBundle, 3, s.egress ? 1u : 0u});
        std::ostringstream want;
        want << std::hex;
        for (u32 k : s.added) want << "PUNT +0x" << k << " ";
        for (u32 k : s.removed) want << "PUNT -0x" << k << " ";
        EXPECT_EQ(Diff(before, Snapshot()), want.str());
        EXPECT_EQ(CountTraces(VESK_EVENT, 251), 3u);
        EXPECT_EQ(CountTraces(VESK_EVENT, 261), s.removed.size());
    }
    // A written entry carries event_id 0 and its member's stored block.
    const pmdb_punt_entry_t e = card::Punt(0x82020000);
    EXPECT_EQ(e.event_id, 0u);
    EXPECT_EQ(e.intf_info.ifh, kMembers[1]);
    EXPECT_EQ(e.intf_info.member_port, MemberInfo(1).member_port);
}

TEST_F(Dispatch, MacChangeWalksSubInterfacesOncePerMemberThenTheBundle) {
    pmdb_intf_info_t in = Intf(3, 0, kBundle);
    const u8 mac[6] = {0x0a, 1, 2, 3, 4, 5};
    memcpy(in.mac_addr, mac, 6);
    const Tables before = Snapshot();
    Oper(PMDB_EV_BUNDLE_MAC, in);
    ExpectTrace(VESK_DATABASE, 259, {kBundle, 0x0a, 1, 2, 3, 4, 5});
    for (u32 m : kMembers) ExpectTrace(VESK_DATABASE, 260, {kBundle, m});
    size_t rewriting_walks = 0;
    for (const vesk_rec_t &r : pmdb::test::FindTraces(mark(), VESK_EVENT, 254))
        rewriting_walks += r.args[4] == 0 ? 1 : 0;
    EXPECT_EQ(rewriting_walks, 3u);
    EXPECT_EQ(memcmp(Ifh(kSub).intf_info.mac_addr, mac, 6), 0);
    EXPECT_EQ(memcmp(Ifh(kBundle).intf_info.mac_addr, mac, 6), 0);
    EXPECT_EQ(Diff(before, Snapshot()), "IFH ~0x3001 IFH ~0x3101 ");
}

// A punt image of a node-local port rewrites up to three of the port's PUNT
// entries before the add path; other interface types do not.  The first
// three PUNT writes are made to fail, so each refresh write shows as 276.
struct Refresh {
    u8 type;
    u16 intf_type;
    size_t writes;
};
class DispatchRefresh : public Dispatch, public ::testing::WithParamInterface<Refresh> {};

TEST_P(DispatchRefresh, NodeLocalPortsPuntEntriesTakeTheWords) {
    const Refresh c = GetParam();
    pmdb_intf_info_t in = Intf(30, 0x1020);
    in.intf_type = c.intf_type;
    Oper(PMDB_EV_INTF_ADD, in);
    pmdb_event_t ev = PuntEvent(c.type, 0x1020, kId);
    ev.punt_info.intf_type = c.intf_type;
    MarkTraces();
    pm_fault_set("tabra_add_entry", TABRA_E_NOTFOUND, 3);
    dpa_pmdb_oper(&ev, 1);
    pm_fault_clear();
    const std::vector<vesk_rec_t> failed = pmdb::test::FindTraces(mark(), VESK_ERROR, 276);
    ASSERT_EQ(failed.size(), c.writes);
    for (const vesk_rec_t &r : failed) EXPECT_EQ(r.args[0], in.ingress_lif);
    // Without faults the words reach the port's main entry even when the
    // add path makes no IFH entry (type 20).
    ev.punt_info.punt_data[0] = 0x99;
    dpa_pmdb_oper(&ev, 1);
    EXPECT_EQ(card::Punt(in.ingress_lif).punt_info.punt_data[0],
              c.writes != 0 || c.type == 8 ? 0x99u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Cases, DispatchRefresh,
                         ::testing::Values(Refresh{8, 37, 3}, Refresh{20, 37, 3},
                                           Refresh{8, 1, 0}, Refresh{20, 1, 0}));

}  // namespace
