// cmd_repair.h - the bundle counters part of `pmdbctl check` (the `repair`
// command that puts them right lives beside it, in cmd_repair.cpp).
#ifndef PMDBCTL_CMD_REPAIR_H
#define PMDBCTL_CMD_REPAIR_H

#include <nlohmann/json.hpp>

namespace pmdbctl {

// Checks every bundle's member_count and out-of-resource counters against
// its members.  With `rows` null: one line per bundle that disagrees (or
// "bundle counters ok"); otherwise one JSON object per bundle ({"name",
// "ok", "problem"}) appended to *rows.  0 when all agree (or there is no
// IFH table), kExitFailure otherwise.
int CheckBundleCounters(nlohmann::ordered_json *rows);

}  // namespace pmdbctl

#endif
