// pmdbctl globals [--json]: the node values that the IFH region publishes to
// every process of the card - which node indices are high-scale nodes, the
// current high-scale node, and the recorded inventory node with its MAC.
//
// The region is mapped read-only and only the magic and the globals block
// are read (no lock): the values are plain words that writers change
// without a lock, so the output is a snapshot in which the mask and the
// node may come from different updates.
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "pmdb.h"
#include "region_view.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

struct Options {
    bool json = false;
};

struct Snapshot {
    u32 magic = 0;
    dnx_pmdb_glbls_t glbls{};
};

// Reads the IFH region; on failure returns false with the reason in *why.
bool ReadRegion(Snapshot *s, std::string *why) {
    const RegionView view(PMDB_IFH_SHM_NAME);
    if (!view.present()) {
        *why = "no IFH region in namespace '" + std::string(vorn_host_namespace()) +
               "' (no process has opened the IFH database)";
        return false;
    }
    if (view.ctx() == nullptr) {
        *why = std::string("IFH region ") + PMDB_IFH_SHM_NAME +
               " is too short to hold its globals, or cannot be mapped";
        return false;
    }
    s->magic = view.magic();
    s->glbls = view.ctx()->glbls;
    return true;
}

json NodeIndices(u32 mask) {
    json out = json::array();
    for (u32 i = 0; i < 32; i++)
        if ((mask >> i) & 1u) out.push_back(i);
    return out;
}

json ToJson(const Snapshot &s) {
    const dnx_pmdb_glbls_t &g = s.glbls;
    return json{{"namespace", vorn_host_namespace()},
                {"object", PMDB_IFH_SHM_NAME},
                {"initialised", s.magic == PMDB_SHRD_CTX_MAGIC},
                {"hs_node_mask", Hex(g.hs_node_mask)},
                {"hs_node_indices", NodeIndices(g.hs_node_mask)},
                {"hs_node_id", g.hs_node_id},
                {"inv_node_id", g.inv_node_id},
                {"inv_node_recorded", g.inv_node_id != 0},
                {"inv_node_mac", Mac(g.inv_node_mac)}};
}

void PrintText(const json &j) {
    std::string indices;
    for (const auto &i : j["hs_node_indices"]) indices += " " + std::to_string(i.get<u32>());
    std::cout << "ifh region " << j["object"].get<std::string>() << " (namespace "
              << j["namespace"].get<std::string>() << ")\n"
              << "hs_node_mask  " << j["hs_node_mask"].get<std::string>() << "  indices:"
              << (indices.empty() ? " none" : indices) << "\n"
              << "hs_node_id    " << j["hs_node_id"].get<u32>() << "\n"
              << "inv_node_id   " << j["inv_node_id"].get<u32>()
              << (j["inv_node_recorded"].get<bool>() ? "" : "  (none recorded)") << "\n"
              << "inv_node_mac  " << j["inv_node_mac"].get<std::string>() << "\n";
}

int Globals(const Options &opts) {
    Snapshot s;
    std::string why;
    if (!ReadRegion(&s, &why)) return Fail(why);
    if (s.magic != PMDB_SHRD_CTX_MAGIC)
        return Fail(std::string("IFH region ") + PMDB_IFH_SHM_NAME + " has no magic (" +
                    Hex(s.magic) + "): it is not initialised");
    const json j = ToJson(s);
    if (opts.json)
        std::cout << JsonText(j) << "\n";
    else
        PrintText(j);
    return 0;
}

RunFn Install(CLI::App &app) {
    auto *cmd = app.add_subcommand(
        "globals", "Node values of the IFH region: high-scale mask and node, inventory node");
    auto opts = std::make_shared<Options>();
    cmd->add_flag("--json", opts->json, "print JSON");
    return [opts] { return Globals(*opts); };
}

const Registrar kGlobals("globals", Install);

}  // namespace
}  // namespace pmdbctl
