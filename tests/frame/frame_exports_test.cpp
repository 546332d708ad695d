// The shared object exports exactly the library's external interfaces:
// every name it defines dynamically is one of them, and the frame's and the
// entry locks' are all there.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "pmdb_test.h"

namespace {

const std::set<std::string> kFrameAndLocks = {
    "dpa_pmdb_init",     "dpa_chk_pmdb_open", "dpa_chk_shrd_ctx_open", "dpa_pmdb_mprotect_tabra",
    "dpa_pmdb_hdl_get",  "pmdb_debug_flag",   "dnxpm_dbg_pmdb_types",  "pmdb_lock_init",
    "pmdb_entry_lock",   "pmdb_entry_unlock", "pmdb_lock_destroy"};

const std::set<std::string> kLaterFamilies = {
    "dpa_pmdb_oper",
    "dpa_pmdb_add_all_entries",
    "dpa_pmdb_remove_all_entries",
    "dpa_pmdb_update_ifh_entry_nodelist",
    "dpa_pmdb_update_ifh_entry_member",
    "dpa_pmdb_update_bundle_ifh_entry",
    "dpa_pmdb_add_oam_entry",
    "dpa_pmdb_remove_oam_entry",
    "dpa_pmdb_oam_oper",
    "dpa_pmdb_update_bundle_oor_state",
    "dpa_pmdb_set_bundle_oor_state",
    "dpa_pmdb_set_oor_cb",
    "dpa_pmdb_check_bundle_counts",
    "dpa_pmdb_repair_bundle_counts",
    "pm_port_inv_entry_get",
    "pm_port_inv_entry_add",
    "pm_port_inv_entry_remove",
    "pm_inventory_get_first_high_scale_nodeid",
    "pm_inventory_get_first_inv_nodeid",
    "dpa_pmdb_update_scale_info",
    "dpa_pmdb_update_glbls_inv_node_info",
    "dpa_pmdb_set_aib_update_cb",
    "dpa_pm_get_bvi_adj_cb",
    "dpa_bvi_upd_all_entries"};

std::set<std::string> AllInterfaces() {
    std::set<std::string> all = kFrameAndLocks;
    all.insert(kLaterFamilies.begin(), kLaterFamilies.end());
    return all;
}

// Names the shared object defines in its dynamic symbol table.
std::set<std::string> DynamicDefinitions() {
    const pmdb::test::ToolRun r =
        pmdb::test::RunTool("nm", {"-D", "--defined-only", PMDB_SHARED_OBJECT});
    EXPECT_EQ(r.status, 0) << r.err;
    std::set<std::string> names;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string addr, kind, name;
        if (in >> addr >> kind >> name) names.insert(name);
    }
    return names;
}

TEST(FrameExportsTest, SharedObjectExportsOnlyExternalInterfaces) {
    const std::set<std::string> exported = DynamicDefinitions();
    ASSERT_FALSE(exported.empty());
    const std::set<std::string> allowed = AllInterfaces();
    for (const std::string &name : exported) {
        EXPECT_TRUE(allowed.count(name)) << name << " is exported but is no external interface";
    }
    for (const std::string &name : kFrameAndLocks) {
        EXPECT_TRUE(exported.count(name)) << name << " is not exported";
    }
}

}  // namespace
