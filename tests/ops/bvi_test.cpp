// BVI adjacency refresh: the collection filter and its 100-handle bound, the
// rewrite of one entry, and the refresh that runs when a node leaves the
// inventory, as the AIB update callback and the entries show it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "pmdb.h"
#include "pmdb_reader.h"
#include "pmdb_ops.h"
#include "tabra.h"
#include "card.h"

namespace {

using namespace card;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

class BviTest : public CardTest {
protected:
    void TearDown() override {
        FailLookupOf(0, 0);
        CardTest::TearDown();
    }
};

const Mac kMac5 = {0x02, 0x55, 0x55, 0x55, 0x55, 0x05};
const Mac kMac6 = {0x02, 0x66, 0x66, 0x66, 0x66, 0x06};

// Node 6 in the inventory, listed after node 5 when `node5`, as port adds of
// type 1 put them there.
void AddNodes(bool node5) {
    SetNodeMac(5, kMac5);
    SetNodeMac(6, kMac6);
    if (node5) AddOk(0x500, PortEvent(PMDB_EV_INTF_ADD, 0x500, 5));
    AddOk(0x600, PortEvent(PMDB_EV_INTF_ADD, 0x600, 6));
    ASSERT_EQ(InventoryNodes(), (node5 ? std::vector<u32>{6, 5} : std::vector<u32>{6}));
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

TEST_F(BviTest, FilterCollectsBviEntriesOfTheLeavingNodeUpTo100) {
    u32 handles[PMDB_BVI_CTX_CAPACITY + 1] = {};
    handles[PMDB_BVI_CTX_CAPACITY] = 0xFEEDu;
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
    EXPECT_THAT(std::vector<u32>(handles, handles + 3), ElementsAre(0x61u, 0x65u, 0u));

    for (u32 i = 2; i < PMDB_BVI_CTX_CAPACITY; i++) {
        const pmdb_ifh_entry_t e = BviRecord(0x1000 + i, 6, 0x1000 + i, PMDB_INTF_TYPE_BVI);
        ASSERT_EQ(dpa_pm_get_bvi_adj_cb(nullptr, &e, nullptr, &ctx), 22);
    }
    EXPECT_EQ(ctx.count, 100u);
    EXPECT_EQ(handles[99], 0x1000u + 99);
    /* Once full, nothing is examined: neither a match nor a non-match. */
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

    AddNodes(true);
    MarkTraces();
    EXPECT_EQ(dpa_bvi_upd_all_entries(0x70, &status), 0u);

    EXPECT_EQ(status, 0u);
    pmdb_ifh_entry_t want = before; /* event_id and time too */
    want.intf_info.node_id = 6;
    memcpy(want.intf_info.node_mac, kMac6.data(), 6);
    EXPECT_TRUE(EntryBytes(PMDB_TYPE_IFH, 0x70) == BytesOf(&want, sizeof want));
    ExpectTrace(VESK_DATABASE, 102,
                {0x70, before.intf_info.egress_lif, before.intf_info.ingress_lif});
}

// ---- the refresh when a node leaves ------------------------------------------------

// Node 6 leaves the inventory (listed alone, or after node 5) with BVIs on
// node 6 and on node 5, a rewrite that fails its lookup or none, with the
// AIB update callback registered or not.  The collected BVIs (at most 100,
// in walk order) move to node 5 when it is listed, except the failed one;
// the callback gets every collected handle, status 0, unless the last
// rewrite failed (then trace 106 tells the count, callback and status).
struct RefreshCase {
    const char *name;
    bool node5; /* listed before node 6 */
    u32 on6, on5;
    int failing = -1; /* collection index of the failing rewrite */
    bool callback = true;
};

class BviRefresh : public BviTest, public ::testing::WithParamInterface<RefreshCase> {};

TEST_P(BviRefresh, CollectedEntriesMoveToTheNewHeadAndTheCallbackIsTold) {
    const RefreshCase &c = GetParam();
    if (c.callback) RecordAibCalls();
    AddNodes(c.node5);
    const std::vector<u32> on6 = AddBvis(0x6000, c.on6, 6), on5 = AddBvis(0x5000, c.on5, 5);
    const std::vector<u32> order = CollectionOrder(6);
    ASSERT_EQ(order.size(), std::min<size_t>(c.on6, PMDB_BVI_CTX_CAPACITY));
    if (c.failing >= 0) FailLookupOf(order.at(c.failing), TABRA_E_CORRUPT);
    MarkTraces();

    EXPECT_EQ(pm_port_inv_entry_remove(6), 0u);

    const bool last_failed = c.failing >= 0 && size_t(c.failing) + 1 == order.size();
    const bool told = c.callback && !order.empty() && !last_failed;
    ASSERT_EQ(AibCalls().size(), told ? 1u : 0u);
    if (told) {
        EXPECT_THAT(AibCalls()[0].handles, ElementsAreArray(order));
        EXPECT_THAT(AibCalls()[0].status, ElementsAreArray(std::vector<u32>(order.size(), 0)));
        ExpectNoTrace(VESK_ERROR, 106);
    } else {
        const uint64_t cb = c.callback ? reinterpret_cast<uint64_t>(&AibRecorder) : 0;
        ExpectTrace(VESK_ERROR, 106, {order.size(), cb, last_failed ? TABRA_E_CORRUPT : 0u});
    }
    size_t moved = 0;
    for (u32 h : on6) {
        const auto at = std::find(order.begin(), order.end(), h);
        const bool moves = c.node5 && at != order.end() && at - order.begin() != c.failing;
        moved += moves;
        EXPECT_EQ(Ifh(h).intf_info.node_id, moves ? 5u : 6u) << std::hex << h;
        if (moves) {
            EXPECT_EQ(MacOf(Ifh(h).intf_info.node_mac), kMac5) << std::hex << h;
        }
    }
    EXPECT_EQ(CountTraces(VESK_DATABASE, 102), moved);
    if (c.failing >= 0) {
        ExpectTrace(VESK_ERROR, 101, {order[c.failing], TABRA_E_CORRUPT});
    }
    for (u32 h : on5) EXPECT_EQ(Ifh(h).intf_info.node_id, 5u);
    EXPECT_EQ(Ifh(0x600).intf_info.node_id, 6u); /* not a BVI */
}

const RefreshCase kRefreshCases[] = {
    {"ToNode5", true, 3, 2},
    {"LastNodeKeepsThemAndStillCallsBack", false, 2, 0},
    {"NoBvisOnTheNode", true, 0, 2},
    {"NoBvisAndNoCallback", true, 0, 2, -1, false},
    {"AHundredOfAHundredAndOne", true, 101, 0},
    {"FailedLastRewriteSuppressesTheCallback", true, 3, 0, 2},
    {"FailedEarlierRewriteStillCallsBack", true, 3, 0, 0},
};
INSTANTIATE_TEST_SUITE_P(Cases, BviRefresh, ::testing::ValuesIn(kRefreshCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(BviTest, RefreshWithoutATableTracesTheWalkFailure) {
    RecordAibCalls();
    pm_port_inv_entry_add(6, 1, 0, 0);
    MarkTraces();
    pm_port_inv_entry_remove(6);
    ExpectTrace(VESK_ERROR, 105, {PMDB_ENOTFOUND});
    EXPECT_TRUE(AibCalls().empty());
}

}  // namespace
