// What a server tells of itself to those who run it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "middleware/orb/served_calls.h"
#include "ports/figures.h"

namespace portsvc {

/// How the writing of snapshots goes.
struct Snapshot_State {
  std::int64_t last_good = 0;  ///< calendar seconds of the last one written whole; 0 before any
  double seconds = 0;          ///< how long the last one written whole took
  std::uint64_t written = 0;
  std::uint64_t failed = 0;
  std::string problem;  ///< of the last attempt; empty when it was good
};

/// A sub server's main server.
struct Peer_Figures {
  std::string name;
  bool up = false;
  std::int64_t since = 0;  ///< calendar seconds: how long it has been up, or away
  std::uint64_t found = 0;
  std::uint64_t lost = 0;
};

/// How much there may be of something, and is.
struct Limit_Figures {
  const char* what = "";
  std::uint64_t used = 0;
  std::uint64_t most = 0;
  std::uint64_t refused = 0;
};

/// A server at one moment, see Port_Factory_i::figures().
struct Server_Figures {
  std::vector<Port_Figures> ports;  ///< in name order
  std::uint64_t subscriptions = 0;
  std::vector<std::string> sub_servers;  ///< main role: those that copies go to
  Forwarded copies;                      ///< main role: of all ports, also of those deleted since
  std::optional<Peer_Figures> peer;      ///< sub role
  Snapshot_State snapshot;
  // Of the process.
  std::vector<orb::Operation_Calls> calls;
  std::uint64_t bytes_received = 0;  ///< payloads in calls
  std::uint64_t bytes_sent = 0;
  std::uint64_t connections_taken = 0;
  std::vector<Limit_Figures> limits;
};

}  // namespace portsvc
