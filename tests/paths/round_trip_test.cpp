// Round trips: every kind of interface added with all its entries and then
// removed with all of them leaves the three tables as they were, except for
// the entries that the removal leaves behind by design.  (Two processes at
// once on disjoint interfaces: the dispatcher's card test.)
#include <gtest/gtest.h>

#include <set>
#include <sstream>

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

constexpr u32 kIfh = 0x5001, kParent = 0x6001;
constexpr u32 kMemberKey = 0x82010000;  // of member port (1 << 10) | 1, shift 1

// Interface 1 of its kind; a port sub-interface sits on its parent port's
// system port.
pmdb_intf_info_t Own(const Case &c) {
    pmdb_intf_info_t in = Info(1, c.egress);
    if (c.kind == kBundle) in.bundle_ifh = kIfh;
    if (c.kind == kPort || c.kind == kMember) in.ifh = kIfh;
    if (c.kind == kPortSub) {
        in.ifh = kParent;
        in.sys_port = Info(101, false).sys_port;
    }
    if (c.kind == kBundleSub) in.bundle_ifh = kParent;
    if (c.kind == kPortSub || c.kind == kBundleSub) in.sub_ifh = kIfh;
    return in;
}

void Member(const Case &c, u8 type) {
    pmdb_intf_info_t in = Own(c);
    in.bundle_ifh = kParent;
    in.member_port = (1u << 10) | 1;
    in.member_port_shift = 1;
    pmdb_event_t ev = Event(type, in, 2);
    dpa_pmdb_ifh_summary_t s;
    dpa_pmdb_bundle_member_oper(&ev, kIfh, &s);
}

// The keys the removal leaves behind by design, as Diff names them.
std::string LeftBehind(const Case &c) {
    const pmdb_intf_info_t in = Own(c);
    std::ostringstream out;
    out << std::hex;
    // Written without bit 30 by the modify; removed with it.
    if (c.kind == kMember && c.egress) out << "PUNT +0x" << kMemberKey << " ";
    if (c.kind != kBundleSub) return out.str();
    const u32 punt = c.egress ? ((in.egress_lif & 0xFFFF) | 0x40000000u) : in.ingress_lif;
    out << "PUNT +0x" << punt << " ";
    std::set<u32> oam = {(in.oam_id << 16) | 28};
    if (c.oam)
        for (u32 i : {2u, 31u}) oam.insert((in.oam_slots[i] << 16) | (i << 10) | 24);
    for (u32 key : oam) out << "OAM +0x" << key << " ";
    return out.str();
}

class RoundTrip : public pmdb::test::PmdbTest, public ::testing::WithParamInterface<Case> {};

TEST_P(RoundTrip, RemovingAllUndoesAddingAll) {
    const Case c = GetParam();
    Set("oam_enable", c.oam);
    Set("lcvm_redundancy", c.oam);
    Set("need_egress_punt", 1);
    if (c.kind == kPortSub || c.kind == kMember || c.kind == kBundleSub) {  // the parent
        pmdb_intf_info_t p = Info(101, c.egress);
        const bool bundle = c.kind != kPortSub;
        (bundle ? p.bundle_ifh : p.ifh) = kParent;
        pmdb_event_t ev = Event(bundle ? PMDB_EV_BUNDLE_ADD : PMDB_EV_INTF_ADD, p);
        ASSERT_EQ(dpa_pmdb_add_all_entries(kParent, &ev, bundle, 1), PMDB_OK);
    }
    const Tables before = Snapshot();
    static const u8 kAdd[] = {PMDB_EV_INTF_ADD, PMDB_EV_SUB_ADD, PMDB_EV_BUNDLE_ADD,
                              PMDB_EV_INTF_ADD, PMDB_EV_SUB_ADD};
    pmdb_event_t ev = Event(kAdd[c.kind], Own(c));
    EXPECT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, c.kind == kBundle, 1), PMDB_OK);
    if (c.kind == kMember) {
        Member(c, PMDB_EV_MEMBER_JOIN);
        Member(c, PMDB_EV_MEMBER_MODIFY);
    }
    EXPECT_GT(Snapshot().t[PMDB_TYPE_PUNT].size(), before.t[PMDB_TYPE_PUNT].size());
    EXPECT_TRUE(Has(PMDB_TYPE_IFH, kIfh));
    static const u8 kRemove[] = {PMDB_EV_INTF_REMOVE, PMDB_EV_SUB_REMOVE, PMDB_EV_BUNDLE_REMOVE,
                                 PMDB_EV_INTF_REMOVE, PMDB_EV_SUB_REMOVE};
    MarkTraces();
    (void)dpa_pmdb_remove_all_entries(kIfh, kRemove[c.kind], Own(c).ingress_lif,
                                      c.kind == kBundle, 3);
    // An active member's removal takes its member key, then walks its
    // bundle's sub-interfaces.
    if (c.kind == kMember && !c.egress) {
        ExpectTrace(VESK_EVENT, 215, {kIfh, kMemberKey, 0, 0});
        ExpectTrace(VESK_EVENT, 254, {7, kParent, kIfh, 1024, 1});
    }
    EXPECT_EQ(Diff(before, Snapshot()), LeftBehind(c));
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
