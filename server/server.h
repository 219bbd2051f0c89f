// A server of the port service, from start to stop.
#pragma once

#include <functional>
#include <optional>

#include "server/options.h"
#include "server/stop_signal.h"

namespace portsvc::server {

/// Reads the options again, for what SIGHUP changes; nothing when they are no longer good.
using Reread = std::function<std::optional<Options>()>;

/// Starts the server, serves until `stop` is raised, and stops. Throws std::exception, with one
/// line for people, when it cannot start.
void run(const Options& options, StopSignal& stop, const Reread& reread);

/// Looks at what the options name and a start would read: the endpoint's form, the files of TLS,
/// the directory of servers. Nothing is written and nobody is called. Throws std::exception, with
/// one line for people, for what is wrong.
void check(const Options& options);

}  // namespace portsvc::server
