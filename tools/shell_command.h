// A shell command as a filter: bytes in, bytes out.
#pragma once

#include <string>

namespace portsvc::tools {

/// What a command printed and how it ended.
struct CommandResult {
  std::string output;  ///< its standard output
  int status = 0;      ///< exit status, or 128 + the signal that ended it
};

/// Runs `command` with /bin/sh, `input` on its standard input. A command that does not read its
/// input, or that prints more than it reads, is no trouble. An interruption ends the command and
/// all it has started, and throws Interrupted. Throws Failure when no process can be made.
CommandResult run_shell_command(const std::string& command, const std::string& input);

}  // namespace portsvc::tools
