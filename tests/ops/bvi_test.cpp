// BVI adjacency refresh: the collection filter and its 100-handle bound, the
// rewrite of one entry, and the refresh that runs when a node leaves the
// inventory, as the AIB update callback and other processes see it.
//
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "pmdb.h"
#include "pmdb_reader.h"
#include "pmdb_ops.h"
#include "tabra.h"
#include "card.h"

namespace {

using namespace card;
using ::testing::ElementsAreArray;
using ::testing::UnorderedElementsAreArray;

class BviTest : public CardTest {
protected:
    void TearDown() override {
        FailLookupOf(0, 0);
        CardTest::TearDown();
    }
};

const Mac kMac5 = {0x02, 0x55, 0x55, 0x55, 0x55, 0x05};
const Mac kMac6 = {0x02, 0x66, 0x66, 0x66, 0x66, 0x06};

// Nodes 5 and then 6 in the inventory, as port adds of type 1 put them there.
void AddNodes5And6() {
    SetNodeMac(5, kMac5);
    SetNodeMac(6, kMac6);
    AddOk(0x500, PortEvent(PMDB_EV_INTF_ADD, 0x500, 5));
    AddOk(0x600, PortEvent(PMDB_EV_INTF_ADD, 0x600, 6));
    ASSERT_THAT(InventoryNodes(), ::testing::ElementsAre(6u, 5u));
}

std::vector<u32> AddBvis(u32 first, u32 count, u32 node) {
    std::vector<u32> handles;
    for (u32 h = first; h < first + count; h++) {
        AddOk(h, BviEvent(h, node));
        handles.push_back(h);
    }
    return handles;
}

pmdb_ifh_entry_t BviRecord(u32 key, u32 node, u32 block_ifh, u16 type) {
    pmdb_ifh_entry_t e{};
    e.key = key;
    e.intf_info.ifh = block_ifh;
    e.intf_info.node_id = node;
    e.intf_info.intf_type = type;
    return e;
}

dpa_pm_bvi_adj_ctx_t Context(u32 node, u32 *handles) {
    dpa_pm_bvi_adj_ctx_t ctx{};
    ctx.first_word = PMDB_BVI_CTX_FIRST_WORD;
    ctx.capacity = PMDB_BVI_CTX_CAPACITY;
    ctx.handles = handles;
    ctx.node_id = node;
    return ctx;
}

// The BVI handles of `node` in the order the refresh collects them.
std::vector<u32> CollectionOrder(u32 node) {
    u32 handles[PMDB_BVI_CTX_CAPACITY] = {};
    dpa_pm_bvi_adj_ctx_t ctx = Context(node, handles);
    EXPECT_EQ(dpa_pmdb_iterate(dpa_pm_get_bvi_adj_cb, &ctx, &ctx, 0), 0u);
    return std::vector<u32>(handles, handles + ctx.count);
}

// ---- the filter ----------------------------------------------------------------

TEST_F(BviTest, FilterCollectsOnlyBviEntriesOfTheLeavingNode) {
    u32 handles[PMDB_BVI_CTX_CAPACITY] = {};
    dpa_pm_bvi_adj_ctx_t ctx = Context(6, handles);
    const pmdb_ifh_entry_t entries[] = {
        BviRecord(0x61, 6, 0x61, PMDB_INTF_TYPE_BVI), /* collected */
        BviRecord(0x62, 5, 0x62, PMDB_INTF_TYPE_BVI), /* other node */
        BviRecord(0x63, 6, 0, PMDB_INTF_TYPE_BVI),    /* block ifh 0 */
        BviRecord(0x64, 6, 0x64, 1),                  /* not a BVI */
        BviRecord(0x65, 6, 0x99, PMDB_INTF_TYPE_BVI), /* collected by its key */
    };
    for (const pmdb_ifh_entry_t &e : entries)
        EXPECT_EQ(dpa_pm_get_bvi_adj_cb(nullptr, &e, nullptr, &ctx), 22) << e.key;
    EXPECT_EQ(ctx.count, 2u);
    EXPECT_EQ(handles[0], 0x61u);
    EXPECT_EQ(handles[1], 0x65u);
    EXPECT_EQ(handles[2], 0u);
}

TEST_F(BviTest, FilterTakesExactly100AndNeverWritesPastTheArray) {
    u32 handles[PMDB_BVI_CTX_CAPACITY + 1] = {};
    handles[PMDB_BVI_CTX_CAPACITY] = 0xFEEDu;
    dpa_pm_bvi_adj_ctx_t ctx = Context(6, handles);
    for (u32 i = 0; i < PMDB_BVI_CTX_CAPACITY; i++) {
        const pmdb_ifh_entry_t e = BviRecord(0x1000 + i, 6, 0x1000 + i, PMDB_INTF_TYPE_BVI);
        ASSERT_EQ(dpa_pm_get_bvi_adj_cb(nullptr, &e, nullptr, &ctx), 22);
    }
    EXPECT_EQ(ctx.count, 100u);
    EXPECT_EQ(handles[99], 0x1000u + 99);

    const pmdb_ifh_entry_t extra = BviRecord(0x2000, 6, 0x2000, PMDB_INTF_TYPE_BVI);
    EXPECT_EQ(dpa_pm_get_bvi_adj_cb(nullptr, &extra, nullptr, &ctx), 17);
    const pmdb_ifh_entry_t other = BviRecord(0x2001, 5, 0x2001, 1);
    EXPECT_EQ(dpa_pm_get_bvi_adj_cb(nullptr, &other, nullptr, &ctx), 17);
    EXPECT_EQ(ctx.count, 100u);
    EXPECT_EQ(handles[PMDB_BVI_CTX_CAPACITY], 0xFEEDu);
}

// ---- one rewrite ----------------------------------------------------------------

TEST_F(BviTest, RewriteMovesTheEntryToTheHeadNodeWithoutRestampingIt) {
    AddOk(0x70, BviEvent(0x70, 9));
    const pmdb_ifh_entry_t before = Ifh(0x70);
    u32 status = 77;
    /* An empty inventory: nothing changes. */
    EXPECT_EQ(dpa_bvi_upd_all_entries(0x70, &status), 0u);
    EXPECT_EQ(status, 77u);
    EXPECT_TRUE(EntryBytes(PMDB_TYPE_IFH, 0x70) == BytesOf(&before, sizeof before));
    ExpectNoTrace(VESK_DATABASE, 102);

    AddNodes5And6();
    MarkTraces();
    EXPECT_EQ(dpa_bvi_upd_all_entries(0x70, &status), 0u);

    EXPECT_EQ(status, 0u);
    pmdb_ifh_entry_t after = Ifh(0x70);
    EXPECT_EQ(after.intf_info.node_id, 6u);
    EXPECT_EQ(MacOf(after.intf_info.node_mac), kMac6);
    after.intf_info.node_id = before.intf_info.node_id;
    memcpy(after.intf_info.node_mac, before.intf_info.node_mac, 6);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0); /* event_id, time too */
    ExpectTrace(VESK_DATABASE, 102,
                {0x70, before.intf_info.egress_lif, before.intf_info.ingress_lif});
}

// ---- the refresh when a node leaves ------------------------------------------------

TEST_F(BviTest, LeavingNodeMovesItsBvisToTheNewHeadAsAnotherProcessSees) {
    RecordAibCalls();
    AddNodes5And6();
    const std::vector<u32> on6 = AddBvis(0x6000, 3, 6);
    AddBvis(0x5000, 2, 5);
    pmdb_event_t port6 = PortEvent(PMDB_EV_INTF_ADD, 0x6100, 6); /* not a BVI */
    port6.intf_info.node_id = 6;
    AddOk(0x6100, port6);

    /* The observer is a process of its own that was running all along. */
    pmdb::test::ChildProcess observer([&](pmdb::test::ChildLink &link) {
        link.Ready();
        if (!link.WaitRelease()) return 3;
        uint8_t buf[312];
        for (u32 h : on6) {
            EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(h, buf, 0, 0), 0u);
            const auto *info = reinterpret_cast<const pmdb_intf_info_t *>(buf);
            EXPECT_EQ(info->node_id, 5u) << h;
            EXPECT_EQ(MacOf(info->node_mac), kMac5) << h;
        }
        EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0x6100, buf, 0, 0), 0u);
        EXPECT_EQ(reinterpret_cast<const pmdb_intf_info_t *>(buf)->node_id, 6u);
        return 0;
    });
    ASSERT_TRUE(observer.WaitReady());
    MarkTraces();

    EXPECT_EQ(pm_port_inv_entry_remove(6), 0u);
    observer.Release();

    ASSERT_EQ(AibCalls().size(), 1u);
    EXPECT_THAT(AibCalls()[0].handles, UnorderedElementsAreArray(on6));
    EXPECT_THAT(AibCalls()[0].status, ElementsAreArray(std::vector<u32>(3, 0)));
    EXPECT_EQ(CountTraces(VESK_DATABASE, 102), 3u);
    ExpectNoTrace(VESK_ERROR, 106);
    for (u32 h : {0x5000u, 0x5001u}) EXPECT_EQ(Ifh(h).intf_info.node_id, 5u);
    const pmdb::test::ChildResult r = observer.Wait();
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(BviTest, LastNodeLeavingKeepsTheEntriesAndStillCallsBack) {
    RecordAibCalls();
    SetNodeMac(6, kMac6);
    AddOk(0x600, PortEvent(PMDB_EV_INTF_ADD, 0x600, 6));
    const std::vector<u32> on6 = AddBvis(0x6000, 2, 6);

    pm_port_inv_entry_remove(6);

    ASSERT_EQ(AibCalls().size(), 1u);
    EXPECT_THAT(AibCalls()[0].handles, UnorderedElementsAreArray(on6));
    EXPECT_THAT(AibCalls()[0].status, ElementsAreArray(std::vector<u32>(2, 0)));
    for (u32 h : on6) EXPECT_EQ(Ifh(h).intf_info.node_id, 6u);
}

TEST_F(BviTest, NodeWithoutBvisIsReportedByTrace106Only) {
    RecordAibCalls();
    AddNodes5And6();
    AddBvis(0x5000, 2, 5);
    MarkTraces();

    pm_port_inv_entry_remove(6);

    EXPECT_TRUE(AibCalls().empty());
    ExpectTrace(VESK_ERROR, 106, {0, reinterpret_cast<uint64_t>(&AibRecorder), 0});

    /* Without a callback the trace carries 0 for it. */
    dpa_pmdb_set_aib_update_cb(nullptr);
    pm_port_inv_entry_add(7, 3, 0, 0);
    MarkTraces();
    pm_port_inv_entry_remove(7);
    ExpectTrace(VESK_ERROR, 106, {0, 0, 0});
}

TEST_F(BviTest, AHundredMatchesAreAllMovedAndAHundredAndFirstIsLeft) {
    RecordAibCalls();
    AddNodes5And6();
    const std::vector<u32> all = AddBvis(0x6000, 101, 6);

    pm_port_inv_entry_remove(6);

    ASSERT_EQ(AibCalls().size(), 1u);
    const std::vector<u32> &moved = AibCalls()[0].handles;
    ASSERT_EQ(moved.size(), 100u);
    size_t on5 = 0;
    for (u32 h : all) on5 += Ifh(h).intf_info.node_id == 5u ? 1 : 0;
    EXPECT_EQ(on5, 100u);
    for (u32 h : moved) EXPECT_EQ(Ifh(h).intf_info.node_id, 5u) << h;
}

// Three BVIs on node 6 (of nodes 5 and 6); the rewrite of the one collected
// at `failing` will fail its lookup.  Returns them in collection order.
std::vector<u32> ThreeBvisWithFailingRewrite(size_t failing) {
    AddNodes5And6();
    AddBvis(0x6000, 3, 6);
    const std::vector<u32> order = CollectionOrder(6);
    EXPECT_EQ(order.size(), 3u);
    FailLookupOf(order.at(failing), TABRA_E_CORRUPT);
    return order;
}

TEST_F(BviTest, FailedLastRewriteSuppressesTheCallback) {
    RecordAibCalls();
    const std::vector<u32> order = ThreeBvisWithFailingRewrite(2);
    MarkTraces();

    pm_port_inv_entry_remove(6);

    EXPECT_TRUE(AibCalls().empty());
    EXPECT_EQ(Ifh(order[0]).intf_info.node_id, 5u);
    EXPECT_EQ(Ifh(order[1]).intf_info.node_id, 5u);
    EXPECT_EQ(Ifh(order[2]).intf_info.node_id, 6u);
    ExpectTrace(VESK_ERROR, 101, {order[2], TABRA_E_CORRUPT});
    ExpectTrace(VESK_ERROR, 106,
                {3, reinterpret_cast<uint64_t>(&AibRecorder), TABRA_E_CORRUPT});
}

TEST_F(BviTest, FailedEarlierRewriteDoesNotStopTheCallback) {
    RecordAibCalls();
    const std::vector<u32> order = ThreeBvisWithFailingRewrite(0);

    pm_port_inv_entry_remove(6);

    ASSERT_EQ(AibCalls().size(), 1u);
    EXPECT_THAT(AibCalls()[0].handles, ElementsAreArray(order));
    /* The failed handle's status was never set by a successful rewrite. */
    EXPECT_THAT(AibCalls()[0].status, ElementsAreArray(std::vector<u32>(3, 0)));
    EXPECT_EQ(Ifh(order[0]).intf_info.node_id, 6u);
}

TEST_F(BviTest, RefreshWithoutATableTracesTheWalkFailure) {
    RecordAibCalls();
    pm_port_inv_entry_add(6, 1, 0, 0);
    MarkTraces();
    pm_port_inv_entry_remove(6);
    ExpectTrace(VESK_ERROR, 105, {PMDB_ENOTFOUND});
    EXPECT_TRUE(AibCalls().empty());
}

}  // namespace
