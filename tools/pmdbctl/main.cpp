// pmdbctl - inspection tool of the port mapper database's host platform.
// Global options are applied before the chosen command runs; the commands
// are whatever the files of this directory registered (see command.h).
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>

#include "command.h"
#include "format.h"
#include "host/os_host.h"

namespace pmdbctl {
namespace {

std::vector<Registration> &Table() {
    static std::vector<Registration> table;
    return table;
}

// Shared with the signal handler: lock-free atomics, and a text that is
// written only while g_waiting is false.
std::atomic<bool> g_interrupted{false};
std::atomic<bool> g_defer{false};
std::atomic<bool> g_waiting{false};
char g_wait_what[256];

void WriteErr(const char *s) {
    size_t n = strlen(s);
    while (n > 0) {
        const ssize_t w = write(STDERR_FILENO, s, n);
        if (w <= 0) return;
        s += w;
        n -= static_cast<size_t>(w);
    }
}

// Async-signal-safe: atomics, strlen, write and _exit only.
void OnSignal(int sig) {
    g_interrupted.store(true);
    const bool waiting = g_waiting.load();
    if (g_defer.load() && !waiting) return;
    WriteErr("pmdbctl: interrupted");
    if (waiting) {
        WriteErr(" while waiting for ");
        WriteErr(g_wait_what);
    }
    WriteErr("\n");
    _exit(128 + sig);
}

void InstallSignalHandlers() {
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

}  // namespace

WaitingFor::WaitingFor(const std::string &what) {
    std::cout.flush();
    fflush(stdout);
    g_waiting.store(false);
    snprintf(g_wait_what, sizeof g_wait_what, "%s", Printable(what).c_str());
    g_waiting.store(true);
}

WaitingFor::~WaitingFor() { g_waiting.store(false); }

void DeferInterrupts() { g_defer.store(true); }

void AddWaitOption(CLI::App *cmd, unsigned *wait_ms, const char *what) {
    cmd->add_option("--wait-ms", *wait_ms, what)
        ->check(CLI::Range(0u, 3600000u))
        ->capture_default_str();
}

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

namespace {

int Main(int argc, char **argv) {
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
        Fail("invalid namespace '" + Printable(ns) + "' (1 to 40 of A-Z a-z 0-9 _ -, not sem)");
        return pmdbctl::kExitUsage;
    }
    if (!vorn_host_namespace_valid(vorn_host_namespace())) {
        const char *env = getenv(VORN_NS_ENV);
        Fail("invalid namespace '" + Printable(env != nullptr ? env : "") + "' in " VORN_NS_ENV
             " (1 to 40 of A-Z a-z 0-9 _ -, not sem)");
        return pmdbctl::kExitUsage;
    }
    pmdbctl::InstallSignalHandlers();

    for (CLI::App *sub : app.get_subcommands()) {
        auto it = runners.find(sub);
        if (it != runners.end()) return it->second();
    }
    return pmdbctl::Fail("no command given");
}

}  // namespace
}  // namespace pmdbctl

// No exception leaves the tool: whatever a command did not handle is one
// line on stderr and a failure status.
int main(int argc, char **argv) {
    try {
        return pmdbctl::Main(argc, argv);
    } catch (const std::exception &e) {
        return pmdbctl::Fail(std::string("internal error: ") + pmdbctl::Printable(e.what()));
    } catch (...) {
        return pmdbctl::Fail("internal error: unknown exception");
    }
}
