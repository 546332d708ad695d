// pmdbctl check (bundle counters) / repair: a bundle's member_count and
// out-of-resource counters against what its members give.
//
//   pmdbctl repair     completes the member changes that dead writers left
//                      half done and recounts every bundle whose counters
//                      disagree with its members, under its slot lock; one
//                      line per bundle it changed; exit status 0 when done,
//                      1 when a bundle could not be repaired; then
//                      recounts every parent's sub_intf_count from the
//                      sub-interfaces that name it, one line per change
//
// Both go through the library (dpa_pmdb_check_bundle_counts,
// dpa_pmdb_repair_bundle_counts), which holds the one statement of what the
// counters count.  A slot lock is waited for at most --wait-ms: a bundle whose
// lock stays held, or whose members a live writer keeps changing, is
// reported, not waited for.
#ifdef PMDBCTL_HAVE_PMDB

#include "cmd_repair.h"

#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "format.h"
#include "pmdb.h"
#include "pmdb_counts.h"

namespace pmdbctl {
namespace {

struct Finding {
    dpa_pmdb_bundle_counts_t counts;
    cerrno status;
};

void Collect(void *ctx, const dpa_pmdb_bundle_counts_t *c, cerrno status) {
    static_cast<std::vector<Finding> *>(ctx)->push_back({*c, status});
}

std::string BundleName(const dpa_pmdb_bundle_counts_t &c) { return "bundle " + Hex(c.bundle_ifh, 0); }

// "member_count 1 (members 2), oor_members_1 0 (0), oor_members_2 0 (1)":
// what the bundle stores, and in brackets what its members give.
std::string Disagreement(const dpa_pmdb_bundle_counts_t &c) {
    return "member_count " + std::to_string(c.member_count) + " (members " +
           std::to_string(c.members) + "), oor_members_1 " + std::to_string(c.oor_members_1) +
           " (" + std::to_string(c.level_1) + "), oor_members_2 " +
           std::to_string(c.oor_members_2) + " (" + std::to_string(c.level_2) + ")";
}

std::string NotExamined(cerrno status) {
    if (status == PMDB_EBUSY) return "busy: its lock stayed held or a member update is in flight";
    return "status " + Hex(status, 0);
}

std::string Problem(const Finding &f) {
    if (f.status != 0) return "not examined: " + NotExamined(f.status);
    return "counters disagree with members: " + Disagreement(f.counts);
}

// The library's answer about the member operation log, or "" when fine.
std::string LogProblem(cerrno rc) {
    if (rc != PMDB_ESHM) return rc == 0 ? "" : "status " + Hex(rc, 0);
    return std::string("member operation log ") + PMDB_MEMBER_OPS_NAME +
           " is damaged or not this user's";
}

void CollectSub(void *ctx, const dpa_pmdb_sub_counts_t *c, cerrno status) {
    static_cast<std::vector<std::pair<dpa_pmdb_sub_counts_t, cerrno>> *>(ctx)->push_back(
        {*c, status});
}

// Recounts every parent's sub_intf_count from the sub-interfaces naming it:
// one line per parent changed; false when one could not be repaired.
bool RepairSubCounts(unsigned wait_ms) {
    std::vector<std::pair<dpa_pmdb_sub_counts_t, cerrno>> found;
    dpa_pmdb_repair_sub_intf_counts(wait_ms, CollectSub, &found);
    bool ok = true;
    size_t repaired = 0;
    for (const auto &[c, status] : found) {
        const std::string name = "ifh " + Hex(c.parent_ifh);
        if (status != 0)
            printf("%s: not repaired: %s\n", name.c_str(), NotExamined(status).c_str());
        else
            printf("%s: sub_intf_count %u -> %u\n", name.c_str(), c.sub_intf_count, c.subs);
        ok = ok && status == 0;
        repaired += status == 0;
    }
    printf("%zu sub-interface count(s) repaired\n", repaired);
    return ok;
}

int Repair(unsigned wait_ms) {
    std::vector<Finding> found;
    const cerrno rc = dpa_pmdb_repair_bundle_counts(wait_ms, Collect, &found);
    if (rc == PMDB_ENOTFOUND) {
        printf("no IFH table in this namespace: nothing to repair\n");
        return 0;
    }
    int status = 0;
    unsigned repaired = 0;
    for (const Finding &f : found) {
        if (f.status != 0) {
            printf("%s: not repaired: %s\n", BundleName(f.counts).c_str(),
                   NotExamined(f.status).c_str());
            status = kExitFailure;
            continue;
        }
        const dpa_pmdb_bundle_counts_t &c = f.counts;
        printf("%s: member_count %u -> %u, oor_members_1 %u -> %u, oor_members_2 %u -> %u\n",
               BundleName(c).c_str(), c.member_count, c.members, c.oor_members_1, c.level_1,
               c.oor_members_2, c.level_2);
        repaired++;
    }
    const std::string log = LogProblem(rc);
    if (!log.empty()) return Fail(log);
    printf("%u bundle(s) repaired\n", repaired);
    if (!RepairSubCounts(wait_ms)) status = kExitFailure;
    return status;
}

RunFn InstallRepair(CLI::App &app) {
    auto *cmd = app.add_subcommand("repair",
                                   "Recount every bundle's member and out-of-resource counters "
                                   "from its members and every sub_intf_count from the "
                                   "sub-interfaces, under their locks");
    auto wait_ms = std::make_shared<unsigned>(kDefaultWaitMs);
    AddWaitOption(cmd, wait_ms.get(), "longest wait for one lock (ms)");
    return [wait_ms] { return Repair(*wait_ms); };
}

const Registrar kRepair("repair", InstallRepair);

}  // namespace

void CheckBundleCounters(const CheckOptions &o, CheckReport &report) {
    if (!o.table.empty() && o.table != PMDB_IFH_TABLE_NAME) return;
    std::vector<Finding> found;
    const cerrno rc = dpa_pmdb_check_bundle_counts(o.wait_ms, Collect, &found);
    if (rc == PMDB_ENOTFOUND) return;
    for (const Finding &f : found) report.Problem("bundle", BundleName(f.counts), Problem(f));
    const std::string log = LogProblem(rc);
    if (!log.empty()) report.Problem("member_ops", PMDB_MEMBER_OPS_NAME, log);
    if (found.empty() && log.empty()) report.Ok("bundle", "bundle counters");
}

}  // namespace pmdbctl

#endif
