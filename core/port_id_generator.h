// The process's source of port ids.
#pragma once

namespace portsvc {

/// Starts the sequence anew (MT19937). Shared by all servants of the process; thread-safe.
void seed_port_ids(unsigned int seed);

/// The next port id, 0 to 2147483647: the generator's output shifted right by one.
unsigned int next_port_id();

}  // namespace portsvc
