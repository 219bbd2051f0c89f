// The configuration file of port_server.
#pragma once

#include <CLI/App.hpp>
#include <string>

namespace portsvc::server {

/// Gives the options of `command` that have no value yet those of the file at `path`; what an
/// option excludes counts as given with it. The file has lines KEY = VALUE, as INI or TOML without
/// sections: KEY is an option's name without its dashes, a flag's VALUE true or false; a list
/// stands in brackets, over several lines if need be, and an option that may be given several
/// times may have several lines. A comment begins with # at the start of a line or after a blank
/// outside of quotes. Throws CLI::ParseError that names the file, the line and the key, with
/// whatever the lines before have set.
void read_configuration(CLI::App& command, const std::string& path);

}  // namespace portsvc::server
