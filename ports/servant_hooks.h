// What a port may ask of the servant that created it. The servant core defines these functions;
// they pass the call on to the servant's operation of the same name, so the role's version runs.
#pragma once

#include <cstdint>

#include "middleware/orb/orb.h"

class Port_Factory_i;
class Port_impl;
class vrBuffer;

namespace portsvc {

/// What has become of a client handle that the peer has given a proxy.
enum class PeerHandle {
  opened,
  closed,
  left_open,  ///< it was not closed, or whether it was is not known
};

namespace servant {

/// Reference to the peer server's port service; nil when there is none.
Varo::DT_PORT_SVC::Port_Factory_var get_remote_point(Port_Factory_i* servant);
/// Forgets a peer reference that failed.
void releaseRemotePoint(Port_Factory_i* servant);
/// An event box was handed a packet.
int process_event_data(Port_Factory_i* servant, Port_impl* port, unsigned int handle,
                       const vrBuffer& data, bool front);
/// Which life of the peer answers now; see Port_Factory_i::peer_life.
std::uint64_t peer_life(Port_Factory_i* servant, Varo::DT_PORT_SVC::Port_Factory_ptr peer,
                        bool certainly);
void note_peer_handle(Port_Factory_i* servant, unsigned int handle, std::uint64_t life,
                      PeerHandle now);
void note_peer_owner(Port_Factory_i* servant, Port_impl* port,
                     Varo::DT_PORT_SVC::Port_Factory_ptr peer);

}  // namespace servant
}  // namespace portsvc
