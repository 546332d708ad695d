// pmdbctl gen: writes a synthetic line card as an event stream on stdout
// (docs/event-stream.md), for pmdbctl replay.  The same options and seed give
// the same stream byte for byte.
//
// The card, in the order of its events: each node's inventory entry; every
// port of every node (intf_add); every port's sub-interfaces (sub_add); the
// bundles (bundle_add); their members (member_join), taken from the ports in
// an order the seed shuffles, so that a bundle spans nodes; the bundles'
// sub-interfaces (sub_add, reported by every node with a member); the BVIs
// (intf_add, interface type 78) spread over the nodes.
//
// Handles (hex):  port p of node n   n0000 | 1000 | p
//                 its sub-interface  n0000 | 2000 | p << 4 | s + 1
//                 bundle b           b00000 | (b + 1) << 8
//                 its sub-interface  that | s + 1
//                 BVI v              e00000 | v + 1
// LIFs and system ports are handed out in order from bases the seed picks,
// so that no two interfaces share a punt key.
//
// --teardown appends the events that take the card apart, in the reverse
// order; --churn N appends N flaps, cycling through member leave and join,
// an out-of-resource level change of a member, and a port sub-interface's
// removal and return.
#if defined(PMDBCTL_HAVE_PMDB)

#include <stdio.h>
#include <string.h>

#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "command.h"
#include "event_stream.h"
#include "pmdb.h"

namespace pmdbctl {
namespace {

struct GenOptions {
    unsigned seed = 1;
    unsigned nodes = 2;
    unsigned ports = 4;         // per node
    unsigned subs = 1;          // per port
    unsigned bundles = 1;
    unsigned members = 2;       // per bundle
    unsigned bundle_subs = 1;   // per bundle
    unsigned bvis = 1;
    bool oam = true;
    bool teardown = false;
    unsigned churn = 0;
};

constexpr u16 kTypePort = 1;
constexpr u16 kTypeBundle = 2;
constexpr u16 kTypeSub = 3;
constexpr u32 kOorReason = 0x51;

struct Port {
    u32 node;
    unsigned index;
    u32 ifh() const { return node << 16 | 0x1000u | index; }
    u32 sub(unsigned s) const { return node << 16 | 0x2000u | index << 4 | (s + 1); }
};

u32 BundleIfh(unsigned b) { return 0xb00000u | (b + 1) << 8; }

class Generator {
public:
    explicit Generator(const GenOptions &o) : o_(o), rng_(o.seed) {
        lif_ = 0x10000u + (rng_() % 0x100u) * 0x100u;
        ingress_ = 0x1000u + (rng_() % 0x10u) * 0x100u;
        sys_port_ = 0x100u + rng_() % 0x100u;
        for (u32 n = 1; n <= o.nodes; n++)
            for (unsigned p = 0; p < o.ports; p++) ports_.push_back({n, p});
        order_ = ports_;
        for (size_t i = order_.size(); i > 1; i--) std::swap(order_[i - 1], order_[rng_() % i]);
        for (size_t i = 0; i < size_t(o.bundles) * o.members; i++) members_.push_back(order_[i]);
    }

    void Card() {
        for (u32 n = 1; n <= o_.nodes; n++) Inventory(StreamOp::kInventoryAdd, n);
        for (const Port &p : ports_) Event(PMDB_EV_INTF_ADD, PortInfo(p), p.node);
        for (const Port &p : ports_)
            for (unsigned s = 0; s < o_.subs; s++) Event(PMDB_EV_SUB_ADD, SubInfo(p, s), p.node);
        for (unsigned b = 0; b < o_.bundles; b++) Event(PMDB_EV_BUNDLE_ADD, BundleInfo(b), 1);
        for (size_t m = 0; m < members_.size(); m++) Member(PMDB_EV_MEMBER_JOIN, m);
        for (unsigned b = 0; b < o_.bundles; b++)
            for (unsigned s = 0; s < o_.bundle_subs; s++)
                for (u32 node : BundleNodes(b)) Event(PMDB_EV_SUB_ADD, BundleSubInfo(b, s), node);
        for (unsigned v = 0; v < o_.bvis; v++) Event(PMDB_EV_INTF_ADD, BviInfo(v), BviNode(v));
    }

    void Teardown() {
        for (unsigned v = o_.bvis; v-- > 0;) Event(PMDB_EV_INTF_REMOVE, BviInfo(v), BviNode(v));
        for (unsigned b = o_.bundles; b-- > 0;)
            for (unsigned s = o_.bundle_subs; s-- > 0;)
                for (u32 node : BundleNodes(b)) Event(PMDB_EV_SUB_REMOVE, BundleSubInfo(b, s), node);
        for (size_t m = members_.size(); m-- > 0;) Member(PMDB_EV_MEMBER_LEAVE, m);
        for (unsigned b = o_.bundles; b-- > 0;) Event(PMDB_EV_BUNDLE_REMOVE, BundleInfo(b), 1);
        for (size_t i = ports_.size(); i-- > 0;)
            for (unsigned s = o_.subs; s-- > 0;)
                Event(PMDB_EV_SUB_REMOVE, SubInfo(ports_[i], s), ports_[i].node);
        for (size_t i = ports_.size(); i-- > 0;)
            Event(PMDB_EV_MAIN_REMOVE, PortInfo(ports_[i]), ports_[i].node);
        for (u32 n = o_.nodes; n >= 1; n--) Inventory(StreamOp::kInventoryRemove, n);
    }

    // Flap i of the churn: what it does follows from i and the seed.
    void Churn() {
        for (unsigned i = 0; i < o_.churn; i++) {
            const unsigned kind = i % 3;
            if (kind == 0 && !members_.empty()) {
                const size_t m = rng_() % members_.size();
                Member(PMDB_EV_MEMBER_LEAVE, m);
                Member(PMDB_EV_MEMBER_JOIN, m);
            } else if (kind == 1 && !members_.empty()) {
                StreamLine l;
                l.op = StreamOp::kOor;
                l.ifh = members_[rng_() % members_.size()].ifh();
                l.state = rng_() % 3;
                l.reason = kOorReason;
                Write(l);
            } else if (o_.subs != 0 && !ports_.empty()) {
                const Port &p = ports_[rng_() % ports_.size()];
                const unsigned s = rng_() % o_.subs;
                Event(PMDB_EV_SUB_REMOVE, SubInfo(p, s), p.node);
                Event(PMDB_EV_SUB_ADD, SubInfo(p, s), p.node);
            }
        }
    }

private:
    const GenOptions &o_;
    std::mt19937 rng_;
    u32 lif_, ingress_, sys_port_;
    u32 event_id_ = 0;
    std::vector<Port> ports_, order_, members_;
    // LIFs and system ports of each interface, given at its first event.
    std::vector<std::pair<u32, pmdb_intf_info_t>> given_;

    void Write(const StreamLine &l) { std::cout << StreamLineJson(l).dump() << "\n"; }

    void Inventory(StreamOp op, u32 node) {
        StreamLine l;
        l.op = op;
        l.node_id = node;
        l.node_index = static_cast<i32>(node);
        l.high_scale = node == 1;
        Write(l);
    }

    void Event(u8 type, const pmdb_intf_info_t &in, u32 node) {
        StreamLine l;
        l.event.event_type = type;
        l.event.valid_flags = PMDB_VF_INTF;
        l.event.event_id = ++event_id_;
        l.event.intf_info = in;
        l.node = node;
        Write(l);
    }

    void Member(u8 type, size_t m) {
        const Port &p = members_[m];
        pmdb_intf_info_t in = PortInfo(p);
        in.bundle_ifh = BundleIfh(static_cast<unsigned>(m / o_.members));
        in.member_port = static_cast<u16>(m % o_.members + 1);
        Event(type, in, p.node);
    }

    // The nodes of bundle b's members, each once, in order.
    std::vector<u32> BundleNodes(unsigned b) const {
        std::vector<u32> nodes;
        for (size_t m = size_t(b) * o_.members; m < size_t(b + 1) * o_.members; m++) {
            const u32 n = members_[m].node;
            bool seen = false;
            for (u32 x : nodes) seen = seen || x == n;
            if (!seen) nodes.push_back(n);
        }
        if (nodes.empty()) nodes.push_back(1);
        return nodes;
    }

    u32 BviNode(unsigned v) const { return v % o_.nodes + 1; }

    // The information of interface `key`: its LIFs, system port and MAC are
    // handed out the first time it is named and kept for its later events.
    pmdb_intf_info_t Base(u32 key, u32 node, u16 type, u8 slot) {
        for (const auto &[k, in] : given_)
            if (k == key) return in;
        pmdb_intf_info_t in{};
        in.egress_lif = lif_++;
        in.ingress_lif = static_cast<u16>(ingress_++);
        in.sys_port = static_cast<u16>(sys_port_++ & 0x3fff);
        in.node_id = node;
        in.node_index = static_cast<i32>(node);
        in.high_scale = node == 1;
        in.slot_id = slot;
        in.lc_slot = static_cast<u8>(node);
        in.intf_type = type;
        const u8 mac[6] = {0x02, static_cast<u8>(o_.seed), static_cast<u8>(key >> 24),
                           static_cast<u8>(key >> 16), static_cast<u8>(key >> 8),
                           static_cast<u8>(key)};
        memcpy(in.mac_addr, mac, sizeof mac);
        const u8 node_mac[6] = {0x02, 0, 0, 0, 0, static_cast<u8>(node)};
        memcpy(in.node_mac, node_mac, sizeof node_mac);
        if (o_.oam) {
            in.oam_id = 0x100u + static_cast<u32>(given_.size());
            in.oam_slots[2] = 0x400u + static_cast<u32>(given_.size());
        }
        given_.push_back({key, in});
        return in;
    }

    pmdb_intf_info_t PortInfo(const Port &p) {
        pmdb_intf_info_t in = Base(p.ifh(), p.node, kTypePort, static_cast<u8>(p.node));
        in.ifh = p.ifh();
        return in;
    }

    pmdb_intf_info_t SubInfo(const Port &p, unsigned s) {
        pmdb_intf_info_t in = Base(p.sub(s), p.node, kTypeSub, static_cast<u8>(p.node));
        in.ifh = p.ifh();
        in.sub_ifh = p.sub(s);
        in.sub_flags = PMDB_SUB_VALID;
        return in;
    }

    pmdb_intf_info_t BundleInfo(unsigned b) {
        pmdb_intf_info_t in = Base(BundleIfh(b), 1, kTypeBundle, PMDB_NO_SLOT);
        in.bundle_ifh = BundleIfh(b);
        return in;
    }

    pmdb_intf_info_t BundleSubInfo(unsigned b, unsigned s) {
        const u32 sub = BundleIfh(b) | (s + 1);
        pmdb_intf_info_t in = Base(sub, 1, kTypeSub, PMDB_NO_SLOT);
        in.bundle_ifh = BundleIfh(b);
        in.sub_ifh = sub;
        in.sub_flags = PMDB_SUB_VALID;
        return in;
    }

    pmdb_intf_info_t BviInfo(unsigned v) {
        const u32 ifh = 0xe00000u | (v + 1);
        pmdb_intf_info_t in = Base(ifh, BviNode(v), PMDB_INTF_TYPE_BVI, static_cast<u8>(BviNode(v)));
        in.ifh = ifh;
        return in;
    }
};

std::string Limits(const GenOptions &o) {
    if (o.nodes < 1 || o.nodes > 32) return "--nodes: 1 to 32";
    if (o.ports > 255) return "--ports: at most 255 per node";
    if (o.subs > 15) return "--subs: at most 15 per port";
    if (o.bundles > 255 || o.bundle_subs > 255) return "--bundles, --bundle-subs: at most 255";
    if (o.bvis > 255) return "--bvis: at most 255";
    if (size_t(o.bundles) * o.members > size_t(o.nodes) * o.ports)
        return "--bundles x --members is more than the ports of the card";
    return "";
}

int Gen(const GenOptions &o) {
    const std::string bad = Limits(o);
    if (!bad.empty()) return Fail(bad);
    Generator g(o);
    g.Card();
    g.Churn();
    if (o.teardown) g.Teardown();
    std::cout.flush();
    return std::cout.good() ? 0 : Fail("writing the stream failed");
}

RunFn InstallGen(CLI::App &app) {
    auto *cmd = app.add_subcommand("gen", "Write a synthetic line card as an event stream");
    auto o = std::make_shared<GenOptions>();
    cmd->add_option("--seed", o->seed, "seed of the LIF bases and member choice")->capture_default_str();
    cmd->add_option("--nodes", o->nodes, "nodes")->capture_default_str();
    cmd->add_option("--ports", o->ports, "ports per node")->capture_default_str();
    cmd->add_option("--subs", o->subs, "sub-interfaces per port")->capture_default_str();
    cmd->add_option("--bundles", o->bundles, "bundles")->capture_default_str();
    cmd->add_option("--members", o->members, "members per bundle")->capture_default_str();
    cmd->add_option("--bundle-subs", o->bundle_subs, "sub-interfaces per bundle")
        ->capture_default_str();
    cmd->add_option("--bvis", o->bvis, "BVIs")->capture_default_str();
    cmd->add_option("--oam", o->oam, "OAM identifiers and slots on interfaces (1 or 0)")
        ->capture_default_str();
    cmd->add_flag("--teardown", o->teardown, "append the events that take the card apart");
    cmd->add_option("--churn", o->churn, "append this many flaps")->capture_default_str();
    return [o] { return Gen(*o); };
}

const Registrar kGen("gen", InstallGen);

}  // namespace
}  // namespace pmdbctl

#endif
