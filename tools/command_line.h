// The whole command line of portctl. It stands apart from main so that the manual page, the shell's
// completion and the tests read the same definitions.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/commands.h"
#include "tools/session.h"

namespace portsvc::tools {

/// The options that stand before the command.
void describe_global_options(CLI::App& app, GlobalOptions& options);

/// All options and commands. `commands.app` is the program, made without anything yet.
void describe_portctl(Commands& commands, GlobalOptions& options);

}  // namespace portsvc::tools
