// The broker's connections. For this folder only.
#pragma once

#include <chrono>

namespace portsvc::orb {

/// From here on connections are counted and limited, and those of clients that take nothing, or are
/// gone, end after `message_timeout`. Called once a broker has been started, before it listens.
void watch_connections(std::chrono::milliseconds message_timeout);

/// The broker goes, and its count of connections with it.
void forget_connections();

}  // namespace portsvc::orb
