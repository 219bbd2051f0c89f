// One run of portctl: its options for all commands and the server it talks to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/peer_options.h"
#include "portsvc/client.h"
#include "tools/interrupt_watch.h"

namespace portsvc::tools {

/// The options that stand before the command.
struct GlobalOptions : cli::PeerOptions {
  // A little more than a sub server gives its main server, so that what the sub server makes of
  // a silent main server still arrives here.
  GlobalOptions() { call_timeout = 7; }

  std::string server = "127.0.0.1:9700";
  bool json = false;
};

/// Made once, after the options have been read. Connects at the first use, so that a command
/// without a server needs none. Not thread-safe, but for what is said. Its operations throw
/// client::Error.
class Session {
 public:
  explicit Session(const GlobalOptions& options) : options_(options) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const GlobalOptions& options() const { return options_; }

  /// Lets waits go on when the server is lost and comes back, with a word about it on standard
  /// error. Before the first server().
  void go_on_when_lost() { goes_on_ = true; }

  /// The server of --server. An interruption ends waits there with failure::cancelled.
  client::Connection& server();

  /// Any other server, by reference or name.
  client::Connection connect(const std::string& server) const;

  /// Throws unless `result`, of a call to server(), is a success: Interrupted after a cancellation,
  /// else client::Error. `what` says what was tried, for example "create orders". Any thread.
  void check(const std::string& what, client::Result result);

  /// The servers of --directory or --naming. Throws UsageError when neither was given.
  std::vector<client::ListedServer> servers() const;
  bool has_directory() const { return !options_.directory.empty() || !options_.naming.empty(); }

  /// What the client library is told.
  client::Options client_options() const;

 private:
  const GlobalOptions& options_;
  bool goes_on_ = false;
  std::optional<client::Connection> server_;
  std::optional<InterruptWatch> watch_;  // goes before what it cancels
};

/// The time-out of an option that reads 0 as: as long as it takes.
inline client::Timeout timeout_of(unsigned int seconds) {
  return seconds == 0 ? client::forever : client::Timeout(std::chrono::seconds(seconds));
}

}  // namespace portsvc::tools
