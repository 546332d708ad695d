// pmdbctl regions / open: the shared context regions of the three databases.
//
//   pmdbctl regions [--json]        each region mapped read-only: object
//                                   size, magic, the globals block, and how
//                                   many entry locks are initialised, held,
//                                   left by a dead owner, unrecoverable or
//                                   destroyed (with the holders' thread ids)
//   pmdbctl open [--write] [TYPE..] opens databases through the library, as
//                                   a process of the card would (creates the
//                                   regions and tables on first use)
//
// `regions` never writes to a region and never takes a lock: the counts
// are a snapshot of locks that may change while they are read.  A holder
// counts as dead when its thread no longer exists (the robust-lock word
// may not say so yet, e.g. for a plain, zero-filled slot).
#include <stdio.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "../../port-mapper/lib/pmdb/src/pmdb_lock_view.h"
#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "pmdb.h"
#include "region_view.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

struct RegionName {
    const char *type;
    const char *object;
};
constexpr RegionName kRegions[] = {{"ifh", PMDB_IFH_SHM_NAME},
                                   {"punt", PMDB_PUNT_SHM_NAME},
                                   {"oam", PMDB_OAM_SHM_NAME}};
constexpr size_t kMaxHoldersListed = 16;

bool ThreadAlive(int tid) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", tid);
    return access(path, F_OK) == 0;
}

json LockCounts(const dnx_pmdb_shrd_ctx_t *ctx) {
    unsigned initialised = 0, held = 0, dead = 0, unrecoverable = 0, destroyed = 0;
    json holders = json::array();
    for (u32 slot = 0; slot < PMDB_NUM_ENTRY_LOCKS; slot++) {
        pmdb_lock_view_t v;
        pmdb_lock_inspect(&ctx->entry_lock[slot], &v);
        initialised += v.initialised;
        destroyed += v.destroyed;
        unrecoverable += v.not_recoverable;
        const bool gone = v.held && !ThreadAlive(v.owner_tid);
        dead += v.owner_died || gone;
        held += v.held && !gone;
        if (v.held && holders.size() < kMaxHoldersListed)
            holders.push_back({{"slot", slot}, {"tid", v.owner_tid}, {"alive", !gone}});
    }
    return json{{"initialised", initialised}, {"held", held},       {"dead_owner", dead},
                {"not_recoverable", unrecoverable}, {"destroyed", destroyed}, {"holders", holders}};
}

json RegionJson(const RegionName &r) {
    json out{{"type", r.type}, {"object", r.object}};
    const RegionView view(r.object);
    out["present"] = view.present();
    if (!view.present()) return out;
    out["object_size"] = view.size();
    const dnx_pmdb_shrd_ctx_t *ctx = view.ctx();
    if (ctx == nullptr) {
        out["error"] = "too small to be a region, or not mappable";
        return out;
    }
    const u32 magic = view.magic();
    out["magic"] = Hex(magic);
    out["initialised"] = magic == PMDB_SHRD_CTX_MAGIC;
    const dnx_pmdb_glbls_t &g = ctx->glbls;
    out["globals"] = {{"hs_node_mask", Hex(g.hs_node_mask)},
                      {"hs_node_id", g.hs_node_id},
                      {"inv_node_id", g.inv_node_id},
                      {"inv_node_mac", Mac(g.inv_node_mac)}};
    out["entry_locks"] = LockCounts(ctx);
    return out;
}

void PrintRegion(const json &r) {
    std::cout << r["type"].get<std::string>() << "  " << r["object"].get<std::string>();
    if (!r["present"].get<bool>()) {
        std::cout << "  absent\n";
        return;
    }
    std::cout << "  size " << r["object_size"].get<size_t>();
    if (r.contains("error")) {
        std::cout << "  " << r["error"].get<std::string>() << "\n";
        return;
    }
    std::cout << "  magic " << r["magic"].get<std::string>()
              << (r["initialised"].get<bool>() ? " (initialised)" : " (NOT initialised)") << "\n";
    const json &g = r["globals"];
    std::cout << "    globals: hs_node_mask " << g["hs_node_mask"].get<std::string>()
              << "  hs_node_id " << g["hs_node_id"] << "  inv_node_id " << g["inv_node_id"]
              << "  inv_node_mac " << g["inv_node_mac"].get<std::string>() << "\n";
    const json &l = r["entry_locks"];
    std::cout << "    entry locks: initialised " << l["initialised"] << "  held " << l["held"]
              << "  dead owner " << l["dead_owner"] << "  not recoverable "
              << l["not_recoverable"] << "  destroyed " << l["destroyed"] << "\n";
    for (const json &h : l["holders"]) {
        std::cout << "      slot " << h["slot"] << " tid " << h["tid"]
                  << (h["alive"].get<bool>() ? "" : " (gone)") << "\n";
    }
}

int Regions(bool as_json) {
    json regions = json::array();
    for (const RegionName &r : kRegions) regions.push_back(RegionJson(r));
    if (as_json) {
        std::cout << json{{"namespace", vorn_host_namespace()}, {"regions", regions}}.dump(2)
                  << std::endl;
        return 0;
    }
    std::cout << "namespace " << vorn_host_namespace() << "\n";
    for (const json &r : regions) PrintRegion(r);
    return 0;
}

RunFn InstallRegions(CLI::App &app) {
    CLI::App *cmd = app.add_subcommand("regions", "Print the shared context regions and their locks");
    auto as_json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *as_json, "JSON output");
    return [as_json] { return Regions(*as_json); };
}
const Registrar kRegionsCmd("regions", InstallRegions);

#ifdef PMDBCTL_HAVE_PMDB
struct OpenOptions {
    bool write = false;
    std::vector<std::string> types;
};

int OpenOne(const std::string &name, bool write) {
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        if (name != kRegions[t].type) continue;
        const auto type = static_cast<pmdb_type_t>(t);
        dnx_db_hdl_t *hdl = nullptr;
        cerrno rc = dpa_chk_pmdb_open(nullptr, &hdl, type, write ? 1 : 0);
        if (rc == 0 && write) rc = dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, type);
        if (rc != 0) return Fail("opening " + name + " failed with status " + Hex(rc));
        std::cout << name << ": open, table " << hdl->cfg->table_name << ", region "
                  << hdl->cfg->shm_name << (write ? ", write access taken and dropped" : "")
                  << "\n";
        return 0;
    }
    return Fail("unknown database type '" + name + "' (ifh, punt or oam)");
}

int Open(const OpenOptions &opts) {
    std::vector<std::string> types = opts.types;
    if (types.empty()) types = {"ifh", "punt", "oam"};
    int status = 0;
    for (const std::string &t : types) status |= OpenOne(t, opts.write);
    return status;
}

RunFn InstallOpen(CLI::App &app) {
    CLI::App *cmd = app.add_subcommand("open", "Open databases as a process of the card would");
    auto opts = std::make_shared<OpenOptions>();
    cmd->add_flag("--write", opts->write, "open with write intent, then release it");
    cmd->add_option("types", opts->types, "ifh, punt, oam (default: all three)");
    return [opts] { return Open(*opts); };
}
const Registrar kOpenCmd("open", InstallOpen);
#endif

}  // namespace
}  // namespace pmdbctl
