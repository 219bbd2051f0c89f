// Where a server listens, as text. For this folder only.
#pragma once

#include <string>

namespace portsvc::orb {

/// Where to listen.
struct Endpoint {
  std::string host;       ///< a name or an address, an IPv6 one without brackets; empty: everywhere
  unsigned int port = 0;  ///< 0: any free one
  bool tls = false;
};

/// Reads "giop:tcp:HOST:PORT" or "giop:ssl:HOST:PORT"; an IPv6 address stands in brackets. Throws
/// Error.
Endpoint parse_endpoint(const std::string& text);

/// The cause of a failure to listen, as far as it can be told.
std::string why_not_listening(const Endpoint& endpoint);

/// A host's name or address, an IPv6 one in brackets, written otherwise. Not empty.
std::string other_spelling(std::string host);

}  // namespace portsvc::orb
