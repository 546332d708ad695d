// pmdbctl settings: the host platform settings in effect and where each
// came from (default, environment, setter).
//
//   pmdbctl settings [--json]
#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "command.h"
#include "format.h"
#include "host/settings.h"

namespace pmdbctl {
namespace {

struct Options {
    bool json = false;
};

std::vector<pmdb_host_setting_t> Collect() {
    std::vector<pmdb_host_setting_t> all;
    pmdb_host_settings_each(
        [](void *ctx, const pmdb_host_setting_t *s) {
            static_cast<std::vector<pmdb_host_setting_t> *>(ctx)->push_back(*s);
        },
        &all);
    return all;
}

int Run(const Options &o) {
    const std::vector<pmdb_host_setting_t> all = Collect();
    if (o.json) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const pmdb_host_setting_t &s : all) {
            out.push_back({{"name", Printable(s.name)},
                           {"value", Printable(s.value)},
                           {"source", pmdb_setting_source_name(s.source)},
                           {"env", s.env}});
        }
        std::cout << JsonText(out) << std::endl;
        return 0;
    }
    std::cout << std::left << std::setw(54) << "NAME" << std::setw(20) << "VALUE"
              << std::setw(13) << "SOURCE" << "ENV\n";
    for (const pmdb_host_setting_t &s : all) {
        std::cout << std::setw(54) << Printable(s.name) << std::setw(20) << Printable(s.value)
                  << std::setw(13)
                  << pmdb_setting_source_name(s.source) << s.env << '\n';
    }
    return 0;
}

RunFn Install(CLI::App &app) {
    auto opts = std::make_shared<Options>();
    CLI::App *cmd = app.add_subcommand("settings", "Print the host platform settings in effect");
    cmd->add_flag("--json", opts->json, "JSON output");
    return [opts] { return Run(*opts); };
}

const Registrar kSettings("settings", Install);

}  // namespace
}  // namespace pmdbctl
