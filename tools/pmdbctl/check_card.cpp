// pmdbctl check (the card's own invariants): what the tables hold against
// what the library's paths keep in step (see check.h for the report).
//
//   sub-interface counts  each IFH entry's sub_intf_count against the IFH
//                         entries that name it as their parent (a
//                         sub-interface whose parent has no entry is not a
//                         finding: removing a port before its
//                         sub-interfaces leaves them so)
//   orphans               PUNT and OAM entries that belong to an interface
//                         (card_view.h) which has no IFH entry, except what
//                         the removal paths leave on purpose:
//                         - the PUNT entries of a bundle sub-interface: its
//                           removal through the interface removal path takes
//                           only its IFH entry;
//                         - the interface OAM entry (index 0, low bits 28)
//                           and the redundancy OAM entries (no slot bits,
//                           low bits 24) of an interface that no PUNT entry
//                           shows to be a port, port sub-interface or
//                           bundle: a bundle's removal walks its
//                           sub-interfaces taking only their IFH and main
//                           PUNT entries, and nothing removes a bundle
//                           sub-interface's redundancy entries.
//
// The tables are read while writers may run, and one event changes several
// entries one after the other: a finding is reported only when a second
// reading of the card gives it again, word for word.
#if defined(PMDBCTL_HAVE_PMDB_READER)

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "card_view.h"
#include "check.h"
#include "format.h"
#include "pmdb_fields.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

struct Finding {
    const char *kind;
    std::string name, problem;
    json details;
    bool operator<(const Finding &o) const {
        return std::tie(name, problem) < std::tie(o.name, o.problem);
    }
};

std::string HandleList(const std::vector<u32> &handles) {
    std::string s;
    for (u32 h : handles) s += (s.empty() ? "" : " ") + Hex(h);
    return s.empty() ? "none" : s;
}

void SubIntfCounts(const CardView &card, std::vector<Finding> *out) {
    std::map<u32, std::vector<u32>> subs;
    for (const auto &[key, e] : card.ifh)
        if (const u32 parent = ParentOf(e.intf_info); parent != 0) subs[parent].push_back(key);
    for (const auto &[key, e] : card.ifh) {
        const std::vector<u32> &mine = subs[key];
        if (e.sub_intf_count == mine.size()) continue;
        json handles = json::array();
        for (u32 h : mine) handles.push_back(Hex(h));
        out->push_back({"sub_intf_count", "ifh " + Hex(key),
                        "sub_intf_count " + std::to_string(e.sub_intf_count) +
                            ", but " + std::to_string(mine.size()) + " sub-interface(s) name it: " +
                            HandleList(mine),
                        {{"key", Hex(key)},
                         {"sub_intf_count", e.sub_intf_count},
                         {"sub_interfaces", handles}}});
    }
}

bool IsBundleSubBlock(const pmdb_intf_info_t &in) {
    return in.sub_ifh != 0 && in.bundle_ifh != 0;
}

// Interfaces that some PUNT entry shows to be other than a bundle
// sub-interface.
std::set<u32> NotBundleSubs(const CardView &card) {
    std::set<u32> out;
    for (const pmdb_punt_entry_t &e : card.punt)
        if (pmdb_fields::is_member_punt_key(e.key) || !IsBundleSubBlock(e.intf_info))
            out.insert(PuntOwner(e));
    return out;
}

// An interface OAM entry or a redundancy entry (no slot bits).
bool IsSubLeftOamKey(u32 key) {
    constexpr u32 kLow = (1u << 10) - 1;  // slot bits and low bits
    return (key & 0xFFFFu) == pmdb_fields::kOamKeyInterface ||
           (key & kLow) == pmdb_fields::kOamKeySession;
}

Finding Orphan(const char *table, u32 key, u32 owner) {
    return {"orphan", std::string(table) + " " + Hex(key),
            "belongs to " + Hex(owner) + ", which has no IFH entry",
            {{"table", table}, {"key", Hex(key)}, {"owner", Hex(owner)}}};
}

void Orphans(const CardView &card, std::vector<Finding> *out) {
    const auto gone = [&](u32 owner) { return owner != 0 && card.ifh.count(owner) == 0; };
    for (const pmdb_punt_entry_t &e : card.punt) {
        const bool left_on_purpose =
            !pmdb_fields::is_member_punt_key(e.key) && IsBundleSubBlock(e.intf_info);
        if (gone(PuntOwner(e)) && !left_on_purpose) out->push_back(Orphan("punt", e.key, PuntOwner(e)));
    }
    const std::set<u32> not_bundle_subs = NotBundleSubs(card);
    for (const pmdb_oam_entry_t &e : card.oam) {
        const u32 owner = OamOwner(e);
        const bool left_on_purpose = IsSubLeftOamKey(e.key) && not_bundle_subs.count(owner) == 0;
        if (gone(owner) && !left_on_purpose) out->push_back(Orphan("oam", e.key, owner));
    }
}

// The findings of one reading; false when the tables could not be read or
// none of them exists.
bool Findings(std::vector<Finding> *out, CheckReport &report) {
    CardView card;
    const cerrno rc = ReadCard(&card);
    if (rc != PMDB_OK) {
        report.Problem("card", "card invariants", "the tables cannot be read: status " + Hex(rc, 0));
        return false;
    }
    if (card.tables == 0) return false;
    if (card.busy)
        out->push_back({"card", "card invariants",
                        "some entries stayed locked by a writer and were not looked at",
                        json::object()});
    SubIntfCounts(card, out);
    Orphans(card, out);
    return true;
}

}  // namespace

bool CardInvariantsHold(const CardView &card) {
    std::vector<Finding> found;
    SubIntfCounts(card, &found);
    Orphans(card, &found);
    return found.empty();
}

void CheckCardInvariants(const CheckOptions &o, CheckReport &report) {
    if (!o.table.empty()) return;
    std::vector<Finding> first, second;
    if (!Findings(&first, report) || !Findings(&second, report)) return;
    const std::set<Finding> again(second.begin(), second.end());
    bool found = false;
    for (const Finding &f : first) {
        if (again.count(f) == 0) continue;
        report.Problem(f.kind, f.name, f.problem, f.details);
        found = true;
    }
    if (!found) report.Ok("card", "sub-interface counts, orphans");
}

}  // namespace pmdbctl

#endif
