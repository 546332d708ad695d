// The process-local port inventory list: order, uniqueness, MACs from the
// platform, the two queries and removal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "pmdb.h"
#include "card.h"

namespace {

using namespace card;
using ::testing::ElementsAre;

class InventoryTest : public CardTest {};

TEST_F(InventoryTest, NewestNodeIsAtTheHeadAndOnlyTheFirstAddTraces110) {
    ASSERT_NE(pm_port_inv_entry_add(5, 1, 0, 0), nullptr);
    ASSERT_NE(pm_port_inv_entry_add(6, 2, 0, 1), nullptr);
    ASSERT_NE(pm_port_inv_entry_add(7, -3, 0, 1), nullptr);

    EXPECT_THAT(InventoryNodes(), ElementsAre(7u, 6u, 5u));
    ExpectTrace(VESK_EVENT, 110, {5, 1, 0});
    ExpectTrace(VESK_EVENT, 111, {6, 2, 1});
    ExpectTrace(VESK_EVENT, 111, {7, static_cast<uint64_t>(int64_t{-3}), 1});
    EXPECT_EQ(CountTraces(VESK_EVENT, 110), 1u);
    EXPECT_EQ(CountTraces(VESK_EVENT, 111), 2u);
}

TEST_F(InventoryTest, EntryCarriesThePlatformMacOfItsNodeAndUnit) {
    const Mac mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    SetNodeMac(9, mac);
    const pm_port_inv_entry_t *e = pm_port_inv_entry_add(9, 4, 2, 1);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->node_id, 9u);
    EXPECT_EQ(e->node_index, 4);
    EXPECT_EQ(e->high_scale, 1u);
    EXPECT_EQ(MacOf(e->mac), mac);
    EXPECT_EQ(e->next, nullptr);
}

TEST_F(InventoryTest, ReAddingAKnownNodeRefreshesOnlyItsMacAndWritesNoTrace) {
    pm_port_inv_entry_add(5, 1, 0, 0);
    const pm_port_inv_entry_t *first = pm_port_inv_entry_add(6, 2, 0, 0);
    const Mac newer = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x06};
    SetNodeMac(6, newer);
    MarkTraces();

    const pm_port_inv_entry_t *again = pm_port_inv_entry_add(6, 30, 1, 1);

    EXPECT_EQ(again, first);
    EXPECT_EQ(again->node_index, 2);
    EXPECT_EQ(again->high_scale, 0u);
    EXPECT_EQ(MacOf(again->mac), newer);
    EXPECT_THAT(InventoryNodes(), ElementsAre(6u, 5u));
    EXPECT_TRUE(Traces(VESK_EVENT).empty());
}

TEST_F(InventoryTest, FirstHighScaleNodeIsTheNewestFlaggedOne) {
    pm_port_inv_entry_add(5, 1, 0, 0);
    pm_port_inv_entry_add(6, 2, 0, 1);
    pm_port_inv_entry_add(7, 3, 0, 1);
    MarkTraces();

    uint32_t id = 0;
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 0u);
    EXPECT_EQ(id, 7u);
    ExpectTrace(VESK_EVENT, 107, {7});

    pm_port_inv_entry_remove(7);
    EXPECT_EQ(pm_inventory_get_first_high_scale_nodeid(&id), 0u);
    EXPECT_EQ(id, 6u);
}

TEST_F(InventoryTest, FirstInventoryNodeSkipsNodeZeroAndReportsItsMac) {
    const Mac mac5 = {0x02, 0, 0, 0, 5, 0x50};
    SetNodeMac(5, mac5);
    pm_port_inv_entry_add(5, 1, 0, 0);
    ASSERT_NE(pm_port_inv_entry_add(0, 0, 0, 0), nullptr);
    EXPECT_THAT(InventoryNodes(), ElementsAre(0u, 5u));
    MarkTraces();

    uint32_t id = 0;
    uint8_t mac[6] = {};
    EXPECT_EQ(pm_inventory_get_first_inv_nodeid(&id, mac), 0u);
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(MacOf(mac), mac5);
    ExpectTrace(VESK_EVENT, 109, {5, 0x02, 0, 0, 0, 5, 0x50});
}

TEST_F(InventoryTest, QueriesOnAListWithoutAnswerReturn2AndLeaveTheOutputs) {
    uint32_t id = 77;
    uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
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
}

TEST_F(InventoryTest, RemovalUnlinksFromAnyPlaceAndUnknownNodesAreIgnored) {
    pm_port_inv_entry_add(5, 1, 0, 0);
    pm_port_inv_entry_add(6, 2, 0, 0);
    pm_port_inv_entry_add(7, 3, 0, 0);
    pm_port_inv_entry_add(8, 4, 0, 0);
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

    /* An emptied list starts over with trace 110. */
    MarkTraces();
    pm_port_inv_entry_add(9, 1, 0, 0);
    ExpectTrace(VESK_EVENT, 110, {9, 1, 0});
}

TEST_F(InventoryTest, RemovalDoesNotTouchTheNodeValuesOfTheRegion) {
    ASSERT_EQ(dpa_pmdb_update_scale_info(5, 1, 1, 1, nullptr), 0u);
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(dpa_pmdb_update_glbls_inv_node_info(5, mac, 1, nullptr), 0u);
    pm_port_inv_entry_add(5, 1, 0, 1);
    const dnx_pmdb_glbls_t before = Globals();

    pm_port_inv_entry_remove(5);

    const dnx_pmdb_glbls_t after = Globals();
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(after.hs_node_id, 5u);
    EXPECT_EQ(after.inv_node_id, 5u);
}

}  // namespace
