// A server of the port service, from start to stop.
#pragma once

#include "server/options.h"
#include "server/stop_signal.h"

namespace portsvc::server {

/// Starts the server, serves until `stop` is raised, and stops. Throws std::exception, with one
/// line for people, when it cannot start.
void run(const Options& options, StopSignal& stop);

/// Looks at what the options name and a start would read: the endpoint's form, the files of TLS,
/// the directory of servers. Nothing is written and nobody is called. Throws std::exception, with
/// one line for people, for what is wrong.
void check(const Options& options);

}  // namespace portsvc::server
