// Node values of the IFH region: the high-scale mask and node with the
// hand-over of the role, and the recorded inventory node with both forms of
// its operation.  Other processes read them in place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "host/pm_fault.h"
#include "pmdb.h"
#include "card.h"

namespace {

using namespace card;
using pmdb::test::CallNames;

class ScaleTest : public CardTest {};

// The high-scale mask and node of the IFH region.
std::pair<u32, u32> HighScale() {
    const dnx_pmdb_glbls_t g = Globals();
    return {g.hs_node_mask, g.hs_node_id};
}

TEST_F(ScaleTest, AddingANodeThatIsNotHighScaleOpensNothingAndIndicesWrap) {
    pm_calllog_enable(1);
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 0, 1, nullptr), 0u);
    EXPECT_EQ(CallNames("tabra_").size(), 0u);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_IFH), nullptr);
    ExpectTrace(VESK_EVENT, 112, {});
    ExpectNoTrace(VESK_EVENT, 114);

    /* The IFH region, once it exists, has no node values. */
    EXPECT_EQ(HighScale(), std::make_pair(0u, 0u));

    /* Node indices wrap modulo 32. */
    EXPECT_EQ(dpa_pmdb_update_scale_info(12, 35, 1, 1, nullptr), 0u);
    EXPECT_EQ(HighScale(), std::make_pair(1u << 3, 12u));
    ExpectTrace(VESK_EVENT, 114, {12, 8});
    EXPECT_EQ(dpa_pmdb_update_scale_info(13, 31, 1, 1, nullptr), 0u);
    EXPECT_EQ(HighScale(), std::make_pair((1u << 3) | (1u << 31), 13u));
}

TEST_F(ScaleTest, HighScaleRoleIsHandedToTheNextListedNodeUntilNoneIsLeft) {
    pm_port_inv_entry_add(5, 1, 0, 1);
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    pm_port_inv_entry_add(6, 2, 0, 1);
    EXPECT_EQ(dpa_pmdb_update_scale_info(6, 2, 1, 1, nullptr), 0u);
    EXPECT_EQ(HighScale(), std::make_pair(6u, 6u));

    /* Node 6 leaves the list, then its role goes to node 5. */
    pm_port_inv_entry_remove(6);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_scale_info(6, 2, 1, 0, nullptr), 0u);
    EXPECT_EQ(HighScale(), std::make_pair(2u, 5u));
    ExpectTrace(VESK_EVENT, 107, {5});
    ExpectTrace(VESK_EVENT, 117, {5, 2});

    /* Node 5 leaves too: nobody takes the role, the id stays. */
    pm_port_inv_entry_remove(5);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 0, nullptr), 2u);
    EXPECT_EQ(HighScale(), std::make_pair(0u, 5u));
    ExpectTrace(VESK_EVENT, 116, {});
    ExpectNoTrace(VESK_EVENT, 117);
}

TEST_F(ScaleTest, RemovingANodeThatIsNotCurrentClearsOnlyItsBit) {
    ASSERT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    ASSERT_EQ(dpa_pmdb_update_scale_info(6, 2, 1, 1, nullptr), 0u);
    MarkTraces();

    /* The removal clears the bit whatever the scale flag says. */
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 0, 0, nullptr), 0u);

    EXPECT_EQ(HighScale(), std::make_pair(4u, 6u));
    ExpectTrace(VESK_EVENT, 115, {});
    ExpectNoTrace(VESK_EVENT, 107);
}

TEST_F(ScaleTest, FailedOpenIsTracedAndReturned) {
    pm_fault_set("tabra_init", 0xA6F01404, 1);
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0xA6F01404u);
    ExpectTrace(VESK_ERROR, 113, {0xA6F01404});

    pm_fault_set("tabra_init", 0xA6F01405, 1);
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(5, mac, 1, nullptr), 0xA6F01405u);
    ExpectTrace(VESK_ERROR, 118, {0xA6F01405});
}

TEST_F(ScaleTest, FirstInventoryNodeStaysRecorded) {
    const uint8_t mac4[6] = {0x02, 0x44, 0x44, 0x44, 0x44, 0x04};
    const uint8_t mac9[6] = {0x02, 0x99, 0x99, 0x99, 0x99, 0x09};
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(4, mac4, 1, nullptr), 0u);
    ExpectTrace(VESK_EVENT, 120, {4, 0x02, 0x44, 0x44, 0x44, 0x44, 0x04});
    ASSERT_EQ(CountTraces(VESK_EVENT, 119), 1u);
    const dnx_db_hdl_t *h = dpa_pmdb_hdl_get(PMDB_TYPE_IFH);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(FindTraces(mark(), VESK_EVENT, 119)[0].args[1],
              reinterpret_cast<uint64_t>(h->shrd_ctx->glbls.inv_node_mac));

    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(9, mac9, 1, nullptr), 0u);
    ExpectNoTrace(VESK_EVENT, 119);
    EXPECT_EQ(Globals().inv_node_id, 4u);
    EXPECT_EQ(MacOf(Globals().inv_node_mac), MacOf(mac4));
}

TEST_F(ScaleTest, WithTheCallersHandleNoOpenOrReleaseIsMade) {
    /* A handle that counts no writer: an operation that opened and released
     * on its own would switch the table store's protection twice. */
    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_IFH, 0), 0u);
    pm_calllog_clear();
    pm_calllog_enable(1);
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};

    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(4, mac, 1, h), 0u);
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(9, mac, 1, h), 0u);
    EXPECT_EQ(dpa_pmdb_update_scale_info(9, 2, 1, 1, h), 0u);
    EXPECT_EQ(dpa_pmdb_update_scale_info(9, 2, 1, 0, h), 2u);

    EXPECT_EQ(CallNames("tabra_make_shm").size(), 0u);
    EXPECT_EQ(Globals().inv_node_id, 4u);

    /* Without a handle the same call takes and drops write access. */
    pm_calllog_clear();
    EXPECT_EQ(dpa_pmdb_update_scale_info(9, 2, 1, 1, nullptr), 0u);
    EXPECT_EQ(CallNames("tabra_make_shm_writable").size(), 1u);
    EXPECT_EQ(CallNames("tabra_make_shm_readonly_protected").size(), 1u);

    /* A failed release replaces the result; the value was written before. */
    pm_fault_set("tabra_make_shm_readonly_protected", 0xA6F01407, 1);
    EXPECT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0xA6F01407u);
    EXPECT_EQ(Globals().hs_node_id, 5u);
}

// Remove form (add 0): acts only while no node is recorded.
TEST_F(ScaleTest, RemoveFormRecordsTheFirstListedNodeOnlyWhenNoneIsRecorded) {
    /* Without a listed node: 2, nothing recorded. */
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(0, nullptr, 0, nullptr), 2u);
    ExpectTrace(VESK_EVENT, 122, {});
    EXPECT_EQ(Globals().inv_node_id, 0u);

    /* Naming a node only clears a MAC without a node (left by a writer
     * that did not finish). */
    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    memset(h->shrd_ctx->glbls.inv_node_mac, 0xAB, 6);
    const Mac mac7 = {0x02, 7, 7, 7, 7, 7};
    SetNodeMac(7, mac7);
    pm_port_inv_entry_add(0, 0, 0, 0);
    pm_port_inv_entry_add(7, 1, 0, 0);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(9, nullptr, 0, nullptr), 0u);
    dnx_pmdb_glbls_t g = Globals();
    EXPECT_EQ(g.inv_node_id, 0u);
    EXPECT_EQ(MacOf(g.inv_node_mac), (Mac{}));
    ExpectTrace(VESK_EVENT, 121, {});
    ExpectNoTrace(VESK_EVENT, 123);

    /* Without a node: the first listed one that is not 0. */
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(0, nullptr, 0, nullptr), 0u);
    g = Globals();
    EXPECT_EQ(g.inv_node_id, 7u);
    EXPECT_EQ(MacOf(g.inv_node_mac), mac7);
    ExpectTrace(VESK_EVENT, 124, {7, 0x02, 7, 7, 7, 7, 7});
    EXPECT_EQ(CountTraces(VESK_EVENT, 123), 1u);
    ExpectNoTrace(VESK_EVENT, 119);

    /* A recorded node is left alone by either form of the removal. */
    pm_port_inv_entry_add(8, 2, 0, 0);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(7, mac7.data(), 0, nullptr), 0u);
    EXPECT_EQ(dpa_pmdb_update_glbls_inv_node_info(0, nullptr, 0, nullptr), 0u);
    const dnx_pmdb_glbls_t after = Globals();
    EXPECT_EQ(memcmp(&after, &g, sizeof g), 0);
    EXPECT_TRUE(Traces(VESK_EVENT).empty());
}

}  // namespace
