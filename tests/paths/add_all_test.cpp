// Adding all entries of an interface: which PUNT and OAM entries each kind
// of interface and event gets, refreshes that change the egress keying, a
// bundle's member punt keys, and the result rule.
#include <gtest/gtest.h>

#include <algorithm>

#include "paths_support.h"
#include "pmdb_ops.h"

namespace {

using namespace paths_test;

constexpr u32 kIfh = 0x7001, kParent = 0x6001;

enum Kind { kPort, kPortSub, kBundle, kBundleSub };

struct AddCase {
    const char *name;
    Kind kind;
    u8 type;
    bool egress, oam, lcvm;
    std::set<u32> punt, oam_keys;
};

// The worked interface on a node that is no route processor, with the
// egress punt entry configured.
const AddCase kAddCases[] = {
    {"PortIngressKeyed", kPort, 1, false, true, false, {0x567, 0x0ABC0000, 0x40031234}, {}},
    {"PortEgressKeyed", kPort, 1, true, true, false,
     {0x40031234, 0x4ABC0000, 0x0ABC0000, 0x567}, {0x12340868, 0x00420878}},
    {"PortOamDisabled", kPort, 1, true, false, false,
     {0x40031234, 0x4ABC0000, 0x0ABC0000, 0x567}, {}},
    {"PortLcvmSlotBits", kPort, 1, true, true, true,
     {0x40031234, 0x4ABC0000, 0x0ABC0000, 0x567}, {0x123408A8, 0x004208B8}},
    {"PortSubInterface", kPortSub, 4, false, true, false, {0x567, 0x40031234}, {}},
    {"NoIfhAdd", kPort, 19, false, true, false, {0x567, 0x0ABC0000}, {}},
    {"NoIfhPunt", kPort, 20, false, true, false, {0x567, 0x0ABC0000}, {}},
    {"BundleNoMembers", kBundle, 2, false, true, false, {0x567}, {0x0099001C}},
    {"BundleRedundancy", kBundle, 2, true, false, true, {0x40001234}, {0x0099001C, 0x00420818}},
    {"PuntEventOfUnknownInterface", kPort, 8, false, true, false, {}, {}},
    {"BundleSubRedundancyWithoutOam", kBundleSub, 4, false, false, true, {0x567},
     {0x0099001C, 0x00420818}},
};

class AddAll : public pmdb::test::PmdbTest, public ::testing::WithParamInterface<AddCase> {};

TEST_P(AddAll, MakesTheEntriesOfItsKind) {
    const AddCase &c = GetParam();
    const bool sub = c.kind == kPortSub || c.kind == kBundleSub;
    Set("oam_enable", c.oam);
    Set("lcvm_redundancy", c.lcvm);
    Set("need_egress_punt", 1);
    pmdb_intf_info_t in = Worked(c.egress);
    (c.kind == kBundle ? in.bundle_ifh : in.ifh) = kIfh;
    if (sub) {
        in.sub_ifh = kIfh;
        in.ifh = 0;
        (c.kind == kPortSub ? in.ifh : in.bundle_ifh) = kParent;
        card::PutIfh(kParent, [](pmdb_ifh_entry_t &e) { e.intf_info = Info(9, false); });
    }
    pmdb_event_t ev = c.type == 8 ? PuntEvent(8, kIfh) : Event(c.type, in);
    EXPECT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, c.kind == kBundle, 1), PMDB_OK);
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), c.punt);
    EXPECT_EQ(Keys(PMDB_TYPE_OAM), c.oam_keys);
    EXPECT_EQ(Has(PMDB_TYPE_IFH, kIfh), c.type != 19 && c.type != 20);
    if (c.punt.empty()) return;           // a bare IFH entry
    EXPECT_EQ(ev.intf_info.node_id, 1u);  // restored after the node-999 adds
    const bool node_999 = c.kind == kBundle || c.kind == kBundleSub;
    EXPECT_EQ(card::Punt(*c.punt.begin()).intf_info.node_id, node_999 ? 999u : 1u);
    if (!sub) return;
    EXPECT_EQ(Ifh(kParent).sub_intf_count, 1);
}

INSTANTIATE_TEST_SUITE_P(Cases, AddAll, ::testing::ValuesIn(kAddCases),
                         [](const ::testing::TestParamInfo<AddCase> &i) { return i.param.name; });

class AddAllPath : public pmdb::test::PmdbTest {};

// Position of the first record of `point` with first argument `key`;
// recs.size() when there is none.
size_t Position(const std::vector<vesk_rec_t> &recs, uint32_t point, u32 key) {
    return std::find_if(recs.begin(), recs.end(),
                        [&](const vesk_rec_t &r) { return r.point == point && r.args[0] == key; }) -
           recs.begin();
}

TEST_F(AddAllPath, ChangedEgressKeyingRemovesTheOldEntriesFirst) {
    Set("lcvm_redundancy", 0);
    pmdb_intf_info_t in = Worked(false);
    in.ifh = kIfh;
    pmdb_event_t ev = Event(PMDB_EV_INTF_ADD, in);
    ASSERT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, 0, 1), PMDB_OK);
    ASSERT_EQ(Keys(PMDB_TYPE_PUNT), (std::set<u32>{0x567, 0x0ABC0000, 0x40031234}));

    MarkTraces();
    ev.intf_info.intf_flags = PMDB_INTF_EGRESS_KEY;
    ASSERT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, 0, 1), PMDB_OK);
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), (std::set<u32>{0x40031234, 0x4ABC0000, 0x0ABC0000}));
    EXPECT_EQ(Keys(PMDB_TYPE_OAM), (std::set<u32>{0x12340868, 0x00420878}));
    const auto db = Traces(VESK_DATABASE);
    EXPECT_LT(Position(db, 177, 0x567), db.size());  // removed
    EXPECT_LT(Position(db, 177, 0x0ABC0000), Position(db, 195, 0x0ABC0000));
    EXPECT_LT(Position(db, 177, 0x40031234), Position(db, 192, 0x40031234));

    // Keying cleared by event type 1 with a new egress LIF: the previous
    // slots' keys A (under the old egress LIF) and B go, none is added.
    MarkTraces();
    ev.intf_info.intf_flags = 0;
    ev.intf_info.egress_lif = 0x2222;
    ASSERT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, 0, 1), PMDB_OK);
    EXPECT_TRUE(Keys(PMDB_TYPE_OAM).empty());
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), (std::set<u32>{0x567, 0x0ABC0000, 0x40032222}));
    ExpectTrace(VESK_DATABASE, 201, {2, 3, 0x1234, 0x12340868, 1});
    ExpectTrace(VESK_DATABASE, 205, {2, 0x1234, 0x42, 0xABC, 0x00420878, 1});
}

TEST_F(AddAllPath, ResultIsTheLastRecordedStatus) {
    // IFH step refused: traced, nothing else touched.
    pmdb_event_t ev = Event(PMDB_EV_INTF_ADD, Worked(false));
    EXPECT_EQ(dpa_pmdb_add_all_entries(0, &ev, 0, 1), PMDB_EINVAL);
    ExpectTrace(VESK_ERROR, 178, {0, PMDB_EV_INTF_ADD, PMDB_VF_INTF, PMDB_EINVAL});
    EXPECT_TRUE(Keys(PMDB_TYPE_PUNT).empty());
    // Main key made, then both extension keys are 0 (no system port) and
    // refused: the last of them gives the result.
    pmdb_intf_info_t in = Worked(false);
    in.ifh = kIfh;
    in.egress_lif = 0;
    in.sys_port = 0;
    ev = Event(PMDB_EV_INTF_ADD, in);
    EXPECT_EQ(dpa_pmdb_add_all_entries(kIfh, &ev, 0, 1), PMDB_EINVAL);
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), std::set<u32>{0x567});
    ExpectTrace(VESK_ERROR, 193, {0, PMDB_EINVAL});
    ExpectTrace(VESK_ERROR, 196, {0, PMDB_EINVAL});
}

}  // namespace
