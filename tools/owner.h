// Owning a port: connecting, also after a crash and when the server comes and goes, and ending a
// take that waits in the server.
#pragma once

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "middleware/owner_note.h"
#include "tools/interrupt.h"
#include "tools/session.h"
#include "tools/sink.h"

namespace portsvc::tools {

/// "process 4711 of press-7", or "an owner that left no word".
std::string owner_text(const std::optional<OwnerNote>& note);

/// The note of a port's owner, nothing when it is no portctl or has left none.
std::optional<OwnerNote> note_of_owner(Varo::DT_PORT_SVC::Port_Factory_ptr server,
                                       const std::string& port);

struct OwnerOptions {
  bool take_over = false;
  std::optional<unsigned int> take_over_after;
};

void describe_owner(CLI::App& command, OwnerOptions& options);

/// A port that this process owns, until the destructor.
class Owner {
 public:
  /// Connects. When the port has an owner already: takes the port over as `options` say, or throws
  /// ResultError. With a sink, waits of this owner end when its reader goes.
  Owner(Session& session, const std::string& port, const OwnerOptions& options,
        const Sink* sink = nullptr);

  CORBA::ULong handle() const { return connection_->handle(); }
  bool reader_gone() const { return reader_gone_.load(); }

  /// For a take that has found nothing: throws ResultError when somebody has released the port
  /// meanwhile. The server lets whoever knows the id go on waiting, for nothing. Of a proxy it is
  /// not asked: its owner comes back by itself when the main server does.
  void throw_if_released() const;

 private:
  /// Ends a take of this owner that waits in the server without letting it take anything: the
  /// server asks after each pause whether the owner still wants to wait.
  void end_take();

  Varo::DT_PORT_SVC::Port_Factory_var server_;
  std::string port_;
  std::atomic<bool> reader_gone_{false};
  std::unique_ptr<Connection> connection_;
  std::optional<ReaderWatch> watch_;  // goes before the connection that it uses
};

/// Whether a command goes on when the server is lost.
struct Reconnect {
  bool on = false;
  bool also_at_first = false;  ///< asked for by name: then it also waits for the first connection
};

/// The options --reconnect and --no-reconnect.
void describe_reconnect(CLI::App& command, Reconnect& reconnect);

/// Calls `serve(connected)`, and again after pauses that grow from a quarter of a second to half a
/// minute, when it throws because the server is lost or knows the port no more. `connected` tells
/// that there is a connection.
void keep_connected(Session& session, const Reconnect& reconnect,
                    const std::function<void(const std::function<void()>& connected)>& serve);

/// Pauses; throws Interrupted.
void pause_for(std::chrono::milliseconds time);

}  // namespace portsvc::tools
