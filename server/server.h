// A server of the port service, from start to stop.
#pragma once

#include "server/options.h"
#include "server/stop_signal.h"

namespace portsvc::server {

/// Starts the server, serves until `stop` is raised, and stops. Throws std::exception, with one
/// line for people, when it cannot start.
void run(const Options& options, StopSignal& stop);

}  // namespace portsvc::server
