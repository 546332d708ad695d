// Every single-entry operation against every failing step of its entry
// change cycle.  Rows are the operations (with the entry each fault hits),
// columns the faults: the open with write intent, the table store's add, its
// lookup of the row's key, the slot lock held by the caller's own thread,
// the table store's removal, and the release of write access.  A cell
// expects the fault's status (EDEADLK for the lock), the operation's own
// trace point with its arguments, write access given back, and every entry
// of the card byte-identical - except, when the release fails, the change
// already made, while what follows the release (a bundle's count) must not
// happen.  Each cell runs in a child of its own on a freshly written card.
//
// Besides, every exported call refuses a null pointer it needs, or key 0,
// before anything changes: with its own status and trace where it has one,
// else 22 and no trace; no platform call, no slot lock left held, write
// access, the entries, the IFH globals and the caller's objects as before.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "card.h"
#include "host/pm_fault.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kPort = 0x1100, kSub = 0x5100, kBvi = 0x4400;
constexpr u32 kBundle = 0xB100, kMember = 0x1200, kJoiner = 0x1300;
constexpr u32 kPuntKey = 0x40000123, kOamKey = 0xABCD001C;
constexpr cerrno kFault = TABRA_E_CORRUPT;

enum Column { kOpen, kAdd, kLookup, kLock, kRemove, kRelease, kColumns };
const char *const kColumnNames[] = {"open", "add", "lookup", "lock", "remove", "release"};

/* The arguments of a failure point besides its own step's status. */
enum Args { KeyStatus, KeyOnly, StatusOnly, KeySlotStatus };

/* An operation and the entry its faults hit.  Without an open of its own
 * (the entry is reached under another's) it has no release column either. */
struct Row {
    const char *op;
    pmdb_type_t type;
    u32 key;
    std::function<cerrno()> run;
    u32 point[kColumns - 1]; /* open, add, lookup, lock, remove; 0: no such step */
    Args open_args = KeyStatus;
    Args lock_args = KeyStatus;
    std::set<u32> changed_first = {}; /* IFH entries changed before the failing step */
    std::set<u32> after_release = {}; /* IFH entries only changed after the release */
    u32 ended = 0; /* database point of a removal that found its entry, failed or not */
};

/* The card every cell starts from: a port, a bundle with one counted member
 * at level 1, a port at level 2 about to join, a bundle sub-interface, a
 * BVI, a PUNT and an OAM entry. */
void PutCard() {
    PutPort(kPort);
    PutBundle(kBundle, 1, 0);
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) { e.member_count = 1; });
    PutMember(kMember, kBundle, 1);
    PutMember(kJoiner, 0, 2);
    PutIfh(kSub, [](pmdb_ifh_entry_t &e) {
        e.intf_info.sub_ifh = kSub;
        e.intf_info.bundle_ifh = kBundle;
    });
    const pmdb_event_t bvi = BviEvent(kBvi, 9);
    PutIfh(kBvi, [&](pmdb_ifh_entry_t &e) { e.intf_info = bvi.intf_info; });
    pmdb_punt_entry_t punt = {};
    punt.key = kPuntKey;
    punt.punt_info = {0x100, 0, 0, {1, 2, 3, 4, 5}};
    PutRecord(PMDB_TYPE_PUNT, kPuntKey, &punt);
    pmdb_oam_entry_t oam = {};
    oam.key = kOamKey;
    oam.oam_info.oam_ifh = kPort;
    PutRecord(PMDB_TYPE_OAM, kOamKey, &oam);
}

using Card = std::map<u32, Bytes>;

Card Snapshot() {
    Card c;
    for (u32 key : {kPort, kBundle, kMember, kJoiner, kSub, kBvi})
        c[key] = EntryBytes(PMDB_TYPE_IFH, key);
    c[kPuntKey] = EntryBytes(PMDB_TYPE_PUNT, kPuntKey);
    c[kOamKey] = EntryBytes(PMDB_TYPE_OAM, kOamKey);
    return c;
}

std::vector<uint64_t> TraceArgs(Args shape, const Row &row, cerrno status) {
    if (shape == KeyOnly) return {row.key};
    if (shape == StatusOnly) return {status};
    if (shape == KeySlotStatus) return {row.key, u32(SlotOf(row.type, row.key)), status};
    return {row.key, status};
}

/* In the cell's child: the fault, the operation, the checks. */
void RunCell(const Row &row, Column col) {
    const Card before = Snapshot();
    pellin_mutex_type *lock = SlotLock(row.type, row.key);
    const cerrno status = col == kLock ? static_cast<cerrno>(EDEADLK) : kFault;
    const Args shape = col == kOpen ? row.open_args : col == kLock ? row.lock_args : KeyStatus;
    const std::vector<uint64_t> args = TraceArgs(shape, row, status);
    const TraceMark mark = TraceMark::Now();
    const char *const faulted[] = {"tabra_make_shm_writable", "tabra_add_entry", nullptr, nullptr,
                                   "tabra_remove_entry", "tabra_make_shm_readonly_protected"};
    if (faulted[col] != nullptr) pm_fault_set(faulted[col], kFault, 1);
    if (col == kLookup) FailLookupOf(row.key, kFault);
    if (col == kLock) {
        ASSERT_EQ(pmdb_entry_lock(lock), 0u);
    }
    const cerrno rc = row.run();
    if (col == kLock) {
        ASSERT_EQ(pmdb_entry_unlock(lock), 0u);
    }
    FailLookupOf(0, 0);
    pm_fault_clear();

    EXPECT_EQ(rc, status);
    if (col != kRelease) {
        EXPECT_TRUE(TraceWritten(mark, VESK_ERROR, row.point[col], args));
    }
    if (row.ended != 0 && col != kRemove && col != kRelease) {
        EXPECT_TRUE(TraceNotWritten(mark, VESK_DATABASE, row.ended));
    } else if (row.ended != 0) {
        EXPECT_TRUE(TraceWritten(mark, VESK_DATABASE, row.ended, {row.key}));
    }
    /* A failed open counts its writer still (the frame's rule) and a failed
     * release leaves the table writable; every other cell gives write
     * access back. */
    EXPECT_EQ(pmdb_frame_wr_refcnt(row.type), col == kOpen ? 1 : 0);
    EXPECT_EQ(dpa_pmdb_hdl_get(row.type)->prot_state,
              col == kRelease ? PMDB_PROT_WRITABLE : PMDB_PROT_READONLY);
    const Card after = Snapshot();
    for (const auto &[key, bytes] : before) {
        const bool must_stay = col == kRelease ? row.after_release.count(key) != 0
                                               : row.changed_first.count(key) == 0;
        EXPECT_TRUE(!must_stay || after.at(key) == bytes) << "entry " << std::hex << key;
    }
}

/* Runs every check in a child of its own on a freshly put card, and only
 * then judges them: a child inherits the failures its parent has recorded
 * so far, and would report them as its own. */
void RunEachOnAFreshCard(const std::vector<std::pair<std::string, std::function<void()>>> &checks) {
    std::vector<ChildResult> results;
    for (const auto &check : checks) {
        PutCard();
        results.push_back(RunInChild(check.second));
    }
    for (size_t i = 0; i < checks.size(); i++)
        EXPECT_TRUE(results[i].ExitedWith(0)) << checks[i].first << ": " << results[i].Describe();
}

class CycleFailureTable : public CardTest {};

TEST_F(CycleFailureTable, EveryOperationAtEveryFailingStep) {
    dpa_pmdb_ifh_summary_t s = {}, prev = {};
    pmdb_punt_info_t punt = {};
    i32 slot = 0;
    u32 out[4] = {};
    const pmdb_event_t refresh = PortEvent(PMDB_EV_INTF_REFRESH, kPort);
    const pmdb_event_t port_punt = MemberEvent(1, 7, kPort);
    pmdb_event_t join = MemberEvent(PMDB_EV_MEMBER_JOIN, 8, kJoiner, kBundle, 0x0C05, 1);
    const auto oor = [&](u32 ifh) {
        return dpa_pmdb_update_bundle_oor_state(ifh, 2, 7, &out[0], &out[1], &out[2], &out[3]);
    };
    const std::vector<Row> rows = {
        {"IFH add", PMDB_TYPE_IFH, kPort,
         [&] { return dpa_pmdb_add_ifh_entry(kPort, &refresh, &slot, &s, &punt, &prev, 3); },
         {144, 145, 147, 148, 0}},
        {"sub-interface count", PMDB_TYPE_IFH, kPort,
         [] { return dpa_pmdb_update_sub_intf_count(kPort, 1, 9); }, {130, 0, 131, 133, 0}},
        {"IFH removal", PMDB_TYPE_IFH, kPort,
         [&] { return dpa_pmdb_remove_ifh_entry(kPort, &s, 9); }, {162, 0, 163, 0, 165}},
        {"IFH removal of a member", PMDB_TYPE_IFH, kMember,
         [&] { return dpa_pmdb_remove_ifh_entry(kMember, &s, 9); }, {162, 0, 163, 0, 0},
         KeyStatus, KeyStatus, {}, {kBundle}},
        {"IFH summary", PMDB_TYPE_IFH, kPort, [&] { return dpa_pmdb_get_ifh_summary(kPort, &s); },
         {263, 0, 264, 0, 0}},
        {"node list", PMDB_TYPE_IFH, kSub,
         [] { return dpa_pmdb_update_ifh_entry_nodelist(kSub, 1, 9, 3, nullptr); },
         {125, 0, 126, 128, 0}},
        {"PUNT add", PMDB_TYPE_PUNT, kPuntKey,
         [&] { return dpa_pmdb_add_punt_entry(kPuntKey, &port_punt, &slot, nullptr); },
         {136, 137, 139, 141, 0}, KeyStatus, KeySlotStatus},
        {"PUNT removal", PMDB_TYPE_PUNT, kPuntKey, [] { return dpa_pmdb_remove_punt_entry(kPuntKey); },
         {173, 0, 174, 0, 176}, KeyStatus, KeyStatus, {}, {}, 177},
        {"OAM add", PMDB_TYPE_OAM, kOamKey,
         [&] { return dpa_pmdb_add_oam_entry(kOamKey, &port_punt, &slot); },
         {155, 156, 158, 160, 0}},
        {"OAM removal", PMDB_TYPE_OAM, kOamKey, [] { return dpa_pmdb_remove_oam_entry(kOamKey); },
         {168, 0, 169, 0, 170}},
        {"member join", PMDB_TYPE_IFH, kJoiner,
         [&] { return dpa_pmdb_update_ifh_entry_member(&join, &s, nullptr); },
         {235, 0, 236, 238, 0}, KeyOnly, KeyStatus, {}, {kBundle}},
        {"member join, bundle accounting", PMDB_TYPE_IFH, kBundle,
         [&] {
             RecordOorCalls();
             return dpa_pmdb_update_ifh_entry_member(&join, &s, nullptr);
         },
         {0, 0, 313, 314, 0}, KeyStatus, KeyStatus, {kJoiner}},
        {"bundle count", PMDB_TYPE_IFH, kBundle,
         [&] { return dpa_pmdb_update_bundle_ifh_entry(kBundle, 1, 0, &s, nullptr, 9); },
         {229, 0, 230, 233, 0}},
        {"member out-of-resource state", PMDB_TYPE_IFH, kMember, [&] { return oor(kMember); },
         {295, 0, 296, 297, 0}, StatusOnly},
        {"member out-of-resource state, bundle side", PMDB_TYPE_IFH, kBundle,
         [&] { return oor(kMember); }, {0, 0, 301, 302, 0}, KeyStatus, KeyStatus, {kMember}},
        {"bundle out-of-resource state", PMDB_TYPE_IFH, kBundle,
         [&] { return dpa_pmdb_set_bundle_oor_state(kBundle, 1, 7, &out[0]); },
         {306, 0, 307, 308, 0}, StatusOnly},
        {"BVI rewrite", PMDB_TYPE_IFH, kBvi, [&] { return dpa_bvi_upd_all_entries(kBvi, &out[0]); },
         {100, 0, 101, 103, 0}},
    };
    std::vector<std::pair<std::string, std::function<void()>>> cells;
    for (const Row &row : rows) {
        for (int c = kOpen; c < kColumns; c++) {
            const Column col = static_cast<Column>(c);
            if (row.point[col == kRelease ? kOpen : col] == 0) continue;
            cells.emplace_back(std::string(row.op) + ", failing " + kColumnNames[col],
                               [&row, col] { RunCell(row, col); });
        }
    }
    RunEachOnAFreshCard(cells);
}

constexpr u32 kNode = 9, kUnset = 0xEEEEEEEE;
constexpr cerrno kNoResult = 0xFFFFFFFF; /* a call that returns nothing */

/* The caller's objects that the calls are handed besides the null pointer. */
struct Objects {
    u32 outs[4] = {kUnset, kUnset, kUnset, kUnset};
    int slot = -1;
    u8 mac[6] = {1, 2, 3, 4, 5, 6};
    pmdb_event_t event = MemberEvent(PMDB_EV_MEMBER_JOIN, 3, kJoiner, kBundle);
    pmdb_event_t oam = OamEvent(1, 7, 0, 0x11); /* of key 0 */
    pmdb_punt_info_t punt = {};
    dpa_pmdb_ifh_summary_t summary = {};
    pmdb_ifh_entry_t bvi = {}; /* an entry the BVI filter collects */
    u32 handles[PMDB_BVI_CTX_CAPACITY] = {};
    dpa_pm_bvi_adj_ctx_t ctx = {};
    dpa_pm_bvi_adj_ctx_t no_array = {}; /* a context without a handle array */
};

void Prepare(Objects *a) {
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

struct Refusal {
    const char *call; /* the call with its null pointer or key 0, as written */
    std::function<cerrno()> run;
    cerrno status;
    u32 trace = 0; /* error trace of the refusal; 0: no trace at all */
    std::vector<uint64_t> args = {};
    u32 also = 0; /* a second error trace (without its arguments) */
};
/* A row's call, named by its own text. */
#define CALL(call) #call, [&] { return cerrno(call); }
#define VOID_CALL(call) #call, [&] { return (call), kNoResult; }

/* Everything a refused call must leave as it was, byte for byte. */
struct Untouched {
    Card entries;
    Bytes glbls, args;
    i32 writers;
    bool operator==(const Untouched &) const = default;
};

Untouched Everything(const dnx_db_hdl_t *h, const Objects &a) {
    return {Snapshot(), BytesOf(&h->shrd_ctx->glbls, sizeof h->shrd_ctx->glbls),
            BytesOf(&a, sizeof a), pmdb_frame_wr_refcnt(PMDB_TYPE_IFH)};
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
void ExpectRefused(const Refusal &row, const dnx_db_hdl_t *h, const Objects &a) {
    ASSERT_NE(pm_port_inv_entry_add(kNode, 1, 0, 1), nullptr);
    const Untouched before = Everything(h, a);
    const TraceMark mark = TraceMark::Now();
    pm_calllog_clear();
    pm_calllog_enable(1);
    const cerrno rc = row.run();
    pm_calllog_enable(0);
    EXPECT_EQ(rc, row.status);
    EXPECT_EQ(CallNames(), std::vector<std::string>{});
    EXPECT_EQ(TraceCount(mark), (row.trace == 0 ? 0u : 1u) + (row.also == 0 ? 0u : 1u));
    if (row.trace != 0) {
        EXPECT_TRUE(pmdb::test::TraceWritten(mark, VESK_ERROR, row.trace, row.args));
    }
    if (row.also != 0) {
        EXPECT_EQ(pmdb::test::FindTraces(mark, VESK_ERROR, row.also).size(), 1u);
    }
    EXPECT_TRUE(Everything(h, a) == before) << "an entry, the IFH globals or the caller's objects";
    for (u32 key : {kPort, kBundle, kMember, kJoiner, kSub, kBvi})
        EXPECT_FALSE(SlotLockHeld(key)) << std::hex << key;
}

class NullArguments : public CardTest {};

TEST_F(NullArguments, EveryExportedCallRefusesNullPointersAndKeyZeroAndChangesNothing) {
    PutCard();
    dnx_db_hdl_t *h = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_IFH, 0), PMDB_OK);
    Objects a;
    Prepare(&a);
    /* The member's level 1 -> 2 would move the bundle's counters and
     * report through every out-parameter. */
    const auto oor_state_out = [&a](int null_at) {
        u32 *o[4] = {&a.outs[0], &a.outs[1], &a.outs[2], &a.outs[3]};
        o[null_at] = nullptr;
        return dpa_pmdb_update_bundle_oor_state(kMember, 2, 7, o[0], o[1], o[2], o[3]);
    };
    const std::vector<Refusal> rows = {
        {VOID_CALL(pmdb_lock_init(nullptr)), kNoResult},
        {CALL(pmdb_entry_lock(nullptr)), PMDB_EINVAL},
        {CALL(pmdb_entry_unlock(nullptr)), PMDB_EINVAL},
        {CALL(pmdb_lock_destroy(nullptr)), PMDB_EINVAL},
        {CALL(dpa_chk_pmdb_open(nullptr, nullptr, PMDB_TYPE_IFH, 1)), PMDB_EINVAL},
        {CALL(dpa_chk_shrd_ctx_open(nullptr, nullptr, PMDB_TYPE_IFH)), PMDB_EINVAL},
        {CALL(dpa_pmdb_mprotect_tabra(h->tabra, nullptr, PMDB_TYPE_IFH)), PMDB_EINVAL},
        {CALL(dpa_pmdb_mprotect_tabra(nullptr, h, PMDB_TYPE_IFH)), PMDB_EINVAL},
        {CALL(dpa_pmdb_update_ifh_entry_member(nullptr, &a.summary, nullptr)), PMDB_EINVAL, 234},
        {CALL(dpa_pmdb_update_ifh_entry_member(&a.event, nullptr, nullptr)), PMDB_EINVAL, 234},
        {CALL(dpa_pmdb_update_bundle_ifh_entry(kBundle, 1, 0, nullptr, nullptr, 3)), PMDB_EINVAL,
         228},
        {CALL(dpa_pmdb_add_oam_entry(kOamKey, nullptr, &a.slot)), PMDB_EINVAL, 154, {kOamKey, 0}},
        {VOID_CALL(dpa_pmdb_oam_oper(nullptr)), kNoResult, 290},
        {CALL(oor_state_out(0)), PMDB_EINVAL},
        {CALL(oor_state_out(1)), PMDB_EINVAL},
        {CALL(oor_state_out(2)), PMDB_EINVAL},
        {CALL(oor_state_out(3)), PMDB_EINVAL},
        {CALL(dpa_pmdb_set_bundle_oor_state(kBundle, 1, 7, nullptr)), PMDB_EINVAL},
        {CALL(pm_inventory_get_first_high_scale_nodeid(nullptr)), PMDB_EINVAL},
        {CALL(pm_inventory_get_first_inv_nodeid(nullptr, a.mac)), PMDB_EINVAL},
        {CALL(pm_inventory_get_first_inv_nodeid(&a.outs[0], nullptr)), PMDB_EINVAL},
        {CALL(dpa_pmdb_update_glbls_inv_node_info(kNode, nullptr, 1, nullptr)), PMDB_EINVAL},
        {CALL(dpa_pm_get_bvi_adj_cb(nullptr, nullptr, nullptr, &a.ctx)), PMDB_EINVAL},
        {CALL(dpa_pm_get_bvi_adj_cb(nullptr, &a.bvi, nullptr, nullptr)), PMDB_EINVAL},
        {CALL(dpa_pm_get_bvi_adj_cb(nullptr, &a.bvi, nullptr, &a.no_array)), PMDB_EINVAL},
        {CALL(dpa_bvi_upd_all_entries(kMember, nullptr)), PMDB_EINVAL},
        {CALL(dpa_pmdb_add_ifh_entry(0, &a.event, &a.slot, &a.summary, &a.punt, &a.summary, 0)),
         PMDB_EINVAL, 143},
        {CALL(dpa_pmdb_update_sub_intf_count(0, 1, 1)), PMDB_EINVAL, 129},
        {CALL(dpa_pmdb_remove_ifh_entry(0, &a.summary, 1)), PMDB_EINVAL, 161},
        {CALL(dpa_pmdb_get_ifh_summary(0, &a.summary)), PMDB_EINVAL},
        {CALL(dpa_pmdb_update_ifh_entry_nodelist(0, 1, 1, 3, nullptr)), PMDB_OK},
        {CALL(dpa_pmdb_update_ifh_entry_nodelist(kSub, 1, 1, 0x10000, nullptr)), PMDB_OK},
        {CALL(dpa_pmdb_add_punt_entry(0, &a.event, &a.slot, nullptr)), PMDB_EINVAL, 134},
        {CALL(dpa_pmdb_add_punt_entry(kPuntKey, nullptr, &a.slot, nullptr)), PMDB_OK, 135,
         {kPuntKey, 0}},
        {CALL(dpa_pmdb_remove_punt_entry(0)), PMDB_EINVAL, 172},
        {CALL(dpa_pmdb_add_oam_entry(0, &a.event, &a.slot)), PMDB_EINVAL, 153},
        {VOID_CALL(dpa_pmdb_oam_oper(&a.oam)), kNoResult, 291, {0, PMDB_EINVAL}, 153},
        {CALL(dpa_pmdb_remove_oam_entry(0)), PMDB_EINVAL, 167},
        {CALL(dpa_pmdb_update_bundle_ifh_entry(0, 1, 0, &a.summary, nullptr, 1)), PMDB_EINVAL, 228},
        {CALL(dpa_bvi_upd_all_entries(0, &a.outs[0])), PMDB_EINVAL, 99},
    };
    std::vector<std::pair<std::string, std::function<void()>>> checks;
    for (const Refusal &row : rows)
        checks.emplace_back(row.call, [&row, h, &a] { ExpectRefused(row, h, a); });
    RunEachOnAFreshCard(checks);
}

}  // namespace
