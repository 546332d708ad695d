// pmdbctl check: the consistency of the namespace's tables and shared
// context regions (see check.h for the command and the report).
//
//   tables        the table store's check of each table (index, free slots,
//                 counts) under the table's writer lock, waited for at most
//                 --wait-ms; a table the store refuses to attach is a problem
//                 with the store's status.  A writer that died holding the
//                 lock is repaired on the way, as the next writer would.
//   regions       each region that exists: object size and magic
//   entry locks   locks naming a thread that no longer exists (their writers
//                 would wait for ever), locks that live threads hold at
//                 every sample for --wait-ms, and locks that a dead holder
//                 left (or a holder left not recoverable); each named with
//                 the key of the entry in its slot
//   bundles       each bundle's member and out-of-resource counters against
//                 its members (cmd_repair.cpp), when pmdbctl has the library
//   card          sub-interface counts and PUNT and OAM entries whose
//                 interface is gone (check_card.cpp)
//
// The entry locks are looked at first and only looked at: the later checks
// read entries through the library and the reader library, which take a
// lock that a dead holder left over (as any writer or reader of it would).
// Nothing here writes to a region.
#ifdef PMDBCTL_HAVE_TABRA

#include <stdio.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "cmd_repair.h"
#include "format.h"
#include "lock_survey.h"
#include "pmdb_fields.h"
#include "region_view.h"
#include "tables.h"

namespace pmdbctl {

using json = nlohmann::ordered_json;

void CheckReport::Ok(const char *kind, const std::string &name) {
    items_.push_back({{"kind", kind}, {"name", Printable(name)}, {"ok", true}, {"problem", ""}});
}

void CheckReport::Problem(const char *kind, const std::string &name, const std::string &problem,
                          const json &details) {
    json item{{"kind", kind}, {"name", Printable(name)}, {"ok", false}, {"problem", problem}};
    item.update(details);
    items_.push_back(item);
    problems_++;
}

void CheckReport::Print(bool as_json) const {
    if (as_json) {
        std::cout << JsonText(items_) << std::endl;
        return;
    }
    for (const json &i : items_) {
        const std::string name = i["name"].get<std::string>();
        const std::string text = i["ok"].get<bool>() ? "ok" : i["problem"].get<std::string>();
        printf("%-32s %s\n", name.c_str(), text.c_str());
    }
    fflush(stdout);
    if (problems_ != 0)
        std::cerr << "pmdbctl: check found " << problems_ << " problem(s)" << std::endl;
}

namespace {

// Waits shorter than this are not announced on stderr.
constexpr unsigned kAnnounceAfterMs = 100;

// The store's check of table `h`, waiting at most wait_ms for its writer
// lock; announces the wait once it has lasted kAnnounceAfterMs.
cerrno CheckWithin(tabra_hdl_t h, const std::string &name, unsigned wait_ms, char *text, size_t len,
                   i32 *holder) {
    const std::string what = "the writer lock of table " + name;
    const WaitingFor waiting(what);
    const unsigned first = std::min(wait_ms, kAnnounceAfterMs);
    const cerrno st = tabra_check_within(h, text, len, first, holder);
    if (st != TABRA_E_TIMEDOUT || wait_ms == first) return st;
    std::cerr << "pmdbctl: waiting up to " << wait_ms << " ms for " << what << ", held by "
              << HolderText(*holder, LookUpThread(*holder)) << std::endl;
    return tabra_check_within(h, text, len, wait_ms - first, holder);
}

void CheckTable(const std::string &name, unsigned wait_ms, CheckReport &report) {
    tabra_hdl_t h = nullptr;
    cerrno st = AttachTable(name, &h);
    if (st != 0) return report.Problem("table", name, "cannot be attached: " + TabraStatusText(st));
    char text[256] = "";
    i32 holder = 0;
    st = CheckWithin(h, name, wait_ms, text, sizeof text, &holder);
    if (st == 0) return report.Ok("table", name);
    if (st != TABRA_E_TIMEDOUT)
        return report.Problem("table", name, text[0] != '\0' ? text : TabraStatusText(st));
    const ThreadInfo t = LookUpThread(holder);
    report.Problem("table", name,
                   "gave up after " + std::to_string(wait_ms) + " ms: writer lock held by " +
                       HolderText(holder, t),
                   {{"holder_tid", holder}, {"holder_pid", t.pid}, {"holder_alive", t.alive}});
}

void CheckTables(const CheckOptions &o, CheckReport &report) {
    for (const std::string &name : TableNames())
        if (o.table.empty() || name == o.table) CheckTable(name, o.wait_ms, report);
}

void CheckRegions(const CheckOptions &o, CheckReport &report) {
    if (!o.table.empty()) return;
    for (const RegionName &r : kRegions) {
        const RegionView view(r.object);
        if (!view.present()) continue;  // no process has opened the type yet
        const size_t want = RegionObjectSize();
        if (view.size() < want) {
            report.Problem("region", r.object,
                           "object is " + std::to_string(view.size()) + " bytes, a region " +
                               std::to_string(want) + ": truncated");
        } else if (view.ctx() == nullptr) {
            report.Problem("region", r.object, "cannot be mapped");
        } else if (view.magic() != PMDB_SHRD_CTX_MAGIC) {
            report.Problem("region", r.object,
                           "magic " + Hex(view.magic()) + ", not " + Hex(PMDB_SHRD_CTX_MAGIC) +
                               ": not initialised, or damaged");
        } else {
            report.Ok("region", r.object);
        }
    }
}

json LockDetails(const HeldLock &h) {
    return {{"slot", h.slot},
            {"tid", h.tid},
            {"pid", h.thread.pid},
            {"alive", h.thread.alive},
            {"held_ms", h.held_ms}};
}

// The key of the entry in each slot of table `table` (none when it cannot
// be attached).
std::map<u32, u32> SlotKeys(const char *table) {
    std::map<u32, u32> keys;
    tabra_hdl_t h = nullptr;
    if (AttachTable(table, &h) != 0) return keys;
    tabra_walk(
        h,
        [](void *ctx, u32 key, i32 slot, const void *) {
            (*static_cast<std::map<u32, u32> *>(ctx))[static_cast<u32>(slot)] = key;
            return 0;
        },
        &keys);
    return keys;
}

// Names locks as "dnx_pmdb_ifh_shrd slot 5 (ifh 0x00001002)": the lock and
// the entry it guards, when its slot holds one.  Each table is walked once,
// the first time one of its locks is named.
class LockNamer {
public:
    std::string operator()(const std::string &region, u32 slot) {
        size_t t = 0;
        while (t + 1 < std::size(kRegions) && region != kRegions[t].object) t++;
        if (!walked_[t]) keys_[t] = SlotKeys(pmdb_fields::kTableName[t]);
        walked_[t] = true;
        std::string name = region + " slot " + std::to_string(slot);
        const auto k = keys_[t].find(slot);
        if (k == keys_[t].end()) return name;
        return name + " (" + kRegions[t].type + " " + Hex(k->second) + ")";
    }

private:
    std::map<u32, u32> keys_[std::size(kRegions)];
    bool walked_[std::size(kRegions)] = {};
};

void ReportHeld(const HeldLock &h, LockNamer &name, CheckReport &report) {
    const std::string who = HolderText(h.tid, h.thread);
    report.Problem("entry_lock", name(h.region, h.slot),
                   h.thread.alive ? "held by " + who + " at every sample over " +
                                        std::to_string(h.held_ms) + " ms"
                                  : "names " + who + ": its writers wait for ever",
                   LockDetails(h));
}

void ReportLeft(const LeftLock &l, LockNamer &name, CheckReport &report) {
    report.Problem("entry_lock", name(l.region, l.slot),
                   l.not_recoverable
                       ? "not recoverable: a holder let it go without making it consistent, "
                         "its entry can no longer be changed"
                       : "left by a dead owner: its entry may hold a half-done change (the "
                         "next writer or reader takes the lock over)",
                   {{"slot", l.slot}, {"not_recoverable", l.not_recoverable}});
}

void CheckEntryLocks(const CheckOptions &o, CheckReport &report) {
    if (!o.table.empty()) return;
    std::vector<std::unique_ptr<RegionView>> views;
    std::vector<HeldLock> held;
    std::vector<LeftLock> left;
    for (const RegionName &r : kRegions) {
        views.push_back(std::make_unique<RegionView>(r.object));
        const RegionView &v = *views.back();
        if (v.ctx() != nullptr && v.magic() == PMDB_SHRD_CTX_MAGIC)
            SurveyLocks(r.object, v.ctx(), &held, &left);
    }
    if (const size_t live = LiveHolders(held); live != 0) {
        std::cerr << "pmdbctl: sampling " << live
                  << " entry lock(s) held by live threads for up to " << o.wait_ms << " ms"
                  << std::endl;
        const WaitingFor waiting(std::to_string(live) + " held entry lock(s) to be let go");
        WatchLocks(held, std::chrono::milliseconds(o.wait_ms));
    }
    LockNamer name;
    for (const HeldLock &h : held)
        if (h.still_held) ReportHeld(h, name, report);
    for (const LeftLock &l : left) ReportLeft(l, name, report);
}

// Independent of each other; each adds its own items.
constexpr CheckFn kChecks[] = {CheckTables, CheckRegions, CheckEntryLocks,
#ifdef PMDBCTL_HAVE_PMDB
                               CheckBundleCounters,
#endif
#ifdef PMDBCTL_HAVE_PMDB_READER
                               CheckCardInvariants,
#endif
};

int Check(const CheckOptions &o) {
    if (!o.table.empty()) {
        const std::vector<std::string> names = TableNames();
        if (std::find(names.begin(), names.end(), o.table) == names.end())
            return Fail("no table " + Printable(o.table) + " in this namespace");
    }
    CheckReport report;
    for (CheckFn check : kChecks) check(o, report);
    report.Print(o.json);
    return report.HasProblems() ? kExitFailure : 0;
}

RunFn InstallCheck(CLI::App &app) {
    auto *cmd = app.add_subcommand("check", "Check the tables, regions and entry locks");
    auto o = std::make_shared<CheckOptions>();
    cmd->add_option("--table", o->table, "check only this table");
    AddWaitOption(cmd, &o->wait_ms, "longest wait for one lock (ms)");
    cmd->add_flag("--json", o->json, "print JSON");
    return [o] { return Check(*o); };
}

const Registrar kCheck("check", InstallCheck);

}  // namespace
}  // namespace pmdbctl

#endif
