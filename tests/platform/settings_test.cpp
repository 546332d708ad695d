// System properties and identity: defaults, environment, setters (which win),
// fault injection, and the settings enumeration.
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "halvo.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "platform_id.h"
#include "pmdb_test.h"
#include "vorn_os.h"

namespace {

class SettingsTest : public pmdb::test::PmdbTest {};

constexpr const char *kNodeIdProbe = "SETTINGS_TEST_NODE_ID_PROBE";

/* Runs at start-up of the re-executed program, after the host library's own
 * initialisation read PMDB_NODE_ID. */
const bool g_node_id_probe = [] {
    if (getenv(kNodeIdProbe) != nullptr) _exit(static_cast<int>(pmdb_node_id));
    return false;
}();

struct Seen {
    std::string value, env;
    pmdb_setting_source_t source;
};

std::map<std::string, Seen> AllSettings() {
    std::map<std::string, Seen> all;
    pmdb_host_settings_each(
        [](void *ctx, const pmdb_host_setting_t *s) {
            (*static_cast<std::map<std::string, Seen> *>(ctx))[s->name] = {s->value, s->env, s->source};
        },
        &all);
    return all;
}

/* Each property: its default, what its environment variable sets (an
 * invalid value keeps the default), and what the setter sets over it.  The
 * system properties (kept) read the environment once: a later change shows
 * only after halvo_host_reload_env.  An armed fault of the getter answers the
 * fault's value instead, as many times as armed. */
#define GETTER(fn) #fn, [] { return (int64_t)fn(); }
TEST_F(SettingsTest, PropertiesFromDefaultEnvironmentAndSetter) {
    const struct {
        const char *env, *value;
        const char *call; /* the getter, also the name of its fault */
        int64_t (*get)();
        void (*set)(); /* a setter over the environment, or null */
        int64_t by_default, by_env, by_setter;
        bool kept = true;
    } cases[] = {
        {"PMDB_MAX_ENTRIES", "1000", GETTER(halvo_config_get_port_mapper_max_entries),
         [] { EXPECT_EQ(halvo_host_set("max_entries", 20), 0); }, 65536, 1000, 20},
        {"PMDB_OAM_ENABLE", "0", GETTER(halvo_oam_get_oam_enable),
         [] { EXPECT_EQ(halvo_host_set("halvo.oam_enable", 1), 0); }, 1, 0, 1},
        {"PMDB_INLIF_BANK25_MIN", "0x100", GETTER(halvo_grid_get_inlif_res_pool_bank_25_min),
         nullptr, 1, 0x100, 0x100},
        {"PMDB_INLIF_BANK25_MAX", "0x1ff", GETTER(halvo_grid_get_inlif_res_pool_bank_25_max),
         nullptr, 0, 0x1ff, 0x1ff},
        {"PMDB_LCVM_REDUNDANCY", "junk", GETTER(halvo_config_get_lcvm_redundancy_on), nullptr, 0, 0,
         0},
        {"PMDB_NEED_EGRESS_PUNT", "1", GETTER(halvo_config_get_need_egress_punt_pm_entry), nullptr,
         0, 1, 1},
        {"PMDB_MAX_SUBINTF_VLOB", "12", GETTER(halvo_intf_get_max_subintf_vlob),
         [] { EXPECT_EQ(halvo_host_set("halvo_intf_get_max_subintf_vlob", 7), 0); }, 1024, 12, 7},
        {"PMDB_RP_PLUS_DATAPATH", "1", GETTER(platform_am_i_rp_plus_datapath),
         [] { platform_host_set_rp_plus_datapath(0); }, 0, 1, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.env);
        EXPECT_EQ(c.get(), c.by_default);
        setenv(c.env, c.value, 1);
        EXPECT_EQ(c.get(), c.kept ? c.by_default : c.by_env);
        halvo_host_reload_env();
        EXPECT_EQ(c.get(), c.by_env);
        if (c.set != nullptr) c.set();
    }
    for (const auto &c : cases) EXPECT_EQ(c.get(), c.by_setter) << c.env;
    EXPECT_EQ(halvo_host_set("no_such_property", 1), -1);
    halvo_host_reset();
    platform_host_reset();
    for (const auto &c : cases) {
        pm_fault_set(c.call, 0x5A, 1);
        EXPECT_EQ(c.get(), 0x5A) << c.env;
        EXPECT_EQ(c.get(), c.by_env) << c.env;
    }
}
#undef GETTER

/* The default is 02:<node, 4 bytes>:<unit>, locally administered unicast, six
 * bytes written; PMDB_NODE_MAC overrides per node (a bad value keeps the
 * default), the setter over it; a fault leaves the buffer alone. */
TEST_F(SettingsTest, MacsPerNodeAndUnit) {
    setenv("PMDB_NODE_MAC", "7=aa:bb:cc:dd:ee:ff,8=bad,9=00:11:22:33:44:55", 1);
    const uint8_t set[6] = {0x0a, 1, 2, 3, 4, 5};
    ASSERT_EQ(platform_host_set_node_mac(9, set), 0);
    const struct {
        uint32_t node, unit;
        std::array<uint8_t, 7> want;
    } cases[] = {
        {0x01020304, 5, {0x02, 0x01, 0x02, 0x03, 0x04, 0x05, 0xEE}},
        {0x01020304, 6, {0x02, 0x01, 0x02, 0x03, 0x04, 0x06, 0xEE}},
        {0x01020305, 5, {0x02, 0x01, 0x02, 0x03, 0x05, 0x05, 0xEE}},
        {7, 3, {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0xEE}},
        {8, 3, {0x02, 0, 0, 0, 8, 3, 0xEE}},
        {9, 0, {0x0a, 1, 2, 3, 4, 5, 0xEE}},
    };
    for (const auto &c : cases) {
        std::array<uint8_t, 7> m;
        m.fill(0xEE);
        ASSERT_EQ(platform_get_amba_mac(c.node, c.unit, m.data(), 0), 0u);
        EXPECT_EQ(m, c.want) << c.node << "/" << c.unit;
    }
    EXPECT_NE(platform_get_amba_mac(1, 0, nullptr, 0), 0u);
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
    const auto r = pmdb::test::RunInChild([] {
        setenv("PMDB_NODE_ID", "17", 1);
        setenv(kNodeIdProbe, "1", 1);
        execl("/proc/self/exe", "self", static_cast<char *>(nullptr));
        return 99;
    });
    EXPECT_TRUE(r.ExitedWith(17)) << r.Describe();
}

/* Every setting by name with its value and origin.  The sysctl store: 0
 * for a key never set, PMDB_SYSCTL read at each call (a bad value or a
 * prefix of a key is no value), the setter winning until reset. */
TEST_F(SettingsTest, EnumerationNamesValueAndOrigin) {
    constexpr const char *kVlan = "tarvo.qen.vorn.platform.max_bundle_l3_vlan";
    EXPECT_EQ(vorn_sysctl_get_int64(kVlan, 0), 0);
    setenv("PMDB_MAX_SUBINTF_VLOB", "12", 1);
    halvo_host_set("oam_enable", 0);
    vorn_host_sysctl_set(kVlan, 5);
    setenv("PMDB_SYSCTL", "x.y=4,tarvo.qen.vorn.platform.max_bundle_l3_vlan=0x40,c=bad", 1);
    setenv("PMDB_NODE_MAC", "9=00:11:22:33:44:55", 1);
    setenv("PMDB_SHM_GROUP", "1", 1);
    auto all = AllSettings();
    const struct {
        const char *name, *value;
        pmdb_setting_source_t source;
    } want[] = {
        {"sysctl.x.y", "4", PMDB_SETTING_ENV},
        {"sysctl.tarvo.qen.vorn.platform.max_bundle_l3_vlan", "5", PMDB_SETTING_SETTER},
        {"identity.node_mac.9", "00:11:22:33:44:55", PMDB_SETTING_ENV},
        {"halvo.max_entries", "65536", PMDB_SETTING_DEFAULT},
        {"halvo.max_subintf_vlob", "12", PMDB_SETTING_ENV},
        {"halvo.oam_enable", "0", PMDB_SETTING_SETTER},
        {"os.namespace", ns().c_str(), PMDB_SETTING_SETTER},
        {"os.shm_group", "1", PMDB_SETTING_ENV},
        {"trace.records", "4096", PMDB_SETTING_DEFAULT},
        {"identity.rp_plus_datapath", "0", PMDB_SETTING_DEFAULT},
    };
    for (const auto &w : want) {
        EXPECT_EQ(all[w.name].value, w.value) << w.name;
        EXPECT_EQ(all[w.name].source, w.source) << w.name;
    }
    EXPECT_EQ(all["halvo.max_entries"].env, "PMDB_MAX_ENTRIES");
    EXPECT_EQ(vorn_host_shm_group(), 1);
    EXPECT_EQ(all.count("identity.node_mac." + std::to_string(pmdb_node_id)), 1u);
    for (const auto &[key, want] :
         {std::pair{"x.y", 4}, {"x", 0}, {"c", 0}, {"no.such.key", 0}, {kVlan, 5}})
        EXPECT_EQ(vorn_sysctl_get_int64(key, 0), want) << key;
    vorn_host_sysctl_reset();
    EXPECT_EQ(vorn_sysctl_get_int64(kVlan, 0), 64);
}

}  // namespace
