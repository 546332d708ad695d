// check.h - pmdbctl check: independent checks, each adding what it found
// to one report.
//
//   pmdbctl check [--table NAME] [--wait-ms N] [--json]
//
// A check adds one item per object it looked at: ok, or one line saying
// what is wrong.  Exit status 1 when any item is a problem.  A check that
// waits (for a table's writer lock, for held entry locks to be let go)
// waits at most --wait-ms for each wait (default kDefaultWaitMs), says on
// stderr what it waits for when that lasts, and reports what it gave up
// on.  A new check is a CheckFn added to kChecks (cmd_check.cpp).
#ifndef PMDBCTL_CHECK_H
#define PMDBCTL_CHECK_H

#include <nlohmann/json.hpp>
#include <string>

#include "command.h"

namespace pmdbctl {

struct CheckOptions {
    bool json = false;
    std::string table;  // only this table; the other checks are skipped
    unsigned wait_ms = kDefaultWaitMs;
};

class CheckReport {
  public:
    // `name` of `kind` ("table", "region", "entry_lock", ...) is in order.
    void Ok(const char *kind, const std::string &name);
    // ... is not: `problem` is one line; `details` (an object) adds fields to
    // the item's JSON.
    void Problem(const char *kind, const std::string &name, const std::string &problem,
                 const nlohmann::ordered_json &details = nlohmann::ordered_json::object());
    bool HasProblems() const { return problems_ != 0; }
    // Text: "<name> ok" or "<name> <problem>", one line per item, and a
    // count of the problems on stderr.  JSON: an array of the items.
    void Print(bool as_json) const;

  private:
    nlohmann::ordered_json items_ = nlohmann::ordered_json::array();
    size_t problems_ = 0;
};

using CheckFn = void (*)(const CheckOptions &options, CheckReport &report);

// The card's own invariants (check_card.cpp): each IFH entry's
// sub_intf_count against its sub-interfaces, and PUNT and OAM entries whose
// interface has no IFH entry.  Nothing when --table is given.
void CheckCardInvariants(const CheckOptions &options, CheckReport &report);

// Whether a card (read live or from a snapshot) has none of the findings
// CheckCardInvariants reports.
struct CardView;
bool CardInvariantsHold(const CardView &card);

}  // namespace pmdbctl

#endif
