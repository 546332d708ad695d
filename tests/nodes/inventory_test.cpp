// The process-local port inventory list: order, uniqueness, MACs from the
// platform, the two queries and removal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "pmdb.h"
#include "card.h"

namespace {

using namespace card;
using ::testing::ElementsAre;

class InventoryTest : public CardTest {};

// An inventory entry's node, index, scale flag and MAC.
std::tuple<u32, i32, u8, Mac> Fields(const pm_port_inv_entry_t *e) {
    return {e->node_id, e->node_index, e->high_scale, MacOf(e->mac)};
}

TEST_F(InventoryTest, NewestNodeIsAtTheHeadAndAKnownNodeOnlyGetsItsNewMac) {
    const Mac mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    SetNodeMac(6, mac);
    ASSERT_NE(pm_port_inv_entry_add(5, 1, 0, 0), nullptr);
    const pm_port_inv_entry_t *six = pm_port_inv_entry_add(6, 2, 2, 1);
    ASSERT_NE(six, nullptr);
    EXPECT_EQ(Fields(six), std::make_tuple(6u, 2, u8{1}, mac));
    ASSERT_NE(pm_port_inv_entry_add(7, -3, 0, 1), nullptr);
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 6u, 5u));
    ExpectTrace(VESK_EVENT, 110, {5, 1, 0});
    ExpectTrace(VESK_EVENT, 111, {6, 2, 1});
    ExpectTrace(VESK_EVENT, 111, {7, static_cast<uint64_t>(int64_t{-3}), 1});
    EXPECT_EQ(CountTraces(VESK_EVENT, 110), 1u);
    EXPECT_EQ(CountTraces(VESK_EVENT, 111), 2u);

    const Mac newer = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x06};
    SetNodeMac(6, newer);
    MarkTraces();
    EXPECT_EQ(pm_port_inv_entry_add(6, 30, 1, 0), six);
    EXPECT_EQ(Fields(six), std::make_tuple(6u, 2, u8{1}, newer));
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 6u, 5u));
    EXPECT_TRUE(Traces(VESK_EVENT).empty());
}

TEST_F(InventoryTest, QueriesAnswerTheNewestHighScaleAndTheNewestNonzeroNode) {
    uint32_t id = 77;
    uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
    /* Without an answer: 2, the outputs left alone. */
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 2u);
    EXPECT_EQ(pm_inventory_get_first_inv_nodeid(&id, mac), 2u);
    pm_port_inv_entry_add(0, 0, 0, 0);
    pm_port_inv_entry_add(4, 0, 0, 0);
    pm_port_inv_entry_remove(4);
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 2u);
    EXPECT_EQ(pm_inventory_get_first_inv_nodeid(&id, mac), 2u);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(MacOf(mac), (Mac{9, 9, 9, 9, 9, 9}));
    ExpectNoTrace(VESK_EVENT, 107);
    ExpectNoTrace(VESK_EVENT, 109);

    const Mac mac5 = {0x02, 0, 0, 0, 5, 0x50};
    SetNodeMac(5, mac5);
    pm_port_inv_entry_add(5, 1, 0, 0);
    pm_port_inv_entry_add(6, 2, 0, 1);
    pm_port_inv_entry_add(7, 3, 0, 1);
    ASSERT_NE(pm_port_inv_entry_add(0, 0, 0, 0), nullptr); /* listed already */
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 6u, 5u, 0u));
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 0u);
    EXPECT_EQ(id, 7u);
    ExpectTrace(VESK_EVENT, 107, {7});
    pm_port_inv_entry_remove(7);
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 0u);
    EXPECT_EQ(id, 6u);
    pm_port_inv_entry_remove(6);
    pm_port_inv_entry_remove(0);
    pm_port_inv_entry_add(0, 0, 0, 0); /* node 0 at the head is skipped */
    EXPECT_EQ(pm_inventory_get_first_inv_nodeid(&id, mac), 0u);
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(MacOf(mac), mac5);
    ExpectTrace(VESK_EVENT, 109, {5, 0x02, 0, 0, 0, 5, 0x50});
}

TEST_F(InventoryTest, RemovalUnlinksFromAnyPlaceAndLeavesTheRegionAlone) {
    ASSERT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(dpa_pmdb_update_glbls_inv_node_info(5, mac, 1, nullptr), 0u);
    for (u32 node : {5u, 6u, 7u, 8u}) pm_port_inv_entry_add(node, node - 4, 0, 1);
    const dnx_pmdb_glbls_t before = Globals();
    MarkTraces();

    /* Not listed: nothing is called, not even the BVI refresh. */
    EXPECT_EQ(pm_port_inv_entry_remove(42), 0u);
    EXPECT_TRUE(Traces(VESK_ERROR).empty());
    EXPECT_THAT(InventoryNodes(), ElementsAre(8u, 7u, 6u, 5u));

    EXPECT_EQ(pm_port_inv_entry_remove(8), 0u); /* head: successor becomes head */
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 6u, 5u));
    EXPECT_EQ(pm_port_inv_entry_remove(6), 0u); /* middle */
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 5u));
    EXPECT_EQ(pm_port_inv_entry_remove(5), 0u); /* tail */
    EXPECT_THAT(InventoryNodes(), ElementsAre(7u));
    EXPECT_EQ(pm_port_inv_entry_remove(7), 0u);
    EXPECT_EQ(pm_port_inv_entry_get(), nullptr);
    const dnx_pmdb_glbls_t after = Globals();
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(after.hs_node_id, 5u);
    EXPECT_EQ(after.inv_node_id, 5u);

    /* An emptied list starts over with trace 110. */
    MarkTraces();
    pm_port_inv_entry_add(9, 1, 0, 0);
    ExpectTrace(VESK_EVENT, 110, {9, 1, 0});
}

}  // namespace
