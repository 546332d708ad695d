// A line card built and taken apart through events only: ports on two
// nodes, port sub-interfaces, a bundle with three members, bundle
// sub-interfaces on two nodes, OAM on.  Each phase ends in exact key sets;
// the same card from two processes at once ends in the tables one process
// leaves.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "host/os_host.h"
#include "paths_support.h"
#include "pmdb_reader.h"

namespace {

using namespace paths_test;
using Keys3 = std::vector<std::set<u32>>;  // IFH, PUNT, OAM

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
    void Oper(u8 type, const pmdb_intf_info_t &in, u32 node) const {
        pmdb_event_t ev = Event(type, in, 100 + type);
        dpa_pmdb_oper(&ev, node);
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
    u32 NodeOf(const pmdb_intf_info_t &in) const { return in.node_id; }

    void Build() const {
        for (u32 i = 1; i <= 6; i++) Oper(PMDB_EV_INTF_ADD, Port(i), NodeOf(Port(i)));
        for (u32 i = 1; i <= 2; i++) Oper(PMDB_EV_SUB_ADD, PortSub(i), NodeOf(Port(i)));
        Oper(PMDB_EV_BUNDLE_ADD, Bundle(), 1);
        for (u32 i = 4; i <= 6; i++) {
            Oper(PMDB_EV_MEMBER_JOIN, Member(i), NodeOf(Port(i)));
            Oper(PMDB_EV_MEMBER_MODIFY, Member(i), NodeOf(Port(i)));
        }
        for (u32 node : {1u, 2u}) Oper(PMDB_EV_SUB_ADD, BundleSub(1), node);
        Oper(PMDB_EV_SUB_ADD, BundleSub(2), 2);
    }
    void TakeApart() const {
        for (u32 node : {1u, 2u}) Oper(PMDB_EV_SUB_REMOVE, BundleSub(1), node);
        Oper(PMDB_EV_SUB_REMOVE, BundleSub(2), 2);
        for (u32 i = 4; i <= 6; i++) Oper(PMDB_EV_MEMBER_LEAVE, Member(i), NodeOf(Port(i)));
        Oper(PMDB_EV_BUNDLE_REMOVE, Bundle(), 1);
        for (u32 i = 1; i <= 2; i++) Oper(PMDB_EV_SUB_REMOVE, PortSub(i), NodeOf(Port(i)));
        for (u32 i = 1; i <= 6; i++) Oper(PMDB_EV_MAIN_REMOVE, Port(i), NodeOf(Port(i)));
    }
};

Keys3 AllKeys() {
    Keys3 k;
    for (int t = 0; t < PMDB_NUM_TYPES; t++) k.push_back(Keys(static_cast<pmdb_type_t>(t)));
    return k;
}

std::string Show(const std::set<u32> &keys) {
    std::ostringstream out;
    out << std::hex;
    for (u32 k : keys) out << "0x" << k << ", ";
    return out.str();
}

void ExpectKeys(const Keys3 &want) {
    const Keys3 got = AllKeys();
    static const char *kName[] = {"IFH", "PUNT", "OAM"};
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        EXPECT_EQ(got[t], want[t]) << kName[t] << " holds " << Show(got[t]);
}

pmdb_ifh_entry_t Ifh(u32 key) {
    pmdb_ifh_entry_t e{};
    EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, &e, sizeof e), PMDB_OK) << std::hex << key;
    return e;
}

void Configure() {
    Set("oam_enable", 1);
    Set("lcvm_redundancy", 1);
    Set("need_egress_punt", 1);
}

class Card1 : public pmdb::test::PmdbTest {};

// Adds the keys of a phase to the keys the card held before it.
void Add(Keys3 *k, std::initializer_list<u32> ifh, std::initializer_list<u32> punt,
         std::initializer_list<u32> oam) {
    (*k)[0].insert(ifh);
    (*k)[1].insert(punt);
    (*k)[2].insert(oam);
}

TEST_F(Card1, BuiltAndTakenApartThroughEventsOnly) {
    Configure();
    const Card c{0};
    Keys3 want(PMDB_NUM_TYPES);
    // Ports: odd ones egress-keyed (slot 3 in the egress LIF key) with OAM
    // keys A and B for OAM slots 2 and 31; every one with its extension,
    // plain extension and egress punt keys.
    for (u32 i = 1; i <= 6; i++) c.Oper(PMDB_EV_INTF_ADD, c.Port(i), c.NodeOf(c.Port(i)));
    Add(&want, {0x1001, 0x1002, 0x1003, 0x1004, 0x1005, 0x1006},
        {0x2010, 0x2020, 0x2030, 0x2040, 0x2050, 0x2060, 0x1010000, 0x1020000, 0x1030000,
         0x1040000, 0x1050000, 0x1060000, 0x40031010, 0x40031020, 0x40031030, 0x40031040,
         0x40031050, 0x40031060, 0x41010000, 0x41030000, 0x41050000},
        {0x40108b8, 0x40308b8, 0x40508b8, 0x5017cb8, 0x5037cb8, 0x5057cb8, 0x101008a8,
         0x10107ca8, 0x103008a8, 0x10307ca8, 0x105008a8, 0x10507ca8});
    ExpectKeys(want);
    // Port sub-interfaces: main, egress LIF and egress punt keys.
    for (u32 i = 1; i <= 2; i++) c.Oper(PMDB_EV_SUB_ADD, c.PortSub(i), c.NodeOf(c.Port(i)));
    Add(&want, {0x1101, 0x1102}, {0x20b0, 0x20c0, 0x400310b0, 0x400310c0},
        {0x40b08b8, 0x50b7cb8, 0x10b008a8, 0x10b07ca8});
    ExpectKeys(want);
    // The bundle: its punt key, interface and redundancy OAM entries; each
    // member's bundle-member key.
    c.Oper(PMDB_EV_BUNDLE_ADD, c.Bundle(), 1);
    for (u32 i = 4; i <= 6; i++) {
        c.Oper(PMDB_EV_MEMBER_JOIN, c.Member(i), c.NodeOf(c.Port(i)));
        c.Oper(PMDB_EV_MEMBER_MODIFY, c.Member(i), c.NodeOf(c.Port(i)));
    }
    Add(&want, {0x3000}, {0x2140, 0x80040000, 0x80050000, 0x80060000},
        {0x314001c, 0x4140818, 0x5147c18});
    ExpectKeys(want);
    EXPECT_EQ(Ifh(0x3000).member_count, 3);
    // Bundle sub-interfaces: 0x3101 on both nodes, 0x3102 on node 2.
    for (u32 node : {1u, 2u}) c.Oper(PMDB_EV_SUB_ADD, c.BundleSub(1), node);
    c.Oper(PMDB_EV_SUB_ADD, c.BundleSub(2), 2);
    Add(&want, {0x3101, 0x3102}, {0x40001150, 0x2160},
        {0x315001c, 0x316001c, 0x4150818, 0x5157c18, 0x4160818, 0x5167c18});
    ExpectKeys(want);
    EXPECT_EQ(Ifh(0x3000).sub_intf_count, 2);
    EXPECT_EQ(Ifh(0x3101).node_mask, 0b110);

    // Taken apart, only the sub-interfaces' redundancy OAM entries stay:
    // no removal path knows them.
    c.TakeApart();
    ExpectKeys({{}, {}, {0x4150818, 0x5157c18, 0x4160818, 0x5167c18}});
}

// Dumps the three tables (stamps cleared) as text, one entry a line.
std::string Dump() {
    const Tables t = Snapshot();
    std::ostringstream out;
    out << std::hex;
    for (int type = 0; type < PMDB_NUM_TYPES; type++)
        for (const auto &[key, bytes] : t.t[type]) {
            out << type << " " << key << " ";
            for (u8 v : bytes) out << static_cast<u32>(v) << ".";
            out << "\n";
        }
    return out.str();
}

class Card2 : public pmdb::test::PmdbTest {};

// Runs `act` on cards 0 and 1 in two processes at once.
void AtOnce(void (Card::*act)() const) {
    pmdb::test::RunAtOnce(
        2, [] { Configure(); }, [act](size_t b) { (Card{static_cast<u32>(b)}.*act)(); });
}

std::string Slurp(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    return s.str();
}

// Two processes build cards 0 and 1 at once, then take them apart at once;
// a process in a namespace of its own does the same one card after the
// other.  Both namespaces hold the same tables after each stage.
TEST_F(Card2, TwoProcessesEndInTheTablesOneLeaves) {
    const std::string other_ns = pmdb::test::UniqueNamespace();
    const std::string built = "/tmp/" + other_ns + ".built", apart = "/tmp/" + other_ns + ".apart";
    const pmdb::test::ChildResult r = pmdb::test::RunInChild([&] {
        if (vorn_host_set_namespace(other_ns.c_str()) != 0) return 1;
        Configure();
        for (u32 b = 0; b < 2; b++) Card{b}.Build();
        std::ofstream(built) << Dump();
        for (u32 b = 0; b < 2; b++) Card{b}.TakeApart();
        std::ofstream(apart) << Dump();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    vorn_host_remove_namespace(other_ns.c_str());
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    const std::string one_built = Slurp(built), one_apart = Slurp(apart);
    ASSERT_NE(one_built, one_apart);
    AtOnce(&Card::Build);
    EXPECT_EQ(Dump(), one_built);
    AtOnce(&Card::TakeApart);
    EXPECT_EQ(Dump(), one_apart);
}

}  // namespace
