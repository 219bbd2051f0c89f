// The command line of port_server.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/peer_options.h"
#include "server/log.h"

namespace portsvc::server {

enum class Role { main, sub };

/// BOX=COMMAND: an event box and the command whose lines go into it.
struct Feed_Option {
  std::string box;
  std::string command;
};

struct Options : cli::PeerOptions {
  Role role = Role::main;
  std::string configuration;   ///< the file that was read, empty for none
  bool check_only = false;     ///< look at the options and at the files they name, and end
  std::string name;            ///< the server's name in the directory
  std::string main_server;     ///< sub role: the main server's name in the directory
  std::string interface_name;  ///< the name itself unless chosen
  std::string endpoint = "giop:tcp:127.0.0.1:9700";
  std::string ior_file;   ///< empty for none
  std::string state_dir;  ///< empty: $STATE_DIRECTORY, the executable's folder without it
  bool restore = false;
  bool restore_damaged = false;     ///< implies restore
  unsigned int snapshot_every = 0;  ///< seconds, 0 for never
  unsigned int sub_timeout = 60;    ///< main role: seconds of silence that end a sub server, 0 none
  unsigned int message_timeout = 120;  ///< seconds a message may take to arrive or to be taken
  std::string waits = "early";         ///< or "paused"
  // What there may be at a time, docs/operations.md.
  std::uint64_t max_connections = 0;  ///< 0: 16000, or what the open files leave room for
  std::uint64_t max_blocked_calls = 16'000;
  std::uint64_t max_ports = 1'000'000;
  std::uint64_t max_clients = 100'000;  ///< of one port
  std::uint64_t max_queued_bytes = 0;   ///< 0: half of the memory there is
  Log_Options log;
  std::string metrics;                               ///< HOST:PORT, empty for none
  std::map<std::string, std::string> other_metrics;  ///< those of other servers, by name
  std::vector<Feed_Option> feeds;                    ///< main role
};

/// "main" or "sub", as on the command line.
const char* role_name(Role role);

/// Exit statuses of port_server.
namespace status {
constexpr int success = 0;
constexpr int failed = 1;     ///< it could not start
constexpr int bad_usage = 2;  ///< the command line, the configuration
}  // namespace status

/// Defines the command line, whose values go to `options`.
void describe(CLI::App& app, Options& options);

/// Fills `options` from the command line, and from the configuration file that it names where the
/// command line says nothing. An answer is the exit status to end with at once: help or the version
/// was asked for and has been printed, or the one line that says what is wrong.
std::optional<int> parse(int argc, char** argv, Options& options);

}  // namespace portsvc::server
