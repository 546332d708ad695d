// pmdbctl tables: the tables of the table store in the namespace.
//
//   pmdbctl tables [--json]                one line per table: entry size,
//                                          entries, capacity, max_entries,
//                                          occupancy, repairs, longest wait
//                                          for the writer lock, free slots
//                                          that pins keep out of use
//
// Reads each table's header without its writer lock.  A table that cannot
// be attached is one line on stderr and exit status 1.  (`check` is in
// cmd_check.cpp.)
#ifdef PMDBCTL_HAVE_TABRA

#include <stdio.h>

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "format.h"
#include "tables.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

/* Attaches to table `name`; on failure reports it and returns null. */
tabra_hdl_t Attach(const std::string &name) {
    tabra_hdl_t h = nullptr;
    const cerrno st = AttachTable(name, &h);
    if (st != 0) {
        Fail("cannot attach to table " + Printable(name) + ": " + TabraStatusText(st));
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
                {"max_lock_wait_ns", info.max_lock_wait_ns},
                {"pinned_free", info.pinned_free}};
}

struct TablesOptions {
    bool json = false;
};

int Tables(const TablesOptions &o) {
    json all = json::array();
    int status = 0;
    if (!o.json)
        printf("%-32s %6s %8s %8s %8s %9s %7s %12s %6s\n", "TABLE", "ENTRY", "ENTRIES", "CAPACITY",
               "MAX", "OCCUPANCY", "REPAIRS", "MAX_WAIT_US", "PINNED");
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
        printf("%-32s %6u %8u %8u %8u %8.1f%% %7llu %12.1f %6u\n", info.name, info.entry_size,
               info.count, info.capacity, info.max_entries, Occupancy(info),
               static_cast<unsigned long long>(info.repairs), info.max_lock_wait_ns / 1000.0,
               info.pinned_free);
    }
    if (o.json) std::cout << JsonText(all) << std::endl;
    return status;
}

RunFn InstallTables(CLI::App &app) {
    auto *cmd = app.add_subcommand("tables", "List the tables of the table store");
    auto o = std::make_shared<TablesOptions>();
    cmd->add_flag("--json", o->json, "print JSON");
    return [o] { return Tables(*o); };
}

const Registrar kTables("tables", InstallTables);

}  // namespace
}  // namespace pmdbctl

#endif
