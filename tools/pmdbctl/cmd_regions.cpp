// pmdbctl regions / open: the shared context regions of the three databases.
//
//   pmdbctl regions [--wait-ms N] [--json]
//                                   each region mapped read-only: object
//                                   size, magic, the globals block, and how
//                                   many entry locks are initialised, held,
//                                   left by a dead owner, unrecoverable or
//                                   destroyed; each holder with its process,
//                                   thread, whether it is alive, and how long
//                                   it was seen holding (sampled for up to N
//                                   ms, default 200)
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

#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "lock_survey.h"
#include "pmdb.h"
#include "region_view.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

constexpr size_t kMaxHoldersListed = 16;
constexpr unsigned kRegionsWaitMs = 200;

json HoldersJson(const std::string &region, const std::vector<HeldLock> &held) {
    json holders = json::array();
    for (const HeldLock &h : held) {
        if (h.region != region || holders.size() == kMaxHoldersListed) continue;
        holders.push_back({{"slot", h.slot},
                           {"tid", h.tid},
                           {"pid", h.thread.pid},
                           {"alive", h.thread.alive},
                           {"still_held", h.still_held},
                           {"held_ms", h.held_ms}});
    }
    return holders;
}

json RegionJson(const RegionName &r, const RegionView &view, const LockCounts &n,
                const std::vector<HeldLock> &held) {
    json out{{"type", r.type}, {"object", r.object}};
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
    out["entry_locks"] = {{"initialised", n.initialised},
                          {"held", n.held},
                          {"dead_owner", n.dead_owner},
                          {"not_recoverable", n.not_recoverable},
                          {"destroyed", n.destroyed},
                          {"holders", HoldersJson(r.object, held)}};
    return out;
}

std::string HolderLine(const json &h) {
    const ThreadInfo t{h["alive"].get<bool>(), h["pid"].get<int>()};
    std::string line = "slot " + h["slot"].dump() + " " + HolderText(h["tid"].get<int>(), t);
    if (!t.alive) return line;
    const std::string ms = h["held_ms"].dump() + " ms";
    return line + (h["still_held"].get<bool>() ? ", held by it at every sample over " + ms
                                               : ", let go after " + ms + " of sampling");
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
    for (const json &h : l["holders"]) std::cout << "      " << HolderLine(h) << "\n";
}

struct RegionsOptions {
    bool json = false;
    unsigned wait_ms = kRegionsWaitMs;
};

int Regions(const RegionsOptions &o) {
    std::vector<std::unique_ptr<RegionView>> views;
    std::vector<LockCounts> counts;
    std::vector<HeldLock> held;
    for (const RegionName &r : kRegions) {
        views.push_back(std::make_unique<RegionView>(r.object));
        const dnx_pmdb_shrd_ctx_t *ctx = views.back()->ctx();
        counts.push_back(ctx != nullptr ? SurveyLocks(r.object, ctx, &held) : LockCounts{});
    }
    {
        const WaitingFor waiting("held entry locks to be let go (sampling their holders)");
        WatchLocks(held, std::chrono::milliseconds(o.wait_ms));
    }
    json regions = json::array();
    for (size_t i = 0; i < views.size(); i++)
        regions.push_back(RegionJson(kRegions[i], *views[i], counts[i], held));
    if (o.json) {
        std::cout << JsonText(json{{"namespace", vorn_host_namespace()}, {"regions", regions}})
                  << std::endl;
        return 0;
    }
    std::cout << "namespace " << vorn_host_namespace() << "\n";
    for (const json &r : regions) PrintRegion(r);
    return 0;
}

RunFn InstallRegions(CLI::App &app) {
    CLI::App *cmd = app.add_subcommand("regions", "Print the shared context regions and their locks");
    auto o = std::make_shared<RegionsOptions>();
    cmd->add_flag("--json", o->json, "JSON output");
    AddWaitOption(cmd, &o->wait_ms, "how long to sample the holders of entry locks (ms)");
    return [o] { return Regions(*o); };
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
        const WaitingFor waiting("the library to open the " + name + " database");
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
