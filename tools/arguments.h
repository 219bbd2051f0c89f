// CLI11 takes an argument in brackets for a list and splits it at its commas. A payload such as
// [1,2] must arrive as it is, so arguments that begin with a bracket get a mark in front before
// the command line is parsed, and positional arguments lose it again.
#pragma once

#include <string>
#include <vector>

namespace portsvc::tools {

/// The arguments of the process without its name, marked, in the order CLI::App::parse takes them
/// from a vector: the last first.
std::vector<std::string> shielded_arguments(int argc, const char* const* argv);

/// The argument without its mark.
std::string unshielded(std::string argument);

}  // namespace portsvc::tools
