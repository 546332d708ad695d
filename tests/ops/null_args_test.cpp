// A null pointer where an exported call needs one, or key 0, is refused
// before anything changes: with the call's own status and trace where it has
// one for that argument, else with 22 and no trace; no platform call is made (nothing is
// opened), the entries, the IFH globals and the caller's objects stay
// byte-identical, no slot lock stays held and write access is as before.
// Each row runs in a child of its own, so that a crash fails that row only.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "host/pm_fault.h"
#include "card.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_ops.h"

namespace {

using namespace card;

constexpr u32 kBundle = 0xB300, kMember = 0x1400, kBvi = 0x4400, kNode = 9, kOamKey = 0x0042001C;
constexpr u32 kUnset = 0xEEEEEEEE;
constexpr cerrno kNoResult = 0xFFFFFFFF; /* a call that returns nothing */

/* The caller's objects that the calls are handed besides the null pointer. */
struct Args {
    u32 outs[4] = {kUnset, kUnset, kUnset, kUnset};
    int slot = -1;
    u8 mac[6] = {1, 2, 3, 4, 5, 6};
    pmdb_event_t event = MemberEvent(PMDB_EV_MEMBER_JOIN, 3, kMember, kBundle);
    pmdb_event_t oam = OamEvent(1, 7, 0, 0x11); /* of key 0 */
    pmdb_punt_info_t punt = {};
    dpa_pmdb_ifh_summary_t summary = {};
    pmdb_ifh_entry_t bvi = {}; /* an entry the BVI filter collects */
    u32 handles[PMDB_BVI_CTX_CAPACITY] = {};
    dpa_pm_bvi_adj_ctx_t ctx = {};
    dpa_pm_bvi_adj_ctx_t no_array = {}; /* a context without a handle array */
};

void Prepare(Args *a) {
    a->bvi.key = kBvi;
    a->bvi.intf_info.ifh = kBvi;
    a->bvi.intf_info.node_id = kNode;
    a->bvi.intf_info.intf_type = PMDB_INTF_TYPE_BVI;
    a->ctx.first_word = PMDB_BVI_CTX_FIRST_WORD;
    a->ctx.capacity = PMDB_BVI_CTX_CAPACITY;
    a->ctx.node_id = kNode;
    a->no_array = a->ctx;
    a->ctx.handles = a->handles;
}

struct Row {
    const char *call; /* the call and its null argument */
    std::function<cerrno()> run;
    cerrno status;
    u32 trace = 0; /* error trace of the refusal; 0: no trace at all */
    std::vector<uint64_t> args = {};
    u32 also = 0;             /* a second error trace (without its arguments) */
    const char *calls = "";   /* prefix of the platform calls it must not make */
};

/* Everything a refused call must leave as it was, byte for byte. */
struct Card {
    Bytes member, bundle, glbls, args;
    i32 writers;
};

Card Snapshot(const dnx_db_hdl_t *h, const Args &a) {
    return {EntryBytes(PMDB_TYPE_IFH, kMember), EntryBytes(PMDB_TYPE_IFH, kBundle),
            BytesOf(&h->shrd_ctx->glbls, sizeof h->shrd_ctx->glbls), BytesOf(&a, sizeof a),
            pmdb_frame_wr_refcnt(PMDB_TYPE_IFH)};
}

size_t TraceCount(const TraceMark &mark) {
    size_t n = 0;
    for (vesk_kind_t kind : {VESK_ERROR, VESK_DATABASE, VESK_EVENT})
        n += pmdb::test::TracesSince(mark, kind).size();
    return n;
}

bool SlotLockHeld(u32 key) {
    pmdb_lock_view_t view;
    pmdb_lock_inspect(SlotLock(PMDB_TYPE_IFH, key), &view);
    return view.held != 0;
}

/* In the row's child: a listed high-scale node (so that the inventory
 * queries and the BVI rewrite reach their outputs), the call, the checks. */
void ExpectRefused(const Row &row, const dnx_db_hdl_t *h, const Args &a) {
    ASSERT_NE(pm_port_inv_entry_add(kNode, 1, 0, 1), nullptr);
    const Card before = Snapshot(h, a);
    const TraceMark mark = TraceMark::Now();
    pm_calllog_clear();
    pm_calllog_enable(1);
    const cerrno rc = row.run();
    pm_calllog_enable(0);
    EXPECT_EQ(rc, row.status);
    EXPECT_EQ(CallNames(row.calls), std::vector<std::string>{});
    EXPECT_EQ(TraceCount(mark), (row.trace == 0 ? 0u : 1u) + (row.also == 0 ? 0u : 1u));
    if (row.trace != 0) {
        EXPECT_TRUE(pmdb::test::TraceWritten(mark, VESK_ERROR, row.trace, row.args));
    }
    if (row.also != 0) {
        EXPECT_EQ(pmdb::test::FindTraces(mark, VESK_ERROR, row.also).size(), 1u);
    }
    const Card after = Snapshot(h, a);
    EXPECT_TRUE(after.member == before.member) << "the member entry changed";
    EXPECT_TRUE(after.bundle == before.bundle) << "the bundle entry changed";
    EXPECT_TRUE(after.glbls == before.glbls) << "the IFH globals changed";
    EXPECT_TRUE(after.args == before.args) << "the caller's objects changed";
    EXPECT_EQ(after.writers, before.writers);
    EXPECT_FALSE(SlotLockHeld(kMember));
    EXPECT_FALSE(SlotLockHeld(kBundle));
}

/* A bundle and its member at level 0: the entries every row starts from (a
 * row that failed may have changed them, or died holding their locks). */
void PutCard() {
    PutBundle(kBundle);
    PutPort(kMember);
    PutIfh(kMember, [](pmdb_ifh_entry_t &e) { e.intf_info.bundle_ifh = kBundle; });
}

class NullArguments : public CardTest {};

TEST_F(NullArguments, EveryExportedCallRefusesNullPointersAndKeyZeroAndChangesNothing) {
    PutCard();
    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_IFH, 0), PMDB_OK);
    Args a;
    Prepare(&a);
    /* The member's level 0 -> 2 would move the bundle's counters and
     * report through every out-parameter. */
    const auto oor = [&a](int null_at) {
        u32 *o[4] = {&a.outs[0], &a.outs[1], &a.outs[2], &a.outs[3]};
        o[null_at] = nullptr;
        return dpa_pmdb_update_bundle_oor_state(kMember, 2, 7, o[0], o[1], o[2], o[3]);
    };
    const std::vector<Row> rows = {
        {"pmdb_lock_init(lock)", [] { return pmdb_lock_init(nullptr), kNoResult; }, kNoResult},
        {"pmdb_entry_lock(lock)", [] { return pmdb_entry_lock(nullptr); }, PMDB_EINVAL},
        {"pmdb_entry_unlock(lock)", [] { return pmdb_entry_unlock(nullptr); }, PMDB_EINVAL},
        {"pmdb_lock_destroy(lock)", [] { return pmdb_lock_destroy(nullptr); }, PMDB_EINVAL},
        {"dpa_chk_pmdb_open(out)",
         [] { return dpa_chk_pmdb_open(nullptr, nullptr, PMDB_TYPE_IFH, 1); }, PMDB_EINVAL},
        {"dpa_chk_shrd_ctx_open(out)",
         [] { return dpa_chk_shrd_ctx_open(nullptr, nullptr, PMDB_TYPE_IFH); }, PMDB_EINVAL},
        {"dpa_pmdb_mprotect_tabra(hdl)",
         [h] { return dpa_pmdb_mprotect_tabra(h->tabra, nullptr, PMDB_TYPE_IFH); }, PMDB_EINVAL},
        {"dpa_pmdb_mprotect_tabra(table)",
         [h] { return dpa_pmdb_mprotect_tabra(nullptr, h, PMDB_TYPE_IFH); }, PMDB_EINVAL},
        {"dpa_pmdb_update_ifh_entry_member(event)",
         [&a] { return dpa_pmdb_update_ifh_entry_member(nullptr, &a.summary, nullptr); },
         PMDB_EINVAL, 234},
        {"dpa_pmdb_update_ifh_entry_member(summary)",
         [&a] { return dpa_pmdb_update_ifh_entry_member(&a.event, nullptr, nullptr); }, PMDB_EINVAL,
         234},
        {"dpa_pmdb_update_bundle_ifh_entry(summary)",
         [] { return dpa_pmdb_update_bundle_ifh_entry(kBundle, 1, 0, nullptr, nullptr, 3); },
         PMDB_EINVAL, 228},
        {"dpa_pmdb_add_oam_entry(event)",
         [&a] { return dpa_pmdb_add_oam_entry(kOamKey, nullptr, &a.slot); },
         PMDB_EINVAL,
         154,
         {kOamKey, 0}},
        {"dpa_pmdb_oam_oper(event)", [] { return dpa_pmdb_oam_oper(nullptr), kNoResult; },
         kNoResult, 290},
        {"dpa_pmdb_update_bundle_oor_state(bundle_ifh_out)", [&] { return oor(0); }, PMDB_EINVAL},
        {"dpa_pmdb_update_bundle_oor_state(bundle_state_out)", [&] { return oor(1); }, PMDB_EINVAL},
        {"dpa_pmdb_update_bundle_oor_state(changed_out)", [&] { return oor(2); }, PMDB_EINVAL},
        {"dpa_pmdb_update_bundle_oor_state(bundle_slot_out)", [&] { return oor(3); }, PMDB_EINVAL},
        {"dpa_pmdb_set_bundle_oor_state(slot_out)",
         [] { return dpa_pmdb_set_bundle_oor_state(kBundle, 1, 7, nullptr); }, PMDB_EINVAL},
        {"pm_inventory_get_first_high_scale_nodeid(node_id)",
         [] { return pm_inventory_get_first_high_scale_nodeid(nullptr); }, PMDB_EINVAL},
        {"pm_inventory_get_first_inv_nodeid(node_id)",
         [&a] { return pm_inventory_get_first_inv_nodeid(nullptr, a.mac); }, PMDB_EINVAL},
        {"pm_inventory_get_first_inv_nodeid(mac)",
         [&a] { return pm_inventory_get_first_inv_nodeid(&a.outs[0], nullptr); }, PMDB_EINVAL},
        {"dpa_pmdb_update_glbls_inv_node_info(mac)",
         [] { return dpa_pmdb_update_glbls_inv_node_info(kNode, nullptr, 1, nullptr); },
         PMDB_EINVAL},
        {"dpa_pm_get_bvi_adj_cb(entry)",
         [&a] { return cerrno(dpa_pm_get_bvi_adj_cb(nullptr, nullptr, nullptr, &a.ctx)); },
         PMDB_EINVAL},
        {"dpa_pm_get_bvi_adj_cb(ctx)",
         [&a] { return cerrno(dpa_pm_get_bvi_adj_cb(nullptr, &a.bvi, nullptr, nullptr)); },
         PMDB_EINVAL},
        {"dpa_pm_get_bvi_adj_cb(ctx->handles)",
         [&a] { return cerrno(dpa_pm_get_bvi_adj_cb(nullptr, &a.bvi, nullptr, &a.no_array)); },
         PMDB_EINVAL},
        {"dpa_bvi_upd_all_entries(status)",
         [] { return dpa_bvi_upd_all_entries(kMember, nullptr); }, PMDB_EINVAL},
        {"dpa_pmdb_add_ifh_entry(0)",
         [&a] {
             return dpa_pmdb_add_ifh_entry(0, &a.event, &a.slot, &a.summary, &a.punt, &a.summary,
                                           0);
         },
         PMDB_EINVAL, 143},
        {"dpa_pmdb_update_sub_intf_count(0)", [] { return dpa_pmdb_update_sub_intf_count(0, 1, 1); },
         PMDB_EINVAL, 129},
        {"dpa_pmdb_remove_ifh_entry(0)",
         [&a] { return dpa_pmdb_remove_ifh_entry(0, &a.summary, 1); }, PMDB_EINVAL, 161, {}, 0,
         "tabra_"}, /* the bundle member registry is mapped first */
        {"dpa_pmdb_get_ifh_summary(0)", [&a] { return dpa_pmdb_get_ifh_summary(0, &a.summary); },
         PMDB_EINVAL},
        {"dpa_pmdb_add_punt_entry(0)",
         [&a] { return dpa_pmdb_add_punt_entry(0, &a.event, &a.slot, nullptr); }, PMDB_EINVAL,
         134},
        {"dpa_pmdb_add_punt_entry(event)",
         [&a] { return dpa_pmdb_add_punt_entry(kOamKey, nullptr, &a.slot, nullptr); }, PMDB_OK, 135,
         {kOamKey, 0}},
        {"dpa_pmdb_remove_punt_entry(0)", [] { return dpa_pmdb_remove_punt_entry(0); }, PMDB_EINVAL,
         172},
        {"dpa_pmdb_add_oam_entry(0)", [&a] { return dpa_pmdb_add_oam_entry(0, &a.event, &a.slot); },
         PMDB_EINVAL, 153},
        {"dpa_pmdb_oam_oper(key 0)", [&a] { return dpa_pmdb_oam_oper(&a.oam), kNoResult; },
         kNoResult, 291, {0, PMDB_EINVAL}, 153},
        {"dpa_pmdb_remove_oam_entry(0)", [] { return dpa_pmdb_remove_oam_entry(0); }, PMDB_EINVAL,
         167},
        {"dpa_pmdb_update_bundle_ifh_entry(0)",
         [&a] { return dpa_pmdb_update_bundle_ifh_entry(0, 1, 0, &a.summary, nullptr, 1); },
         PMDB_EINVAL, 228},
        {"dpa_bvi_upd_all_entries(0)", [&a] { return dpa_bvi_upd_all_entries(0, &a.outs[0]); },
         PMDB_EINVAL, 99},
    };
    /* Every row runs before any is judged: a child inherits the failures its
     * parent has recorded so far, and would report them as its own. */
    std::vector<pmdb::test::ChildResult> results;
    for (const Row &row : rows) {
        PutCard();
        results.push_back(RunInChild([&] { ExpectRefused(row, h, a); }));
    }
    for (size_t i = 0; i < rows.size(); i++)
        EXPECT_TRUE(results[i].ExitedWith(0))
            << rows[i].call << " with a null pointer: " << results[i].Describe();
}

}  // namespace
