// The card's stream cut into phases and shared out among the writers.
//
// Every line belongs to the interface it is about (a port's, a member's or
// an out-of-resource line to the port, a sub-interface's to its port or
// bundle, a bundle's to the bundle, a BVI's to the BVI), and every
// interface to one writer, so that one process applies each interface's
// lines in their order.  Writers meet only on shared bundles, whose
// counters members of several writers change at once: the campaign's point.
//
// Bring-up and teardown are cut where the kind of line changes (ports
// before their sub-interfaces, bundles before their members...), since the
// later kind needs the earlier one done.  The churn is one phase: a flap is
// a member's leave and join by the member's writer, so a bundle with more
// members than there are writers never loses all of them, and the flaps of
// different writers commute.
#include <sstream>
#include <unordered_map>

#include "campaign.h"

namespace campaign {
namespace {

using pmdbctl::StreamLine;
using pmdbctl::StreamOp;

struct Owner {
    uint32_t key;
    const char *role;
};

Owner EventOwner(const pmdb_event_t &e) {
    const pmdb_intf_info_t &in = e.intf_info;
    switch (e.event_type) {
    case PMDB_EV_BUNDLE_ADD:
    case PMDB_EV_BUNDLE_REMOVE:
        return {in.bundle_ifh, "bundle"};
    case PMDB_EV_SUB_ADD:
    case PMDB_EV_SUB_REMOVE:
        return in.bundle_ifh != 0 ? Owner{in.bundle_ifh, "bundle sub-interface"}
                                  : Owner{in.ifh, "port sub-interface"};
    case PMDB_EV_MEMBER_JOIN:
    case PMDB_EV_MEMBER_MODIFY:
    case PMDB_EV_MEMBER_LEAVE:
        return {in.ifh, "member"};
    default:
        return {in.ifh, in.intf_type == PMDB_INTF_TYPE_BVI ? "BVI" : "port"};
    }
}

Owner OwnerOf(const StreamLine &l) {
    switch (l.op) {
    case StreamOp::kEvent:
        return EventOwner(l.event);
    case StreamOp::kOor:
    case StreamOp::kBundleOor:
        return {l.ifh, "member"};
    default:  // inventory lines; the OAM event entry is not in a card
        return {0, "node"};
    }
}

std::string KindOf(const StreamLine &l, const Owner &o) {
    const char *name = l.op == StreamOp::kEvent ? pmdbctl::EventTypeName(l.event.event_type)
                                                : pmdbctl::StreamOpName(l.op);
    return std::string(name) + " of a " + o.role;
}

std::string Gen(const std::string &pmdbctl, const CardShape &s, bool churn, bool teardown,
                std::string *out) {
    std::vector<std::string> argv = {pmdbctl,       "gen",       "--seed",
                                     std::to_string(s.seed),     "--nodes",
                                     std::to_string(s.nodes),    "--ports",
                                     std::to_string(s.ports),    "--bundles",
                                     std::to_string(s.bundles),  "--members",
                                     std::to_string(s.members),  "--bundle-subs",
                                     "2",           "--bvis",    "2"};
    if (churn) argv.insert(argv.end(), {"--churn", std::to_string(s.churn)});
    if (teardown) argv.push_back("--teardown");
    const ToolResult r = RunTool(argv, 10000);
    *out = r.out;
    return r.status == 0 ? "" : "pmdbctl gen failed: " + r.err;
}

size_t CountLines(const std::string &text) {
    size_t n = 0;
    for (char c : text) n += c == '\n';
    return n;
}

std::string ParseAll(const std::string &text, const CardShape &s, Plan *plan) {
    std::istringstream in(text);
    std::unordered_map<uint32_t, int> writer_of;
    size_t owners = 0;
    plan->items.assign(s.writers, {});
    for (std::string t; std::getline(in, t);) {
        Line line;
        line.text = t;
        const std::string bad = pmdbctl::ParseStreamLine(t, &line.parsed);
        if (!bad.empty()) return "gen wrote a line the stream parser refuses: " + bad;
        const Owner o = OwnerOf(line.parsed);
        line.kind = KindOf(line.parsed, o);
        if (line.parsed.op != StreamOp::kInventoryAdd) {
            auto [it, fresh] = writer_of.try_emplace(o.key, static_cast<int>(owners % s.writers));
            owners += fresh;
            line.writer = it->second;
            plan->items[line.writer].push_back(static_cast<uint32_t>(plan->lines.size()));
        }
        plan->lines.push_back(line);
    }
    return "";
}

// A phase ends where the kind of line changes, outside the churn.
void CutPhases(Plan *plan) {
    const auto &l = plan->lines;
    for (size_t i = 1; i <= l.size(); i++) {
        const bool churn = i > plan->card_end && i < plan->churn_end;
        if (i == l.size() || i == plan->card_end || i == plan->churn_end ||
            (!churn && l[i].kind != l[i - 1].kind))
            plan->phase_end.push_back(i);
    }
}

}  // namespace

std::string MakePlan(const std::string &pmdbctl, const CardShape &s, Plan *plan) {
    if (s.writers < 2 || s.writers > 64) return "--writers: 2 to 64";
    if (s.members <= s.writers)
        return "a bundle needs more members than there are writers, or concurrent flaps could "
               "take all its members away at once (raise --members)";
    std::string card, churn, whole;
    std::string bad = Gen(pmdbctl, s, false, false, &card);
    if (bad.empty()) bad = Gen(pmdbctl, s, true, false, &churn);
    if (bad.empty()) bad = Gen(pmdbctl, s, true, true, &whole);
    if (!bad.empty()) return bad;
    if (churn.compare(0, card.size(), card) != 0 || whole.compare(0, churn.size(), churn) != 0)
        return "pmdbctl gen: the card with churn and teardown does not begin with the card";
    plan->card_end = CountLines(card);
    plan->churn_end = CountLines(churn);
    plan->card_text = churn;
    plan->whole_text = whole;
    bad = ParseAll(whole, s, plan);
    if (bad.empty()) CutPhases(plan);
    return bad;
}

}  // namespace campaign
