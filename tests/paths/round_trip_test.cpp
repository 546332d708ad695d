// Round trips: every kind of interface added with all its entries and then
// removed with all of them leaves the three tables as they were, except for
// the entries that the removal leaves behind by design.  (Two processes at
// once on disjoint interfaces: the dispatcher's card test.)
#include <gtest/gtest.h>

#include <set>

#include "paths_support.h"
#include "pmdb_ops.h"

namespace {

using namespace paths_test;

enum Kind { kPort, kPortSub, kBundle, kMember, kBundleSub };
const char *const kKindName[] = {"Port", "PortSub", "Bundle", "Member", "BundleSub"};

struct Case {
    Kind kind;
    bool oam;     // OAM switch and LCVM redundancy on
    bool egress;  // egress keying of the interface (and of its bundle)
};

// One interface of a kind, numbered n: its handle, its parent's, and the
// entries that its removal leaves behind by design.
struct Scenario {
    Case c;
    u32 n;
    u32 ifh() const { return 0x5000 + n; }
    u32 parent() const { return 0x6000 + n; }
    pmdb_intf_info_t Own() const {
        pmdb_intf_info_t in = Info(n, c.egress);
        if (c.kind == kBundle) in.bundle_ifh = ifh();
        if (c.kind == kPort || c.kind == kMember || c.kind == kPortSub) in.ifh = ifh();
        if (c.kind == kPortSub) {  // on its parent port's system port
            in.ifh = parent();
            in.sys_port = Info(n + 100, false).sys_port;
        }
        if (c.kind == kBundleSub) in.bundle_ifh = parent();
        if (c.kind == kPortSub || c.kind == kBundleSub) in.sub_ifh = ifh();
        return in;
    }
    // The parent (a port, or a bundle) exists before the round trip.
    void Setup() const {
        if (c.kind != kPortSub && c.kind != kMember && c.kind != kBundleSub) return;
        pmdb_intf_info_t p = Info(n + 100, c.egress);
        const bool bundle = c.kind != kPortSub;
        (bundle ? p.bundle_ifh : p.ifh) = parent();
        pmdb_event_t ev = Event(bundle ? PMDB_EV_BUNDLE_ADD : PMDB_EV_INTF_ADD, p);
        EXPECT_EQ(dpa_pmdb_add_all_entries(parent(), &ev, bundle, 1), PMDB_OK);
    }
    void Member(u8 type) const {
        pmdb_intf_info_t in = Own();
        in.bundle_ifh = parent();
        in.member_port = static_cast<u16>((1u << 10) | n);
        in.member_port_shift = 1;
        pmdb_event_t ev = Event(type, in, 2);
        dpa_pmdb_ifh_summary_t s;
        dpa_pmdb_bundle_member_oper(&ev, ifh(), &s);
    }
    void Add() const {
        static const u8 kType[] = {PMDB_EV_INTF_ADD, PMDB_EV_SUB_ADD, PMDB_EV_BUNDLE_ADD,
                                   PMDB_EV_INTF_ADD, PMDB_EV_SUB_ADD};
        pmdb_event_t ev = Event(kType[c.kind], Own());
        EXPECT_EQ(dpa_pmdb_add_all_entries(ifh(), &ev, c.kind == kBundle, 1), PMDB_OK);
        if (c.kind != kMember) return;
        Member(PMDB_EV_MEMBER_JOIN);
        Member(PMDB_EV_MEMBER_MODIFY);
    }
    void Remove() const {
        static const u8 kType[] = {PMDB_EV_INTF_REMOVE, PMDB_EV_SUB_REMOVE, PMDB_EV_BUNDLE_REMOVE,
                                   PMDB_EV_INTF_REMOVE, PMDB_EV_SUB_REMOVE};
        (void)dpa_pmdb_remove_all_entries(ifh(), kType[c.kind], Own().ingress_lif,
                                          c.kind == kBundle, 3);
    }
    // Keys left behind by design, per table.
    std::set<u32> LeftBehind(pmdb_type_t type) const {
        const pmdb_intf_info_t in = Own();
        std::set<u32> keys;
        if (c.kind == kMember && c.egress && type == PMDB_TYPE_PUNT) {
            // Written without bit 30 by the modify; removed with it.
            keys.insert(0x80000000u | ((((1u << 9) | n) & 0x3FFF) << 16));
        }
        if (c.kind != kBundleSub) return keys;
        if (type == PMDB_TYPE_PUNT)
            keys.insert(c.egress ? ((in.egress_lif & 0xFFFF) | 0x40000000u) : in.ingress_lif);
        if (type != PMDB_TYPE_OAM) return keys;
        keys.insert((in.oam_id << 16) | 28);
        if (c.oam)
            for (u32 i : {2u, 31u}) keys.insert((in.oam_slots[i] << 16) | (i << 10) | 24);
        return keys;
    }
};

void Configure(bool oam) {
    Set("oam_enable", oam);
    Set("lcvm_redundancy", oam);
    Set("need_egress_punt", 1);
}

// What the round trip should leave: `before` plus the left-behind keys.
::testing::AssertionResult LeavesOnlyWhatIsLeftBehind(const Tables &before, const Tables &after,
                                                      const Scenario &s) {
    Tables want = before;
    for (int type = 0; type < PMDB_NUM_TYPES; type++)
        for (u32 key : s.LeftBehind(static_cast<pmdb_type_t>(type))) {
            auto it = after.t[type].find(key);
            if (it == after.t[type].end())
                return ::testing::AssertionFailure() << "not left behind: 0x" << std::hex << key;
            want.t[type][key] = it->second;
        }
    if (want == after) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << Diff(want, after);
}

class RoundTrip : public pmdb::test::PmdbTest, public ::testing::WithParamInterface<Case> {};

TEST_P(RoundTrip, RemovingAllUndoesAddingAll) {
    const Scenario s{GetParam(), 1};
    Configure(s.c.oam);
    s.Setup();
    const Tables before = Snapshot();
    s.Add();
    const Tables added = Snapshot();
    EXPECT_GT(added.t[PMDB_TYPE_PUNT].size(), before.t[PMDB_TYPE_PUNT].size());
    EXPECT_TRUE(Has(PMDB_TYPE_IFH, s.ifh()));
    s.Remove();
    EXPECT_TRUE(LeavesOnlyWhatIsLeftBehind(before, Snapshot(), s));
}

std::vector<Case> AllCases() {
    std::vector<Case> cases;
    for (Kind k : {kPort, kPortSub, kBundle, kMember, kBundleSub})
        for (bool oam : {false, true})
            for (bool egress : {false, true}) cases.push_back({k, oam, egress});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Kinds, RoundTrip, ::testing::ValuesIn(AllCases()),
                         [](const ::testing::TestParamInfo<Case> &i) {
                             return std::string(kKindName[i.param.kind]) +
                                    (i.param.oam ? "_Oam" : "_NoOam") +
                                    (i.param.egress ? "_Egress" : "_Ingress");
                         });

}  // namespace
