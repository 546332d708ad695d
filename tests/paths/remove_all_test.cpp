// Removing all entries of an interface, the bundle sub-interface walk and
// the removal of an interface's own OAM entry: the keys removed (worked
// examples), refusals, the pool bank of event type 12, and the result rules.
#include <gtest/gtest.h>

#include <cstring>

#include "host/os_host.h"
#include "host/pm_fault.h"
#include "paths_support.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace paths_test;

constexpr u32 kIfh = 0x7001, kBundle = 0x6001;

class RemoveAll : public pmdb::test::PmdbTest {
protected:
    pmdb_event_t ev_ = Event(PMDB_EV_INTF_ADD, Worked(false));
    void Punt(u32 key) {
        i32 slot;
        ASSERT_EQ(dpa_pmdb_add_punt_entry(key, &ev_, &slot, nullptr), PMDB_OK) << std::hex << key;
    }
    void Oam(u32 key) { ASSERT_EQ(dpa_pmdb_add_oam_entry(key, &ev_, nullptr), PMDB_OK); }
    // A sub-interface of kBundle, its IFH entry and its main PUNT entry.
    pmdb_intf_info_t PutBundleSub(u32 h) {
        pmdb_intf_info_t in = Info(h, false);
        in.sub_ifh = h;
        in.bundle_ifh = kBundle;
        card::PutIfh(h, [&](pmdb_ifh_entry_t &e) { e.intf_info = in; });
        Punt(in.ingress_lif);
        return in;
    }
};

class WorkedKeys : public RemoveAll, public ::testing::WithParamInterface<bool> {};

TEST_P(WorkedKeys, OfAPortAreRemovedInOrder) {
    const bool oam = GetParam();
    Set("oam_enable", oam);
    Set("need_egress_punt", 1);
    pmdb_intf_info_t in = Worked(false);
    in.ifh = kIfh;
    card::PutIfh(kIfh, [&](pmdb_ifh_entry_t &e) { e.intf_info = in; });
    for (u32 key : {0x567u, 0x40031234u, 0x0ABC0000u}) Punt(key);
    for (u32 key : {0x12340868u, 0x00420878u}) Oam(key);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_remove_all_entries(kIfh, PMDB_EV_INTF_REMOVE, 0x567, 0, 5),
              oam ? PMDB_OK : TABRA_E_NOTFOUND);
    EXPECT_TRUE(Keys(PMDB_TYPE_IFH).empty());
    EXPECT_TRUE(Keys(PMDB_TYPE_PUNT).empty());
    ExpectTrace(VESK_EVENT, 218, {kIfh, 0x567, 0, 0});
    // The egress punt and the plain system port keys were removed already.
    ExpectTrace(VESK_ERROR, 220, {0x567, TABRA_E_NOTFOUND});
    ExpectTrace(VESK_ERROR, 222, {0x0ABC0000, TABRA_E_NOTFOUND});
    EXPECT_EQ(Keys(PMDB_TYPE_OAM), (oam ? std::set<u32>{} : std::set<u32>{0x12340868, 0x00420878}));
    if (!oam) ExpectNoTrace(VESK_DATABASE, 224);
    if (oam) ExpectTrace(VESK_DATABASE, 224, {2, 0x1234, 3, 0x12340868});
    if (oam) ExpectTrace(VESK_DATABASE, 226, {2, 0x1234, 0x42, 2, 0x00420878});
}

INSTANTIATE_TEST_SUITE_P(Oam, WorkedKeys, ::testing::Bool());

TEST_F(RemoveAll, RefusesHandleZeroAndStopsWithoutAnIfhEntry) {
    Punt(0x567);
    EXPECT_EQ(dpa_pmdb_remove_all_entries(0, PMDB_EV_INTF_REMOVE, 0x567, 0, 5), PMDB_EINVAL);
    EXPECT_EQ(CountTraces(VESK_ERROR, 210), 0u);
    EXPECT_EQ(dpa_pmdb_remove_all_entries(kIfh, PMDB_EV_INTF_REMOVE, 0x567, 0, 5),
              TABRA_E_NOTFOUND);
    ExpectTrace(VESK_ERROR, 210, {kIfh, TABRA_E_NOTFOUND});
    EXPECT_EQ(Keys(PMDB_TYPE_PUNT), std::set<u32>{0x567});
}

// Event type 12 inside the in-LIF pool bank [100, 200] (and type 21) has no
// IFH entry: only the ingress LIF's entries go, and the system port key is
// then 0 (result 22).  The maximum is asked only when the minimum allows.
struct BankCase {
    u8 type;
    u16 ingress_lif;
    bool inside;
    std::vector<std::string> asked;
};
const std::string kMin = "halvo_grid_get_inlif_res_pool_bank_25_min";
const std::string kMax = "halvo_grid_get_inlif_res_pool_bank_25_max";
const BankCase kBankCases[] = {{12, 99, false, {kMin}},       {12, 100, true, {kMin, kMax}},
                               {12, 200, true, {kMin, kMax}}, {12, 201, false, {kMin, kMax}},
                               {21, 150, true, {}}};

class PoolBank : public RemoveAll, public ::testing::WithParamInterface<BankCase> {};

TEST_P(PoolBank, DecidesWhetherThereIsAnIfhEntry) {
    const BankCase &c = GetParam();
    Set("inlif_bank25_min", 100);
    Set("inlif_bank25_max", 200);
    pmdb_intf_info_t in = Info(1, false);
    in.ifh = kIfh;
    in.ingress_lif = c.ingress_lif;
    card::PutIfh(kIfh, [&](pmdb_ifh_entry_t &e) { e.intf_info = in; });
    Punt(c.ingress_lif);
    pm_calllog_enable(1);
    pm_calllog_clear();
    const cerrno rc = dpa_pmdb_remove_all_entries(kIfh, c.type, c.ingress_lif, 0, 5);
    EXPECT_EQ(pmdb::test::CallNames("halvo_grid"), c.asked);
    EXPECT_EQ(Has(PMDB_TYPE_IFH, kIfh), c.inside);
    EXPECT_FALSE(Has(PMDB_TYPE_PUNT, c.ingress_lif));
    EXPECT_EQ(rc == PMDB_EINVAL, c.inside) << rc;
}

INSTANTIATE_TEST_SUITE_P(Bounds, PoolBank, ::testing::ValuesIn(kBankCases));

TEST_F(RemoveAll, BundlePathGivesZeroWhenEveryRemovalFailed) {
    Set("lcvm_redundancy", 1);
    pmdb_intf_info_t in = Worked(false);
    in.bundle_ifh = kBundle;
    card::PutIfh(kBundle, [&](pmdb_ifh_entry_t &e) { e.intf_info = in; });
    EXPECT_EQ(dpa_pmdb_remove_all_entries(kBundle, PMDB_EV_BUNDLE_REMOVE, 0x567, 1, 5), PMDB_OK);
    ExpectTrace(VESK_EVENT, 212, {kBundle, 0x567, TABRA_E_NOTFOUND, TABRA_E_NOTFOUND});
    ExpectTrace(VESK_DATABASE, 213, {2, 0x1234, 0x42, 2, 0x00420818});
    ExpectTrace(VESK_ERROR, 214, {0x00420818, TABRA_E_NOTFOUND});
    ExpectTrace(VESK_DATABASE, 272, {kBundle, 0x567, 0x99, 0});
    ExpectTrace(VESK_ERROR, 273, {0x0099001C, TABRA_E_NOTFOUND});
    EXPECT_TRUE(Keys(PMDB_TYPE_IFH).empty());
}

// The walk over a bundle's sub-interfaces: with the member flag it only
// looks the list up; a MAC reaches every sub-interface; a removal skips a
// zero in the middle of the list.
TEST_F(RemoveAll, SubInterfaceWalk) {
    pmdb_intf_info_t want[] = {PutBundleSub(5), PutBundleSub(9)};
    const Tables before = Snapshot();
    dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_MEMBER_LEAVE, 0x77, kBundle, 1, nullptr, 4);
    ExpectTrace(VESK_EVENT, 254, {7, kBundle, 0x77, 1024, 1});
    ExpectTrace(VESK_EVENT, 255, {7, kBundle, 0x77, 1024, 1});
    EXPECT_EQ(Diff(before, Snapshot()), "");
    const u8 mac[6] = {2, 4, 6, 8, 10, 12};
    dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_BUNDLE_MAC, 0, kBundle, 0, mac, 4);
    for (pmdb_intf_info_t &in : want) {  // nothing else changes
        memcpy(in.mac_addr, mac, sizeof mac);
        const pmdb_ifh_entry_t e = Ifh(in.sub_ifh);
        EXPECT_EQ(card::BytesOf(&e.intf_info, sizeof in), card::BytesOf(&in, sizeof in));
    }
    OverrideSubList({5, 0, 9});
    dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_MEMBER_LEAVE, 0, kBundle, 0, nullptr, 4);
    EXPECT_TRUE(Keys(PMDB_TYPE_IFH).empty());
    EXPECT_TRUE(Keys(PMDB_TYPE_PUNT).empty());
    for (const pmdb_intf_info_t &in : want) {
        ExpectTrace(VESK_EVENT, 252, {7, in.sub_ifh, 0});
        ExpectTrace(VESK_EVENT, 253, {in.sub_ifh, in.ingress_lif, 0, 0});
    }
    ExpectTrace(VESK_EVENT, 255, {7, kBundle, 0, 1024, 0});
}

// Walk size: the sysctl key's low 32 bits, else the platform's limit.  With
// no sub-interfaces the walk writes no closing trace.
TEST_F(RemoveAll, WalkSizeComesFromTheSysctlOrItsFallback) {
    Set("max_subintf_vlob", 7);
    for (auto [sysctl, count] : {std::pair<int64_t, u32>{0, 7}, {int64_t{1} << 32, 7}, {3, 3}}) {
        vorn_host_sysctl_set(PMDB_SYSCTL_MAX_BUNDLE_L3_VLAN, sysctl);
        MarkTraces();
        dpa_pmdb_bundle_sub_intf_oper(PMDB_EV_MEMBER_LEAVE, 0, kBundle, 1, nullptr, 4);
        ExpectTrace(VESK_EVENT, 254, {7, kBundle, 0, count, 1});
        EXPECT_EQ(CountTraces(VESK_EVENT, 255), 0u);
    }
}

TEST_F(RemoveAll, InterfaceOamEntryOfOamIdZeroIsKey28) {
    pmdb_intf_info_t in = Info(1, false);
    in.ifh = kIfh;
    in.oam_id = 0;
    memset(in.oam_slots, 0, sizeof in.oam_slots);
    card::PutIfh(kIfh, [&](pmdb_ifh_entry_t &e) { e.intf_info = in; });
    Oam(28);
    dpa_pmdb_remove_intf_oam_entry(kIfh);
    ExpectTrace(VESK_DATABASE, 274, {28});
    EXPECT_TRUE(Keys(PMDB_TYPE_OAM).empty());
    dpa_pmdb_remove_intf_oam_entry(0);
    ExpectTrace(VESK_ERROR, 270, {0});
}

}  // namespace
