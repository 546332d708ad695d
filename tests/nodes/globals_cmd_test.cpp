// pmdbctl globals: the IFH region's node values as the operator sees them,
// read by a process of its own after the library wrote them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <algorithm>
#include <string>

#include "pmdb.h"
#include "card.h"

namespace {

using namespace card;
using ::testing::HasSubstr;

class GlobalsCmdTest : public CardTest {
protected:
    struct Output {
        int status = -1;
        std::string text; /* standard output, then standard error */
    };
    /* pmdbctl globals in this test's namespace. */
    Output Globals(const char *flags = "") {
        const pmdb::test::ToolRun r = pmdb::test::RunTool(
            PMDBCTL_PATH, pmdb::test::Words("--ns " + ns() + " globals " + flags));
        return {r.status, r.out + r.err};
    }
};

TEST_F(GlobalsCmdTest, ShowsTheHighScaleAndInventoryNodes) {
    const uint8_t mac4[6] = {0x02, 0x44, 0x00, 0x00, 0xab, 0x04};
    ASSERT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    ASSERT_EQ(dpa_pmdb_update_scale_info(6, 34, 1, 1, nullptr), 0u);
    ASSERT_EQ(dpa_pmdb_update_glbls_inv_node_info(4, mac4, 1, nullptr), 0u);

    const Output js = Globals("--json");
    ASSERT_EQ(js.status, 0) << js.text;
    const nlohmann::json j = nlohmann::json::parse(js.text);
    EXPECT_EQ(j["initialised"], true);
    EXPECT_EQ(j["hs_node_mask"], "0x00000006");
    EXPECT_EQ(j["hs_node_indices"], nlohmann::json::array({1, 2}));
    EXPECT_EQ(j["hs_node_id"], 6);
    EXPECT_EQ(j["inv_node_id"], 4);
    EXPECT_EQ(j["inv_node_recorded"], true);
    EXPECT_EQ(j["inv_node_mac"], "02:44:00:00:ab:04");
    EXPECT_EQ(j["namespace"], ns());

    const Output text = Globals();
    ASSERT_EQ(text.status, 0) << text.text;
    EXPECT_THAT(text.text, HasSubstr("hs_node_mask  0x00000006  indices: 1 2\n"));
    EXPECT_THAT(text.text, HasSubstr("hs_node_id    6\n"));
    EXPECT_THAT(text.text, HasSubstr("inv_node_id   4\n"));
    EXPECT_THAT(text.text, HasSubstr("inv_node_mac  02:44:00:00:ab:04\n"));
}

TEST_F(GlobalsCmdTest, MissingFreshAndUninitialisedRegions) {
    const Output absent = Globals("--json");
    EXPECT_EQ(absent.status, 1);
    EXPECT_THAT(absent.text, HasSubstr("pmdbctl: no IFH region in namespace '" + ns() + "'"));
    EXPECT_EQ(std::count(absent.text.begin(), absent.text.end(), '\n'), 1);

    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    const Output fresh = Globals();
    ASSERT_EQ(fresh.status, 0) << fresh.text;
    EXPECT_THAT(fresh.text, HasSubstr("indices: none\n"));
    EXPECT_THAT(fresh.text, HasSubstr("inv_node_id   0  (none recorded)\n"));

    h->shrd_ctx->magic = 0; /* as left by a creator that died before initialising */
    const Output bare = Globals();
    EXPECT_EQ(bare.status, 1);
    EXPECT_THAT(bare.text, HasSubstr("has no magic"));
    h->shrd_ctx->magic = PMDB_SHRD_CTX_MAGIC;
}

}  // namespace
