// command.h - how pmdbctl commands register themselves.
//
// Each command lives in its own file of tools/pmdbctl/ and registers an
// installer with a file-scope Registrar; main() installs every registered
// command before parsing, so adding a command never touches main.cpp:
//
//   namespace {
//   pmdbctl::RunFn Install(CLI::App &app) {
//       auto *cmd = app.add_subcommand("dump", "Print a table");
//       auto opts = std::make_shared<Options>();
//       cmd->add_option("--table", opts->table, "table name")->required();
//       return [opts] { return Dump(*opts); };   // runs when "dump" is given
//   }
//   const pmdbctl::Registrar kDump("dump", Install);
//   }
//
// The runner runs after the whole command line is parsed and the global
// options (--ns) are applied; its result is the exit status.  Runners
// report errors with pmdbctl::Fail (one line on stderr, non-zero result).
#ifndef PMDBCTL_COMMAND_H
#define PMDBCTL_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace pmdbctl {

using RunFn = std::function<int()>;
using Installer = RunFn (*)(CLI::App &app);

struct Registration {
    const char *name;  // the subcommand's name, for ordering and duplicates
    Installer install;
};

class Registrar {
public:
    Registrar(const char *name, Installer install);
};

// Every registered command, sorted by name.
std::vector<Registration> Registrations();

// Prints "pmdbctl: <message>" on stderr and returns the failure status.
int Fail(const std::string &message);
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Set by SIGINT/SIGTERM while a command follows output (trace --follow).
bool Interrupted();

}  // namespace pmdbctl

#endif
