// System properties and identity: defaults, environment, setters (which win),
// fault injection, and the settings enumeration.
#include <errno.h>
#include <unistd.h>

#include <cstring>

#include <map>
#include <string>

#include "halvo.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "host/vesk_reader.h"
#include "platform_id.h"
#include "pmdb_test.h"

namespace {

using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;

class SettingsTest : public PmdbTest {};

constexpr const char *kNodeIdProbe = "SETTINGS_TEST_NODE_ID_PROBE";

/* Runs at start-up of the re-executed program, after the host library's own
 * initialisation read PMDB_NODE_ID. */
const bool g_node_id_probe = [] {
    if (getenv(kNodeIdProbe) != nullptr) _exit(static_cast<int>(pmdb_node_id));
    return false;
}();

struct Seen {
    std::string value;
    std::string env;
    pmdb_setting_source_t source;
};

std::map<std::string, Seen> AllSettings() {
    std::map<std::string, Seen> all;
    pmdb_host_settings_each(
        [](void *ctx, const pmdb_host_setting_t *s) {
            (*static_cast<std::map<std::string, Seen> *>(ctx))[s->name] = {s->value, s->env,
                                                                           s->source};
        },
        &all);
    return all;
}

TEST_F(SettingsTest, SystemPropertyDefaults) {
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 65536u);
    EXPECT_EQ(halvo_config_get_lcvm_redundancy_on(), 0);
    EXPECT_EQ(halvo_config_get_need_egress_punt_pm_entry(), 0);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 1);
    EXPECT_EQ(halvo_grid_get_inlif_res_pool_bank_25_min(), 1u);
    EXPECT_EQ(halvo_grid_get_inlif_res_pool_bank_25_max(), 0u);
    EXPECT_EQ(halvo_intf_get_max_subintf_vlob(), 1024u);
}

TEST_F(SettingsTest, EnvironmentIsReadAtEveryCallAndSetterWins) {
    setenv("PMDB_MAX_ENTRIES", "1000", 1);
    setenv("PMDB_OAM_ENABLE", "0", 1);
    setenv("PMDB_INLIF_BANK25_MIN", "0x100", 1);
    setenv("PMDB_INLIF_BANK25_MAX", "0x1ff", 1);
    setenv("PMDB_LCVM_REDUNDANCY", "junk", 1);  // invalid: the default stays
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 1000u);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 0);
    EXPECT_EQ(halvo_grid_get_inlif_res_pool_bank_25_min(), 0x100u);
    EXPECT_EQ(halvo_grid_get_inlif_res_pool_bank_25_max(), 0x1ffu);
    EXPECT_EQ(halvo_config_get_lcvm_redundancy_on(), 0);

    EXPECT_EQ(halvo_host_set("max_entries", 20), 0);
    EXPECT_EQ(halvo_host_set("halvo.oam_enable", 1), 0);
    EXPECT_EQ(halvo_host_set("halvo_intf_get_max_subintf_vlob", 7), 0);
    EXPECT_EQ(halvo_host_set("no_such_property", 1), -1);
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 20u);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 1);
    EXPECT_EQ(halvo_intf_get_max_subintf_vlob(), 7u);

    halvo_host_reset();
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 1000u);
    EXPECT_EQ(halvo_intf_get_max_subintf_vlob(), 1024u);
}

TEST_F(SettingsTest, ChildStartedWithEnvironmentSeesIt) {
    const auto r = RunInChild([] {
        setenv("PMDB_NEED_EGRESS_PUNT", "1", 1);
        return halvo_config_get_need_egress_punt_pm_entry();
    });
    EXPECT_TRUE(r.ExitedWith(1)) << r.Describe();
    EXPECT_EQ(halvo_config_get_need_egress_punt_pm_entry(), 0);
}

TEST_F(SettingsTest, PropertyFaultReturnsInjectedValue) {
    pm_fault_set("halvo_oam_get_oam_enable", 0, 2);
    pm_fault_set("halvo_config_get_port_mapper_max_entries", 0xA6F01400, 1);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 0);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 0);
    EXPECT_EQ(halvo_oam_get_oam_enable(), 1);
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 0xA6F01400u);
    EXPECT_EQ(halvo_config_get_port_mapper_max_entries(), 65536u);
}

TEST_F(SettingsTest, RpPlusDatapathFromEnvironmentAndSetter) {
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 0);
    setenv("PMDB_RP_PLUS_DATAPATH", "1", 1);
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 1);
    platform_host_set_rp_plus_datapath(0);
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 0);
    platform_host_reset();
    EXPECT_EQ(platform_am_i_rp_plus_datapath(), 1);
}

TEST_F(SettingsTest, DefaultMacIsLocalUnicastAndDistinctPerNodeAndUnit) {
    uint8_t a[16] = {};
    uint8_t b[16] = {};
    ASSERT_EQ(platform_get_amba_mac(0x01020304, 5, a, 0), 0u);
    const uint8_t want[6] = {0x02, 0x01, 0x02, 0x03, 0x04, 0x05};
    EXPECT_EQ(memcmp(a, want, 6), 0);
    EXPECT_EQ(a[0] & 0x03, 0x02);  // locally administered, unicast
    EXPECT_EQ(a[6], 0);            // only six bytes are written
    ASSERT_EQ(platform_get_amba_mac(0x01020304, 5, b, 0), 0u);
    EXPECT_EQ(memcmp(a, b, 6), 0);
    ASSERT_EQ(platform_get_amba_mac(0x01020304, 6, b, 0), 0u);
    EXPECT_NE(memcmp(a, b, 6), 0);
    ASSERT_EQ(platform_get_amba_mac(0x01020305, 5, b, 0), 0u);
    EXPECT_NE(memcmp(a, b, 6), 0);
    EXPECT_NE(platform_get_amba_mac(1, 0, nullptr, 0), 0u);
}

TEST_F(SettingsTest, MacOverridesPerNode) {
    setenv("PMDB_NODE_MAC", "7=aa:bb:cc:dd:ee:ff,8=bad,9=00:11:22:33:44:55", 1);
    uint8_t m[6];
    ASSERT_EQ(platform_get_amba_mac(7, 3, m, 0), 0u);
    const uint8_t seven[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    EXPECT_EQ(memcmp(m, seven, 6), 0);
    ASSERT_EQ(platform_get_amba_mac(8, 3, m, 0), 0u);  // invalid entry: default
    EXPECT_EQ(m[0], 0x02);
    EXPECT_EQ(m[4], 8);

    const uint8_t set[6] = {0x0a, 1, 2, 3, 4, 5};
    ASSERT_EQ(platform_host_set_node_mac(7, set), 0);
    ASSERT_EQ(platform_get_amba_mac(7, 0, m, 0), 0u);
    EXPECT_EQ(memcmp(m, set, 6), 0);
}

TEST_F(SettingsTest, MacFaultLeavesBufferUnchanged) {
    uint8_t m[6] = {9, 9, 9, 9, 9, 9};
    pm_fault_set("platform_get_amba_mac", 5, 1);
    EXPECT_EQ(platform_get_amba_mac(1, 0, m, 0), 5u);
    EXPECT_EQ(m[0], 9);
}

TEST_F(SettingsTest, NodeIdComesFromEnvironmentAtLoad) {
    const uint32_t at_load = pmdb_node_id;
    platform_host_set_node_id(42);
    EXPECT_EQ(pmdb_node_id, 42u);
    EXPECT_EQ(AllSettings()["identity.node_id"].source, PMDB_SETTING_SETTER);
    platform_host_reset();
    EXPECT_EQ(pmdb_node_id, at_load);
    // A fresh process reads PMDB_NODE_ID when the library loads: this test
    // program, re-executed with the probe variable, exits with its node id.
    const auto r = RunInChild([] {
        setenv("PMDB_NODE_ID", "17", 1);
        setenv(kNodeIdProbe, "1", 1);
        execl("/proc/self/exe", "self", static_cast<char *>(nullptr));
        return 99;
    });
    EXPECT_TRUE(r.ExitedWith(17)) << r.Describe();
}

TEST_F(SettingsTest, EnumerationNamesValueAndOrigin) {
    setenv("PMDB_MAX_SUBINTF_VLOB", "12", 1);
    halvo_host_set("oam_enable", 0);
    vorn_host_sysctl_set("tarvo.qen.vorn.platform.max_bundle_l3_vlan", 5);
    setenv("PMDB_SYSCTL", "x.y=4,tarvo.qen.vorn.platform.max_bundle_l3_vlan=6", 1);
    setenv("PMDB_NODE_MAC", "9=00:11:22:33:44:55", 1);
    setenv("PMDB_SHM_GROUP", "1", 1);
    auto all = AllSettings();
    EXPECT_EQ(all["sysctl.x.y"].value, "4");
    EXPECT_EQ(all["sysctl.x.y"].source, PMDB_SETTING_ENV);
    EXPECT_EQ(all["sysctl.tarvo.qen.vorn.platform.max_bundle_l3_vlan"].source,
              PMDB_SETTING_SETTER);
    EXPECT_EQ(all["identity.node_mac.9"].value, "00:11:22:33:44:55");
    EXPECT_EQ(all["identity.node_mac.9"].source, PMDB_SETTING_ENV);
    EXPECT_EQ(all["halvo.max_entries"].value, "65536");
    EXPECT_EQ(all["halvo.max_entries"].source, PMDB_SETTING_DEFAULT);
    EXPECT_EQ(all["halvo.max_entries"].env, "PMDB_MAX_ENTRIES");
    EXPECT_EQ(all["halvo.max_subintf_vlob"].value, "12");
    EXPECT_EQ(all["halvo.max_subintf_vlob"].source, PMDB_SETTING_ENV);
    EXPECT_EQ(all["halvo.oam_enable"].value, "0");
    EXPECT_EQ(all["halvo.oam_enable"].source, PMDB_SETTING_SETTER);
    EXPECT_EQ(all["sysctl.tarvo.qen.vorn.platform.max_bundle_l3_vlan"].value, "5");
    EXPECT_EQ(all["os.namespace"].value, ns());
    EXPECT_EQ(all["os.namespace"].source, PMDB_SETTING_SETTER);
    EXPECT_EQ(all["os.shm_group"].value, "1");
    EXPECT_EQ(all["os.shm_group"].source, PMDB_SETTING_ENV);
    EXPECT_EQ(vorn_host_shm_group(), 1);
    EXPECT_EQ(all["trace.records"].value, "4096");
    EXPECT_EQ(all["identity.rp_plus_datapath"].value, "0");
    EXPECT_EQ(all.count("identity.node_mac." + std::to_string(pmdb_node_id)), 1u);
    EXPECT_STREQ(pmdb_setting_source_name(PMDB_SETTING_ENV), "environment");
}

}  // namespace
