// A shell command as a filter: bytes in, bytes out.
#pragma once

#include <string>

#include "platform/child_process.h"

namespace portsvc::tools {

using CommandResult = Filtered;

/// Runs `command` as a filter of `input` (see run_filter). An interruption ends the command and all
/// it has started, and throws Interrupted. Throws Failure when no process can be made.
CommandResult run_shell_command(const std::string& command, const std::string& input);

}  // namespace portsvc::tools
