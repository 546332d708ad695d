// pmdbctl globals: the IFH region's node values as the operator sees them,
// read by a process of its own after the library wrote them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "card.h"
#include "pmdb.h"

namespace {

using namespace card;
using json = nlohmann::json;

class GlobalsCmdTest : public CardTest {
  protected:
    // pmdbctl globals in this test's namespace.
    ToolRun Run(const std::vector<std::string> &flags) {
        std::vector<std::string> args = {"--ns", ns(), "globals"};
        args.insert(args.end(), flags.begin(), flags.end());
        return RunTool(PMDBCTL_PATH, args);
    }
};

TEST_F(GlobalsCmdTest, ShowsTheHighScaleAndInventoryNodes) {
    const uint8_t mac4[6] = {0x02, 0x44, 0x00, 0x00, 0xab, 0x04};
    ASSERT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    ASSERT_EQ(dpa_pmdb_update_scale_info(6, 34, 1, 1, nullptr), 0u);
    ASSERT_EQ(dpa_pmdb_update_glbls_inv_node_info(4, mac4, 1, nullptr), 0u);

    const ToolRun js = Run({"--json"});
    ASSERT_EQ(js.status, 0) << js.err;
    json want = json::parse(R"({"object": ")" PMDB_IFH_SHM_NAME R"(", "initialised": true,
        "hs_node_mask": "0x00000006", "hs_node_indices": [1, 2], "hs_node_id": 6,
        "inv_node_id": 4, "inv_node_recorded": true, "inv_node_mac": "02:44:00:00:ab:04"})");
    want["namespace"] = ns();
    EXPECT_EQ(json::parse(js.out), want);

    const ToolRun text = Run({});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "ifh region " PMDB_IFH_SHM_NAME " (namespace " + ns() +
                            ")\n"
                            "hs_node_mask  0x00000006  indices: 1 2\n"
                            "hs_node_id    6\n"
                            "inv_node_id   4\n"
                            "inv_node_mac  02:44:00:00:ab:04\n");
}

TEST_F(GlobalsCmdTest, MissingFreshAndUninitialisedRegions) {
    const ToolRun absent = Run({"--json"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "pmdbctl: no IFH region in namespace '" + ns() +
                              "' (no process has opened the IFH database)\n");

    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    const ToolRun fresh = Run({});
    ASSERT_EQ(fresh.status, 0) << fresh.err;
    EXPECT_NE(fresh.out.find("indices: none\n"), std::string::npos) << fresh.out;
    EXPECT_NE(fresh.out.find("inv_node_id   0  (none recorded)\n"), std::string::npos);

    h->shrd_ctx->magic = 0; /* as left by a creator that died before initialising */
    const ToolRun bare = Run({});
    EXPECT_EQ(bare.status, 1);
    EXPECT_EQ(bare.err, "pmdbctl: IFH region " PMDB_IFH_SHM_NAME
                        " has no magic (0x00000000): it is not initialised\n");
    h->shrd_ctx->magic = PMDB_SHRD_CTX_MAGIC;
}

}  // namespace
