// One run of portctl: its options for all commands, the broker, the server it talks to, and the
// connections to ports that end with it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "cli/peer_options.h"
#include "middleware/directory.h"
#include "middleware/orb/orb.h"

namespace portsvc::tools {

/// The options that stand before the command.
struct GlobalOptions : cli::PeerOptions {
  // A little more than a sub server gives its main server, so that what the sub server makes of
  // a silent main server still arrives here.
  GlobalOptions() { call_timeout = 7; }

  std::string server = "127.0.0.1:9700";
  bool json = false;
};

/// Made once, after the options have been read. Starts the broker at the first use, so that a
/// command without a server needs none. Not thread-safe.
class Session {
 public:
  explicit Session(const GlobalOptions& options) : options_(options) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const GlobalOptions& options() const { return options_; }

  /// The server of --server; the session keeps the reference. Throws UsageError for a text that
  /// is no reference, Unreachable when no port service answers there.
  Varo::DT_PORT_SVC::Port_Factory_ptr server();

  /// Looks the server up anew at its next use: after a restart it may have another address.
  void forget_server() { server_ = Varo::DT_PORT_SVC::Port_Factory::_nil(); }

  /// What a failed call to the server of --server means, and what to do.
  std::string explain(const CORBA::Exception& exception) const;

  /// Any other server, by reference or name; throws as server().
  Varo::DT_PORT_SVC::Port_Factory_var resolve(const std::string& server);

  /// The directory of --directory or --naming. Throws UsageError when there is none.
  Directory& directory();

  /// Why the directory has no answer to a question about `wanted` ("server 'line7'"): it does not
  /// answer itself, or it knows other servers only.
  std::string directory_problem(const std::string& wanted);

 private:
  orb::Broker& broker();

  const GlobalOptions& options_;
  // Destroyed from the last to the first: references before the broker.
  std::unique_ptr<orb::Broker> broker_;
  std::unique_ptr<orb::CallTimeout> call_timeout_;  // of every call that is no wait
  std::shared_ptr<Directory> directory_;
  Varo::DT_PORT_SVC::Port_Factory_var server_;
};

/// A connection to a port as its owner or as a client, ended by the destructor whatever happens
/// to the command.
class Connection {
 public:
  /// Connects; `mode` and `access` are those of connect_port. Throws ResultError; the server must
  /// outlive the connection.
  Connection(Varo::DT_PORT_SVC::Port_Factory_ptr server, const std::string& port, unsigned int mode,
             unsigned int access);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// The port id for an owner, the client handle for a client.
  CORBA::ULong handle() const { return handle_; }

 private:
  Varo::DT_PORT_SVC::Port_Factory_ptr server_;
  CORBA::ULong handle_ = 0;
};

}  // namespace portsvc::tools
