// The options that both programs have, because both talk to servers.
#pragma once

#include <cstdint>
#include <string>

#include "middleware/orb/orb.h"

namespace CLI {
class App;
}

namespace portsvc::cli {

struct PeerOptions {
  std::string directory;                  ///< a file, empty for none
  std::string naming;                     ///< a naming service, empty for none
  std::string realm;                      ///< empty for none
  std::uint64_t max_message = 64U << 20;  ///< bytes, sent and received
  unsigned int call_timeout = 5;          ///< seconds a call to a server may take that is no wait
  orb::Tls tls;
  unsigned int trace = 0;  ///< of the broker
};

/// Adds them to a command line. What `options` holds are the defaults.
void describe_peer_options(CLI::App& app, PeerOptions& options);

}  // namespace portsvc::cli
