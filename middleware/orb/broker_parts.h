// What the two implementations of Broker share. For this folder only.
#pragma once

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "middleware/orb/orb.h"

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

/// The peer call time-out, or the one already in force if that is shorter; zero is none.
std::chrono::milliseconds usual_timeout_within(std::chrono::milliseconds in_force);

/// The cause of a failure to listen, as far as it can be told.
std::string why_not_listening(const Endpoint& endpoint);

/// Shuts a broker down without waiting for ever: the broker itself waits for the calls under way
/// without a limit, so a thread does that waiting and may be left behind.
class PatientShutdown {
 public:
  /// Waits for the end of a shutdown.
  ~PatientShutdown();

  /// Begins the shutdown if that has not been done. Whether it has ended within `patience`.
  bool run(CORBA::ORB_ptr orb, std::chrono::milliseconds patience);

 private:
  std::thread thread_;
  std::future<void> ended_;
};

}  // namespace portsvc::orb
