// pmdbctl - inspection tool of the port mapper database's host platform.
// Global options are applied before the chosen command runs; the commands
// are whatever the files of this directory registered (see command.h).
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <map>

#include "command.h"
#include "host/os_host.h"

namespace pmdbctl {
namespace {

std::vector<Registration> &Table() {
    static std::vector<Registration> table;
    return table;
}

std::atomic<bool> g_interrupted{false};

void OnSignal(int) { g_interrupted.store(true); }

}  // namespace

Registrar::Registrar(const char *name, Installer install) { Table().push_back({name, install}); }

std::vector<Registration> Registrations() {
    std::vector<Registration> all = Table();
    std::sort(all.begin(), all.end(), [](const Registration &a, const Registration &b) {
        return std::string(a.name) < b.name;
    });
    return all;
}

int Fail(const std::string &message) {
    std::cerr << "pmdbctl: " << message << std::endl;
    return kExitFailure;
}

bool Interrupted() { return g_interrupted.load(); }

}  // namespace pmdbctl

int main(int argc, char **argv) {
    CLI::App app{"Inspect the port mapper database's host platform", "pmdbctl"};
    app.require_subcommand(1);
    std::string ns;
    const CLI::Option *ns_opt =
        app.add_option("--ns", ns, "namespace of the shared objects (default: $PMDB_NS or pmdb)");

    std::map<CLI::App *, pmdbctl::RunFn> runners;
    for (const pmdbctl::Registration &r : pmdbctl::Registrations()) {
        const size_t before = app.get_subcommands({}).size();
        pmdbctl::RunFn run = r.install(app);
        const auto subs = app.get_subcommands({});
        if (subs.size() == before + 1) runners[subs.back()] = std::move(run);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::cerr << "pmdbctl: " << e.what() << std::endl;
        return pmdbctl::kExitUsage;
    }

    /* An empty or invalid name, given or from PMDB_NS, never falls back to
     * the card's own namespace. */
    if (ns_opt->count() > 0 && vorn_host_set_namespace(ns.c_str()) != 0) {
        pmdbctl::Fail("invalid namespace '" + ns + "' (1 to 40 of A-Z a-z 0-9 _ -, not sem)");
        return pmdbctl::kExitUsage;
    }
    if (!vorn_host_namespace_valid(vorn_host_namespace())) {
        pmdbctl::Fail("invalid namespace '" + std::string(getenv(VORN_NS_ENV)) +
                      "' in " VORN_NS_ENV " (1 to 40 of A-Z a-z 0-9 _ -, not sem)");
        return pmdbctl::kExitUsage;
    }
    struct sigaction sa {};
    sa.sa_handler = pmdbctl::OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    for (CLI::App *sub : app.get_subcommands()) {
        auto it = runners.find(sub);
        if (it != runners.end()) return it->second();
    }
    return pmdbctl::Fail("no command given");
}
