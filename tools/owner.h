// Owning a port or a box for a command: the options about it, and what is told of other owners.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "portsvc/client.h"
#include "tools/errors.h"
#include "tools/interrupt_watch.h"
#include "tools/session.h"

namespace CLI {
class App;
}

namespace portsvc::tools {

struct OwnerOptions {
  bool take_over = false;                       ///< from one of this host that has ended
  std::optional<unsigned int> take_over_after;  ///< from anybody, after so many seconds
};

/// The options --take-over and --take-over-after.
void describe_owner(CLI::App& command, OwnerOptions& options);

/// What the client library is told of them.
client::OwnerOptions library_options(const OwnerOptions& options, const std::string& port);

/// "portctl, process 17 of press-7", or that there is no word.
std::string owner_text(const std::optional<client::OwnerWord>& word);

/// `owner_exists`, with who owns the port and what can be done.
[[noreturn]] void refuse_owned(Session& session, const OwnerOptions& options,
                               const std::string& port);

/// Makes the owner of a port or of a box: `Kind` is client::Owner or client::Box.
template <class Kind>
Kind own(Session& session, const std::string& port, const OwnerOptions& options) {
  client::Connection& server = session.server();
  try {
    return Kind(server, port, library_options(options, port));
  } catch (const client::Error& error) {
    if (error.result() != result::owner_exists) throw;
  }
  refuse_owned(session, options, port);
}

/// Whether a command goes on when the server is lost.
struct Reconnect {
  bool on = false;
  bool also_at_first = false;  ///< asked for by name: then it also waits for the first connection
};

/// The options --reconnect and --no-reconnect.
void describe_reconnect(CLI::App& command, Reconnect& reconnect);

/// What `make` makes of the session's server. With --reconnect said in so many words it waits until
/// the server is there, and what is asked of it.
template <class Make>
auto patiently(Session& session, const Reconnect& reconnect, Make make) {
  constexpr std::chrono::milliseconds longest{30000};
  if (reconnect.on) session.go_on_when_lost();
  for (std::chrono::milliseconds pause{250};; pause = std::min(pause * 2, longest)) {
    try {
      return make();
    } catch (const client::Error& error) {
      if (!reconnect.also_at_first || !error.result().may_pass()) throw;
      if (pause.count() == 250) warn(with_options(error.what()) + "; trying again");
    }
    pause_for(pause);
  }
}

}  // namespace portsvc::tools
