// The card's interfaces against a reference model: random sequences of the
// port, bundle, member and bundle sub-interface events a port mapper sends
// (a member's own events name its bundle), on four ports, two bundles and a
// sub-interface of each.  The model knows which IFH entries exist, which
// ports are active members of which bundle, each bundle's stored member
// count (which follows joins and leaves only while the bundle's entry
// exists; an active member's removal counts it out) and each sub-interface's
// node list.  After every event the tables are the model's, nothing the
// model says an event leaves alone changes, and the library's bundle counter
// check names exactly the bundles whose stored count differs from their
// members.  A failing sequence is shrunk to the shortest that fails.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <ostream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "paths_support.h"
#include "pmdb_counts.h"
#include "pmdb_db_test.h"
#include "pmdb_reader.h"

namespace {

using namespace paths_test;

constexpr u32 kPorts = 4, kBundles = 2;
u32 PortIfh(u32 p) { return 0x1001 + p; }
u32 BundleIfh(u32 b) { return 0x3001 + b; }
// Sub-interface s belongs to bundle s.
u32 SubIfh(u32 s) { return 0x3101 + s; }

enum Kind {
    kAddPort, kAddBundle, kJoin, kModify, kLeave, kRemovePort, kRemoveBundle, kAddSub,
    kRemoveSub, kKinds
};
const char *const kKindName[] = {"add_port", "add_bundle",    "join",    "modify",    "leave",
                                 "remove_port", "remove_bundle", "add_sub", "remove_sub"};

struct Op {
    int kind;
    u32 port;    // 0 .. kPorts - 1
    u32 bundle;  // 0 .. kBundles - 1; also the sub-interface
    u32 node;    // 1 or 2
};
std::ostream &operator<<(std::ostream &os, const Op &op) {
    return os << kKindName[op.kind] << "(port " << op.port << ", bundle " << op.bundle
              << ", node " << op.node << ")";
}

struct Port {
    bool exists = false, active = false;
    u32 bundle_ifh = 0;
    u16 member_port = 0;
};
struct Bundle {
    bool exists = false, sub = false;  // the bundle's entry; its sub-interface's
    u8 count = 0;                      // stored member_count
    u16 mask = 0;                      // the sub-interface's node list
};

class Card {
public:
    // False when the op is not one a port mapper sends in this state.
    bool Apply(const Op &op);
    void Check() const;

private:
    void Send(u8 type, pmdb_intf_info_t in, u32 node = 1) {
        pmdb_event_t ev = Event(type, in, ++events_);
        dpa_pmdb_oper(&ev, node);
    }
    pmdb_intf_info_t PortInfo(u32 p) const {
        pmdb_intf_info_t in = Info(p + 1, false);
        in.ifh = PortIfh(p);
        in.bundle_ifh = ports_[p].bundle_ifh;
        in.member_port = ports_[p].member_port;
        return in;
    }
    pmdb_intf_info_t BundleInfo(u32 b) const {
        pmdb_intf_info_t in = Info(10 + b, false);
        in.bundle_ifh = BundleIfh(b);
        return in;
    }
    pmdb_intf_info_t SubInfo(u32 s) const {
        pmdb_intf_info_t in = BundleInfo(s);
        in.sub_ifh = SubIfh(s);
        in.sub_flags = PMDB_SUB_VALID;
        return in;
    }
    u8 StoredCount(u32 b) const { return bundles_[b].exists ? bundles_[b].count : 0; }
    void Member(const Op &op);
    u32 Derived(u32 b) const {
        u32 n = 0;
        for (const Port &p : ports_) n += p.exists && p.active && p.bundle_ifh == BundleIfh(b);
        return n;
    }

    Port ports_[kPorts];
    Bundle bundles_[kBundles];
    u32 events_ = 0;
    Tables before_;                  // the tables before the last event
    std::optional<std::string> only_;  // all that event may have changed (Diff)
};

// Join (5), modify (6) and leave (7): the member's entry changes when it
// exists; the bundle's count follows a member that becomes or stops being
// active while the bundle's entry exists; the last leave takes the bundle
// (and its sub-interface) with it.
void Card::Member(const Op &op) {
    Port &p = ports_[op.port];
    const u32 b = op.bundle;
    pmdb_intf_info_t in = PortInfo(op.port);
    in.bundle_ifh = BundleIfh(b);
    in.member_port = static_cast<u16>(op.port + 1);
    const u8 type = op.kind == kJoin ? PMDB_EV_MEMBER_JOIN
                    : op.kind == kModify ? PMDB_EV_MEMBER_MODIFY
                                         : PMDB_EV_MEMBER_LEAVE;
    Send(type, in, op.node);
    if (!p.exists) {
        only_ = "";
        return;
    }
    const bool was_active = p.active;
    if (op.kind == kLeave) {
        p.active = false;
        p.bundle_ifh = 0;
        p.member_port = 0;
    } else {
        p.active = p.active || op.kind == kJoin;
        p.bundle_ifh = BundleIfh(b);
        p.member_port = in.member_port;
    }
    const bool counted = op.kind != kModify && was_active != p.active;
    if (counted && !bundles_[b].exists) {  // the bundle update fails: the path stops
        std::ostringstream member;
        member << std::hex << "IFH ~0x" << PortIfh(op.port) << " ";
        only_ = member.str();
        return;
    }
    Bundle &bundle = bundles_[b];
    if (counted && p.active) bundle.count++;
    if (counted && !p.active && bundle.count > 0) bundle.count--;
    if (op.kind == kLeave && StoredCount(b) == 0) bundle = Bundle{};
}

bool Card::Apply(const Op &op) {
    const Port &p = ports_[op.port];
    const bool member_op = op.kind == kJoin || op.kind == kModify || op.kind == kLeave;
    if (member_op && p.active && p.bundle_ifh != BundleIfh(op.bundle)) return false;
    before_ = Snapshot();
    only_.reset();
    switch (op.kind) {
        case kAddPort:
            Send(PMDB_EV_INTF_ADD, PortInfo(op.port), op.node);
            ports_[op.port].exists = true;
            break;
        case kAddBundle:
            Send(PMDB_EV_BUNDLE_ADD, BundleInfo(op.bundle));
            bundles_[op.bundle].exists = true;
            break;
        case kRemovePort: {
            pmdb_intf_info_t in = PortInfo(op.port);
            in.bundle_ifh = 0;
            Send(PMDB_EV_MAIN_REMOVE, in, op.node);
            // An active member's removal counts it out of its bundle.
            for (u32 b = 0; b < kBundles; b++)
                if (p.active && p.bundle_ifh == BundleIfh(b) && StoredCount(b) > 0)
                    bundles_[b].count--;
            ports_[op.port] = Port{};
            break;
        }
        case kRemoveBundle:
            Send(PMDB_EV_BUNDLE_REMOVE, BundleInfo(op.bundle));
            if (StoredCount(op.bundle) == 0)
                bundles_[op.bundle] = Bundle{};
            else
                only_ = "";
            break;
        case kAddSub:
            Send(PMDB_EV_SUB_ADD, SubInfo(op.bundle), op.node);
            bundles_[op.bundle].sub = true;
            bundles_[op.bundle].mask |= static_cast<u16>(1u << op.node);
            break;
        case kRemoveSub: {
            Send(PMDB_EV_SUB_REMOVE, SubInfo(op.bundle), op.node);
            Bundle &s = bundles_[op.bundle];
            if (StoredCount(op.bundle) == 0 || !s.sub) {
                only_ = "";
                break;
            }
            s.mask &= static_cast<u16>(~(1u << op.node));
            if (s.mask == 0) s.sub = false;
            break;
        }
        default:
            Member(op);
            break;
    }
    return true;
}

void CollectWrong(void *ctx, const dpa_pmdb_bundle_counts_t *c, cerrno status) {
    if (status == 0) static_cast<std::set<u32> *>(ctx)->insert(c->bundle_ifh);
}

// The IFH entry `key`, which must exist; its key joins *keys.
pmdb_ifh_entry_t Entry(u32 key, std::set<u32> *keys) {
    pmdb_ifh_entry_t e{};
    RC_ASSERT(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, &e, sizeof e) == PMDB_OK);
    keys->insert(key);
    return e;
}

void Card::Check() const {
    std::set<u32> want_keys, want_wrong;
    for (u32 i = 0; i < kPorts; i++) {
        if (!ports_[i].exists) continue;
        const pmdb_ifh_entry_t e = Entry(PortIfh(i), &want_keys);
        RC_ASSERT(((e.ifh_flags & PMDB_IFH_MEMBER_ACTIVE) != 0) == ports_[i].active);
        RC_ASSERT(e.intf_info.bundle_ifh == ports_[i].bundle_ifh);
    }
    for (u32 b = 0; b < kBundles; b++) {
        if (bundles_[b].exists) {
            RC_ASSERT(Entry(BundleIfh(b), &want_keys).member_count == bundles_[b].count);
            if (bundles_[b].count != Derived(b)) want_wrong.insert(BundleIfh(b));
        }
        if (bundles_[b].sub) RC_ASSERT(Entry(SubIfh(b), &want_keys).node_mask == bundles_[b].mask);
    }
    if (only_) RC_ASSERT(Diff(before_, Snapshot()) == *only_);
    RC_ASSERT(Keys(PMDB_TYPE_IFH) == want_keys);
    std::set<u32> wrong;
    RC_ASSERT(dpa_pmdb_check_bundle_counts(0, CollectWrong, &wrong) == PMDB_OK);
    RC_ASSERT(wrong == want_wrong);
}

rc::Gen<Op> AnyOp() {
    return rc::gen::construct<Op>(
        rc::gen::weightedElement<int>({{2, kAddPort}, {2, kAddBundle}, {3, kJoin}, {1, kModify},
                                       {3, kLeave}, {1, kRemovePort}, {1, kRemoveBundle},
                                       {2, kAddSub}, {2, kRemoveSub}}),
        rc::gen::inRange<u32>(0, kPorts), rc::gen::inRange<u32>(0, kBundles),
        rc::gen::inRange<u32>(1, 3));
}

class CardModel : public pmdb::test::PmdbTest {};

// One namespace for every case (the library keeps its tables open for the
// life of the process); each case starts on an empty card.  The IFH table is
// made before the first case: the counter check answers "not found" for a
// card whose table does not exist yet, which a case of only refused events
// would otherwise meet.
TEST_F(CardModel, EventsFollowTheModelOfTheCardsInterfaces) {
    constexpr u32 kScratch = 0x7ffff;
    ASSERT_EQ(pmdb::test::WriteEntry(PMDB_TYPE_IFH, kScratch,
                                     [](void *e) { static_cast<pmdb_ifh_entry_t *>(e)->key = kScratch; }),
              PMDB_OK);
    ASSERT_EQ(pmdb::test::RemoveEntry(PMDB_TYPE_IFH, kScratch), PMDB_OK);
    const bool ok = rc::check("events against the card's model", [] {
        const std::vector<Op> ops =
            *rc::gen::resize(60, rc::gen::container<std::vector<Op>>(AnyOp()));
        RC_ASSERT(pmdb::test::RemoveAllEntries());
        Card card;
        for (const Op &op : ops)
            if (card.Apply(op)) card.Check();
    });
    EXPECT_TRUE(ok);
}

}  // namespace
