// Whether an address can be reached, asked for people once a call has failed: a broker does not
// tell why it got no connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace portsvc {

enum class Reach {
  connected,
  unknown_host,  ///< the name has no address
  refused,       ///< the machine is there, and nothing listens
  no_route,      ///< the network says that there is no way
  silent         ///< nobody answered in time
};

/// Opens a TCP connection to the first address of `host` and closes it again. It takes `patience`
/// at most, beside the time of looking the name up.
Reach reach(const std::string& host, std::uint16_t port, std::chrono::milliseconds patience);

}  // namespace portsvc
