// What the broker's own TLS does not do: it tells nobody why a connection was refused, and reads
// its files once. For this folder only.
#pragma once

#include "middleware/orb/orb.h"

namespace portsvc::orb {

/// Has refused connections logged. Called before the broker starts.
void watch_handshakes();

/// From now on connections are made and taken with what is in these files; those that stand are
/// not touched. Throws Error, and nothing has changed, when they are not valid.
void use_certificates(const Tls& tls);

}  // namespace portsvc::orb
