// A line card built and taken apart through events only: ports on two
// nodes, port sub-interfaces, a bundle with three members, bundle
// sub-interfaces on two nodes, OAM on.  Each phase ends in exact key sets;
// the same cards from two processes at once end in the tables one process
// leaves.
#include <gtest/gtest.h>

#include <sstream>

#include "paths_support.h"
#include "pmdb_db_test.h"
#include "pmdb_reader.h"

namespace {

using namespace paths_test;

// One card; `b` shifts every handle and interface number, so that cards
// with different b share no key.
struct Card {
    u32 b;
    u32 H(u32 h) const { return h + (b << 16); }
    pmdb_intf_info_t In(u32 n, u32 ifh, u32 sub, u32 bundle) const {
        pmdb_intf_info_t in = Info(n + b * 32, n % 2 == 1);
        in.ifh = ifh != 0 ? H(ifh) : 0;
        in.sub_ifh = sub != 0 ? H(sub) : 0;
        in.bundle_ifh = bundle != 0 ? H(bundle) : 0;
        in.sub_flags = sub != 0 ? PMDB_SUB_VALID : 0;
        return in;
    }
    // The event goes to the interface's node unless `node` is given.
    void Oper(u8 type, const pmdb_intf_info_t &in, u32 node = 0) const {
        pmdb_event_t ev = Event(type, in, 100 + type);
        dpa_pmdb_oper(&ev, node != 0 ? node : in.node_id);
    }
    // Ports 1 and 2 on node 1, 3 on node 2; member ports 4 to 6 on nodes
    // 1, 1 and 2.
    pmdb_intf_info_t Port(u32 i) const {
        pmdb_intf_info_t in = In(i, 0x1000 + i, 0, 0);
        in.node_id = i == 3 || i == 6 ? 2 : 1;
        return in;
    }
    pmdb_intf_info_t PortSub(u32 i) const { return In(10 + i, 0x1000 + i, 0x1100 + i, 0); }
    pmdb_intf_info_t Bundle() const { return In(20, 0, 0, 0x3000); }
    pmdb_intf_info_t Member(u32 i) const {
        pmdb_intf_info_t in = Port(i);
        in.bundle_ifh = H(0x3000);
        in.member_port = static_cast<u16>(i + b * 8);
        return in;
    }
    pmdb_intf_info_t BundleSub(u32 i) const { return In(20 + i, 0, 0x3100 + i, 0x3000); }

    // Ports; port sub-interfaces; the bundle and its members; bundle
    // sub-interfaces 0x3101 on both nodes and 0x3102 on node 2.
    void Phase(int p) const {
        for (u32 i = 1; p == 0 && i <= 6; i++) Oper(PMDB_EV_INTF_ADD, Port(i));
        for (u32 i = 1; p == 1 && i <= 2; i++) Oper(PMDB_EV_SUB_ADD, PortSub(i));
        if (p == 2) Oper(PMDB_EV_BUNDLE_ADD, Bundle());
        for (u32 i = 4; p == 2 && i <= 6; i++) {
            Oper(PMDB_EV_MEMBER_JOIN, Member(i));
            Oper(PMDB_EV_MEMBER_MODIFY, Member(i));
        }
        for (u32 node = 1; p == 3 && node <= 2; node++) Oper(PMDB_EV_SUB_ADD, BundleSub(1), node);
        if (p == 3) Oper(PMDB_EV_SUB_ADD, BundleSub(2), 2);
    }
    void Build() const {
        for (int p = 0; p < 4; p++) Phase(p);
    }
    void TakeApart() const {
        for (u32 node : {1u, 2u}) Oper(PMDB_EV_SUB_REMOVE, BundleSub(1), node);
        Oper(PMDB_EV_SUB_REMOVE, BundleSub(2), 2);
        for (u32 i = 4; i <= 6; i++) Oper(PMDB_EV_MEMBER_LEAVE, Member(i));
        Oper(PMDB_EV_BUNDLE_REMOVE, Bundle());
        for (u32 i = 1; i <= 2; i++) Oper(PMDB_EV_SUB_REMOVE, PortSub(i));
        for (u32 i = 1; i <= 6; i++) Oper(PMDB_EV_MAIN_REMOVE, Port(i));
    }
    // No removal path knows the bundle sub-interfaces' redundancy OAM
    // entries (OAM slots 2 and 31): they stay.
    std::set<u32> LeftBehind() const {
        std::set<u32> keys;
        for (u32 n = 21 + b * 32; n <= 22 + b * 32; n++) {
            keys.insert(((0x400u + n) << 16) | 0x818);
            keys.insert(((0x500u + n) << 16) | 0x7c18);
        }
        return keys;
    }
};

void Configure() {
    Set("oam_enable", 1);
    Set("lcvm_redundancy", 1);
    Set("need_egress_punt", 1);
}

// Keys each phase of card 0 adds to the IFH, PUNT and OAM tables.  Ports:
// odd ones egress-keyed (slot 3 in the egress LIF key) with OAM keys A and B
// for OAM slots 2 and 31; every one with its extension, plain extension and
// egress punt keys.  Port sub-interfaces: main, egress LIF and egress punt
// keys.  The bundle: its punt key, interface and redundancy OAM entries,
// each member's bundle-member key.
const std::vector<std::set<u32>> kPhaseKeys[4] = {
    {{0x1001, 0x1002, 0x1003, 0x1004, 0x1005, 0x1006},
     {0x2010, 0x2020, 0x2030, 0x2040, 0x2050, 0x2060, 0x1010000, 0x1020000, 0x1030000, 0x1040000,
      0x1050000, 0x1060000, 0x40031010, 0x40031020, 0x40031030, 0x40031040, 0x40031050,
      0x40031060, 0x41010000, 0x41030000, 0x41050000},
     {0x40108b8, 0x40308b8, 0x40508b8, 0x5017cb8, 0x5037cb8, 0x5057cb8, 0x101008a8, 0x10107ca8,
      0x103008a8, 0x10307ca8, 0x105008a8, 0x10507ca8}},
    {{0x1101, 0x1102},
     {0x20b0, 0x20c0, 0x400310b0, 0x400310c0},
     {0x40b08b8, 0x50b7cb8, 0x10b008a8, 0x10b07ca8}},
    {{0x3000}, {0x2140, 0x80040000, 0x80050000, 0x80060000}, {0x314001c, 0x4140818, 0x5147c18}},
    {{0x3101, 0x3102},
     {0x40001150, 0x2160},
     {0x315001c, 0x316001c, 0x4150818, 0x5157c18, 0x4160818, 0x5167c18}},
};

void ExpectKeys(const std::vector<std::set<u32>> &want) {
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        const std::set<u32> got = Keys(static_cast<pmdb_type_t>(t));
        std::ostringstream held;
        for (u32 k : got) held << std::hex << "0x" << k << " ";
        EXPECT_EQ(got, want[t]) << "table " << t << " holds " << held.str();
    }
}

class DispatchCard : public pmdb::test::PmdbTest {};

// Card 0 phase by phase, then card 1, then both taken apart, in this
// process; then the tables emptied and the same two cards built and taken
// apart by two processes at once: both ways end in the same tables.
TEST_F(DispatchCard, BuiltAndTakenApartByOneProcessOrTwoAtOnce) {
    Configure();
    const Card c0{0}, c1{1};
    std::vector<std::set<u32>> want(PMDB_NUM_TYPES);
    for (int p = 0; p < 4; p++) {
        SCOPED_TRACE(p);
        c0.Phase(p);
        for (int t = 0; t < PMDB_NUM_TYPES; t++)
            want[t].insert(kPhaseKeys[p][t].begin(), kPhaseKeys[p][t].end());
        ExpectKeys(want);
    }
    EXPECT_EQ(Ifh(0x3000).member_count, 3);
    EXPECT_EQ(Ifh(0x3000).sub_intf_count, 2);
    EXPECT_EQ(Ifh(0x3101).node_mask, 0b110);
    c1.Build();
    const Tables built = Snapshot();
    c0.TakeApart();
    c1.TakeApart();
    std::set<u32> left = c0.LeftBehind();
    left.merge(c1.LeftBehind());
    ExpectKeys({{}, {}, left});
    const Tables apart = Snapshot();

    ASSERT_TRUE(pmdb::test::RemoveAllEntries());
    const auto at_once = [](void (Card::*act)() const) {
        pmdb::test::RunAtOnce(2, Configure,
                              [act](size_t b) { (Card{static_cast<u32>(b)}.*act)(); });
    };
    at_once(&Card::Build);
    EXPECT_EQ(Diff(built, Snapshot()), "");
    at_once(&Card::TakeApart);
    EXPECT_EQ(Diff(apart, Snapshot()), "");
}

}  // namespace
