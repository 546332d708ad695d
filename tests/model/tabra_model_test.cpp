// The table store against an in-memory model: random sequences of adds,
// refreshes, removals, lookups, walks and protection changes on a table
// with long chains (7 buckets) and a small, changing entry bound.  After
// every step the answers, slots, entries, count, entry bound and walk are
// the model's (an add of a present key is no failure and traces nothing)
// and, after adds and removals, the store's check finds the table
// consistent; a failing sequence is shrunk to the shortest that still fails.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <vector>

#include "host_tabra.h"

namespace {

using namespace host_test;

constexpr u32 kEntrySize = 16;
constexpr u32 kKeys = 30;
// Entry bounds a protection change sets: 0 keeps the one in force; a
// value above the capacity counts as the capacity.
constexpr u32 kBounds[] = {0, 4, 8, 20, 100000};

enum Kind { kAdd, kRefresh, kRemove, kLookup, kWalk, kProtect, kWritable, kKinds };
const char *const kKindName[] = {"add", "refresh", "remove", "lookup", "walk", "protect", "writable"};

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
    i32 LowestFreeSlot() const {
        std::vector<bool> used(kKeys + 1, false);
        for (const auto &[k, s] : entries_) used[s.slot] = true;
        i32 slot = 0;
        while (used[slot]) slot++;
        return slot;
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
    void Refresh(u32 key);
    void Remove(u32 key);
    void Lookup(u32 key);
    void Walk(u32 stop_after);
    void Protect(bool writable, u32 bound);

    tabra_hdl_t h_;
    std::map<u32, Stored> entries_;
    u32 max_ = 16;
    bool writable_ = true;
    u32 stamps_ = 0;
};

void Model::Add(u32 key) {
    void *e = nullptr;
    i32 slot = -1;
    const pmdb::test::TraceMark mark = pmdb::test::TraceMark::Now();
    const cerrno st = tabra_add_entry(h_, key, &e, &slot);
    if (entries_.count(key) != 0) {
        RC_ASSERT(st == TABRA_E_EXISTS);
        RC_ASSERT(pmdb::test::TracesSince(mark, VESK_ERROR).empty());  // not a failure
        RC_ASSERT(slot == entries_[key].slot);
        ExpectEntry(e, key);
        return;
    }
    if (entries_.size() >= max_) {
        RC_ASSERT(st == TABRA_E_FULL);
        return;
    }
    RC_ASSERT(st == 0u);
    RC_ASSERT(slot == LowestFreeSlot());
    const u8 *bytes = static_cast<const u8 *>(e);
    RC_ASSERT(std::all_of(bytes, bytes + kEntrySize, [](u8 b) { return b == 0; }));
    entries_[key] = {slot, 0};
    Stamp(e, key);
}

void Model::Refresh(u32 key) {
    void *e = nullptr;
    i32 slot = -1;
    const cerrno st = tabra_get_entry_by_key(h_, key, &e, &slot);
    if (entries_.count(key) == 0) {
        RC_ASSERT(st == TABRA_E_NOTFOUND);
        return;
    }
    RC_ASSERT(st == 0u);
    RC_ASSERT(slot == entries_[key].slot);
    ExpectEntry(e, key);
    Stamp(e, key);
}

void Model::Remove(u32 key) {
    const cerrno st = tabra_remove_entry(h_, TABRA_REMOVE_BY_KEY, key);
    RC_ASSERT(st == (entries_.erase(key) != 0 ? 0u : TABRA_E_NOTFOUND));
}

void Model::Lookup(u32 key) {
    u8 buf[kEntrySize];
    i32 slot = -1;
    const cerrno st = tabra_copy_entry_by_key(h_, key, buf, sizeof buf, &slot);
    if (entries_.count(key) == 0) {
        RC_ASSERT(st == TABRA_E_NOTFOUND);
        return;
    }
    RC_ASSERT(st == 0u);
    RC_ASSERT(slot == entries_[key].slot);
    ExpectEntry(buf, key);
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

void Model::Protect(bool writable, u32 bound) {
    tabra_params_t p = Params("MODEL", kEntrySize, Mod7, 7, bound);
    const cerrno st = writable ? tabra_make_shm_writable(h_, &p)
                               : tabra_make_shm_readonly_protected(h_, &p);
    RC_ASSERT(st == 0u);
    if (bound != 0) max_ = std::min(bound, TABRA_CAPACITY);
    writable_ = writable;
}

void Model::Run(const Op &op) {
    switch (op.kind) {
        case kAdd: Add(op.key); break;
        case kRefresh: Refresh(op.key); break;
        case kRemove: Remove(op.key); break;
        case kLookup: Lookup(op.key); break;
        case kWalk: Walk(op.arg); break;
        default: Protect(op.kind == kWritable, kBounds[op.arg % std::size(kBounds)]); break;
    }
    RC_ASSERT(tabra_count(h_) == entries_.size());
    tabra_info_t info{};
    RC_ASSERT(tabra_get_info(h_, &info) == 0u);
    RC_ASSERT(info.max_entries == max_);
    // The full check walks every slot: after the steps that change the index.
    if (op.kind == kAdd || op.kind == kRemove) RC_ASSERT(CheckReport(h_) == "");
}

// Adds and removals come more often than the rest, so that tables fill.
rc::Gen<Op> AnyOp() {
    return rc::gen::construct<Op>(
        rc::gen::weightedElement<int>(
            {{4, kAdd}, {2, kRefresh}, {3, kRemove}, {2, kLookup}, {1, kWalk},
             {1, kProtect}, {1, kWritable}}),
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
