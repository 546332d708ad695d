// pmdbctl tables / check: the tables of the table store in the namespace.
//
//   pmdbctl tables [--json]                one line per table: entry size,
//                                          entries, capacity, max_entries,
//                                          occupancy, repairs, longest wait
//                                          for the writer lock
//   pmdbctl check [--table NAME] [--json]  the consistency check of every
//                                          table (or one): index, free slots,
//                                          counts, and every bundle's counters
//                                          against its members (cmd_repair.cpp);
//                                          exit status 1 when any has a fault
//
// The check takes each table's writer lock; a writer that died holding it
// is repaired on the way, as the next writer would.  A table that cannot be
// attached is one line on stderr and exit status 1.
#ifdef PMDBCTL_HAVE_TABRA

#include <stdio.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cmd_repair.h"
#include "command.h"
#include "format.h"
#include "tabra.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

std::vector<std::string> TableNames() {
    std::vector<std::string> names;
    tabra_list([](void *ctx,
                  const char *n) { static_cast<std::vector<std::string> *>(ctx)->push_back(n); },
               &names);
    std::sort(names.begin(), names.end());
    return names;
}

/* Attaches to table `name`; on failure reports it and returns null. */
tabra_hdl_t Attach(const std::string &name) {
    tabra_hdl_t h = nullptr;
    const cerrno st = tabra_attach(name.c_str(), &h);
    if (st != 0) {
        Fail("cannot attach to table " + name + ": status " + Hex(st));
        return nullptr;
    }
    return h;
}

double Occupancy(const tabra_info_t &info) {
    return info.capacity == 0 ? 0.0 : 100.0 * info.count / info.capacity;
}

json InfoJson(const tabra_info_t &info) {
    return json{{"name", info.name},
                {"entry_size", info.entry_size},
                {"entries", info.count},
                {"capacity", info.capacity},
                {"max_entries", info.max_entries},
                {"occupancy_percent", Occupancy(info)},
                {"hash_buckets", info.hash_buckets},
                {"object_size", info.object_size},
                {"adds", info.adds},
                {"removes", info.removes},
                {"repairs", info.repairs},
                {"max_lock_wait_ns", info.max_lock_wait_ns}};
}

struct TablesOptions {
    bool json = false;
};

int Tables(const TablesOptions &o) {
    json all = json::array();
    int status = 0;
    if (!o.json)
        printf("%-32s %6s %8s %8s %8s %9s %7s %12s\n", "TABLE", "ENTRY", "ENTRIES", "CAPACITY",
               "MAX", "OCCUPANCY", "REPAIRS", "MAX_WAIT_US");
    for (const std::string &name : TableNames()) {
        tabra_hdl_t h = Attach(name);
        tabra_info_t info{};
        if (h == nullptr || tabra_get_info(h, &info) != 0) {
            status = kExitFailure;
            continue;
        }
        if (o.json) {
            all.push_back(InfoJson(info));
            continue;
        }
        printf("%-32s %6u %8u %8u %8u %8.1f%% %7llu %12.1f\n", info.name, info.entry_size,
               info.count, info.capacity, info.max_entries, Occupancy(info),
               static_cast<unsigned long long>(info.repairs), info.max_lock_wait_ns / 1000.0);
    }
    if (o.json) std::cout << all.dump(2) << std::endl;
    return status;
}

struct CheckOptions {
    bool json = false;
    std::string table;
};

int Check(const CheckOptions &o) {
    std::vector<std::string> names = TableNames();
    if (!o.table.empty()) {
        if (std::find(names.begin(), names.end(), o.table) == names.end())
            return Fail("no table " + o.table + " in this namespace");
        names = {o.table};
    }
    json all = json::array();
    int status = 0;
    for (const std::string &name : names) {
        tabra_hdl_t h = Attach(name);
        if (h == nullptr) {
            status = kExitFailure;
            continue;
        }
        char report[256] = "";
        const cerrno st = tabra_check(h, report, sizeof report);
        if (st != 0) status = kExitFailure;
        const std::string problem = st == 0 ? "" : (report[0] ? report : "status " + Hex(st));
        if (o.json) {
            all.push_back(json{{"name", name}, {"ok", st == 0}, {"problem", problem}});
        } else {
            printf("%-32s %s\n", name.c_str(), st == 0 ? "ok" : problem.c_str());
        }
    }
#ifdef PMDBCTL_HAVE_PMDB
    if (o.table.empty() || o.table == PMDB_IFH_TABLE_NAME)
        status |= CheckBundleCounters(o.json ? &all : nullptr);
#endif
    if (o.json) std::cout << all.dump(2) << std::endl;
    if (status != 0 && !o.json) std::cerr << "pmdbctl: table check found problems" << std::endl;
    return status;
}

RunFn InstallTables(CLI::App &app) {
    auto *cmd = app.add_subcommand("tables", "List the tables of the table store");
    auto o = std::make_shared<TablesOptions>();
    cmd->add_flag("--json", o->json, "print JSON");
    return [o] { return Tables(*o); };
}

RunFn InstallCheck(CLI::App &app) {
    auto *cmd = app.add_subcommand("check", "Run the consistency check of the tables");
    auto o = std::make_shared<CheckOptions>();
    cmd->add_option("--table", o->table, "check only this table");
    cmd->add_flag("--json", o->json, "print JSON");
    return [o] { return Check(*o); };
}

const Registrar kTables("tables", InstallTables);
const Registrar kCheck("check", InstallCheck);

}  // namespace
}  // namespace pmdbctl

#endif
