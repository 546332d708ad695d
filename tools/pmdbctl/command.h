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

// SIGINT and SIGTERM end the tool at once: one line on stderr ("pmdbctl:
// interrupted", naming what it was waiting for, see WaitingFor) and exit
// status 128 + the signal.  A command that follows output until it is
// interrupted (trace --follow) calls DeferInterrupts: outside a WaitingFor
// the signal then only sets the flag that Interrupted() reads, and the
// command ends at its next safe point with its own status.
void DeferInterrupts();
bool Interrupted();

// Names what the command waits for while the object lives, for the line
// that an interrupt prints ("interrupted while waiting for <what>").
// Standard output is flushed first, so that an interrupt loses nothing
// already printed.  Not nested.
class WaitingFor {
public:
    explicit WaitingFor(const std::string &what);
    ~WaitingFor();
    WaitingFor(const WaitingFor &) = delete;
    WaitingFor &operator=(const WaitingFor &) = delete;
};

// The default and the option of the bound on each wait of a command.
constexpr unsigned kDefaultWaitMs = 2000;
void AddWaitOption(CLI::App *cmd, unsigned *wait_ms, const char *what);

}  // namespace pmdbctl

#endif
