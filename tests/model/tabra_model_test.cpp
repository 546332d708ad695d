// The table store against an in-memory model: random sequences of adds,
// refreshes, removals, lookups, walks, pins, unpins and protection changes
// on a table with long chains (7 buckets) and a small, changing entry bound.
// After every step the answers, slots, entries, count, entry bound, pinned
// free slots and walk are the model's; a missing key and a full table are
// traced with the key (an add of a present key is no failure and traces
// nothing); a pinned slot is not handed out until as many unpins; and, after
// adds and removals, the store's check finds the table consistent.  A
// failing sequence is shrunk to the shortest that still fails.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <vector>

#include "host_tabra.h"

namespace {

using namespace host_test;

constexpr u32 kEntrySize = 16;
constexpr u32 kKeys = 30;
// Entry bounds a protection change sets: 0 keeps the one in force; a
// value above the capacity counts as the capacity.
constexpr u32 kBounds[] = {0, 4, 8, 20, 100000};

enum Kind { kAdd, kRefresh, kRemove, kLookup, kWalk, kPin, kUnpin, kProtect, kWritable, kKinds };
const char *const kKindName[] = {"add", "refresh", "remove", "lookup", "walk",
                                 "pin", "unpin", "protect", "writable"};

struct Op {
    int kind;
    u32 key;
    u32 arg;
};
std::ostream &operator<<(std::ostream &os, const Op &op) {
    return os << kKindName[op.kind] << "(" << op.key << ", " << op.arg << ")";
}

// Each entry holds its key and a stamp that the model knows.
struct Stored {
    i32 slot;
    u32 stamp;
};

class Model {
public:
    explicit Model(tabra_hdl_t h) : h_(h) {}
    void Run(const Op &op);

private:
    std::set<i32> Occupied() const {
        std::set<i32> used;
        for (const auto &[k, s] : entries_) used.insert(s.slot);
        return used;
    }
    // Neither occupied nor pinned.
    i32 LowestFreeSlot() const {
        std::set<i32> used = Occupied();
        for (const auto &[slot, n] : pins_) used.insert(slot);
        i32 slot = 0;
        while (used.count(slot) != 0) slot++;
        return slot;
    }
    void ExpectTraced(u32 point, cerrno st, u32 key, u32 arg) const {
        const ::testing::AssertionResult traced =
            pmdb::test::TraceWritten(mark_, VESK_ERROR, point, {st, key, arg});
        if (!traced) RC_FAIL(traced.message());
    }
    void Stamp(void *e, u32 key) {
        if (!writable_) return;
        const u32 words[2] = {key, ++stamps_};
        memcpy(e, words, sizeof words);
        entries_[key].stamp = stamps_;
    }
    void ExpectEntry(const void *e, u32 key) const {
        u32 words[2];
        memcpy(words, e, sizeof words);
        const u32 stamp = entries_.at(key).stamp;
        RC_ASSERT(words[1] == stamp);
        RC_ASSERT(words[0] == (stamp != 0 ? key : 0u));
    }
    void Add(u32 key);
    void Find(int kind, u32 key);
    void Remove(u32 key);
    void Walk(u32 stop_after);
    void Unpin(u32 which);
    void Protect(bool writable, u32 bound);

    tabra_hdl_t h_;
    pmdb::test::TraceMark mark_;
    std::map<u32, Stored> entries_;
    std::map<i32, u32> pins_;  // slot -> pins not undone yet
    u32 max_ = 16;
    bool writable_ = true;
    u32 stamps_ = 0;
};

void Model::Add(u32 key) {
    void *e = nullptr;
    i32 slot = -1;
    const cerrno st = tabra_add_entry(h_, key, &e, &slot);
    if (entries_.count(key) != 0) {
        RC_ASSERT(st == TABRA_E_EXISTS);
        RC_ASSERT(pmdb::test::TracesSince(mark_, VESK_ERROR).empty());  // not a failure
        RC_ASSERT(slot == entries_[key].slot);
        ExpectEntry(e, key);
        return;
    }
    if (entries_.size() >= max_) {
        RC_ASSERT(st == TABRA_E_FULL);
        ExpectTraced(TABRA_TP_ADD_FULL, st, key, max_);
        return;
    }
    RC_ASSERT(st == 0u);
    RC_ASSERT(slot == LowestFreeSlot());
    const u8 *bytes = static_cast<const u8 *>(e);
    RC_ASSERT(std::all_of(bytes, bytes + kEntrySize, [](u8 b) { return b == 0; }));
    entries_[key] = {slot, 0};
    Stamp(e, key);
}

// A refresh (a lookup for writing), a copy or a pin of key: its slot and
// entry, or not found (traced, but for a pin: an answer, not a fault).
void Model::Find(int kind, u32 key) {
    u8 buf[kEntrySize];
    void *e = buf;
    const void *pinned = nullptr;
    i32 slot = -1;
    const cerrno st = kind == kRefresh ? tabra_get_entry_by_key(h_, key, &e, &slot)
                      : kind == kLookup ? tabra_copy_entry_by_key(h_, key, buf, sizeof buf, &slot)
                                        : tabra_pin_slot(h_, key, &pinned, &slot);
    if (entries_.count(key) == 0) {
        RC_ASSERT(st == TABRA_E_NOTFOUND);
        if (kind == kPin) RC_ASSERT(pmdb::test::TracesSince(mark_, VESK_ERROR).empty());
        if (kind != kPin) ExpectTraced(TABRA_TP_GET_NOTFOUND, st, key, 0);
        return;
    }
    RC_ASSERT(st == 0u);
    RC_ASSERT(slot == entries_[key].slot);
    ExpectEntry(kind == kPin ? pinned : e, key);
    if (kind == kRefresh) Stamp(e, key);
    if (kind == kPin) pins_[slot]++;
}

void Model::Remove(u32 key) {
    const bool present = entries_.erase(key) != 0;
    const cerrno st = tabra_remove_entry(h_, TABRA_REMOVE_BY_KEY, key);
    RC_ASSERT(st == (present ? 0u : TABRA_E_NOTFOUND));
    if (!present) ExpectTraced(TABRA_TP_RM_NOTFOUND, st, key, 0);
}

// A walk that stops at its stop_after-th entry (0: never) sees the model's
// entries in slot order up to there.
void Model::Walk(u32 stop_after) {
    struct Seen {
        std::vector<std::pair<i32, u32>> keys;
        std::vector<std::vector<u8>> bytes;
        size_t stop_after;
    } seen{{}, {}, stop_after % (entries_.size() + 2)};
    const cerrno st = tabra_walk(
        h_,
        [](void *ctx, u32 key, i32 slot, const void *e) {
            auto *s = static_cast<Seen *>(ctx);
            s->keys.emplace_back(slot, key);
            s->bytes.emplace_back(static_cast<const u8 *>(e), static_cast<const u8 *>(e) + 8);
            return s->keys.size() == s->stop_after ? 42 : 0;
        },
        &seen);
    std::vector<std::pair<i32, u32>> want;
    for (const auto &[k, s] : entries_) want.emplace_back(s.slot, k);
    std::sort(want.begin(), want.end());
    const bool stops = seen.stop_after != 0 && seen.stop_after <= want.size();
    if (stops) want.resize(seen.stop_after);
    RC_ASSERT(st == (stops ? 42u : 0u));
    RC_ASSERT(seen.keys == want);
    for (size_t i = 0; i < want.size(); i++) ExpectEntry(seen.bytes[i].data(), want[i].second);
}

// Undoes one pin of the which-th pinned slot, if any.
void Model::Unpin(u32 which) {
    if (pins_.empty()) return;
    auto it = std::next(pins_.begin(), static_cast<long>(which % pins_.size()));
    tabra_unpin_slot(h_, it->first);
    if (--it->second == 0) pins_.erase(it);
}

void Model::Protect(bool writable, u32 bound) {
    tabra_params_t p = Params("MODEL", kEntrySize, Mod7, 7, bound);
    const cerrno st = writable ? tabra_make_shm_writable(h_, &p)
                               : tabra_make_shm_readonly_protected(h_, &p);
    RC_ASSERT(st == 0u);
    if (bound != 0) max_ = std::min(bound, TABRA_CAPACITY);
    writable_ = writable;
}

void Model::Run(const Op &op) {
    mark_ = pmdb::test::TraceMark::Now();
    switch (op.kind) {
        case kAdd: Add(op.key); break;
        case kRemove: Remove(op.key); break;
        case kRefresh:
        case kLookup:
        case kPin: Find(op.kind, op.key); break;
        case kWalk: Walk(op.arg); break;
        case kUnpin: Unpin(op.arg); break;
        default: Protect(op.kind == kWritable, kBounds[op.arg % std::size(kBounds)]); break;
    }
    RC_ASSERT(tabra_count(h_) == entries_.size());
    tabra_info_t info{};
    RC_ASSERT(tabra_get_info(h_, &info) == 0u);
    RC_ASSERT(info.max_entries == max_);
    const std::set<i32> occupied = Occupied();
    u32 pinned_free = 0;
    for (const auto &[slot, n] : pins_) pinned_free += occupied.count(slot) == 0 ? 1 : 0;
    RC_ASSERT(info.pinned_free == pinned_free);
    // The full check walks every slot: after the steps that change the index.
    if (op.kind == kAdd || op.kind == kRemove) RC_ASSERT(CheckReport(h_) == "");
}

// Adds and removals come more often than the rest, so that tables fill.
rc::Gen<Op> AnyOp() {
    return rc::gen::construct<Op>(
        rc::gen::weightedElement<int>(
            {{4, kAdd}, {2, kRefresh}, {3, kRemove}, {2, kLookup}, {1, kWalk},
             {1, kPin}, {1, kUnpin}, {1, kProtect}, {1, kWritable}}),
        rc::gen::inRange<u32>(1, kKeys + 1), rc::gen::inRange<u32>(0, 40));
}

// Each case a fresh namespace, so a new table.
class TabraModel : public pmdb::test::PmdbTest {};

RC_GTEST_FIXTURE_PROP(TabraModel, TableStoreFollowsItsModel, ()) {
    const std::vector<Op> ops = *rc::gen::container<std::vector<Op>>(AnyOp());
    tabra_hdl_t h = OpenOrDie(Params("MODEL", kEntrySize, Mod7, 7, 16));
    if (h == nullptr) RC_FAIL("table not opened");
    Model model(h);
    for (const Op &op : ops) model.Run(op);
}

}  // namespace
