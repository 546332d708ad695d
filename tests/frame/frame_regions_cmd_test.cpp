// pmdbctl regions reports what the regions hold, read from another process
// without disturbing any lock: initialised, held, dead-owner and destroyed
// entry locks, the magic and the globals block.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>
#include <string>

#include "pmdb.h"
#include "pmdb_test.h"

namespace {

using pmdb::test::PmdbTest;

class FrameRegionsCommandTest : public PmdbTest {
protected:
    nlohmann::json RunRegions() {
        const pmdb::test::ToolRun r =
            pmdb::test::RunTool(PMDBCTL, {"--ns", ns(), "regions", "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        return nlohmann::json::parse(r.out, nullptr, false);
    }
};

TEST_F(FrameRegionsCommandTest, CountsLockStatesAndShowsTheGlobals) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    pellin_mutex_type *locks = hdl->shrd_ctx->entry_lock;
    for (int slot : {10, 11, 12, 13}) pmdb_lock_init(&locks[slot]);
    hdl->shrd_ctx->glbls.inv_node_id = 7;
    hdl->shrd_ctx->glbls.inv_node_mac[5] = 0x42;

    auto alive = pmdb::test::StartHeldChild([&] { pmdb_entry_lock(&locks[11]); });
    ASSERT_TRUE(alive->WaitReady());
    auto dead = pmdb::test::StartHeldChild([&] { pmdb_entry_lock(&locks[12]); });
    ASSERT_TRUE(dead->WaitReady());
    dead->Kill(SIGKILL);
    ASSERT_TRUE(dead->Wait().KilledBy(SIGKILL));
    ASSERT_EQ(pmdb_lock_destroy(&locks[13]), 0u);

    const nlohmann::json out = RunRegions();
    ASSERT_FALSE(out.is_discarded());
    EXPECT_EQ(out["namespace"], ns());
    ASSERT_EQ(out["regions"].size(), 3u);
    const nlohmann::json &ifh = out["regions"][0];
    EXPECT_EQ(ifh["object"], "dnx_pmdb_ifh_shrd");
    EXPECT_EQ(ifh["magic"], "0xc0dec0de");
    EXPECT_EQ(ifh["object_size"], 2625536);
    EXPECT_EQ(ifh["globals"]["inv_node_id"], 7);
    EXPECT_EQ(ifh["globals"]["inv_node_mac"], "00:00:00:00:00:42");
    const nlohmann::json &l = ifh["entry_locks"];
    EXPECT_EQ(l["initialised"], 3);  // 13 was destroyed
    EXPECT_EQ(l["held"], 1);
    EXPECT_EQ(l["dead_owner"], 1);
    EXPECT_EQ(l["destroyed"], 1);
    ASSERT_EQ(l["holders"].size(), 1u);
    EXPECT_EQ(l["holders"][0]["slot"], 11);
    EXPECT_EQ(l["holders"][0]["tid"], alive->pid());
    EXPECT_FALSE(out["regions"][1]["present"].get<bool>());

    // Reading took nothing: the live holder still holds, the dead owner's
    // lock is still waiting for its recovery.
    EXPECT_EQ(pmdb_entry_lock(&locks[12]), 0u);
    ExpectTrace(VESK_DATABASE, 69, {});
    EXPECT_EQ(pmdb_lock_destroy(&locks[11]), PMDB_EBUSY);
}

}  // namespace
