// The command line of port_server.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "server/log.h"

namespace portsvc::server {

enum class Role { main, sub };

/// BOX=COMMAND: an event box and the command whose lines go into it.
struct Feed_Option {
  std::string box;
  std::string command;
};

struct Options {
  Role role = Role::main;
  std::string name;            ///< the server's name in the directory
  std::string main_server;     ///< sub role: the main server's name in the directory
  std::string interface_name;  ///< the name itself unless chosen
  std::string realm;           ///< empty for none
  std::string endpoint = "giop:tcp:127.0.0.1:9700";
  std::string ior_file;   ///< empty for none
  std::string directory;  ///< a file, empty for none
  std::string naming;     ///< a naming service, empty for none
  std::string state_dir;  ///< empty: the executable's folder
  bool restore = false;
  bool restore_damaged = false;     ///< implies restore
  unsigned int snapshot_every = 0;  ///< seconds, 0 for never
  std::uint64_t max_message = 64ULL << 20;
  unsigned int call_timeout = 5;  ///< seconds a call to another server may take that is no wait
  unsigned int message_timeout = 120;  ///< seconds a message may take to arrive or to be taken
  std::string waits = "early";         ///< or "paused"
  // What there may be at a time, docs/operations.md.
  std::uint64_t max_connections = 0;  ///< 0: 16000, or what the open files leave room for
  std::uint64_t max_blocked_calls = 16'000;
  std::uint64_t max_ports = 1'000'000;
  std::uint64_t max_clients = 100'000;  ///< of one port
  std::uint64_t max_queued_bytes = 0;   ///< 0: half of the memory there is
  std::string tls_authorities;          ///< PEM files, empty without TLS
  std::string tls_key;
  unsigned int trace = 0;
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
constexpr int bad_usage = 2;  ///< the command line
}  // namespace status

/// Fills `options` from the command line. An answer is the exit status to end with at once: help
/// was asked for and has been printed, or the one line that says what is wrong.
std::optional<int> parse(int argc, char** argv, Options& options);

}  // namespace portsvc::server
