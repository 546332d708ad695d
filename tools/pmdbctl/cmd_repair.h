// cmd_repair.h - the bundle counters part of `pmdbctl check` (the `repair`
// command that puts them right lives beside it, in cmd_repair.cpp).
#ifndef PMDBCTL_CMD_REPAIR_H
#define PMDBCTL_CMD_REPAIR_H

#include "check.h"

namespace pmdbctl {

// Checks every bundle's member_count and out-of-resource counters against
// its members: one item per bundle that disagrees or could not be examined,
// one for a damaged member operation log, else one "bundle counters" ok
// item.  Nothing when there is no IFH table, or --table names another.
// Each lock is waited for at most options.wait_ms.
void CheckBundleCounters(const CheckOptions &options, CheckReport &report);

}  // namespace pmdbctl

#endif
