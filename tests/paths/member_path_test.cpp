// The bundle member event path: a member joining, changing and leaving its
// bundle, the member keys it works on (worked examples), an event naming no
// bundle, an inactive member leaving, the last member leaving, and a
// bundle's punt event refreshing the keys its members gave it.
#include <gtest/gtest.h>

#include "paths_support.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace paths_test;
using card::Punt;

constexpr u32 kIfh = 0x7001;

class MemberPath : public pmdb::test::PmdbTest {
protected:
    static constexpr u32 kBundle = 0x6100;
    void AddBundle() {
        pmdb_intf_info_t b = Worked(false);
        b.bundle_ifh = kBundle;
        pmdb_event_t ev = Event(PMDB_EV_BUNDLE_ADD, b);
        ASSERT_EQ(dpa_pmdb_add_all_entries(kBundle, &ev, 1, 1), PMDB_OK);
    }
    // A port whose egress LIF's low half and ingress LIF are 0, system port
    // 0x1234 + n, member port (3 << 10) | 5, shift 2.
    pmdb_intf_info_t AddPort(u32 ifh, u32 n) {
        pmdb_intf_info_t in = Info(n, false);
        in.ifh = ifh;
        in.egress_lif = 0x10000;
        in.ingress_lif = 0;
        in.sys_port = static_cast<u16>(0x1234 + n);
        pmdb_event_t ev = Event(PMDB_EV_INTF_ADD, in);
        EXPECT_EQ(dpa_pmdb_add_all_entries(ifh, &ev, 0, 1), PMDB_OK);
        in.bundle_ifh = kBundle;
        in.member_port = (3 << 10) | 5;
        in.member_port_shift = 2;
        return in;
    }
    void Member(u8 type, const pmdb_intf_info_t &in, u32 event_id = 7) {
        pmdb_event_t ev = Event(type, in, event_id);
        dpa_pmdb_ifh_summary_t s;
        dpa_pmdb_bundle_member_oper(&ev, in.ifh, &s);
    }
};

TEST_F(MemberPath, JoinModifyLeaveUseTheMembersFourKeysAndNeedABundle) {
    AddBundle();
    const pmdb_intf_info_t m = AddPort(kIfh, 0);
    const pmdb_intf_info_t other = AddPort(kIfh + 1, 1);
    // An event that names no bundle changes nothing.
    pmdb_intf_info_t unbundled = m;
    unbundled.bundle_ifh = 0;
    const Tables before = Snapshot();
    MarkTraces();
    Member(PMDB_EV_MEMBER_JOIN, unbundled);
    ExpectTrace(VESK_EVENT, 282, {PMDB_EV_MEMBER_JOIN, kIfh, 0, 5, 3, 7});
    EXPECT_EQ(Diff(before, Snapshot()), "");
    EXPECT_EQ(Traces(VESK_DATABASE).size() + Traces(VESK_ERROR).size(), 0u);

    Member(PMDB_EV_MEMBER_JOIN, other);
    const std::set<u32> punt_before = Keys(PMDB_TYPE_PUNT);

    // Join: the port entry 0x12340000 is marked; the egress key 0x52340000
    // was made with the slot (0x40030000) by the add path and is not found.
    MarkTraces();
    Member(PMDB_EV_MEMBER_JOIN, m);
    ExpectTrace(VESK_DATABASE, 242, {kBundle, 0, PMDB_EV_MEMBER_JOIN});
    ExpectTrace(VESK_ERROR, 241, {kIfh, 0x52340000, TABRA_E_NOTFOUND});
    ExpectTrace(VESK_ERROR, 283, {0x52340000, 7, TABRA_E_NOTFOUND});
    EXPECT_EQ(CountTraces(VESK_EVENT, 244), 0u);
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), punt_before);
    EXPECT_EQ(Punt(0x12340000).intf_info.bundle_ifh, kBundle);
    EXPECT_EQ(Punt(0x12340000).intf_info.member_port, (3 << 10) | 5);
    EXPECT_EQ(Ifh(kBundle).member_count, 2);

    // Modify: the bundle-member key 0x8C050000 and the port key are written.
    MarkTraces();
    Member(PMDB_EV_MEMBER_MODIFY, m);
    ExpectTrace(VESK_EVENT, 247, {PMDB_EV_MEMBER_MODIFY, kIfh, 0x8C050000, 0});
    ExpectTrace(VESK_EVENT, 247, {PMDB_EV_MEMBER_MODIFY, kIfh, 0x12340000, 0});
    EXPECT_EQ(Punt(0x8C050000).intf_info.ifh, kIfh);

    // Leave while another member stays: the member key goes, the bundle stays.
    MarkTraces();
    Member(PMDB_EV_MEMBER_LEAVE, m);
    ExpectTrace(VESK_EVENT, 246, {PMDB_EV_MEMBER_LEAVE, kIfh, 0x8C050000, 0});
    EXPECT_FALSE(Has(PMDB_TYPE_PUNT, 0x8C050000));
    EXPECT_EQ(Punt(0x12340000).intf_info.bundle_ifh, 0u);
    EXPECT_EQ(Punt(0x12340000).intf_info.member_port, 0u);
    EXPECT_TRUE(Has(PMDB_TYPE_IFH, kBundle));

    // A modify while inactive writes the key again; a leave of an inactive
    // member removes no bundle-member key.
    Member(PMDB_EV_MEMBER_MODIFY, m);
    MarkTraces();
    Member(PMDB_EV_MEMBER_LEAVE, m);
    ExpectTrace(VESK_ERROR, 245, {7, 7, 0, kIfh, 0x8C050000});
    EXPECT_TRUE(Has(PMDB_TYPE_PUNT, 0x8C050000));
    EXPECT_TRUE(Has(PMDB_TYPE_IFH, kBundle));

    // The last member leaving takes the bundle's own entries with it.
    Member(PMDB_EV_MEMBER_LEAVE, other);
    EXPECT_FALSE(Has(PMDB_TYPE_IFH, kBundle));
    EXPECT_FALSE(Has(PMDB_TYPE_PUNT, 0x567));        // the bundle's punt key
    EXPECT_FALSE(Has(PMDB_TYPE_OAM, 0x0099001C));     // its own OAM entry
    EXPECT_TRUE(Has(PMDB_TYPE_IFH, kIfh));
}

TEST_F(MemberPath, BundlePuntEventRefreshesTheKeysOfItsMembers) {
    AddBundle();
    pmdb_event_t punt = PuntEvent(PMDB_EV_BUNDLE_PUNT, kBundle);
    EXPECT_EQ(dpa_pmdb_add_all_entries(kBundle, &punt, 1, 1), PMDB_OK);
    ExpectTrace(VESK_DATABASE, 184, {kBundle, 0, 0});  // no members: no member keys
    for (u32 n : {0u, 1u}) {
        pmdb_intf_info_t m = AddPort(kIfh + n, n);
        m.member_port = static_cast<u16>(n);
        Member(PMDB_EV_MEMBER_JOIN, m);
        Member(PMDB_EV_MEMBER_MODIFY, m);
    }
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_add_all_entries(kBundle, &punt, 1, 1), PMDB_OK);
    ExpectTrace(VESK_DATABASE, 184, {kBundle, 2, 0});
    for (u32 key : {0x80000000u, 0x80010000u, 0x12340000u, 0x12350000u}) {
        ExpectTrace(VESK_EVENT, 186, {kBundle, key});
        EXPECT_EQ(Punt(key).punt_info.punt_data[0], 0x51u);
    }
}

}  // namespace
